#include "network/adapter_type_extractor.h"

#include <cwchar>
#include <string>

#include "os/adapters.h"
#include "plugin/log.h"

namespace Product::Integration {
namespace {
constexpr const wchar_t* kIsPhysicalMAC = L"Product::Integration::AdapterTypeExtractor::IsPhysicalMAC";
}  // namespace

AdapterTypeExtractor::AdapterTypeExtractor(const ComponentLibraryLocation& location) {
    // A missing component has been logged; classification goes on without it.
    static_cast<void>(osInfo_.Acquire(location, Ovra::kOSInfoComponent, Ovra::IPhysicalAdapterQuery::iid));
    static_cast<void>(network_.Acquire(location, Ovra::kNetworkComponent, Ovra::IMacQuery::iid));
}

void AdapterTypeExtractor::Refresh() {
    if (auto* query = network_.Get<Ovra::IMacQuery>()) query->Refresh();
}

ConnectionKind AdapterTypeExtractor::Classify(uint32_t ifType, const std::vector<uint8_t>& physicalAddress) {
    bool physical = false;
    if (auto* query = osInfo_.Get<Ovra::IPhysicalAdapterQuery>())
        physical =
            query->IsPhysicalAdapter(ifType, physicalAddress.data(), static_cast<uint32_t>(physicalAddress.size()));
    if (!physical) physical = IsPhysicalMAC(physicalAddress.data(), physicalAddress.size());
    if (!physical) return ConnectionKind::kOther;
    switch (ifType) {
        case os::if_type::kEthernet:
        case os::if_type::kGigabitEthernet:
            return ConnectionKind::kEthernet;
        case os::if_type::kIeee80211:
            return ConnectionKind::kWireless;
        default:
            return ConnectionKind::kOther;
    }
}

bool AdapterTypeExtractor::IsPhysicalMAC(const uint8_t* address, size_t length) {
    std::wstring text;
    for (size_t i = 0; i < length; ++i) {
        wchar_t pair[3];
        std::swprintf(pair, 3, L"%02x", address[i]);
        text += pair;
    }
    bool physical = false;
    if (auto* query = network_.Get<Ovra::IMacQuery>()) physical = query->IsPhysicalMac(text.c_str());
    logging::Log(logging::kDetail, kIsPhysicalMAC, L"mac [%s] is physical [%s]", text.c_str(),
                 physical ? L"TRUE" : L"FALSE");
    return physical;
}

}  // namespace Product::Integration
