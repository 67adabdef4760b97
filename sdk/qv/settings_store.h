#pragma once
// The host's settings store ("EPSettings"): a tree of named nodes, each with
// typed named values, kept across restarts of the host. A path names a node
// from the root: "/" is the root, "/A/B" the child B of the root's child A.
// Node and value names are compared exactly (case-sensitive); a value whose
// name is empty is the node's unnamed value.
//
// Changes are made through a node opened for writing and take effect, in the
// tree and durably, when that node is committed; a node released without a
// commit changes nothing. Reading nodes see the tree as it was committed.
//
// Thread rules: the store and its nodes may be used from any thread; one node
// is used by one thread at a time.
#include <cstdint>
#include <string>
#include <vector>

#include <json/value.h>

#include "qv/base_interface.h"

// One open node. Statuses: 0; kNotFound for a value or child that is absent;
// kInvalidParameter for a null or malformed name; kInvalidDataType
// (ERROR_INVALID_DATATYPE) for a value of another type; kAccessDenied for a
// change through a node opened for reading.
struct IEPSettingsNode {
    [[nodiscard]] virtual int32_t GetString(const wchar_t* name, std::wstring& value) = 0;
    [[nodiscard]] virtual int32_t SetString(const wchar_t* name, const std::wstring& value) = 0;
    [[nodiscard]] virtual int32_t GetBool(const wchar_t* name, bool& value) = 0;
    [[nodiscard]] virtual int32_t SetBool(const wchar_t* name, bool value) = 0;
    // Any JSON value, a whole document included.
    [[nodiscard]] virtual int32_t GetJson(const wchar_t* name, Json::Value& value) = 0;
    [[nodiscard]] virtual int32_t SetJson(const wchar_t* name, const Json::Value& value) = 0;
    // The names of the node's children, in ordinal order.
    [[nodiscard]] virtual int32_t GetChildNames(std::vector<std::wstring>& names) = 0;
    // Removes the child `name` with everything below it.
    [[nodiscard]] virtual int32_t RemoveChild(const wchar_t* name) = 0;
    // Applies the node's changes to the tree and writes the tree durably. The
    // node stays open and may be changed and committed again.
    [[nodiscard]] virtual int32_t Commit() = 0;
    // Closes the node; uncommitted changes are dropped.
    virtual void Release() = 0;

protected:
    ~IEPSettingsNode() = default;
};

struct IEPSettings : IQvBaseInterface {
    static constexpr const wchar_t* kPluginName = L"EPSettings";
    static constexpr GUID iid = qv::MakeGuid(0x2F6A1C3E, 0x8B47, 0x4D19, 0xA5E2, 0x7C3B9D14F086);

    // Opens the node at `path` for reading: 0 with *node set, kNotFound when
    // there is no such node, kInvalidParameter for a malformed path.
    [[nodiscard]] virtual int32_t OpenForRead(const wchar_t* path, IEPSettingsNode** node) = 0;
    // Opens the node at `path` for writing; the node and any missing parent
    // are created in the tree when it is committed.
    [[nodiscard]] virtual int32_t OpenForWrite(const wchar_t* path, IEPSettingsNode** node) = 0;

protected:
    ~IEPSettings() = default;
};
