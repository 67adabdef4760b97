#pragma once
// Where the provider's listener learns that addresses changed.
//
// The system's source (SystemChangeSource) is the address-change watch of
// the operating system. EventChangeSource reports a change whenever its
// owner signals one: for hosts that learn of changes by other means, and for
// tests and measurements that must not depend on the machine.
//
// Thread rule: Register, Wait and Cancel are called by the listener thread
// only; EventChangeSource::Signal from any thread.
#include <cstdint>

#include "os/address_change.h"
#include "os/event.h"
#include "qv/status.h"

namespace Product::Integration {

class IChangeSource {
public:
    using WaitResult = os::AddressChangeWatch::WaitResult;

    virtual ~IChangeSource() = default;

    // 0, or the system's error when the source could not be made.
    virtual uint32_t CreationError() const noexcept = 0;
    // Asks for the next change; 0 when the request is in place, else the error.
    [[nodiscard]] virtual uint32_t Register() = 0;
    // A change (which consumes the request), `stop`, a time-out or a failure.
    virtual WaitResult Wait(os::AutoResetEvent& stop, uint32_t timeoutMs) = 0;
    // Withdraws the request in place, if any.
    virtual void Cancel() = 0;
};

class SystemChangeSource final : public IChangeSource {
public:
    uint32_t CreationError() const noexcept override { return watch_.CreationError(); }
    uint32_t Register() override { return watch_.Register(); }
    WaitResult Wait(os::AutoResetEvent& stop, uint32_t timeoutMs) override { return watch_.Wait(stop, timeoutMs); }
    void Cancel() override { watch_.Cancel(); }

    const os::AddressChangeWatch& watch() const noexcept { return watch_; }

private:
    os::AddressChangeWatch watch_;
};

class EventChangeSource final : public IChangeSource {
public:
    // Reports one change to the next (or current) Wait.
    void Signal() noexcept { changed_.Set(); }

    uint32_t CreationError() const noexcept override {
        if (changed_.Valid()) return 0;
        const uint32_t error = changed_.CreationError();
        return error != 0 ? error : static_cast<uint32_t>(qv::status::kCreateFailed);
    }
    uint32_t Register() override { return 0; }
    WaitResult Wait(os::AutoResetEvent& stop, uint32_t timeoutMs) override {
        switch (os::WaitAny({&changed_, &stop}, timeoutMs)) {
            case 0:
                return WaitResult::kChanged;
            case 1:
                return WaitResult::kStopped;
            case os::kWaitTimeout:
                return WaitResult::kTimeout;
            default:
                return WaitResult::kFailed;
        }
    }
    void Cancel() override {}

private:
    os::AutoResetEvent changed_;
};

}  // namespace Product::Integration
