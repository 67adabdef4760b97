// The "network." conditions over synthetic network states given through the
// host's stand-in provider, and the host-resolution condition with a
// hand-driven timer and switchable names.
#include <cstdlib>
#include <future>
#include <string>

#include "conditions/network/address_conditions.h"
#include "conditions/network/hostname_pattern.h"
#include "network_test_support.h"
#include "os/dns_query.h"
#include "qv/status.h"

namespace condition_testing {
namespace {

using Product::Integration::ConnectionKind;
using Product::Integration::NetworkState;
using Product::Integration::ConditionManager::SharedResolver;
using namespace std::chrono_literals;

std::string Leaf(const std::string& type, const std::string& data) {
    return R"({"type":"network.)" + type + R"(","data":)" + data + "}";
}
std::string Address(const std::string& type, const std::string& address) {
    return Leaf(type, R"({"address":")" + address + "\"}");
}
std::string Range(const std::string& start, const std::string& end) {
    return Leaf("IPRange", R"({"start":")" + start + R"(","end":")" + end + "\"}");
}

// An office machine: addresses, servers, one suffix, wired, on "Office".
NetworkState Office() {
    StateBuilder b;
    b.Unicast({L"10.0.0.5", L"192.168.1.20", L"2001:db8::1:5", L"fe80::1", L"::1:5"})
        .Gateways({L"10.0.0.1", L"fe80::fe"})
        .Dns({L"10.0.0.53"})
        .Wins({L"10.0.0.60"});
    b.state.dnsSuffixes.Insert(L"corp.example");
    b.state.AddConnectionKind(ConnectionKind::kEthernet);
    b.state.ssids = {L"Office"};
    b.state.hostName = L"ws-0042";
    return b.state;
}

struct ValueCase {
    std::string json;
    bool office;  // the value on Office()
    bool empty;   // the value on the empty state
};

TEST(NetworkConditions, ValuesOverSyntheticStates) {
    const ValueCase cases[] = {
        // Prefix 0 asks for any address of the family; no prefix for exactly one.
        {Address("IP", "0.0.0.0/0"), true, false},
        {Address("IP", "::/0"), true, false},
        {Address("IP", "10.0.0.5"), true, false},
        {Address("IP", "10.0.0.6"), false, false},
        {Address("IP", "10.0.0.5/"), true, false},
        {Address("IP", "10.0.0.0/8"), true, false},
        {Address("IP", "11.0.0.0/8"), false, false},
        {Address("IP", "192.168.1.16/28"), true, false},
        {Address("IP", "192.168.1.32/28"), false, false},
        {Address("IP", "10.0.0.1"), false, false},  // a gateway, not a unicast address
        {Address("IP", "fe80::/10"), true, false},
        {Address("IP", "2001:db8::/32"), true, false},
        {Address("IP", "2001:db9::/32"), false, false},
        // Above 64 bits: the first halves equal, then the second on its top bits.
        {Address("IP", "2001:db8::1:0/112"), true, false},
        {Address("IP", "2001:db8::2:0/112"), false, false},
        {Address("IP", "2001:db9::1:5/112"), false, false},
        {Address("IP", "2001:db8::1:6"), false, false},
        {Address("Gateway", "10.0.0.1/"), true, false},
        {Address("Gateway", "fe80::fe/128"), true, false},
        {Address("DNS", "10.0.0.53"), true, false},
        {Address("DNS", "10.0.0.60"), false, false},
        {Address("WINS", "10.0.0.60/32"), true, false},
        // Ranges: inclusive, a reversed one holds nothing, IPv6 by the last byte.
        {Range("10.0.0.1", "10.0.0.10"), true, false},
        {Range("10.0.0.5", "10.0.0.5"), true, false},
        {Range("10.0.0.10", "10.0.0.1"), false, false},
        {Range("10.0.0.6/8", "10.0.0.9"), false, false},
        {Range("::1", "::ff"), true, false},  // ::1:5 lies inside by its last byte
        {Range("::2", "::4"), false, false},
        {Leaf("DNSSuffix", R"({"suffix":"CORP.EXAMPLE"})"), true, false},
        {Leaf("DNSSuffix", R"({"suffix":"example"})"), false, false},
        {Address("Hostname", "WS-*"), true, false},
        {Address("Hostname", "WS-00??"), true, false},
        {Address("Hostname", "ws-0042"), true, false},
        {Address("Hostname", "WS?0042"), true, false},
        {Address("Hostname", "WS.0042"), false, false},  // the dot is literal
        {Address("Hostname", "WS-(0042|x)"), false, false},
        {Address("Hostname", "*"), true, true},  // also the empty name
        {Address("Hostname", "**42"), true, false},
    };
    Bench bench;
    for (const ValueCase& c : cases) {
        for (const bool office : {true, false}) {
            bench.provider.SetState(office ? Office() : NetworkState{});
            int32_t error = -1;
            ConditionPtr condition = bench.Create(c.json, &error);
            ASSERT_NE(condition, nullptr) << c.json;
            EXPECT_EQ(StateOf(*condition), office ? c.office : c.empty) << c.json << (office ? " office" : " empty");
        }
    }
    EXPECT_EQ(bench.provider.StartCount(), 0);
    EXPECT_EQ(bench.provider.SubscriberCount(), 0u);
}

