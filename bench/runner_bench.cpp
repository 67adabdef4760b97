// The runner's costs as the number of rules grows: an evaluation that finds
// nothing changed, one in which a single rule flips, replacing all rules
// (persistence included), and starting over stored rules.
#include <benchmark/benchmark.h>
#include <json/reader.h>

#include <filesystem>
#include <memory>
#include <string>

#include "conditions/manager.h"
#include "host/network_provider_standin.h"
#include "host/reference_host.h"
#include "host/settings_store.h"
#include "os/file_io.h"
#include "os/utf8.h"
#include "plugin/module_names.h"
#include "runner/conditional_runner_al.h"

namespace {

using namespace Product::Integration::ConditionalRunner;
using Product::Integration::ConditionManager::Manager;

Json::Value Parse(const std::string& text) {
    Json::Value value;
    Json::Reader().parse(text, value);
    return value;
}

// A folder of its own under the system's temporary folder, removed at the end.
class Scratch {
public:
    Scratch() {
        path_ = std::filesystem::temp_directory_path() /
                ("cr-bench-" + std::to_string(reinterpret_cast<uintptr_t>(this)) + std::to_string(counter_++));
        std::filesystem::create_directories(path_);
    }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::wstring File(const std::wstring& name) const { return (path_ / name).wstring(); }

private:
    static inline int counter_ = 0;
    std::filesystem::path path_;
};

// A runner over the reference host and a settings file in `scratch`.
class Bench {
public:
    explicit Bench(const Scratch& scratch) : host_(true, OpenStore(scratch.File(L"settings.json"))) {
        host_.components().Register(host::NetworkProviderStandIn::kName, &provider_);
        host_.components().Register(qv::names::kConditionManager, static_cast<IServPlugin*>(&manager_));
        Check(manager_.Init(host_.main()));
        Check(runner_.Init(host_.main()));
    }
    ~Bench() {
        static_cast<void>(runner_.Uninit());
        static_cast<void>(manager_.Uninit());
    }

    ConditionalRunnerAL& runner() { return runner_; }
    static void Check(int32_t status) {
        if (status != 0) std::abort();
    }

private:
    static std::unique_ptr<host::SettingsStore> OpenStore(const std::wstring& file) {
        std::wstring error;
        return host::SettingsStore::Open(file, error);
    }

    host::ReferenceHost host_;
    host::NetworkProviderStandIn provider_;
    Manager manager_;
    ConditionalRunnerAL runner_;
};

// Whether some of the rules made below are false.
enum class Mix { kEveryFourthFalse, kAllTrue };

// `count` rules over 100 method sets; with kEveryFourthFalse rule i is false
// when i % 4 == 3; every eighth is a small combinator tree. Rule 0 follows
// `watched` when given.
qv::List<Rule> MakeRules(size_t count, const std::wstring& watched = L"", Mix mix = Mix::kEveryFourthFalse) {
    const Json::Value yes = Parse(R"({"type":"boolean.TRUE"})");
    const Json::Value no = Parse(R"({"type":"boolean.FALSE"})");
    const Json::Value tree = Parse(R"({"type":"boolean.AND","data":{"conditions":[
        {"type":"boolean.TRUE"},{"type":"boolean.NOT","data":{"condition":{"type":"boolean.FALSE"}}}]}})");
    qv::List<Rule> rules;
    for (size_t i = 0; i < count; ++i) {
        Json::Value matchIf = mix == Mix::kEveryFourthFalse && i % 4 == 3 ? no : i % 8 == 0 ? tree : yes;
        if (i == 0 && !watched.empty())
            matchIf = Parse(R"({"type":"Test.FileExists","data":{"filePath":)" +
                            Json::Value(os::WideToUtf8Lossy(watched)).toStyledString() + "}}");
        Bench::Check(rules.AddTail(Rule{L"rule" + std::to_wstring(i), L"Rule " + std::to_wstring(i),
                                        L"set" + std::to_wstring(i % 100), matchIf}));
    }
    return rules;
}

void AddMethodSets(ConditionalRunnerAL& runner) {
    for (int i = 0; i < 100; ++i)
        Bench::Check(runner.SetMethod(
            Method{L"set" + std::to_wstring(i), L"", Parse(R"([{"plugin":"P","method":"m"}])"), Json::Value()}, false));
}

void SetUp(ConditionalRunnerAL& runner, size_t count, const std::wstring& watched = L"",
           Mix mix = Mix::kEveryFourthFalse) {
    AddMethodSets(runner);
    qv::List<RuleError> errors;
    Bench::Check(runner.SetRules(MakeRules(count, watched, mix), errors));
    Bench::Check(runner.ReEvalRules());  // the first run; later passes compare with it
}

void BM_EvaluationWithNothingChanged(benchmark::State& state) {
    Scratch scratch;
    Bench bench(scratch);
    SetUp(bench.runner(), static_cast<size_t>(state.range(0)));
    for (auto _ : state) Bench::Check(bench.runner().ReEvalRules());
}
BENCHMARK(BM_EvaluationWithNothingChanged)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

// Every rule is true. Every pass asks each condition afresh (as after the
// service connected) and finds rule 0 flipped: its method set runs and the
// last run is stored.
void BM_EvaluationWithOneRuleFlipped(benchmark::State& state) {
    Scratch scratch;
    Bench bench(scratch);
    const std::wstring watched = scratch.File(L"watched");
    SetUp(bench.runner(), static_cast<size_t>(state.range(0)), watched, Mix::kAllTrue);
    bool present = false;
    for (auto _ : state) {
        state.PauseTiming();
        present = !present;
        if (present)
            static_cast<void>(os::OpenFile(watched, L"wb"));
        else
            std::filesystem::remove(std::filesystem::path(watched));
        bench.runner().OnConnectionEvent(EndpointService::kServiceConnected);
        state.ResumeTiming();
        Bench::Check(bench.runner().ReEvalRules());
    }
}
BENCHMARK(BM_EvaluationWithOneRuleFlipped)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_SetRules(benchmark::State& state) {
    Scratch scratch;
    Bench bench(scratch);
    const qv::List<Rule> rules = MakeRules(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        qv::List<RuleError> errors;
        Bench::Check(bench.runner().SetRules(rules, errors));
    }
}
BENCHMARK(BM_SetRules)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

// A runner made, initialised and started over stored rules and method sets.
void BM_StartOverStoredRules(benchmark::State& state) {
    Scratch scratch;
    {
        Bench stored(scratch);
        SetUp(stored.runner(), static_cast<size_t>(state.range(0)));
    }
    for (auto _ : state) {
        Bench bench(scratch);
        Bench::Check(bench.runner().Start());
        state.PauseTiming();
        Bench::Check(bench.runner().Stop());
        state.ResumeTiming();
    }
}
BENCHMARK(BM_StartOverStoredRules)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
