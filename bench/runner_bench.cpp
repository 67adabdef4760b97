// The runner's costs as the number of rules grows: an evaluation that finds
// nothing changed, one in which a single rule flips (over the reference
// host's store and policy runner: the whole; and over stand-ins that answer
// at once: the runner's own share), replacing all rules (persistence
// included), starting over stored rules, and the memory that installed rules
// take.
#include <benchmark/benchmark.h>
#include <json/reader.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "conditions/manager.h"
#include "host/network_provider_standin.h"
#include "host/reference_host.h"
#include "host/settings/settings_store.h"
#include "module_share_standins.h"
#include "network/network_provider.h"
#include "os/file_io.h"
#include "os/utf8.h"
#include "plugin/module_names.h"
#include "qv/status.h"
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

// Which network provider the conditions see.
enum class Network { kStandIn, kMachine };
// Which host services a pass calls: the reference host's settings store
// (in a file) and policy runner, or the stand-ins that answer at once (the
// runner's own share; see module_share_standins.h).
enum class Services { kReference, kStandIns };

// A runner over the reference host and a settings file in `scratch`.
class Bench {
public:
    explicit Bench(const Scratch& scratch, Network network = Network::kStandIn,
                   Services services = Services::kReference)
        : host_(true, services == Services::kReference ? OpenStore(scratch.File(L"settings.json")) : nullptr) {
        if (services == Services::kStandIns) {
            memory_ = std::make_unique<bench::MemorySettings>();
            host_.components().Register(host::ReferenceHost::kSettingsName, memory_.get());
            host_.components().Register(host::ReferenceHost::kPolicyRunnerName, &instantRunner_);
        }
        if (network == Network::kMachine) {
            machine_ = std::make_unique<Product::Integration::NetworkProvider>();
            Check(machine_->Init(host_.main()));
            host_.components().Register(host::NetworkProviderStandIn::kName,
                                        static_cast<Product::Integration::INetworkProvider*>(machine_.get()));
        } else {
            host_.components().Register(host::NetworkProviderStandIn::kName, &provider_);
        }
        host_.components().Register(qv::names::kConditionManager, static_cast<IServPlugin*>(&manager_));
        Check(manager_.Init(host_.main()));
        Check(runner_.Init(host_.main()));
    }
    ~Bench() {
        static_cast<void>(runner_.Uninit());
        static_cast<void>(manager_.Uninit());
    }

    ConditionalRunnerAL& runner() { return runner_; }
    // From now on the settings keep nothing (Services::kStandIns only).
    void DiscardWrites() {
        if (memory_) memory_->DiscardWrites();
    }
    static void Check(int32_t status) {
        if (status != 0) std::abort();
    }

private:
    static std::unique_ptr<host::SettingsStore> OpenStore(const std::wstring& file) {
        os::Expected<std::unique_ptr<host::SettingsStore>> store = host::SettingsStore::Open(file);
        return store ? std::move(*store) : nullptr;
    }

