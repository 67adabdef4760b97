#pragma once
// Path-addressed access to JSON trees.
//
// A path is a sequence of segments separated by "/" or "\\" (a leading
// separator is skipped). A segment is a member name optionally followed by an
// index, name[3]; a segment of only [3] indexes the current value itself.
// The empty path and "/" both mean the value passed in.
//
// Read mode: a member segment needs an object that has the member, an index
// segment an array with that index; a path that ends on null is absent.
// Create mode: a non-object is replaced by an empty object before a member is
// added; missing array elements are created as null (growing the array); the
// final value is returned even when null, for the caller to overwrite.
//
// All text is wide inside the module and UTF-8 in JSON; text that is not valid
// UTF-8 reads as a failure.
//
// Stateless: callable from any thread; callers guard the values they pass.
#include <cstdint>
#include <string>
#include <string_view>

#include <json/value.h>

namespace qv {

class JsonComposedSerializer {
public:
    // Read-mode navigation; null when the path is absent or malformed.
    static const Json::Value* Find(const Json::Value& root, std::wstring_view path);
    // Create-mode navigation; null only when the path is malformed. Indexes
    // of kMaxIndex and above count as malformed, so that a stray path cannot
    // grow an array without bound.
    static Json::Value* FindOrCreate(Json::Value& root, std::wstring_view path);
    static constexpr uint32_t kMaxIndex = 1'000'000;
    // Create-mode navigation that leaves `root` unchanged: the value
    // FindOrCreate would return before the caller overwrites it. Where create
    // mode would add a member, grow an array or replace a value of the wrong
    // type, the result is a shared null value. Null only when the path is
    // malformed.
    static const Json::Value* FindAsCreated(const Json::Value& root, std::wstring_view path);

    // Find that logs "Failed to load subnode %s" with `path` (as Load does)
    // when the path is absent.
    static const Json::Value* LoadNode(const Json::Value& root, const std::wstring& path);
    // The readers' failure line, for callers that check a node themselves.
    static void LogMissing(const std::wstring& path);

    // Readers: false when the path is absent or holds another JSON type; a
    // failure logs "Failed to load subnode %s" with `path` at level 16 from
    // "JsonComposedSerializer::Load". `out` is only written on success.
    [[nodiscard]] static bool Load(const Json::Value& root, const std::wstring& path, std::wstring& out);
    [[nodiscard]] static bool Load(const Json::Value& root, const std::wstring& path, int32_t& out);
    [[nodiscard]] static bool Load(const Json::Value& root, const std::wstring& path, uint32_t& out);
    [[nodiscard]] static bool Load(const Json::Value& root, const std::wstring& path, bool& out);
    [[nodiscard]] static bool Load(const Json::Value& root, const std::wstring& path,
                                   Json::Value& out);  // any non-null sub-tree

    // Writers (create mode); false only when the path cannot be created.
    static bool Store(Json::Value& root, const std::wstring& path, const std::wstring& value);
    // Keeps a wide literal from converting to bool.
    static bool Store(Json::Value& root, const std::wstring& path, const wchar_t* value) {
        return Store(root, path, std::wstring(value ? value : L""));
    }
    static bool Store(Json::Value& root, const std::wstring& path, int32_t value);
    static bool Store(Json::Value& root, const std::wstring& path, uint32_t value);
    static bool Store(Json::Value& root, const std::wstring& path, bool value);
    static bool Store(Json::Value& root, const std::wstring& path, const Json::Value& value);

    // "%s[%i]": the path of element `index` of the array at `arrayPath`.
    static std::wstring ElementPath(const std::wstring& arrayPath, int index);

private:
    template <class T, class Is, class As>
    static bool LoadScalar(const Json::Value& root, const std::wstring& path, T& out, Is is, As as);
};

}  // namespace qv
