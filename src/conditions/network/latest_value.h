#pragma once
// A cached condition value that only a newer computation may replace.
//
// A computation (a notification pass, a recomputation asked by the engine, a
// timer pass) takes a ticket before it reads its source, and offers its value
// with that ticket when done. An offer whose ticket is older than the one of
// the value already stored is refused: a slow computation that read an older
// picture of the machine (a state copied before a change, a DNS answer asked
// before the servers changed) cannot overwrite what a later one stored and
// perhaps already notified.
//
// Thread rules: TakeTicket from any thread, without a lock. Offer and value()
// under the owner's lock (each condition guards its value in its own way).
#include <atomic>
#include <cstdint>

namespace Product::Integration::ConditionManager {

class LatestValue {
public:
    // Taken before the computation reads its source; later takers get larger tickets.
    uint64_t TakeTicket() noexcept { return nextTicket_.fetch_add(1, std::memory_order_relaxed) + 1; }

    // Stores `value` unless a computation with a later ticket stored first;
    // true when it was stored and differs from the value before.
    bool Offer(uint64_t ticket, bool value) noexcept {
        if (ticket < storedTicket_) return false;
        storedTicket_ = ticket;
        const bool changed = value != value_;
        value_ = value;
        return changed;
    }

    bool value() const noexcept { return value_; }

private:
    std::atomic<uint64_t> nextTicket_{0};
    uint64_t storedTicket_ = 0;  // the ticket of value_; 0 before any offer
    bool value_ = false;
};

}  // namespace Product::Integration::ConditionManager
