#pragma once
// Directory identity helpers: distinguished names (DNs) of users from the
// directory or from what Group Policy recorded, DN splitting, the
// organisational-unit (OU) test, and the account domain of SIDs.
//
// The DN helpers report every failure by throwing active_directory_exception
// with its reason and a Windows error code; the SID helpers never throw.
// Where the system has no directory client (Linux), name cracking and the
// registry read throw with kNotSupported. The system services come from
// CurrentDirectorySystem() (directory_system.h), which a host or a test may
// replace.
//
// Stateless: callable from any thread; calls may block on a domain controller.
#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

namespace qv::ActiveDirectory {

class active_directory_exception : public std::exception {
public:
    active_directory_exception(std::wstring message, uint32_t code);
    const char* what() const noexcept override { return narrow_.c_str(); }
    const std::wstring& message() const noexcept { return message_; }
    uint32_t code() const noexcept { return code_; }

private:
    std::wstring message_;
    std::string narrow_;  // UTF-8 copy for what()
    uint32_t code_;
};

// One relative distinguished name: views into the DN it was split from, with
// escapes kept as written.
struct RdnComponent {
    std::wstring_view type;   // "OU", "CN", "DC", ...
    std::wstring_view value;  // "Sales"
};

// The DN of the user `name`@`domain`, from the computer's domain. Throws:
// binding or cracking failed (their codes); not found (kNotFound); another
// item status (that status); no name returned (5023).
std::wstring ConvertNameToDistinguishedName(const std::wstring& name, const std::wstring& domain);
// The DN Group Policy recorded for the user `sid`. Throws when the key cannot
// be opened, or the value is absent, empty or not a string.
std::wstring GetUserDistinguishedNameFromRegistry(const std::wstring& sid);
// The RDNs of `dn` in order (most specific first). The views point into
// `dn`, which must outlive them. Throws when the DN does not parse.
std::vector<RdnComponent> SplitDistinguishedName(std::wstring_view dn);
// Whether the user `userDn` lies strictly below `ouDn`: the OU's components
// equal the user's last ones, exactly and case-sensitively. Throws with
// kInvalidParameter when either DN has no components.
bool IsPartOfOU(std::wstring_view userDn, std::wstring_view ouDn);
// The same test for a computer's DN under a target OU.
bool IsComputerPartOfOU(std::wstring_view computerDn, std::wstring_view targetOuDn);

// Whether two texts are equal when letter case is ignored (code unit by code
// unit, as SIDs and DNs are compared).
bool EqualIgnoringCase(std::wstring_view a, std::wstring_view b) noexcept;

// The account domain SID of `sid` in string form; empty when it has none or
// is not a SID.
std::wstring GetAccountDomainSid(const std::wstring& sid);
// Whether `sid` belongs to a domain: its account domain differs (ignoring
// case) from the machine's own account domain.
bool IsDomainSid(const std::wstring& sid);

}  // namespace qv::ActiveDirectory

namespace qv {
// The machine's own account domain SID in string form; empty when unknown.
std::wstring GetHostAccountDomainSid();
}  // namespace qv
