// The network conditions over a provider the test scripts: a refused or
// missing provider, a recomputation racing a change notification, and the
// call traces of their operations.
#include <future>
#include <string>

#include "conditions/network/address_conditions.h"
#include "conditions/network/name_conditions.h"
#include "network_test_support.h"

namespace condition_testing {
namespace {

using Product::Integration::ConditionManager::ConditionCanResolveHost;
using Product::Integration::ConditionManager::ConditionDNSSuffix;
using Product::Integration::ConditionManager::ConditionIP;
constexpr const wchar_t* kBaseInit = L"Product::Integration::ConditionManager::ConditionNetworkBase::Init";
constexpr const wchar_t* kResolveInit = L"Product::Integration::ConditionManager::ConditionCanResolveHost::Init";

ConditionBase::InitData Data(const std::string& json) {
    ConditionBase::InitData data;
    data.json = ParseJson(json);
    return data;
}

const std::string kIPInTen = R"({"type":"network.IP","data":{"address":"10.0.0.0/8"}})";
const std::string kResolveFiles = R"({"type":"network.canResolveHost","data":{"address":"files.example"}})";

// Without a provider, or when it refuses to start, no condition starts; each
// says why, and nothing stays started or subscribed.
TEST(NetworkConditionPaths, AMissingOrRefusingProviderFailsInitWithTheReason) {
    {
        LogCapture log;
        ConditionCanResolveHost alone;
        EXPECT_EQ(alone.Init(Data(kResolveFiles)), qv::status::kDependencyNotFound);
        EXPECT_TRUE(log.Contains(logging::kError, kResolveInit, L"cannot found network provider"));
        alone.Uninit();
    }
    ScriptedProvider provider;
    provider.RefuseStart(qv::status::kNotReady);
    {
        LogCapture log;
        ConditionDNSSuffix suffix;
        InjectProvider(suffix, provider);
        EXPECT_EQ(suffix.Init(Data(R"({"type":"network.DNSSuffix","data":{"suffix":"example"}})")),
                  qv::status::kDependencyNotFound);
        EXPECT_TRUE(log.Contains(logging::kError, kBaseInit, L"failed to acquire network provider"));
        suffix.Uninit();
    }
    {
        // The host-resolution condition passes the provider's own status on.
        LogCapture log;
        ConditionCanResolveHost resolve;
        InjectProvider(resolve, provider);
        EXPECT_EQ(resolve.Init(Data(kResolveFiles)), qv::status::kNotReady);
        EXPECT_TRUE(log.Contains(logging::kError, kResolveInit, L"failed to acquire network provider [21]"));
        resolve.Uninit();
    }
    EXPECT_EQ(provider.Starts(), 0);
    EXPECT_EQ(provider.Subscribers(), 0u);
}

// The engine's recomputation reads the state, and before it stores its value
// the provider changes and its notification pass stores and notifies the new
// one: the late, older value must not replace it.
TEST(NetworkConditionPaths, ARecomputationThatReadTheStateBeforeAChangeDoesNotUndoTheChange) {
    ScriptedProvider provider;
    ConditionIP condition;
    InjectProvider(condition, provider);
    ASSERT_EQ(condition.Init(Data(kIPInTen)), 0);
    Recorder recorder;
    ASSERT_EQ(condition.Subscribe(&recorder), 0);
    EXPECT_FALSE(StateOf(condition));

    provider.readGate.Arm();
    auto engine = std::async(std::launch::async, [&] { return StateOf(condition, true); });
    ASSERT_TRUE(provider.readGate.WaitUntilHeld());  // it holds the state without 10.0.0.5
    provider.SetState(StateBuilder().Unicast({L"10.0.0.5"}).state);
    provider.Notify();
    EXPECT_EQ(recorder.States(), std::vector<bool>{true});
    provider.readGate.Open();
    EXPECT_TRUE(engine.get());  // the engine is answered with the newer value
    EXPECT_TRUE(StateOf(condition));
    provider.Notify();  // nothing moved since: nobody is told again
    EXPECT_EQ(recorder.Count(), 1u);

    EXPECT_EQ(condition.Unsubscribe(&recorder), 0);
    condition.Uninit();
    EXPECT_EQ(provider.Starts(), 0);
}

// Each public operation of a network condition opens and closes a call trace.
TEST(NetworkConditionPaths, PublicOperationsAreTraced) {
    const auto traced = [](const LogCapture& log, const std::wstring& function) {
        bool closed = false;
        for (const auto& line : log.Lines())
            closed = closed || (line.level == logging::kTrace && line.function == function &&
                                line.message.rfind(L"<- " + function + L"() [", 0) == 0);
        return closed && log.Contains(logging::kTrace, function, L"-> " + function + L"()");
    };
    const std::wstring base = L"Product::Integration::ConditionManager::ConditionNetworkBase::";
    const std::wstring resolve = L"Product::Integration::ConditionManager::ConditionCanResolveHost::";
    ScriptedProvider provider;
    FakeNames names;
    Product::Integration::ConditionManager::SharedResolver resolver(ResolverOptions(&names));
    ResolveBench::resolver = &resolver;
    LogCapture log;
    {
        ConditionIP ip;
        InjectProvider(ip, provider);
        ASSERT_EQ(ip.Init(Data(kIPInTen)), 0);
        EXPECT_FALSE(StateOf(ip, true));
        provider.Notify();
        ip.Uninit();
        for (const wchar_t* operation : {L"Init", L"GetState", L"OnNetworkStateChanged", L"Uninit"})
            EXPECT_TRUE(traced(log, base + operation)) << operation;
        EXPECT_TRUE(traced(log, L"Product::Integration::ConditionManager::ConditionIPBase::Init"));
    }
    {
        TestCanResolveHost host;
        InjectProvider(host, provider);
        ASSERT_EQ(host.Init(Data(kResolveFiles)), 0);
        EXPECT_FALSE(StateOf(host, true));
        provider.Notify();
        host.Uninit();
        for (const wchar_t* operation : {L"Init", L"GetState", L"OnNetworkStateChanged", L"Uninit"})
            EXPECT_TRUE(traced(log, resolve + operation)) << operation;
    }
    ResolveBench::resolver = nullptr;
}

}  // namespace
}  // namespace condition_testing
