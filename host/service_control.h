#pragma once
// Reference service control: a plug-in group member that accepts sinks and
// tells them of the service's connection events, raised by hand by the host
// program or a test. As a member it is no sink itself: its own
// OnConnectionEvent does nothing.
//
// Thread rule: every operation may be called from any thread. An event is
// delivered on the thread that raises it, to each sink in registration order:
// concurrent events are delivered one after the other, and once
// UnregisterControl returns the sink is not called again. A sink may register,
// unregister or raise from inside its callback (host/subscriber_list.h says
// what else).
#include <cstddef>
#include <cstdint>

#include "host/subscriber_list.h"
#include "plugin/module_names.h"
#include "qv/service_control.h"

namespace host {

class ServiceControl final : public EndpointService::IControl {
public:
    // The plug-in group the host puts its service control in.
    static constexpr const wchar_t* kGroupName = qv::names::kServiceControlGroup;

    ServiceControl() = default;
    ServiceControl(const ServiceControl&) = delete;
    ServiceControl& operator=(const ServiceControl&) = delete;

    void* QueryInterface(const GUID& iid) override;
    void OnConnectionEvent(int32_t event) override;
    int32_t RegisterControl(IControl* sink) override;
    int32_t UnregisterControl(IControl* sink) override;

    // Tells every registered sink of `event`; returns how many were called.
    size_t RaiseConnectionEvent(int32_t event);
    size_t SinkCount() const;

private:
    SubscriberList<IControl> sinks_;
};

}  // namespace host
