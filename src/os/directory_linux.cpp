#include "os/directory.h"

#include <cctype>
#include <fstream>
#include <string>
#include <vector>

namespace os {
namespace {

bool IsDigit(wchar_t c) noexcept { return c >= L'0' && c <= L'9'; }

// The decimal sub-authorities of a SID written "S-1-<authority>-<sub>...",
// with the authority first; empty when the text is not a SID.
std::vector<unsigned long long> SidNumbers(const std::wstring& sid) {
    if (sid.size() < 4 || (sid[0] != L'S' && sid[0] != L's') || sid[1] != L'-') return {};
    std::vector<unsigned long long> numbers;
    size_t i = 2;
    while (true) {
        if (i >= sid.size() || !IsDigit(sid[i])) return {};
        unsigned long long number = 0;
        while (i < sid.size() && IsDigit(sid[i])) {
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

// The machine's identity: the 32 hexadecimal digits of the first readable
// machine-id file; empty when there is none.
std::string MachineId() {
    for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
        std::ifstream file(path);
        std::string id;
        if (!(file >> id) || id.size() != 32) continue;
        bool hex = true;
        for (char c : id) hex = hex && std::isxdigit(static_cast<unsigned char>(c));
        if (hex) return id;
    }
    return "";
}

}  // namespace

NameCrack CrackUserPrincipalName(const std::wstring&) { return NameCrack{}; }

RegistryString ReadMachineRegistryString(const std::wstring&, const std::wstring&) { return RegistryString{}; }

uint32_t NextRdn(const wchar_t** dn, size_t* length, RdnPart* part) { return ParseRdn(dn, length, part); }

std::wstring SystemRdnParserUnusable() { return L""; }

// Windows gives each installation an account domain S-1-5-21-a-b-c of three
// random 32-bit numbers; the machine-id's first 96 bits play that part here.
HostAccountDomain GetHostAccountDomain() {
    const std::string id = MachineId();
    if (id.empty()) return HostAccountDomain{false, 2, L""};  // ERROR_FILE_NOT_FOUND
    std::wstring sid = L"S-1-5-21";
    for (size_t i = 0; i < 3; ++i) sid += L"-" + std::to_wstring(std::stoul(id.substr(i * 8, 8), nullptr, 16));
    return HostAccountDomain{true, 0, sid};
}

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