    std::unique_ptr<bench::MemorySettings> memory_;
    bench::InstantPolicyRunner instantRunner_;
    host::ReferenceHost host_;
    host::NetworkProviderStandIn provider_;
    std::unique_ptr<Product::Integration::NetworkProvider> machine_;
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
// service connected) and finds rule 0 flipped: every method set runs again
// (100 runs, each reading its stored node and building its request) and the
// last run (every true rule) is stored.
void OneRuleFlipped(benchmark::State& state, Services services) {
    Scratch scratch;
    Bench bench(scratch, Network::kStandIn, services);
    const std::wstring watched = scratch.File(L"watched");
    SetUp(bench.runner(), static_cast<size_t>(state.range(0)), watched, Mix::kAllTrue);
    bench.DiscardWrites();
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

// The whole: the runner's work, the reference store reading the method sets'
// nodes and writing the last run to its file, and the reference policy
// runner parsing and running each request.
void BM_EvaluationWithOneRuleFlipped(benchmark::State& state) { OneRuleFlipped(state, Services::kReference); }
BENCHMARK(BM_EvaluationWithOneRuleFlipped)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

// The runner's own share: the same passes over stand-ins that answer at once
// (module_share_standins.h): reads come from a tree in memory, writes are
// taken and dropped, runs answer without reading the request. What remains
// is the runner's: the conditions' states and their logging, the change
// test, grouping the runs, reading each method set and building its request,
// the run thread and its results, the subscribers' report, the history, and
// making the last-run document and handing it over.
void BM_EvaluationWithOneRuleFlippedNullStore(benchmark::State& state) { OneRuleFlipped(state, Services::kStandIns); }
BENCHMARK(BM_EvaluationWithOneRuleFlippedNullStore)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

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

// What the process holds: the heap in use (allocator's count) and the
// resident set (from /proc), in bytes.
struct Footprint {
    double heap = 0;
    double resident = 0;

    static Footprint Now() {
        const struct mallinfo2 info = mallinfo2();
        Footprint now;
        now.heap = static_cast<double>(info.uordblks + info.hblkhd);
        long pages = 0;
        long residentPages = 0;
        if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
            if (std::fscanf(statm, "%ld %ld", &pages, &residentPages) != 2) residentPages = 0;
            std::fclose(statm);
        }
        now.resident = static_cast<double>(residentPages) * static_cast<double>(sysconf(_SC_PAGESIZE));
        return now;
    }
};

// Typical rules: each is the AND of an address and a DNS suffix condition,
// watching the machine's own network through the module's provider.
qv::List<Rule> MakeNetworkRules(size_t count) {
    qv::List<Rule> rules;
    for (size_t i = 0; i < count; ++i) {
        const std::string address = "10." + std::to_string(i / 256 % 256) + "." + std::to_string(i % 256) + ".0/24";
        const std::string suffix = "site" + std::to_string(i) + ".corp.example.com";
        const Json::Value matchIf =
            Parse(R"({"type":"boolean.AND","data":{"conditions":[)"
                  R"({"type":"network.IP","data":{"address":")" +
                  address + R"("}},{"type":"network.DNSSuffix","data":{"suffix":")" + suffix + R"("}}]}})");
        Bench::Check(rules.AddTail(Rule{L"rule" + std::to_wstring(i), L"Rule " + std::to_wstring(i),
                                        L"set" + std::to_wstring(i % 100), matchIf}));
    }
    return rules;
}

// The memory that `count` installed typical rules take, all included (the
// rule records and their JSON, the condition trees with their queues and
// subscriptions, the stored state after a first pass), per rule. Counters:
// heap_per_rule (bytes in use by the allocator) and rss_per_rule (resident
// set growth). One iteration in a fresh process gives the steadiest figures:
// run this benchmark alone (--benchmark_filter=BM_MemoryPerRule).
void BM_MemoryPerRule(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    Scratch scratch;
    Footprint before;
    Footprint after;
    for (auto _ : state) {
        state.PauseTiming();
        auto bench = std::make_unique<Bench>(scratch, Network::kMachine);
        AddMethodSets(bench->runner());
        qv::List<Rule> rules = MakeNetworkRules(count);
        before = Footprint::Now();
        state.ResumeTiming();
        {
            qv::List<RuleError> errors;
            Bench::Check(bench->runner().SetRules(rules, errors));
            Bench::Check(bench->runner().ReEvalRules());
        }
        state.PauseTiming();
        after = Footprint::Now();
        bench.reset();
        state.ResumeTiming();
    }
    const double n = static_cast<double>(count);
    state.counters["heap_per_rule"] = benchmark::Counter((after.heap - before.heap) / n);
    state.counters["rss_per_rule"] = benchmark::Counter((after.resident - before.resident) / n);
}
BENCHMARK(BM_MemoryPerRule)->Arg(1000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
