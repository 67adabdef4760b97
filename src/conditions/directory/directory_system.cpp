#include "conditions/directory/directory_system.h"

#include <atomic>

#include "plugin/log.h"

namespace qv::ActiveDirectory {
namespace {

constexpr const wchar_t* kSystemDirectory = L"qv::ActiveDirectory::SystemDirectory";

std::atomic<IDirectorySystem*> overridden{nullptr};

}  // namespace

SystemDirectory::SystemDirectory() {
    const std::wstring unusable = os::SystemRdnParserUnusable();
    ownRdnParser_ = !unusable.empty();
    if (ownRdnParser_)
        logging::Log(logging::kWarning, kSystemDirectory,
                     L"The system's RDN parser cannot be used (%s); the module's own parser splits distinguished names",
                     unusable.c_str());
}

os::NameCrack SystemDirectory::CrackUserPrincipalName(const std::wstring& upn) {
    return os::CrackUserPrincipalName(upn);
}

os::RegistryString SystemDirectory::ReadMachineRegistryString(const std::wstring& keyPath,
                                                              const std::wstring& valueName) {
    return os::ReadMachineRegistryString(keyPath, valueName);
}

uint32_t SystemDirectory::NextRdn(const wchar_t** dn, size_t* length, os::RdnPart* part) {
    return ownRdnParser_ ? os::ParseRdn(dn, length, part) : os::NextRdn(dn, length, part);
}

IDirectorySystem& CurrentDirectorySystem() {
    if (IDirectorySystem* system = overridden.load()) return *system;
    static SystemDirectory system;
    return system;
}

DirectorySystemOverride::DirectorySystemOverride(IDirectorySystem& system) : previous_(overridden.exchange(&system)) {}

DirectorySystemOverride::~DirectorySystemOverride() { overridden.store(previous_); }

}  // namespace qv::ActiveDirectory
