// The manager: start-up with and without its dependencies, the outcomes of
// CreateCondition, the nesting bound, and its export.
#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>

#include "condition_test_support.h"
#include "qv/computer_manager.h"
#include "support/log_capture.h"

namespace condition_testing {
namespace {

using testing_support::LogCapture;

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
    EXPECT_EQ(bench.manager.Init(nullptr), 87);
    EXPECT_TRUE(capture.Contains(logging::kError, kInit, L"failed to init dependencies"));
    bench.host.components().Unregister(host::NetworkProviderStandIn::kName);
    EXPECT_EQ(bench.manager.Init(bench.host.main()), 5002);
    EXPECT_TRUE(capture.Contains(logging::kError, kInit, L"failed to get network provider"));
    EXPECT_TRUE(capture.Contains(logging::kWarning, L"ServPlugin<class Product::Integration::INetworkProvider>::GetPlugin",
                                 L"Error 1168 getting plugin \"Product.ConditionalRunner.NetworkProvider\""));
    EXPECT_EQ(bench.host.components().TotalReferences(), 0);
}

TEST(ManagerInit, MissingHostServicesOnlyFailTheConditionsThatNeedThem) {
    LogCapture capture;
    Bench bench(true, false);
    bench.host.components().Unregister(host::AgentClientNotifications::kName);
    ASSERT_EQ(bench.manager.Init(bench.host.main()), 0);
    EXPECT_TRUE(capture.Contains(logging::kTrace, kInitDependencies, L"creating dependency [Product.UserManager]"));
    EXPECT_TRUE(capture.Contains(logging::kTrace, kInitDependencies, L"creating dependency [Ovra.Client.Notifications]"));
    // One miss for the user manager, one for the agent client.
    const auto misses = MessagesFrom(capture, kInitDependencies);
    EXPECT_EQ(std::count(misses.begin(), misses.end(), L"failed to create dependency"), 2);

    int32_t error = 0;
    EXPECT_EQ(bench.Create(R"({"type":"test.NeedsUserManager"})", &error), nullptr);
    EXPECT_EQ(error, 5002);
    EXPECT_EQ(bench.Create(R"({"type":"qv.isOvraConnected","data":{"connected":true}})", &error), nullptr);
    EXPECT_EQ(error, 5002);
    EXPECT_TRUE(capture.Contains(logging::kError,
                                 L"Product::Integration::ConditionManager::ConditionisOvraConnected::Init",
                                 L"ovra client notification dependency not found"));
    // Conditions that need neither still build.
    EXPECT_NE(bench.Create(R"({"type":"boolean.TRUE"})"), nullptr);
}

TEST(ManagerInit, ResolvesHostPluginsOnceAndReleasesThemAtUninit) {
    Bench bench(true, false);
    FakeUserManager users;
    bench.host.components().Register(L"Product.UserManager", &users);
    ASSERT_EQ(bench.manager.Init(bench.host.main()), 0);
    EXPECT_EQ(bench.host.components().References(L"Product.UserManager"), 1);
    EXPECT_EQ(bench.host.components().References(host::NetworkProviderStandIn::kName), 1);
    int32_t error = -1;
    {
        ConditionPtr condition = bench.Create(R"({"type":"test.NeedsUserManager"})", &error);
        EXPECT_NE(condition, nullptr);
        EXPECT_EQ(error, 0);
    }
    // Building conditions takes no further references.
    EXPECT_EQ(bench.host.components().References(L"Product.UserManager"), 1);
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
    EXPECT_EQ(components.References(host::NetworkProviderStandIn::kName), 1);
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

TEST(CreateCondition, RefusesJsonWithoutAStringType) {
    Bench bench;
    for (const char* json : {R"({"data":{}})", R"({"type":5})", R"({"type":null})", R"(["boolean.TRUE"])",
                             R"("boolean.TRUE")"}) {
        LogCapture capture;
        int32_t error = 0;
        EXPECT_EQ(bench.Create(json, &error), nullptr) << json;
        EXPECT_EQ(error, 87) << json;
        EXPECT_TRUE(capture.Contains(logging::kDetail, kLoad, L"Failed to load subnode type")) << json;
        EXPECT_TRUE(capture.Contains(logging::kError, kCreate, L"Failed to find type for condition. Invalid Json"))
            << json;
    }
}

TEST(CreateCondition, UnknownKeywordsGive120WithNoFurtherMessage) {
    Bench bench;
    // Matching is exact; the network and directory types are not built yet.
    for (const char* type : {"boolean.true", "Boolean.TRUE", "boolean.XOR", "", "network.IP", "network.IPRange",
                             "network.canResolveHost", "ad.User", "ad.ComputerGroup.OU"}) {
        LogCapture capture;
        int32_t error = 0;
        EXPECT_EQ(bench.Create(std::string(R"({"type":")") + type + "\"}", &error), nullptr) << type;
        EXPECT_EQ(error, 120) << type;
        const auto messages = MessagesFrom(capture, kCreate);
        ASSERT_EQ(messages.size(), 1u) << type;
        EXPECT_EQ(messages[0].rfind(L"Creating condition of type[", 0), 0u);
    }
}

// A failed Init returns its status and destroys the condition through its
// deleter; an entry without factory function gives 87.
TEST(CreateCondition, FailuresAfterTheTypeWasFound) {
    LogCapture capture;
    Bench bench;
    const int uninitsBefore = ConditionTestSwitch::uninits;
    int32_t error = 0;
    EXPECT_EQ(bench.Create(R"({"type":"test.Switch","data":{"name":"a","failWith":1234}})", &error), nullptr);
    EXPECT_EQ(error, 1234);
    EXPECT_TRUE(capture.Contains(logging::kError, kCreate, L"Condition of type [test.Switch] error = [1234]"));
    EXPECT_EQ(ConditionTestSwitch::live, 0);
    EXPECT_EQ(ConditionTestSwitch::uninits, uninitsBefore + 1);

    EXPECT_EQ(bench.Create(R"({"type":"boolean.AND","data":{"conditions":[]}})", &error), nullptr);
    EXPECT_EQ(error, 87);
    EXPECT_TRUE(capture.Contains(logging::kError, kCreate, L"Condition of type [boolean.AND] error = [87]"));
    EXPECT_EQ(bench.Create(R"({"type":"test.NoFactory"})", &error), nullptr);
    EXPECT_EQ(error, 87);
    EXPECT_TRUE(capture.Contains(logging::kError, kCreate, L"Invalid factory function for type [test.NoFactory]"));
}

// A chain of `levels` conditions: NOT over NOT ... over boolean.TRUE.
std::string NotChain(size_t levels) {
    std::string json = R"({"type":"boolean.TRUE"})";
    for (size_t i = 1; i < levels; ++i) json = R"({"type":"boolean.NOT","data":{"condition":)" + json + "}}";
    return json;
}

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
        EXPECT_EQ(error, 87);
        EXPECT_TRUE(capture.Contains(logging::kError, kCreate, L"Condition tree nested deeper than 64 levels"));
    }

