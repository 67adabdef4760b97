// The reference agent-component library, loaded from beside the test program
// as the module loads it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "os/module.h"
#include "qv/ovra_components.h"
#include "qv/status.h"
#include "support/log_capture.h"

namespace {

class ProxyLibrary {
public:
    ProxyLibrary()
        : handle_(os::LoadModule(
              os::JoinPath(testing_support::ProgramDirectory(), os::SharedLibraryFileName(Ovra::kProxyLibraryStem)))),
          create(reinterpret_cast<Ovra::CreateObjectFn>(os::FindSymbol(handle_, "QvCreateObject"))),
          destroy(reinterpret_cast<Ovra::DestroyObjectFn>(os::FindSymbol(handle_, "QvDestroyObject"))) {}
    ~ProxyLibrary() { os::ReleaseModule(handle_); }
    bool Loaded() const { return create && destroy; }

private:
    os::ModuleHandle handle_;

public:
    const Ovra::CreateObjectFn create;
    const Ovra::DestroyObjectFn destroy;
};

TEST(OvraProxy, ComponentsAnswerOnlyOnceStartedAndKnowNoMadeUpAddress) {
    ProxyLibrary library;
    ASSERT_TRUE(library.Loaded());
    void* object = reinterpret_cast<void*>(1);
    EXPECT_EQ(library.create(L"Ovra.Unknown", &IQvBaseInterface::iid, &object), qv::status::kNotFound);
    EXPECT_EQ(object, nullptr);

    ASSERT_EQ(library.create(Ovra::kNetworkComponent, &IQvBaseInterface::iid, &object), 0);
    auto* base = static_cast<IQvBaseInterface*>(object);
    auto* component = static_cast<Ovra::IComponent*>(base->QueryInterface(Ovra::IComponent::iid));
    auto* macs = static_cast<Ovra::IMacQuery*>(base->QueryInterface(Ovra::IMacQuery::iid));
    ASSERT_NE(component, nullptr);
    ASSERT_NE(macs, nullptr);
    EXPECT_EQ(base->QueryInterface(Ovra::IPhysicalAdapterQuery::iid), nullptr);
    EXPECT_FALSE(macs->IsPhysicalMac(L"020000000071"));
    ASSERT_EQ(component->Start(), 0);
    macs->Refresh();
    EXPECT_FALSE(macs->IsPhysicalMac(L"020000000071"));
    EXPECT_FALSE(macs->IsPhysicalMac(L"000000000000"));
    component->Release();
    library.destroy(Ovra::kNetworkComponent, object);
}

#if defined(__linux__)
// On Linux an interface is physical when sysfs shows a device behind it.
TEST(OvraProxy, OnLinuxTheInterfacesWithADeviceArePhysical) {
    ProxyLibrary library;
    ASSERT_TRUE(library.Loaded());
    void* object = nullptr;
    ASSERT_EQ(library.create(Ovra::kOSInfoComponent, &Ovra::IPhysicalAdapterQuery::iid, &object), 0);
    auto* query = static_cast<Ovra::IPhysicalAdapterQuery*>(object);
    auto* component = static_cast<Ovra::IComponent*>(query->QueryInterface(Ovra::IComponent::iid));
    ASSERT_EQ(component->Start(), 0);
    int checked = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/net")) {
        std::ifstream file(entry.path() / "address");
        std::string text;
        if (!(file >> text) || text.size() != 17) continue;
        uint8_t mac[6];
        for (size_t i = 0; i < 6; ++i) mac[i] = static_cast<uint8_t>(std::stoul(text.substr(i * 3, 2), nullptr, 16));
        if (std::all_of(mac, mac + 6, [](uint8_t b) { return b == 0; })) continue;
        const bool device = std::filesystem::exists(entry.path() / "device");
        EXPECT_EQ(query->IsPhysicalAdapter(6, mac, 6), device) << entry.path();
        ++checked;
    }
    if (checked == 0) GTEST_SKIP() << "no interface with an address to check";
    component->Release();
    library.destroy(Ovra::kOSInfoComponent, object);
}
#endif

}  // namespace
