#include "model/runner_json.h"

#include "model/json_composed_serializer.h"

namespace Product::Integration::ConditionalRunner::JsonForms {
namespace {

using qv::JsonComposedSerializer;

// The record's object: the value itself for the empty path, else the value at
// `path` (logged like a member when absent).
const Json::Value* RecordNode(const Json::Value& root, const std::wstring& path) {
    return path.empty() ? &root : JsonComposedSerializer::LoadNode(root, path);
}

// The object of a Rule or a Method. A non-empty path is followed the way
// create mode follows it, so that a missing or null record reads as an empty
// one and the first missing member is what gets logged; only a malformed path
// yields nothing. The request is const and shared with the caller, so nothing
// is actually created: FindAsCreated gives the value create mode would start
// from without touching the document. A malformed path is logged like a member.
const Json::Value* RecordNodeAsCreated(const Json::Value& root, const std::wstring& path) {
    if (path.empty()) return &root;
    const Json::Value* node = JsonComposedSerializer::FindAsCreated(root, path);
    if (!node) JsonComposedSerializer::LogMissing(path);
    return node;
}

// Reads the array at `path` element by element with `readElement`, from
// index 0 up to the first index without an element (past the end or null),
// where the read ends successfully.
template <class T, class Reader>
bool ReadList(const Json::Value& root, const std::wstring& path, qv::IList<T>& list, Reader readElement) {
    const Json::Value* array = JsonComposedSerializer::Find(root, path);
    if (!array || !array->isArray()) {
        JsonComposedSerializer::LogMissing(path);
        return false;
    }
    for (int i = 0;; ++i) {
        const std::wstring elementPath = JsonComposedSerializer::ElementPath(path, i);
        if (!JsonComposedSerializer::Find(root, elementPath)) break;
        T element{};
        if (!readElement(root, elementPath, element)) return false;
        if (list.AddTail(element) != 0) return false;
    }
    return true;
}

// Element i lands at "%s[%i]"; the array is reached once, not through the
// element's path each time.
template <class T, class Writer>
bool WriteList(Json::Value& root, const std::wstring& path, const qv::IList<T>& list, Writer writeElement) {
    Json::Value* array = JsonComposedSerializer::FindOrCreate(root, path);
    if (!array) return false;
    *array = Json::Value(Json::arrayValue);
    array->resize(static_cast<Json::ArrayIndex>(list.Count()));
    bool ok = true;
    Json::ArrayIndex i = 0;
    list.ForEach([&](const T& element) { ok = ok && writeElement((*array)[i++], std::wstring(), element); });
    return ok;
}

}  // namespace

bool ReadRule(const Json::Value& root, const std::wstring& path, Rule& rule) {
    const Json::Value* node = RecordNodeAsCreated(root, path);
    if (!node) return false;
    Rule read;
    if (!JsonComposedSerializer::Load(*node, keys::kId, read.id) ||
        !JsonComposedSerializer::Load(*node, keys::kDisplayName, read.displayName) ||
        !JsonComposedSerializer::Load(*node, keys::kMethodSetId, read.methodSetId) ||
        !JsonComposedSerializer::Load(*node, keys::kMatchIf, read.matchIf))
        return false;
    rule = std::move(read);
    return true;
}

bool WriteRule(Json::Value& root, const std::wstring& path, const Rule& rule) {
    Json::Value* node = JsonComposedSerializer::FindOrCreate(root, path);
    if (!node) return false;
    return JsonComposedSerializer::Store(*node, keys::kId, rule.id) &&
           JsonComposedSerializer::Store(*node, keys::kDisplayName, rule.displayName) &&
           JsonComposedSerializer::Store(*node, keys::kMethodSetId, rule.methodSetId) &&
           JsonComposedSerializer::Store(*node, keys::kMatchIf, rule.matchIf);
}

bool ReadMethod(const Json::Value& root, const std::wstring& path, Method& method) {
    const Json::Value* node = RecordNodeAsCreated(root, path);
    if (!node) return false;
    Method read;
    if (!JsonComposedSerializer::Load(*node, keys::kId, read.id) ||
        !JsonComposedSerializer::Load(*node, keys::kDisplayName, read.displayName) ||
        !JsonComposedSerializer::Load(*node, keys::kMethods, read.methods))
        return false;
    if (node->isObject() && node->isMember("context") &&
        !JsonComposedSerializer::Load(*node, keys::kContext, read.context))
        return false;
    method = std::move(read);
    return true;
}

bool WriteMethod(Json::Value& root, const std::wstring& path, const Method& method) {
    Json::Value* node = JsonComposedSerializer::FindOrCreate(root, path);
    if (!node) return false;
    return JsonComposedSerializer::Store(*node, keys::kId, method.id) &&
           JsonComposedSerializer::Store(*node, keys::kDisplayName, method.displayName) &&
           JsonComposedSerializer::Store(*node, keys::kMethods, method.methods) &&
           (method.context.isNull() || JsonComposedSerializer::Store(*node, keys::kContext, method.context));
}

bool ReadRuleError(const Json::Value& root, const std::wstring& path, RuleError& error) {
    const Json::Value* node = RecordNode(root, path);
    if (!node) return false;
    RuleError read;
    if (!JsonComposedSerializer::Load(*node, keys::kIndex, read.index) ||
        !JsonComposedSerializer::Load(*node, keys::kError, read.error))
        return false;
    error = read;
    return true;
}

bool WriteRuleError(Json::Value& root, const std::wstring& path, const RuleError& error) {
    Json::Value* node = JsonComposedSerializer::FindOrCreate(root, path);
    if (!node) return false;
    return JsonComposedSerializer::Store(*node, keys::kIndex, error.index) &&
           JsonComposedSerializer::Store(*node, keys::kError, error.error);
}

bool ReadSettings(const Json::Value& root, const std::wstring& path, Settings& settings) {
    const Json::Value* node = RecordNode(root, path);
    if (!node) return false;
    Settings read;  // starts as 5 and 60
    if (!JsonComposedSerializer::Load(*node, keys::kMinEvalTime, read.minEvalTime) ||
        !JsonComposedSerializer::Load(*node, keys::kMaxPostponeTime, read.maxPostponeTime))
        return false;
    settings = read;
    return true;
}

bool WriteSettings(Json::Value& root, const std::wstring& path, const Settings& settings) {
    Json::Value* node = JsonComposedSerializer::FindOrCreate(root, path);
    if (!node) return false;
    return JsonComposedSerializer::Store(*node, keys::kMinEvalTime, settings.minEvalTime) &&
           JsonComposedSerializer::Store(*node, keys::kMaxPostponeTime, settings.maxPostponeTime);
}

bool ReadRules(const Json::Value& root, const std::wstring& path, qv::IList<Rule>& rules) {
    return ReadList(root, path, rules, ReadRule);
}

bool WriteRules(Json::Value& root, const std::wstring& path, const qv::IList<Rule>& rules) {
    return WriteList(root, path, rules, WriteRule);
}

bool ReadMethods(const Json::Value& root, const std::wstring& path, qv::IList<Method>& methods) {
    return ReadList(root, path, methods, ReadMethod);
}

bool WriteMethods(Json::Value& root, const std::wstring& path, const qv::IList<Method>& methods) {
    return WriteList(root, path, methods, WriteMethod);
}

bool ReadRuleErrors(const Json::Value& root, const std::wstring& path, qv::IList<RuleError>& errors) {
    return ReadList(root, path, errors, ReadRuleError);
}

bool WriteRuleErrors(Json::Value& root, const std::wstring& path, const qv::IList<RuleError>& errors) {
    return WriteList(root, path, errors, WriteRuleError);
}

bool ReadIds(const Json::Value& root, const std::wstring& path, qv::IList<std::wstring>& ids) {
    return ReadList(root, path, ids, [](const Json::Value& r, const std::wstring& p, std::wstring& id) {
        return JsonComposedSerializer::Load(r, p, id);
    });
}

bool WriteIds(Json::Value& root, const std::wstring& path, const qv::IList<std::wstring>& ids) {
    return WriteList(root, path, ids, [](Json::Value& r, const std::wstring& p, const std::wstring& id) {
        return JsonComposedSerializer::Store(r, p, id);
    });
}

bool ReadEnabled(const Json::Value& root, const std::wstring& path, bool& enabled) {
    return JsonComposedSerializer::Load(root, path, enabled);
}

bool WriteEnabled(Json::Value& root, const std::wstring& path, bool enabled) {
    return JsonComposedSerializer::Store(root, path, enabled);
}

}  // namespace Product::Integration::ConditionalRunner::JsonForms
