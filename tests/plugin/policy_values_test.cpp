#include <gtest/gtest.h>

#include "plugin/policy_values.h"

TEST(PolicyValues, ExactPairsAnswerAndOthersLeaveTheValue) {
    uint32_t value = 7;
    EXPECT_TRUE(qv::FindPolicyValue(L"UserControl", L"EnablePrependBlockedProcessList", value));
    EXPECT_EQ(value, 0u);
    value = 7;
    EXPECT_FALSE(qv::FindPolicyValue(L"firewall", L"EnablePrependMachineRules", value));
    EXPECT_FALSE(qv::FindPolicyValue(L"Firewall", L"SetConsoleSettings", value));
    EXPECT_FALSE(qv::FindPolicyValue(nullptr, nullptr, value));
    EXPECT_EQ(value, 7u);
    EXPECT_TRUE(qv::FindPolicyValue(L"qv.Integration", L"SetConsoleSettings", value));
}
