#include "os/status.h"

#include <cstdio>
#include <cstdlib>

#include "os/last_error.h"
#include "os/utf8.h"
#include "qv/status.h"

namespace os {

void StatusMisused(const char* what, std::wstring_view message) {
    std::fprintf(stderr, "status misused: %s%s%s\n", what, message.empty() ? "" : ": ",
                 WideToUtf8Lossy(message).c_str());
    std::fflush(stderr);
    std::abort();
}

Status Status::System(uint32_t code, std::wstring_view step) {
    std::wstring message(step);
    message += L": ";
    if (code == 0) {
        message += L"the system gave no error code";
        return Failure(qv::status::kFunctionFailed, std::move(message));
    }
    message += SystemErrorText(code);
    return Failure(static_cast<int32_t>(code), std::move(message));
}

}  // namespace os
