#pragma once
// Runs a callable when the scope ends, unless dismissed.
#include <utility>

namespace qv {

template <class Fn>
class ScopeExit {
public:
    explicit ScopeExit(Fn fn) : fn_(std::move(fn)) {}
    ~ScopeExit() {
        if (armed_) fn_();
    }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;
    void Dismiss() noexcept { armed_ = false; }

private:
    Fn fn_;
    bool armed_ = true;
};

}  // namespace qv
