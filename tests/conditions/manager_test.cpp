// The manager: start-up with and without its dependencies, the outcomes of
// CreateCondition, the nesting bound, and its export.

#include <deque>

#include "condition_test_support.h"
#include "qv/computer_manager.h"
#include "qv/status.h"

namespace condition_testing {
namespace {

constexpr const wchar_t* kInit = L"Product::Integration::ConditionManager::Manager::Init";
constexpr const wchar_t* kInitDependencies = L"Product::Integration::ConditionManager::Manager::InitDependencies";
constexpr const wchar_t* kCreate = L"Product::Integration::ConditionManager::Manager::CreateCondition";
constexpr const wchar_t* kLoad = L"JsonComposedSerializer::Load";

// Messages below call-trace level logged from `function`.
std::vector<std::wstring> MessagesFrom(const LogCapture& capture, const std::wstring& function) {
    std::vector<std::wstring> messages;
    for (const auto& line : capture.Lines())
        if (line.function == function && line.level < logging::kTrace) messages.push_back(line.message);
    return messages;
}

TEST(ManagerInit, FailsWithoutComponentManagerOrNetworkProviderAndGivesEverythingBack) {
    LogCapture capture;
    Bench bench(true, false);
    EXPECT_EQ(bench.manager.Init(nullptr), qv::status::kInvalidParameter);
    EXPECT_TRUE(capture.Contains(logging::kError, kInit, L"failed to init dependencies"));
    bench.host.components().Unregister(host::NetworkProviderStandIn::kName);
    EXPECT_EQ(bench.manager.Init(bench.host.main()), qv::status::kDependencyNotFound);
    EXPECT_TRUE(capture.Contains(logging::kError, kInit, L"failed to get network provider"));
    EXPECT_TRUE(capture.Contains(logging::kWarning,
                                 L"ServPlugin<class Product::Integration::INetworkProvider>::GetPlugin",
                                 L"Error 1168 getting plugin \"Product.ConditionalRunner.NetworkProvider\""));
    EXPECT_EQ(bench.host.components().TotalReferences(), 0);
}

TEST(ManagerInit, MissingHostServicesOnlyFailTheConditionsThatNeedThem) {
    LogCapture capture;
    Bench bench(true, false);
    bench.host.components().Unregister(host::AgentClientNotifications::kName);
    bench.host.components().Unregister(host::ReferenceHost::kUserManagerName);
    ASSERT_EQ(bench.manager.Init(bench.host.main()), 0);
    EXPECT_TRUE(capture.Contains(logging::kTrace, kInitDependencies, L"creating dependency [Product.UserManager]"));
    EXPECT_TRUE(
        capture.Contains(logging::kTrace, kInitDependencies, L"creating dependency [Ovra.Client.Notifications]"));
    // One miss per type that needs the user manager (three directory types
    // and the test type), one for the agent client.
    const auto misses = MessagesFrom(capture, kInitDependencies);
    EXPECT_EQ(std::count(misses.begin(), misses.end(), L"failed to create dependency"), 5);

    int32_t error = 0;
    EXPECT_EQ(bench.Create(R"({"type":"test.NeedsUserManager"})", &error), nullptr);
    EXPECT_EQ(error, qv::status::kDependencyNotFound);
    EXPECT_EQ(bench.Create(R"({"type":"ad.User","data":{"sid":"S-1-5-21-1-2-3-1104"}})", &error), nullptr);
    EXPECT_EQ(error, qv::status::kDependencyNotFound);
    EXPECT_EQ(bench.Create(R"({"type":"qv.isOvraConnected","data":{"connected":true}})", &error), nullptr);
    EXPECT_EQ(error, qv::status::kDependencyNotFound);
    EXPECT_TRUE(capture.Contains(logging::kError,
                                 L"Product::Integration::ConditionManager::ConditionisOvraConnected::Init",
                                 L"ovra client notification dependency not found"));
    // Conditions that need neither still build.
    EXPECT_NE(bench.Create(R"({"type":"boolean.TRUE"})"), nullptr);
}

TEST(ManagerInit, ResolvesHostPluginsOnceAndReleasesThemAtUninit) {
    Bench bench(true, false);
    ASSERT_EQ(bench.manager.Init(bench.host.main()), 0);
    // Looked up once per type that declares it: three directory types and the
    // test type; the nine network types, and once more by the manager itself.
    EXPECT_EQ(bench.host.components().References(L"Product.UserManager"), 4);
    EXPECT_EQ(bench.host.components().References(host::NetworkProviderStandIn::kName), 10);
    int32_t error = -1;
    {
        ConditionPtr condition = bench.Create(R"({"type":"test.NeedsUserManager"})", &error);
        EXPECT_NE(condition, nullptr);
        EXPECT_EQ(error, 0);
    }
    // Building conditions takes no further references.
    EXPECT_EQ(bench.host.components().References(L"Product.UserManager"), 4);
    EXPECT_EQ(bench.manager.Uninit(), 0);
    EXPECT_EQ(bench.host.components().TotalReferences(), 0);
}

// The host may end the manager before the trees it built: the plug-ins the
// conditions use are given back only once the last tree is gone, and a
// condition still reaches its source when it is destroyed.
TEST(ManagerInit, TreesKeepTheHostPluginsAfterTheManagerIsGone) {
    Bench bench(true, false);
    host::ComponentManager& components = bench.host.components();
    auto manager = std::make_unique<TestManager>();
    ASSERT_EQ(manager->Init(bench.host.main()), 0);
    const std::string connected = R"({"type":"qv.isOvraConnected","data":{"connected":true}})";
    ConditionPtr alone = manager->CreateCondition(ParseJson(connected), nullptr, 0);
    ConditionPtr tree = manager->CreateCondition(
        ParseJson(R"({"type":"boolean.AND","data":{"conditions":[{"type":"boolean.TRUE"},)" + connected + "]}}"),
        nullptr, 0);
    ASSERT_NE(alone, nullptr);
    ASSERT_NE(tree, nullptr);
    EXPECT_EQ(bench.agentClient.SubscriberCount(), 2u);
    bench.agentClient.SetConnectionState(false);  // a delivery is pending in both

    EXPECT_EQ(manager->Uninit(), 0);
    manager.reset();
    EXPECT_EQ(components.References(host::AgentClientNotifications::kName), 1);
    EXPECT_EQ(components.References(host::NetworkProviderStandIn::kName), 10);
    alone.reset();
    EXPECT_EQ(bench.agentClient.SubscriberCount(), 1u);
    EXPECT_EQ(components.References(host::AgentClientNotifications::kName), 1);
    tree.reset();
    EXPECT_EQ(bench.agentClient.SubscriberCount(), 0u);
    EXPECT_EQ(components.TotalReferences(), 0);
    EXPECT_EQ(bench.host.queues().WorkerCount(), 0u);
}

TEST(ManagerInit, HostIdentifierTextsParseToTheHostsIdentifiers) {
    const auto user = ParseGuid(Product::UserManager::IUserManager::iidText);
    ASSERT_TRUE(user.has_value());
    EXPECT_TRUE(qv::GuidEquals(*user, Product::UserManager::IUserManager::iid));
    // Nine digits in the first group: narrowed to 32 bits.
    const auto computer = ParseGuid(Product::ComputerManager::IComputerManager::iidText);
    ASSERT_TRUE(computer.has_value());
    EXPECT_TRUE(qv::GuidEquals(*computer, Product::ComputerManager::IComputerManager::iid));
    EXPECT_EQ(computer->Data1, 0x472AB675u);
    EXPECT_FALSE(ParseGuid(L"7B045FC4-1F00-4FD2-BBAA-4788DDFB0E44").has_value());
    EXPECT_FALSE(ParseGuid(L"{7B045FC4-1F00}").has_value());
    EXPECT_FALSE(ParseGuid(nullptr).has_value());
}

TEST(CreateCondition, BuildsAConstantWithoutDataAndLogsItsProgress) {
    LogCapture capture;
    Bench bench;
    int32_t error = -1;
    ConditionPtr condition = bench.Create(R"({"type":"boolean.TRUE"})", &error);
    ASSERT_NE(condition, nullptr);
    EXPECT_EQ(error, 0);
    EXPECT_TRUE(StateOf(*condition, false));
    EXPECT_TRUE(StateOf(*condition, true));
    EXPECT_STREQ(condition->GetType(), L"boolean.TRUE");
    EXPECT_EQ(MessagesFrom(capture, kCreate),
              (std::vector<std::wstring>{L"Creating condition of type[boolean.TRUE]",
                                         L"Condition of type [boolean.TRUE] successfully created"}));
}

// The manager tells which conditions are alive, by type: a tree's own
// conditions while it lives, none of a refused tree's, none once freed.
TEST(CreateCondition, LiveConditionsAreCountedByTypeUntilFreed) {
    Bench bench;
    auto* diagnostics = static_cast<IManagerDiagnostics*>(bench.manager.QueryInterface(IManagerDiagnostics::iid));
    ASSERT_NE(diagnostics, nullptr);
    const Json::Value before = diagnostics->LiveConditions();
    auto count = [&](const char* type) {
        return diagnostics->LiveConditions()[type].asUInt64() - before[type].asUInt64();
    };
    ConditionPtr tree = bench.Create(R"({"type":"boolean.OR","data":{"conditions":[
        {"type":"boolean.TRUE"},{"type":"boolean.NOT","data":{"condition":{"type":"boolean.TRUE"}}}]}})");
    ASSERT_NE(tree, nullptr);
    EXPECT_EQ(count("boolean.OR"), 1u);
    EXPECT_EQ(count("boolean.NOT"), 1u);
    EXPECT_EQ(count("boolean.TRUE"), 2u);
    int32_t error = 0;
    EXPECT_EQ(
        bench.Create(R"({"type":"boolean.AND","data":{"conditions":[{"type":"boolean.FALSE"},{"type":"x"}]}})", &error),
        nullptr);
    EXPECT_EQ(count("boolean.AND"), 0u);
    EXPECT_EQ(count("boolean.FALSE"), 0u);
    tree.reset();
    EXPECT_EQ(diagnostics->LiveConditions(), before);
}

