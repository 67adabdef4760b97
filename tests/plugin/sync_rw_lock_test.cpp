#include "plugin/sync_rw_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "thread_actor.h"

using namespace lock_testing;  // ThreadActor and the bounded waits
using qv::CSyncRWLock;

namespace {

bool Idle(const CSyncRWLock& lock) {
    const auto s = lock.Snapshot();
    return s.waitingReaders == 0 && s.waitingWriters == 0 && s.readingThreads == 0 && !s.writerActive &&
           s.writerId == 0 && s.writerReadCount == 0 && s.writerNesting == 0 && !s.upgradePending;
}

// Waits until the lock reports `n` blocked readers (or writers).
bool ReadersWait(const CSyncRWLock& lock, uint32_t n = 1) {
    return Eventually([&] { return lock.Snapshot().waitingReaders == n; });
}
bool WriterWaits(const CSyncRWLock& lock) {
    return Eventually([&] { return lock.Snapshot().waitingWriters == 1; });
}

}  // namespace

TEST(SyncRWLock, NestedLocksOfOneThreadMustAllBeReleasedBeforeAWriterGetsIn) {
    CSyncRWLock lock;
    ThreadActor owner, writer;

    owner.Do([&] {
        lock.ReadLock();
        lock.ReadLock();
    });
    auto write = writer.Post([&] { lock.WriteLock(); });
    ASSERT_TRUE(WriterWaits(lock));
    owner.Do([&] { lock.ReadUnlock(); });
    EXPECT_TRUE(Pending(write)) << "one nested read lock is still held";
    owner.Do([&] { lock.ReadUnlock(); });
    ASSERT_TRUE(Finishes(write));
    EXPECT_EQ(lock.Snapshot().writerId, writer.id());

    // The same for nested write locks, with a reader waiting this time.
    writer.Do([&] { lock.WriteLock(); });
    auto read = owner.Post([&] { lock.ReadLock(); });
    ASSERT_TRUE(ReadersWait(lock));
    writer.Do([&] { lock.WriteUnlock(); });
    EXPECT_TRUE(Pending(read));
    writer.Do([&] { lock.WriteUnlock(); });
    ASSERT_TRUE(Finishes(read));
    owner.Do([&] { lock.ReadUnlock(); });
    EXPECT_TRUE(Idle(lock));
}

// The only reader becomes the writer at once and carries its read nesting;
// reads taken under the write lock add to it. The thread stays exclusive
// until its last unlock, whatever the order of the unlocks, and may take the
// write lock again while only reads under it are held.
TEST(SyncRWLock, AWriterKeepsReadsUnderItsWriteLockAndStaysExclusiveUntilItsLastUnlock) {
    CSyncRWLock lock;
    ThreadActor owner, reader;

    owner.Do([&] {
        lock.ReadLock();
        lock.ReadLock();
        lock.WriteLock();
    });
    auto s = lock.Snapshot();
    EXPECT_TRUE(s.writerActive);
    EXPECT_EQ(s.readingThreads, 0u);
    EXPECT_EQ(s.writerReadCount, 2u);
    EXPECT_EQ(s.writerNesting, 1u);

    owner.Do([&] {
        lock.ReadLock();
        lock.WriteUnlock();
    });
    s = lock.Snapshot();
    EXPECT_TRUE(s.writerActive);
    EXPECT_EQ(s.writerReadCount, 3u);
    EXPECT_EQ(s.writerNesting, 0u);

    auto read = reader.Post([&] { lock.ReadLock(); });
    ASSERT_TRUE(ReadersWait(lock));
    owner.Do([&] { lock.ReadUnlock(); });
    EXPECT_TRUE(Pending(read));
    owner.Do([&] {
        lock.WriteLock();
        lock.ReadUnlock();
    });
    EXPECT_TRUE(Pending(read));
    owner.Do([&] { lock.WriteUnlock(); });
    EXPECT_TRUE(Pending(read));
    owner.Do([&] { lock.ReadUnlock(); });
    ASSERT_TRUE(Finishes(read));
    reader.Do([&] { lock.ReadUnlock(); });
    EXPECT_TRUE(Idle(lock));
}