// The connection kind on a wired office machine, a laptop on a wireless
// network (whose adapters also include a wired one that is Other) and a
// machine with nothing.
TEST(NetworkConditions, ConnectionTypeFollowsTheKindsOrTheNamedNetwork) {
    NetworkState laptop = StateBuilder().Unicast({L"192.168.8.20"}).state;
    laptop.AddConnectionKind(ConnectionKind::kWireless);
    laptop.AddConnectionKind(ConnectionKind::kOther);
    laptop.ssids = {L"Cafe", L"Cafe"};
    const struct {
        std::string data;
        bool office, laptop, empty;
    } cases[] = {
        {R"({"type":"ethernet"})", true, false, false},
        {R"({"type":"wifi"})", false, true, false},
        // An empty name asks for the kind, as no name does.
        {R"({"type":"wifi","ssid":""})", false, true, false},
        {R"({"type":"wifi","ssid":"Cafe"})", false, true, false},
        // A named network is asked for whatever the adapters' kinds say.
        {R"({"type":"wifi","ssid":"Office"})", true, false, false},
        {R"({"type":"wifi","ssid":"office"})", false, false, false},
        {R"({"type":"ethernet","ssid":"Cafe"})", true, false, false},
    };
    Bench bench;
    for (const auto& c : cases) {
        for (const auto& [state, expected] :
             {std::pair{Office(), c.office}, std::pair{laptop, c.laptop}, std::pair{NetworkState{}, c.empty}}) {
            bench.provider.SetState(state);
            ConditionPtr condition = bench.Create(Leaf("ConnectionType", c.data));
            ASSERT_NE(condition, nullptr) << c.data;
            EXPECT_EQ(StateOf(*condition), expected)
                << c.data << " on " << state.ipv4Addresses.size() << " address(es)";
        }
    }
}

TEST(NetworkConditions, HostnamePatternsAreWholeNameExpressionsWithLiteralsEscaped) {
    using Pattern = Product::Integration::ConditionManager::HostnamePattern;
    EXPECT_EQ(Pattern::ToExpression(L"WS-**?"), L"^WS-.*.$");
    EXPECT_EQ(Pattern::ToExpression(L".^$|()[]{}+\\/"), L"^\\.\\^\\$\\|\\(\\)\\[\\]\\{\\}\\+\\\\/$");
    struct {
        const wchar_t* pattern;
        const wchar_t* name;
        bool matches;
    } cases[] = {
        {L"PC?", L"PC1", true}, {L"PC?", L"PC12", false}, {L"PC?", L"pc1", true},   {L"a+", L"aa", false},
        {L"a+", L"a+", true},   {L"[ab]", L"a", false},   {L"[ab]", L"[AB]", true}, {L"*a*a*a*a*a*a*a*a*b", L"", false},
    };
    for (const auto& c : cases) EXPECT_EQ(Pattern(c.pattern).Matches(c.name), c.matches) << c.pattern << " " << c.name;
    // Many wildcards over a long name that almost matches: answered at once.
    std::wstring pattern;
    for (int i = 0; i < 40; ++i) pattern += L"*a";
    EXPECT_FALSE(Pattern(pattern + L"*b").Matches(std::wstring(200, L'a')));
    // More literal characters than any host name has: matches nothing.
    EXPECT_FALSE(Pattern(std::wstring(300, L'a')).Matches(std::wstring(300, L'a')));
}