// Every way a tree can be refused: the status the caller gets, the line that
// names the reason, and nothing left of the conditions built before the
// failure (their leaves, queues and host subscriptions are gone).
TEST(CreateCondition, RefusedTreesGiveTheirStatusAndLogTheReason) {
    constexpr const wchar_t* kChildren = L"Product::Integration::ConditionManager::ConditionAggregate::CreateChildren";
    constexpr const wchar_t* kChild = L"Product::Integration::ConditionManager::ConditionBooleanNot::CreateChild";
    struct Case {
        std::string json;
        int32_t status;
        int level;  // of the line naming the reason; 0: no line beyond "Creating ..."
        const wchar_t* function;
        std::wstring message;
        int uninits = 0;  // test switches built and then uninitialised
    };
    const auto noType = [](const char* json) {
        return Case{json, 87, logging::kDetail, kLoad, L"Failed to load subnode type"};
    };
    const auto missing = [](const char* json, const wchar_t* member) {
        return Case{json, 87, logging::kDetail, kLoad, std::wstring(L"Failed to load subnode ") + member};
    };
    const auto failed = [](const char* json, const wchar_t* type, int32_t status = 87, int uninits = 0) {
        return Case{json,
                    status,
                    logging::kError,
                    kCreate,
                    L"Condition of type [" + std::wstring(type) + L"] error = [" + std::to_wstring(status) + L"]",
                    uninits};
    };
    std::vector<Case> cases = {
        noType(R"({"data":{}})"),
        noType(R"({"type":5})"),
        noType(R"({"type":null})"),
        noType(R"(["boolean.TRUE"])"),
        noType(R"("boolean.TRUE")"),
        failed(R"({"type":"test.Switch","data":{"name":"a","failWith":1234}})", L"test.Switch", 1234, 1),
        failed(R"({"type":"boolean.AND","data":{"conditions":[]}})", L"boolean.AND"),
        failed(R"({"type":"boolean.OR","data":{"conditions":[]}})", L"boolean.OR"),
        failed(R"({"type":"boolean.OR","data":{"conditions":{"type":"boolean.TRUE"}}})", L"boolean.OR"),
        {R"({"type":"test.NoFactory"})", 87, logging::kError, kCreate,
         L"Invalid factory function for type [test.NoFactory]"},
        missing(R"({"type":"boolean.AND"})", L"conditions"),
        missing(R"({"type":"boolean.NOT","data":{}})", L"condition"),
        // A child that fails fails the whole tree with its error.
        {Combine("boolean.AND", {Switch("f.a"), R"({"type":"boolean.XOR"})"}), 120, logging::kError, kChildren,
         L"Failed to create child condition", 1},
        {Not(Combine("boolean.OR", {R"({"type":"test.Switch","data":{}})"})), 87, logging::kError, kChild,
         L"Failed to create child condition", 1},
        missing(R"({"type":"qv.isOvraConnected"})", L"connected"),
        missing(R"({"type":"qv.isOvraConnected","data":{}})", L"connected"),
        missing(R"({"type":"qv.isOvraConnected","data":{"connected":"yes"}})", L"connected"),
        missing(R"({"type":"Test.FileExists","data":{}})", L"filePath"),
        failed(R"({"type":"Test.FileExists","data":{"filePath":""}})", L"Test.FileExists"),
    };
    // Unknown types give 120 and no line beyond "Creating ...". Matching is
    // exact.
    for (const char* type : {"boolean.true", "Boolean.TRUE", "boolean.XOR", "", "network.ip", "network.IPrange",
                             "Network.canResolveHost", "ad.user", "AD.ComputerGroup.OU"})
        cases.push_back({std::string(R"({"type":")") + type + "\"}", 120, 0, kCreate, L""});

    Bench bench;
    for (const Case& c : cases) {
        LogCapture capture;
        const int uninitsBefore = ConditionTestSwitch::uninits;
        int32_t error = 0;
        EXPECT_EQ(bench.Create(c.json, &error), nullptr) << c.json;
        EXPECT_EQ(error, c.status) << c.json;
        if (c.level) {
            EXPECT_TRUE(capture.Contains(c.level, c.function, c.message)) << c.json;
        } else {
            const auto messages = MessagesFrom(capture, kCreate);
            ASSERT_EQ(messages.size(), 1u) << c.json;
            EXPECT_EQ(messages[0].rfind(L"Creating condition of type[", 0), 0u);
        }
        if (c.message == L"Failed to load subnode type") {
            EXPECT_TRUE(capture.Contains(logging::kError, kCreate, L"Failed to find type for condition. Invalid Json"));
        }
        EXPECT_EQ(ConditionTestSwitch::uninits, uninitsBefore + c.uninits) << c.json;
        EXPECT_EQ(ConditionTestSwitch::live, 0);
        EXPECT_EQ(bench.board.AttachedLeaves(), 0u);
        EXPECT_EQ(bench.host.queues().WorkerCount(), 0u);
        EXPECT_EQ(bench.agentClient.SubscriberCount(), 0u);
    }
}

