#pragma once
// The operating system's directory identity services: name cracking against
// the computer's domain, the machine registry, relative-distinguished-name
// (RDN) parsing and account-domain SIDs. Results are plain values with the
// system's codes; callers turn them into their own errors.
//
// Windows binds the directory services ("ntdsapi.dll") at run time, on first
// use. Under Wine the system's RDN parser is an unimplemented stub that ends
// the process: it is never bound there (SystemRdnParserUnusable says why).
//
// Linux has no directory client: name cracking and the registry answer
// kNotSupported and the RDN parser is the portable one below. The machine's
// account domain stands in for the one Windows gives every installation: a
// SID S-1-5-21-a-b-c made from the machine's identity (/etc/machine-id), so
// that local and built-in SIDs are told from domain SIDs as on Windows. A
// SID's account domain is derived from its text by the rules of the Windows
// functions (see AccountDomainSidOf).
//
// Stateless: every function may be called from any thread and may block for
// as long as the domain controller takes.
#include <cstddef>
#include <cstdint>
#include <string>

namespace os {

// Item statuses of name cracking that mean "no such object".
constexpr uint32_t kNameErrorNotFound = 2;    // DS_NAME_ERROR_NOT_FOUND
constexpr uint32_t kNameErrorDomainOnly = 5;  // DS_NAME_ERROR_DOMAIN_ONLY

enum class NameCrackOutcome {
    kCracked,       // the call succeeded; see itemStatus and name
    kBindFailed,    // no binding to a domain controller; see error
    kCrackFailed,   // the cracking call failed; see error
    kNotSupported,  // the system has no directory client
};

struct NameCrack {
    NameCrackOutcome outcome = NameCrackOutcome::kNotSupported;
    uint32_t error = 0;       // the system's code for kBindFailed / kCrackFailed
    uint32_t itemStatus = 0;  // the item's status for kCracked
    bool hasName = false;     // false when the item carried no name
    std::wstring name;        // the fully qualified (RFC 1779) distinguished name
    std::wstring domain;      // the domain the item was found in
};

// Cracks the user principal name `upn` (user@domain) into its distinguished
// name, in the computer's own domain.
NameCrack CrackUserPrincipalName(const std::wstring& upn);

enum class RegistryReadOutcome {
    kRead,          // `value` holds the string
    kOpenFailed,    // the key could not be opened; see error
    kMissing,       // the value is absent or empty; see error
    kNotString,     // the value has another type; see type and error
    kNotSupported,  // the system has no registry
};

struct RegistryString {
    RegistryReadOutcome outcome = RegistryReadOutcome::kNotSupported;
    uint32_t error = 0;  // open: the call's status; otherwise the last error
    uint32_t type = 0;   // the value's registry type for kNotString
    std::wstring value;
};

// Reads the string value `valueName` of the key `keyPath` under the local
// machine's hive, opened for reading.
RegistryString ReadMachineRegistryString(const std::wstring& keyPath, const std::wstring& valueName);

// One RDN as views into the parsed text: escapes are not undone.
struct RdnPart {
    const wchar_t* type = nullptr;
    size_t typeLength = 0;
    const wchar_t* value = nullptr;
    size_t valueLength = 0;
};

// Parses the first RDN of the `length` characters at `*dn` with the system's
// parser, advances `*dn` and `*length` past it and its separator, and fills
// `part`. 0, or the parser's error code; kProcedureNotFound without calling
// anything when the system's parser cannot be used (SystemRdnParserUnusable).
uint32_t NextRdn(const wchar_t** dn, size_t* length, RdnPart* part);
constexpr uint32_t kProcedureNotFound = 127;  // ERROR_PROC_NOT_FOUND

// Empty when NextRdn can call the system's parser; otherwise why it cannot
// (running under Wine, or the library or its entry could not be bound).
std::wstring SystemRdnParserUnusable();

// The module's own RDN parser with the same contract as NextRdn. The RDN is
// "type=value" followed by "," or ";" (blanks around the parts are skipped);
// in the value a backslash escapes the next character (or a pair of hex
// digits), a quoted value runs to its closing quote, and a value starting
// with "#" is hexadecimal. kInvalidDnSyntax when the text is not an RDN.
uint32_t ParseRdn(const wchar_t** dn, size_t* length, RdnPart* part);
constexpr uint32_t kInvalidDnSyntax = 8242;  // ERROR_DS_INVALID_DN_SYNTAX

struct HostAccountDomain {
    bool policyOpened = false;  // false: `error` holds the policy's status as a Windows code
    uint32_t error = 0;
    std::wstring sid;  // empty when the machine has no account domain
};

// The SID, in string form, of the machine's own account domain (the domain
// of its local accounts). Linux: derived from the machine's identity; when
// that cannot be read, `policyOpened` is false with the reason.
HostAccountDomain GetHostAccountDomain();

// The account domain SID of `sid` in string form: S-1-5-21-a-b-c for an
// account S-1-5-21-a-b-c-RID (or for the domain SID itself). Empty when `sid`
// is not a SID or belongs to no account domain (a well-known or built-in
// SID). Windows also reads the SDDL abbreviations ("BA", "LA", ...); Linux
// reads only the S-R-I-S... form, so an abbreviation has no account domain
// there.
std::wstring AccountDomainSidOf(const std::wstring& sid);

}  // namespace os
