#include "conditions/directory/active_directory.h"

#include <utility>

#include "conditions/directory/directory_system.h"
#include "os/directory.h"
#include "os/text_case.h"
#include "os/utf8.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace qv::ActiveDirectory {
namespace {

constexpr const wchar_t* kConvertName = L"qv::ActiveDirectory::ConvertNameToDistinguishedName";
constexpr uint32_t kInvalidState = 5023;  // ERROR_INVALID_STATE
constexpr const wchar_t* kNotSupported = L"not supported on this system";

std::wstring Number(uint32_t value) { return std::to_wstring(value); }
std::wstring Signed(uint32_t value) { return std::to_wstring(static_cast<int32_t>(value)); }

[[noreturn]] void Throw(std::wstring message, uint32_t code) {
    throw active_directory_exception(std::move(message), code);
}

// The OU test shared by users and computers: `inner` lies strictly below `ou`.
bool IsBelow(std::wstring_view innerDn, std::wstring_view ouDn, const wchar_t* noOuComponents,
             const wchar_t* noInnerComponents) {
    const std::vector<RdnComponent> ou = SplitDistinguishedName(ouDn);
    if (ou.empty()) Throw(noOuComponents, static_cast<uint32_t>(qv::status::kInvalidParameter));
    const std::vector<RdnComponent> inner = SplitDistinguishedName(innerDn);
    if (inner.empty()) Throw(noInnerComponents, static_cast<uint32_t>(qv::status::kInvalidParameter));
    if (ou.size() >= inner.size()) return false;
    // Compared exactly: ou=Sales and OU=Sales are different components.
    for (size_t i = 1; i <= ou.size(); ++i) {
        const RdnComponent& a = ou[ou.size() - i];
        const RdnComponent& b = inner[inner.size() - i];
        if (a.type != b.type || a.value != b.value) return false;
    }
    return true;
}

}  // namespace

active_directory_exception::active_directory_exception(std::wstring message, uint32_t code)
    : message_(std::move(message)), narrow_(os::WideToUtf8Lossy(message_)), code_(code) {}

std::wstring ConvertNameToDistinguishedName(const std::wstring& name, const std::wstring& domain) {
    const os::NameCrack crack = CurrentDirectorySystem().CrackUserPrincipalName(name + L"@" + domain);
    switch (crack.outcome) {
        case os::NameCrackOutcome::kNotSupported:
            Throw(std::wstring(L"Name cracking is ") + kNotSupported + L".",
                  static_cast<uint32_t>(qv::status::kNotSupported));
        case os::NameCrackOutcome::kBindFailed:
            Throw(L"Error " + Number(crack.error) + L" binding to domain controller.", crack.error);
        case os::NameCrackOutcome::kCrackFailed:
            Throw(L"Error " + Number(crack.error) + L" getting object path from name.", crack.error);
        case os::NameCrackOutcome::kCracked:
            break;
    }
    if (crack.itemStatus == os::kNameErrorNotFound || crack.itemStatus == os::kNameErrorDomainOnly)
        Throw(L"Error (status " + Number(crack.itemStatus) +
                  L") converting name to distinguished name; returning ERROR_NOT_FOUND.",
              static_cast<uint32_t>(qv::status::kNotFound));
    if (crack.itemStatus != 0)
        Throw(L"Error (status " + Number(crack.itemStatus) + L") converting name to distinguished name.",
              crack.itemStatus);
    if (!crack.hasName) Throw(L"Error converting name to distinguished name (output nullptr).", kInvalidState);
    logging::Log(logging::kTrace, kConvertName, L"Name cracking: status = %d, domain = %s, path = %s",
                 static_cast<int>(crack.itemStatus), crack.domain.c_str(), crack.name.c_str());
    return crack.name;
}

std::wstring GetUserDistinguishedNameFromRegistry(const std::wstring& sid) {
    const os::RegistryString read = CurrentDirectorySystem().ReadMachineRegistryString(
        L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Group Policy\\State\\" + sid, L"Distinguished-Name");
    switch (read.outcome) {
        case os::RegistryReadOutcome::kRead:
            return read.value;
        case os::RegistryReadOutcome::kNotSupported:
            Throw(std::wstring(L"Reading the user's DN from the registry is ") + kNotSupported + L".",
                  static_cast<uint32_t>(qv::status::kNotSupported));
        case os::RegistryReadOutcome::kOpenFailed:
            Throw(L"Failed to open the registry key to read user DN, error = " + Signed(read.error) + L".", read.error);
        case os::RegistryReadOutcome::kMissing:
            Throw(L"Failed to read the user's DN from the registry, value is invalid/does not exist, last error = " +
                      Signed(read.error) + L".",
                  read.error);
        case os::RegistryReadOutcome::kNotString:
            Throw(L"Failed to read the user's DN from the registry, value type is " + Number(read.type) +
                      L" instead of string, last error = " + Signed(read.error) + L".",
                  read.error);
    }
    Throw(L"Failed to read the user's DN from the registry.", kInvalidState);
}

std::vector<RdnComponent> SplitDistinguishedName(std::wstring_view dn) {
    // A terminating zero kept in the view is not part of the DN.
    while (!dn.empty() && dn.back() == L'\0') dn.remove_suffix(1);
    std::vector<RdnComponent> components;
    const wchar_t* text = dn.data();
    size_t remaining = dn.size();
    while (remaining > 0) {
        os::RdnPart part;
        if (const uint32_t error = CurrentDirectorySystem().NextRdn(&text, &remaining, &part); error != 0)
            Throw(L"Failed to get RDN, error = " + Signed(error) + L".", error);
        components.push_back(
            {std::wstring_view(part.type, part.typeLength), std::wstring_view(part.value, part.valueLength)});
    }
    return components;
}

bool IsPartOfOU(std::wstring_view userDn, std::wstring_view ouDn) {
    return IsBelow(userDn, ouDn, L"No components detected in the OU's DN.",
                   L"No components detected in the user's DN.");
}

bool IsComputerPartOfOU(std::wstring_view computerDn, std::wstring_view targetOuDn) {
    return IsBelow(computerDn, targetOuDn, L"No components detected in the target OU's DN.",
                   L"No components detected in the computer's DN.");
}

bool EqualIgnoringCase(std::wstring_view a, std::wstring_view b) noexcept { return os::EqualIgnoringCase(a, b); }

std::wstring GetAccountDomainSid(const std::wstring& sid) { return os::AccountDomainSidOf(sid); }

bool IsDomainSid(const std::wstring& sid) {
    return !EqualIgnoringCase(GetAccountDomainSid(sid), qv::GetHostAccountDomainSid());
}

}  // namespace qv::ActiveDirectory

namespace qv {

std::wstring GetHostAccountDomainSid() {
    const os::HostAccountDomain domain = os::GetHostAccountDomain();
    if (!domain.policyOpened) {
        logging::Log(logging::kError, L"qv::GetHostAccountDomainSid", L"LsaOpenPolicy failed with return code [%d]",
                     static_cast<int>(domain.error));
        return L"";
    }
    return domain.sid;
}

}  // namespace qv
