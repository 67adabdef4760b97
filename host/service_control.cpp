#include "host/service_control.h"

#include <vector>

#include "qv/status.h"

namespace host {

void* ServiceControl::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, IControl::iid))
        return static_cast<IControl*>(this);
    return nullptr;
}

void ServiceControl::OnConnectionEvent(int32_t) {}

int32_t ServiceControl::RegisterControl(IControl* sink) {
    const int32_t status = sinks_.Add(sink);
    return status == qv::status::kFunctionFailed ? qv::status::kAlreadyExists : status;
}

int32_t ServiceControl::UnregisterControl(IControl* sink) {
    return sinks_.Remove(sink) == 0 ? 0 : qv::status::kNotFound;
}

size_t ServiceControl::RaiseConnectionEvent(int32_t event) {
    return sinks_.Notify([&](IControl* sink) { sink->OnConnectionEvent(event); });
}

size_t ServiceControl::SinkCount() const { return sinks_.size(); }

}  // namespace host
