#include "plugin/sync_rw_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "thread_actor.h"

using lock_testing::Eventually;
using lock_testing::Finishes;
using lock_testing::Pending;
using lock_testing::ThreadActor;
using qv::CSyncRWLock;

namespace {

bool Idle(const CSyncRWLock& lock) {
    const auto s = lock.Snapshot();
    return s.waitingReaders == 0 && s.waitingWriters == 0 && s.readingThreads == 0 && !s.writerActive &&
           s.writerId == 0 && s.writerReadCount == 0 && s.writerNesting == 0 && !s.upgradePending;
}

// Records the order in which threads got through.
class Journal {
public:
    void Note(std::string what) {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(std::move(what));
    }
    std::vector<std::string> Entries() {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }

private:
    std::mutex mutex_;
    std::vector<std::string> entries_;
};

}  // namespace

TEST(SyncRWLock, NestedLocksOfOneThreadMustAllBeReleasedBeforeAWriterGetsIn) {
    CSyncRWLock lock;
    ThreadActor owner, writer;

    owner.Post([&] {
        lock.ReadLock();
        lock.ReadLock();
    }).get();
    auto write = writer.Post([&] { lock.WriteLock(); });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().waitingWriters == 1; }));

    owner.Post([&] { lock.ReadUnlock(); }).get();
    EXPECT_TRUE(Pending(write)) << "one nested read lock is still held";
    owner.Post([&] { lock.ReadUnlock(); }).get();
    ASSERT_TRUE(Finishes(write));
    EXPECT_EQ(lock.Snapshot().writerId, writer.id());

    // The same for nested write locks, with a reader waiting this time.
    writer.Post([&] { lock.WriteLock(); }).get();
    auto read = owner.Post([&] { lock.ReadLock(); });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().waitingReaders == 1; }));
    writer.Post([&] { lock.WriteUnlock(); }).get();
    EXPECT_TRUE(Pending(read));
    writer.Post([&] { lock.WriteUnlock(); }).get();
    ASSERT_TRUE(Finishes(read));
    owner.Post([&] { lock.ReadUnlock(); }).get();
    EXPECT_TRUE(Idle(lock));
}

TEST(SyncRWLock, AWriterReadsUnderItsOwnWriteLockAndStaysExclusiveUntilItsLastUnlock) {
    CSyncRWLock lock;
    ThreadActor owner, reader;

    owner.Post([&] {
        lock.WriteLock();
        lock.ReadLock();
        lock.ReadLock();
        lock.WriteUnlock();
    }).get();
    auto s = lock.Snapshot();
    EXPECT_TRUE(s.writerActive);
    EXPECT_EQ(s.writerReadCount, 2u);
    EXPECT_EQ(s.writerNesting, 0u);

    auto read = reader.Post([&] { lock.ReadLock(); });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().waitingReaders == 1; }));
    owner.Post([&] { lock.ReadUnlock(); }).get();
    EXPECT_TRUE(Pending(read));
    // A write lock may be taken again while only reads under the write are held.
    owner.Post([&] {
        lock.WriteLock();
        lock.ReadUnlock();
    }).get();
    EXPECT_TRUE(Pending(read));
    owner.Post([&] { lock.WriteUnlock(); }).get();
    ASSERT_TRUE(Finishes(read));
    reader.Post([&] { lock.ReadUnlock(); }).get();
    EXPECT_TRUE(Idle(lock));
}

TEST(SyncRWLock, AWaitingWriterHoldsBackNewReadersButNotNestedOnes) {
    CSyncRWLock lock;
    ThreadActor firstReader, writer, lateReader;
    Journal journal;

    firstReader.Post([&] { lock.ReadLock(); }).get();
    auto write = writer.Post([&] {
        lock.WriteLock();
        journal.Note("writer");
    });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().waitingWriters == 1; }));
    auto lateRead = lateReader.Post([&] {
        lock.ReadLock();
        journal.Note("late reader");
    });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().waitingReaders == 1; }));

    // The thread already reading may nest without waiting for the writer.
    auto nested = firstReader.Post([&] { lock.ReadLock(); });
    ASSERT_TRUE(Finishes(nested));
    firstReader.Post([&] {
        lock.ReadUnlock();
        lock.ReadUnlock();
    }).get();

    ASSERT_TRUE(Finishes(write));
    EXPECT_TRUE(Pending(lateRead));
    writer.Post([&] { lock.WriteUnlock(); }).get();
    ASSERT_TRUE(Finishes(lateRead));
    lateReader.Post([&] { lock.ReadUnlock(); }).get();

    EXPECT_EQ(journal.Entries(), (std::vector<std::string>{"writer", "late reader"}));
    EXPECT_TRUE(Idle(lock));
}

