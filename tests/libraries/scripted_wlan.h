#pragma once
// A stand-in for the Windows WLAN library ("scripted_wlan.dll" beside the
// test programs, Windows build only): the five entry points the module binds,
// with failures a test scripts, and counts of what is still held.
//
// Besides the WLAN entry points it exports:
//   ScriptedWlanSet(key, value)  "open", "enum": the error WlanOpenHandle or
//                                WlanEnumInterfaces returns (0: success);
//                                "interfaces": how many disconnected
//                                interfaces WlanEnumInterfaces lists;
//   ScriptedWlanCount(key)       "handles": handles open and not closed;
//                                "memory": lists handed out and not freed;
//                                "opens": WlanOpenHandle calls so far.
// Any thread.
#include <cstdint>

namespace scripted_wlan {

inline constexpr const wchar_t* kLibraryStem = L"scripted_wlan";

using SetFn = void (*)(const char* key, uint32_t value);
using CountFn = int32_t (*)(const char* key);

}  // namespace scripted_wlan