struct InitCase {
    std::string json;
    int32_t status;
    const wchar_t* function;  // with `message`: a line logged at level 4 (null: none checked)
    const wchar_t* message;
};

TEST(NetworkConditions, InitRefusesMissingAndBadParameters) {
    constexpr const wchar_t* kIPInit = L"Product::Integration::ConditionManager::ConditionIPBase::Init";
    constexpr const wchar_t* kHostname = L"Product::Integration::ConditionManager::ConditionHostname::Init";
    constexpr const wchar_t* kType = L"Product::Integration::ConditionManager::ConditionConnectionType::Init";
    const InitCase cases[] = {
        {Leaf("IP", "{}"), 87, kIPInit, L"Node \"address\" not found. Invalid Json"},
        {R"({"type":"network.DNS"})", 87, kIPInit, L"Node \"address\" not found. Invalid Json"},
        {Address("Gateway", "10.0.0.0/033"), 87, nullptr, nullptr},
        {Address("IP", "10.0.0.0/0032"), 87, nullptr, nullptr},
        {Address("WINS", "::1/129"), 87, nullptr, nullptr},
        {Address("IP", "host.example"), 87, nullptr, nullptr},
        {Range("10.0.0.1", "::1"), 87, nullptr, nullptr},
        {Range("10.0.0.1", "10.0.0.256"), 87, nullptr, nullptr},
        {Leaf("IPRange", R"({"start":"10.0.0.1"})"), 87, nullptr, nullptr},
        {Leaf("DNSSuffix", "{}"), 87, nullptr, nullptr},
        {Leaf("Hostname", "{}"), 87, kHostname, L"Node \"address\" not found. Invalid Json"},
        {Address("Hostname", ""), 87, kHostname, L"Hostname empty."},
        {Leaf("ConnectionType", "{}"), 87, kType, L"Node \"type\" not found. Invalid Json"},
        {Leaf("ConnectionType", R"({"type":"WiFi"})"), 87, nullptr, nullptr},
        {Leaf("ConnectionType", R"({"type":"wifi","ssid":5})"), 87, nullptr, nullptr},
        {Leaf("canResolveHost", "{}"), 87, nullptr, nullptr},
    };
    Bench bench;
    for (const InitCase& c : cases) {
        LogCapture capture;
        int32_t error = 0;
        EXPECT_EQ(bench.Create(c.json, &error), nullptr) << c.json;
        EXPECT_EQ(error, c.status) << c.json;
        if (c.function) {
            EXPECT_TRUE(capture.Contains(logging::kError, c.function, c.message)) << c.json;
        }
    }
    // Every failed condition gave back its provider start and subscription.
    EXPECT_EQ(bench.provider.StartCount(), 0);
    EXPECT_EQ(bench.provider.SubscriberCount(), 0u);

    // Without a provider: 5002.
    LogCapture capture;
    Product::Integration::ConditionManager::ConditionIP alone;
    ConditionBase::InitData data;
    data.json = ParseJson(Address("IP", "10.0.0.1"));
    EXPECT_EQ(alone.Init(data), qv::status::kDependencyNotFound);
    EXPECT_TRUE(capture.Contains(logging::kError, L"Product::Integration::ConditionManager::ConditionNetworkBase::Init",
                                 L"network provider not found"));
    alone.Uninit();
}

// A change notifies once per flip; a change that keeps the value, and a
// recomputation asked by the engine, notify nobody.
TEST(NetworkConditions, ProviderChangesNotifyOncePerFlip) {
    Bench bench;
    Recorder recorder;
    ConditionPtr condition = bench.Create(Address("IP", "10.0.0.0/8"), nullptr, 7);
    ASSERT_NE(condition, nullptr);
    EXPECT_FALSE(StateOf(*condition));
    EXPECT_EQ(bench.provider.StartCount(), 1);
    EXPECT_EQ(condition->Subscribe(&recorder), 0);

    bench.provider.SetState(Office());
    bench.provider.NotifySubscribers();
    bench.provider.NotifySubscribers();
    ASSERT_EQ(recorder.Count(), 1u);
    EXPECT_TRUE(recorder.Notifications()[0].state);
    EXPECT_EQ(recorder.Notifications()[0].id, 7u);

    bench.provider.SetState(StateBuilder().Unicast({L"10.9.9.9"}).state);
    bench.provider.NotifySubscribers();
    EXPECT_EQ(recorder.Count(), 1u);

    bench.provider.SetState(NetworkState{});
    EXPECT_TRUE(StateOf(*condition));
    EXPECT_FALSE(StateOf(*condition, true));
    bench.provider.NotifySubscribers();
    EXPECT_EQ(recorder.Count(), 1u);  // the engine's recomputation took the flip
    EXPECT_EQ(condition->Unsubscribe(&recorder), 0);
    condition.reset();
    EXPECT_EQ(bench.provider.StartCount(), 0);
    EXPECT_EQ(bench.provider.SubscriberCount(), 0u);
}

