#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <json/reader.h>

#include "host/reference_host.h"
#include "host/settings_store.h"
#include "os/file_io.h"
#include "qv/status.h"
#include "support/log_capture.h"

namespace {

namespace status = qv::status;
using testing_support::TempDir;
using Names = std::vector<std::wstring>;

struct Releaser {
    void operator()(IEPSettingsNode* node) const { node->Release(); }
};
using NodePtr = std::unique_ptr<IEPSettingsNode, Releaser>;

std::unique_ptr<host::SettingsStore> OpenStore(const std::wstring& path) {
    std::wstring error;
    auto store = host::SettingsStore::Open(path, error);
    EXPECT_TRUE(store) << error;
    return store;
}

NodePtr Reader(IEPSettings& store, const wchar_t* path) {
    IEPSettingsNode* node = nullptr;
    EXPECT_EQ(store.OpenForRead(path, &node), status::kSuccess) << path;
    return NodePtr(node);
}

NodePtr Writer(IEPSettings& store, const wchar_t* path) {
    IEPSettingsNode* node = nullptr;
    EXPECT_EQ(store.OpenForWrite(path, &node), status::kSuccess) << path;
    return NodePtr(node);
}

int32_t ReadStatus(IEPSettings& store, const wchar_t* path) {
    IEPSettingsNode* node = nullptr;
    const int32_t result = store.OpenForRead(path, &node);
    if (node) node->Release();
    return result;
}

std::wstring StringOf(IEPSettingsNode& node, const wchar_t* name) {
    std::wstring value;
    EXPECT_EQ(node.GetString(name, value), status::kSuccess) << name;
    return value;
}

Names ChildrenOf(IEPSettingsNode& node) {
    Names names;
    EXPECT_EQ(node.GetChildNames(names), status::kSuccess);
    return names;
}

std::string Bytes(const std::wstring& path) {
    std::string bytes;
    EXPECT_EQ(os::ReadWholeFile(path, bytes), os::ReadResult::kRead);
    return bytes;
}

Names Entries(const std::wstring& folder) {
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(folder)))
        names.push_back(entry.path().filename().wstring());
    return names;
}

}  // namespace

TEST(SettingsStore, ValuesRoundTripByTypeAndSurviveReopening) {
    TempDir dir;
    const std::wstring file = dir.File(L"settings.json");
    Json::Value document;
    document["list"][0] = 1.5;
    document["list"][1] = Json::Value(Json::nullValue);
    document["text"] = "\xC3\xA9t\xC3\xA9";
    {
        auto store = OpenStore(file);
        ASSERT_TRUE(store);
        EXPECT_EQ(ReadStatus(*store, L"/"), status::kSuccess);  // the empty tree has its root
        auto node = Writer(*store, L"/A/B");
        ASSERT_TRUE(node);
        ASSERT_EQ(node->SetString(L"name", L"caf\u00E9 \U0001F600"), status::kSuccess);
        ASSERT_EQ(node->SetString(L"", L"unnamed"), status::kSuccess);
        ASSERT_EQ(node->SetBool(L"flag", true), status::kSuccess);
        ASSERT_EQ(node->SetJson(L"doc", document), status::kSuccess);
        ASSERT_EQ(node->Commit(), status::kSuccess);
    }
    auto store = OpenStore(file);
    ASSERT_TRUE(store);
    auto parent = Reader(*store, L"/A");  // made by the commit below it
    ASSERT_TRUE(parent);
    EXPECT_EQ(ChildrenOf(*parent), Names{L"B"});
    auto node = Reader(*store, L"/A/B");
    ASSERT_TRUE(node);
    EXPECT_EQ(StringOf(*node, L"name"), L"caf\u00E9 \U0001F600");
    EXPECT_EQ(StringOf(*node, L""), L"unnamed");
    bool flag = false;
    EXPECT_EQ(node->GetBool(L"flag", flag), status::kSuccess);
    EXPECT_TRUE(flag);
    Json::Value json;
    EXPECT_EQ(node->GetJson(L"doc", json), status::kSuccess);
    EXPECT_EQ(json, document);
    // GetJson answers every value: strings and bools as their JSON forms.
    EXPECT_EQ(node->GetJson(L"name", json), status::kSuccess);
    EXPECT_EQ(json, Json::Value("caf\xC3\xA9 \xF0\x9F\x98\x80"));
    EXPECT_EQ(node->GetJson(L"flag", json), status::kSuccess);
    EXPECT_EQ(json, Json::Value(true));
}