TEST(SyncRWLock, OnReleaseAWaitingWriterGoesFirstThenAllWaitingReadersTogether) {
    CSyncRWLock lock;
    ThreadActor owner, readerA, readerB, writer;
    Journal journal;

    owner.Post([&] { lock.WriteLock(); }).get();
    auto readA = readerA.Post([&] {
        lock.ReadLock();
        journal.Note("reader");
    });
    auto readB = readerB.Post([&] {
        lock.ReadLock();
        journal.Note("reader");
    });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().waitingReaders == 2; }));
    auto write = writer.Post([&] {
        lock.WriteLock();
        journal.Note("writer");
    });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().waitingWriters == 1; }));

    owner.Post([&] { lock.WriteUnlock(); }).get();
    ASSERT_TRUE(Finishes(write));
    EXPECT_TRUE(Pending(readA));
    EXPECT_TRUE(Pending(readB));
    writer.Post([&] { lock.WriteUnlock(); }).get();
    ASSERT_TRUE(Finishes(readA));
    ASSERT_TRUE(Finishes(readB));
    EXPECT_EQ(lock.Snapshot().readingThreads, 2u) << "both readers hold the lock at once";

    readerA.Post([&] { lock.ReadUnlock(); }).get();
    readerB.Post([&] { lock.ReadUnlock(); }).get();
    EXPECT_EQ(journal.Entries(), (std::vector<std::string>{"writer", "reader", "reader"}));
    EXPECT_TRUE(Idle(lock));
}

TEST(SyncRWLock, UnlocksThatMatchNoHeldLockThrowAndChangeNothing) {
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
    auto s = lock.Snapshot();
    EXPECT_EQ(s.writerId, 100u);
    EXPECT_EQ(s.writerNesting, 1u);
    lock.WriteUnlock(100);
    EXPECT_THROW(lock.WriteUnlock(100), std::logic_error);
    EXPECT_TRUE(Idle(lock));
}

TEST(SyncRWLock, GuardsReleaseWhatTheyTook) {
    CSyncRWLock lock;
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

TEST(SyncRWLock, TheOnlyReaderUpgradesAtOnceAndCarriesItsReadNesting) {
    CSyncRWLock lock;
    ThreadActor other;

    lock.ReadLock();
    lock.ReadLock();
    lock.WriteLock();
    auto s = lock.Snapshot();
    EXPECT_TRUE(s.writerActive);
    EXPECT_EQ(s.readingThreads, 0u);
    EXPECT_EQ(s.writerReadCount, 2u);
    EXPECT_EQ(s.writerNesting, 1u);

    auto read = other.Post([&] { lock.ReadLock(); });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().waitingReaders == 1; }));
    // Released in an order other than the reverse one: still balanced.
    lock.ReadUnlock();
    lock.WriteUnlock();
    EXPECT_TRUE(Pending(read));
    lock.ReadUnlock();
    ASSERT_TRUE(Finishes(read));
    other.Post([&] { lock.ReadUnlock(); }).get();
    EXPECT_TRUE(Idle(lock));
}

TEST(SyncRWLock, AnUpgradeWaitsForOtherReadersAheadOfWaitingWritersWhileNewReadersQueue) {
    CSyncRWLock lock;
    ThreadActor upgrader, otherReader, writer, newReader;
    Journal journal;

    upgrader.Post([&] { lock.ReadLock(); }).get();
    otherReader.Post([&] { lock.ReadLock(); }).get();
    auto write = writer.Post([&] {
        lock.WriteLock();
        journal.Note("writer");
    });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().waitingWriters == 1; }));
    auto upgrade = upgrader.Post([&] {
        lock.WriteLock();
        journal.Note("upgrader");
    });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().upgradePending; }));
    auto read = newReader.Post([&] {
        lock.ReadLock();
        journal.Note("new reader");
    });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().waitingReaders == 1; }));

    // The remaining reader may still nest while the upgrade waits.
    otherReader.Post([&] {
        lock.ReadLock();
        lock.ReadUnlock();
    }).get();
    EXPECT_TRUE(Pending(upgrade));
    otherReader.Post([&] { lock.ReadUnlock(); }).get();
    ASSERT_TRUE(Finishes(upgrade));
    EXPECT_EQ(lock.Snapshot().writerId, upgrader.id());
    EXPECT_EQ(lock.Snapshot().writerReadCount, 1u);
    EXPECT_TRUE(Pending(write));
    EXPECT_TRUE(Pending(read));

    upgrader.Post([&] {
        lock.WriteUnlock();
        lock.ReadUnlock();
    }).get();
    ASSERT_TRUE(Finishes(write));
    writer.Post([&] { lock.WriteUnlock(); }).get();
    ASSERT_TRUE(Finishes(read));
    newReader.Post([&] { lock.ReadUnlock(); }).get();

    EXPECT_EQ(journal.Entries(), (std::vector<std::string>{"upgrader", "writer", "new reader"}));
    EXPECT_TRUE(Idle(lock));
}

