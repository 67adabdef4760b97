#include "host/settings/json_text.h"

#include <json/writer.h>

#include "os/utf8.h"

namespace host::settings {

bool AppendQuoted(std::string_view utf8, std::string& out) {
    static constexpr char kHex[] = "0123456789abcdef";
    out += '"';
    size_t plain = 0;  // start of the run not yet copied
    unsigned char seen = 0;
    for (size_t i = 0; i < utf8.size(); ++i) {
        const auto c = static_cast<unsigned char>(utf8[i]);
        seen |= c;
        if (c >= 0x20 && c != '"' && c != '\\') continue;
        out.append(utf8, plain, i - plain);
        plain = i + 1;
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += "\\u00";
                out += kHex[c >> 4];
                out += kHex[c & 0xF];
        }
    }
    out.append(utf8, plain, std::string_view::npos);
    out += '"';
    return (seen & 0x80) != 0;
}

bool AppendQuotedChecked(std::string_view text, std::string& out) {
    return !AppendQuoted(text, out) || os::IsUtf8(text);
}

void AppendQuoted(const std::wstring& text, std::string& out) {
    static_cast<void>(AppendQuoted(os::WideToUtf8Lossy(text), out));
}

bool AppendJson(const Json::Value& value, int depth, std::string& out) {
    if (depth <= 0) return false;
    switch (value.type()) {
        case Json::nullValue:
            out += "null";
            return true;
        case Json::intValue:
            out += Json::valueToString(value.asLargestInt());
            return true;
        case Json::uintValue:
            out += Json::valueToString(value.asLargestUInt());
            return true;
        case Json::realValue:
            out += Json::valueToString(value.asDouble());
            return true;
        case Json::booleanValue:
            out += value.asBool() ? "true" : "false";
            return true;
        case Json::stringValue: {
            const char* begin = nullptr;
            const char* end = nullptr;
            if (!value.getString(&begin, &end)) return false;
            const std::string_view text(begin, static_cast<size_t>(end - begin));
            return AppendQuotedChecked(text, out);
        }
        case Json::arrayValue: {
            out += '[';
            // Iterated, not indexed: each index would be a lookup.
            bool first = true;
            for (auto it = value.begin(), end = value.end(); it != end; ++it) {
                if (!first) out += ',';
                first = false;
                if (!AppendJson(*it, depth - 1, out)) return false;
            }
            out += ']';
            return true;
        }
        case Json::objectValue: {
            out += '{';
            bool first = true;
            for (auto it = value.begin(), last = value.end(); it != last; ++it) {
                if (!first) out += ',';
                first = false;
                const char* end = nullptr;
                const char* name = it.memberName(&end);
                const std::string_view text(name, static_cast<size_t>(end - name));
                if (!AppendQuotedChecked(text, out)) return false;
                out += ':';
                if (!AppendJson(*it, depth - 1, out)) return false;
            }
            out += '}';
            return true;
        }
    }
    return false;
}

}  // namespace host::settings
