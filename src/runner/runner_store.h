#pragma once
// The runner's persisted state in the host's settings tree:
//   "/MethodsRunner"                   "enabled"          bool
//   "/MethodsRunner/Rules"             unnamed value      {"data": [rules]}
//   "/MethodsRunner/Info"              unnamed value      {"data": [last-run rules]}
//   "/MethodsRunner/methodsRunStarted" unnamed value      bool
//   "/Methods_<id>", one per method set  "id", "displayName" (text),
//                                        "methods", "context" (JSON, "context" optional)
// Rules are stored as one document, each method set as a node of its own.
// Reading errors leave the caller with empty state rather than failing it;
// saving errors are logged and returned.
//
// Thread rules: not synchronised; the runner calls it under its lock. The
// settings store itself may be shared with other plug-ins.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "model/ordinal_order.h"
#include "model/runner_json.h"
#include "qv/settings_store.h"
#include "runner/rule_record.h"

namespace Product::Integration::ConditionalRunner {

// Method sets by id, in the ordinal order of the ids (UTF-16 code units).
using MethodSets = std::map<std::wstring, Method, qv::Utf16OrdinalLess>;

class RunnerStore {
public:
    static constexpr const wchar_t* kRulesPath = L"/MethodsRunner/Rules";
    static constexpr const wchar_t* kLastRunPath = L"/MethodsRunner/Info";

    // `settings` may be null (no store: every operation fails, logged).
    explicit RunnerStore(IEPSettings* settings) : settings_(settings) {}

    [[nodiscard]] int32_t ReadEnabled(bool& enabled);
    [[nodiscard]] int32_t SaveEnabled(bool enabled);

    // Replaces `rules` with the rules stored at `path`. Always 0: a missing or
    // unreadable document reads as no rules.
    [[nodiscard]] int32_t ReadRules(const wchar_t* path, qv::List<Rule>& rules);
    [[nodiscard]] int32_t SaveRules(const wchar_t* path, const qv::IList<Rule>& rules);
    // The same from the runner's records: their JSON forms are lent to the
    // document for the time of the call, not copied; each record appears at
    // most once. The document's array is kept between calls (its elements
    // empty), so that a save makes no element anew when the count is steady.
    [[nodiscard]] int32_t SaveRules(const wchar_t* path, const std::vector<RulePtr>& rules);

    [[nodiscard]] int32_t ReadMethodsRunStarted(bool& started);
    [[nodiscard]] int32_t SaveMethodsRunStarted(bool started);
    // The last-run rules, trusted only when the flag above reads false: a
    // process that ended in the middle of a run leaves them empty, so that
    // every true rule runs again. 0 in every case.
    [[nodiscard]] int32_t ReadLastRunRules(qv::List<Rule>& rules);

    // Every "/Methods_" node of the root; a node that cannot be read is
    // logged and skipped. 0, or the store's status when the root cannot be
    // opened (no method set at all yet).
    [[nodiscard]] int32_t ReadMethods(MethodSets& methodSets);
    // One method set from its node; kNotFound when there is none.
    [[nodiscard]] int32_t ReadMethod(const std::wstring& id, Method& methodSet);
    [[nodiscard]] int32_t SaveMethod(const Method& methodSet);
    [[nodiscard]] int32_t DeleteMethod(const std::wstring& id);
    // Removes every "/Methods_" node and nothing else; `removed` gets the
    // names of the nodes that went. 0 also when single removals failed (each
    // is logged, its node stays); kFunctionFailed without a root; the store's
    // error when the removals could not be saved (then none went).
    [[nodiscard]] int32_t DeleteAllMethods(std::vector<std::wstring>& removed);

    // "Methods_" + id: the name of a method set's node under the root.
    static std::wstring MethodNodeName(const std::wstring& id);

private:
    struct NodeRelease {
        void operator()(IEPSettingsNode* node) const { node->Release(); }
    };
    using Node = std::unique_ptr<IEPSettingsNode, NodeRelease>;

    // Opens `path`; logs `missingNode` (or "Error invalid settings" without a
    // store) under `function` on failure.
    int32_t Open(const wchar_t* path, bool forWrite, Node& node, const wchar_t* function, const wchar_t* missingNode);
    int32_t ReadMethodNode(const std::wstring& nodeName, Method& methodSet);
    // Stores `document` as the rules at `path`.
    int32_t SaveRulesDocument(const wchar_t* path, const Json::Value& document);

    IEPSettings* settings_;
    Json::Value lendingDocument_;  // {"data": [null, ...]} between SaveRules calls
};

}  // namespace Product::Integration::ConditionalRunner
