#pragma once
// One node of the settings store opened through IEPSettings. A reading node
// answers from `base_`, the committed snapshot it was opened on; a writing
// node lays its own changes over it, and its commit hands just those changes
// to the store. Like any IEPSettingsNode it is used by one thread at a time;
// the store (which must outlive it) locks for it.
#include <string>
#include <vector>

#include "host/settings/settings_store.h"
#include "host/settings/tree.h"

namespace host {

class SettingsStore::OpenNode final : public IEPSettingsNode {
public:
    enum class Access { kRead, kWrite };

    OpenNode(SettingsStore& store, std::vector<std::wstring> segments, settings::NodePtr base, Access access)
        : store_(store), segments_(std::move(segments)), base_(std::move(base)), writable_(access == Access::kWrite) {}

    int32_t GetString(const wchar_t* name, std::wstring& value) override;
    int32_t SetString(const wchar_t* name, const std::wstring& value) override;
    int32_t GetBool(const wchar_t* name, bool& value) override;
    int32_t SetBool(const wchar_t* name, bool value) override;
    int32_t GetJson(const wchar_t* name, Json::Value& value) override;
    int32_t SetJson(const wchar_t* name, const Json::Value& value) override;
    int32_t GetChildNames(std::vector<std::wstring>& names) override;
    int32_t RemoveChild(const wchar_t* name) override;
    int32_t Commit() override;
    void Release() override { delete this; }

private:
    // The value `name` as this node sees it.
    int32_t Find(const wchar_t* name, const settings::Value*& found) const;
    int32_t Set(const wchar_t* name, settings::Value value);

    SettingsStore& store_;
    const std::vector<std::wstring> segments_;
    settings::NodePtr base_;  // null for a writing node whose node is not in the tree yet
    const bool writable_;
    settings::Changes changes_;
};

}  // namespace host
