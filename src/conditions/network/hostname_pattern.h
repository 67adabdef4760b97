#pragma once
// Host-name patterns: "*" for any run of characters, "?" for one character,
// everything else literal, compared with the whole name ignoring case.
//
// The pattern becomes an anchored ECMAScript expression: a run of "*" gives
// one ".*", "?" gives ".", each of . ^ $ | ( ) [ ] { } + \ is escaped, and
// every other character is copied. The result therefore holds only literal
// characters, "." and ".*": no groups, alternation, back-references, classes
// or nested repetition, so no pattern can make the matcher backtrack without
// bound. Matching also uses the library's polynomial (automaton) executor
// where it has one, so its cost is at most the name's length times the
// expression's, and a pattern whose literal characters outnumber any host
// name's (kMaxHostNameLength) is not compiled at all: it matches nothing,
// which also bounds the size (and the compiler's recursion) of what is
// compiled.
//
// A value; Matches may be called from several threads at once.
#include <cstddef>
#include <optional>
#include <regex>
#include <string>

namespace Product::Integration::ConditionManager {

class HostnamePattern {
public:
    // The longest host name there is (a DNS name; NetBIOS names are 15).
    static constexpr size_t kMaxHostNameLength = 255;

    explicit HostnamePattern(const std::wstring& pattern);

    // The expression the pattern turns into, "^...$".
    static std::wstring ToExpression(const std::wstring& pattern);

    bool Matches(const std::wstring& hostName) const;

private:
    std::optional<std::wregex> expression_;  // none: the pattern can match no host name
};

}  // namespace Product::Integration::ConditionManager
