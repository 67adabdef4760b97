// The scripted agent-component library; see scripted_components.h.
#include "scripted_components.h"

#include <cstdint>
#include <cwchar>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "qv/ovra_components.h"
#include "qv/status.h"

#if defined(_WIN32)
#define TEST_EXPORT extern "C" __declspec(dllexport)
#else
#define TEST_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace {

struct Script {
    std::set<std::wstring> osInfoPhysical;
    std::set<std::wstring> published;        // what "Ovra.Network" reads on Start and Refresh
    std::map<std::wstring, int32_t> starts;  // component -> Start's status
    std::map<std::wstring, int32_t> creates;
    std::set<std::wstring> withoutQuery;
    std::wstring journal;
};

std::mutex scriptMutex;
Script script;

void Note(const std::wstring& line) {
    std::lock_guard lock(scriptMutex);
    script.journal += line + L"\n";
}

std::wstring MacText(const uint8_t* address, uint32_t length) {
    std::wstring text;
    for (uint32_t i = 0; address && i < length; ++i) {
        wchar_t pair[3];
        std::swprintf(pair, 3, L"%02x", address[i]);
        text += pair;
    }
    return text;
}

class Component : public Ovra::IComponent {
public:
    explicit Component(std::wstring name) : name_(std::move(name)) {}
    virtual ~Component() = default;
    void Release() override { Note(name_ + L" release"); }
    int32_t Start() override {
        Note(name_ + L" start");
        std::lock_guard lock(scriptMutex);
        OnStart();
        const auto status = script.starts.find(name_);
        return status == script.starts.end() ? 0 : status->second;
    }
    const std::wstring& name() const { return name_; }

protected:
    // Under the script's lock.
    virtual void OnStart() {}
    bool AnswersQuery() const {
        std::lock_guard lock(scriptMutex);
        return script.withoutQuery.count(name_) == 0;
    }

private:
    const std::wstring name_;
};

class OSInfo final : public Component, public Ovra::IPhysicalAdapterQuery {
public:
    OSInfo() : Component(Ovra::kOSInfoComponent) {}
    void* QueryInterface(const GUID& requested) override {
        if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, Ovra::IComponent::iid))
            return static_cast<Ovra::IComponent*>(this);
        if (qv::GuidEquals(requested, Ovra::IPhysicalAdapterQuery::iid) && AnswersQuery())
            return static_cast<Ovra::IPhysicalAdapterQuery*>(this);
        return nullptr;
    }
    bool IsPhysicalAdapter(uint32_t ifType, const uint8_t* address, uint32_t length) override {
        const std::wstring mac = MacText(address, length);
        Note(name() + L" physical? " + std::to_wstring(ifType) + L" " + mac);
        std::lock_guard lock(scriptMutex);
        return script.osInfoPhysical.count(mac) != 0;
    }
};

class Network final : public Component, public Ovra::IMacQuery {
public:
    Network() : Component(Ovra::kNetworkComponent) {}
    void* QueryInterface(const GUID& requested) override {
        if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, Ovra::IComponent::iid))
            return static_cast<Ovra::IComponent*>(this);
        if (qv::GuidEquals(requested, Ovra::IMacQuery::iid) && AnswersQuery())
            return static_cast<Ovra::IMacQuery*>(this);
        return nullptr;
    }
    bool IsPhysicalMac(const wchar_t* macText) override {
        const std::wstring mac = macText ? macText : L"(null)";
        Note(name() + L" mac? " + mac);
        std::lock_guard lock(scriptMutex);
        return table_.count(mac) != 0;
    }
    void Refresh() override {
        Note(name() + L" refresh");
        std::lock_guard lock(scriptMutex);
        table_ = script.published;
    }

private:
    void OnStart() override { table_ = script.published; }
    std::set<std::wstring> table_;  // under the script's lock
};

}  // namespace

TEST_EXPORT int32_t QvCreateObject(const wchar_t* name, const GUID* iid, void** object) {
    if (!object) return qv::status::kInvalidParameter;
    *object = nullptr;
    if (!name || !iid) return qv::status::kNotFound;
    const std::wstring component = name;
    Note(component + L" create");
    {
        std::lock_guard lock(scriptMutex);
        const auto status = script.creates.find(component);
        if (status != script.creates.end() && status->second != 0) return status->second;
    }
    Component* made = nullptr;
    if (component == Ovra::kOSInfoComponent) made = new OSInfo();
    if (component == Ovra::kNetworkComponent) made = new Network();
    if (!made) return qv::status::kNotFound;
    *object = made->QueryInterface(*iid);
    if (!*object) {
        delete made;
        return qv::status::kNotFound;
    }
    return qv::status::kSuccess;
}

TEST_EXPORT void QvDestroyObject(const wchar_t* name, void* object) {
    Note(std::wstring(name ? name : L"(null)") + L" destroy");
    if (!object) return;
    auto* base = static_cast<IQvBaseInterface*>(object);
    delete static_cast<Component*>(static_cast<Ovra::IComponent*>(base->QueryInterface(Ovra::IComponent::iid)));
}

TEST_EXPORT void ScriptedReset() {
    std::lock_guard lock(scriptMutex);
    script = Script{};
}

TEST_EXPORT void ScriptedSet(const wchar_t* key, const wchar_t* value) {
    if (!key || !value) return;
    const std::wstring k = key, v = value;
    std::lock_guard lock(scriptMutex);
    const auto endsWith = [&](const std::wstring& suffix) {
        return k.size() > suffix.size() && k.compare(k.size() - suffix.size(), suffix.size(), suffix) == 0;
    };
    const auto component = [&](const std::wstring& suffix) { return k.substr(0, k.size() - suffix.size()); };
    if (k == L"Ovra.OSInfo.physical") {
        script.osInfoPhysical.insert(v);
    } else if (k == L"Ovra.Network.published") {
        script.published.insert(v);
    } else if (endsWith(L".start")) {
        script.starts[component(L".start")] = std::stoi(v);
    } else if (endsWith(L".create")) {
        script.creates[component(L".create")] = std::stoi(v);
    } else if (endsWith(L".query") && v == L"none") {
        script.withoutQuery.insert(component(L".query"));
    }
}

TEST_EXPORT size_t ScriptedJournal(wchar_t* buffer, size_t capacity) {
    std::lock_guard lock(scriptMutex);
    if (buffer && capacity > 0) {
        const size_t copied = script.journal.size() < capacity - 1 ? script.journal.size() : capacity - 1;
        script.journal.copy(buffer, copied);
        buffer[copied] = L'\0';
    }
    return script.journal.size();
}
