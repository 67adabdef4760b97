#pragma once
// A runner over the reference host (a real condition manager, settings store
// and policy runner, manual clock), initialised but not started, with a
// subscriber that records its run reports.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "conditions/manager.h"
#include "host/network_provider_standin.h"
#include "host/reference_host.h"
#include "host/settings/settings_store.h"
#include "os/utf8.h"
#include "plugin/module_names.h"
#include "qv/status.h"
#include "runner/conditional_runner_al.h"
#include "support/log_capture.h"
#include "support/module_under_test.h"

namespace runner_test {

using namespace Product::Integration::ConditionalRunner;
using Product::Integration::ConditionManager::Manager;
using testing_support::ParseJson;

inline Rule MakeRule(const std::wstring& id, const std::wstring& methodSetId, const char* matchIf) {
    return Rule{id, L"rule " + id, methodSetId, ParseJson(matchIf)};
}
inline Method MakeMethod(const std::wstring& id, const char* methods = R"([{"plugin":"P","method":"m"}])") {
    return Method{id, L"set " + id, ParseJson(methods), Json::Value()};
}

// Records the run reports; they may come on the evaluation thread.
class Reports final : public IConditionalRunner::IEvents {
public:
    int32_t OnMethodSetsRun(const qv::IList<MethodRunData>& runs) override {
        std::lock_guard lock(mutex);
        std::vector<std::pair<std::wstring, std::vector<std::wstring>>> report;
        runs.ForEach([&](const MethodRunData& run) {
            std::vector<std::wstring> ids;
            run.ruleIds.ForEach([&](const std::wstring& id) { ids.push_back(id); });
            report.emplace_back(run.methodSetId, ids);
        });
        reports.push_back(report);
        return 0;
    }
    size_t Count() const {
        std::lock_guard lock(mutex);
        return reports.size();
    }
    mutable std::mutex mutex;
    std::vector<std::vector<std::pair<std::wstring, std::vector<std::wstring>>>> reports;
};

class RunnerTest : public testing::Test {
protected:
    void SetUp() override {
        host_.components().Register(host::NetworkProviderStandIn::kName, &provider_);
        host_.components().Register(qv::names::kConditionManager, static_cast<IServPlugin*>(&manager_));
        ASSERT_EQ(manager_.Init(host_.main()), 0);
        ASSERT_EQ(runner_.Init(host_.main()), 0);
        ASSERT_EQ(runner_.Subscribe(&reports_, 0), 0);
    }
    void TearDown() override {
        EXPECT_EQ(runner_.Unsubscribe(&reports_, 0), 0);
        EXPECT_EQ(runner_.Uninit(), 0);
        EXPECT_EQ(manager_.Uninit(), 0);
        EXPECT_EQ(host_.components().TotalReferences(), 0);
    }

    // The store's node at `path` has `value` under `name` (null when absent).
    Json::Value Stored(const wchar_t* path, const wchar_t* name) {
        IEPSettingsNode* node = nullptr;
        if (host_.settings()->OpenForRead(path, &node) != 0) return Json::Value();
        Json::Value value;
        if (node->GetJson(name, value) != 0) value = Json::Value();
        node->Release();
        return value;
    }
    int32_t SetRules(std::initializer_list<Rule> rules, std::vector<RuleError>* errorsOut = nullptr) {
        qv::List<Rule> list(rules);
        qv::List<RuleError> errors;
        const int32_t status = runner_.SetRules(list, errors);
        if (errorsOut) errors.ForEach([&](const RuleError& e) { errorsOut->push_back(e); });
        return status;
    }

    // Writes `value` (a bool or JSON) under `name` at `path`, as an earlier
    // process would have left it.
    void Put(const wchar_t* path, const wchar_t* name, const Json::Value& value) {
        IEPSettingsNode* node = nullptr;
        ASSERT_EQ(host_.settings()->OpenForWrite(path, &node), 0);
        EXPECT_EQ(value.isBool() ? node->SetBool(name, value.asBool()) : node->SetJson(name, value), 0);
        EXPECT_EQ(node->Commit(), 0);
        node->Release();
    }
    size_t StoredLastRunSize() { return Stored(L"/MethodsRunner/Info", L"")["data"].size(); }
    std::vector<std::wstring> MethodSetIds() {
        qv::List<std::wstring> ids;
        EXPECT_EQ(runner_.GetMethodSetIds(ids), 0);
        std::vector<std::wstring> out;
        ids.ForEach([&](const std::wstring& id) { out.push_back(id); });
        return out;
    }
    // From now on no commit can be written: a folder stands where the
    // settings file was (which the store appends to or replaces).
    void BreakTheStoreFile() {
        const std::filesystem::path file(dir_.File(L"settings.json"));
        std::filesystem::remove(file);
        std::filesystem::create_directories(file / "blocker");
    }

    static std::unique_ptr<host::SettingsStore> OpenStore(const std::wstring& file) {
        os::Expected<std::unique_ptr<host::SettingsStore>> store = host::SettingsStore::Open(file);
        return store ? std::move(*store) : nullptr;
    }

    testing_support::TempDir dir_;
    host::ReferenceHost host_{true, OpenStore(dir_.File(L"settings.json"))};
    host::NetworkProviderStandIn provider_;
    Manager manager_;
    ConditionalRunnerAL runner_;
    Reports reports_;
};

}  // namespace runner_test
