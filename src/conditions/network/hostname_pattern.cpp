#include "conditions/network/hostname_pattern.h"

#include <algorithm>

namespace Product::Integration::ConditionManager {
namespace {

constexpr std::wstring_view kEscaped = L".^$|()[]{}+\\";

std::regex_constants::syntax_option_type Options() {
    auto options = std::regex_constants::ECMAScript | std::regex_constants::icase;
#if defined(__GLIBCXX__)
    // libstdc++: the breadth-first executor, linear in the subject for a
    // fixed expression; valid for expressions without back-references.
    options |= std::regex_constants::__polynomial;
#endif
    return options;
}

}  // namespace

std::wstring HostnamePattern::ToExpression(const std::wstring& pattern) {
    std::wstring expression = L"^";
    bool afterStar = false;
    for (wchar_t c : pattern) {
        if (c == L'*') {
            if (!afterStar) expression += L".*";
            afterStar = true;
            continue;
        }
        afterStar = false;
        if (c == L'?') {
            expression += L'.';
        } else {
            if (kEscaped.find(c) != std::wstring_view::npos) expression += L'\\';
            expression += c;
        }
    }
    return expression + L"$";
}

HostnamePattern::HostnamePattern(const std::wstring& pattern) {
    const size_t literals =
        static_cast<size_t>(std::count_if(pattern.begin(), pattern.end(), [](wchar_t c) { return c != L'*'; }));
    if (literals > kMaxHostNameLength) return;
    expression_.emplace(ToExpression(pattern), Options());
}

bool HostnamePattern::Matches(const std::wstring& hostName) const {
    return expression_ && std::regex_match(hostName, *expression_);
}

}  // namespace Product::Integration::ConditionManager
