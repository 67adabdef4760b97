#include "conditions/network/shared_resolver.h"

#include <algorithm>
#include <system_error>

#include "os/dns_query.h"
#include "os/module.h"
#include "os/no_destructor.h"
#include "os/thread_name.h"
#include "plugin/log.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr const wchar_t* kStaff = L"Product::Integration::ConditionManager::SharedResolver::Staff";
constexpr const wchar_t* kRelease = L"Product::Integration::ConditionManager::SharedResolver::Release";

// The subscriber whose OnResolved runs on this thread, if any.
thread_local SharedResolver::Subscriber* calledHere = nullptr;

// Any object of this binary: its address names the binary to keep loaded.
constexpr int kInThisModule = 0;

}  // namespace

SharedResolver::SharedResolver(Options options)
    : resolve_(std::move(options.resolve)),
      period_(options.period),
      maxThreads_(std::max<size_t>(1, options.maxThreads)) {}

SharedResolver::~SharedResolver() {
    os::UniqueLock lock(mutex_);
    ++generation_;
    free_ = 0;
    changed_.notify_all();
    std::unordered_map<std::thread::id, std::thread> threads = std::move(live_);
    live_.clear();
    JoinEnded();
    lock.Unlock();
    for (auto& [id, thread] : threads) thread.join();
    lock.Lock();
    // Threads let go earlier may still be on their way out.
    while (threads_ != 0) lock.Wait(changed_);
    JoinEnded();
}

SharedResolver::Answer SharedResolver::ResolveByDns(const std::wstring& name) {
    if (os::HasDnsRecord(name, os::DnsRecordType::kA)) return Answer::kA;
    if (os::HasDnsRecord(name, os::DnsRecordType::kAAAA)) return Answer::kAAAA;
    return Answer::kNone;
}

const char* SharedResolver::AnswerName(Answer answer) noexcept {
    switch (answer) {
        case Answer::kA:
            return "A";
        case Answer::kAAAA:
            return "AAAA";
        case Answer::kNone:
            break;
    }
    return "none";
}

SharedResolver& SharedResolver::Shared() {
    // In static storage, never destroyed; what it holds on the heap it gives
    // back when idle, so that an unloaded module leaves nothing behind.
    static os::NoDestructor<SharedResolver> shared(Options{&ResolveByDns});
    return *shared;
}

bool SharedResolver::Subscribe(Subscriber* subscriber, const std::wstring& name) {
    if (!subscriber) return false;
    os::MutexLock lock(mutex_);
    if (nameOf_.count(subscriber)) return false;
    const auto [entry, added] = names_.try_emplace(name);
    Name& asked = entry->second;
    asked.subscribers.push_back(subscriber);
    nameOf_.emplace(subscriber, name);
    if (!asked.inFlight)
        asked.due = std::chrono::steady_clock::now();
    else if (asked.delivering)
        asked.again = true;  // too late for the answer on its way
    if (!Staff() && threads_ == 0) {
        // Nobody would ever ask: refuse rather than stay false silently.
        nameOf_.erase(subscriber);
        asked.subscribers.pop_back();
        if (asked.subscribers.empty() && !asked.inFlight) names_.erase(entry);
        return false;
    }
    changed_.notify_all();
    return true;
}

void SharedResolver::Unsubscribe(Subscriber* subscriber) {
    os::UniqueLock lock(mutex_);
    const auto found = nameOf_.find(subscriber);
    if (found == nameOf_.end()) return;
    const auto entry = names_.find(found->second);
    nameOf_.erase(found);
    Name& asked = entry->second;
    asked.subscribers.erase(std::find(asked.subscribers.begin(), asked.subscribers.end(), subscriber));
    // A name in flight is erased by the thread asking it, once it is done.
    if (asked.subscribers.empty() && !asked.inFlight) names_.erase(entry);
    if (calledHere != subscriber && calling_.count(subscriber)) {
        ++waiting_;
        while (calling_.count(subscriber) != 0) lock.Wait(changed_);
        --waiting_;
    }
    if (nameOf_.empty()) {
        Released released = ReleaseLocked();
        lock.Unlock();
        FinishRelease(std::move(released));
    }
}

void SharedResolver::Refresh(Subscriber* subscriber, Reason reason) {
    os::MutexLock lock(mutex_);
    const auto found = nameOf_.find(subscriber);
    if (found == nameOf_.end()) return;
    Name& asked = names_.at(found->second);
    if (asked.inFlight) {
        // The answer on its way is fresh enough for a value request that
        // came before it; after a network change it may come from the
        // servers of before.
        if (reason == Reason::kNetworkChanged || asked.delivering) asked.again = true;
        return;
    }
    asked.due = std::chrono::steady_clock::now();
    static_cast<void>(Staff());
    changed_.notify_all();
}

size_t SharedResolver::Threads() const {
    os::MutexLock lock(mutex_);
    return threads_;
}

bool SharedResolver::Staff() {
    JoinEnded();
    if (free_ > 0 || threads_ >= maxThreads_ || nameOf_.empty()) return true;
    const uint64_t generation = generation_;
    try {
        std::thread thread([this, generation] {
            os::SetCurrentThreadName("cr:resolve");
            Run(generation);
        });
        const std::thread::id id = thread.get_id();
        live_.emplace(id, std::move(thread));
    } catch (const std::system_error& error) {
        logging::Log(logging::kError, kStaff, L"cannot start a resolution thread [%d]", error.code().value());
        return false;
    }
    ++threads_;
    ++free_;
    return true;
}

