// The shared resolver through its public interface, with questions answered
// (or held) by the test.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <vector>

#include "conditions/network/shared_resolver.h"
#include "network_test_support.h"
#include "support/waiting.h"

namespace condition_testing {
namespace {

using Product::Integration::ConditionManager::SharedResolver;
using namespace std::chrono_literals;

class SharedResolverTest : public ::testing::Test {
protected:
    ~SharedResolverTest() override { names.LetAllGo(); }
    FakeNames names;
};

// Many hung names never take more than the limit of threads; another name is
// still answered while one hangs; once they are answered the pool shrinks
// back to one thread, and to none when the last subscriber leaves.
TEST_F(SharedResolverTest, HungNamesStayWithinTheThreadLimitAndThePoolShrinksBack) {
    SharedResolver resolver(ResolverOptions(&names));
    std::vector<std::unique_ptr<ResolverAnswers>> hung(10);
    for (size_t i = 0; i < hung.size(); ++i) {
        const std::wstring name = L"hung" + std::to_wstring(i) + L".example";
        names.Hang(name);
        hung[i] = std::make_unique<ResolverAnswers>();
        ASSERT_TRUE(resolver.Subscribe(hung[i].get(), name));
        EXPECT_LE(resolver.Threads(), SharedResolver::kDefaultMaxThreads);
    }
    EXPECT_TRUE(testing_support::Eventually([&] { return names.Asking() == 4; }));
    EXPECT_EQ(resolver.Threads(), 4u);

    names.LetAllGo();
    for (auto& answers : hung) EXPECT_TRUE(answers->WaitForCount(1));
    EXPECT_EQ(names.PeakAsking(), 4);
    EXPECT_TRUE(testing_support::Eventually([&] { return resolver.Threads() == 1; }));

    // With one name hung, another name is asked and answered meanwhile.
    names.Hang(L"hung0.example");
    resolver.Refresh(hung[0].get(), SharedResolver::Reason::kValueRequest);
    ASSERT_TRUE(names.WaitForQuestions(L"hung0.example", 2));
    names.Set(L"fine.example", true);
    ResolverAnswers fine;
    ASSERT_TRUE(resolver.Subscribe(&fine, L"fine.example"));
    ASSERT_TRUE(fine.WaitForCount(1));
    EXPECT_EQ(fine.Got(), std::vector<bool>{true});
    names.LetAllGo();
    ASSERT_TRUE(hung[0]->WaitForCount(2));

    resolver.Unsubscribe(&fine);
    for (auto& answers : hung) resolver.Unsubscribe(answers.get());
    EXPECT_EQ(resolver.Threads(), 0u);
    EXPECT_LE(names.PeakAsking(), 4);
}

// Subscribers of one name share its question in flight; a value request
// while it flies asks nothing more, network changes ask exactly once more
// after it; each subscriber gets every answer once.
TEST_F(SharedResolverTest, OneNameHasOneQuestionInFlight) {
    SharedResolver resolver(ResolverOptions(&names));
    const std::wstring name = L"files.corp.example";
    names.Set(name, true);
    names.Hang(name);
    ResolverAnswers first, second;
    ASSERT_TRUE(resolver.Subscribe(&first, name));
    ASSERT_TRUE(names.WaitForQuestions(name, 1));
    ASSERT_TRUE(resolver.Subscribe(&second, name));
    EXPECT_FALSE(resolver.Subscribe(&second, name));  // once only
    resolver.Refresh(&first, SharedResolver::Reason::kValueRequest);
    names.LetGo(name);
    ASSERT_TRUE(first.WaitForCount(1));
    ASSERT_TRUE(second.WaitForCount(1));
    EXPECT_EQ(names.Questions(name), 1);

    // (A change asks at once, or right after the delivery still in progress.)
    names.Hang(name);
    resolver.Refresh(&second, SharedResolver::Reason::kNetworkChanged);
    ASSERT_TRUE(names.WaitForQuestions(name, 2));
    for (int i = 0; i < 3; ++i) resolver.Refresh(&first, SharedResolver::Reason::kNetworkChanged);
    names.Set(name, false);
    names.LetGo(name);
    ASSERT_TRUE(first.WaitForCount(3));
    ASSERT_TRUE(second.WaitForCount(3));
    EXPECT_EQ(first.Got(), (std::vector<bool>{true, false, false}));
    EXPECT_EQ(second.Got(), (std::vector<bool>{true, false, false}));
    EXPECT_EQ(names.Questions(name), 3);
    resolver.Unsubscribe(&first);
    resolver.Unsubscribe(&second);
}

// Leaving never waits for DNS: the last subscriber leaves while its question
// hangs, the answer is dropped and the thread ends on its own afterwards.
TEST_F(SharedResolverTest, LeavingDoesNotWaitForAHungQuestion) {
    SharedResolver resolver(ResolverOptions(&names));
    names.Hang(L"slow.example");
    ResolverAnswers slow;
    ASSERT_TRUE(resolver.Subscribe(&slow, L"slow.example"));
    ASSERT_TRUE(names.WaitForQuestions(L"slow.example", 1));
    auto leave = std::async(std::launch::async, [&] { resolver.Unsubscribe(&slow); });
    EXPECT_TRUE(testing_support::Finishes(leave, 2s));
    EXPECT_GE(resolver.Threads(), 1u);

    // A newcomer for the same name shares the question still in flight.
    ResolverAnswers late;
    ASSERT_TRUE(resolver.Subscribe(&late, L"slow.example"));
    names.LetAllGo();
    ASSERT_TRUE(late.WaitForCount(1));
    EXPECT_EQ(names.Questions(L"slow.example"), 1);
    resolver.Unsubscribe(&late);
    EXPECT_TRUE(testing_support::Eventually([&] { return resolver.Threads() == 0; }));
    EXPECT_TRUE(slow.Got().empty());
}

// Unsubscribe waits for a call of that subscriber in progress, except when
// made from inside that very call.
TEST_F(SharedResolverTest, LeavingWaitsForACallInProgressUnlessMadeFromIt) {
    SharedResolver resolver(ResolverOptions(&names));
    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    ResolverAnswers blocked;
    blocked.during = [&] {
        entered.set_value();
        released.wait();
    };
    ASSERT_TRUE(resolver.Subscribe(&blocked, L"a.example"));
    ASSERT_TRUE(testing_support::Finishes(entered.get_future()));
    auto leave = std::async(std::launch::async, [&] { resolver.Unsubscribe(&blocked); });
    EXPECT_FALSE(testing_support::Finishes(leave, 200ms));
    release.set_value();
    EXPECT_TRUE(testing_support::Finishes(leave));

    ResolverAnswers self;
    self.during = [&] { resolver.Unsubscribe(&self); };
    ASSERT_TRUE(resolver.Subscribe(&self, L"b.example"));
    ASSERT_TRUE(self.WaitForCount(1));
    EXPECT_TRUE(testing_support::Eventually([&] { return resolver.Threads() == 0; }));
    resolver.Refresh(&self, SharedResolver::Reason::kValueRequest);  // no longer subscribed: nothing
    EXPECT_EQ(names.Questions(L"b.example"), 1);
}

// Each name is asked again one period after its last answer.
TEST_F(SharedResolverTest, ThePeriodAsksAgain) {
    SharedResolver resolver(ResolverOptions(&names, 20ms));
    ResolverAnswers answers;
    ASSERT_TRUE(resolver.Subscribe(&answers, L"a.example"));
    EXPECT_TRUE(answers.WaitForCount(3));
    resolver.Unsubscribe(&answers);
    EXPECT_TRUE(testing_support::Eventually([&] { return resolver.Threads() == 0; }));
}

}  // namespace
}  // namespace condition_testing
