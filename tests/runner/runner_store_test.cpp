// The runner's state in the reference settings store: its layout, the
// tolerance of its readers, and the flag that says whether the stored last
// run can be trusted.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "host/settings/settings_store.h"
#include "os/utf8.h"
#include "qv/status.h"
#include "runner/runner_store.h"
#include "support/log_capture.h"
#include "support/module_under_test.h"

namespace {

using namespace Product::Integration::ConditionalRunner;
using testing_support::ParseJson;

class RunnerStoreTest : public testing::Test {
protected:
    static std::unique_ptr<host::SettingsStore> OpenStore(const std::wstring& file) {
        os::Expected<std::unique_ptr<host::SettingsStore>> store = host::SettingsStore::Open(file);
        return store ? std::move(*store) : nullptr;
    }

    // Writes `value` under `name` at `path`: text as text, the rest as JSON.
    void Put(const wchar_t* path, const wchar_t* name, const Json::Value& value) {
        IEPSettingsNode* node = nullptr;
        ASSERT_EQ(settings_->OpenForWrite(path, &node), 0);
        if (value.isString())
            EXPECT_EQ(node->SetString(name, os::Utf8ToWideLossy(value.asString())), 0);
        else
            EXPECT_EQ(node->SetJson(name, value), 0);
        EXPECT_EQ(node->Commit(), 0);
        node->Release();
    }

    testing_support::TempDir dir_;
    std::unique_ptr<host::SettingsStore> settings_ = OpenStore(dir_.File(L"settings.json"));
    RunnerStore store_{settings_.get()};
};

TEST_F(RunnerStoreTest, AFreshTreeReadsAsNoStateWithoutFailing) {
    qv::List<Rule> rules{Rule{L"stale", L"", L"", Json::Value()}};
    EXPECT_EQ(store_.ReadRules(RunnerStore::kRulesPath, rules), 0);
    EXPECT_TRUE(rules.Empty());
    EXPECT_EQ(store_.ReadLastRunRules(rules), 0);
    EXPECT_TRUE(rules.Empty());
    bool enabled = true;
    EXPECT_NE(store_.ReadEnabled(enabled), 0);
    MethodSets methodSets;
    EXPECT_EQ(store_.ReadMethods(methodSets), 0);
    EXPECT_TRUE(methodSets.empty());

    // A document in another form reads as no rules too.
    Put(RunnerStore::kRulesPath, L"", ParseJson(R"({"data": 5})"));
    EXPECT_EQ(store_.ReadRules(RunnerStore::kRulesPath, rules), 0);
    EXPECT_TRUE(rules.Empty());
}

// The last-run rules count only when the run that stored them ended.
TEST_F(RunnerStoreTest, TheLastRunIsTrustedOnlyWhenNoRunWasUnderWay) {
    const qv::List<Rule> saved{Rule{L"r", L"rule", L"M", ParseJson(R"({"type":"boolean.TRUE"})")}};
    ASSERT_EQ(store_.SaveRules(RunnerStore::kLastRunPath, saved), 0);
    qv::List<Rule> read;
    ASSERT_EQ(store_.SaveMethodsRunStarted(false), 0);
    ASSERT_EQ(store_.ReadLastRunRules(read), 0);
    EXPECT_EQ(read, saved);
    ASSERT_EQ(store_.SaveMethodsRunStarted(true), 0);
    ASSERT_EQ(store_.ReadLastRunRules(read), 0);
    EXPECT_TRUE(read.Empty());
}

TEST_F(RunnerStoreTest, MethodSetsAreNodesOfTheirOwnAndOnlyThoseAreRemoved) {
    ASSERT_EQ(store_.SaveEnabled(false), 0);
    ASSERT_EQ(store_.SaveMethod(Method{L"M", L"m", ParseJson("[1]"), ParseJson(R"({"c":1})")}), 0);
    // Written by an older version: no context.
    Put(L"/Methods_N", L"id", "N");
    Put(L"/Methods_N", L"displayName", "n");
    Put(L"/Methods_N", L"methods", ParseJson("[]"));
    Put(L"/Methods_broken", L"id", "broken");  // no methods: skipped
    Put(L"/Other", L"id", "kept");

    testing_support::LogCapture capture;
    MethodSets methodSets;
    ASSERT_EQ(store_.ReadMethods(methodSets), 0);
    ASSERT_EQ(methodSets.size(), 2u);
    EXPECT_EQ(methodSets[L"M"].context, ParseJson(R"({"c":1})"));
    EXPECT_TRUE(methodSets[L"N"].context.isNull());
    EXPECT_TRUE(
        capture.Contains(logging::kError, L"ConditionalRunnerAL::ReadMethods", L"Error reading method Methods_broken"));

    ASSERT_EQ(store_.DeleteMethod(L"M"), 0);
    EXPECT_EQ(store_.DeleteMethod(L"M"), 0);  // already gone
    Method read;
    EXPECT_EQ(store_.ReadMethod(L"M", read), qv::status::kNotFound);
    std::vector<std::wstring> removed;
    ASSERT_EQ(store_.DeleteAllMethods(removed), 0);
    EXPECT_EQ(removed, (std::vector<std::wstring>{L"Methods_N", L"Methods_broken"}));
    ASSERT_EQ(store_.ReadMethods(methodSets), 0);
    EXPECT_TRUE(methodSets.empty());
    bool enabled = true;
    EXPECT_EQ(store_.ReadEnabled(enabled), 0);
    EXPECT_FALSE(enabled);
    IEPSettingsNode* other = nullptr;
    ASSERT_EQ(settings_->OpenForRead(L"/Other", &other), 0);
    other->Release();
}

}  // namespace
