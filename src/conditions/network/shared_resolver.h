#pragma once
// The DNS questions of all host-resolution conditions of the process, asked
// by a small pool of threads shared by every condition.
//
// Why not a thread and a blocking question per condition: a DNS question can
// take as long as the servers' time-out (many seconds when a server drops
// packets). Asked on the caller's thread, it stalled the condition's Init (and
// so a whole rule change), the network provider's notification pass (every
// other network condition with it), the engine's recomputations and the
// condition's shut-down, and a thread per condition made the thread count grow
// with the rules. This departs on purpose from a timer thread per condition
// and blocking resolution, as the shared file poller does for file
// conditions: here nothing waits for DNS but the pool's own threads.
//
// Model: subscribers are keyed by host name (the exact text: names that
// differ only in letter case are asked separately); each name has at most one
// question in flight, whose answer goes to every subscriber of that name (in
// subscription order, one subscriber at a time, never two answers of one name
// at once, so answers arrive in the order they were asked). A name is asked
//  - when a subscriber joins (Subscribe), unless its question is in flight:
//    the newcomer then shares the answer on its way, which is as fresh as a
//    question it would have sent itself;
//  - `period` after its last answer;
//  - on Refresh. With Reason::kValueRequest a question in flight serves as
//    the fresh one. With Reason::kNetworkChanged a question in flight may
//    have gone to the servers of the network before the change, so the name
//    is asked once more after that answer (any number of changes during one
//    question give one more question, not one each).
// A subscriber or a value request that comes while the answer of its name is
// being delivered came after that answer: the name is asked once more, at
// once after the delivery.
//
// Threads: at most `maxThreads` (4 for the shared instance) at any time, for
// any number of names. One thread waits for the next due question while
// there are subscribers (this is the rest level: one thread); a thread that
// takes a question leaves another waiting if the limit allows, so that a hung
// question delays neither other names nor the periodic questions. When every
// pool thread hangs in DNS, further questions wait for one of them to end.
// When the last subscriber leaves, the idle threads end and are joined at
// once; threads still in a question cannot be joined without waiting for DNS,
// so they are let go: each ends on its own when its question returns (its
// answer goes to whoever subscribed to that name meanwhile, else nowhere), and the module containing this code is
// pinned so that it stays loaded while they run. Unsubscribe never waits for DNS.
//
// Thread rules: Subscribe, Unsubscribe and Refresh from any thread; OnResolved
// is called on a pool thread with no lock of the resolver held. After
// Unsubscribe returns, the subscriber is never called again and no call of it
// is in progress: Unsubscribe waits for a call of that subscriber that is
// running. So
//  - a caller of Unsubscribe must not hold a lock that the subscriber's
//    OnResolved (or anything notified from it) takes, or both wait for ever;
//  - called from inside the subscriber's own OnResolved, Unsubscribe does not
//    wait for itself; the subscriber must then stay alive until OnResolved
//    has returned.
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "os/thread_annotations.h"

namespace Product::Integration::ConditionManager {

class SharedResolver {
public:
    // What one question found: no record, or the record that answered.
    enum class Answer : uint8_t { kNone, kA, kAAAA };
    // The answer of one question and when it was asked.
    struct Resolution {
        Answer answer = Answer::kNone;
        std::chrono::system_clock::time_point askedAt;
        bool resolves() const noexcept { return answer != Answer::kNone; }
    };

    // What the resolver calls; implemented by the host-resolution conditions.
    class Subscriber {
    public:
        // The answer of one question about the subscriber's name.
        virtual void OnResolved(const Resolution& resolution) = 0;

    protected:
        ~Subscriber() = default;
    };

    // Whether a name resolves, and through which record; called on pool
    // threads, may block for long.
    using ResolveFunction = std::function<Answer(const std::wstring& name)>;

    enum class Reason : bool { kValueRequest, kNetworkChanged };

    static constexpr std::chrono::milliseconds kDefaultPeriod = std::chrono::seconds(60);
    static constexpr size_t kDefaultMaxThreads = 4;

    struct Options {
        ResolveFunction resolve;
        std::chrono::milliseconds period = kDefaultPeriod;
        size_t maxThreads = kDefaultMaxThreads;  // at least 1
    };

