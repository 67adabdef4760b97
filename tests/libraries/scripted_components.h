#pragma once
// The scripted agent-component library ("scripted.ovra.proxy" beside the
// test programs): "Ovra.OSInfo" and "Ovra.Network" as a test describes them,
// keeping a journal of every call the module makes.
//
// Besides QvCreateObject and QvDestroyObject it exports:
//   ScriptedReset()            forgets the script and empties the journal;
//   ScriptedSet(key, value)    adds to the script (keys below);
//   ScriptedJournal(buf, cap)  copies the journal, one call per line ending
//                              in "\n", into `buf` (at most `cap` characters
//                              with the terminator) and returns its length.
//
// Script keys:
//   "Ovra.OSInfo.physical"   a MAC text ("020000000001") that
//                            IsPhysicalAdapter calls physical;
//   "Ovra.Network.published" a MAC text that the table of "Ovra.Network"
//                            holds from its next Start or Refresh on (the
//                            component answers only from that table);
//   "<component>.start"      the status that component's Start returns;
//   "<component>.create"     the status QvCreateObject returns for it;
//   "<component>.query"      "none": the object does not answer its query
//                            interface.
//
// Journal lines: "<component> create", "<component> start",
// "<component> release", "<component> destroy", "Ovra.Network refresh",
// "Ovra.OSInfo physical? <ifType> <MAC text>",
// "Ovra.Network mac? <MAC text>".
//
// Thread rule: every export may be called from any thread.
#include <cstddef>

namespace scripted_components {

inline constexpr const wchar_t* kLibraryStem = L"scripted.ovra.proxy";

using ResetFn = void (*)();
using SetFn = void (*)(const wchar_t* key, const wchar_t* value);
using JournalFn = size_t (*)(wchar_t* buffer, size_t capacity);

}  // namespace scripted_components
