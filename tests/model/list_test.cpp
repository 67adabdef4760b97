#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "model/list.h"
#include "qv/status.h"
#include "support/log_capture.h"

using testing_support::LogCapture;

namespace {

template <class T>
std::vector<T> Contents(const qv::IList<T>& list) {
    std::vector<T> out;
    list.ForEach([&](const T& v) { out.push_back(v); });
    return out;
}

}  // namespace

TEST(List, KeepsOrderAtBothEndsAndCopiesElementsOut) {
    qv::List<std::wstring> list;
    EXPECT_EQ(list.GetHead(), nullptr);
    EXPECT_EQ(list.GetTail(), nullptr);
    std::wstring out = L"untouched";
    EXPECT_EQ(list.CopyHead(out), qv::status::kNotFound);
    EXPECT_EQ(list.CopyTail(out), qv::status::kNotFound);
    EXPECT_EQ(out, L"untouched");

    EXPECT_EQ(list.AddTail(L"b"), 0);
    EXPECT_EQ(list.AddHead(L"a"), 0);
    EXPECT_EQ(list.AddTail(L"c"), 0);
    EXPECT_EQ(list.Count(), 3u);
    EXPECT_EQ(Contents<std::wstring>(list), (std::vector<std::wstring>{L"a", L"b", L"c"}));
    EXPECT_EQ(*list.GetHead(), L"a");
    EXPECT_EQ(*list.GetTail(), L"c");
    EXPECT_EQ(list.CopyHead(out), 0);
    EXPECT_EQ(out, L"a");
    EXPECT_EQ(list.CopyTail(out), 0);
    EXPECT_EQ(out, L"c");

    list.Clear();
    EXPECT_TRUE(list.Empty());
    EXPECT_EQ(list.GetTail(), nullptr);
    EXPECT_EQ(list.AddHead(L"z"), 0);  // usable again after Clear
    EXPECT_EQ(list.GetHead(), list.GetTail());
}

TEST(List, EnumeratorsWalkModifyAndRemove) {
    qv::List<int> list{1, 2, 3, 4};
    {
        qv::ListEnumPtr<int> e(list.CreateEnum());
        for (; e->IsValid(); e->Next()) *e->Current() *= 10;
        EXPECT_EQ(e->Current(), nullptr);
        e->Next();  // stays at the end
        EXPECT_FALSE(e->IsValid());
        e->Reset();
        ASSERT_TRUE(e->IsValid());
        EXPECT_EQ(*e->Current(), 10);

        // Remove the head, then (after stepping) the last element.
        EXPECT_EQ(list.RemoveAt(*e), 0);
        ASSERT_TRUE(e->IsValid());
        EXPECT_EQ(*e->Current(), 20);
        e->Next();
        e->Next();
        EXPECT_EQ(list.RemoveAt(*e), 0);
        EXPECT_FALSE(e->IsValid());
        EXPECT_EQ(list.RemoveAt(*e), qv::status::kNotFound);
    }
    EXPECT_EQ(Contents<int>(list), (std::vector<int>{20, 30}));
    EXPECT_EQ(*list.GetTail(), 30);

    qv::List<int> other{7};
    qv::ListEnumPtr<int> foreign(other.CreateEnum());
    EXPECT_EQ(list.RemoveAt(*foreign), qv::status::kInvalidParameter);
    EXPECT_EQ(other.Count(), 1u);

    // Removing everything through one enumerator leaves a consistent empty list.
    qv::ListEnumPtr<int> e(list.CreateEnum());
    while (e->IsValid()) ASSERT_EQ(list.RemoveAt(*e), 0);
    EXPECT_TRUE(list.Empty());
    EXPECT_EQ(list.GetHead(), nullptr);
    EXPECT_EQ(list.GetTail(), nullptr);
    ASSERT_EQ(list.AddTail(5), 0);
    EXPECT_EQ(Contents<int>(list), (std::vector<int>{5}));

    qv::ConstListEnumPtr<int> c(static_cast<const qv::List<int>&>(list).CreateConstEnum());
    ASSERT_TRUE(c->IsValid());
    EXPECT_EQ(*c->Current(), 5);
    c->Next();
    EXPECT_FALSE(c->IsValid());
    c->Reset();
    EXPECT_TRUE(c->IsValid());
}

TEST(List, RefusesToGrowBeyondItsMaximum) {
    LogCapture log;
    qv::List<int> list(2);
    EXPECT_EQ(list.AddTail(1), 0);
    EXPECT_EQ(list.AddHead(0), 0);
    EXPECT_EQ(list.AddTail(2), 8);
    EXPECT_EQ(list.AddHead(-1), 8);
    EXPECT_EQ(Contents<int>(list), (std::vector<int>{0, 1}));
    EXPECT_EQ(log.Messages(4), (std::vector<std::wstring>{L"list too long", L"list too long"}));

    // The limit travels with copies; the default one is far above real use.
    qv::List<int> copy(list);
    EXPECT_EQ(copy.AddTail(3), 8);
    EXPECT_GE(qv::List<int>().maxCount(), 100000u);
}

TEST(List, CopiesAreDeepAndMovesTransferOwnership) {
    qv::List<std::wstring> original{L"x", L"y"};
    qv::List<std::wstring> copy(original);
    *copy.GetHead() = L"changed";
    ASSERT_EQ(copy.AddTail(L"z"), 0);
    EXPECT_EQ(Contents<std::wstring>(original), (std::vector<std::wstring>{L"x", L"y"}));
    EXPECT_FALSE(copy == original);

    copy = original;
    EXPECT_TRUE(copy == original);

    qv::List<std::wstring> moved(std::move(copy));
    EXPECT_TRUE(copy.Empty());  // NOLINT(bugprone-use-after-move): the moved-from state is tested
    EXPECT_TRUE(moved == original);
    moved = std::move(original);
    EXPECT_TRUE(original.Empty());  // NOLINT(bugprone-use-after-move): the moved-from state is tested
    EXPECT_EQ(Contents<std::wstring>(moved), (std::vector<std::wstring>{L"x", L"y"}));

    std::vector<std::wstring> viaIterators(moved.begin(), moved.end());
    EXPECT_EQ(viaIterators, (std::vector<std::wstring>{L"x", L"y"}));
}