    // As deep as the JSON reader lets a console send (each level is three JSON levels).
    EXPECT_EQ(bench.Create(NotChain(320), &error), nullptr);
    EXPECT_EQ(error, 87);

    // The bound counts nesting, not size, and is reset after each tree.
    std::string wide = R"({"type":"boolean.AND","data":{"conditions":[)";
    for (int i = 0; i < 100; ++i) wide += std::string(i ? "," : "") + NotChain(30);
    wide += "]}}";
    ConditionPtr broad = bench.Create(wide, &error);
    EXPECT_NE(broad, nullptr);
    EXPECT_EQ(error, 0);
}

// An OR over `leaves` switches: one condition more than its leaves.
std::string OrOfSwitches(size_t leaves) {
    std::string json = R"({"type":"boolean.OR","data":{"conditions":[)";
    for (size_t i = 0; i < leaves; ++i) json += std::string(i ? "," : "") + R"({"type":"test.Switch","data":{"name":"s"}})";
    return json + "]}}";
}

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
    EXPECT_EQ(error, 87);
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
        EXPECT_EQ(error, 87);
        Dismantle(*deep);
    }
    // Within the bounds, parameters may nest some hundreds of levels.
    int32_t error = -1;
    EXPECT_NE(bench.Create(R"({"type":"boolean.TRUE","data":{"junk":)" + std::string(400, '[') +
                           std::string(400, ']') + "}}", &error), nullptr);
    EXPECT_EQ(error, 0);
}

}  // namespace
}  // namespace condition_testing
