#include "companion_libraries.h"

#include "os/file_system.h"
#include "os/module.h"
#include "os/path.h"
#include "qv/ovra_components.h"

namespace crhost {

namespace {

struct Companion {
    std::wstring file;
    std::vector<std::wstring> folders;  // where the module looks, in order
    const wchar_t* foldersText;
    const wchar_t* consequence;
};

bool FoundIn(const Companion& companion) {
    for (const std::wstring& folder : companion.folders)
        if (!folder.empty() && os::PathExists(os::JoinPath(folder, companion.file))) return true;
    return false;
}

}  // namespace

std::vector<std::wstring> MissingCompanionLibraries(const std::wstring& modulePath) {
    const std::wstring moduleFolder = os::DirectoryOf(modulePath);
    const std::wstring programFolder = os::DirectoryOf(os::ProgramPath());
    const Companion companions[] = {
        {os::SharedLibraryFileName(L"log"),
         {moduleFolder},
         L"beside the module",
         L"the module writes no log, and --log has no effect"},
        {os::SharedLibraryFileName(Ovra::kProxyLibraryStem),
         {programFolder, moduleFolder},
         L"beside cr-host or the module",
         L"network adapters are judged physical by their address alone, so a \"network.ConnectionType\" rule may "
         L"see no Ethernet or wireless connection"},
    };
    std::vector<std::wstring> missing;
    for (const Companion& companion : companions)
        if (!FoundIn(companion))
            missing.push_back(L"no " + companion.file + L" " + companion.foldersText + L": " + companion.consequence);
    return missing;
}

}  // namespace crhost