void SharedResolver::Run(uint64_t generation) {
    os::UniqueLock lock(mutex_);
    while (generation_ == generation) {
        const auto entry = FindDue(std::chrono::steady_clock::now());
        if (entry != names_.end()) {
            --free_;
            entry->second.inFlight = true;
            entry->second.again = false;
            // Someone else watches the clock and takes the next name meanwhile.
            static_cast<void>(Staff());
            Ask(entry);
            if (generation_ != generation) break;
            ++free_;
            continue;
        }
        if (free_ > 1) {
            // Another free thread waits already: this one is not needed.
            --free_;
            break;
        }
        const auto next = NextDue();
        if (next == std::chrono::steady_clock::time_point::max())
            lock.Wait(changed_);
        else
            static_cast<void>(lock.WaitUntil(changed_, next));
    }
    --threads_;
    // A place under the limit is free again, for a name waiting for one.
    if (generation_ != generation) static_cast<void>(Staff());
    if (const auto own = live_.find(std::this_thread::get_id()); own != live_.end()) {
        ended_.push_back(std::move(own->second));
        live_.erase(own);
    }
    // The last use of this object by the thread; notified under the lock, so
    // that the destructor cannot go on before the lock is let go.
    changed_.notify_all();
}

void SharedResolver::Ask(Names::iterator entry) {
    // The entry stays while it is in flight: nothing else erases it.
    const std::wstring& name = entry->first;
    Name& asked = entry->second;
    Resolution resolution;
    {
        const os::MutexUnlock unlocked(mutex_);
        resolution.askedAt = std::chrono::system_clock::now();
        resolution.answer = resolve_(name);
    }
    asked.delivering = true;
    const std::vector<Subscriber*> receivers = asked.subscribers;
    for (Subscriber* subscriber : receivers) {
        // One that left meanwhile is not called.
        if (std::find(asked.subscribers.begin(), asked.subscribers.end(), subscriber) == asked.subscribers.end())
            continue;
        calling_.insert(subscriber);
        {
            const os::MutexUnlock unlocked(mutex_);
            calledHere = subscriber;
            subscriber->OnResolved(resolution);
            calledHere = nullptr;
        }
        calling_.erase(subscriber);
        if (waiting_ > 0) changed_.notify_all();
    }
    asked.delivering = false;
    asked.inFlight = false;
    if (asked.subscribers.empty()) {
        names_.erase(entry);
        return;
    }
    asked.due = asked.again ? std::chrono::steady_clock::now() : std::chrono::steady_clock::now() + period_;
    asked.again = false;
}

SharedResolver::Names::iterator SharedResolver::FindDue(std::chrono::steady_clock::time_point now) {
    // A scan: the names are as many as the distinct names of the rules.
    auto earliest = names_.end();
    for (auto entry = names_.begin(); entry != names_.end(); ++entry) {
        const Name& asked = entry->second;
        if (asked.inFlight || asked.due > now) continue;
        if (earliest == names_.end() || asked.due < earliest->second.due) earliest = entry;
    }
    return earliest;
}

std::chrono::steady_clock::time_point SharedResolver::NextDue() const {
    auto next = std::chrono::steady_clock::time_point::max();
    for (const auto& [name, asked] : names_)
        if (!asked.inFlight) next = std::min(next, asked.due);
    return next;
}

SharedResolver::Released SharedResolver::ReleaseLocked() {
    ++generation_;
    free_ = 0;
    changed_.notify_all();
    Released released;
    // What is left are names still in flight, none of them subscribed.
    if (!names_.empty()) {
        released.asking = names_.size();
        for (auto& [id, thread] : live_) thread.detach();
        live_.clear();
        JoinEnded();
        return released;
    }
    // Every thread is idle: each ends as soon as it sees the new generation.
    released.idle = std::move(live_);
    live_.clear();
    JoinEnded();
    return released;
}

void SharedResolver::FinishRelease(Released released) {
    if (released.asking > 0) {
        const bool pinned = os::PinModuleOf(&kInThisModule);
        logging::Log(logging::kDetail, kRelease,
                     L"%u DNS question(s) still in progress: their threads end on their own (module %s)",
                     static_cast<unsigned>(released.asking), pinned ? L"kept loaded" : L"not pinned");
        return;
    }
    for (auto& [id, thread] : released.idle) {
        if (id == std::this_thread::get_id())
            thread.detach();
        else
            thread.join();
    }
    // Idle now: give back the tables' memory (clear() keeps their buckets).
    os::MutexLock lock(mutex_);
    if (nameOf_.empty() && names_.empty()) {
        decltype(nameOf_)().swap(nameOf_);
        decltype(calling_)().swap(calling_);
        decltype(ended_)().swap(ended_);
    }
}

void SharedResolver::JoinEnded() {
    // Ended threads take the lock no more, so they are joined under it.
    for (std::thread& thread : ended_) {
        if (thread.get_id() == std::this_thread::get_id())
            thread.detach();
        else
            thread.join();
    }
    ended_.clear();
}

}  // namespace Product::Integration::ConditionManager