// While a writer waits, new readers queue behind it but a thread already
// reading may nest. On release a waiting writer goes ahead of readers that
// waited longer; then all waiting readers are admitted together.
TEST(SyncRWLock, WritersWaitingGoFirstThenAllWaitingReadersTogetherButNestedReadsNeverWait) {
    CSyncRWLock lock;
    ThreadActor firstReader, writer, secondWriter, readerA, readerB;

    firstReader.Do([&] { lock.ReadLock(); });
    auto write = writer.Post([&] { lock.WriteLock(); });
    ASSERT_TRUE(WriterWaits(lock));
    auto readA = readerA.Post([&] { lock.ReadLock(); });
    auto readB = readerB.Post([&] { lock.ReadLock(); });
    ASSERT_TRUE(ReadersWait(lock, 2));
    ASSERT_TRUE(Finishes(firstReader.Post([&] { lock.ReadLock(); })));
    firstReader.Do([&] {
        lock.ReadUnlock();
        lock.ReadUnlock();
    });
    ASSERT_TRUE(Finishes(write));
    EXPECT_TRUE(Pending(readA));

    auto secondWrite = secondWriter.Post([&] { lock.WriteLock(); });
    ASSERT_TRUE(WriterWaits(lock));
    writer.Do([&] { lock.WriteUnlock(); });
    ASSERT_TRUE(Finishes(secondWrite));
    EXPECT_TRUE(Pending(readA));
    EXPECT_TRUE(Pending(readB));
    secondWriter.Do([&] { lock.WriteUnlock(); });
    ASSERT_TRUE(Finishes(readA));
    ASSERT_TRUE(Finishes(readB));
    EXPECT_EQ(lock.Snapshot().readingThreads, 2u) << "both readers hold the lock at once";
    readerA.Do([&] { lock.ReadUnlock(); });
    readerB.Do([&] { lock.ReadUnlock(); });
    EXPECT_TRUE(Idle(lock));
}

TEST(SyncRWLock, UnlocksThatMatchNoHeldLockThrowAndChangeNothingWhileGuardsStayBalanced) {
    CSyncRWLock lock;
    // Explicit thread ids stand for distinct owners; nothing here blocks.
    EXPECT_THROW(lock.ReadUnlock(), std::logic_error);
    EXPECT_THROW(lock.WriteUnlock(), std::logic_error);
    EXPECT_TRUE(Idle(lock));

    lock.ReadLock(100);
    EXPECT_THROW(lock.ReadUnlock(200), std::logic_error);
    EXPECT_THROW(lock.WriteUnlock(100), std::logic_error) << "a reader holds no write lock";
    lock.ReadUnlock(100);
    EXPECT_THROW(lock.ReadUnlock(100), std::logic_error) << "one unlock too many";
    EXPECT_TRUE(Idle(lock));

    lock.WriteLock(100);
    EXPECT_THROW(lock.ReadUnlock(100), std::logic_error) << "the writer took no read lock";
    EXPECT_THROW(lock.WriteUnlock(200), std::logic_error);
    EXPECT_THROW(lock.ReadUnlock(200), std::logic_error);
    EXPECT_EQ(lock.Snapshot().writerId, 100u);
    EXPECT_EQ(lock.Snapshot().writerNesting, 1u);
    lock.WriteUnlock(100);
    EXPECT_THROW(lock.WriteUnlock(100), std::logic_error);
    EXPECT_TRUE(Idle(lock));

    {
        qv::WriteLockGuard write(lock);
        qv::ReadLockGuard read(lock);
        EXPECT_EQ(lock.Snapshot().writerReadCount, 1u);
    }
    EXPECT_TRUE(Idle(lock));
    {
        qv::ReadLockGuard outer(lock, 7);
        qv::ReadLockGuard inner(lock, 7);
        EXPECT_EQ(lock.Snapshot().readingThreads, 1u);
    }
    EXPECT_TRUE(Idle(lock));
}

