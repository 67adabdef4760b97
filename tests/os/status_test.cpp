// A failure's code and reason travel together; misuse stops the process.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include "os/status.h"
#include "qv/status.h"

namespace {

os::Expected<int> Half(int value) {
    if (value % 2 != 0) return os::Status::Failure(qv::status::kInvalidParameter, std::to_wstring(value) + L" is odd");
    return value / 2;
}

TEST(Status, AFailureKeepsItsCodeAndGathersContext) {
    const os::Status ok;
    EXPECT_TRUE(ok.ok());
    EXPECT_EQ(ok.code(), 0);
    EXPECT_EQ(ok.WithContext(L"reading"), ok);

    const os::Status failed = os::Status::Failure(qv::status::kNotFound, L"no such rule");
    EXPECT_FALSE(failed);
    const os::Status explained = failed.WithContext(L"loading the rules").WithContext(L"starting");
    EXPECT_EQ(explained.code(), qv::status::kNotFound);
    EXPECT_EQ(explained.message(), L"starting: loading the rules: no such rule");
}

TEST(Status, ASystemFailureNamesTheStepAndTheSystemsReason) {
#ifdef _WIN32
    const uint32_t accessDenied = 5;
#else
    const uint32_t accessDenied = EACCES;
#endif
    const os::Status denied = os::Status::System(accessDenied, L"opening the state file");
    EXPECT_EQ(denied.code(), static_cast<int32_t>(accessDenied));
    EXPECT_EQ(denied.message().rfind(L"opening the state file: ", 0), 0u) << denied.message();
    EXPECT_GT(denied.message().size(), std::wstring(L"opening the state file: ").size());

    // A system call that failed without a code is still a failure.
    const os::Status unexplained = os::Status::System(0, L"reading");
    EXPECT_EQ(unexplained.code(), qv::status::kFunctionFailed);
    EXPECT_EQ(unexplained.message(), L"reading: the system gave no error code");
}

TEST(Status, AnExpectedHoldsTheValueOrTheFailure) {
    const os::Expected<int> half = Half(8);
    ASSERT_TRUE(half);
    EXPECT_EQ(*half, 4);
    EXPECT_TRUE(half.status().ok());

    const os::Expected<int> odd = Half(7);
    ASSERT_FALSE(odd);
    EXPECT_EQ(odd.status().code(), qv::status::kInvalidParameter);
    EXPECT_EQ(odd.status().message(), L"7 is odd");

    os::Expected<std::unique_ptr<int>> owned = std::make_unique<int>(3);
    std::unique_ptr<int> taken = std::move(*owned);
    EXPECT_EQ(*taken, 3);
}

TEST(StatusDeathTest, MisuseStopsTheProcessWithTheReason) {
    EXPECT_DEATH(static_cast<void>(*Half(7)), "status misused: the value of a failure was read: 7 is odd");
    EXPECT_DEATH(static_cast<void>(os::Status::Failure(0, L"nothing")), "status misused: a failure with code 0");
    EXPECT_DEATH(static_cast<void>(os::Expected<int>(os::Status::Ok())),
                 "status misused: an Expected made from a success");
}

}  // namespace
