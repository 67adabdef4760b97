#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <vector>

#include "host/plugin_groups.h"
#include "host/reference_host.h"
#include "host/service_control.h"
#include "os/event.h"
#include "qv/status.h"
#include "support/waiting.h"

namespace {

using EndpointService::IControl;
using testing_support::Finishes;

// A pure sink: counts events and runs an optional hook on each.
class Sink final : public IControl {
public:
    void* QueryInterface(const GUID& iid) override {
        return qv::GuidEquals(iid, IControl::iid) ? static_cast<IControl*>(this) : nullptr;
    }
    void OnConnectionEvent(int32_t event) override {
        last = event;
        ++calls;
        if (hook) hook();
    }
    int32_t RegisterControl(IControl*) override { return qv::status::kNotSupported; }
    int32_t UnregisterControl(IControl*) override { return qv::status::kNotSupported; }

    std::atomic<int> calls{0};
    std::atomic<int32_t> last{-1};
    std::function<void()> hook;
};

// Implements nothing but the base interface.
struct Plain final : IQvBaseInterface {
    void* QueryInterface(const GUID& iid) override { return qv::GuidEquals(iid, IQvBaseInterface::iid) ? this : nullptr; }
};

TEST(PluginGroups, AnswersMembersByInterfaceAndCountsWhatIsGivenBack) {
    host::PluginGroups groups;
    host::ServiceControl first, second;
    Plain plain;
    groups.AddMember(L"g", &first);
    groups.AddMember(L"g", &plain);
    groups.AddMember(L"g", &second);

    std::vector<void*> members;
    ASSERT_EQ(groups.GetGroupMembers(L"g", IControl::iid, members), 0);
    EXPECT_EQ(members, (std::vector<void*>{static_cast<IControl*>(&first), static_cast<IControl*>(&second)}));
    ASSERT_EQ(groups.GetGroupMembers(L"g", IQvBaseInterface::iid, members), 0);
    EXPECT_EQ(members.size(), 3u);
    ASSERT_EQ(groups.GetGroupMembers(L"g", Framework::IGroupsManager::iid, members), 0);
    EXPECT_TRUE(members.empty());
    EXPECT_EQ(groups.GetGroupMembers(L"other", IControl::iid, members), qv::status::kNotFound);
    EXPECT_EQ(groups.References(L"g"), 5);

    for (int i = 0; i < 4; ++i) groups.ReleaseGroupMembers(L"g");  // one more than taken
    EXPECT_EQ(groups.TotalReferences(), 0);

    // The reference host offers its service control in its group.
    host::ReferenceHost host;
    void* out = nullptr;
    ASSERT_EQ(host.components().GetPlugin(host::ReferenceHost::kGroupsName, Framework::IGroupsManager::iid, &out), 0);
    auto* hostGroups = static_cast<Framework::IGroupsManager*>(out);
    ASSERT_EQ(hostGroups->GetGroupMembers(host::ServiceControl::kGroupName, IControl::iid, members), 0);
    EXPECT_EQ(members, std::vector<void*>{static_cast<IControl*>(&host.serviceControl())});
    hostGroups->ReleaseGroupMembers(host::ServiceControl::kGroupName);
    host.components().ReleasePlugin(host::ReferenceHost::kGroupsName);
    EXPECT_EQ(host.groups().TotalReferences(), 0);
    EXPECT_EQ(host.components().TotalReferences(), 0);
}

TEST(ServiceControl, RaisesToRegisteredSinksInOrderSkippingThoseRemovedMeanwhile) {
    host::ServiceControl control;
    Sink a, b, c;
    EXPECT_EQ(control.RegisterControl(nullptr), qv::status::kInvalidParameter);
    ASSERT_EQ(control.RegisterControl(&a), 0);
    ASSERT_EQ(control.RegisterControl(&b), 0);
    ASSERT_EQ(control.RegisterControl(&c), 0);
    EXPECT_EQ(control.RegisterControl(&a), qv::status::kAlreadyExists);

    // a's callback removes b (not yet called) and itself, from the delivering thread.
    a.hook = [&] {
        EXPECT_EQ(control.UnregisterControl(&b), 0);
        EXPECT_EQ(control.UnregisterControl(&a), 0);
    };
    EXPECT_EQ(control.RaiseConnectionEvent(EndpointService::kServiceConnected), 2u);
    EXPECT_EQ(a.calls, 1);
    EXPECT_EQ(b.calls, 0);
    EXPECT_EQ(c.last, EndpointService::kServiceConnected);
    EXPECT_EQ(control.UnregisterControl(&b), qv::status::kNotFound);
    EXPECT_EQ(control.SinkCount(), 1u);
}

TEST(ServiceControl, SinkIsNotCalledOnceUnregisterReturnedDuringAnEvent) {
    host::ServiceControl control;
    Sink blocking, late;
    os::AutoResetEvent entered, proceed;
    blocking.hook = [&] {
        entered.Set();
        proceed.Wait(10000);
    };
    std::atomic<bool> unregistered{false};
    std::atomic<int> callsAfterUnregister{0};
    late.hook = [&] {
        if (unregistered) ++callsAfterUnregister;
    };
    ASSERT_EQ(control.RegisterControl(&blocking), 0);
    ASSERT_EQ(control.RegisterControl(&late), 0);

    auto raising = std::async(std::launch::async, [&] { control.RaiseConnectionEvent(7); });
    ASSERT_TRUE(entered.Wait(10000));
    auto unregistering = std::async(std::launch::async, [&] {
        EXPECT_EQ(control.UnregisterControl(&late), 0);
        unregistered = true;
    });
    // Unregistering waits for the event in progress.
    EXPECT_FALSE(Finishes(unregistering, std::chrono::milliseconds(50)));
    proceed.Set();
    ASSERT_TRUE(Finishes(raising));
    blocking.hook = nullptr;
    ASSERT_TRUE(Finishes(unregistering));
    EXPECT_EQ(control.RaiseConnectionEvent(8), 1u);
    EXPECT_EQ(callsAfterUnregister, 0);
    EXPECT_EQ(late.calls, 1);
}

}  // namespace
