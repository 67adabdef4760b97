#pragma once
// JSON forms of the runner's records and lists, shared by the console
// commands and the persisted state.
//
// Every reader and writer takes a JSON value, a path inside it (the empty
// path for the value itself; syntax of JsonComposedSerializer) and the
// record. Readers return false after logging the missing or mistyped member
// ("Failed to load subnode %s", level 16) and leave the record untouched;
// list readers append to the given list and may leave some elements appended
// on failure, for the caller to discard. Writers fail only when the path
// cannot be created. Pure functions of their arguments: callable on any thread.
#include <string>

#include <json/value.h>

#include "model/conditional_runner.h"

namespace Product::Integration::ConditionalRunner {

using Rule = IConditionalRunner::Rule;
using Method = IConditionalRunner::Method;
using RuleError = IConditionalRunner::RuleError;
using Settings = IConditionalRunner::Settings;

namespace JsonForms {

// Member names of the JSON forms.
namespace keys {
inline constexpr const wchar_t* kId = L"id";
inline constexpr const wchar_t* kDisplayName = L"displayName";
inline constexpr const wchar_t* kMethodSetId = L"methodSetId";
inline constexpr const wchar_t* kMatchIf = L"matchIf";
inline constexpr const wchar_t* kMethods = L"methods";
inline constexpr const wchar_t* kContext = L"context";
inline constexpr const wchar_t* kIndex = L"index";
inline constexpr const wchar_t* kError = L"error";
inline constexpr const wchar_t* kRules = L"rules";
inline constexpr const wchar_t* kRulesErrors = L"rulesErrors";
inline constexpr const wchar_t* kIds = L"ids";
inline constexpr const wchar_t* kSettings = L"settings";
inline constexpr const wchar_t* kMinEvalTime = L"minEvalTime";
inline constexpr const wchar_t* kMaxPostponeTime = L"maxPostponeTime";
inline constexpr const wchar_t* kEnabled = L"enabled";
}  // namespace keys

// {"id", "displayName", "methodSetId", "matchIf"}: all required; "matchIf"
// is kept as given (any non-null value). Rule and Method readers follow a
// non-empty path as create mode would, without changing `root`: a missing or
// null record fails on its first member ("id"); only a malformed path fails
// on the path itself.
[[nodiscard]] bool ReadRule(const Json::Value& root, const std::wstring& path, Rule& rule);
bool WriteRule(Json::Value& root, const std::wstring& path, const Rule& rule);

// {"id", "displayName", "methods", optional "context"}: an absent "context"
// reads as null; a present one must load (a null "context" fails). Written
// without "context" when it is null.
[[nodiscard]] bool ReadMethod(const Json::Value& root, const std::wstring& path, Method& method);
bool WriteMethod(Json::Value& root, const std::wstring& path, const Method& method);

// {"index", "error"}.
[[nodiscard]] bool ReadRuleError(const Json::Value& root, const std::wstring& path, RuleError& error);
bool WriteRuleError(Json::Value& root, const std::wstring& path, const RuleError& error);

// The object at `path` holding "minEvalTime" and "maxPostponeTime", both
// required unsigned numbers: a request never sets one value alone.
[[nodiscard]] bool ReadSettings(const Json::Value& root, const std::wstring& path, Settings& settings);
bool WriteSettings(Json::Value& root, const std::wstring& path, const Settings& settings);

// Arrays at `path` ("rules", "rulesErrors", "methods", "ids" in commands).
// Reading requires an array and reads elements "%s[%i]" from index 0 up to
// the first missing one, where it ends successfully (a null element counts as
// missing); an empty array reads as no elements. Writing first
// sets `path` to an empty array, then writes element i at "%s[%i]".
[[nodiscard]] bool ReadRules(const Json::Value& root, const std::wstring& path, qv::IList<Rule>& rules);
bool WriteRules(Json::Value& root, const std::wstring& path, const qv::IList<Rule>& rules);
[[nodiscard]] bool ReadMethods(const Json::Value& root, const std::wstring& path, qv::IList<Method>& methods);
bool WriteMethods(Json::Value& root, const std::wstring& path, const qv::IList<Method>& methods);
[[nodiscard]] bool ReadRuleErrors(const Json::Value& root, const std::wstring& path, qv::IList<RuleError>& errors);
bool WriteRuleErrors(Json::Value& root, const std::wstring& path, const qv::IList<RuleError>& errors);
[[nodiscard]] bool ReadIds(const Json::Value& root, const std::wstring& path, qv::IList<std::wstring>& ids);
bool WriteIds(Json::Value& root, const std::wstring& path, const qv::IList<std::wstring>& ids);

// The on/off switch: a JSON bool at `path` ("enabled" in commands).
[[nodiscard]] bool ReadEnabled(const Json::Value& root, const std::wstring& path, bool& enabled);
bool WriteEnabled(Json::Value& root, const std::wstring& path, bool enabled);

}  // namespace JsonForms
}  // namespace Product::Integration::ConditionalRunner
