#pragma once
// Stand-ins for the host services that a pass of the runner calls, for the
// benchmarks that measure the runner's own share: they answer at once and
// cost next to nothing, so that what is measured is the runner's work
// (reading, building, handing over) and not the reference host's (parsing
// its file, writing the tree, parsing requests).
//
// MemorySettings: the settings tree in memory. Until DiscardWrites() it keeps
// what is committed (a benchmark's set-up stores its method sets there);
// from then on every write is taken and dropped without copying the value,
// and reads go on answering from the tree as it was. Enough of the store's
// contract for the runner: nodes opened for reading see the tree live (no
// snapshot), and GetJson answers only JSON values.
//
// InstantPolicyRunner: answers each run at once, without reading the
// request, as the reference policy runner answers the benchmarks' method
// sets (one method "P"."m" that succeeds).
//
// Thread rules: MemorySettings is guarded by one mutex; InstantPolicyRunner
// keeps no state.
#include <json/value.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "qv/policy_runner.h"
#include "qv/settings_store.h"
#include "qv/status.h"

namespace bench {

class MemorySettings final : public IEPSettings {
public:
    MemorySettings() { nodes_[L"/"]; }

    // From now on writes are dropped.
    void DiscardWrites() {
        std::lock_guard lock(mutex_);
        discard_ = true;
    }

    void* QueryInterface(const GUID& requested) override {
        return qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, IEPSettings::iid)
                   ? static_cast<IEPSettings*>(this)
                   : nullptr;
    }
    int32_t OpenForRead(const wchar_t* path, IEPSettingsNode** node) override {
        if (!path || !node) return qv::status::kInvalidParameter;
        std::lock_guard lock(mutex_);
        if (!nodes_.contains(path)) return qv::status::kNotFound;
        *node = new Node(*this, path, Node::Access::kRead, false);
        return 0;
    }
    int32_t OpenForWrite(const wchar_t* path, IEPSettingsNode** node) override {
        if (!path || !node) return qv::status::kInvalidParameter;
        std::lock_guard lock(mutex_);
        *node = new Node(*this, path, Node::Access::kWrite, discard_);
        return 0;
    }

private:
    using Value = std::variant<std::wstring, bool, Json::Value>;
    using Values = std::map<std::wstring, Value>;

    class Node final : public IEPSettingsNode {
    public:
        enum class Access { kRead, kWrite };
        Node(MemorySettings& store, std::wstring path, Access access, bool discard)
            : store_(store), path_(std::move(path)), access_(access), discard_(discard) {}

        int32_t GetString(const wchar_t* name, std::wstring& value) override { return Get(name, value); }
        int32_t SetString(const wchar_t* name, const std::wstring& value) override { return Set(name, value); }
        int32_t GetBool(const wchar_t* name, bool& value) override { return Get(name, value); }
        int32_t SetBool(const wchar_t* name, bool value) override { return Set(name, value); }
        int32_t GetJson(const wchar_t* name, Json::Value& value) override { return Get(name, value); }
        int32_t SetJson(const wchar_t* name, const Json::Value& value) override { return Set(name, value); }
        int32_t GetChildNames(std::vector<std::wstring>& names) override {
            names.clear();
            const std::wstring prefix = path_ == L"/" ? path_ : path_ + L"/";
            std::lock_guard lock(store_.mutex_);
            for (auto it = store_.nodes_.lower_bound(prefix); it != store_.nodes_.end(); ++it) {
                if (it->first.compare(0, prefix.size(), prefix) != 0) break;
                const std::wstring rest = it->first.substr(prefix.size());
                if (!rest.empty() && rest.find(L'/') == std::wstring::npos) names.push_back(rest);
            }
            return 0;
        }
        int32_t RemoveChild(const wchar_t* name) override {
            if (access_ != Access::kWrite) return qv::status::kAccessDenied;
            if (!discard_) removed_.push_back(path_ == L"/" ? path_ + name : path_ + L"/" + name);
            return 0;
        }
        int32_t Commit() override {
            if (access_ != Access::kWrite) return qv::status::kAccessDenied;
            if (discard_) return 0;
            std::lock_guard lock(store_.mutex_);
            for (const std::wstring& child : removed_) {
                const std::wstring below = child + L"/";
                std::erase_if(store_.nodes_, [&](const auto& entry) {
                    return entry.first == child || entry.first.compare(0, below.size(), below) == 0;
                });
            }
            Values& values = store_.nodes_[path_];
            for (auto& [name, value] : changed_) values[name] = value;
            removed_.clear();
            changed_.clear();
            return 0;
        }
        void Release() override { delete this; }

    private:
        template <class T>
        int32_t Get(const wchar_t* name, T& value) {
            if (!name) return qv::status::kInvalidParameter;
            std::lock_guard lock(store_.mutex_);
            const auto node = store_.nodes_.find(path_);
            if (node == store_.nodes_.end()) return qv::status::kNotFound;
            const auto found = node->second.find(name);
            if (found == node->second.end()) return qv::status::kNotFound;
            const T* typed = std::get_if<T>(&found->second);
            if (!typed) return qv::status::kInvalidDataType;
            value = *typed;
            return 0;
        }
        template <class T>
        int32_t Set(const wchar_t* name, const T& value) {
            if (!name) return qv::status::kInvalidParameter;
            if (access_ != Access::kWrite) return qv::status::kAccessDenied;
            if (!discard_) changed_[name] = value;
            return 0;
        }

        MemorySettings& store_;
        const std::wstring path_;
        const Access access_;
        const bool discard_;  // writes are dropped: nothing is staged or applied
        Values changed_;
        std::vector<std::wstring> removed_;
    };

    std::mutex mutex_;
    std::map<std::wstring, Values> nodes_;  // by path; guarded by mutex_
    bool discard_ = false;                  // guarded by mutex_
};

class InstantPolicyRunner final : public EnterpriseIntegration::IRunPolicy {
public:
    void* QueryInterface(const GUID& requested) override {
        return qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, IRunPolicy::iid)
                   ? static_cast<IRunPolicy*>(this)
                   : nullptr;
    }
    int32_t RunPolicy(const wchar_t* /*request*/, std::wstring& response, int32_t /*flags*/, Json::Value& details,
                      const wchar_t* /*caller*/, EnterpriseIntegration::RunPolicyAgent* agent) override {
        if (agent) agent->OnAfterRunPolicy(L"P", L"m", 0);
        response = LR"({"results":[{"method":"m","plugin":"P","result":0}]})";
        details = Json::Value();
        return 0;
    }
};

}  // namespace bench
