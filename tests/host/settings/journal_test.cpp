#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <json/value.h>

#include "host/settings/journal.h"
#include "host/settings/value_entry.h"
#include "os/utf8.h"
#include "qv/status.h"

namespace {

using namespace host::settings;
using Segments = std::vector<std::wstring>;

// A commit that sets a string, a bool and a JSON value and removes two children.
Changes SampleChanges() {
    Changes changes;
    changes.values.emplace(L"text", MakeValue(Value(std::wstring(L"caf\u00e9 \"q\"\n"))));
    changes.values.emplace(L"", MakeValue(Value(true)));
    Json::Value json(Json::objectValue);
    json["list"].append(1);
    json["list"].append("two");
    changes.values.emplace(L"json", MakeValue(Value(*MakeJsonEntry(json))));
    changes.removed.insert(L"gone");
    changes.removed.insert(L"x\u00fc");
    return changes;
}

// The entries of `changes`' values, by name, to compare two commits.
std::map<std::wstring, std::string> Entries(const Changes& changes) {
    std::map<std::wstring, std::string> entries;
    for (const auto& [name, value] : changes.values) entries.emplace(name, EntryText(*value));
    return entries;
}

std::string WithoutBreak(const std::string& line) { return line.substr(0, line.size() - 1); }

std::string Narrow(const std::wstring& text) { return os::WideToUtf8Lossy(text); }

}  // namespace

TEST(SettingsJournal, ARecordDecodesToTheCommitItEncodes) {
    const Segments at{L"Policies", L"n\u00e4me \"1\""};
    const Changes changes = SampleChanges();
    const std::string line = EncodeRecord(at, changes);
    ASSERT_FALSE(line.empty());
    EXPECT_EQ(line.back(), '\n');
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    EXPECT_EQ(FindJournal(line), 0u);

    const os::Expected<Record> decoded = DecodeRecord(WithoutBreak(line));
    ASSERT_TRUE(decoded) << Narrow(decoded.status().message());
    EXPECT_EQ(decoded->segments, at);
    EXPECT_EQ(Entries(decoded->changes), Entries(changes));
    EXPECT_EQ(decoded->changes.removed, changes.removed);

    // The root itself, with nothing changed.
    const os::Expected<Record> root = DecodeRecord(WithoutBreak(EncodeRecord({}, Changes())));
    ASSERT_TRUE(root) << Narrow(root.status().message());
    EXPECT_TRUE(root->segments.empty());
    EXPECT_TRUE(root->changes.values.empty());
}

TEST(SettingsJournal, ARecordWhoseChecksumDoesNotMatchIsRefusedWithTheReason) {
    std::string line = WithoutBreak(EncodeRecord({L"A"}, SampleChanges()));
    // Still well-formed JSON, but not what was written: "gone" -> "gine".
    const size_t at = line.find("gone");
    ASSERT_NE(at, std::string::npos);
    line[at + 1] = 'i';
    const os::Status mismatch = DecodeRecord(line).status();
    EXPECT_EQ(mismatch.code(), qv::status::kInvalidDataType);
    EXPECT_EQ(mismatch.message(), L"its checksum does not match");

    EXPECT_EQ(DecodeRecord("{\"values\":{}}").status().message(), L"not a journal line");
}

TEST(SettingsJournal, ARecordCutAtAnyByteIsNeverTakenAndOnlyALastLineIsDropped) {
    const std::string first = EncodeRecord({L"A"}, SampleChanges());
    Changes second;
    second.values.emplace(L"v", MakeValue(Value(std::wstring(L"2"))));
    const std::string line = EncodeRecord({L"A", L"B"}, second);
    // Every cut short of the line break, the whole text without it included.
    for (size_t cut = 0; cut < line.size(); ++cut) {
        const std::string part = line.substr(0, cut);
        const bool whole = cut + 1 == line.size();
        EXPECT_EQ(DecodeRecord(part).ok(), whole) << cut;

        // At the end of the journal: dropped, the commits before it applied.
        NodePtr root = std::make_shared<Node>();
        const os::Expected<JournalRead> tail = ReadJournal(first + part, 0, root);
        ASSERT_TRUE(tail) << cut;
        EXPECT_EQ(tail->droppedTail, !part.empty()) << cut;
        ASSERT_TRUE(root->children.contains(L"A")) << cut;
        EXPECT_TRUE(root->children.at(L"A")->values.contains(L"text"));
        EXPECT_FALSE(root->children.at(L"A")->children.contains(L"B"));

        // Followed by another line: damage, named by its line number.
        if (part.empty() || whole) continue;
        root = std::make_shared<Node>();
        const os::Status middle = ReadJournal(part + "\n" + first, 3, root).status();
        EXPECT_FALSE(middle) << cut;
        EXPECT_EQ(middle.message().rfind(L"line 4: ", 0), 0u) << Narrow(middle.message());
    }
    NodePtr root = std::make_shared<Node>();
    const os::Expected<JournalRead> whole = ReadJournal(first + line, 0, root);
    ASSERT_TRUE(whole) << Narrow(whole.status().message());
    EXPECT_FALSE(whole->droppedTail);
    EXPECT_EQ(root->children.at(L"A")->children.at(L"B")->values.count(L"v"), 1u);
}
