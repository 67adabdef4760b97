#pragma once
// One thread that polls the paths of all file conditions of the process.
//
// A path has no change notification, so file conditions are polled. Rather
// than a thread per condition (a rule may hold thousands of them), one thread
// serves every registered client: a pass calls Poll once on each client in
// registration order, then the thread waits one interval. A change is
// therefore seen within one interval plus one pass. A pass costs one
// file-system check per client; with 10,000 clients that is milliseconds on
// a local disk and can be much longer on remote paths, which stretches the
// period for all of them. That is accepted: the alternative is a thread each.
//
// The thread starts with the first client and ends when the last one leaves,
// so nothing runs once every condition has been freed, in particular not
// when the module unloads.
//
// Thread rules: Register and Unregister from any thread; Poll is called on
// the poller thread without any lock of the poller held. After Unregister
// returns, the client is never polled again and no poll of it is in
// progress: Unregister waits for a poll of that client that is running. So
// - a caller of Unregister must not hold a lock that the client's Poll (or a
//   subscriber notified from it) takes, or both wait for ever;
// - called from inside the client's own Poll (a subscriber uninitialising the
//   condition that notifies it), Unregister does not wait for itself; the
//   client must then stay alive until its Poll has returned, which is why a
//   condition is never destroyed from its own notification. Unregistering
//   other clients from inside a Poll is fine.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace Product::Integration::ConditionManager {

class FilePoller {
public:
    // What the poller calls; implemented by the file conditions.
    class Client {
    public:
        // Checks the client's source once and notifies on a change.
        virtual void Poll() = 0;

    protected:
        ~Client() = default;
    };

    static constexpr uint32_t kDefaultIntervalMs = 100;

    explicit FilePoller(uint32_t intervalMs = kDefaultIntervalMs);
    // Ends the thread (and waits for one let go from inside a poll); clients
    // still registered are forgotten.
    ~FilePoller();
    FilePoller(const FilePoller&) = delete;
    FilePoller& operator=(const FilePoller&) = delete;

    // The poller of all file conditions of the process, polling every 100 ms.
    // Destroyed with the module's static objects, when its thread has ended
    // already (it ends with the last condition, and every condition is freed
    // before the module is unloaded), so that nothing is joined while the
    // module unloads and nothing is left behind by an unloaded module.
    static FilePoller& Shared();

    // Adds `client` at the end of the pass, starting the thread if it is the
    // first. False when it is already registered or the thread cannot start.
    [[nodiscard]] bool Register(Client* client);
    // Removes `client` (nothing when it is not registered), waiting for a poll
    // of it in progress (see above); ends the thread when it was the last.
    void Unregister(Client* client);

    size_t ClientCount() const;
    // Whether a thread serves the clients.
    bool Running() const;

private:
    void Run(uint64_t generation);
    // Drops the places of clients that left during a pass.
    void Compact();

    const std::chrono::milliseconds interval_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;            // a poll ended, or the thread is to end
    std::vector<Client*> clients_;               // in registration order; null where one left
    std::unordered_map<Client*, size_t> index_;  // place of each client in clients_
    size_t holes_ = 0;                           // null places in clients_
    size_t waiting_ = 0;                         // Unregister calls waiting for a poll to end
    size_t threads_ = 0;                         // threads started and not yet ended
    Client* polling_ = nullptr;                  // whose Poll runs on the serving thread
    std::thread thread_;                         // the serving thread
    uint64_t generation_ = 0;                    // changes whenever a thread is told to end
    bool serving_ = false;
};

}  // namespace Product::Integration::ConditionManager
