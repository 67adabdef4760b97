#include "host/settings/settings_store.h"

#include <algorithm>
#include <utility>

#include <json/value.h>

#include "host/settings/file_format.h"
#include "host/settings/guarded.h"
#include "host/settings/journal.h"
#include "host/settings/open_node.h"
#include "host/settings/settings_path.h"
#include "host/settings/tree.h"
#include "json/strict_json.h"
#include "os/file_io.h"
#include "os/utf8.h"
#include "qv/status.h"

namespace host {

namespace status = qv::status;
using settings::Guarded;

SettingsStore::SettingsStore(std::wstring path, NodePtr root) : path_(std::move(path)), root_(std::move(root)) {}

SettingsStore::~SettingsStore() = default;

os::Expected<std::unique_ptr<SettingsStore>> SettingsStore::Open(const std::wstring& path) {
    const os::Expected<std::string> bytes = os::ReadWholeFile(path);
    if (!bytes) {
        if (bytes.status().code() == os::kFileMissing)
            return std::unique_ptr<SettingsStore>(new SettingsStore(path, std::make_shared<Node>()));
        return os::Status::Failure(status::kFunctionFailed,
                                   L"settings file " + path + L" cannot be read: " + bytes.status().message());
    }
    const std::wstring file = L"settings file " + path;
    const std::string_view all(*bytes);
    const size_t journalStart = settings::FindJournal(all);
    const std::string_view tree = all.substr(0, journalStart);
    Json::Value document;
    std::string reason;
    if (strict_json::Parse(tree, document, &reason, strict_json::Root::kAnyValue) != strict_json::Outcome::kParsed) {
        return os::Status::Failure(status::kInvalidDataType,
                                   file + L" is not valid JSON: " + os::Utf8ToWideLossy(reason));
    }
    os::Expected<NodePtr> root = settings::NodeFromJson(document, L"/", 0);
    if (!root) return root.status().WithContext(file + L" does not hold a settings tree");
    const os::Expected<settings::JournalRead> journal =
        settings::ReadJournal(all.substr(journalStart), settings::LineCount(tree), *root);
    if (!journal) return journal.status().WithContext(file + L" has a damaged journal");
    std::unique_ptr<SettingsStore> store(new SettingsStore(path, std::move(*root)));
    {
        os::MutexLock lock(store->mutex_);  // not shared yet: held for the analysis only
        store->treeBytes_ = tree.size();
        store->journalBytes_ = all.size() - journalStart;
        // A tree without its final line break cannot take a journal line after it.
        store->rewriteNext_ = journal->droppedTail || tree.empty() || tree.back() != '\n';
    }
    return store;
}

std::wstring SettingsStore::LastCommitError() const {
    os::MutexLock lock(mutex_);
    return lastCommitError_;
}

void* SettingsStore::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, IEPSettings::iid))
        return static_cast<IEPSettings*>(this);
    return nullptr;
}

int32_t SettingsStore::OpenForRead(const wchar_t* path, IEPSettingsNode** node) {
    if (!node) return status::kInvalidParameter;
    *node = nullptr;
    return Guarded([&] {
        std::vector<std::wstring> segments;
        if (!settings::ParsePath(path, segments)) return status::kInvalidParameter;
        NodePtr found = Find(segments);
        if (!found) return status::kNotFound;
        *node = new OpenNode(*this, std::move(segments), std::move(found), OpenNode::Access::kRead);
        return status::kSuccess;
    });
}

int32_t SettingsStore::OpenForWrite(const wchar_t* path, IEPSettingsNode** node) {
    if (!node) return status::kInvalidParameter;
    *node = nullptr;
    return Guarded([&] {
        std::vector<std::wstring> segments;
        if (!settings::ParsePath(path, segments)) return status::kInvalidParameter;
        NodePtr found = Find(segments);
        *node = new OpenNode(*this, std::move(segments), std::move(found), OpenNode::Access::kWrite);
        return status::kSuccess;
    });
}

SettingsStore::NodePtr SettingsStore::Find(const std::vector<std::wstring>& segments) const {
    os::MutexLock lock(mutex_);
    return FindLocked(segments);
}

SettingsStore::NodePtr SettingsStore::FindLocked(const std::vector<std::wstring>& segments) const {
    NodePtr node = root_;
    for (const auto& segment : segments) {
        const auto it = node->children.find(segment);
        if (it == node->children.end()) return nullptr;
        node = it->second;
    }
    return node;
}

int32_t SettingsStore::Apply(const std::vector<std::wstring>& segments, const Changes& changes, NodePtr& committed) {
    os::MutexLock lock(mutex_);
    // Nothing to write for a node that exists and did not change.
    if (changes.values.empty() && changes.removed.empty()) {
        if (NodePtr existing = FindLocked(segments)) {
            committed = std::move(existing);
            return status::kSuccess;
        }
    }
    NodePtr changed;
    NodePtr root = settings::WithChanges(root_.get(), segments, 0, changes, changed);
    if (const os::Status written = Write(*root, settings::EncodeRecord(segments, changes)); !written) {
        lastCommitError_ = written.message();
        return status::kFunctionFailed;
    }
    root_ = std::move(root);
    committed = std::move(changed);
    return status::kSuccess;
}

os::Status SettingsStore::Write(const Node& root, const std::string& record) {
    if (!rewriteNext_ && journalBytes_ + record.size() <= std::max(kJournalFloor, 2 * treeBytes_)) {
        os::Status appended = os::AppendDurably(path_, record);
        if (appended) {
            journalBytes_ += record.size();
        } else {
            // The file may now end in part of the line: the next commit
            // writes the whole tree instead of appending after it.
            rewriteNext_ = true;
        }
        return appended;
    }
    // Only the nodes on the changed path are written anew; the root's text is
    // the file itself and is not kept.
    std::string bytes;
    settings::AppendNode(root, bytes);
    bytes += '\n';
    if (os::Status written = os::WriteFileAtomically(path_, bytes); !written) return written;
    treeBytes_ = bytes.size();
    journalBytes_ = 0;
    rewriteNext_ = false;
    return os::Status::Ok();
}

}  // namespace host
