// The agent's relay of run reports: one "Product.ConditionalRunner.MethodSetsRun"
// event per report, whose payload is
//   {"data": [{"response": <run response>, "error": <status>, "rulesMatched": [<rule id>, ...]}, ...]}
// with one object per run, in report order. Runs on the runner's evaluation thread.
#include "agent/conditional_runner_agent.h"
#include "model/json_composed_serializer.h"
#include "os/utf8.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionalRunner {
namespace {
constexpr const wchar_t* kOnMethodSetsRun = L"ConditionalRunnerAgent::OnMethodSetsRun";
}  // namespace

int32_t ConditionalRunnerAgent::OnMethodSetsRun(const qv::IList<IConditionalRunner::MethodRunData>& runs) {
    logging::CallTrace trace(kOnMethodSetsRun);
    // Private copies, so the runner's list is not touched while the payload is built.
    std::vector<RunItem> items;
    runs.ForEach([&](const IConditionalRunner::MethodRunData& run) {
        RunItem item{run.methodSetId, run.status, run.response, {}};
        run.ruleIds.ForEach([&](const std::wstring& id) { item.ruleIds.push_back(id); });
        items.push_back(std::move(item));
    });
    const int32_t status = SendMethodSetsRun(items);
    if (status != 0)
        logging::Log(logging::kError, kOnMethodSetsRun, L"Cannot send MethodSetsRun event. [error = %d]", status);
    return 0;
}

int32_t ConditionalRunnerAgent::SendMethodSetsRun(const std::vector<RunItem>& items) {
    using qv::JsonComposedSerializer;
    if (!agentManager()) return qv::status::kInvalidParameter;
    if (items.empty()) return qv::status::kNoData;

    Json::Value root(Json::objectValue);
    Json::Value* data = JsonComposedSerializer::FindOrCreate(root, L"data");
    if (!data) return qv::status::kPathNotFound;
    *data = Json::Value(Json::arrayValue);

    for (const RunItem& item : items) {
        Json::Value run(Json::objectValue);
        if (!JsonComposedSerializer::Store(run, L"response", item.response) ||
            !JsonComposedSerializer::Store(run, L"error", item.status))
            continue;  // left out; the other runs are still reported
        Json::Value& matched = run["rulesMatched"] = Json::Value(Json::arrayValue);
        for (const std::wstring& id : item.ruleIds) matched.append(Json::Value(os::WideToUtf8Lossy(id)));
        data->append(std::move(run));
    }

    return agentManager()->SendEvent(kMethodSetsRunEvent, root, 0) ? qv::status::kSuccess : qv::status::kCreateFailed;
}

}  // namespace Product::Integration::ConditionalRunner