// A chain of `levels` conditions: NOT over NOT ... over boolean.TRUE.
std::string NotChain(size_t levels) { return levels > 1 ? Not(NotChain(levels - 1)) : R"({"type":"boolean.TRUE"})"; }

TEST(CreateCondition, RefusesTreesNestedDeeperThanTheBound) {
    Bench bench;
    int32_t error = -1;
    ConditionPtr deepest = bench.Create(NotChain(Manager::kMaxConditionDepth), &error);
    ASSERT_NE(deepest, nullptr);
    EXPECT_EQ(error, 0);
    // 63 negations of true.
    EXPECT_FALSE(StateOf(*deepest, true));
    deepest.reset();

    {
        LogCapture capture;
        EXPECT_EQ(bench.Create(NotChain(Manager::kMaxConditionDepth + 1), &error), nullptr);
        EXPECT_EQ(error, qv::status::kInvalidParameter);
        EXPECT_TRUE(capture.Contains(logging::kError, kCreate, L"Condition tree nested deeper than 64 levels"));
    }

    // As deep as the JSON reader lets a console send (each level is three JSON levels).
    EXPECT_EQ(bench.Create(NotChain(320), &error), nullptr);
    EXPECT_EQ(error, qv::status::kInvalidParameter);

    // The bound counts nesting, not size, and is reset after each tree.
    ConditionPtr broad = bench.Create(Combine("boolean.AND", std::vector<std::string>(100, NotChain(30))), &error);
    EXPECT_NE(broad, nullptr);
    EXPECT_EQ(error, 0);
}