TEST(SettingsStore, UncommittedChangesAreDroppedAndInvisibleToReaders) {
    TempDir dir;
    const std::wstring file = dir.File(L"settings.json");
    auto store = OpenStore(file);
    ASSERT_TRUE(store);
    auto writer = Writer(*store, L"/N");
    ASSERT_TRUE(writer);
    ASSERT_EQ(writer->SetString(L"v", L"one"), status::kSuccess);
    EXPECT_EQ(StringOf(*writer, L"v"), L"one");  // the writer reads its own change
    EXPECT_EQ(ReadStatus(*store, L"/N"), status::kNotFound);
    ASSERT_EQ(writer->Commit(), status::kSuccess);

    // The node stays open: a second change, readers opened meanwhile see the first.
    auto before = Reader(*store, L"/N");
    ASSERT_TRUE(before);
    ASSERT_EQ(writer->SetString(L"v", L"two"), status::kSuccess);
    EXPECT_EQ(StringOf(*Reader(*store, L"/N"), L"v"), L"one");
    ASSERT_EQ(writer->Commit(), status::kSuccess);
    EXPECT_EQ(StringOf(*Reader(*store, L"/N"), L"v"), L"two");
    EXPECT_EQ(StringOf(*before, L"v"), L"one");  // a reader keeps what it opened

    // Released without a commit: nothing changes, in the tree or the file.
    auto dropped = Writer(*store, L"/N");
    ASSERT_TRUE(dropped);
    ASSERT_EQ(dropped->SetString(L"v", L"three"), status::kSuccess);
    ASSERT_EQ(dropped->SetBool(L"new", true), status::kSuccess);
    dropped.reset();
    auto unused = Writer(*store, L"/Never");
    unused.reset();
    EXPECT_EQ(ReadStatus(*store, L"/Never"), status::kNotFound);
    auto reopened = OpenStore(file);
    ASSERT_TRUE(reopened);
    for (IEPSettings* s : {static_cast<IEPSettings*>(store.get()), static_cast<IEPSettings*>(reopened.get())}) {
        auto node = Reader(*s, L"/N");
        ASSERT_TRUE(node);
        EXPECT_EQ(StringOf(*node, L"v"), L"two");
        bool flag = false;
        EXPECT_EQ(node->GetBool(L"new", flag), status::kNotFound);
    }

    // A reading node changes nothing.
    EXPECT_EQ(before->SetString(L"v", L"x"), status::kAccessDenied);
    EXPECT_EQ(before->SetBool(L"v", true), status::kAccessDenied);
    EXPECT_EQ(before->SetJson(L"v", Json::Value(1)), status::kAccessDenied);
    EXPECT_EQ(Reader(*store, L"/")->RemoveChild(L"N"), status::kAccessDenied);
    EXPECT_EQ(before->Commit(), status::kAccessDenied);
}

