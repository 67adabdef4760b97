#include "os/directory.h"

#include <windows.h>

#include <ntdsapi.h>
#include <ntsecapi.h>
#include <sddl.h>

#include <string>
#include <vector>

#include "os/environment.h"

namespace os {
namespace {

using DsBindFn = DWORD(WINAPI*)(LPCWSTR, LPCWSTR, HANDLE*);
using DsUnBindFn = DWORD(WINAPI*)(HANDLE*);
using DsCrackNamesFn = DWORD(WINAPI*)(HANDLE, DS_NAME_FLAGS, DS_NAME_FORMAT, DS_NAME_FORMAT, DWORD, const LPCWSTR*,
                                      PDS_NAME_RESULTW*);
using DsFreeNameResultFn = void(WINAPI*)(PDS_NAME_RESULTW);
using DsGetRdnFn = DWORD(WINAPI*)(LPCWCH*, DWORD*, LPCWCH*, DWORD*, LPCWCH*, DWORD*);

// The directory services of "ntdsapi.dll", bound once for the process. The
// library stays loaded until the process ends.
struct DirectoryServices {
    DsBindFn bind = nullptr;
    DsUnBindFn unbind = nullptr;
    DsCrackNamesFn crackNames = nullptr;
    DsFreeNameResultFn freeNameResult = nullptr;
    DsGetRdnFn getRdn = nullptr;
    DWORD nameCrackingError = 0;  // why the name-cracking entries are missing
    std::wstring rdnUnusable;     // why getRdn is null
};

template <class Fn>
bool Bind(HMODULE library, const char* name, Fn& slot) {
    slot = reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(library, name)));
    return slot != nullptr;
}

DirectoryServices BindDirectoryServices() {
    DirectoryServices ds;
    // Only the system's own copy, never one planted beside the host.
    HMODULE library = ::LoadLibraryExW(L"ntdsapi.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (!library && ::GetLastError() == ERROR_INVALID_PARAMETER) library = ::LoadLibraryW(L"ntdsapi.dll");
    if (!library) {
        ds.nameCrackingError = ::GetLastError();
        ds.rdnUnusable = L"ntdsapi.dll cannot be loaded, error " + std::to_wstring(ds.nameCrackingError);
        return ds;
    }
    if (!Bind(library, "DsBindW", ds.bind) || !Bind(library, "DsUnBindW", ds.unbind) ||
        !Bind(library, "DsCrackNamesW", ds.crackNames) || !Bind(library, "DsFreeNameResultW", ds.freeNameResult)) {
        ds.nameCrackingError = ::GetLastError();
        ds.bind = nullptr;
    }
    if (RunningUnderWine()) {
        ds.rdnUnusable = L"running under Wine, whose DsGetRdnW is an unimplemented stub";
    } else if (!Bind(library, "DsGetRdnW", ds.getRdn)) {
        ds.rdnUnusable = L"DsGetRdnW cannot be bound, error " + std::to_wstring(::GetLastError());
    }
    return ds;
}

const DirectoryServices& Services() {
    static const DirectoryServices services = BindDirectoryServices();
    return services;
}

// A SID in string form, freed with LocalFree.
std::wstring SidToString(PSID sid) {
    LPWSTR text = nullptr;
    if (!sid || !::ConvertSidToStringSidW(sid, &text) || !text) return L"";
    std::wstring result(text);
    ::LocalFree(text);
    return result;
}

}  // namespace

NameCrack CrackUserPrincipalName(const std::wstring& upn) {
    NameCrack crack;
    const DirectoryServices& ds = Services();
    if (!ds.bind) {
        crack.outcome = NameCrackOutcome::kBindFailed;
        crack.error = ds.nameCrackingError;
        return crack;
    }
    HANDLE binding = nullptr;
    const DWORD bound = ds.bind(nullptr, nullptr, &binding);
    if (bound != ERROR_SUCCESS) {
        crack.outcome = NameCrackOutcome::kBindFailed;
        crack.error = bound;
        return crack;
    }
    const LPCWSTR names[] = {upn.c_str()};
    PDS_NAME_RESULTW result = nullptr;
    const DWORD cracked =
        ds.crackNames(binding, DS_NAME_NO_FLAGS, DS_USER_PRINCIPAL_NAME, DS_FQDN_1779_NAME, 1, names, &result);
    if (cracked != ERROR_SUCCESS || !result || result->cItems < 1) {
        crack.outcome = NameCrackOutcome::kCrackFailed;
        crack.error = cracked != ERROR_SUCCESS ? cracked : ERROR_INVALID_DATA;
    } else {
        const DS_NAME_RESULT_ITEMW& item = result->rItems[0];
        crack.outcome = NameCrackOutcome::kCracked;
        crack.itemStatus = item.status;
        crack.hasName = item.pName != nullptr;
        if (item.pName) crack.name = item.pName;
        if (item.pDomain) crack.domain = item.pDomain;
    }
    if (result) ds.freeNameResult(result);
    ds.unbind(&binding);
    return crack;
}

