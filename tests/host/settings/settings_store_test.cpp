#include <gtest/gtest.h>
#include <algorithm>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <json/reader.h>

#include "host/reference_host.h"
#include "host/settings/settings_store.h"
#include "os/file_io.h"
#include "os/utf8.h"
#include "qv/status.h"
#include "support/log_capture.h"

namespace {

namespace status = qv::status;
using Names = std::vector<std::wstring>;

struct Releaser {
    void operator()(IEPSettingsNode* node) const { node->Release(); }
};
using NodePtr = std::unique_ptr<IEPSettingsNode, Releaser>;

// A store on a fresh file in a fresh folder.
struct Fixture {
    testing_support::TempDir dir;
    std::wstring file = dir.File(L"settings.json");
    std::unique_ptr<host::SettingsStore> store = Reopen();

    std::unique_ptr<host::SettingsStore> Reopen() const {
        auto opened = host::SettingsStore::Open(file);
        EXPECT_TRUE(opened) << os::WideToUtf8Lossy(opened.status().message());
        return opened ? std::move(*opened) : nullptr;
    }
};

// Null (and the status reported) when the node does not open.
NodePtr Open(IEPSettings& store, const std::wstring& path, bool write = false, int32_t expected = status::kSuccess) {
    IEPSettingsNode* node = nullptr;
    const int32_t result = write ? store.OpenForWrite(path.c_str(), &node) : store.OpenForRead(path.c_str(), &node);
    EXPECT_EQ(result, expected) << path;
    return NodePtr(node);
}

// Commits `name` = `value` (a string) at `path`.
void Put(IEPSettings& store, const std::wstring& path, const std::wstring& name, const std::wstring& value) {
    auto node = Open(store, path, true);
    ASSERT_TRUE(node);
    EXPECT_EQ(node->SetString(name.c_str(), value), status::kSuccess);
    EXPECT_EQ(node->Commit(), status::kSuccess);
}

std::wstring StringOf(IEPSettingsNode& node, const std::wstring& name) {
    std::wstring value;
    EXPECT_EQ(node.GetString(name.c_str(), value), status::kSuccess) << name;
    return value;
}

Names ChildrenOf(IEPSettingsNode& node) {
    Names names;
    EXPECT_EQ(node.GetChildNames(names), status::kSuccess);
    return names;
}

std::string Bytes(const std::wstring& path) {
    os::Expected<std::string> bytes = os::ReadWholeFile(path);
    EXPECT_TRUE(bytes);
    return bytes ? std::move(*bytes) : std::string();
}

}  // namespace

