#pragma once
// The libraries the module loads at run time besides itself, and what the
// module lacks without each: the logging library, looked for beside the
// module, and the agent-component library, looked for beside the host
// program and then beside the module. The module tolerates both missing, so
// the host program says so rather than leave a person wondering why there is
// no log or why a connection-type rule is false.
//
// Thread rule: any thread.
#include <string>
#include <vector>

namespace crhost {

// One sentence for each such library found in none of the folders the module
// looks in ("no liblog.so beside the module: ..."); empty when all are there.
std::vector<std::wstring> MissingCompanionLibraries(const std::wstring& modulePath);

}  // namespace crhost