    explicit SharedResolver(Options options);
    // Must not be called while subscribers remain or a question is in flight
    // (tests' own instances only: the shared one is never destroyed).
    ~SharedResolver();
    SharedResolver(const SharedResolver&) = delete;
    SharedResolver& operator=(const SharedResolver&) = delete;

    // The resolver of all host-resolution conditions of the process: A, then
    // AAAA, asked of the DNS servers, every 60 s, with at most 4 threads.
    // Never destroyed: no static destructor may join a thread (at process
    // exit the threads may be gone already, and a join would never return).
    static SharedResolver& Shared();
    // The shared instance's question: an A record, or failing that an AAAA one.
    static Answer ResolveByDns(const std::wstring& name);
    // "A", "AAAA" or "none".
    static const char* AnswerName(Answer answer) noexcept;

    // Adds `subscriber` for `name` and asks the name (see above). False when
    // the subscriber is already registered, or when no thread could be
    // started for the first subscriber (then it is not registered).
    [[nodiscard]] bool Subscribe(Subscriber* subscriber, const std::wstring& name);
    // Removes `subscriber` (nothing when it is not registered), waiting for a
    // call of it in progress (see above); never waits for DNS.
    void Unsubscribe(Subscriber* subscriber);
    // Asks the subscriber's name again (see above); nothing when the
    // subscriber is not registered.
    void Refresh(Subscriber* subscriber, Reason reason);

    // Pool threads running now, including ones let go that still hang in DNS.
    size_t Threads() const;

private:
    struct Name {
        std::vector<Subscriber*> subscribers;  // in subscription order
        std::chrono::steady_clock::time_point due;
        bool inFlight = false;    // a question is asked or its answer delivered
        bool delivering = false;  // the answer of the question in flight is being delivered
        bool again = false;       // ask once more after the question in flight
    };
    using Names = std::map<std::wstring, Name>;

    // The threads the last subscriber's leaving ends: to join, or let go
    // with their questions.
    struct Released {
        std::unordered_map<std::thread::id, std::thread> idle;  // to join
        size_t asking = 0;                                      // names still in flight, their threads let go
    };

    void Run(uint64_t generation) CR_EXCLUDES(mutex_);
    // Asks `entry`'s name and delivers the answer; lets the lock go while it
    // asks and while a subscriber is called.
    void Ask(Names::iterator entry) CR_REQUIRES(mutex_);
    // A name whose question is due and not in flight, or end().
    Names::iterator FindDue(std::chrono::steady_clock::time_point now) CR_REQUIRES(mutex_);
    std::chrono::steady_clock::time_point NextDue() const CR_REQUIRES(mutex_);
    // Starts a thread when no thread of the current generation is free to
    // take the next question and the limit allows. False when none could start.
    bool Staff() CR_REQUIRES(mutex_);
    // The last subscriber left: tells the current threads to end (see above)
    // and hands over the ones to join once the lock is let go...
    Released ReleaseLocked() CR_REQUIRES(mutex_);
    // ... which this does, without the lock.
    void FinishRelease(Released released) CR_EXCLUDES(mutex_);
    // Joins the threads that left their loop.
    void JoinEnded() CR_REQUIRES(mutex_);

    const ResolveFunction resolve_;
    const std::chrono::milliseconds period_;
    const size_t maxThreads_;

    mutable os::Mutex mutex_;
    std::condition_variable changed_;  // work came due, a call ended, a thread ended or is to end
    Names names_ CR_GUARDED_BY(mutex_);
    std::unordered_map<Subscriber*, std::wstring> nameOf_ CR_GUARDED_BY(mutex_);
    std::unordered_set<Subscriber*> calling_ CR_GUARDED_BY(mutex_);  // whose OnResolved runs now
    // Joinable threads of this object.
    std::unordered_map<std::thread::id, std::thread> live_ CR_GUARDED_BY(mutex_);
    std::vector<std::thread> ended_ CR_GUARDED_BY(mutex_);  // threads that left their loop, to join
    // Changes whenever the current threads are told to end.
    uint64_t generation_ CR_GUARDED_BY(mutex_) = 0;
    size_t threads_ CR_GUARDED_BY(mutex_) = 0;  // threads running, of every generation
    size_t free_ CR_GUARDED_BY(mutex_) = 0;     // threads of the current generation not in a question
    size_t waiting_ CR_GUARDED_BY(mutex_) = 0;  // Unsubscribe calls waiting for a call to end
};

}  // namespace Product::Integration::ConditionManager