// An OR over `leaves` switches: one condition more than its leaves.
std::string OrOfSwitches(size_t leaves) { return Combine("boolean.OR", std::vector<std::string>(leaves, Switch("s"))); }

// A refused tree builds nothing: not one leaf comes to life.
TEST(CreateCondition, RefusesTreesWithMoreConditionsThanTheBound) {
    Bench bench;
    int32_t error = -1;
    ConditionPtr largest = bench.Create(OrOfSwitches(Manager::kMaxConditionNodes - 1), &error);
    ASSERT_NE(largest, nullptr);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(ConditionTestSwitch::live, static_cast<int>(Manager::kMaxConditionNodes - 1));
    largest.reset();

    LogCapture capture;
    const int uninitsBefore = ConditionTestSwitch::uninits;
    EXPECT_EQ(bench.Create(OrOfSwitches(Manager::kMaxConditionNodes), &error), nullptr);
    EXPECT_EQ(error, qv::status::kInvalidParameter);
    EXPECT_EQ(ConditionTestSwitch::live, 0);
    EXPECT_EQ(ConditionTestSwitch::uninits, uninitsBefore);
    EXPECT_TRUE(capture.Contains(logging::kError, kCreate, L"Condition tree has more than 10000 conditions"));
}

// Takes a value apart from the top, so that no recursion of the JSON library
// runs over its depth.
void Dismantle(Json::Value& value) {
    std::deque<Json::Value> pending;
    pending.push_back(std::move(value));
    while (!pending.empty()) {
        Json::Value current = std::move(pending.back());
        pending.pop_back();
        for (Json::Value& child : current) pending.push_back(std::move(child));
    }
}

