#pragma once
// Root of every interface that crosses the module boundary.
#include "qv/guid.h"

struct IQvBaseInterface {
    static constexpr GUID iid = qv::MakeGuid(0x66551AB3, 0xFCA3, 0xBC90, 0x5F42, 0xC5F792E24B51);

    // Returns the requested interface of the same object, or null. Takes no reference.
    virtual void* QueryInterface(const GUID& iid) = 0;

protected:
    ~IQvBaseInterface() = default;
};

namespace qv {
// Interfaces carry their identifier as a static member `iid`.
template <class I>
constexpr const GUID& IidOf() {
    return I::iid;
}
}  // namespace qv