RegistryString ReadMachineRegistryString(const std::wstring& keyPath, const std::wstring& valueName) {
    RegistryString read;
    HKEY key = nullptr;
    const LONG opened = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyPath.c_str(), 0, KEY_READ, &key);
    if (opened != ERROR_SUCCESS) {
        read.outcome = RegistryReadOutcome::kOpenFailed;
        read.error = static_cast<uint32_t>(opened);
        return read;
    }
    DWORD type = 0;
    DWORD bytes = 0;
    LONG status = ::RegQueryValueExW(key, valueName.c_str(), nullptr, &type, nullptr, &bytes);
    std::vector<wchar_t> buffer;
    if (status == ERROR_SUCCESS && bytes > 0 && (type == REG_SZ || type == REG_EXPAND_SZ)) {
        buffer.resize(bytes / sizeof(wchar_t) + 1, L'\0');
        status =
            ::RegQueryValueExW(key, valueName.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(buffer.data()), &bytes);
    }
    ::RegCloseKey(key);
    if (status != ERROR_SUCCESS) ::SetLastError(static_cast<DWORD>(status));
    if (status == ERROR_SUCCESS && bytes > 0 && type != REG_SZ && type != REG_EXPAND_SZ) {
        read.outcome = RegistryReadOutcome::kNotString;
        read.type = type;
        read.error = ::GetLastError();
        return read;
    }
    const std::wstring value = buffer.empty() ? std::wstring() : std::wstring(buffer.data());
    if (status != ERROR_SUCCESS || value.empty()) {
        read.outcome = RegistryReadOutcome::kMissing;
        read.error = ::GetLastError();
        return read;
    }
    read.outcome = RegistryReadOutcome::kRead;
    read.value = value;
    return read;
}

std::wstring SystemRdnParserUnusable() { return Services().rdnUnusable; }

uint32_t NextRdn(const wchar_t** dn, size_t* length, RdnPart* part) {
    const DsGetRdnFn getRdn = Services().getRdn;
    if (!getRdn) return kProcedureNotFound;
    if (!dn || !length || !part || *length > MAXDWORD) return ERROR_INVALID_PARAMETER;
    LPCWCH text = *dn;
    DWORD remaining = static_cast<DWORD>(*length);
    LPCWCH key = nullptr;
    LPCWCH value = nullptr;
    DWORD keyLength = 0;
    DWORD valueLength = 0;
    const DWORD status = getRdn(&text, &remaining, &key, &keyLength, &value, &valueLength);
    if (status != ERROR_SUCCESS) return status;
    *part = RdnPart{key, keyLength, value, valueLength};
    *dn = text;
    *length = remaining;
    return 0;
}

HostAccountDomain GetHostAccountDomain() {
    HostAccountDomain domain;
    LSA_OBJECT_ATTRIBUTES attributes{};
    LSA_HANDLE policy = nullptr;
    const NTSTATUS opened =
        ::LsaOpenPolicy(nullptr, &attributes, GENERIC_READ | POLICY_VIEW_LOCAL_INFORMATION, &policy);
    if (opened != 0) {
        domain.error = ::LsaNtStatusToWinError(opened);
        return domain;
    }
    domain.policyOpened = true;
    PPOLICY_ACCOUNT_DOMAIN_INFO info = nullptr;
    if (::LsaQueryInformationPolicy(policy, PolicyAccountDomainInformation, reinterpret_cast<PVOID*>(&info)) == 0 &&
        info) {
        domain.sid = SidToString(info->DomainSid);
        ::LsaFreeMemory(info);
    }
    ::LsaClose(policy);
    return domain;
}

std::wstring AccountDomainSidOf(const std::wstring& sid) {
    PSID converted = nullptr;
    if (!::ConvertStringSidToSidW(sid.c_str(), &converted)) return L"";
    std::wstring result;
    DWORD size = SECURITY_MAX_SID_SIZE;
    std::vector<BYTE> domain(size);
    if (::GetWindowsAccountDomainSid(converted, domain.data(), &size)) result = SidToString(domain.data());
    ::LocalFree(converted);
    return result;
}

}  // namespace os