TEST(SettingsStore, ValuesAndChildrenSurviveReopeningWithTheirTypesAndOrder) {
    Fixture f;
    Json::Value document;
    document["list"][0] = 1.5;
    document["text"] = "\xC3\xA9t\xC3\xA9";
    {
        auto node = Open(*f.store, L"/A/B", true);
        ASSERT_TRUE(node);
        ASSERT_EQ(node->SetString(L"name", L"caf\u00E9 \U0001F600"), status::kSuccess);
        ASSERT_EQ(node->SetString(L"", L"unnamed"), status::kSuccess);
        ASSERT_EQ(node->SetBool(L"flag", true), status::kSuccess);
        ASSERT_EQ(node->SetJson(L"doc", document), status::kSuccess);
        ASSERT_EQ(node->Commit(), status::kSuccess);
    }
    // Ordinal order is by UTF-16 code units on every platform: U+1F600
    // (0xD83D 0xDE00) before U+FF21.
    for (const wchar_t* name : {L"b", L"\uFF21", L"a1", L"B", L"\U0001F600", L"a", L"\u00E9"})
        Put(*f.store, L"/" + std::wstring(name), L"v", name);
    const Names ordered{L"A", L"B", L"a", L"a1", L"b", L"\u00E9", L"\U0001F600", L"\uFF21"};

    auto store = f.Reopen();
    ASSERT_TRUE(store);
    EXPECT_EQ(ChildrenOf(*Open(*store, L"/")), ordered);
    EXPECT_EQ(ChildrenOf(*Open(*store, L"/A")), Names{L"B"});  // the parent made by the commit below it
    auto node = Open(*store, L"/A/B");
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
    Fixture f;
    auto writer = Open(*f.store, L"/N", true);
    ASSERT_TRUE(writer);
    ASSERT_EQ(writer->SetString(L"v", L"one"), status::kSuccess);
    EXPECT_EQ(StringOf(*writer, L"v"), L"one");  // the writer reads its own change
    Open(*f.store, L"/N", false, status::kNotFound);
    ASSERT_EQ(writer->Commit(), status::kSuccess);

    // The node stays open for more changes; a reader keeps what it opened.
    auto before = Open(*f.store, L"/N");
    ASSERT_EQ(writer->SetString(L"v", L"two"), status::kSuccess);
    EXPECT_EQ(StringOf(*Open(*f.store, L"/N"), L"v"), L"one");
    ASSERT_EQ(writer->Commit(), status::kSuccess);
    EXPECT_EQ(StringOf(*Open(*f.store, L"/N"), L"v"), L"two");
    EXPECT_EQ(StringOf(*before, L"v"), L"one");

    // Released without a commit: nothing changes, in the tree or the file.
    auto dropped = Open(*f.store, L"/N", true);
    ASSERT_EQ(dropped->SetString(L"v", L"three"), status::kSuccess);
    ASSERT_EQ(dropped->SetBool(L"new", true), status::kSuccess);
    dropped.reset();
    Open(*f.store, L"/Never", true).reset();
    auto reopened = f.Reopen();
    for (IEPSettings* s : {static_cast<IEPSettings*>(f.store.get()), static_cast<IEPSettings*>(reopened.get())}) {
        Open(*s, L"/Never", false, status::kNotFound);
        auto node = Open(*s, L"/N");
        EXPECT_EQ(StringOf(*node, L"v"), L"two");
        bool flag = false;
        EXPECT_EQ(node->GetBool(L"new", flag), status::kNotFound);
    }

    // A reading node changes nothing.
    EXPECT_EQ(before->SetString(L"v", L"x"), status::kAccessDenied);
    EXPECT_EQ(before->SetJson(L"v", Json::Value(1)), status::kAccessDenied);
    EXPECT_EQ(Open(*f.store, L"/")->RemoveChild(L"N"), status::kAccessDenied);
    EXPECT_EQ(before->Commit(), status::kAccessDenied);
}

TEST(SettingsStore, RemovingAChildRemovesEverythingBelowIt) {
    Fixture f;
    for (const wchar_t* path : {L"/P/C", L"/P/C/G", L"/P/D"}) Put(*f.store, path, L"at", path);
    auto grandchild = Open(*f.store, L"/P/C/G");

    auto parent = Open(*f.store, L"/P", true);
    EXPECT_EQ(parent->RemoveChild(L"absent"), status::kNotFound);
    ASSERT_EQ(parent->RemoveChild(L"C"), status::kSuccess);
    EXPECT_EQ(parent->RemoveChild(L"C"), status::kNotFound);
    EXPECT_EQ(ChildrenOf(*parent), Names{L"D"});
    Open(*f.store, L"/P/C/G");  // not committed yet
    ASSERT_EQ(parent->Commit(), status::kSuccess);

    auto reopened = f.Reopen();
    for (IEPSettings* s : {static_cast<IEPSettings*>(f.store.get()), static_cast<IEPSettings*>(reopened.get())}) {
        Open(*s, L"/P/C", false, status::kNotFound);
        Open(*s, L"/P/C/G", false, status::kNotFound);
        EXPECT_EQ(StringOf(*Open(*s, L"/P/D"), L"at"), L"/P/D");
    }
    EXPECT_EQ(StringOf(*grandchild, L"at"), L"/P/C/G");  // open while removed: reads what it opened
    // Writing to the removed path makes it anew, without what was below.
    Put(*f.store, L"/P/C", L"at", L"new");
    EXPECT_EQ(ChildrenOf(*Open(*f.store, L"/P/C")), Names{});
}

