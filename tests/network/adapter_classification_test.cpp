// Adapter classification and the component handles, over the scripted agent
// components (tests/libraries/scripted_components.h), whose journal shows
// which component was asked what, and in which order.
#include <gtest/gtest.h>

#include <sstream>

#include "adapter_records.h"
#include "libraries/scripted_components.h"
#include "network/adapter_type_extractor.h"
#include "network/network_provider.h"
#include "qv/status.h"

namespace {

using namespace network_test;
using Product::Integration::AdapterTypeExtractor;
using Product::Integration::ComponentHandle;
using Product::Integration::ComponentLibraryLocation;
using Product::Integration::ConnectionKind;
using Product::Integration::NetworkProvider;
using Product::Integration::NetworkState;
using Journal = std::vector<std::wstring>;

constexpr const wchar_t* kOSInfoMac = L"020000000001";   // "Ovra.OSInfo" calls it physical
constexpr const wchar_t* kNetworkMac = L"020000000002";  // "Ovra.Network" does
const std::vector<uint8_t> kOSInfoBytes{0x02, 0, 0, 0, 0, 0x01};
const std::vector<uint8_t> kNetworkBytes{0x02, 0, 0, 0, 0, 0x02};
const std::vector<uint8_t> kUnknownBytes{0x02, 0, 0, 0, 0, 0x03};

// The scripted library, loaded as the module loads it (from the same file,
// so both reach the same script), reset for each test.
class ScriptedComponents {
public:
    ScriptedComponents()
        : location_{{testing_support::ProgramDirectory()},
                    os::SharedLibraryFileName(scripted_components::kLibraryStem)},
          handle_(os::LoadModule(os::JoinPath(location_.directories[0], location_.fileName))) {
        reset_ = reinterpret_cast<scripted_components::ResetFn>(os::FindSymbol(handle_, "ScriptedReset"));
        set_ = reinterpret_cast<scripted_components::SetFn>(os::FindSymbol(handle_, "ScriptedSet"));
        journal_ = reinterpret_cast<scripted_components::JournalFn>(os::FindSymbol(handle_, "ScriptedJournal"));
        EXPECT_TRUE(reset_ && set_ && journal_) << "the scripted component library is missing";
        if (reset_) reset_();
    }
    ~ScriptedComponents() { os::ReleaseModule(handle_); }

