#pragma once
// A rule as the runner keeps it once installed: the rule and its JSON form as
// stored, made together and never changed after. The installed rules and the
// last-run list share records instead of copying rules.
//
// The condition tree is held once, in the rule: the JSON form keeps the other
// members and an empty "matchIf" that the tree fills only while the form is
// lent to a document being saved (Lend, then TakeBack), so that saving copies
// nothing and the tree is not kept twice.
//
// Thread rules: a record is read-only, except while RunnerStore lends its
// JSON form (with the tree) to a document being saved and takes it back
// before returning; the runner does that under its lock, as it does
// everything else with them.
#include <memory>
#include <utility>

#include <json/value.h>

#include "model/runner_json.h"

namespace Product::Integration::ConditionalRunner {

class RuleRecord {
public:
    explicit RuleRecord(Rule from) : rule_(std::move(from)) {
        // Written without the tree, which would only be copied to be dropped.
        Json::Value tree;
        tree.swap(rule_.matchIf);
        JsonForms::WriteRule(json_, std::wstring(), rule_);
        tree.swap(rule_.matchIf);
        matchIf_ = &json_[kMatchIfKey];
        treeHasComment_ = rule_.matchIf.hasComment(Json::commentBefore) ||
                          rule_.matchIf.hasComment(Json::commentAfterOnSameLine) ||
                          rule_.matchIf.hasComment(Json::commentAfter);
    }
    RuleRecord(const RuleRecord&) = delete;
    RuleRecord& operator=(const RuleRecord&) = delete;

    const Rule& rule() const noexcept { return rule_; }

    // Moves the whole JSON form into `element` (null before, without
    // comments); the rule's tree is missing from rule() until TakeBack.
    void Lend(Json::Value& element) const {
        Exchange(rule_.matchIf, *matchIf_);
        element.swapPayload(json_);
    }
    // Undoes Lend with the same `element`.
    void TakeBack(Json::Value& element) const {
        element.swapPayload(json_);
        Exchange(*matchIf_, rule_.matchIf);
    }

private:
    static constexpr const char* kMatchIfKey = "matchIf";

    // Exchanges the tree held by `from` with the null without comments in
    // `to`: the payloads alone (a fraction of a whole swap) unless the tree
    // carries a comment, which the writer writes and which must travel with
    // it. The form and the elements it is lent to never carry comments, so
    // their payloads are all they exchange.
    void Exchange(Json::Value& from, Json::Value& to) const {
        if (treeHasComment_)
            from.swap(to);
        else
            from.swapPayload(to);
    }

    mutable Rule rule_;
    mutable Json::Value json_;        // {"id", "displayName", "methodSetId", "matchIf": null}
    Json::Value* matchIf_ = nullptr;  // json_'s "matchIf" member (swapping json_ moves no member)
    bool treeHasComment_ = false;     // the tree's own comments (it never changes)
};

using RulePtr = std::shared_ptr<const RuleRecord>;

}  // namespace Product::Integration::ConditionalRunner