TEST(SyncRWLock, AnUpgradeWaitsForOtherReadersAheadOfWaitingWritersWhileNewReadersQueue) {
    CSyncRWLock lock;
    ThreadActor upgrader, otherReader, writer, newReader;

    upgrader.Do([&] { lock.ReadLock(); });
    otherReader.Do([&] { lock.ReadLock(); });
    auto write = writer.Post([&] { lock.WriteLock(); });
    ASSERT_TRUE(WriterWaits(lock));
    auto upgrade = upgrader.Post([&] { lock.WriteLock(); });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().upgradePending; }));
    auto read = newReader.Post([&] { lock.ReadLock(); });
    ASSERT_TRUE(ReadersWait(lock));

    // The remaining reader may still nest while the upgrade waits.
    otherReader.Do([&] {
        lock.ReadLock();
        lock.ReadUnlock();
    });
    EXPECT_TRUE(Pending(upgrade));
    otherReader.Do([&] { lock.ReadUnlock(); });
    ASSERT_TRUE(Finishes(upgrade));
    EXPECT_EQ(lock.Snapshot().writerId, upgrader.id());
    EXPECT_EQ(lock.Snapshot().writerReadCount, 1u);
    EXPECT_TRUE(Pending(write));
    EXPECT_TRUE(Pending(read));

    upgrader.Do([&] {
        lock.WriteUnlock();
        lock.ReadUnlock();
    });
    ASSERT_TRUE(Finishes(write));
    EXPECT_TRUE(Pending(read));
    writer.Do([&] { lock.WriteUnlock(); });
    ASSERT_TRUE(Finishes(read));
    newReader.Do([&] { lock.ReadUnlock(); });
    EXPECT_TRUE(Idle(lock));
}

TEST(SyncRWLock, ASecondUpgradeWhileOneWaitsThrowsInsteadOfDeadlocking) {
    CSyncRWLock lock;
    ThreadActor first, second;

    first.Do([&] { lock.ReadLock(); });
    second.Do([&] { lock.ReadLock(); });
    auto upgrade = first.Post([&] { lock.WriteLock(); });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().upgradePending; }));

    EXPECT_THROW(second.Do([&] { lock.WriteLock(); }), std::logic_error);
    EXPECT_TRUE(Pending(upgrade));
    EXPECT_EQ(lock.Snapshot().readingThreads, 1u) << "the refused thread keeps its read lock";

    second.Do([&] { lock.ReadUnlock(); });
    ASSERT_TRUE(Finishes(upgrade));
    first.Do([&] {
        lock.WriteUnlock();
        lock.ReadUnlock();
    });
    EXPECT_TRUE(Idle(lock));
}

// Readers (some of which upgrade) and writers hammer one lock. Plain
// (non-atomic) shared data is changed only under the write lock, so a lapse in
// exclusion shows as a torn pair here and as a data race under ThreadSanitizer.
TEST(SyncRWLock, StressKeepsWritersExclusiveAndReadersShared) {
    CSyncRWLock lock;
    std::atomic<int> readersInside{0}, writersInside{0}, violations{0}, upgrades{0}, upgradesRefused{0}, writes{0};
    long first = 0, second = 0;
    constexpr int kRounds = 1500;

    auto write = [&] {
        if (writersInside.fetch_add(1) != 0 || readersInside.load() != 0) ++violations;
        ++first;
        std::this_thread::yield();
        ++second;
        ++writes;
        writersInside.fetch_sub(1);
    };
    auto reader = [&](int seed) {
        for (int i = seed; i < seed + kRounds; ++i) {
            lock.ReadLock();
            if (i % 3 == 0) lock.ReadLock();
            readersInside.fetch_add(1);
            if (writersInside.load() != 0 || first != second) ++violations;
            std::this_thread::yield();
            readersInside.fetch_sub(1);
            if (i % 4 == 0) {  // upgrade, carrying one or two read locks
                ++upgrades;
                try {
                    lock.WriteLock();
                    write();
                    lock.WriteUnlock();
                } catch (const std::logic_error&) {
                    ++upgradesRefused;
                }
            }
            if (i % 3 == 0) lock.ReadUnlock();
            lock.ReadUnlock();
        }
    };
    auto writer = [&](int seed) {
        for (int i = seed; i < seed + kRounds; ++i) {
            lock.WriteLock();
            if (i % 4 == 0) lock.WriteLock();
            if (i % 5 == 0) lock.ReadLock();
            write();
            if (i % 5 == 0) lock.ReadUnlock();
            if (i % 4 == 0) lock.WriteUnlock();
            lock.WriteUnlock();
        }
    };
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i) threads.emplace_back(reader, i);
        for (int i = 0; i < 2; ++i) threads.emplace_back(writer, i);
    }
    EXPECT_EQ(violations.load(), 0);
    EXPECT_EQ(first, second);
    EXPECT_EQ(first, writes.load());
    EXPECT_EQ(writes.load(), 2 * kRounds + upgrades.load() - upgradesRefused.load());
    EXPECT_TRUE(Idle(lock));
}
