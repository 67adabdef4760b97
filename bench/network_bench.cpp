// The network provider's costs: a snapshot, a merge and a comparison over
// many adapters and addresses; a snapshot of this machine's real adapters;
// and, in a private network namespace (when the process may make one), the
// time from a kernel address change to the subscriber's notification and
// the listener's wake-ups while nothing changes.
#include <benchmark/benchmark.h>
#include <netlink/route/addr.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

#include "network/network_provider.h"
#include "os/adapters.h"
#include "os/module.h"

namespace {

using Product::Integration::ComponentLibraryLocation;
using Product::Integration::INetworkProvider;
using Product::Integration::NetworkProvider;
using Product::Integration::NetworkState;

ComponentLibraryLocation NoComponents() { return {{}, os::SharedLibraryFileName(L"no.such.proxy")}; }

// `adapters` adapters that are up, each with `addresses` IPv4 and as many
// IPv6 addresses, two DNS servers, a gateway and a suffix; neighbours share
// half of their addresses, so merging has duplicates to drop.
std::vector<os::AdapterRecord> SyntheticAdapters(int adapters, int addresses) {
    std::vector<os::AdapterRecord> records;
    for (int a = 0; a < adapters; ++a) {
        os::AdapterRecord r;
        r.description = L"Adapter " + std::to_wstring(a);
        r.ifType = os::if_type::kEthernet;
        r.operStatus = os::OperStatus::kUp;
        r.physicalAddress = {0x02, 0, 0, 0, static_cast<uint8_t>(a >> 8), static_cast<uint8_t>(a)};
        for (int i = 0; i < addresses; ++i) {
            const int n = a * addresses / 2 + i;
            r.unicast.push_back(os::IpAddress::V4(
                {10, static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)}));
            std::array<uint8_t, 16> v6{0x20, 0x01, 0x0d, 0xb8};
            v6[14] = static_cast<uint8_t>(n >> 8);
            v6[15] = static_cast<uint8_t>(n);
            r.unicast.push_back(os::IpAddress::V6(v6));
        }
        r.dnsServers = {os::IpAddress::V4({10, 0, 0, 53}), os::IpAddress::V4({10, 0, 1, 53})};
        r.gateways = {os::IpAddress::V4({10, 0, static_cast<uint8_t>(a), 1})};
        r.dnsSuffix = L"site" + std::to_wstring(a % 4) + L".example";
        records.push_back(std::move(r));
    }
    return records;
}

// A provider whose snapshots read `records` (which must outlive it), without
// agent components.
std::unique_ptr<NetworkProvider> ProviderOver(const std::vector<os::AdapterRecord>& records) {
    NetworkProvider::Options options;
    options.readAdapters = [&records] { return os::Expected<os::Adapters>(records); };
    options.components = NoComponents();
    return std::make_unique<NetworkProvider>(std::move(options));
}

NetworkState StateOf(const std::vector<os::AdapterRecord>& records) {
    const auto provider = ProviderOver(records);
    static_cast<void>(provider->DoUpdateState());
    NetworkState state;
    static_cast<void>(provider->GetState(state));
    return state;
}

