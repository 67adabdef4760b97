#include "conditions/condition_queue.h"

#include <utility>

#include "plugin/log.h"
#include "qv/status.h"

namespace Product::Integration::ConditionManager {
namespace {
constexpr uint32_t kNoTimeLimit = 0xFFFFFFFFu;

// The host refuses these steps only for a queue it did not make. A refusal is
// logged: it is the wait that keeps running work from outliving its owner.
void Check(int32_t status, const wchar_t* step, const std::wstring& name) {
    if (status != 0)
        logging::Log(logging::kError, L"ConditionQueue", L"cannot %s event queue [%s] [%d]", step, name.c_str(),
                     status);
}
}  // namespace

int32_t OpenQueue(ConditionQueue& queue, const wchar_t* name, const wchar_t* function) {
    if (queue.Open(name) == 0) return 0;
    logging::Log(logging::kError, function, L"cannot create event queue [%s]", name);
    return qv::status::kDependencyNotFound;
}

int32_t ConditionQueue::Open(const std::wstring& name) {
    Close();
    name_ = name;
    if (!factory_) return qv::status::kDependencyNotFound;
    IEventQueue* queue = nullptr;
    int32_t status = factory_->CreateQueue(name.c_str(), &queue);
    if (status != 0 || !queue) return status != 0 ? status : qv::status::kFunctionFailed;
    status = client_.Init(queue, name);
    if (status != 0) {
        Check(factory_->ReleaseQueue(queue), L"release", name);
        return status;
    }
    queue_ = queue;
    openedWith_ = factory_;
    return 0;
}

int32_t ConditionQueue::Post(std::function<void()> work, uint32_t delayMs) {
    return client_.Post(std::move(work), delayMs);
}

void ConditionQueue::Close() {
    if (!queue_) return;
    IEventQueue* queue = std::exchange(queue_, nullptr);
    IEventQueueFactory* factory = std::exchange(openedWith_, nullptr);
    Check(factory->StopQueue(queue), L"stop", name_);
    Check(factory->WaitQueue(queue, kNoTimeLimit), L"wait for", name_);
    client_.Shutdown();
    Check(factory->ReleaseQueue(queue), L"release", name_);
}

}  // namespace Product::Integration::ConditionManager
