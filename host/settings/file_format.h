#pragma once
// The tree's form in the settings file: {"children": {name: node},
// "values": {name: entry}}, each part left out when empty. Writing copies
// the cached text of every node no commit changed; reading checks every name
// and entry. Writing fills nodes' cached text and so runs under the store's
// mutex; reading touches only its own result (any thread).
#include <string>

#include <json/value.h>

#include "host/settings/tree.h"
#include "os/status.h"

namespace host::settings {

// Appends `node` in the file's form (compact, no line break).
void AppendNode(const Node& node, std::string& out);

// Reads a node written by AppendNode (or indented alike); on failure
// kInvalidDataType, saying what is wrong where. `where` is the node's path
// ("/"), `depth` its depth in the tree.
os::Expected<NodePtr> NodeFromJson(const Json::Value& in, const std::wstring& where, size_t depth);

}  // namespace host::settings