TEST(SettingsStore, RemovingAChildRemovesEverythingBelowIt) {
    TempDir dir;
    const std::wstring file = dir.File(L"settings.json");
    auto store = OpenStore(file);
    ASSERT_TRUE(store);
    for (const wchar_t* path : {L"/P/C", L"/P/C/G", L"/P/D"}) {
        auto node = Writer(*store, path);
        ASSERT_TRUE(node);
        ASSERT_EQ(node->SetString(L"at", path), status::kSuccess);
        ASSERT_EQ(node->Commit(), status::kSuccess);
    }
    auto grandchild = Reader(*store, L"/P/C/G");
    ASSERT_TRUE(grandchild);

    auto parent = Writer(*store, L"/P");
    ASSERT_TRUE(parent);
    EXPECT_EQ(parent->RemoveChild(L"absent"), status::kNotFound);
    ASSERT_EQ(parent->RemoveChild(L"C"), status::kSuccess);
    EXPECT_EQ(parent->RemoveChild(L"C"), status::kNotFound);
    EXPECT_EQ(ChildrenOf(*parent), Names{L"D"});
    EXPECT_EQ(ReadStatus(*store, L"/P/C/G"), status::kSuccess);  // not committed yet
    ASSERT_EQ(parent->Commit(), status::kSuccess);

    auto reopened = OpenStore(file);
    ASSERT_TRUE(reopened);
    for (IEPSettings* s : {static_cast<IEPSettings*>(store.get()), static_cast<IEPSettings*>(reopened.get())}) {
        EXPECT_EQ(ReadStatus(*s, L"/P/C"), status::kNotFound);
        EXPECT_EQ(ReadStatus(*s, L"/P/C/G"), status::kNotFound);
        EXPECT_EQ(StringOf(*Reader(*s, L"/P/D"), L"at"), L"/P/D");
    }
    // A node open while it was removed still reads what it opened.
    EXPECT_EQ(StringOf(*grandchild, L"at"), L"/P/C/G");
    // Writing to the removed path makes it anew, without what was below.
    auto again = Writer(*store, L"/P/C");
    ASSERT_TRUE(again);
    ASSERT_EQ(again->Commit(), status::kSuccess);
    EXPECT_EQ(ChildrenOf(*Reader(*store, L"/P/C")), Names{});
}

TEST(SettingsStore, ChildrenAreListedInOrdinalOrder) {
    TempDir dir;
    const std::wstring file = dir.File(L"settings.json");
    auto store = OpenStore(file);
    ASSERT_TRUE(store);
    for (const wchar_t* name : {L"b", L"\uFF21", L"a1", L"B", L"\U0001F600", L"a", L"\u00E9"}) {
        auto node = Writer(*store, (L"/" + std::wstring(name)).c_str());
        ASSERT_TRUE(node);
        ASSERT_EQ(node->Commit(), status::kSuccess);
    }
    // By UTF-16 code units: U+1F600 (0xD83D 0xDE00) before U+FF21 on every platform.
    const Names expected{L"B", L"a", L"a1", L"b", L"\u00E9", L"\U0001F600", L"\uFF21"};
    EXPECT_EQ(ChildrenOf(*Reader(*store, L"/")), expected);
    auto reopened = OpenStore(file);
    ASSERT_TRUE(reopened);
    EXPECT_EQ(ChildrenOf(*Reader(*reopened, L"/")), expected);
}

