#pragma once
// Keeps exceptions out of the host's threads: a condition's callback from a
// host service runs its work through Guarded, which logs whatever the work
// throws under the callback's name and answers kFunctionFailed instead.
#include <cstdint>
#include <exception>

#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {

template <class Work>
int32_t Guarded(const wchar_t* function, Work&& work) noexcept {
    try {
        return work();
    } catch (const std::exception& e) {
        try {
            logging::Log(logging::kError, function, L"%S", e.what());
        } catch (...) {  // nothing more can be told
        }
    } catch (...) {
        try {
            logging::Log(logging::kError, function, L"Unknown exception thrown.");
        } catch (...) {  // nothing more can be told
        }
    }
    return qv::status::kFunctionFailed;
}

}  // namespace Product::Integration::ConditionManager
