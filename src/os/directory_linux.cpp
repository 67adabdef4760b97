#include "os/directory.h"

#include <cwctype>
#include <vector>

namespace os {
namespace {

// The decimal sub-authorities of a SID written "S-1-<authority>-<sub>...",
// with the authority first; empty when the text is not a SID.
std::vector<unsigned long long> SidNumbers(const std::wstring& sid) {
    if (sid.size() < 4 || (sid[0] != L'S' && sid[0] != L's') || sid[1] != L'-') return {};
    std::vector<unsigned long long> numbers;
    size_t i = 2;
    while (true) {
        if (i >= sid.size() || !std::iswdigit(sid[i])) return {};
        unsigned long long number = 0;
        while (i < sid.size() && std::iswdigit(sid[i])) {
            number = number * 10 + static_cast<unsigned long long>(sid[i] - L'0');
            if (number > 0xFFFFFFFFFFFFull) return {};
            ++i;
        }
        numbers.push_back(number);
        if (i == sid.size()) break;
        if (sid[i] != L'-') return {};
        ++i;
    }
    return numbers;
}

}  // namespace

NameCrack CrackUserPrincipalName(const std::wstring&) { return NameCrack{}; }

RegistryString ReadMachineRegistryString(const std::wstring&, const std::wstring&) { return RegistryString{}; }

uint32_t NextRdn(const wchar_t** dn, size_t* length, RdnPart* part) { return ParseRdn(dn, length, part); }

HostAccountDomain GetHostAccountDomain() { return HostAccountDomain{true, 0, L""}; }

// The account domain of an account SID S-1-5-21-a-b-c[-RID]: its first four
// sub-authorities. Sub-authorities are 32-bit; at most 15 of them.
std::wstring AccountDomainSidOf(const std::wstring& sid) {
    const std::vector<unsigned long long> n = SidNumbers(sid);
    // n: revision, authority, sub-authorities...
    if (n.size() < 6 || n.size() > 17 || n[0] != 1 || n[1] != 5 || n[2] != 21) return L"";
    for (size_t i = 2; i < n.size(); ++i)
        if (n[i] > 0xFFFFFFFFull) return L"";
    return L"S-1-5-21-" + std::to_wstring(n[3]) + L"-" + std::to_wstring(n[4]) + L"-" + std::to_wstring(n[5]);
}

}  // namespace os
