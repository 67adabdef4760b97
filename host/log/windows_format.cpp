#include "windows_format.h"

#include <algorithm>
#include <cstdint>
#include <cwchar>

#include "os/utf8.h"

namespace host {
namespace {

enum class Length { kNone, kShort, kLong, kLongLong, kSize };
// Whether a string or character conversion was marked narrow (h) or wide (l, w).
enum class CharSize { kDefault, kNarrow, kWide };

// The length modifiers, longer ones before their own prefixes.
struct LengthModifier {
    const wchar_t* text;
    Length length;
    CharSize charSize;
};
constexpr LengthModifier kLengthModifiers[] = {
    {L"I64", Length::kLongLong, CharSize::kDefault},  // 64 bits
    {L"I32", Length::kNone, CharSize::kDefault},      // 32 bits: an int
    {L"I", Length::kSize, CharSize::kDefault},        // pointer-sized
    {L"z", Length::kSize, CharSize::kDefault},        // pointer-sized
    {L"ll", Length::kLongLong, CharSize::kDefault},   // long long
    {L"l", Length::kLong, CharSize::kWide},           // long; a wide string or character
    {L"w", Length::kNone, CharSize::kWide},           // a wide string or character
    {L"h", Length::kShort, CharSize::kNarrow},        // short; a narrow string or character
};

// One conversion as written between its '%' and its type character.
struct Conversion {
    std::wstring flags;
    int width = -1;      // -1: none
    int precision = -1;  // negative: none
    Length length = Length::kNone;
    CharSize charSize = CharSize::kDefault;
    wchar_t type = 0;
};

// The variable arguments of one call, taken in order. Owns its copy of the
// caller's list.
class Arguments {
public:
    explicit Arguments(va_list args) { va_copy(args_, args); }
    ~Arguments() { va_end(args_); }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;