TEST(SyncRWLock, ASecondUpgradeWhileOneWaitsThrowsInsteadOfDeadlocking) {
    CSyncRWLock lock;
    ThreadActor first, second;

    first.Post([&] { lock.ReadLock(); }).get();
    second.Post([&] { lock.ReadLock(); }).get();
    auto upgrade = first.Post([&] { lock.WriteLock(); });
    ASSERT_TRUE(Eventually([&] { return lock.Snapshot().upgradePending; }));

    auto refused = second.Post([&] { lock.WriteLock(); });
    ASSERT_TRUE(Finishes(refused));
    EXPECT_THROW(refused.get(), std::logic_error);
    EXPECT_TRUE(Pending(upgrade));
    EXPECT_EQ(lock.Snapshot().readingThreads, 1u) << "the refused thread keeps its read lock";

    second.Post([&] { lock.ReadUnlock(); }).get();
    ASSERT_TRUE(Finishes(upgrade));
    first.Post([&] {
        lock.WriteUnlock();
        lock.ReadUnlock();
    }).get();
    EXPECT_TRUE(Idle(lock));
}

// Readers, writers and upgraders hammer one lock. Plain (non-atomic) shared
// data is changed only under the write lock, so a lapse in exclusion shows as
// a torn pair here and as a data race under ThreadSanitizer.
TEST(SyncRWLock, StressKeepsWritersExclusiveAndReadersShared) {
    CSyncRWLock lock;
    std::atomic<int> readersInside{0};
    std::atomic<int> writersInside{0};
    std::atomic<int> violations{0};
    std::atomic<int> maxReadersInside{0};
    std::atomic<int> upgradesRefused{0};
    std::atomic<int> writes{0};
    long first = 0, second = 0;

    constexpr int kRounds = 1500;
    auto checkWriterAlone = [&] {
        if (writersInside.fetch_add(1) != 0 || readersInside.load() != 0) ++violations;
    };
    auto write = [&] {
        ++first;
        std::this_thread::yield();
        ++second;
        ++writes;
    };
    auto reader = [&](int seed) {
        for (int i = 0; i < kRounds; ++i) {
            lock.ReadLock();
            if ((i + seed) % 3 == 0) lock.ReadLock();
            const int inside = readersInside.fetch_add(1) + 1;
            int seen = maxReadersInside.load();
            while (inside > seen && !maxReadersInside.compare_exchange_weak(seen, inside)) {
            }
            if (writersInside.load() != 0) ++violations;
            if (first != second) ++violations;
            std::this_thread::yield();
            readersInside.fetch_sub(1);
            if ((i + seed) % 3 == 0) lock.ReadUnlock();
            lock.ReadUnlock();
        }
    };
    auto writer = [&](int seed) {
        for (int i = 0; i < kRounds; ++i) {
            lock.WriteLock();
            const bool nested = (i + seed) % 4 == 0;
            const bool readUnder = (i + seed) % 5 == 0;
            if (nested) lock.WriteLock();
            if (readUnder) lock.ReadLock();
            checkWriterAlone();
            write();
            writersInside.fetch_sub(1);
            if (readUnder) lock.ReadUnlock();
            if (nested) lock.WriteUnlock();
            lock.WriteUnlock();
        }
    };
    auto upgrader = [&] {
        for (int i = 0; i < kRounds / 3; ++i) {
            lock.ReadLock();
            try {
                lock.WriteLock();
            } catch (const std::logic_error&) {
                ++upgradesRefused;
                lock.ReadUnlock();
                continue;
            }
            checkWriterAlone();
            write();
            writersInside.fetch_sub(1);
            lock.WriteUnlock();
            lock.ReadUnlock();
        }
    };

    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i) threads.emplace_back(reader, i);
        for (int i = 0; i < 2; ++i) threads.emplace_back(writer, i);
        for (int i = 0; i < 2; ++i) threads.emplace_back(upgrader);
    }

    EXPECT_EQ(violations.load(), 0);
    EXPECT_EQ(first, second);
    EXPECT_EQ(first, writes.load());
    EXPECT_EQ(writes.load(), 2 * kRounds + 2 * (kRounds / 3) - upgradesRefused.load());
    EXPECT_TRUE(Idle(lock));
    // Informational: how much sharing and contention the run produced.
    RecordProperty("maxReadersInside", maxReadersInside.load());
    RecordProperty("upgradesRefused", upgradesRefused.load());
}
