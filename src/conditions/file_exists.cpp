#include "conditions/file_exists.h"

#include "model/json_composed_serializer.h"
#include "os/utf8.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr const wchar_t* kInit = L"Product::Integration::ConditionManager::ConditionFileExists::Init";
}  // namespace

ConditionFileExists::~ConditionFileExists() { ConditionFileExists::Uninit(); }

int32_t ConditionFileExists::Init(const InitData& data) {
    if (const int32_t status = ConditionBase::Init(data); status != 0) return status;
    watcher_.Unregister(this);
    filePath_.clear();
    bool loaded = qv::JsonComposedSerializer::Load(DataOf(data.json), L"filePath", filePath_);
    // The system call would end the path at an embedded NUL and test what
    // precedes it, which is not the path that was asked for.
    if (filePath_.find(L'\0') != std::wstring::npos) {
        logging::Log(logging::kError, kInit, L"File path contains a NUL character");
        filePath_.clear();
        loaded = false;
    }
    {
        std::lock_guard lock(lock_);
        exists_ = watcher_.Exists(filePath_);
    }
    if (!watcher_.Register(this, filePath_)) return qv::status::kFunctionFailed;
    return loaded && !filePath_.empty() ? 0 : qv::status::kInvalidParameter;
}

void ConditionFileExists::Uninit() { watcher_.Unregister(this); }

int32_t ConditionFileExists::GetState(bool* state, bool recompute) {
    if (!state) return qv::status::kInvalidParameter;
    std::lock_guard lock(lock_);
    if (recompute) exists_ = watcher_.Exists(filePath_);
    *state = exists_;
    return 0;
}

Json::Value ConditionFileExists::Observed() {
    Json::Value observed(Json::objectValue);
    observed["path"] = os::WideToUtf8Lossy(filePath_);
    observed["exists"] = watcher_.Exists(filePath_);
    const FileWatcher::Serving serving = watcher_.HowServed(filePath_);
    if (*serving.how) observed["how"] = serving.how;
    if (!serving.folder.empty()) observed["folder"] = os::WideToUtf8Lossy(serving.folder);
    return observed;
}

void ConditionFileExists::OnChecked(bool now) {
    std::lock_guard lock(lock_);
    if (now != exists_) {
        exists_ = now;
        static_cast<void>(NotifyChanged(now));  // nobody to report to on the watcher's thread
    }
}

}  // namespace Product::Integration::ConditionManager