// A whole snapshot (fold every adapter, wireless query, host name, compare
// with the previous state) over synthetic adapters.
void BM_Snapshot(benchmark::State& state) {
    const auto records = SyntheticAdapters(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    const auto provider = ProviderOver(records);
    for (auto _ : state) {
        bool changed = false;
        benchmark::DoNotOptimize(provider->DoUpdateState(&changed));
    }
    state.counters["adapters"] = static_cast<double>(state.range(0));
    state.counters["addresses"] = static_cast<double>(state.range(0) * state.range(1) * 2);
}
BENCHMARK(BM_Snapshot)->Args({4, 4})->Args({32, 16})->Args({256, 64})->Unit(benchmark::kMicrosecond);

void BM_Merge(benchmark::State& state) {
    const auto records = SyntheticAdapters(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    const auto middle = records.begin() + static_cast<std::ptrdiff_t>(records.size() / 2);
    const NetworkState half = StateOf({records.begin(), middle});
    const NetworkState other = StateOf({middle, records.end()});
    for (auto _ : state) {
        NetworkState merged = half;
        merged.Merge(other);
        benchmark::DoNotOptimize(merged.ipv4Addresses.size());
    }
}
BENCHMARK(BM_Merge)->Args({32, 16})->Args({256, 64})->Unit(benchmark::kMicrosecond);

void BM_Compare(benchmark::State& state) {
    const auto records = SyntheticAdapters(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    const NetworkState a = StateOf(records);
    const NetworkState b = a;
    for (auto _ : state) benchmark::DoNotOptimize(a == b);
}
BENCHMARK(BM_Compare)->Args({32, 16})->Args({256, 64})->Unit(benchmark::kMicrosecond);

// The system's adapter list (netlink dumps or GetAdaptersAddresses) alone.
void BM_ReadSystemAdapters(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(os::ReadAdapters().ok());
}
BENCHMARK(BM_ReadSystemAdapters)->Unit(benchmark::kMicrosecond);

// Moves the program into a private network namespace of its own, once, and
// says whether it is in one. The benchmarks before the first caller see the
// machine's network; threads started afterwards share the new namespace, so
// the machine's own network is never touched.
bool PrivateNamespace() {
    static const bool entered = ::unshare(CLONE_NEWNET) == 0 && std::system("ip link set lo up") == 0;
    return entered;
}

// Waits for notifications that bring a state with or without one address.
class Watcher final : public INetworkProvider::IEvents {
public:
    explicit Watcher(INetworkProvider& provider) : provider_(provider) {}
    int32_t OnNetworkStateChanged() override {
        NetworkState state;
        const int32_t status = provider_.GetState(state);
        {
            std::lock_guard lock(mutex_);
            last_ = std::move(state);
            at_ = std::chrono::steady_clock::now();
            ++count_;
        }
        changed_.notify_all();
        return status;
    }
    // The time of the first notification whose state has (or lacks) `value`.
    std::chrono::steady_clock::time_point Await(uint32_t value, bool present) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(5), [&] {
            if (count_ == 0) return false;
            bool has = false;
            for (const auto& a : last_.ipv4Addresses) has = has || a.Value() == value;
            return has == present;
        });
        return at_;
    }

private:
    INetworkProvider& provider_;
    std::mutex mutex_;
    std::condition_variable changed_;
    NetworkState last_;
    std::chrono::steady_clock::time_point at_;
    int count_ = 0;
};

// Adds or removes 10.77.0.1/32 on the loopback interface through netlink.
class LoopbackAddress {
public:
    LoopbackAddress() : socket_(nl_socket_alloc()) {
        nl_connect(socket_, NETLINK_ROUTE);
        address_ = rtnl_addr_alloc();
        nl_addr* local = nullptr;
        nl_addr_parse("10.77.0.1/32", AF_INET, &local);
        rtnl_addr_set_local(address_, local);
        nl_addr_put(local);
        rtnl_addr_set_ifindex(address_, 1);  // lo
    }
    ~LoopbackAddress() {
        rtnl_addr_put(address_);
        nl_socket_free(socket_);
    }
    bool Add() { return rtnl_addr_add(socket_, address_, 0) == 0; }
    bool Remove() { return rtnl_addr_delete(socket_, address_, 0) == 0; }
    static constexpr uint32_t kValue = 0x0A4D0001;

private:
    nl_sock* socket_;
    rtnl_addr* address_;
};

// From the request for an address change to the moment the subscriber
// holds the new state.
void BM_KernelChangeToNotification(benchmark::State& state) {
    if (!PrivateNamespace()) {
        state.SkipWithError("no private network namespace (needs CAP_SYS_ADMIN)");
        return;
    }
    NetworkProvider::Options options;
    options.periodMs = 600000;
    options.components = NoComponents();
    NetworkProvider provider(std::move(options));
    Watcher watcher(provider);
    static_cast<void>(provider.Subscribe(&watcher));
    static_cast<void>(provider.Start());
    LoopbackAddress address;
    bool present = false;
    double worst = 0;
    for (auto _ : state) {
        // Timed from the request: the kernel makes the change and tells its
        // listeners before it acknowledges the request, so the notification
        // may come before the acknowledgement does. The figure is the
        // request's own cost plus the latency.
        const auto changed = std::chrono::steady_clock::now();
        const bool done = present ? address.Remove() : address.Add();
        present = !present;
        const auto notified = watcher.Await(LoopbackAddress::kValue, present);
        if (!done) state.SkipWithError("the address change was refused");
        const double seconds = std::chrono::duration<double>(notified - changed).count();
        worst = std::max(worst, seconds);
        state.SetIterationTime(seconds);
    }
    state.counters["worst_us"] = worst * 1e6;
    if (present) address.Remove();
    static_cast<void>(provider.Stop());
    static_cast<void>(provider.Unsubscribe(&watcher));
}
BENCHMARK(BM_KernelChangeToNotification)->UseManualTime()->Iterations(200)->Unit(benchmark::kMicrosecond);

// A started listener on a machine where nothing changes, watched for 3 s:
// how often it woke and how many snapshots it took (the one of Start only).
void BM_IdleListenerWakeUps(benchmark::State& state) {
    if (!PrivateNamespace()) {
        state.SkipWithError("no private network namespace (needs CAP_SYS_ADMIN)");
        return;
    }
    for (auto _ : state) {
        NetworkProvider::Options options;
        auto source = std::make_unique<Product::Integration::SystemChangeSource>();
        const auto* watch = &source->watch();
        options.changeSource = std::move(source);
        std::atomic<int> snapshots{0};
        options.readAdapters = [&] {
            ++snapshots;
            return os::ReadAdapters();
        };
        options.components = NoComponents();
        NetworkProvider provider(std::move(options));
        static_cast<void>(provider.Start());
        std::this_thread::sleep_for(std::chrono::seconds(3));
        static_cast<void>(provider.Stop());
        // The stop itself wakes the listener once; read after it has ended.
        state.counters["wake_ups"] = static_cast<double>(watch->WakeUps() - 1);
        state.counters["snapshots"] = snapshots.load();
    }
}
BENCHMARK(BM_IdleListenerWakeUps)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