TEST(SettingsStore, WrongTypesMissingValuesAndMalformedNamesHaveTheirStatuses) {
    Fixture f;
    auto node = Open(*f.store, L"/", true);
    ASSERT_EQ(node->SetString(L"text", L"true"), status::kSuccess);
    ASSERT_EQ(node->SetBool(L"flag", false), status::kSuccess);
    ASSERT_EQ(node->SetJson(L"json", Json::Value("a JSON string")), status::kSuccess);
    ASSERT_EQ(node->Commit(), status::kSuccess);
    std::wstring text;
    bool flag = false;
    Json::Value json;
    auto reader = Open(*f.store, L"/");
    for (IEPSettingsNode* n : {node.get(), reader.get()}) {
        EXPECT_EQ(n->GetBool(L"text", flag), status::kInvalidDataType);
        EXPECT_EQ(n->GetString(L"flag", text), status::kInvalidDataType);
        EXPECT_EQ(n->GetString(L"json", text), status::kInvalidDataType);
        EXPECT_EQ(n->GetString(L"absent", text), status::kNotFound);
        EXPECT_EQ(n->GetJson(L"absent", json), status::kNotFound);
        EXPECT_EQ(n->GetString(nullptr, text), status::kInvalidParameter);
    }
    Open(*f.store, L"/absent", false, status::kNotFound);

    std::wstring deep;
    for (size_t i = 0; i <= host::SettingsStore::kMaxDepth; ++i) deep += L"/d";
    for (const std::wstring& bad : {std::wstring(), std::wstring(L"A"), std::wstring(L"A/B"), std::wstring(L"/A//B"),
                                    std::wstring(L"/A/"), std::wstring(L"//"), deep}) {
        EXPECT_FALSE(Open(*f.store, bad, false, status::kInvalidParameter));
        EXPECT_FALSE(Open(*f.store, bad, true, status::kInvalidParameter));
    }
    IEPSettingsNode* none = nullptr;
    EXPECT_EQ(f.store->OpenForWrite(nullptr, &none), status::kInvalidParameter);
    EXPECT_EQ(node->RemoveChild(L"a/b"), status::kInvalidParameter);
    EXPECT_EQ(node->RemoveChild(L""), status::kInvalidParameter);
    // Text that could not be written to the file is refused when set.
    const std::wstring unpaired(1, static_cast<wchar_t>(0xD800));
    EXPECT_EQ(node->SetString(L"v", unpaired), status::kInvalidParameter);
    EXPECT_EQ(node->SetBool(unpaired.c_str(), true), status::kInvalidParameter);
    EXPECT_EQ(node->SetJson(L"v", Json::Value("\xC3")), status::kInvalidParameter);
}

TEST(SettingsStore, AnUnreadableFileIsRefusedByNameAndLeftAsItWas) {
    testing_support::TempDir dir;
    const std::wstring file = dir.File(L"settings.json");
    for (const std::string& corrupt :
         {std::string("{\"children\": {\"A\": "), std::string(), std::string("[1, 2]"),
          std::string("{\"values\": {\"v\": {\"string\": 5}}}"), std::string("{\"children\": {\"a/b\": {}}}")}) {
        ASSERT_TRUE(os::WriteFileAtomically(file, corrupt));
        const auto refused = host::SettingsStore::Open(file);
        EXPECT_FALSE(refused) << corrupt;
        const std::wstring error = refused.status().message();
        EXPECT_EQ(refused.status().code(), qv::status::kInvalidDataType) << corrupt;
        EXPECT_NE(error.find(file), std::wstring::npos) << os::WideToUtf8Lossy(error);
        EXPECT_EQ(Bytes(file), corrupt);
    }
}

