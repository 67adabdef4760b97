#include "windows_format.h"

#include <algorithm>
#include <cstdint>
#include <cwchar>

#include "os/utf8.h"

namespace host {
namespace {

enum class Length { kNone, kShort, kLong, kLongLong, kSize };

// Pads `text` to `width` (left-justified with '-'), after cutting it to `precision`.
void AppendPadded(std::wstring& out, std::wstring text, const std::wstring& flags, int width, int precision) {
    if (precision >= 0 && text.size() > static_cast<size_t>(precision)) text.resize(static_cast<size_t>(precision));
    const size_t pad =
        width > 0 && text.size() < static_cast<size_t>(width) ? static_cast<size_t>(width) - text.size() : 0;
    const bool left = flags.find(L'-') != std::wstring::npos;
    if (!left) out.append(pad, L' ');
    out += text;
    if (left) out.append(pad, L' ');
}

template <class T>
void AppendNumber(std::wstring& out, const std::wstring& spec, T value) {
    wchar_t buffer[128];
    int n = std::swprintf(buffer, 128, spec.c_str(), value);
    if (n > 0) out.append(buffer, std::min<size_t>(static_cast<size_t>(n), 127));
}

}  // namespace

// NOLINTNEXTLINE(readability-function-cognitive-complexity): over the limit; to be split
std::wstring FormatWindowsStyle(const wchar_t* format, va_list args) {
    std::wstring out;
    if (!format) return out;
    va_list ap;
    va_copy(ap, args);
    for (const wchar_t* p = format; *p;) {
        if (*p != L'%') {
            out.push_back(*p++);
            continue;
        }
        const wchar_t* start = p++;
        if (*p == L'%') {
            out.push_back(L'%');
            ++p;
            continue;
        }
        std::wstring flags;
        while (*p && std::wcschr(L"-+ #0", *p)) flags.push_back(*p++);
        int width = -1;
        if (*p == L'*') {
            width = va_arg(ap, int);
            if (width < 0) {
                flags.push_back(L'-');
                width = -width;
            }
            ++p;
        } else if (*p >= L'0' && *p <= L'9') {
            width = 0;
            while (*p >= L'0' && *p <= L'9') width = width * 10 + (*p++ - L'0');
        }
        int precision = -1;
        if (*p == L'.') {
            ++p;
            precision = 0;
            if (*p == L'*') {
                precision = va_arg(ap, int);
                ++p;
            } else {
                while (*p >= L'0' && *p <= L'9') precision = precision * 10 + (*p++ - L'0');
            }
        }
        Length length = Length::kNone;
        bool wide = false, narrow = false;
        if (*p == L'h') {
            length = Length::kShort;
            narrow = true;
            ++p;
        } else if (*p == L'w') {
            wide = true;
            ++p;
        } else if (*p == L'l') {
            ++p;
            if (*p == L'l') {
                length = Length::kLongLong;
                ++p;
            } else {
                length = Length::kLong;
                wide = true;
            }
        } else if (*p == L'I' && p[1] == L'6' && p[2] == L'4') {
            length = Length::kLongLong;
            p += 3;
        } else if (*p == L'I' && p[1] == L'3' && p[2] == L'2') {
            p += 3;
        } else if (*p == L'I' || *p == L'z') {
            length = Length::kSize;
            ++p;
        }

        const wchar_t conv = *p;
        if (!conv) {
            out.append(start);
            break;
        }
        ++p;
        std::wstring spec = L"%" + flags;
        if (width >= 0) spec += std::to_wstring(width);
        if (precision >= 0) spec += L"." + std::to_wstring(precision);
        switch (conv) {
            case L'd':
            case L'i':
                switch (length) {
                    case Length::kLong:
                        AppendNumber(out, spec + L"ld", va_arg(ap, long));
                        break;
                    case Length::kLongLong:
                        AppendNumber(out, spec + L"lld", va_arg(ap, long long));
                        break;
                    case Length::kSize:
                        AppendNumber(out, spec + L"lld", static_cast<long long>(va_arg(ap, ptrdiff_t)));
                        break;
                    case Length::kShort:
                        AppendNumber(out, spec + L"d", static_cast<int>(static_cast<short>(va_arg(ap, int))));
                        break;
                    default:
                        AppendNumber(out, spec + L"d", va_arg(ap, int));
                        break;
                }
                break;
            case L'u':
            case L'x':
            case L'X':
            case L'o': {
                const std::wstring c(1, conv);
                switch (length) {
                    case Length::kLong:
                        AppendNumber(out, spec + L"l" + c, va_arg(ap, unsigned long));
                        break;
                    case Length::kLongLong:
                        AppendNumber(out, spec + L"ll" + c, va_arg(ap, unsigned long long));
                        break;
                    case Length::kSize:
                        AppendNumber(out, spec + L"ll" + c, static_cast<unsigned long long>(va_arg(ap, size_t)));
                        break;
                    case Length::kShort:
                        AppendNumber(out, spec + c,
                                     static_cast<unsigned>(static_cast<unsigned short>(va_arg(ap, unsigned))));
                        break;
                    default:
                        AppendNumber(out, spec + c, va_arg(ap, unsigned));
                        break;
                }
                break;
            }
            case L'p':
                AppendNumber(out, std::wstring(L"%p"), va_arg(ap, void*));
                break;
            case L's':
            case L'S': {
                // %s is wide unless marked narrow (%hs); %S is narrow unless marked wide (%ls/%ws).
                const bool isNarrow = conv == L'S' ? !wide : narrow;
                std::wstring text;
                if (isNarrow) {
                    const char* s = va_arg(ap, const char*);
                    text = s ? os::Utf8ToWideLossy(s) : L"(null)";
                } else {
                    const wchar_t* s = va_arg(ap, const wchar_t*);
                    text = s ? s : L"(null)";
                }
                AppendPadded(out, std::move(text), flags, width, precision);
                break;
            }
            case L'c':
            case L'C': {
                const int value = va_arg(ap, int);
                const bool isNarrow = conv == L'C' ? !wide : narrow;
                std::wstring text(1, isNarrow ? static_cast<wchar_t>(static_cast<unsigned char>(value))
                                              : static_cast<wchar_t>(value));
                AppendPadded(out, std::move(text), flags, width, -1);
                break;
            }
            default:
                out.append(start, p);
                break;
        }
    }
    va_end(ap);
    return out;
}

}  // namespace host