class CanResolveHost : public ::testing::Test {
protected:
    CanResolveHost() {
        ResolveBench::resolver = &resolver;
        EXPECT_EQ(manager.Init(bench.host.main()), 0);
    }
    ~CanResolveHost() override {
        names.LetAllGo();
        EXPECT_EQ(manager.Uninit(), 0);
        ResolveBench::resolver = nullptr;
    }
    ConditionPtr Create(const std::string& name, int32_t* error = nullptr) {
        int32_t ignored = 0;
        return manager.CreateCondition(ParseJson(Address("canResolveHost", name)), error ? error : &ignored, 3);
    }

    FakeNames names;
    SharedResolver resolver{ResolverOptions(&names)};
    Bench bench;
    ResolveTestManager manager;
    Recorder recorder;
};

// The first value is false until the first answer; each provider change and
// each recomputation asks again, and every flip is notified once.
TEST_F(CanResolveHost, AnswersArriveAfterInitAndEachFlipIsNotifiedOnce) {
    const std::wstring name = L"files.corp.example";
    names.Set(name, true);
    names.Hang(name);
    ConditionPtr condition = Create("files.corp.example");
    ASSERT_NE(condition, nullptr);
    EXPECT_FALSE(StateOf(*condition));
    EXPECT_EQ(condition->Subscribe(&recorder), 0);
    names.LetGo(name);
    ASSERT_TRUE(recorder.WaitForCount(1));
    EXPECT_TRUE(StateOf(*condition));
    EXPECT_EQ(recorder.Notifications()[0].id, 3u);

    names.Set(name, false);
    EXPECT_EQ(bench.provider.NotifySubscribers(), 1u);
    ASSERT_TRUE(recorder.WaitForCount(2));
    EXPECT_FALSE(StateOf(*condition));

    // A recomputation answers the stored value at once; the flip its
    // question finds is notified like any other.
    names.Set(name, true);
    names.Hang(name);
    EXPECT_FALSE(StateOf(*condition, true));
    names.LetGo(name);
    ASSERT_TRUE(recorder.WaitForCount(3));
    EXPECT_TRUE(StateOf(*condition));

    // The same answer again changes nothing.
    EXPECT_EQ(bench.provider.NotifySubscribers(), 1u);
    ASSERT_TRUE(names.WaitForAnswers(name, 4));
    EXPECT_EQ(recorder.States(), (std::vector<bool>{true, false, true}));
    EXPECT_EQ(condition->Unsubscribe(&recorder), 0);
}

// While the question about one name hangs (a DNS server that drops
// packets), nothing on the engine's or the provider's threads waits for it:
// Init, a recomputation, a provider change and Uninit return at once, and
// another name is answered meanwhile. The dropped answer reaches nobody.
TEST_F(CanResolveHost, AHungQuestionDelaysNoCaller) {
    names.Hang(L"slow.example");
    names.Set(L"slow.example", true);
    names.Set(L"fast.example", true);
    auto create = std::async(std::launch::async, [&] { return Create("slow.example"); });
    ASSERT_EQ(create.wait_for(2s), std::future_status::ready);
    ConditionPtr slow = create.get();
    ASSERT_NE(slow, nullptr);
    EXPECT_EQ(slow->Subscribe(&recorder), 0);

    ConditionPtr fast = Create("fast.example");
    ASSERT_NE(fast, nullptr);
    EXPECT_TRUE(testing_support::Eventually([&] { return StateOf(*fast); }));

    auto recompute = std::async(std::launch::async, [&] { static_cast<void>(StateOf(*slow, true)); });
    EXPECT_TRUE(testing_support::Finishes(recompute, 2s));
    auto change = std::async(std::launch::async, [&] { bench.provider.NotifySubscribers(); });
    EXPECT_TRUE(testing_support::Finishes(change, 2s));
    auto uninit = std::async(std::launch::async, [&] { slow.reset(); });
    EXPECT_TRUE(testing_support::Finishes(uninit, 2s));

    names.LetAllGo();
    ASSERT_TRUE(names.WaitForAnswers(L"slow.example", 1));
    EXPECT_TRUE(testing_support::Finishes(uninit));
    fast.reset();
    EXPECT_TRUE(testing_support::Eventually([&] { return resolver.Threads() == 0; }));
    EXPECT_EQ(recorder.Count(), 0u);
    EXPECT_EQ(bench.provider.StartCount(), 0);
    EXPECT_EQ(bench.provider.SubscriberCount(), 0u);
}

