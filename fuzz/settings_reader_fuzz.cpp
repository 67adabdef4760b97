// The settings store's file reader over any file. The input is the state
// file's bytes. Either the store refuses the file, with a reason, and leaves
// it byte for byte as it was; or it opens it, and then a value written and
// committed reads back after the file is opened again, as does everything
// that was readable before (every node, its children and the values under
// the names the runner uses), but for the node written.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <json/value.h>

#include "fuzz_check.h"
#include "host/settings/settings_store.h"
#include "os/utf8.h"
#include "scratch_folder.h"

namespace {

constexpr const wchar_t* kWrittenNode = L"/fuzz-written";
constexpr size_t kMaxNodes = 512;
// The value names the runner and the tests use.
const wchar_t* const kValueNames[] = {L"", L"enabled", L"id", L"displayName", L"methods", L"context", L"data", L"a"};

const std::filesystem::path& Folder() {
    static const fuzz_support::ScratchFolder folder("settings");
    return folder.path();
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// What one node shows: its children and the values under the known names.
struct NodeView {
    std::vector<std::wstring> children;
    std::map<std::wstring, Json::Value> values;
};
using TreeView = std::map<std::wstring, NodeView>;  // by path

void Walk(IEPSettings& store, const std::wstring& path, TreeView& view) {
    if (view.size() >= kMaxNodes) return;
    IEPSettingsNode* node = nullptr;
    if (store.OpenForRead(path.c_str(), &node) != 0) return;
    NodeView& seen = view[path];
    if (node->GetChildNames(seen.children) != 0) seen.children.clear();
    for (const wchar_t* name : kValueNames) {
        Json::Value value;
        if (node->GetJson(name, value) == 0) seen.values[name] = value;
    }
    node->Release();
    const std::vector<std::wstring> children = seen.children;  // `seen` may move as the map grows
    for (const std::wstring& child : children) Walk(store, path == L"/" ? L"/" + child : path + L"/" + child, view);
}

bool UnderWritten(const std::wstring& path) {
    const std::wstring written(kWrittenNode);
    return path.compare(0, written.size(), written) == 0 &&
           (path.size() == written.size() || path[written.size()] == L'/');
}

std::string Narrow(const std::wstring& text) { return os::WideToUtf8Lossy(text); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::filesystem::path file = Folder() / "state.json";
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

    os::Expected<std::unique_ptr<host::SettingsStore>> opened = host::SettingsStore::Open(file.wstring());
    if (!opened) {
        const os::Status refused = opened.status();
        FUZZ_CHECK(!refused.message().empty(), "a file refused without a reason");
        FUZZ_CHECK(ReadFile(file) == bytes, "a refused file was changed: %s", Narrow(refused.message()).c_str());
        return 0;
    }
    std::unique_ptr<host::SettingsStore> store = std::move(*opened);

    TreeView before;
    Walk(*store, L"/", before);

    Json::Value marker(Json::objectValue);
    marker["size"] = static_cast<Json::Int>(size % 1000);  // read back as an int, and compared as one
    marker["text"] = "written by the fuzzer \xC3\xA9";
    IEPSettingsNode* node = nullptr;
    FUZZ_CHECK(store->OpenForWrite(kWrittenNode, &node) == 0, "a node cannot be opened for writing");
    FUZZ_CHECK(node->SetJson(L"value", marker) == 0, "a value cannot be set");
    FUZZ_CHECK(node->Commit() == 0, "a commit to an opened file failed: %s", Narrow(store->LastCommitError()).c_str());
    node->Release();
    store.reset();

    opened = host::SettingsStore::Open(file.wstring());
    FUZZ_CHECK(opened.ok(), "a file the store wrote cannot be opened again: %s",
               Narrow(opened.status().message()).c_str());
    store = std::move(*opened);
    FUZZ_CHECK(store->OpenForRead(kWrittenNode, &node) == 0, "the node written is gone; the file holds %s",
               ReadFile(file).c_str());
    Json::Value back;
    FUZZ_CHECK(node->GetJson(L"value", back) == 0 && back == marker,
               "the value written does not read back: %s; the file holds %s", back.toStyledString().c_str(),
               ReadFile(file).c_str());
    node->Release();

    TreeView after;
    Walk(*store, L"/", after);
    for (const auto& [path, seen] : before) {
        if (UnderWritten(path)) continue;
        const auto now = after.find(path);
        FUZZ_CHECK(now != after.end(), "node %s was readable before a write elsewhere, not after",
                   Narrow(path).c_str());
        for (const auto& [name, value] : seen.values) {
            const auto kept = now->second.values.find(name);
            FUZZ_CHECK(kept != now->second.values.end() && kept->second == value,
                       "value \"%s\" of node %s changed with a write elsewhere", Narrow(name).c_str(),
                       Narrow(path).c_str());
        }
        for (const std::wstring& child : seen.children) {
            bool found = false;
            for (const std::wstring& still : now->second.children) found = found || still == child;
            FUZZ_CHECK(found, "child %s of node %s is gone", Narrow(child).c_str(), Narrow(path).c_str());
        }
    }
    return 0;
}
