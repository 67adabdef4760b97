#pragma once
// The system services under the directory helpers: name cracking, the
// machine registry and the RDN parser. The helpers reach them through
// CurrentDirectorySystem(), which is the operating system's unless a
// DirectorySystemOverride is alive: a host without a real directory, or a
// test, puts its own answers there.
//
// Thread rules: the services may be called from any thread. An override is
// made and destroyed while no helper runs (before the conditions that use it
// are built, after they are gone).
#include <cstddef>
#include <cstdint>
#include <string>

#include "os/directory.h"

namespace qv::ActiveDirectory {

class IDirectorySystem {
public:
    virtual ~IDirectorySystem() = default;
    // See os::CrackUserPrincipalName.
    virtual os::NameCrack CrackUserPrincipalName(const std::wstring& upn) = 0;
    // See os::ReadMachineRegistryString.
    virtual os::RegistryString ReadMachineRegistryString(const std::wstring& keyPath,
                                                         const std::wstring& valueName) = 0;
    // See os::NextRdn: the first RDN of `*dn`, advancing past it.
    virtual uint32_t NextRdn(const wchar_t** dn, size_t* length, os::RdnPart* part) = 0;
};

// The operating system's services. Where the system's RDN parser cannot be
// used (under Wine it is an unimplemented stub that would end the process)
// the module's own parser splits DNs instead; the constructor logs that once.
class SystemDirectory final : public IDirectorySystem {
public:
    SystemDirectory();
    os::NameCrack CrackUserPrincipalName(const std::wstring& upn) override;
    os::RegistryString ReadMachineRegistryString(const std::wstring& keyPath, const std::wstring& valueName) override;
    uint32_t NextRdn(const wchar_t** dn, size_t* length, os::RdnPart* part) override;
    // True when DNs are split by the module's own parser.
    bool UsesOwnRdnParser() const noexcept { return ownRdnParser_; }

private:
    bool ownRdnParser_ = false;
};

// The services the helpers use now.
IDirectorySystem& CurrentDirectorySystem();

// Puts `system` in place of the current services for its lifetime, and
// restores the previous ones afterwards.
class DirectorySystemOverride {
public:
    explicit DirectorySystemOverride(IDirectorySystem& system);
    ~DirectorySystemOverride();
    DirectorySystemOverride(const DirectorySystemOverride&) = delete;
    DirectorySystemOverride& operator=(const DirectorySystemOverride&) = delete;

private:
    IDirectorySystem* previous_;
};

}  // namespace qv::ActiveDirectory
