#include "host/service_control.h"

#include <vector>

#include "qv/status.h"

namespace host {

void* ServiceControl::QueryInterface(const GUID& iid) {
    if (qv::GuidEquals(iid, IQvBaseInterface::iid) || qv::GuidEquals(iid, IControl::iid))
        return static_cast<IControl*>(this);
    return nullptr;
}

void ServiceControl::OnConnectionEvent(int32_t) {}

int32_t ServiceControl::RegisterControl(IControl* sink) {
    std::lock_guard lock(mutex_);
    if (sink && sinks_.Contains(sink)) return qv::status::kAlreadyExists;
    return sinks_.Add(sink);
}

int32_t ServiceControl::UnregisterControl(IControl* sink) {
    // Waiting for the delivery lock means no event is being delivered on
    // another thread once the sink is gone from the list.
    std::lock_guard delivery(deliveryMutex_);
    std::lock_guard lock(mutex_);
    return sinks_.Remove(sink) == 0 ? 0 : qv::status::kNotFound;
}

size_t ServiceControl::RaiseConnectionEvent(int32_t event) {
    std::lock_guard delivery(deliveryMutex_);
    std::vector<IControl*> snapshot;
    {
        std::lock_guard lock(mutex_);
        sinks_.ForEachStillSubscribed([&](IControl* sink) { snapshot.push_back(sink); });
    }
    size_t called = 0;
    for (IControl* sink : snapshot) {
        // A sink unregistered by an earlier sink's callback is skipped.
        if (!IsRegistered(sink)) continue;
        sink->OnConnectionEvent(event);
        ++called;
    }
    return called;
}

size_t ServiceControl::SinkCount() const {
    std::lock_guard lock(mutex_);
    return sinks_.size();
}

bool ServiceControl::IsRegistered(IControl* sink) const {
    std::lock_guard lock(mutex_);
    return sinks_.Contains(sink);
}

}  // namespace host
