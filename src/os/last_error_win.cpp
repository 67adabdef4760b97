#include <windows.h>

#include "os/last_error.h"

namespace os {

uint32_t LastSystemError() noexcept { return ::GetLastError(); }

void ClearLastSystemError() noexcept { ::SetLastError(ERROR_SUCCESS); }

std::wstring SystemErrorText(uint32_t code) {
    wchar_t* text = nullptr;
    ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                     nullptr, code, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::wstring message = L"error " + std::to_wstring(code);
    if (text) {
        message += L" ";
        message += text;
        ::LocalFree(text);
        while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r' || message.back() == L' '))
            message.pop_back();
    }
    return message;
}

}  // namespace os
