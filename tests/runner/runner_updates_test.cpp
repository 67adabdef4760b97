// The console's updates keep memory and the settings tree in step: what can
// be stored is stored, what cannot be saved changes nothing, and every change
// of the last run is stored within the command that made it.
#include "runner/runner_fixture.h"

namespace {

using namespace runner_test;

constexpr const char* kTrue = R"({"type":"boolean.TRUE"})";
constexpr const char* kEmptyAnd = R"({"type":"boolean.AND","data":{"conditions":[]}})";

TEST_F(RunnerTest, ARuleLeftOutDoesNotHoldBackTheMethodSetsOfItsUpdate) {
    IConditionalRunnerExtensions& extensions = runner_;
    qv::List<Rule> rules{MakeRule(L"bad", L"M", kEmptyAnd), MakeRule(L"good", L"M", kTrue)};
    qv::List<Method> sets{MakeMethod(L"M")};
    qv::List<RuleError> errors;
    EXPECT_EQ(extensions.UpdateRulesAndMethods(rules, sets, errors), qv::status::kInvalidParameter);
    EXPECT_EQ(errors, (qv::List<RuleError>{{0, qv::status::kInvalidParameter}}));
    EXPECT_EQ(MethodSetIds(), (std::vector<std::wstring>{L"M"}));
    EXPECT_EQ(Stored(L"/Methods_M", L"id"), "M");

    // So the good rule runs.
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(host_.policyRunner().Runs().size(), 1u);

    // The interface the host knows does the same, without the details.
    ASSERT_EQ(runner_.DeleteAllMethodSets(), 0);
    EXPECT_EQ(runner_.UpdateRulesAndMethods(rules, sets), qv::status::kInvalidParameter);
    EXPECT_EQ(MethodSetIds(), (std::vector<std::wstring>{L"M"}));
}

TEST_F(RunnerTest, UpdatesStoreEveryMethodSetThatCanBeStoredAndAnswerTheFirstRefusal) {
    qv::List<Method> sets{MakeMethod(L"A"), MakeMethod(L"x/y"), MakeMethod(std::wstring(L"a\0x", 3)), MakeMethod(L"B")};
    EXPECT_EQ(runner_.UpdateMethods(sets), qv::status::kInvalidParameter);
    EXPECT_EQ(MethodSetIds(), (std::vector<std::wstring>{L"A", L"B"}));

    qv::List<RuleError> errors;
    EXPECT_EQ(static_cast<IConditionalRunnerExtensions&>(runner_).UpdateRulesAndMethods(
                  qv::List<Rule>{MakeRule(L"r", L"C", kTrue)}, qv::List<Method>{MakeMethod(L"x/y"), MakeMethod(L"C")},
                  errors),
              qv::status::kInvalidParameter);
    EXPECT_TRUE(errors.Empty());
    EXPECT_EQ(MethodSetIds(), (std::vector<std::wstring>{L"A", L"B", L"C"}));
}

// A NUL would cut the node name short: "a\0x" and "a\0y" would both be
// "/Methods_a", and deleting one would delete the set "a".
TEST_F(RunnerTest, MethodSetIdsHoldingNulAreRefused) {
    const std::wstring withNul(L"a\0x", 3);
    EXPECT_EQ(runner_.SetMethod(MakeMethod(withNul), false), qv::status::kInvalidParameter);
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"a"), false), 0);
    EXPECT_EQ(runner_.DeleteMethodSet(withNul), qv::status::kInvalidParameter);
    EXPECT_EQ(MethodSetIds(), (std::vector<std::wstring>{L"a"}));
    EXPECT_EQ(Stored(L"/Methods_a", L"id"), "a");
}

// Ordinal order is the order of UTF-16 code units on every build: a
// character beyond U+FFFF (a surrogate pair) sorts before U+FF01.
TEST_F(RunnerTest, MethodSetIdsComeInTheOrderOfTheirUtf16CodeUnits) {
    const std::wstring fullwidth = os::Utf8ToWideLossy("\xEF\xBC\x81");  // U+FF01
    const std::wstring emoji = os::Utf8ToWideLossy("\xF0\x9F\x98\x80");  // U+1F600
    for (const std::wstring& id : {fullwidth, emoji, std::wstring(L"z"), std::wstring(L"\u00e9")})
        ASSERT_EQ(runner_.SetMethod(MakeMethod(id), false), 0);
    EXPECT_EQ(MethodSetIds(), (std::vector<std::wstring>{L"z", L"\u00e9", emoji, fullwidth}));
}

