#pragma once
// Reference settings store: the tree of IEPSettings kept in one JSON file.
//
// The committed tree is immutable: a commit builds a new root that shares
// every untouched subtree with the old one, writes it to the file, and only
// then makes it current. So a node opened for reading holds a snapshot of its
// subtree as committed when it was opened; later commits (a removal of that
// very node included) do not change what it reads.
//
// The file holds the whole tree as compact JSON on its first line
// (whitespace, as in files written indented, is accepted when reading),
// followed by a journal: one line per commit made since, each carrying a
// checksum, appended and flushed to the disk before the commit succeeds. So
// a commit writes only what it changed. Reading applies the journal in order;
// a last line that is incomplete or fails its checksum is an append that a
// stop of the process or the machine cut short (its commit never succeeded)
// and is dropped. Any other damage refuses the file. Once the journal
// outgrows twice the tree (or after a dropped line) the next commit writes
// the whole tree anew, atomically, and the journal starts empty. Each node
// keeps the text of its subtree and each value its entry, made once, so that
// a whole write copies the text of the nodes no commit changed.
//
// A node opened for writing reads the tree as committed when it was opened
// (or last committed) with its own changes laid over it. Its commit applies
// just those changes (values set, children removed) to the current tree, so
// writers of different nodes, or of different values of one node, do not
// undo each other.
//
// Value types: GetString and GetBool answer only values set with SetString
// and SetBool (kInvalidDataType otherwise, a JSON string included); GetJson
// answers every value, a string as a JSON string and a bool as a JSON bool.
//
// Names: value names are any text, the empty name included; child names
// (path segments and RemoveChild) are not empty and hold no '/'. Text that
// cannot be stored as UTF-8 (an unpaired surrogate) is kInvalidParameter, as
// is a path deeper than kMaxDepth or a JSON value nested deeper than
// kMaxJsonDepth, so that everything committed can be read back. Children are
// listed in ordinal order: by UTF-16 code units, the same on both platforms.
//
// Thread-safe: one mutex guards the current tree and the file. The store must
// outlive its nodes.
//
// The parts live beside this file: the tree (tree.h), values' entries
// (value_entry.h), the file's form of the tree (file_format.h), its journal
// (journal.h), the JSON writer (json_text.h), paths (settings_path.h) and
// open nodes (open_node.h).
//
// A state file that is read-only (while its folder is writable) is kept as
// it is: every commit fails with kFunctionFailed, LastCommitError naming the
// read-only file, and neither the tree nor the file changes.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "os/status.h"
#include "os/thread_annotations.h"
#include "qv/settings_store.h"

namespace host {

namespace settings {
struct Node;
struct Changes;
}  // namespace settings

class SettingsStore final : public IEPSettings {
public:
    static constexpr size_t kMaxDepth = 64;
    static constexpr int kMaxJsonDepth = 256;
    // The journal may always grow to this size before a whole write, however
    // small the tree.
    static constexpr size_t kJournalFloor = size_t{64} * 1024;

    // Opens the store kept in the file at `path`. A missing file is an empty
    // tree; the file (not its folder) is created by the first commit. A file
    // that cannot be read answers kFunctionFailed, one that does not hold a
    // settings tree kInvalidDataType, each with a message naming the file and
    // the reason; the file is left as it is.
    static os::Expected<std::unique_ptr<SettingsStore>> Open(const std::wstring& path);

    ~SettingsStore();
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    const std::wstring& path() const noexcept { return path_; }
    // Why the last failed commit failed (kFunctionFailed); empty when none has.
    std::wstring LastCommitError() const;

    void* QueryInterface(const GUID& iid) override;
    // Statuses as IEPSettings, and kNotEnoughMemory when allocation fails.
    int32_t OpenForRead(const wchar_t* path, IEPSettingsNode** node) override;
    // A commit answers kFunctionFailed when the file cannot be written; the
    // tree and the file are then unchanged and the node keeps its changes.
    int32_t OpenForWrite(const wchar_t* path, IEPSettingsNode** node) override;

    // The tree's representation and a writing node's pending changes.
    using Node = settings::Node;
    using Changes = settings::Changes;
    using NodePtr = std::shared_ptr<const Node>;

private:
    class OpenNode;

    SettingsStore(std::wstring path, NodePtr root);
    // The committed node at `segments`, or null.
    NodePtr Find(const std::vector<std::wstring>& segments) const;
    NodePtr FindLocked(const std::vector<std::wstring>& segments) const CR_REQUIRES(mutex_);
    // Applies a writing node's changes to the node at `segments` (made with
    // its missing parents) and writes the file; only when that succeeded is
    // the result the current tree, and `committed` the node as it now stands.
    int32_t Apply(const std::vector<std::wstring>& segments, const Changes& changes, NodePtr& committed);

    // Writes `root` to the file: the commit's journal line `record`, or the
    // whole tree when the journal is due for a rewrite. The failure is the
    // file's, naming it and the system's reason.
    os::Status Write(const Node& root, const std::string& record) CR_REQUIRES(mutex_);

    const std::wstring path_;
    mutable os::Mutex mutex_;
    NodePtr root_ CR_GUARDED_BY(mutex_);
    std::wstring lastCommitError_ CR_GUARDED_BY(mutex_);
    size_t treeBytes_ CR_GUARDED_BY(mutex_) = 0;     // the tree's size at the last whole write (or as read)
    size_t journalBytes_ CR_GUARDED_BY(mutex_) = 0;  // appended since
    bool rewriteNext_ CR_GUARDED_BY(mutex_) = true;  // no file yet, or a journal line was dropped or failed
};

}  // namespace host
