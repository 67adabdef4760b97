// The settings file against a writer killed at any instant: whatever the
// moment (inside a journal append, inside a whole rewrite, between commits),
// the store opens again and holds the last commit it acknowledged, or the one
// it was making. The writer is a child process killed with SIGKILL.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <thread>

#include "host/settings/settings_store.h"
#include "os/utf8.h"
#include "support/log_capture.h"

namespace {

constexpr Json::ArrayIndex kPieces = 10;
constexpr size_t kPieceSize = 100'000;

// A value big enough (1 MB) that writing it takes a while, so that kills
// land inside writes (which a kill cuts short) as well as between them. Its
// first element is `n`.
Json::Value Payload(int64_t n) {
    Json::Value value(Json::arrayValue);
    value.append(Json::Int64(n));
    for (Json::ArrayIndex i = 0; i < kPieces; ++i)
        value.append(std::string(kPieceSize, static_cast<char>('a' + i % 26)));
    return value;
}

// In the child: commits `first`, `first` + 1, ... as "/Counter" and writes
// each number to `acknowledged` once its commit succeeded. Never returns.
[[noreturn]] void CommitUntilKilled(const std::wstring& file, int acknowledged, int64_t first) {
    const auto opened = host::SettingsStore::Open(file);
    if (!opened) ::_exit(2);
    const auto& store = *opened;
    for (int64_t n = first;; ++n) {
        IEPSettingsNode* node = nullptr;
        if (store->OpenForWrite(L"/Counter", &node) != 0) ::_exit(3);
        const bool committed = node->SetJson(L"", Payload(n)) == 0 && node->Commit() == 0;
        node->Release();
        if (!committed) ::_exit(4);
        if (::write(acknowledged, &n, sizeof n) != static_cast<ssize_t>(sizeof n)) ::_exit(5);
    }
}

// The number stored as "/Counter"; -1 when nothing is stored yet. Fails the
// test (and answers -2) when the store does not open or the value is damaged.
int64_t StoredCounter(const std::wstring& file) {
    const auto opened = host::SettingsStore::Open(file);
    if (!opened) {
        ADD_FAILURE() << os::WideToUtf8Lossy(opened.status().message());
        return -2;
    }
    const auto& store = *opened;
    IEPSettingsNode* node = nullptr;
    if (store->OpenForRead(L"/Counter", &node) != 0) return -1;
    Json::Value value;
    const int32_t status = node->GetJson(L"", value);
    node->Release();
    if (status != 0 || !value.isArray() || value.size() != kPieces + 1 || value != Payload(value[0].asInt64())) {
        ADD_FAILURE() << "a damaged value: status " << status;
        return -2;
    }
    return value[0].asInt64();
}

TEST(SettingsStoreCrash, AKillAtAnyInstantLeavesTheLastAcknowledgedCommitOrTheOneUnderWay) {
    testing_support::TempDir dir;
    const std::wstring file = dir.File(L"settings.json");
    std::mt19937 random(20261122);
    std::uniform_int_distribution<int> afterFirstUs(0, 30'000);
    int64_t stored = -1;
    constexpr int kRounds = 25;
    for (int round = 0; round < kRounds; ++round) {
        int pipe[2];
        ASSERT_EQ(::pipe(pipe), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(pipe[0]);
            CommitUntilKilled(file, pipe[1], stored + 1);
        }
        ::close(pipe[1]);
        // Each writer makes at least one commit (so that the rounds make
        // progress however slow the build), then dies at a random instant
        // of the commits that follow.
        int64_t acknowledged = stored;
        const bool committed = ::read(pipe[0], &acknowledged, sizeof acknowledged) == sizeof acknowledged;
        if (committed) std::this_thread::sleep_for(std::chrono::microseconds(afterFirstUs(random)));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(committed) << "the writer made no commit";
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself with status " << WEXITSTATUS(status);
        for (int64_t n = 0; ::read(pipe[0], &n, sizeof n) == static_cast<ssize_t>(sizeof n);) acknowledged = n;
        ::close(pipe[0]);

        const int64_t now = StoredCounter(file);
        // The commit under way when the writer died may have reached the
        // file before its acknowledgement was sent.
        EXPECT_TRUE(now == acknowledged || now == acknowledged + 1)
            << "round " << round << ": acknowledged " << acknowledged << ", stored " << now;
        if (now < stored) break;
        stored = now;
    }
    EXPECT_GE(stored, kRounds - 1);  // one commit at least in every round, from 0
}

}  // namespace