TEST(SettingsStore, CommitReplacesTheFileWholeOrNotAtAll) {
    Fixture f;
    auto node = Open(*f.store, L"/A", true);
    for (const wchar_t* value : {L"1", L"2"}) {
        ASSERT_EQ(node->SetString(L"v", value), status::kSuccess);
        ASSERT_EQ(node->Commit(), status::kSuccess);
    }
    const std::string bytes = Bytes(f.file);
    Json::Value parsed;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(bytes.data(), bytes.data() + bytes.size(), &parsed, nullptr));

    // A commit that cannot write changes neither the tree nor the file, and
    // the node keeps its change for a later attempt.
    const std::filesystem::path file(f.file), kept(f.dir.File(L"kept.json"));
    std::filesystem::rename(file, kept);
    std::filesystem::create_directory(file);
    ASSERT_EQ(node->SetString(L"v", L"3"), status::kSuccess);
    EXPECT_EQ(node->Commit(), status::kFunctionFailed);
    EXPECT_NE(f.store->LastCommitError().find(f.file), std::wstring::npos) << f.store->LastCommitError();
    EXPECT_EQ(StringOf(*Open(*f.store, L"/A"), L"v"), L"2");
    EXPECT_EQ(Bytes(kept.wstring()), bytes);
    std::filesystem::remove(file);
    ASSERT_EQ(node->Commit(), status::kSuccess);
    EXPECT_EQ(StringOf(*Open(*f.Reopen(), L"/A"), L"v"), L"3");
    // Only the two files: no temporary file is left by either commit.
    const std::filesystem::directory_iterator entries{std::filesystem::path(f.dir.path())};
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 2);
}

// A state file marked read-only in a writable folder is respected: every
// commit fails alike, whether it would append or write the file whole, and
// the file is neither changed nor replaced.
TEST(SettingsStore, AReadOnlyFileRefusesEveryCommitAlikeAndIsNeverReplaced) {
    namespace fs = std::filesystem;
    Fixture f;
    Put(*f.store, L"/A", L"v", L"1");
    const std::string bytes = Bytes(f.file);
    const fs::path file(f.file);
    fs::permissions(file, fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                    fs::perm_options::remove);
    const fs::perms readOnly = fs::status(file).permissions();
    auto node = Open(*f.store, L"/A", true);
    // The first commit would append to the journal; after its failure the
    // next would write the whole tree anew.
    for (const wchar_t* value : {L"2", L"3", L"4"}) {
        ASSERT_EQ(node->SetString(L"v", value), status::kSuccess);
        EXPECT_EQ(node->Commit(), status::kFunctionFailed) << value;
        const std::wstring why = f.store->LastCommitError();
        EXPECT_NE(why.find(f.file), std::wstring::npos) << why;
        EXPECT_NE(why.find(L"read-only"), std::wstring::npos) << why;
        EXPECT_EQ(StringOf(*Open(*f.store, L"/A"), L"v"), L"1");
        EXPECT_EQ(Bytes(f.file), bytes);
        EXPECT_EQ(fs::status(file).permissions(), readOnly);
    }
    // Writable again, the node's pending change commits.
    fs::permissions(file, fs::perms::owner_write, fs::perm_options::add);
    ASSERT_EQ(node->Commit(), status::kSuccess);
    EXPECT_EQ(StringOf(*Open(*f.Reopen(), L"/A"), L"v"), L"4");
}