TEST(SettingsStore, WrongTypesMissingValuesAndMalformedNamesHaveTheirStatuses) {
    TempDir dir;
    auto store = OpenStore(dir.File(L"settings.json"));
    ASSERT_TRUE(store);
    auto node = Writer(*store, L"/");
    ASSERT_TRUE(node);
    ASSERT_EQ(node->SetString(L"text", L"true"), status::kSuccess);
    ASSERT_EQ(node->SetBool(L"flag", false), status::kSuccess);
    ASSERT_EQ(node->SetJson(L"json", Json::Value("a JSON string")), status::kSuccess);
    ASSERT_EQ(node->Commit(), status::kSuccess);
    auto reader = Reader(*store, L"/");
    ASSERT_TRUE(reader);
    std::wstring text;
    bool flag = false;
    Json::Value json;
    for (IEPSettingsNode* n : {node.get(), reader.get()}) {
        EXPECT_EQ(n->GetBool(L"text", flag), status::kInvalidDataType);
        EXPECT_EQ(n->GetString(L"flag", text), status::kInvalidDataType);
        EXPECT_EQ(n->GetString(L"json", text), status::kInvalidDataType);
        EXPECT_EQ(n->GetBool(L"json", flag), status::kInvalidDataType);
        EXPECT_EQ(n->GetString(L"absent", text), status::kNotFound);
        EXPECT_EQ(n->GetJson(L"absent", json), status::kNotFound);
        EXPECT_EQ(n->GetString(nullptr, text), status::kInvalidParameter);
    }
    EXPECT_EQ(ReadStatus(*store, L"/absent"), status::kNotFound);

    std::wstring deep;
    for (size_t i = 0; i <= host::SettingsStore::kMaxDepth; ++i) deep += L"/d";
    IEPSettingsNode* none = nullptr;
    for (const wchar_t* bad : {static_cast<const wchar_t*>(nullptr), L"", L"A", L"A/B", L"/A//B", L"/A/", L"//",
                               deep.c_str()}) {
        EXPECT_EQ(store->OpenForRead(bad, &none), status::kInvalidParameter) << (bad ? bad : L"null");
        EXPECT_EQ(store->OpenForWrite(bad, &none), status::kInvalidParameter) << (bad ? bad : L"null");
        EXPECT_EQ(none, nullptr);
    }
    EXPECT_EQ(node->RemoveChild(L"a/b"), status::kInvalidParameter);
    EXPECT_EQ(node->RemoveChild(L""), status::kInvalidParameter);
    EXPECT_EQ(node->SetBool(nullptr, true), status::kInvalidParameter);
    // Text that could not be written to the file is refused when set.
    const std::wstring unpaired(1, static_cast<wchar_t>(0xD800));
    EXPECT_EQ(node->SetString(L"v", unpaired), status::kInvalidParameter);
    EXPECT_EQ(node->SetString(unpaired.c_str(), L"v"), status::kInvalidParameter);
    EXPECT_EQ(node->SetJson(L"v", Json::Value("\xC3")), status::kInvalidParameter);
}

TEST(SettingsStore, AnUnreadableFileIsRefusedByNameAndLeftAsItWas) {
    TempDir dir;
    const std::wstring file = dir.File(L"settings.json");
    for (const std::string& corrupt : {std::string("{\"children\": {\"A\": "), std::string(), std::string("[1, 2]"),
                                      std::string("{\"values\": {\"v\": {\"string\": 5}}}"),
                                      std::string("{\"children\": {\"a/b\": {}}}")}) {
        ASSERT_TRUE(os::WriteFileAtomically(file, corrupt));
        std::wstring error;
        EXPECT_FALSE(host::SettingsStore::Open(file, error)) << corrupt;
        EXPECT_NE(error.find(file), std::wstring::npos) << error;
        EXPECT_EQ(Bytes(file), corrupt);
    }
}

