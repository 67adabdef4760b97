#pragma once
// A process-wide object that is built on first use and never destroyed.
//
// Use it for a shared object that threads may still use while the process
// exits: a host may end its process without stopping the module, and then
// static objects are destroyed while the module's threads still run (Linux),
// or after the system has ended those threads in whatever state they were
// (Windows), so a destructor that frees what they use, or waits for them,
// crashes or hangs. The object lives in static storage, not on the heap, so
// a library unloaded in the normal way leaves nothing behind, provided the
// object gives back the heap memory its members hold once it is idle (swap
// containers with empty ones; clear() keeps their capacity).
//
// Do not use it for objects whose destructor must run (files to close,
// data to flush): nothing here ever calls it.
//
//     os::NoDestructor<Poller>& Shared() {
//         static os::NoDestructor<Poller> shared;  // built once, thread-safe
//         return shared;
//     }
#include <new>
#include <utility>

namespace os {

template <class T>
class NoDestructor {
public:
    template <class... Args>
    explicit NoDestructor(Args&&... args) {
        new (storage_) T(std::forward<Args>(args)...);
    }
    // Deliberately leaves the object alone.
    ~NoDestructor() = default;
    NoDestructor(const NoDestructor&) = delete;
    NoDestructor& operator=(const NoDestructor&) = delete;

    T& operator*() noexcept { return *get(); }
    T* operator->() noexcept { return get(); }
    T* get() noexcept { return std::launder(reinterpret_cast<T*>(storage_)); }

private:
    alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace os
