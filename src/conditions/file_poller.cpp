#include "conditions/file_poller.h"

#include <system_error>

#include "os/no_destructor.h"

namespace Product::Integration::ConditionManager {
namespace {
// The client whose Poll runs on this thread, if any.
thread_local FilePoller::Client* clientPolledHere = nullptr;
}  // namespace

FilePoller::FilePoller(uint32_t intervalMs) : interval_(intervalMs) {}

FilePoller::~FilePoller() {
    std::thread finished;
    {
        std::lock_guard lock(mutex_);
        ++generation_;
        serving_ = false;
        clients_.clear();
        index_.clear();
        holes_ = 0;
        finished = std::move(thread_);
    }
    changed_.notify_all();
    if (finished.joinable()) {
        if (finished.get_id() == std::this_thread::get_id()) {
            finished.detach();
            return;
        }
        finished.join();
    }
    // A thread that was let go from inside a poll may still be on its way out.
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return threads_ == 0; });
}

FilePoller& FilePoller::Shared() {
    static os::NoDestructor<FilePoller> shared;
    return *shared;
}

bool FilePoller::Register(Client* client) {
    if (!client) return false;
    std::lock_guard lock(mutex_);
    if (index_.count(client)) return false;
    index_.emplace(client, clients_.size());
    clients_.push_back(client);
    if (serving_) return true;
    // The thread of an earlier generation was taken by whoever ended it.
    const uint64_t generation = ++generation_;
    try {
        thread_ = std::thread([this, generation] { Run(generation); });
        ++threads_;
    } catch (const std::system_error&) {
        clients_.pop_back();
        index_.erase(client);
        return false;
    }
    serving_ = true;
    return true;
}

void FilePoller::Unregister(Client* client) {
    std::thread finished;
    {
        std::unique_lock lock(mutex_);
        const auto found = index_.find(client);
        if (found == index_.end()) return;
        clients_[found->second] = nullptr;
        ++holes_;
        index_.erase(found);
        if (clientPolledHere != client) {
            ++waiting_;
            changed_.wait(lock, [&] { return polling_ != client; });
            --waiting_;
        }
        if (!index_.empty() || !serving_) return;
        // The last client left: the thread ends. Called from a Poll on that
        // very thread, it cannot be joined here.
        serving_ = false;
        ++generation_;
        // Give the memory back: the shared poller is never destroyed, and a
        // module unloaded now must leave nothing behind.
        std::vector<Client*>().swap(clients_);
        std::unordered_map<Client*, size_t>().swap(index_);
        holes_ = 0;
        // It is let go, and ends as soon as that Poll returns.
        if (thread_.get_id() == std::this_thread::get_id())
            thread_.detach();
        else
            finished = std::move(thread_);
    }
    changed_.notify_all();
    if (finished.joinable()) finished.join();
}

size_t FilePoller::ClientCount() const {
    std::lock_guard lock(mutex_);
    return index_.size();
}

bool FilePoller::Running() const {
    std::lock_guard lock(mutex_);
    return serving_;
}

void FilePoller::Run(uint64_t generation) {
    std::unique_lock lock(mutex_);
    while (generation_ == generation) {
        // Clients only join at the end during a pass, so the places stay put.
        for (size_t i = 0; i < clients_.size() && generation_ == generation; ++i) {
            Client* const client = clients_[i];
            if (!client) continue;
            polling_ = client;
            lock.unlock();
            clientPolledHere = client;
            client->Poll();
            clientPolledHere = nullptr;
            lock.lock();
            if (polling_ == client) polling_ = nullptr;
            if (waiting_ > 0) changed_.notify_all();
        }
        if (generation_ != generation) break;
        Compact();
        changed_.wait_for(lock, interval_, [&] { return generation_ != generation; });
    }
    // The last use of this object by the thread; notified under the lock, so
    // that the destructor cannot proceed before the lock is let go.
    --threads_;
    changed_.notify_all();
}

void FilePoller::Compact() {
    if (holes_ == 0) return;
    size_t kept = 0;
    for (Client* client : clients_) {
        if (!client) continue;
        index_[client] = kept;
        clients_[kept++] = client;
    }
    clients_.resize(kept);
    holes_ = 0;
}

}  // namespace Product::Integration::ConditionManager
