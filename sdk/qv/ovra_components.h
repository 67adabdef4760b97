#pragma once
// The agent's components that know whether a network adapter is physical,
// reached through the agent's proxy library ("ovra.proxy.dll" on Windows,
// "libovra.proxy.so" on Linux), which exports QvCreateObject and
// QvDestroyObject like every plug-in library.
//
// Use: QvCreateObject(component name, IQvBaseInterface::iid) gives the
// component's object; its IComponent interface is started, then asked for
// the query interface. Giving it back: IComponent::Release, then
// QvDestroyObject with the same name.
//
// Thread rule: a component's queries may be called from any thread, one at a
// time per object.
#include <cstdint>

#include "qv/base_interface.h"

namespace Ovra {

// The library's name without the platform's prefix and extension.
inline constexpr const wchar_t* kProxyLibraryStem = L"ovra.proxy";

// The component whose object answers IPhysicalAdapterQuery.
inline constexpr const wchar_t* kOSInfoComponent = L"Ovra.OSInfo";
// The component whose object answers IMacQuery.
inline constexpr const wchar_t* kNetworkComponent = L"Ovra.Network";

// The main interface of every component object.
struct IComponent : IQvBaseInterface {
    static constexpr GUID iid = qv::MakeGuid(0x802C6BF2, 0x9184, 0x8AC2, 0x9E48, 0x99366CF9B188);

    // Gives up what Start acquired. The object itself goes back through
    // QvDestroyObject afterwards.
    virtual void Release() = 0;
    // Makes the component ready to answer; 0 or a Windows error code.
    [[nodiscard]] virtual int32_t Start() = 0;

protected:
    ~IComponent() = default;
};

// "Ovra.OSInfo": whether an adapter, given by its interface type (IANA
// ifType) and physical address, is backed by a hardware device.
struct IPhysicalAdapterQuery : IQvBaseInterface {
    static constexpr GUID iid = qv::MakeGuid(0x28F36EC7, 0x1BBB, 0xBA84, 0x8648, 0x8E2D476E164B);

    virtual bool IsPhysicalAdapter(uint32_t ifType, const uint8_t* address, uint32_t length) = 0;

protected:
    ~IPhysicalAdapterQuery() = default;
};

// "Ovra.Network": whether a physical address, written as lower-case
// hexadecimal digit pairs without separators ("02fc00000001"), belongs to a
// hardware device. Answers from a table that Refresh reads anew.
struct IMacQuery : IQvBaseInterface {
    static constexpr GUID iid = qv::MakeGuid(0xF709EA28, 0xB54A, 0xB320, 0xE74F, 0x3AC25749D822);

    virtual bool IsPhysicalMac(const wchar_t* macText) = 0;
    virtual void Refresh() = 0;

protected:
    ~IMacQuery() = default;
};

// The proxy library's exports.
using CreateObjectFn = int32_t (*)(const wchar_t* name, const GUID* iid, void** object);
using DestroyObjectFn = void (*)(const wchar_t* name, void* object);

}  // namespace Ovra
