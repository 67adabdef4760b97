// The provider over the real kernel: address and route changes made in a
// private network namespace reach its subscribers through netlink, with the
// changed state. Each scenario runs in a child process of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "adapter_records.h"
#include "network/network_provider.h"
#include "state_watcher.h"
#include "support/namespace_support_linux.h"

namespace {

using namespace network_test;
using Product::Integration::INetworkProvider;
using Product::Integration::NetworkProvider;
using Product::Integration::NetworkState;

bool HasIPv4(const NetworkState::IPv4List& list, const wchar_t* text) {
    return std::any_of(list.begin(), list.end(),
                       [&](const auto& a) { return a.ToString(qv::Network::IPv4::Form::kAddress) == text; });
}
bool HasIPv6(const NetworkState::IPv6List& list, const wchar_t* text) {
    return std::any_of(list.begin(), list.end(),
                       [&](const auto& a) { return a.ToString(qv::Network::IPv6::Form::kAddress) == text; });
}

void Check(std::string& failures, bool ok, const std::string& what) {
    if (!ok) failures += "no notification with " + what + "\n";
}

void RunInNamespace(const std::function<std::string()>& scenario) {
    const ChildOutcome outcome = RunInPrivateNetworkNamespace(scenario);
    if (outcome.result == ChildOutcome::Result::kSkipped) GTEST_SKIP() << outcome.report;
    EXPECT_EQ(outcome.result, ChildOutcome::Result::kPassed) << outcome.report;
}

// The system's change source and a period long enough that only the
// kernel's notifications can explain what the subscriber sees.
NetworkProvider::Options KernelOnly() {
    NetworkProvider::Options options;
    options.periodMs = 600000;
    options.components = NoComponents();
    return options;
}

TEST(KernelChanges, AddressesAddedAndRemovedOnLoopbackReachSubscribers) {
    RunInNamespace([] {
        std::string failures = Shell("ip link set lo up");
        NetworkProvider provider(KernelOnly());
        StateWatcher watcher(provider);
        if (provider.Subscribe(&watcher) != 0 || provider.Start() != 0) return std::string("cannot start\n");
        failures += Shell("ip addr add 10.77.0.1/24 dev lo");
        Check(failures,
              watcher.AwaitState([](const NetworkState& s) { return HasIPv4(s.ipv4Addresses, L"10.77.0.1"); }),
              "10.77.0.1 added");
        failures += Shell("ip -6 addr add 2001:db8:77::1/64 dev lo");
        Check(failures,
              watcher.AwaitState([](const NetworkState& s) { return HasIPv6(s.ipv6Addresses, L"2001:db8:77::1"); }),
              "2001:db8:77::1 added");
        failures += Shell("ip addr del 10.77.0.1/24 dev lo");
        Check(failures, watcher.AwaitState([](const NetworkState& s) {
            return !HasIPv4(s.ipv4Addresses, L"10.77.0.1") && HasIPv6(s.ipv6Addresses, L"2001:db8:77::1");
        }),
              "10.77.0.1 removed");
        if (provider.Stop() != 0) failures += "Stop failed\n";
        if (provider.Unsubscribe(&watcher) != 0) failures += "Unsubscribe failed\n";
        return failures;
    });
}

TEST(KernelChanges, AVethPairsAddressAndADefaultRouteReachSubscribers) {
    RunInNamespace([] {
        // One command after the other (the operands of + have no order).
        std::string failures = Shell("ip link set lo up");
        failures += Shell("ip link add cr-veth0 type veth peer name cr-veth1");
        NetworkProvider provider(KernelOnly());
        StateWatcher watcher(provider);
        if (provider.Subscribe(&watcher) != 0 || provider.Start() != 0) return std::string("cannot start\n");
        failures += Shell("ip link set cr-veth0 up");
        failures += Shell("ip link set cr-veth1 up");
        failures += Shell("ip addr add 10.78.0.1/24 dev cr-veth0");
        Check(failures, watcher.AwaitState([](const NetworkState& s) {
            const auto& names = s.adapterNames.items();
            return HasIPv4(s.ipv4Addresses, L"10.78.0.1") &&
                   std::find(names.begin(), names.end(), L"cr-veth0") != names.end();
        }),
              "10.78.0.1 on cr-veth0");
        failures += Shell("ip route add default via 10.78.0.2 dev cr-veth0");
        Check(failures, watcher.AwaitState([](const NetworkState& s) { return HasIPv4(s.ipv4Gateways, L"10.78.0.2"); }),
              "gateway 10.78.0.2");
        failures += Shell("ip addr del 10.78.0.1/24 dev cr-veth0");
        Check(failures,
              watcher.AwaitState([](const NetworkState& s) { return !HasIPv4(s.ipv4Addresses, L"10.78.0.1"); }),
              "10.78.0.1 removed");
        if (provider.Stop() != 0) failures += "Stop failed\n";
        if (provider.Unsubscribe(&watcher) != 0) failures += "Unsubscribe failed\n";
        return failures;
    });
}

}  // namespace
