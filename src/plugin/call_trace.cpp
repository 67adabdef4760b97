#include "plugin/call_trace.h"

#include <cwchar>

#include "os/clock.h"
#include "plugin/log.h"

namespace logging {
namespace {
uint32_t SystemTick() { return os::TickMs(); }
}  // namespace

CallTrace::CallTrace(const wchar_t* name, TickSource tick) : tick_(tick ? tick : &SystemTick), start_(tick_()) {
    if (!name) name = L"";
    const size_t length = std::wcslen(name);
    const size_t kept = length < static_cast<size_t>(kNameCut) ? length : kNameCut;
    std::wmemcpy(text_, name, kept);
    std::wmemcpy(text_ + kept, L"()", 3);
    const size_t keptName = length < static_cast<size_t>(kFunctionCut) ? length : kFunctionCut;
    std::wmemcpy(function_, name, keptName);
    function_[keptName] = L'\0';
    if (CLogDLL::Exists()) Write(+1, kTrace, function_, L"-> %s", text_);
}

CallTrace::~CallTrace() {
    if (CLogDLL::Exists())
        Write(-1, kTrace, function_, L"<- %s [%d]", text_, static_cast<int>(Elapsed(start_, tick_())));
}

}  // namespace logging