    template <class T>
    T Next() {
        return va_arg(args_, T);
    }

private:
    va_list args_;
};

bool IsDigit(wchar_t c) { return c >= L'0' && c <= L'9'; }

// The decimal number at `p` (0 when there is none); `p` moves past it.
int ReadNumber(const wchar_t*& p) {
    int value = 0;
    while (IsDigit(*p)) value = value * 10 + (*p++ - L'0');
    return value;
}

// Width: digits, or '*' taking it from the arguments (negative: left-justified).
void ReadWidth(const wchar_t*& p, Arguments& args, Conversion& conversion) {
    if (*p == L'*') {
        ++p;
        conversion.width = args.Next<int>();
        if (conversion.width < 0) {
            conversion.flags.push_back(L'-');
            conversion.width = -conversion.width;
        }
    } else if (IsDigit(*p)) {
        conversion.width = ReadNumber(p);
    }
}

// Precision: '.' then digits (none: 0), or ".*" taking it from the arguments.
void ReadPrecision(const wchar_t*& p, Arguments& args, Conversion& conversion) {
    if (*p != L'.') return;
    ++p;
    if (*p == L'*') {
        ++p;
        conversion.precision = args.Next<int>();
    } else {
        conversion.precision = ReadNumber(p);
    }
}

void ReadLength(const wchar_t*& p, Conversion& conversion) {
    for (const LengthModifier& modifier : kLengthModifiers) {
        const size_t size = std::wcslen(modifier.text);
        if (std::wcsncmp(p, modifier.text, size) != 0) continue;
        p += size;
        conversion.length = modifier.length;
        conversion.charSize = modifier.charSize;
        return;
    }
}

// Reads flags, width, precision and length from `p` (just after the '%'),
// taking '*' values from `args`; `p` is left on the type character.
Conversion ReadConversion(const wchar_t*& p, Arguments& args) {
    Conversion conversion;
    while (*p && std::wcschr(L"-+ #0", *p)) conversion.flags.push_back(*p++);
    ReadWidth(p, args, conversion);
    ReadPrecision(p, args, conversion);
    ReadLength(p, conversion);
    return conversion;
}

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

// The standard format of `conversion` without its length and type: "%-08.3".
std::wstring NumberSpec(const Conversion& conversion) {
    std::wstring spec = L"%" + conversion.flags;
    if (conversion.width >= 0) spec += std::to_wstring(conversion.width);
    if (conversion.precision >= 0) spec += L"." + std::to_wstring(conversion.precision);
    return spec;
}

// %d and %i: the argument's size follows the length modifier.
void AppendSigned(std::wstring& out, const Conversion& conversion, Arguments& args) {
    const std::wstring spec = NumberSpec(conversion);
    switch (conversion.length) {
        case Length::kLong:
            return AppendNumber(out, spec + L"ld", args.Next<long>());
        case Length::kLongLong:
            return AppendNumber(out, spec + L"lld", args.Next<long long>());
        case Length::kSize:
            return AppendNumber(out, spec + L"lld", static_cast<long long>(args.Next<ptrdiff_t>()));
        case Length::kShort:
            return AppendNumber(out, spec + L"d", static_cast<int>(static_cast<short>(args.Next<int>())));
        case Length::kNone:
            return AppendNumber(out, spec + L"d", args.Next<int>());
    }
}

// %u, %x, %X and %o: the argument's size follows the length modifier.
void AppendUnsigned(std::wstring& out, const Conversion& conversion, Arguments& args) {
    const std::wstring spec = NumberSpec(conversion);
    const std::wstring type(1, conversion.type);
    switch (conversion.length) {
        case Length::kLong:
            return AppendNumber(out, spec + L"l" + type, args.Next<unsigned long>());
        case Length::kLongLong:
            return AppendNumber(out, spec + L"ll" + type, args.Next<unsigned long long>());
        case Length::kSize:
            return AppendNumber(out, spec + L"ll" + type, static_cast<unsigned long long>(args.Next<size_t>()));
        case Length::kShort:
            return AppendNumber(out, spec + type,
                                static_cast<unsigned>(static_cast<unsigned short>(args.Next<unsigned>())));
        case Length::kNone:
            return AppendNumber(out, spec + type, args.Next<unsigned>());
    }
}

// Lower-case %s and %c are wide unless marked narrow (h); upper-case %S and
// %C are narrow unless marked wide (l, w).
bool IsNarrow(const Conversion& conversion) {
    const bool upper = conversion.type == L'S' || conversion.type == L'C';
    return upper ? conversion.charSize != CharSize::kWide : conversion.charSize == CharSize::kNarrow;
}

void AppendString(std::wstring& out, const Conversion& conversion, Arguments& args) {
    std::wstring text;
    if (IsNarrow(conversion)) {
        const char* s = args.Next<const char*>();
        text = s ? os::Utf8ToWideLossy(s) : L"(null)";
    } else {
        const wchar_t* s = args.Next<const wchar_t*>();
        text = s ? s : L"(null)";
    }
    AppendPadded(out, std::move(text), conversion.flags, conversion.width, conversion.precision);
}

void AppendCharacter(std::wstring& out, const Conversion& conversion, Arguments& args) {
    const int value = args.Next<int>();
    std::wstring text(1, IsNarrow(conversion) ? static_cast<wchar_t>(static_cast<unsigned char>(value))
                                              : static_cast<wchar_t>(value));
    AppendPadded(out, std::move(text), conversion.flags, conversion.width, -1);
}

// Appends the value of `conversion`; false, taking no argument, for a type
// this formatter does not know.
bool AppendConverted(std::wstring& out, const Conversion& conversion, Arguments& args) {
    switch (conversion.type) {
        case L'd':
        case L'i':
            AppendSigned(out, conversion, args);
            return true;
        case L'u':
        case L'x':
        case L'X':
        case L'o':
            AppendUnsigned(out, conversion, args);
            return true;
        case L'p':
            AppendNumber(out, std::wstring(L"%p"), args.Next<void*>());
            return true;
        case L's':
        case L'S':
            AppendString(out, conversion, args);
            return true;
        case L'c':
        case L'C':
            AppendCharacter(out, conversion, args);
            return true;
        default:
            return false;
    }
}

}  // namespace

std::wstring FormatWindowsStyle(const wchar_t* format, va_list args) {
    std::wstring out;
    if (!format) return out;
    Arguments arguments(args);
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
        Conversion conversion = ReadConversion(p, arguments);
        if (!*p) {
            out.append(start);  // cut short: copied as written
            break;
        }
        conversion.type = *p++;
        if (!AppendConverted(out, conversion, arguments)) out.append(start, p);
    }
    return out;
}

}  // namespace host
