#pragma once
// The subscribers of one of the reference host's notifying services, and the
// delivery of its reports to them.
//
// A service changes its state under its own lock, releases it, and only then
// calls its subscribers, so a subscriber never runs under a service's lock:
//
//     SubscriberList<IEvents>::Turn turn = subscribers_.TakeTurn();
//     { std::lock_guard lock(mutex_); /* change the state, copy the report */ }
//     turn.Deliver([&](IEvents* s) { s->OnChanged(report); });
//
// Guarantees:
// - Reports are delivered one after the other: a turn is held by one thread at
//   a time, and taking it before changing the state keeps reports in the order
//   of the changes. Each report reaches the subscribers in subscription order.
// - Once Remove returns on any thread but the delivering one, the subscriber
//   is not called again: Remove waits for the end of a report in progress.
// Re-entrancy allowed from inside a callback, on the delivering thread: reading
// the service, adding or removing any subscriber (itself included: the
// subscriber is then not called again, and Remove does not wait), and making
// the service report again (the nested report is delivered at once, inside the
// one in progress).
// Not allowed: a callback that waits for another thread which reports through
// the same list, or which removes a subscriber (both would wait for ever). Do not use it for reports that must reach
// subscribers concurrently: one slow subscriber holds up every report of its service.
//
// Thread rule: every member may be called from any thread; the list has its
// own plain mutex, never held while a subscriber is called.
#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "qv/status.h"

namespace host {

template <class T>
class SubscriberList {
public:
    SubscriberList() = default;
    SubscriberList(const SubscriberList&) = delete;
    SubscriberList& operator=(const SubscriberList&) = delete;

    // 0; kInvalidParameter for null; kFunctionFailed when already subscribed.
    int32_t Add(T* subscriber) {
        if (!subscriber) return qv::status::kInvalidParameter;
        std::lock_guard lock(mutex_);
        if (ContainsLocked(subscriber)) return qv::status::kFunctionFailed;
        subscribers_.push_back(subscriber);
        return 0;
    }

    // 0; kFunctionFailed when not subscribed. Called on another thread than
    // the delivering one, it first waits for the report in progress to end
    // (the subscriber, still subscribed, may be called by it).
    int32_t Remove(T* subscriber) {
        std::unique_lock lock(mutex_);
        if (turnOwner_ != std::this_thread::get_id()) reportEnded_.wait(lock, [&] { return delivering_ == 0; });
        auto it = std::find(subscribers_.begin(), subscribers_.end(), subscriber);
        if (it == subscribers_.end()) return qv::status::kFunctionFailed;
        subscribers_.erase(it);
        return 0;
    }

    bool Contains(T* subscriber) const {
        std::lock_guard lock(mutex_);
        return ContainsLocked(subscriber);
    }
    size_t size() const {
        std::lock_guard lock(mutex_);
        return subscribers_.size();
    }

    // The right to deliver one report; see the file comment. Taken again by
    // the thread that holds it (a nested report), it is shared.
    class [[nodiscard]] Turn {
    public:
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;
        ~Turn() { list_.EndTurn(); }

        // Calls `fn` on each subscriber of a copy taken now, skipping those
        // that left meanwhile. Returns how many were called.
        template <class Fn>
        size_t Deliver(Fn fn) {
            return list_.DeliverInTurn(fn);
        }

    private:
        friend class SubscriberList;
        explicit Turn(SubscriberList& list) : list_(list) { list_.BeginTurn(); }
        SubscriberList& list_;
    };

    Turn TakeTurn() { return Turn(*this); }

    // A report with no state change to order it against: TakeTurn + Deliver.
    template <class Fn>
    size_t Notify(Fn fn) {
        Turn turn = TakeTurn();
        return turn.Deliver(fn);
    }

private:
    bool ContainsLocked(T* subscriber) const {
        return std::find(subscribers_.begin(), subscribers_.end(), subscriber) != subscribers_.end();
    }

    void BeginTurn() {
        std::unique_lock lock(mutex_);
        const std::thread::id self = std::this_thread::get_id();
        if (turnOwner_ != self) {
            turnFree_.wait(lock, [&] { return turnOwner_ == std::thread::id(); });
            turnOwner_ = self;
        }
        ++turnDepth_;
    }

    void EndTurn() {
        std::lock_guard lock(mutex_);
        if (--turnDepth_ > 0) return;
        turnOwner_ = std::thread::id();
        turnFree_.notify_one();
    }

    template <class Fn>
    size_t DeliverInTurn(Fn& fn) {
        std::unique_lock lock(mutex_);
        const std::vector<T*> snapshot = subscribers_;
        ++delivering_;
        size_t called = 0;
        for (T* subscriber : snapshot) {
            if (!ContainsLocked(subscriber)) continue;
            lock.unlock();
            fn(subscriber);
            lock.lock();
            ++called;
        }
        if (--delivering_ == 0) reportEnded_.notify_all();
        return called;
    }

    mutable std::mutex mutex_;
    std::vector<T*> subscribers_;
    // The turn: which thread holds it and how many nested turns it took.
    std::thread::id turnOwner_;
    int turnDepth_ = 0;
    std::condition_variable turnFree_;
    // Reports being delivered: the one in progress and those nested in it.
    int delivering_ = 0;
    std::condition_variable reportEnded_;
};

}  // namespace host
