#include "conditions/manager.h"

#include <exception>

#include "conditions/catalog.h"
#include "conditions/tree_shape.h"
#include "model/json_composed_serializer.h"
#include "os/utf8.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {

constexpr const wchar_t* kInit = L"Product::Integration::ConditionManager::Manager::Init";
constexpr const wchar_t* kInitDependencies = L"Product::Integration::ConditionManager::Manager::InitDependencies";
constexpr const wchar_t* kCreateCondition = L"Product::Integration::ConditionManager::Manager::CreateCondition";

// Conditions being built on this thread: the nesting of the tree so far.
thread_local size_t buildDepth = 0;

constexpr TreeShapeLimits kShapeLimits{Manager::kMaxConditionDepth, Manager::kMaxConditionNodes,
                                       Manager::kMaxJsonDepth};

class DepthScope {
public:
    DepthScope() { ++buildDepth; }
    ~DepthScope() { --buildDepth; }
    DepthScope(const DepthScope&) = delete;
    DepthScope& operator=(const DepthScope&) = delete;
};

}  // namespace

Manager::Manager() = default;

Manager::~Manager() { static_cast<void>(Uninit()); }  // Uninit always succeeds

void* Manager::QueryInterface(const GUID& requested) {
    if (qv::GuidEquals(requested, IQvBaseInterface::iid))
        return static_cast<IQvBaseInterface*>(static_cast<IServPlugin*>(this));
    if (qv::GuidEquals(requested, IServPlugin::iid)) return static_cast<IServPlugin*>(this);
    if (qv::GuidEquals(requested, IManager::iid)) return static_cast<IManager*>(this);
    if (qv::GuidEquals(requested, IManagerDiagnostics::iid)) return static_cast<IManagerDiagnostics*>(this);
    return nullptr;
}

int32_t Manager::Init(IServMain* main) {
    logging::CallTrace trace(kInit);
    std::lock_guard lock(mutex_);
    ReleaseDependencies();
    host_ = main;
    if (const int32_t status = InitFactory(); status != 0) return status;
    IComponentManager* components = main ? main->GetComponentManager() : nullptr;
    if (const int32_t status = InitDependencies(components); status != 0) {
        logging::Log(logging::kError, kInit, L"failed to init dependencies");
        return status;
    }
    if (!plugins_->GetNetworkProvider()) {
        logging::Log(logging::kError, kInit, L"failed to get network provider");
        ReleaseDependencies();
        return qv::status::kDependencyNotFound;
    }
    return 0;
}

int32_t Manager::Uninit() {
    std::lock_guard lock(mutex_);
    ReleaseDependencies();
    return 0;
}

int32_t Manager::InitFactory() {
    factory_.clear();
    for (const ConditionType& type : ConditionTypes()) factory_[type.keyword] = type.entry();
    return 0;
}

Json::Value Manager::Catalog() const { return CatalogJson(); }

Json::Value Manager::LiveConditions() const {
    Json::Value counts(Json::objectValue);
    for (const auto& [type, count] : LiveConditions::Counts())
        counts[os::WideToUtf8Lossy(type)] = static_cast<Json::UInt64>(count);
    return counts;
}

int32_t Manager::InitDependencies(IComponentManager* components) {
    logging::CallTrace trace(kInitDependencies);
    if (!components) return qv::status::kInvalidParameter;
    ReleaseDependencies();
    plugins_ = std::make_shared<HeldPlugins>(components);
    for (auto& [keyword, entry] : factory_) {
        for (DependencyRecord& record : entry.dependencies) {
            logging::Log(logging::kTrace, kInitDependencies, L"creating dependency [%s]", record.name.c_str());
            record.object = nullptr;
            switch (record.source) {
                case DependencySource::kManager:
                    record.object = static_cast<IManager*>(this);
                    break;
                case DependencySource::kQueueFactory:
                    record.object = components->GetEventQueueFactory();
                    break;
                case DependencySource::kHost:
                    record.object = plugins_->Acquire(record.name, record.iid);
                    break;
            }
            if (!record.object) logging::Log(logging::kWarning, kInitDependencies, L"failed to create dependency");
        }
    }
    return 0;
}

void Manager::ReleaseDependencies() {
    for (auto& [keyword, entry] : factory_)
        for (DependencyRecord& record : entry.dependencies) record.object = nullptr;
    plugins_.reset();
}

ConditionPtr Manager::CreateCondition(const Json::Value& json, int32_t* error, size_t id) {
    logging::CallTrace trace(kCreateCondition);
    int32_t ignored = 0;
    if (!error) error = &ignored;
    *error = 0;
    DepthScope depth;
    // The outermost call checks the caller's whole tree before any copy; the
    // calls for the children below it build parts of a tree already checked.
    if (buildDepth == 1 && !WithinShapeLimits(json, kShapeLimits, kCreateCondition)) {
        *error = qv::status::kInvalidParameter;
        return nullptr;
    }
    if (buildDepth > kMaxConditionDepth) {
        logging::Log(logging::kError, kCreateCondition, L"Condition tree nested deeper than %d levels",
                     static_cast<int>(kMaxConditionDepth));
        *error = qv::status::kInvalidParameter;
        return nullptr;
    }
    try {
        return Build(json, error, id);
    } catch (const std::exception& e) {
        // Nothing is thrown across the interface; whatever was built is gone.
        logging::Log(logging::kError, kCreateCondition, L"Failed to create condition: %S", e.what());
        *error = qv::status::kFunctionFailed;
        return nullptr;
    }
}

ConditionPtr Manager::Build(const Json::Value& json, int32_t* error, size_t id) {
    std::wstring type;
    if (!qv::JsonComposedSerializer::Load(json, L"type", type)) {
        logging::Log(logging::kError, kCreateCondition, L"Failed to find type for condition. Invalid Json");
        *error = qv::status::kInvalidParameter;
        return nullptr;
    }
    logging::Log(logging::kDetail, kCreateCondition, L"Creating condition of type[%s]", type.c_str());
    auto found = factory_.find(type);
    if (found == factory_.end()) {
        *error = qv::status::kCallNotImplemented;
        return nullptr;
    }
    const FactoryEntry& entry = found->second;
    if (!entry.create) {
        logging::Log(logging::kError, kCreateCondition, L"Invalid factory function for type [%s]", type.c_str());
        *error = qv::status::kInvalidParameter;
        return nullptr;
    }
    std::unique_ptr<ConditionBase, ConditionDeleter> condition = entry.create();
    if (!condition) {
        *error = qv::status::kFunctionFailed;
        return nullptr;
    }
    // The condition keeps the plug-ins it is given until it has been freed
    // (also when Init fails below). The deleter lets go of them as soon as it
    // has run, and refers to nothing of the manager.
    ConditionDeleter destroy = std::move(condition.get_deleter());
    condition.get_deleter() = [destroy = std::move(destroy), plugins = plugins_](ICondition* object) mutable {
        destroy(object);
        plugins.reset();
    };
    for (const DependencyRecord& record : entry.dependencies) condition->Inject(record.iid, record.object);
    ConditionBase::InitData data;
    data.json = json;
    data.id = id;
    data.host = host_;
    if (const int32_t status = condition->Init(data); status != 0) {
        logging::Log(logging::kError, kCreateCondition, L"Condition of type [%s] error = [%d]", type.c_str(), status);
        *error = status;
        return nullptr;  // `condition` is destroyed through its deleter
    }
    logging::Log(logging::kDetail, kCreateCondition, L"Condition of type [%s] successfully created", type.c_str());
    return ConditionPtr(std::move(condition));
}

}  // namespace Product::Integration::ConditionManager
