#include <filesystem>
#include <fstream>
#include <string>

#include "physical_adapters.h"

namespace host::ovra {

std::set<std::wstring> ReadPhysicalMacs() {
    std::set<std::wstring> macs;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/net", ec)) {
        if (!std::filesystem::exists(entry.path() / "device", ec)) continue;
        std::ifstream file(entry.path() / "address");
        std::string text;
        if (!(file >> text)) continue;
        std::wstring mac;
        for (char c : text)
            if (c != ':') mac += static_cast<wchar_t>(c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c);
        if (!mac.empty() && mac.find_first_not_of(L'0') != std::wstring::npos) macs.insert(mac);
    }
    return macs;
}

}  // namespace host::ovra
