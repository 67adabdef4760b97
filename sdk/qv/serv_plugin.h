#pragma once
// The host's main object, its component manager and the plug-in contract.
#include <cstdint>

#include "qv/base_interface.h"

struct IEventQueueFactory;

// Host component manager: plug-ins by name, reference-counted per name.
struct IComponentManager {
    // 0 and *out set on success; otherwise a Windows error code and *out null.
    [[nodiscard]] virtual int32_t GetPlugin(const wchar_t* name, const GUID& iid, void** out) = 0;
    // Gives back one reference taken by GetPlugin under `name`.
    virtual void ReleasePlugin(const wchar_t* name) = 0;
    // The host's named event-queue service (never null for a running host).
    virtual IEventQueueFactory* GetEventQueueFactory() = 0;

protected:
    ~IComponentManager() = default;
};

// Given to every plug-in at initialisation.
struct IServMain : IQvBaseInterface {
    virtual IComponentManager* GetComponentManager() = 0;

protected:
    ~IServMain() = default;
};

struct IServPlugin : IQvBaseInterface {
    static constexpr GUID iid = qv::MakeGuid(0x414E2323, 0x04D0, 0x9833, 0x7641, 0x887C5D8252E9);

    [[nodiscard]] virtual int32_t Init(IServMain* main) = 0;
    [[nodiscard]] virtual int32_t Uninit() = 0;
    [[nodiscard]] virtual int32_t Start() = 0;
    [[nodiscard]] virtual int32_t Stop() = 0;

protected:
    ~IServPlugin() = default;
};
