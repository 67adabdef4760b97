#include "log_messages.h"

#include "host/log/thread_sink.h"
#include "os/module.h"
#include "os/utf8.h"

namespace crhost {

ThreadLogMessages::ThreadLogMessages(int32_t maxLevel) : maxLevel_(maxLevel) {
    // The library the module loaded, held until the copy is removed.
    library_ = os::LoadedModule::FindLoaded(os::SharedLibraryFileName(L"log"));
    set_ = library_.Function<SetFn>(host::log::kSetThreadSinkName);
    if (set_) set_(&ThreadLogMessages::Take, this);
}

ThreadLogMessages::~ThreadLogMessages() {
    if (set_) set_(nullptr, nullptr);
}

void ThreadLogMessages::Take(void* context, int32_t level, const wchar_t*, const wchar_t* message) {
    auto* self = static_cast<ThreadLogMessages*>(context);
    if (level > self->maxLevel_) return;
    self->messages_.push_back(os::WideToUtf8Lossy(message ? message : L""));
}

}  // namespace crhost