// A save that fails answers its error and leaves memory as it was, so that
// what the console is told, what the runner does and what a restart finds
// agree.
TEST_F(RunnerTest, ASaveThatFailsChangesNothing) {
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"A"), false), 0);
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"B"), false), 0);
    BreakTheStoreFile();

    EXPECT_EQ(runner_.DeleteAllMethodSets(), qv::status::kFunctionFailed);
    EXPECT_EQ(MethodSetIds(), (std::vector<std::wstring>{L"A", L"B"}));
    EXPECT_EQ(runner_.DeleteMethodSet(L"A"), qv::status::kFunctionFailed);
    EXPECT_EQ(runner_.SetMethod(MakeMethod(L"C"), false), qv::status::kFunctionFailed);
    EXPECT_EQ(MethodSetIds(), (std::vector<std::wstring>{L"A", L"B"}));

    bool enabled = false;
    EXPECT_EQ(runner_.SetEnabled(false), qv::status::kFunctionFailed);
    ASSERT_EQ(runner_.IsEnabled(enabled), 0);
    EXPECT_TRUE(enabled);
}

// The last run changes when a method set of a true rule changes and when the
// runner is disabled; the stored copy changes with it, so that a crash
// right after the answer still runs what the console expects.
TEST_F(RunnerTest, EveryChangeOfTheLastRunIsStoredByTheCommandThatMadeIt) {
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"N"), false), 0);
    ASSERT_EQ(SetRules({MakeRule(L"m", L"M", kTrue), MakeRule(L"n", L"N", kTrue)}), 0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    ASSERT_EQ(StoredLastRunSize(), 2u);

    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M", R"([{"plugin":"P","method":"changed"}])"), false), 0);
    EXPECT_EQ(StoredLastRunSize(), 1u);
    // A method set that no remembered rule names leaves it alone.
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"unused"), false), 0);
    EXPECT_EQ(StoredLastRunSize(), 1u);

    ASSERT_EQ(runner_.ReEvalRules(), 0);
    ASSERT_EQ(StoredLastRunSize(), 2u);
    ASSERT_EQ(runner_.SetEnabled(false), 0);
    EXPECT_EQ(StoredLastRunSize(), 0u);
    EXPECT_EQ(Stored(L"/MethodsRunner", L"enabled"), false);
    ASSERT_EQ(runner_.SetEnabled(true), 0);
    EXPECT_EQ(StoredLastRunSize(), 0u);
    EXPECT_EQ(Stored(L"/MethodsRunner", L"enabled"), true);
}

// Of the remembered rules A, B, C where A and B name M, a change of M removes
// A, steps past B unexamined and examines C; the shorter list counts as a
// change, and the same rules true in another order count as one too.
TEST_F(RunnerTest, TheLastRunShrinksByTheScanRuleAndOrderCountsAsAChange) {
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"N"), false), 0);
    const Rule a = MakeRule(L"A", L"M", kTrue), b = MakeRule(L"B", L"M", kTrue), c = MakeRule(L"C", L"M", kTrue),
               d = MakeRule(L"D", L"N", kTrue);
    ASSERT_EQ(SetRules({a, b, c, d}), 0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    ASSERT_EQ(runner_.SetMethod(MakeMethod(L"M"), false), 0);
    const Json::Value remembered = Stored(L"/MethodsRunner/Info", L"")["data"];
    ASSERT_EQ(remembered.size(), 2u);
    EXPECT_EQ(remembered[0]["id"], "B");
    EXPECT_EQ(remembered[1]["id"], "D");

    ASSERT_EQ(runner_.ReEvalRules(), 0);
    ASSERT_EQ(host_.policyRunner().Runs().size(), 4u);  // M and N, then both again
    ASSERT_EQ(SetRules({d, c, b, a}), 0);
    ASSERT_EQ(runner_.ReEvalRules(), 0);
    EXPECT_EQ(host_.policyRunner().Runs().size(), 6u);
}

}  // namespace
