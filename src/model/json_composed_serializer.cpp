#include "model/json_composed_serializer.h"

#include <optional>
#include <vector>

#include "os/utf8.h"
#include "plugin/log.h"

namespace qv {
namespace {

constexpr const wchar_t* kLoadFunction = L"JsonComposedSerializer::Load";

// One navigation step: a member name (UTF-8) or an array index.
struct Step {
    bool isIndex = false;
    std::string name;
    Json::ArrayIndex index = 0;
};

bool IsSeparator(wchar_t c) { return c == L'/' || c == L'\\'; }

// Appends the steps of one segment, name[3][4] or [3]; false when malformed.
bool ParseSegment(std::wstring_view segment, std::vector<Step>& steps) {
    const size_t bracket = segment.find(L'[');
    const std::wstring_view name = segment.substr(0, bracket);
    if (!name.empty()) {
        auto utf8 = os::WideToUtf8(name);
        if (!utf8) return false;
        steps.push_back(Step{false, std::move(*utf8), 0});
    }
    if (bracket == std::wstring_view::npos) return true;
    std::wstring_view rest = segment.substr(bracket);
    while (!rest.empty()) {
        if (rest.front() != L'[') return false;
        const size_t close = rest.find(L']');
        if (close == std::wstring_view::npos || close == 1) return false;
        uint64_t index = 0;
        for (wchar_t c : rest.substr(1, close - 1)) {
            if (c < L'0' || c > L'9') return false;
            index = index * 10 + static_cast<uint64_t>(c - L'0');
            if (index >= JsonComposedSerializer::kMaxIndex) return false;
        }
        steps.push_back(Step{true, std::string(), static_cast<Json::ArrayIndex>(index)});
        rest.remove_prefix(close + 1);
    }
    return true;
}

// Splits a path into steps. Empty segments (leading, trailing or doubled
// separators) are skipped, so "" and "/" give no steps at all.
std::optional<std::vector<Step>> ParsePath(std::wstring_view path) {
    std::vector<Step> steps;
    while (!path.empty()) {
        size_t end = 0;
        while (end < path.size() && !IsSeparator(path[end])) ++end;
        if (end > 0 && !ParseSegment(path.substr(0, end), steps)) return std::nullopt;
        path.remove_prefix(end < path.size() ? end + 1 : end);
    }
    return steps;
}

}  // namespace

void JsonComposedSerializer::LogMissing(const std::wstring& path) {
    logging::Log(logging::kDetail, kLoadFunction, L"Failed to load subnode %s", path.c_str());
}

const Json::Value* JsonComposedSerializer::Find(const Json::Value& root, std::wstring_view path) {
    const auto steps = ParsePath(path);
    if (!steps) return nullptr;
    const Json::Value* current = &root;
    for (const Step& step : *steps) {
        if (step.isIndex) {
            if (!current->isArray() || !current->isValidIndex(step.index)) return nullptr;
            current = &(*current)[step.index];
        } else {
            if (!current->isObject()) return nullptr;
            current = current->find(step.name.data(), step.name.data() + step.name.size());
            if (!current) return nullptr;
        }
    }
    return current->isNull() ? nullptr : current;
}

Json::Value* JsonComposedSerializer::FindOrCreate(Json::Value& root, std::wstring_view path) {
    const auto steps = ParsePath(path);
    if (!steps) return nullptr;
    Json::Value* current = &root;
    for (const Step& step : *steps) {
        if (step.isIndex) {
            if (!current->isArray()) *current = Json::Value(Json::arrayValue);
            // Fill the gap explicitly, so the array holds real null elements.
            while (current->size() <= step.index) current->append(Json::Value());
            current = &(*current)[step.index];
        } else {
            if (!current->isObject()) *current = Json::Value(Json::objectValue);
            current = &(*current)[step.name];
        }
    }
    return current;
}

const Json::Value* JsonComposedSerializer::FindAsCreated(const Json::Value& root, std::wstring_view path) {
    const auto steps = ParsePath(path);
    if (!steps) return nullptr;
    const Json::Value* current = &root;
    for (const Step& step : *steps) {
        // Whatever create mode would make here starts as null, and every
        // later step from a made value would make null values too.
        if (step.isIndex) {
            if (!current->isArray() || !current->isValidIndex(step.index)) return &Json::Value::nullSingleton();
            current = &(*current)[step.index];
        } else {
            if (!current->isObject()) return &Json::Value::nullSingleton();
            current = current->find(step.name.data(), step.name.data() + step.name.size());
            if (!current) return &Json::Value::nullSingleton();
        }
    }
    return current;
}

const Json::Value* JsonComposedSerializer::LoadNode(const Json::Value& root, const std::wstring& path) {
    const Json::Value* node = Find(root, path);
    if (!node) LogMissing(path);
    return node;
}

// Reads a scalar whose JSON type `is` accepts, converting it with `as`.
template <class T, class Is, class As>
bool JsonComposedSerializer::LoadScalar(const Json::Value& root, const std::wstring& path, T& out, Is is, As as) {
    const Json::Value* node = Find(root, path);
    if (node && (node->*is)()) {
        out = (node->*as)();
        return true;
    }
    LogMissing(path);
    return false;
}

bool JsonComposedSerializer::Load(const Json::Value& root, const std::wstring& path, std::wstring& out) {
    const Json::Value* node = Find(root, path);
    const char* begin = nullptr;
    const char* end = nullptr;
    if (node && node->isString() && node->getString(&begin, &end)) {
        if (auto wide = os::Utf8ToWide(std::string_view(begin, static_cast<size_t>(end - begin)))) {
            out = std::move(*wide);
            return true;
        }
    }
    LogMissing(path);
    return false;
}

bool JsonComposedSerializer::Load(const Json::Value& root, const std::wstring& path, int32_t& out) {
    return LoadScalar(root, path, out, &Json::Value::isInt, &Json::Value::asInt);
}

bool JsonComposedSerializer::Load(const Json::Value& root, const std::wstring& path, uint32_t& out) {
    return LoadScalar(root, path, out, &Json::Value::isUInt, &Json::Value::asUInt);
}

bool JsonComposedSerializer::Load(const Json::Value& root, const std::wstring& path, bool& out) {
    return LoadScalar(root, path, out, &Json::Value::isBool, &Json::Value::asBool);
}

bool JsonComposedSerializer::Load(const Json::Value& root, const std::wstring& path, Json::Value& out) {
    const Json::Value* node = LoadNode(root, path);
    if (!node) return false;
    if (node != &out) out = *node;
    return true;
}

bool JsonComposedSerializer::Store(Json::Value& root, const std::wstring& path, const std::wstring& value) {
    // Writers never fail on text: an unpaired surrogate is written as U+FFFD.
    return Store(root, path, Json::Value(os::WideToUtf8Lossy(value)));
}

bool JsonComposedSerializer::Store(Json::Value& root, const std::wstring& path, int32_t value) {
    return Store(root, path, Json::Value(static_cast<Json::Int>(value)));
}

bool JsonComposedSerializer::Store(Json::Value& root, const std::wstring& path, uint32_t value) {
    return Store(root, path, Json::Value(static_cast<Json::UInt>(value)));
}

bool JsonComposedSerializer::Store(Json::Value& root, const std::wstring& path, bool value) {
    return Store(root, path, Json::Value(value));
}

bool JsonComposedSerializer::Store(Json::Value& root, const std::wstring& path, const Json::Value& value) {
    // Copied first: `value` may live inside `root` and move while the path is created.
    Json::Value copy(value);
    Json::Value* node = FindOrCreate(root, path);
    if (!node) return false;
    *node = std::move(copy);
    return true;
}

std::wstring JsonComposedSerializer::ElementPath(const std::wstring& arrayPath, int index) {
    return arrayPath + L"[" + std::to_wstring(index) + L"]";
}

}  // namespace qv
