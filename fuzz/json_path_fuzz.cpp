// Path-addressed JSON access: the three ways of following a path agree. For
// any document and path, Find answers a value exactly when the path is
// there, FindOrCreate changes nothing on a path that is there, FindAsCreated
// answers what FindOrCreate finds before it is overwritten (and leaves its
// document alone), and a value stored at a path reads back from it. The
// input is the document's JSON text, a NUL byte, then the path (one
// character per byte).
#include <cstdint>
#include <memory>
#include <string>

#include <json/reader.h>

#include "fuzz_check.h"
#include "model/json_composed_serializer.h"

using qv::JsonComposedSerializer;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    size_t split = 0;
    while (split < size && data[split] != 0) ++split;
    if (split == size) return 0;
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = 100;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    const char* text = reinterpret_cast<const char*>(data);
    try {
        if (!reader->parse(text, text + split, &root, &errors)) return 0;
    } catch (const std::exception&) {
        return 0;
    }
    const std::wstring path(data + split + 1, data + size);

    const Json::Value original = root;
    const Json::Value* found = JsonComposedSerializer::Find(root, path);
    const Json::Value* asCreated = JsonComposedSerializer::FindAsCreated(root, path);
    FUZZ_CHECK(root == original, "reading changed the document");
    if (found) {
        FUZZ_CHECK(asCreated && *asCreated == *found, "a path that is there is created as something else");
        FUZZ_CHECK(!found->isNull(), "Find answered null");
    }

    // Creating grows arrays up to the index asked for (a million at most):
    // large indexes are only read, so that the fuzzer keeps its pace.
    size_t digits = 0, longest = 0;
    for (wchar_t c : path) {
        digits = c >= L'0' && c <= L'9' ? digits + 1 : 0;
        longest = digits > longest ? digits : longest;
    }
    if (longest > 4) return 0;

    Json::Value created = original;
    Json::Value* made = JsonComposedSerializer::FindOrCreate(created, path);
    FUZZ_CHECK((made != nullptr) == (asCreated != nullptr), "FindOrCreate and FindAsCreated disagree on the path");
    if (!made) return 0;
    FUZZ_CHECK(*made == *asCreated, "FindAsCreated foresaw another value");
    if (found) FUZZ_CHECK(created == original, "FindOrCreate changed a path that was there");

    Json::Value stored = original;
    const Json::Value marker("fuzz-marker");
    if (JsonComposedSerializer::Store(stored, path, marker)) {
        const Json::Value* back = JsonComposedSerializer::Find(stored, path);
        FUZZ_CHECK(back && *back == marker, "a stored value does not read back");
    }
    return 0;
}
