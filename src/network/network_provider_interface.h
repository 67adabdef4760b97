#pragma once
// The network provider as its users see it: one shared, change-notifying
// picture of the machine's network configuration (the NetworkState record).
// Network conditions start it while they run, subscribe to its changes and
// read the state when told that it moved.
//
// Host code may implement the interface as well (a stand-in provider).
#include <cstdint>

#include "network/network_state.h"
#include "plugin/module_names.h"
#include "qv/base_interface.h"

namespace Product::Integration {

class INetworkProvider : public IQvBaseInterface {
public:
    // The name it is exported and looked up under, and its identifier (for
    // lookup and for injection into conditions).
    static constexpr const wchar_t* kPluginName = qv::names::kNetworkProvider;
    static constexpr GUID iid = qv::MakeGuid(0x9E3B6C41, 0x52D7, 0x4A08, 0xB1F3, 0x6D2E84C07A15);

    // Receives change notifications, on the provider's thread.
    class IEvents {
    public:
        // The state may have moved; fetch it with GetState. Returns a status.
        [[nodiscard]] virtual int32_t OnNetworkStateChanged() = 0;

    protected:
        ~IEvents() = default;
    };

    // Counted start and stop: the first Start starts watching, the Stop that
    // balances the last Start ends it. Stop must not be called from inside a
    // notification.
    [[nodiscard]] virtual int32_t Start() = 0;
    [[nodiscard]] virtual int32_t Stop() = 0;
    // Copies the current state into `out`; 0.
    [[nodiscard]] virtual int32_t GetState(NetworkState& out) = 0;
    // 0, or kFunctionFailed when `subscriber` is already subscribed.
    [[nodiscard]] virtual int32_t Subscribe(IEvents* subscriber) = 0;
    // 0, or kFunctionFailed when `subscriber` was not subscribed. Once this returns the
    // subscriber is not called any more.
    [[nodiscard]] virtual int32_t Unsubscribe(IEvents* subscriber) = 0;

protected:
    ~INetworkProvider() = default;
};

}  // namespace Product::Integration
