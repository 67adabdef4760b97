// The condition factory over any JSON: a tree is built (0), or refused as
// malformed (87) or of an unknown type (120), and nothing else; a built tree
// answers its state and is destroyed without a trace (the sanitizers watch
// the freeing, and the live-condition count returns to zero). The input is
// the JSON text of a condition.
#include <cstdint>
#include <memory>
#include <string>

#include "conditions/manager.h"
#include "fuzz_check.h"
#include "host/agent_client_notifications.h"
#include "host/network_provider_standin.h"
#include "host/reference_host.h"
#include "json/strict_json.h"

namespace {

using Product::Integration::ConditionManager::ConditionPtr;
using Product::Integration::ConditionManager::IManagerDiagnostics;
using Product::Integration::ConditionManager::Manager;

// The host and the manager, made once for the whole run.
struct Bench {
    Bench() : host(true) {
        host.components().Register(host::NetworkProviderStandIn::kName, &provider);
        host.components().Register(host::AgentClientNotifications::kName, &agentClient);
        FUZZ_CHECK(manager.Init(host.main()) == 0, "the manager does not start");
    }
    host::ReferenceHost host;
    host::NetworkProviderStandIn provider;
    host::AgentClientNotifications agentClient{true};
    Manager manager;
};

Bench& TheBench() {
    static Bench* bench = new Bench;  // lives until the process ends, as the fuzzer does
    return *bench;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Json::Value json;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (strict_json::Parse(text, json) != strict_json::Outcome::kParsed) return 0;
    Bench& bench = TheBench();
    int32_t error = -1;
    ConditionPtr condition = bench.manager.CreateCondition(json, &error, 0);
    if (condition) {
        FUZZ_CHECK(error == 0, "a tree was built with status %d", error);
        bool state = false;
        FUZZ_CHECK(condition->GetState(&state, true) == 0, "a built tree cannot tell its state");
        condition.reset();
    } else {
        FUZZ_CHECK(error == 87 || error == 120, "a refusal with status %d", error);
    }
    auto* diagnostics = static_cast<IManagerDiagnostics*>(bench.manager.QueryInterface(IManagerDiagnostics::iid));
    FUZZ_CHECK(diagnostics->LiveConditions().empty(), "conditions outlive their tree");
    return 0;
}
