#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <vector>

#include "host/reference_host.h"
#include "os/event.h"
#include "qv/status.h"
#include "support/waiting.h"

namespace {

using EndpointService::IControl;
using testing_support::Finishes;

// A pure sink: counts events and runs an optional hook on each.
class Sink final : public IControl {
public:
    void* QueryInterface(const GUID& requested) override {
        return qv::GuidEquals(requested, IControl::iid) ? this : nullptr;
    }
    void OnConnectionEvent(int32_t) override {
        ++calls;
        if (hook) hook();
    }
    int32_t RegisterControl(IControl*) override { return qv::status::kNotSupported; }
    int32_t UnregisterControl(IControl*) override { return qv::status::kNotSupported; }

    std::atomic<int> calls{0};
    std::function<void()> hook;
};

TEST(PluginGroups, AnswersMembersByInterfaceAndCountsWhatIsGivenBack) {
    host::ReferenceHost host;
    host::ServiceControl second;
    Sink noGroupsManager;
    host.groups().AddMember(host::ServiceControl::kGroupName, &noGroupsManager);
    host.groups().AddMember(host::ServiceControl::kGroupName, &second);
    void* out = nullptr;
    ASSERT_EQ(host.components().GetPlugin(host::ReferenceHost::kGroupsName, Framework::IGroupsManager::iid, &out), 0);
    auto& groups = *static_cast<Framework::IGroupsManager*>(out);

    std::vector<void*> members;
    ASSERT_EQ(groups.GetGroupMembers(host::ServiceControl::kGroupName, IControl::iid, members), 0);
    EXPECT_EQ(members, (std::vector<void*>{static_cast<IControl*>(&host.serviceControl()),
                                           static_cast<IControl*>(&noGroupsManager), static_cast<IControl*>(&second)}));
    ASSERT_EQ(groups.GetGroupMembers(host::ServiceControl::kGroupName, Framework::IGroupsManager::iid, members), 0);
    EXPECT_TRUE(members.empty());
    EXPECT_EQ(groups.GetGroupMembers(L"other", IControl::iid, members), qv::status::kNotFound);
    EXPECT_EQ(host.groups().TotalReferences(), 3);

    for (int i = 0; i < 3; ++i) groups.ReleaseGroupMembers(host::ServiceControl::kGroupName);  // one more than taken
    host.components().ReleasePlugin(host::ReferenceHost::kGroupsName);
    EXPECT_EQ(host.groups().TotalReferences(), 0);
    EXPECT_EQ(host.components().TotalReferences(), 0);
}

TEST(ServiceControl, SinksRemovedDuringAnEventAreNotCalledAfterwards) {
    host::ServiceControl control;
    Sink first, removedByFirst, blocking, late;
    EXPECT_EQ(control.RegisterControl(nullptr), qv::status::kInvalidParameter);
    for (Sink* sink : {&first, &removedByFirst, &blocking, &late}) ASSERT_EQ(control.RegisterControl(sink), 0);
    EXPECT_EQ(control.RegisterControl(&first), qv::status::kAlreadyExists);

    // From inside the delivery: `first` removes itself and a sink not yet called.
    first.hook = [&] {
        EXPECT_EQ(control.UnregisterControl(&removedByFirst), 0);
        EXPECT_EQ(control.UnregisterControl(&first), 0);
    };
    // From another thread while `blocking` holds the delivery up: the removal
    // waits for the event, and `late` is never called once it returned.
    os::AutoResetEvent entered, proceed;
    blocking.hook = [&] {
        entered.Set();
        proceed.Wait(10000);
    };
    std::atomic<bool> unregistered{false};
    std::atomic<int> callsAfterUnregister{0};
    late.hook = [&] { callsAfterUnregister += unregistered ? 1 : 0; };

    std::future<size_t> raising = std::async(std::launch::async, [&] { return control.RaiseConnectionEvent(0); });
    ASSERT_TRUE(entered.Wait(10000));
    std::future<void> unregistering = std::async(std::launch::async, [&] {
        EXPECT_EQ(control.UnregisterControl(&late), 0);
        unregistered = true;
    });
    EXPECT_FALSE(Finishes(unregistering, std::chrono::milliseconds(50)));
    proceed.Set();
    ASSERT_EQ(raising.wait_for(testing_support::kPatience), std::future_status::ready);
    EXPECT_EQ(raising.get(), 3u);
    ASSERT_TRUE(Finishes(unregistering));
    EXPECT_EQ(removedByFirst.calls, 0);

    blocking.hook = nullptr;
    EXPECT_EQ(control.RaiseConnectionEvent(1), 1u);
    EXPECT_EQ(callsAfterUnregister, 0);
    EXPECT_EQ(control.UnregisterControl(&late), qv::status::kNotFound);
    EXPECT_EQ(control.SinkCount(), 1u);
}

}  // namespace
