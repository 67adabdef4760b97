#pragma once
// What an AutoResetEvent is on Windows: an event handle. For the files of
// this folder that wait on an event together with a handle of their own.
#include <windows.h>

#include "os/event.h"

namespace os {

struct AutoResetEvent::Native {
    HANDLE handle = nullptr;
};

}  // namespace os
