// What the runner stores stays exactly what a full write of its rules would
// store, pass after pass: the rules' JSON forms are lent to the saved
// documents (not copied) and the document's array is kept between saves, so
// these check that every form comes back whole and that no element of an
// earlier, longer save is left behind.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "network/network_state.h"
#include "runner/runner_fixture.h"

namespace runner_test {
namespace {

// The document a fresh write of `rules` stores: {"data": [rules]}.
Json::Value FullWrite(std::initializer_list<Rule> rules) {
    qv::List<Rule> list(rules);
    Json::Value document(Json::objectValue);
    EXPECT_TRUE(JsonForms::WriteRules(document, L"data", list));
    return document;
}

class RunnerSavedStateTest : public RunnerTest {
protected:
    void OnSuffix(bool present) {
        Product::Integration::NetworkState state;
        if (present) state.dnsSuffixes.Insert(L"corp.example");
        provider_.SetState(state);
        provider_.NotifySubscribers();
    }
    std::vector<Rule> Rules() {
        qv::List<Rule> list;
        EXPECT_EQ(runner_.GetRules(list), 0);
        std::vector<Rule> out;
        list.ForEach([&](const Rule& rule) { out.push_back(rule); });
        return out;
    }

    const Rule always_ = MakeRule(L"always", L"M", R"({"type":"boolean.TRUE"})");
    const Rule office_ = MakeRule(L"office", L"N", R"({"type":"network.DNSSuffix","data":{"suffix":"corp.example"}})");
    const Rule also_ =
        MakeRule(L"also", L"M", R"({"type":"boolean.NOT","data":{"condition":{"type":"boolean.FALSE"}}})");
};

TEST_F(RunnerSavedStateTest, StoredRulesAndLastRunEqualAFullWriteAfterEveryPass) {
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"N"), false), 0);
    OnSuffix(true);
    ASSERT_EQ(SetRules({always_, office_, also_}), 0);
    EXPECT_EQ(Stored(L"/MethodsRunner/Rules", L""), FullWrite({always_, office_, also_}));

    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(Stored(L"/MethodsRunner/Info", L""), FullWrite({always_, office_, also_}));

    // Shorter, then as long again: nothing of the longer save stays behind,
    // and the rule that comes back is stored whole.
    OnSuffix(false);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(Stored(L"/MethodsRunner/Info", L""), FullWrite({always_, also_}));
    OnSuffix(true);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(Stored(L"/MethodsRunner/Info", L""), FullWrite({always_, office_, also_}));
    EXPECT_EQ(Stored(L"/MethodsRunner/methodsRunStarted", L""), false);
    EXPECT_EQ(host_.policyRunner().Runs().size(), 5u);  // M and N, M, M and N

    // Saving lent the forms and took them back: the rules read whole, the
    // rules' own document is unchanged, and equal rules still count as the
    // same rules (no run on a pass where nothing changed).
    EXPECT_EQ(Rules(), (std::vector<Rule>{always_, office_, also_}));
    EXPECT_EQ(Stored(L"/MethodsRunner/Rules", L""), FullWrite({always_, office_, also_}));
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(host_.policyRunner().Runs().size(), 5u);

    // A restarted runner reads back exactly what a full write stored.
    ASSERT_EQ(runner_.Start(), 0);
    EXPECT_EQ(Rules(), (std::vector<Rule>{always_, office_, also_}));
    ASSERT_EQ(runner_.Stop(), 0);
}

TEST_F(RunnerSavedStateTest, AFailedSaveGivesEveryRuleBackWhole) {
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"N"), false), 0);
    OnSuffix(true);
    ASSERT_EQ(SetRules({always_, office_, also_}), 0);
    BreakTheStoreFile();

    EXPECT_NE(SetRules({also_, always_}), 0);  // the old rules stay
    OnSuffix(false);
    ASSERT_EQ(runner_.ReEvalRules(), 0);  // runs, but cannot store its last run
    EXPECT_EQ(Rules(), (std::vector<Rule>{always_, office_, also_}));
    // The rules still compare equal to what ran: the next pass finds no change.
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(host_.policyRunner().Runs().size(), 1u);
}

}  // namespace
}  // namespace runner_test