TEST(SettingsStore, CommitReplacesTheFileWholeOrNotAtAll) {
    TempDir dir;
    const std::wstring file = dir.File(L"settings.json");
    auto store = OpenStore(file);
    ASSERT_TRUE(store);
    auto node = Writer(*store, L"/A");
    ASSERT_TRUE(node);
    ASSERT_EQ(node->SetString(L"v", L"1"), status::kSuccess);
    ASSERT_EQ(node->Commit(), status::kSuccess);
    ASSERT_EQ(node->SetString(L"v", L"2"), status::kSuccess);
    ASSERT_EQ(node->Commit(), status::kSuccess);
    EXPECT_EQ(Entries(dir.path()), Names{L"settings.json"});
    Json::Value parsed;
    std::string errors;
    const std::string bytes = Bytes(file);
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(bytes.data(), bytes.data() + bytes.size(), &parsed, &errors)) << errors;

    // A commit that cannot write changes neither the tree nor the file, and
    // the node keeps its change for a later attempt.
    std::filesystem::rename(std::filesystem::path(file), std::filesystem::path(dir.File(L"kept.json")));
    std::filesystem::create_directory(std::filesystem::path(file));
    ASSERT_EQ(node->SetString(L"v", L"3"), status::kSuccess);
    EXPECT_EQ(node->Commit(), status::kFunctionFailed);
    EXPECT_NE(store->LastCommitError().find(file), std::wstring::npos) << store->LastCommitError();
    EXPECT_EQ(StringOf(*Reader(*store, L"/A"), L"v"), L"2");
    EXPECT_EQ(Bytes(dir.File(L"kept.json")), bytes);
    std::filesystem::remove(std::filesystem::path(file));
    ASSERT_EQ(node->Commit(), status::kSuccess);
    EXPECT_EQ(StringOf(*Reader(*OpenStore(file), L"/A"), L"v"), L"3");
    EXPECT_EQ(Entries(dir.path()).size(), 2u);  // settings.json and kept.json, no temporary file
}

TEST(SettingsStore, ConcurrentWritersKeepEveryChange) {
    TempDir dir;
    const std::wstring file = dir.File(L"settings.json");
    auto store = OpenStore(file);
    ASSERT_TRUE(store);
    constexpr int kThreads = 4;
    constexpr int kCommits = 10;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&store, t] {
            const std::wstring own = L"/T" + std::to_wstring(t);
            for (int i = 0; i < kCommits; ++i) {
                // Each thread its own node, and its own values of one shared node.
                for (const std::wstring& path : {own, std::wstring(L"/Shared")}) {
                    IEPSettingsNode* node = nullptr;
                    ASSERT_EQ(store->OpenForWrite(path.c_str(), &node), status::kSuccess);
                    const std::wstring name = L"t" + std::to_wstring(t) + L"-" + std::to_wstring(i);
                    EXPECT_EQ(node->SetString(name.c_str(), name), status::kSuccess);
                    EXPECT_EQ(node->Commit(), status::kSuccess);
                    node->Release();
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    auto reopened = OpenStore(file);
    ASSERT_TRUE(reopened);
    EXPECT_EQ(ChildrenOf(*Reader(*reopened, L"/")).size(), static_cast<size_t>(kThreads + 1));
    for (int t = 0; t < kThreads; ++t) {
        auto own = Reader(*reopened, (L"/T" + std::to_wstring(t)).c_str());
        auto shared = Reader(*reopened, L"/Shared");
        ASSERT_TRUE(own && shared);
        for (int i = 0; i < kCommits; ++i) {
            const std::wstring name = L"t" + std::to_wstring(t) + L"-" + std::to_wstring(i);
            EXPECT_EQ(StringOf(*own, name.c_str()), name);
            EXPECT_EQ(StringOf(*shared, name.c_str()), name);
        }
    }
}

TEST(SettingsStore, PlugInsFindTheStoreThroughTheReferenceHost) {
    TempDir dir;
    auto store = OpenStore(dir.File(L"settings.json"));
    ASSERT_TRUE(store);
    IEPSettings* expected = store.get();
    host::ReferenceHost host(true, std::move(store));
    void* found = nullptr;
    ASSERT_EQ(host.components().GetPlugin(IEPSettings::kPluginName, IEPSettings::iid, &found), status::kSuccess);
    EXPECT_EQ(found, expected);
    host.components().ReleasePlugin(IEPSettings::kPluginName);
    EXPECT_EQ(host.components().GetPlugin(IEPSettings::kPluginName, qv::MakeGuid(1, 2, 3, 4, 5), &found),
              status::kNotFound);

    host::ReferenceHost without;
    EXPECT_EQ(without.components().GetPlugin(IEPSettings::kPluginName, IEPSettings::iid, &found), status::kNotFound);
    EXPECT_EQ(without.settings(), nullptr);
}
