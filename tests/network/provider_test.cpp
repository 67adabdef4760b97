// The provider's listener, start count and subscribers, over adapters and
// address changes the test controls.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <mutex>

#if defined(__linux__)
#include <sys/resource.h>
#endif

#include "adapter_records.h"
#include "network/network_provider.h"
#include "os/process_info.h"
#include "plugin/log.h"
#include "qv/status.h"
#include "state_watcher.h"
#include "support/log_capture.h"
#include "support/waiting.h"

namespace {

using namespace network_test;
using Product::Integration::EventChangeSource;
using Product::Integration::INetworkProvider;
using Product::Integration::NetworkProvider;
using Product::Integration::NetworkState;
using testing_support::Eventually;
constexpr const wchar_t* kDoUpdateState = L"Product::Integration::NetworkProvider::DoUpdateState";
constexpr const wchar_t* kListener = L"Product::Integration::NetworkProvider::NetworkListenerThread";

// The adapters the provider reads, set by the test.
class Machine {
public:
    void Set(std::vector<os::AdapterRecord> adapters) {
        std::lock_guard lock(mutex_);
        adapters_ = std::move(adapters);
    }
    os::Expected<os::Adapters> Read() {
        std::lock_guard lock(mutex_);
        ++reads_;
        return adapters_;
    }
    int reads() {
        std::lock_guard lock(mutex_);
        return reads_;
    }

private:
    std::mutex mutex_;
    std::vector<os::AdapterRecord> adapters_;
    int reads_ = 0;
};

struct Bench {
    explicit Bench(uint32_t periodMs) {
        NetworkProvider::Options options;
        options.periodMs = periodMs;
        auto source = std::make_unique<EventChangeSource>();
        changes = source.get();
        options.changeSource = std::move(source);
        options.readAdapters = [this] { return machine.Read(); };
        options.components = NoComponents();
        machine.Set({Adapter(L"First", V4(10, 0, 0, 1))});
        provider = std::make_unique<NetworkProvider>(std::move(options));
    }
    Machine machine;
    EventChangeSource* changes = nullptr;
    std::unique_ptr<NetworkProvider> provider;
};

TEST(NetworkProvider, AnAddressChangeNotifiesEveryoneEvenWhenNothingMoved) {
    testing_support::LogCapture log;
    Bench bench(os::kInfinite);
    StateWatcher one(*bench.provider), two(*bench.provider);
    ASSERT_EQ(bench.provider->Subscribe(&one), 0);
    ASSERT_EQ(bench.provider->Subscribe(&two), 0);
    EXPECT_EQ(bench.provider->Subscribe(&one), qv::status::kFunctionFailed);
    ASSERT_EQ(bench.provider->Start(), 0);
    NetworkState state;
    ASSERT_EQ(bench.provider->GetState(state), 0);  // the first snapshot is taken by Start
    ASSERT_EQ(state.ipv4Addresses.size(), 1u);
    EXPECT_FALSE(state.hostName.empty());

    bench.changes->Signal();
    ASSERT_TRUE(Eventually([&] { return one.count() == 1 && two.count() == 1; }));
    EXPECT_TRUE(one.last() == state);
    EXPECT_TRUE(log.Contains(logging::kDetail, L"Product::Integration::NetworkProvider::OnIPChangeEvent",
                             L"Notifying listeners"));

    // The only adapter loses its address: the old state stays, and the
    // subscribers still hear of the change.
    bench.machine.Set({[] {
        auto a = Adapter(L"First", V4(0, 0, 0, 0));
        a.unicast.clear();
        return a;
    }()});
    bench.changes->Signal();
    ASSERT_TRUE(Eventually([&] { return two.count() == 2; }));
    EXPECT_TRUE(two.last() == state);
    EXPECT_TRUE(
        log.Contains(logging::kError, kDoUpdateState, L"GetAdaptersAddresses ip list is emtpy. skip this update"));
    // No adapter at all: said so, and handled the same way.
    EXPECT_FALSE(log.Contains(logging::kError, kDoUpdateState, L"GetAdaptersAddresses returns null"));
    bench.machine.Set({});
    bench.changes->Signal();
    ASSERT_TRUE(Eventually([&] { return one.count() == 3; }));
    EXPECT_TRUE(one.last() == state);
    EXPECT_TRUE(log.Contains(logging::kError, kDoUpdateState, L"GetAdaptersAddresses returns null"));

    ASSERT_EQ(bench.provider->Unsubscribe(&one), 0);
    EXPECT_EQ(bench.provider->Unsubscribe(&one), qv::status::kFunctionFailed);
    bench.machine.Set({Adapter(L"First", V4(10, 0, 0, 7))});
    bench.changes->Signal();
    ASSERT_TRUE(Eventually([&] { return two.count() == 4; }));
    EXPECT_EQ(one.count(), 3);
    EXPECT_EQ(one.failedReads() + two.failedReads(), 0);
    EXPECT_EQ(two.last().ipv4Addresses[0].ToString(), L"10.0.0.7/32");
    EXPECT_EQ(bench.provider->Stop(), 0);
    EXPECT_TRUE(log.Contains(logging::kDetail, kListener, L"Exit NetworkProvider::NetworkListenerThread"));
    EXPECT_EQ(bench.provider->Unsubscribe(&two), 0);
}

TEST(NetworkProvider, ATimedPassNotifiesOnlyWhenTheStateChanged) {
    testing_support::LogCapture log;
    Bench bench(5);
    StateWatcher subscriber(*bench.provider);
    ASSERT_EQ(bench.provider->Subscribe(&subscriber), 0);
    ASSERT_EQ(bench.provider->Start(), 0);
    // Several passes over an unchanged machine: no notification.
    const int readsAtStart = bench.machine.reads();
    ASSERT_TRUE(Eventually([&] { return bench.machine.reads() >= readsAtStart + 4; }));
    EXPECT_EQ(subscriber.count(), 0);
    EXPECT_TRUE(log.Contains(logging::kDetail, kDoUpdateState, L" NETWORK STATE NOT CHANGED"));
    EXPECT_FALSE(log.Contains(logging::kDetail, kDoUpdateState, L" NETWORK STATE CHANGED"));

    // A change the address-change source does not report (a new DNS suffix):
    // the next pass finds it and notifies once.
    auto adapter = Adapter(L"First", V4(10, 0, 0, 1));
    adapter.dnsSuffix = L"corp.example";
    bench.machine.Set({adapter});
    ASSERT_TRUE(Eventually([&] { return subscriber.count() == 1; }));
    EXPECT_EQ(subscriber.last().dnsSuffixes.items(), std::vector<std::wstring>{L"corp.example"});
    EXPECT_TRUE(log.Contains(logging::kDetail, kDoUpdateState, L" NETWORK STATE CHANGED"));
    const int readsAfter = bench.machine.reads();
    ASSERT_TRUE(Eventually([&] { return bench.machine.reads() >= readsAfter + 4; }));
    EXPECT_EQ(subscriber.count(), 1);

    EXPECT_EQ(bench.provider->Stop(), 0);
    EXPECT_EQ(bench.provider->Unsubscribe(&subscriber), 0);
}

TEST(NetworkProvider, StartsAreCountedAndTheLastStopJoinsTheOneThread) {
    Bench bench(os::kInfinite);
    EXPECT_EQ(bench.provider->Stop(), qv::status::kFunctionFailed);  // nothing to balance
    ASSERT_EQ(bench.provider->Start(), 0);
    // Counted with the listener running: a sanitizer's runtime may start a
    // thread of its own with the process's first one.
    const size_t threadsWithListener = os::ProcessThreadCount();
    ASSERT_EQ(bench.provider->Start(), 0);
    EXPECT_EQ(bench.provider->StartCount(), 2);
    EXPECT_TRUE(bench.provider->ListenerRunning());
    EXPECT_EQ(os::ProcessThreadCount(), threadsWithListener);
    ASSERT_EQ(bench.provider->Stop(), 0);
    EXPECT_TRUE(bench.provider->ListenerRunning());
    EXPECT_EQ(os::ProcessThreadCount(), threadsWithListener);
    // Still listening: a change still reaches a subscriber.
    StateWatcher subscriber(*bench.provider);
    ASSERT_EQ(bench.provider->Subscribe(&subscriber), 0);
    bench.changes->Signal();
    ASSERT_TRUE(Eventually([&] { return subscriber.count() == 1; }));
    ASSERT_EQ(bench.provider->Stop(), 0);
    EXPECT_FALSE(bench.provider->ListenerRunning());
    EXPECT_EQ(bench.provider->StartCount(), 0);
    if (threadsWithListener) {
        EXPECT_EQ(os::ProcessThreadCount(), threadsWithListener - 1);
    }
    // And it starts again.
    ASSERT_EQ(bench.provider->Start(), 0);
    bench.changes->Signal();
    ASSERT_TRUE(Eventually([&] { return subscriber.count() == 2; }));
    ASSERT_EQ(bench.provider->Stop(), 0);
    EXPECT_EQ(bench.provider->Unsubscribe(&subscriber), 0);
}

// A change source whose registration the system refuses (with
// `registerError`), or whose wait fails once the request is in place.
class FailingSource final : public Product::Integration::IChangeSource {
public:
    explicit FailingSource(uint32_t registerError) : registerError_(registerError) {}
    uint32_t CreationError() const noexcept override { return 0; }
    uint32_t Register() override { return registerError_; }
    WaitResult Wait(os::AutoResetEvent&, uint32_t) override { return WaitResult::kFailed; }
    void Cancel() override { ++cancels; }
    std::atomic<int> cancels{0};

private:
    const uint32_t registerError_;
};

// Either failure ends the listener, says so, and keeps the state as read.
TEST(NetworkProvider, AFailedRegistrationOrWaitEndsTheListenerSaysSoAndKeepsTheState) {
    struct Case {
        uint32_t registerError;
        const wchar_t* message;
    };
    for (const Case& c : {Case{50, L"Failed to register for network notifications"},
                          Case{0,
                               L"Waiting for network notifications failed: the network state stays as last read "
                               L"until the provider is started again"}}) {
        testing_support::LogCapture log;
        Machine machine;
        machine.Set({Adapter(L"First", V4(10, 0, 0, 1))});
        NetworkProvider::Options options;
        auto source = std::make_unique<FailingSource>(c.registerError);
        FailingSource* failing = source.get();
        options.changeSource = std::move(source);
        options.readAdapters = [&] { return machine.Read(); };
        options.components = NoComponents();
        NetworkProvider provider(std::move(options));
        EXPECT_EQ(provider.periodMs(), NetworkProvider::kDefaultPeriodMs);
        ASSERT_EQ(provider.Init(nullptr), 0);
        ASSERT_EQ(provider.Start(), 0);
        ASSERT_TRUE(Eventually([&] { return failing->cancels == 1; }));
        EXPECT_TRUE(log.Contains(logging::kError, kListener, c.message));
        EXPECT_TRUE(log.Contains(logging::kDetail, kListener, L"Exit NetworkProvider::NetworkListenerThread"));
        NetworkState state;
        ASSERT_EQ(provider.GetState(state), 0);
        EXPECT_EQ(state.ipv4Addresses.size(), 1u);
        EXPECT_EQ(provider.Stop(), 0);
    }
}

#if defined(__linux__)
// Events the system refuses (here: no file descriptor left for them): Init
// fails with the system's own error and says which event it was.
TEST(NetworkProvider, InitReportsTheSystemsErrorForEventsItCouldNotCreate) {
    testing_support::LogCapture log;
    NetworkProvider::Options options;
    options.readAdapters = [] {
        return os::Expected<os::Adapters>(os::Status::Failure(qv::status::kNoData, L"no adapters"));
    };
    options.components = {};
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    rlimit none = limit;
    none.rlim_cur = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    options.changeSource = std::make_unique<EventChangeSource>();
    auto provider = std::make_unique<NetworkProvider>(std::move(options));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);

    EXPECT_EQ(provider->Init(nullptr), EMFILE);
    const std::wstring error = std::to_wstring(EMFILE);
    constexpr const wchar_t* kInit = L"Product::Integration::NetworkProvider::Init";
    EXPECT_TRUE(log.Contains(logging::kError, kInit, L"Failed to create stop event error [" + error + L"] "));
    EXPECT_TRUE(log.Contains(logging::kError, kInit, L"Failed to create notify event error [" + error + L"] "));
    EXPECT_TRUE(log.Contains(logging::kError, kInit, L"NetworkProvider::Init error = " + error));
}
#endif

}  // namespace
