#pragma once
// Runs the body of an IEPSettings call so that no exception leaves it: an
// allocation failure answers kNotEnoughMemory, anything else kFunctionFailed.
#include <cstdint>
#include <new>

#include "qv/status.h"

namespace host::settings {

int32_t Guarded(auto&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return qv::status::kNotEnoughMemory;
    } catch (...) {
        return qv::status::kFunctionFailed;
    }
}

}  // namespace host::settings