// Shutting down (also while changes are delivered from another thread)
// leaves the resolver and lets go of the provider.
TEST_F(CanResolveHost, ShutdownReleasesTheProviderAndTheResolver) {
    ConditionPtr condition = Create("nowhere.example");
    ASSERT_NE(condition, nullptr);
    EXPECT_FALSE(StateOf(*condition));
    EXPECT_EQ(bench.provider.StartCount(), 1);
    EXPECT_EQ(bench.provider.SubscriberCount(), 1u);
    auto changes = std::async(std::launch::async, [&] {
        for (int i = 0; i < 50; ++i) bench.provider.NotifySubscribers();
    });
    auto reset = std::async(std::launch::async, [&] { condition.reset(); });
    EXPECT_TRUE(testing_support::Finishes(reset));
    EXPECT_TRUE(testing_support::Finishes(changes));
    EXPECT_EQ(bench.provider.StartCount(), 0);
    EXPECT_EQ(bench.provider.SubscriberCount(), 0u);
    EXPECT_TRUE(testing_support::Eventually([&] { return resolver.Threads() == 0; }));
}

// The system's resolver (DnsQuery_W on Windows, res_nquery on Linux) against
// the server that tests/conditions/dns_server_run.sh starts: run by that
// script (the ctest entry CanResolveHost.AgainstARealServer), skipped alone.
TEST(CanResolveHostDns, TheSystemResolverAsksTheConfiguredServer) {
    const char* phase = std::getenv("CR_DNS_SERVER");
    if (!phase) GTEST_SKIP() << "runs under dns_server_run.sh only";
    const bool up = std::string(phase) == "up";
    SharedResolver resolver(ResolverOptions(nullptr));  // real DNS
    ResolveBench::resolver = &resolver;
    Bench bench;
    ResolveTestManager manager;
    ASSERT_EQ(manager.Init(bench.host.main()), 0);
    int32_t error = 0;
    ConditionPtr v6 = manager.CreateCondition(ParseJson(Address("canResolveHost", "v6only.test")), &error, 0);
    ConditionPtr unknown = manager.CreateCondition(ParseJson(Address("canResolveHost", "unknown.test")), &error, 1);
    ASSERT_NE(v6, nullptr);
    ASSERT_NE(unknown, nullptr);
    // The conditions had their first answers when later subscribers of
    // their names have theirs.
    ResolverAnswers v6Answered, unknownAnswered;
    ASSERT_TRUE(resolver.Subscribe(&v6Answered, L"v6only.test"));
    ASSERT_TRUE(resolver.Subscribe(&unknownAnswered, L"unknown.test"));
    ASSERT_TRUE(v6Answered.WaitForCount(1));
    ASSERT_TRUE(unknownAnswered.WaitForCount(1));
    EXPECT_EQ(StateOf(*v6), up);  // by its AAAA record alone
    EXPECT_FALSE(StateOf(*unknown));
    resolver.Unsubscribe(&v6Answered);
    resolver.Unsubscribe(&unknownAnswered);
    EXPECT_FALSE(os::HasDnsRecord(L"v6only.test", os::DnsRecordType::kA));
    EXPECT_EQ(os::HasDnsRecord(L"v6only.test", os::DnsRecordType::kAAAA), up);
    v6.reset();
    unknown.reset();
    EXPECT_EQ(manager.Uninit(), 0);
    ResolveBench::resolver = nullptr;
}

}  // namespace
}  // namespace condition_testing
