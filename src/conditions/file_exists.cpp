#include "conditions/file_exists.h"

#include "model/json_composed_serializer.h"
#include "os/event.h"
#include "os/file_system.h"
#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {

ConditionFileExists::~ConditionFileExists() { ConditionFileExists::Uninit(); }

int32_t ConditionFileExists::Init(const InitData& data) {
    if (const int32_t status = ConditionBase::Init(data); status != 0) return status;
    thread_.Stop();
    filePath_.clear();
    const bool loaded = qv::JsonComposedSerializer::Load(DataOf(data.json), L"filePath", filePath_);
    {
        std::lock_guard lock(lock_);
        exists_ = os::PathExists(filePath_);
    }
    if (!thread_.Start([this](os::AutoResetEvent& stop) { Poll(stop); })) return qv::status::kFunctionFailed;
    return loaded && !filePath_.empty() ? 0 : qv::status::kInvalidParameter;
}

void ConditionFileExists::Uninit() { thread_.Stop(); }

int32_t ConditionFileExists::GetState(bool* state, bool recompute) {
    if (!state) return qv::status::kInvalidParameter;
    std::lock_guard lock(lock_);
    if (recompute) exists_ = os::PathExists(filePath_);
    *state = exists_;
    return 0;
}

void ConditionFileExists::Poll(os::AutoResetEvent& stop) {
    for (;;) {
        const int woken = os::WaitAny({&stop}, kPollIntervalMs);
        if (woken == 0) return;
        if (woken == os::kWaitFailed) {
            // The stop event cannot be waited on, so the loop could neither
            // pause between looks nor notice the stop: polling ends here, and
            // GetState(…, true) still reads the file.
            logging::Log(logging::kError, L"ConditionFileExists::Poll", L"Waiting failed; polling of %s ends",
                         filePath_.c_str());
            return;
        }
        const bool now = os::PathExists(filePath_);
        std::lock_guard lock(lock_);
        if (now != exists_) {
            exists_ = now;
            static_cast<void>(NotifyChanged(now));  // nobody to report to on the polling thread
        }
    }
}

}  // namespace Product::Integration::ConditionManager