// Values nested far deeper than the JSON reader allows can still come from
// memory; they are refused before the manager copies (and so recurses over)
// any part of them.
TEST(CreateCondition, RefusesDeeplyNestedValuesBeforeCopyingThem) {
    constexpr int kLevels = 100000;
    Bench bench;
    // A constant whose "data" holds nested arrays.
    Json::Value arrays = ParseJson(R"({"type":"boolean.TRUE","data":{"junk":[]}})");
    Json::Value* inner = &arrays["data"]["junk"];
    for (int i = 0; i < kLevels; ++i) inner = &inner->append(Json::Value(Json::arrayValue));
    // A chain of negations.
    Json::Value negations;
    inner = &negations;
    for (int i = 0; i < kLevels; ++i) {
        (*inner)["type"] = "boolean.NOT";
        inner = &(*inner)["data"]["condition"];
    }
    (*inner)["type"] = "boolean.TRUE";

    for (Json::Value* deep : {&arrays, &negations}) {
        int32_t error = -1;
        EXPECT_EQ(bench.manager.CreateCondition(*deep, &error, 0), nullptr);
        EXPECT_EQ(error, qv::status::kInvalidParameter);
        Dismantle(*deep);
    }
    // Within the bounds, parameters may nest some hundreds of levels.
    int32_t error = -1;
    EXPECT_NE(
        bench.Create(R"({"type":"boolean.TRUE","data":{"junk":)" + std::string(400, '[') + std::string(400, ']') + "}}",
                     &error),
        nullptr);
    EXPECT_EQ(error, 0);
}

}  // namespace
}  // namespace condition_testing
