#pragma once
// What an AutoResetEvent is on Linux: an eventfd counter. For the files of
// this folder that wait on an event together with a descriptor of their own.
#include "os/event.h"

namespace os {

struct AutoResetEvent::Native {
    int fd = -1;
};

}  // namespace os
