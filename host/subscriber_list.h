#pragma once
// Subscriber bookkeeping shared by the reference host's notifying services:
// pointers (not owned), in subscription order, no duplicates.
//
// Thread rule: not synchronised; the owning service calls these under its own
// mutex, which also guards the rest of its state.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "qv/status.h"

namespace host {

template <class T>
class SubscriberList {
public:
    // 0; kInvalidParameter for null; kFunctionFailed when already subscribed.
    int32_t Add(T* subscriber) {
        if (!subscriber) return qv::status::kInvalidParameter;
        if (Contains(subscriber)) return qv::status::kFunctionFailed;
        subscribers_.push_back(subscriber);
        return 0;
    }

    // 0; kFunctionFailed when not subscribed.
    int32_t Remove(T* subscriber) {
        auto it = std::find(subscribers_.begin(), subscribers_.end(), subscriber);
        if (it == subscribers_.end()) return qv::status::kFunctionFailed;
        subscribers_.erase(it);
        return 0;
    }

    bool Contains(T* subscriber) const {
        return std::find(subscribers_.begin(), subscribers_.end(), subscriber) != subscribers_.end();
    }

    // Calls `fn` on each subscriber of a copy taken first, skipping those that
    // left meanwhile, so that a subscriber may (un)subscribe while called.
    // Returns how many were called.
    template <class Fn>
    size_t ForEachStillSubscribed(Fn fn) const {
        const std::vector<T*> snapshot = subscribers_;
        size_t called = 0;
        for (T* subscriber : snapshot) {
            if (!Contains(subscriber)) continue;
            fn(subscriber);
            ++called;
        }
        return called;
    }

    size_t size() const noexcept { return subscribers_.size(); }
    bool empty() const noexcept { return subscribers_.empty(); }

private:
    std::vector<T*> subscribers_;
};

}  // namespace host
