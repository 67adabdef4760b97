// One evaluation pass: which rules are true, whether that changed since the
// last run, and the method-set runs that follow.
#include <map>
#include <vector>

#include <json/reader.h>
#include <json/writer.h>

#include "os/utf8.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"
#include "runner/conditional_runner_al.h"

namespace Product::Integration::ConditionalRunner {
namespace {
constexpr const wchar_t* kReEvalRules = L"ConditionalRunnerAL::ReEvalRules";
constexpr const wchar_t* kRunMethod = L"ConditionalRunnerAL::RunMethod";
// Who asks the policy runner: the host's service.
constexpr const wchar_t* kCaller = L"ovrahostsvc.exe";
}  // namespace

int32_t ConditionalRunnerAL::RunMethod(const std::wstring& methodSetId, std::wstring& response, MethodRunData& run) {
    logging::CallTrace trace(kRunMethod);
    logging::Log(logging::kDetail, kRunMethod, L"Try to run method [%s]", methodSetId.c_str());
    Method stored;
    if (const int32_t status = store_.ReadMethod(methodSetId, stored); status != 0) return status;
    Json::Value request(Json::objectValue);
    request["methods"] = stored.methods;
    if (!stored.context.isNull()) request["context"] = stored.context;
    const std::wstring text = os::Utf8ToWideLossy(request.toStyledString());
    runPolicyAgent_.Reset();
    return policyRunner_->RunPolicy(text.c_str(), response, 0, run.runOutput, kCaller, &runPolicyAgent_);
}

int32_t ConditionalRunnerAL::ReEvalRules() {
    logging::CallTrace trace(kReEvalRules);
    std::lock_guard lock(lock_);
    if (transactionInProgress_) {
        logging::Log(logging::kDetail, kReEvalRules,
                     L"rules and methods transaction in progress. Skip evaluation this time");
        return 0;
    }
    const bool invalidateCache = invalidateCache_.exchange(false);
    logging::Log(logging::kDetail, kReEvalRules, L"Invalidate cache is %d.", invalidateCache ? 1 : 0);

    // The true rules whose method set exists, in rule order. Nothing is
    // copied until the pass knows that something changed.
    std::vector<LastRun::Installed> trueEntries;
    trueEntries.reserve(rules_.size());
    for (RuleEntry& entry : rules_) {
        if (!entry.condition) continue;
        bool state = false;
        const int32_t status = entry.condition->GetState(&state, invalidateCache);
        logging::Log(logging::kDetail, kReEvalRules, L"Rule with id %s has state %s", entry.rule->rule.id.c_str(),
                     state ? L"true" : L"false");
        if (status != 0 || !state) continue;
        if (entry.methodSetCheckedAt != methodSetsVersion_) {
            entry.methodSetKnown = methodSets_.find(entry.rule->rule.methodSetId) != methodSets_.end();
            entry.methodSetCheckedAt = methodSetsVersion_;
        }
        if (!entry.methodSetKnown) {
            logging::Log(logging::kDetail, kReEvalRules, L"method (%s) was not found",
                         entry.rule->rule.methodSetId.c_str());
            continue;
        }
        trueEntries.push_back(LastRun::Installed{&entry.rule, entry.serial});
    }

    // The same rules true in the same order as at the last run: nothing to do.
    if (lastRun_.Matches(trueEntries)) {
        logging::Log(logging::kDetail, kReEvalRules, L"Nothing changed from the last run");
        return 0;
    }

    // One run per method set, in order of first appearance, naming its rules.
    qv::List<MethodRunData> toRun;
    std::map<std::wstring, MethodRunData*> runOf;  // the run of each method set in `toRun`
    std::map<const MethodRunData*, std::vector<const Rule*>> rulesOf;
    for (const LastRun::Installed& installed : trueEntries) {
        const Rule& rule = (*installed.rule)->rule;
        MethodRunData*& run = runOf[rule.methodSetId];
        if (!run) {
            MethodRunData created;
            created.methodSetId = rule.methodSetId;
            if (toRun.AddTail(created) != 0) return qv::status::kNotEnoughMemory;
            run = toRun.GetTail();  // list elements stay where they are
        }
        if (run->ruleIds.AddTail(rule.id) != 0) return qv::status::kNotEnoughMemory;
        rulesOf[run].push_back(&rule);
    }
    if (const int32_t status = lastRun_.Set(trueEntries); status != 0) return status;
    // True on disk exactly while method sets may be half run.
    static_cast<void>(store_.SaveMethodsRunStarted(true));  // a failure is logged by the store

    bool leftUnapplied = false;
    toRun.ForEach([&](MethodRunData& run) {
        std::wstring response;
        const auto found = methodSets_.find(run.methodSetId);
        if (found == methodSets_.end()) {
            logging::Log(logging::kError, kReEvalRules, L"Cannot find methodSetId %s", run.methodSetId.c_str());
            run.status = qv::status::kNotFound;
            return;
        }
        run.status = RunMethod(run.methodSetId, response, run);
        logging::Log(logging::kDetail, kReEvalRules, L"Running methodSetId %s, err = %i", run.methodSetId.c_str(),
                     run.status);
        if (!response.empty()) {
            Json::CharReaderBuilder builder;
            builder["collectComments"] = true;
            const std::string text = os::WideToUtf8Lossy(response);
            std::string errors;
            std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
            if (!reader->parse(text.data(), text.data() + text.size(), &run.response, &errors)) {
                logging::Log(logging::kWarning, kReEvalRules, L"Cannot parse response %S", text.c_str());
                run.response = Json::Value();
            }
        }
        const std::wstring& name = found->second.displayName;
        if (runPolicyAgent_.notConnected())
            logging::Log(logging::kWarning, kReEvalRules, L"running methodset [%s] returned with error 2250",
                         name.c_str());
        if (runPolicyAgent_.agentNotFound())
            logging::Log(logging::kWarning, kReEvalRules, L"running methodset [%s] returned with error AGENT_NOT_FOUND",
                         name.c_str());
        if (runPolicyAgent_.notConnected() || runPolicyAgent_.agentNotFound()) {
            // The run did not reach its target: its rules count as changed
            // at the next pass, which a later signal brings.
            lastRun_.Forget(rulesOf[&run]);
            leftUnapplied = true;
        }
    });

    static_cast<void>(onMethodSetsRun_(toRun));  // subscribers report their own failures
    if (leftUnapplied) {
        logging::Log(logging::kDetail, kReEvalRules,
                     L"There are some valid rules which were not applied; re-signal after 30s");
        if (const int32_t status = eventQueue_.Post([this] { signals_.RequestEvaluation(); }, kRetryDelayMs);
            status != 0)
            logging::Log(logging::kError, kReEvalRules, L"cannot schedule the re-evaluation [%d]", status);
    }
    // Saving failures are logged by the store and do not stop the pass.
    static_cast<void>(store_.SaveRules(RunnerStore::kLastRunPath, lastRun_.rules()));
    static_cast<void>(store_.SaveMethodsRunStarted(false));
    return 0;
}

}  // namespace Product::Integration::ConditionalRunner
