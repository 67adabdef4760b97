#pragma once
// A rule as the runner keeps it once installed: the rule and its JSON form as
// stored, made together and never changed after. The installed rules and the
// last-run list share records instead of copying rules.
//
// Thread rules: a record is read-only, except that RunnerStore lends its
// JSON form to a document being saved and takes it back before returning;
// the runner does that under its lock, as it does everything else with them.
#include <memory>

#include <json/value.h>

#include "model/runner_json.h"

namespace Product::Integration::ConditionalRunner {

struct RuleRecord {
    explicit RuleRecord(const Rule& from) : rule(from) { JsonForms::WriteRule(json, std::wstring(), rule); }

    const Rule rule;
    mutable Json::Value json;  // {"id", "displayName", "methodSetId", "matchIf"}
};

using RulePtr = std::shared_ptr<const RuleRecord>;

}  // namespace Product::Integration::ConditionalRunner
