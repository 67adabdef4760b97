#pragma once
// The module's table of exported names and the declarations behind them.
// A declaration is a static object: it registers its name while static
// objects are constructed and unregisters it when they are destroyed.
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "os/process_info.h"
#include "plugin/log.h"
#include "qv/base_interface.h"

namespace qv {

// The declaration behind one exported name.
struct IObjectConstructor {
    virtual IQvBaseInterface* CreateInstance() = 0;
    virtual void DestroyInstance(IQvBaseInterface* object) = 0;
    virtual bool HasInstances() = 0;

protected:
    ~IObjectConstructor() = default;
};

// Name -> declaration, exact and case-sensitive (ordinal order of code units).
// Every operation runs under the registry's lock; CreateInstance and
// DestroyInstance run inside it, so declarations need no lock of their own.
// The lock is re-entrant: an object whose constructor or destructor takes or
// gives back another object of this module on the same thread does not
// deadlock.
class ExportedObjectRegistry {
public:
    static ExportedObjectRegistry& Instance();

    // 0, or kAlreadyExists when the name is present (the table is left unchanged).
    [[nodiscard]] int32_t Register(const std::wstring& name, IObjectConstructor* declaration);
    void Unregister(const std::wstring& name);

    // The QvCreateObject / QvDestroyObject steps. CreateObject: 0 with
    // *object set; kNotFound with *object null for a null or unknown name or
    // identifier, or an object without `iid` (given back at once);
    // kInvalidParameter for a null `object`.
    [[nodiscard]] int32_t CreateObject(const wchar_t* name, const GUID* iid, void** object);
    void DestroyObject(const wchar_t* name, void* object);

    bool Contains(const std::wstring& name);

private:
    std::recursive_mutex mutex_;
    std::map<std::wstring, IObjectConstructor*> table_;
};

// Registers itself under `name` for its lifetime.
class ExportedDeclarationBase : public IObjectConstructor {
public:
    explicit ExportedDeclarationBase(std::wstring name) : name_(std::move(name)) {
        registration_ = ExportedObjectRegistry::Instance().Register(name_, this);
    }
    const std::wstring& name() const noexcept { return name_; }
    // 0, or kAlreadyExists when the name was taken by an earlier declaration.
    int32_t registration() const noexcept { return registration_; }

protected:
    ~ExportedDeclarationBase() {
        if (registration_ == 0) ExportedObjectRegistry::Instance().Unregister(name_);
    }

private:
    std::wstring name_;
    int32_t registration_;
};

// One shared, use-counted instance. The logging façade is held while it lives.
template <class T>
class ExportedSingletonDeclaration final : public ExportedDeclarationBase {
public:
    using ExportedDeclarationBase::ExportedDeclarationBase;
    // Deletes a surviving instance, unless the process is ending: the system
    // has then ended the module's threads wherever they were, and the
    // instance's shutdown could wait for them or for a lock one of them held.
    ~ExportedSingletonDeclaration() {
        if (instance_ && !os::ProcessIsEnding()) {
            delete instance_;
            instance_ = nullptr;
            logging::CLogDLL::Release();
        }
    }

    IQvBaseInterface* CreateInstance() override {
        if (!instance_) {
            logging::CLogDLL::Acquire();
            instance_ = new T();
        }
        ++count_;
        return static_cast<IQvBaseInterface*>(instance_->QueryInterface(IQvBaseInterface::iid));
    }

    void DestroyInstance(IQvBaseInterface*) override {
        if (count_ <= 0) return;
        if (--count_ == 0) {
            delete instance_;
            instance_ = nullptr;
            logging::CLogDLL::Release();
        }
    }

    bool HasInstances() override { return count_ > 0; }
    int32_t count() const noexcept { return count_; }

private:
    T* instance_ = nullptr;
    int32_t count_ = 0;
};

// A new instance per request, deleted when given back.
template <class T>
class ExportedObjectDeclaration final : public ExportedDeclarationBase {
public:
    using ExportedDeclarationBase::ExportedDeclarationBase;

    IQvBaseInterface* CreateInstance() override {
        logging::CLogDLL::Acquire();
        T* object = new T();
        return static_cast<IQvBaseInterface*>(object->QueryInterface(IQvBaseInterface::iid));
    }

    void DestroyInstance(IQvBaseInterface* object) override {
        if (T* typed = dynamic_cast<T*>(object)) {
            delete typed;
            logging::CLogDLL::Release();
        }
    }

    bool HasInstances() override { return false; }
};

}  // namespace qv
