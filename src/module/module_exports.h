#pragma once
// The module's only two exports. Callable from any host thread at once: the
// registry serialises lookups, creation and give-back.
#include <cstdint>

#include "qv/guid.h"

#if defined(_WIN32)
#define QV_MODULE_EXPORT extern "C" __declspec(dllexport)
#else
#define QV_MODULE_EXPORT extern "C" __attribute__((visibility("default")))
#endif

// 0 with *object set, or kNotFound with *object null when the name is unknown or
// the object lacks `iid` (the object is then given back at once).
QV_MODULE_EXPORT int32_t QvCreateObject(const wchar_t* name, const GUID* iid, void** object);
// Gives back an object obtained from QvCreateObject under the same name.
QV_MODULE_EXPORT void QvDestroyObject(const wchar_t* name, void* object);

using QvCreateObjectFn = int32_t (*)(const wchar_t*, const GUID*, void**);
using QvDestroyObjectFn = void (*)(const wchar_t*, void*);