    const ComponentLibraryLocation& location() const { return location_; }
    void Set(const std::wstring& key, const std::wstring& value) {
        if (set_) set_(key.c_str(), value.c_str());
    }
    // The calls since the last Mark.
    Journal Calls() {
        std::wstring text(journal_ ? journal_(nullptr, 0) : 0, L'\0');
        if (journal_) journal_(text.data(), text.size() + 1);
        Journal lines;
        std::wistringstream stream(text);
        for (std::wstring line; std::getline(stream, line);) lines.push_back(line);
        return Journal(lines.begin() + static_cast<std::ptrdiff_t>(std::min(mark_, lines.size())), lines.end());
    }
    void Mark() { mark_ += Calls().size(); }

private:
    ComponentLibraryLocation location_;
    os::ModuleHandle handle_;
    scripted_components::ResetFn reset_ = nullptr;
    scripted_components::SetFn set_ = nullptr;
    scripted_components::JournalFn journal_ = nullptr;
    size_t mark_ = 0;
};

// A physical adapter is Ethernet for types 6 and 117, Wireless for 71 and
// Other for any other type. "Ovra.OSInfo" is asked first; "Ovra.Network"
// only when it said no.
TEST(AdapterClassification, PhysicalAdaptersHaveTheKindOfTheirInterfaceType) {
    ScriptedComponents components;
    components.Set(L"Ovra.OSInfo.physical", kOSInfoMac);
    components.Set(L"Ovra.Network.published", kNetworkMac);
    AdapterTypeExtractor types(components.location());
    ASSERT_TRUE(types.HasPhysicalAdapterQuery());
    ASSERT_TRUE(types.HasMacQuery());

    const struct {
        uint32_t ifType;
        ConnectionKind kind;
    } kinds[] = {{6, ConnectionKind::kEthernet},  {117, ConnectionKind::kEthernet},
                 {71, ConnectionKind::kWireless}, {24, ConnectionKind::kOther},  // software loopback
                 {131, ConnectionKind::kOther},                                  // tunnel
                 {243, ConnectionKind::kOther}};                                 // a cellular modem
    for (const auto& bytes : {kOSInfoBytes, kNetworkBytes})
        for (const auto& c : kinds) EXPECT_EQ(types.Classify(c.ifType, bytes), c.kind) << c.ifType;
    for (const auto& c : kinds) EXPECT_EQ(types.Classify(c.ifType, kUnknownBytes), ConnectionKind::kOther) << c.ifType;

    components.Mark();
    EXPECT_EQ(types.Classify(71, kOSInfoBytes), ConnectionKind::kWireless);
    EXPECT_EQ(components.Calls(), Journal{L"Ovra.OSInfo physical? 71 020000000001"});
    components.Mark();
    EXPECT_EQ(types.Classify(117, kNetworkBytes), ConnectionKind::kEthernet);
    EXPECT_EQ(components.Calls(),
              (Journal{L"Ovra.OSInfo physical? 117 020000000002", L"Ovra.Network mac? 020000000002"}));
}

// Every snapshot lets "Ovra.Network" read its table anew before any adapter
// is classified, so an adapter it learnt of since the last snapshot counts.
TEST(AdapterClassification, EverySnapshotRefreshesTheMacTableFirst) {
    ScriptedComponents components;
    NetworkProvider::Options options;
    options.components = components.location();
    os::AdapterRecord wireless = Adapter(L"Radio", V4(192, 168, 8, 20));
    wireless.ifType = os::if_type::kIeee80211;
    wireless.physicalAddress = kNetworkBytes;
    options.readAdapters = [&] { return os::Expected<os::Adapters>(os::Adapters{wireless}); };
    NetworkProvider provider(std::move(options));
    const Journal snapshot{L"Ovra.Network refresh", L"Ovra.OSInfo physical? 71 020000000002",
                           L"Ovra.Network mac? 020000000002"};

    components.Mark();
    ASSERT_EQ(provider.DoUpdateState(), 0);
    NetworkState state;
    ASSERT_EQ(provider.GetState(state), 0);
    EXPECT_TRUE(state.connectionKinds.empty());
    EXPECT_EQ(components.Calls(), snapshot);

    components.Set(L"Ovra.Network.published", kNetworkMac);
    components.Mark();
    bool changed = false;
    ASSERT_EQ(provider.DoUpdateState(&changed), 0);
    EXPECT_TRUE(changed);
    ASSERT_EQ(provider.GetState(state), 0);
    EXPECT_EQ(state.connectionKinds.items(), std::vector<ConnectionKind>{ConnectionKind::kWireless});
    EXPECT_EQ(components.Calls(), snapshot);
}

// A component that cannot be had leaves its handle empty with the reason;
// one that was had is given back: released, then destroyed.
TEST(ComponentHandle, AcquireReportsEachFailureAndReleaseGivesBackInOrder) {
    ScriptedComponents components;
    components.Set(L"Ovra.OSInfo.create", L"5");
    components.Set(L"Ovra.Network.start", L"1060");
    ComponentHandle handle;
    EXPECT_EQ(handle.Acquire(components.location(), Ovra::kOSInfoComponent, Ovra::IPhysicalAdapterQuery::iid), 5);
    EXPECT_FALSE(handle.Held());
    components.Mark();
    EXPECT_EQ(handle.Acquire(components.location(), Ovra::kNetworkComponent, Ovra::IMacQuery::iid), 1060);
    EXPECT_FALSE(handle.Held());
    EXPECT_EQ(components.Calls(), (Journal{L"Ovra.Network create", L"Ovra.Network start", L"Ovra.Network release",
                                           L"Ovra.Network destroy"}));

    components.Set(L"Ovra.Network.start", L"0");
    components.Set(L"Ovra.Network.query", L"none");
    EXPECT_EQ(handle.Acquire(components.location(), Ovra::kNetworkComponent, Ovra::IMacQuery::iid),
              qv::status::kInvalidSize);
    EXPECT_FALSE(handle.Held());

    // A library without the two entries: the system's error for the missing
    // entry (Linux gives none, hence 632).
    testing_support::LogCapture log;
    const ComponentLibraryLocation noEntries{{testing_support::ProgramDirectory()},
                                             os::SharedLibraryFileName(L"no_exports")};
#if defined(_WIN32)
    constexpr int32_t kMissingEntry = 127;  // ERROR_PROC_NOT_FOUND
#else
    constexpr int32_t kMissingEntry = qv::status::kInvalidSize;
#endif
    EXPECT_EQ(handle.Acquire(noEntries, Ovra::kNetworkComponent, Ovra::IMacQuery::iid), kMissingEntry);
    EXPECT_TRUE(log.Contains(
        logging::kWarning, L"Product::Integration::ComponentHandle::Acquire",
        noEntries.fileName + L" exports no QvCreateObject/QvDestroyObject, error " + std::to_wstring(kMissingEntry)));

    components.Mark();
    ASSERT_EQ(handle.Acquire(components.location(), Ovra::kOSInfoComponent, Ovra::IPhysicalAdapterQuery::iid), 5);
    components.Set(L"Ovra.OSInfo.create", L"0");
    ASSERT_EQ(handle.Acquire(components.location(), Ovra::kOSInfoComponent, Ovra::IPhysicalAdapterQuery::iid), 0);
    EXPECT_TRUE(handle.Held());
    handle.Release();
    EXPECT_FALSE(handle.Held());
    EXPECT_EQ(components.Calls(), (Journal{L"Ovra.OSInfo create", L"Ovra.OSInfo create", L"Ovra.OSInfo start",
                                           L"Ovra.OSInfo release", L"Ovra.OSInfo destroy"}));
}

}  // namespace