TEST(SettingsStore, IndentedFilesOpenAndCommitsKeepWhatTheyDidNotTouch) {
    Fixture f;
    // A file in the indented form, as earlier versions wrote it.
    ASSERT_TRUE(os::WriteFileAtomically(f.file, R"({
  "children" : {
    "Kept" : {
      "children" : { "Deep" : { "values" : { "n" : { "json" : [ 1, { "a" : "b" } ] } } } },
      "values" : { "on" : { "bool" : true } }
    }
  },
  "values" : {
    "top" : { "string" : "t\u00e9xt" }
  }
}
)"));
    auto store = f.Reopen();
    ASSERT_TRUE(store);

    // Text that JSON has to escape, in names and values.
    const std::wstring name{L'q', L'"', L'\\', L'\n', L'\t', L'\x01', L'\x1f', L'\u00E9', L'\x7f'};
    const std::wstring text = name + std::wstring(1, L'\0') + L"/";
    const std::wstring child = L"C" + name;
    Json::Value document;
    document[os::WideToUtf8Lossy(name)] = os::WideToUtf8Lossy(text);
    {
        auto node = Open(*store, L"/" + child, true);
        ASSERT_EQ(node->SetString(name.c_str(), text), status::kSuccess);
        ASSERT_EQ(node->SetJson(L"doc", document), status::kSuccess);
        ASSERT_EQ(node->Commit(), status::kSuccess);
    }
    Put(*store, L"/Kept", L"added", L"x");
    const std::string written = Bytes(f.file);

    auto reopened = f.Reopen();
    ASSERT_TRUE(reopened);
    EXPECT_EQ(ChildrenOf(*Open(*reopened, L"/")), (Names{child, L"Kept"}));
    EXPECT_EQ(StringOf(*Open(*reopened, L"/"), L"top"), L"t\u00E9xt");
    auto kept = Open(*reopened, L"/Kept");
    bool on = false;
    EXPECT_EQ(kept->GetBool(L"on", on), status::kSuccess);
    EXPECT_TRUE(on);
    EXPECT_EQ(StringOf(*kept, L"added"), L"x");
    Json::Value json;
    EXPECT_EQ(Open(*reopened, L"/Kept/Deep")->GetJson(L"n", json), status::kSuccess);
    Json::Value deep(Json::arrayValue);
    deep.append(1);
    deep.append(Json::Value(Json::objectValue))["a"] = "b";
    EXPECT_EQ(json, deep);
    auto awkwardNode = Open(*reopened, L"/" + child);
    ASSERT_TRUE(awkwardNode);
    EXPECT_EQ(StringOf(*awkwardNode, name), text);
    EXPECT_EQ(awkwardNode->GetJson(L"doc", json), status::kSuccess);
    EXPECT_EQ(json, document);

    // A commit that changes nothing writes nothing.
    ASSERT_EQ(Open(*reopened, L"/", true)->Commit(), status::kSuccess);
    EXPECT_EQ(Bytes(f.file), written);
}

size_t Lines(const std::string& bytes) { return static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '\n')); }

TEST(SettingsStore, CommitsAppendUntilTheJournalOutgrowsTheTreeWhichIsThenWrittenWhole) {
    Fixture f;
    Put(*f.store, L"/A", L"v", L"1");  // no file yet: the whole tree
    const std::string first = Bytes(f.file);
    EXPECT_EQ(Lines(first), 1u);
    Put(*f.store, L"/A", L"v", L"2");
    Put(*f.store, L"/B", L"w", L"x");
    const std::string appended = Bytes(f.file);
    EXPECT_EQ(Lines(appended), 3u);
    EXPECT_EQ(appended.substr(0, first.size()), first);
    {
        auto reopened = f.Reopen();
        EXPECT_EQ(StringOf(*Open(*reopened, L"/A"), L"v"), L"2");
        EXPECT_EQ(StringOf(*Open(*reopened, L"/B"), L"w"), L"x");
    }
    // A change bigger than the journal may grow: the tree is written whole,
    // values read back from the journal included.
    auto store = f.Reopen();
    const std::wstring big(host::SettingsStore::kJournalFloor, L'b');
    Put(*store, L"/Big", L"v", big);
    const std::string whole = Bytes(f.file);
    EXPECT_EQ(Lines(whole), 1u);
    Json::Value parsed;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(whole.data(), whole.data() + whole.size(), &parsed, nullptr));
    auto reopened = f.Reopen();
    EXPECT_EQ(StringOf(*Open(*reopened, L"/A"), L"v"), L"2");
    EXPECT_EQ(StringOf(*Open(*reopened, L"/B"), L"w"), L"x");
    EXPECT_EQ(StringOf(*Open(*reopened, L"/Big"), L"v"), big);
}

