// Host-name patterns against a plain reference matcher: "*" any run of
// characters, "?" one, everything else itself, ignoring case as the
// expression library does, the whole name; a pattern with more than 255
// characters other than "*" matches nothing. The input is the pattern, a
// NUL byte, then the name.
#include <cstdint>
#include <locale>
#include <string>
#include <vector>

#include "conditions/network/hostname_pattern.h"
#include "fuzz_check.h"

namespace {

using Product::Integration::ConditionManager::HostnamePattern;

wchar_t Fold(wchar_t c) { return std::use_facet<std::ctype<wchar_t>>(std::locale()).tolower(c); }

// What "." matches in the expression: any character but a line end.
bool AnyCharacter(wchar_t c) { return c != L'\n' && c != L'\r'; }

// Glob matching by dynamic programming over (pattern position, name position).
bool ReferenceMatch(const std::wstring& pattern, const std::wstring& name) {
    size_t literals = 0;
    for (wchar_t c : pattern) literals += c != L'*';
    if (literals > HostnamePattern::kMaxHostNameLength) return false;
    // reach[j]: the pattern read so far can match the first j characters of the name.
    std::vector<bool> reach(name.size() + 1, false);
    reach[0] = true;
    for (wchar_t p : pattern) {
        std::vector<bool> next(name.size() + 1, false);
        if (p == L'*') {
            for (size_t j = 0; j <= name.size(); ++j)
                next[j] = reach[j] || (j > 0 && next[j - 1] && AnyCharacter(name[j - 1]));
        } else {
            for (size_t j = 1; j <= name.size(); ++j)
                next[j] = reach[j - 1] && (p == L'?' ? AnyCharacter(name[j - 1]) : Fold(p) == Fold(name[j - 1]));
        }
        reach.swap(next);
    }
    return reach[name.size()];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    size_t split = 0;
    while (split < size && data[split] != 0) ++split;
    const std::wstring pattern(data, data + split);
    const std::wstring name(split < size ? data + split + 1 : data + size, data + size);
    // Names beyond what a host name can be say nothing more about the matcher.
    if (name.size() > 2 * HostnamePattern::kMaxHostNameLength) return 0;
    const bool matched = HostnamePattern(pattern).Matches(name);
    const bool expected = ReferenceMatch(pattern, name);
    FUZZ_CHECK(matched == expected, "pattern of %zu characters, name of %zu: matcher %d, reference %d", pattern.size(),
               name.size(), matched, expected);
    return 0;
}
