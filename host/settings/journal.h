#pragma once
// The settings file's journal: after the tree, one line per commit made
// since the tree was last written whole,
//   {"check":"<FNV-1a of C, 8 hex digits>","commit":C}
// where C is {"at":[segment, ...],"values":{name: entry, ...},"removed":[name, ...]}:
// the changes one commit applied to the node at "at". A line of the tree
// itself never starts that way (the tree's text has no line breaks inside
// strings, and its own lines start with "{" alone or with whitespace), so
// the journal starts at the first line that does.
//
// Encoding reads values' cached entries (EntryText) and so runs under the
// store's mutex; the rest touches only its arguments (any thread).
#include <string>
#include <string_view>
#include <vector>

#include "host/settings/tree.h"
#include "os/status.h"

namespace host::settings {

// The journal line (with its line break) of a commit of `changes` to the
// node at `segments`.
std::string EncodeRecord(const std::vector<std::wstring>& segments, const Changes& changes);

// One commit as a journal line records it.
struct Record {
    std::vector<std::wstring> segments;
    Changes changes;
};

// Reads one journal line (without its line break); kInvalidDataType saying
// why when it is not one: not a journal line, a checksum that does not
// match, or a commit that is not well-formed.
os::Expected<Record> DecodeRecord(std::string_view line);

// Where the journal starts in the file's bytes: the size of the tree's text.
size_t FindJournal(std::string_view file);

// The number of line breaks in `text`.
size_t LineCount(std::string_view text);

struct JournalRead {
    bool droppedTail = false;  // the last line was cut short (or fails its checksum) and is ignored
};

// Applies the journal `text` to `root` in order. The lines are numbered from
// `firstLine` + 1 for messages. A last line that is incomplete or not a
// commit is an append cut short: dropped. Any other bad line is damage:
// kInvalidDataType, "line <n>: <what is wrong>", with `root` holding the
// lines before it applied.
os::Expected<JournalRead> ReadJournal(std::string_view text, size_t firstLine, NodePtr& root);

}  // namespace host::settings