TEST(SettingsStore, ALastLineCutShortIsDroppedAndOtherJournalDamageRefusesTheFile) {
    Fixture f;
    for (const wchar_t* value : {L"1", L"2", L"3"}) Put(*f.store, L"/A", L"v", value);
    const std::string intact = Bytes(f.file);
    ASSERT_EQ(Lines(intact), 3u);
    const size_t lastLine = intact.rfind('\n', intact.size() - 2) + 1;
    const size_t middleLine = intact.rfind('\n', lastLine - 2) + 1;
    auto withDigit = [&](size_t lineStart, char digit) {
        std::string damaged = intact;
        damaged[damaged.find("\"string\":\"", lineStart) + 10] = digit;
        return damaged;
    };
    struct Case {
        std::string bytes;
        const wchar_t* expected;  // null when the file must be refused
    };
    for (const Case& c : {Case{intact.substr(0, intact.size() - 5), L"2"}, Case{withDigit(lastLine, '7'), L"2"},
                          Case{intact.substr(0, lastLine), L"2"}, Case{withDigit(middleLine, '7'), nullptr}}) {
        ASSERT_TRUE(os::WriteFileAtomically(f.file, c.bytes));
        auto store = host::SettingsStore::Open(f.file);
        const std::wstring error = store.status().message();
        if (!c.expected) {
            EXPECT_FALSE(store);
            EXPECT_NE(error.find(f.file), std::wstring::npos) << error;
            EXPECT_NE(error.find(L"line 2"), std::wstring::npos) << error;
            EXPECT_EQ(Bytes(f.file), c.bytes);
            continue;
        }
        ASSERT_TRUE(store) << error;
        EXPECT_EQ(StringOf(*Open(**store, L"/A"), L"v"), c.expected);
        // The next commit does not append after the damaged line.
        Put(**store, L"/A", L"v", L"4");
        EXPECT_EQ(StringOf(*Open(*f.Reopen(), L"/A"), L"v"), L"4");
    }
}

TEST(SettingsStore, ConcurrentWritersKeepEveryChange) {
    Fixture f;
    constexpr int kThreads = 4, kCommits = 10;
    auto name = [](int t, int i) { return L"t" + std::to_wstring(t) + L"-" + std::to_wstring(i); };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        // Each thread its own node, and its own values of one shared node.
        threads.emplace_back([&, t] {
            for (int i = 0; i < kCommits; ++i) {
                Put(*f.store, L"/T" + std::to_wstring(t), name(t, i), name(t, i));
                Put(*f.store, L"/Shared", name(t, i), name(t, i));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    auto reopened = f.Reopen();
    EXPECT_EQ(ChildrenOf(*Open(*reopened, L"/")).size(), static_cast<size_t>(kThreads + 1));
    auto shared = Open(*reopened, L"/Shared");
    for (int t = 0; t < kThreads; ++t) {
        auto own = Open(*reopened, L"/T" + std::to_wstring(t));
        for (int i = 0; i < kCommits; ++i) {
            EXPECT_EQ(StringOf(*own, name(t, i)), name(t, i));
            EXPECT_EQ(StringOf(*shared, name(t, i)), name(t, i));
        }
    }
}

TEST(SettingsStore, PlugInsFindTheStoreThroughTheReferenceHost) {
    Fixture f;
    IEPSettings* expected = f.store.get();
    host::ReferenceHost host(true, std::move(f.store));
    void* found = nullptr;
    ASSERT_EQ(host.components().GetPlugin(IEPSettings::kPluginName, IEPSettings::iid, &found), status::kSuccess);
    EXPECT_EQ(found, expected);
    host.components().ReleasePlugin(IEPSettings::kPluginName);
    host::ReferenceHost without;
    EXPECT_EQ(without.components().GetPlugin(IEPSettings::kPluginName, IEPSettings::iid, &found), status::kNotFound);
}
