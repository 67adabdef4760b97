#pragma once
// A stand-in runner for agent tests: records every call with its arguments,
// answers with preset statuses and data, and keeps the subscribed listener so
// that a test can deliver run reports the way the runner would.
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "model/conditional_runner.h"
#include "qv/base_interface.h"

namespace agent_test {

using Product::Integration::ConditionalRunner::IConditionalRunner;

class RecordingRunner final : public IQvBaseInterface, public IConditionalRunner {
public:
    // Everything the agent passed in, by operation name.
    struct Received {
        qv::List<Rule> rules;
        qv::List<Method> methodSets;
        Method methodSet;
        bool signal = false;
        std::wstring id;
        Settings settings;
        bool enabled = false;
    };

    void* QueryInterface(const GUID& requested) override {
        if (qv::GuidEquals(requested, IQvBaseInterface::iid)) return static_cast<IQvBaseInterface*>(this);
        if (qv::GuidEquals(requested, IConditionalRunner::iid)) return static_cast<IConditionalRunner*>(this);
        return nullptr;
    }

    // Status answered by `operation` (0 unless set).
    void SetStatus(const std::string& operation, int32_t status) {
        std::lock_guard lock(mutex_);
        statuses_[operation] = status;
    }
    std::vector<std::string> Calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    void ClearCalls() {
        std::lock_guard lock(mutex_);
        calls_.clear();
    }
    Received received() const {
        std::lock_guard lock(mutex_);
        return received_;
    }

    // Data handed out by the getters and by SetRules.
    qv::List<Rule> rulesOut;
    qv::List<RuleError> errorsOut;
    Method methodSetOut;
    qv::List<std::wstring> idsOut;
    Settings settingsOut;
    bool enabledOut = false;

    // Subscription state.
    IEvents* listener = nullptr;
    std::vector<int32_t> subscribeFlags;
    int unsubscribes = 0;

    int32_t GetSettings(Settings& settings) override {
        const int32_t status = Record("GetSettings", [&](Received& r) { r.settings = settings; });
        settings = settingsOut;
        return status;
    }
    int32_t SetSettings(const Settings& settings) override {
        return Record("SetSettings", [&](Received& r) { r.settings = settings; });
    }
    int32_t BeginTransaction() override { return Record("BeginTransaction"); }
    int32_t EndTransaction() override { return Record("EndTransaction"); }
    int32_t SetRules(const qv::IList<Rule>& rules, qv::IList<RuleError>& errors) override {
        Append(errorsOut, errors);
        return Record("SetRules", [&](Received& r) { r.rules = Copy(rules); });
    }
    int32_t GetRules(qv::IList<Rule>& rules) override {
        Append(rulesOut, rules);
        return Record("GetRules");
    }
    int32_t SetMethod(const Method& methodSet, bool signal) override {
        return Record("SetMethod", [&](Received& r) {
            r.methodSet = methodSet;
            r.signal = signal;
        });
    }
    int32_t GetMethodSet(const std::wstring& id, Method& methodSet) override {
        methodSet = methodSetOut;
        return Record("GetMethodSet", [&](Received& r) { r.id = id; });
    }
    int32_t DeleteMethodSet(const std::wstring& id) override {
        return Record("DeleteMethodSet", [&](Received& r) { r.id = id; });
    }
    int32_t DeleteAllMethodSets() override { return Record("DeleteAllMethodSets"); }
    int32_t GetMethodSetIds(qv::IList<std::wstring>& ids) override {
        Append(idsOut, ids);
        return Record("GetMethodSetIds");
    }
    int32_t UpdateRulesAndMethods(const qv::IList<Rule>& rules, const qv::IList<Method>& methodSets) override {
        return Record("UpdateRulesAndMethods", [&](Received& r) {
            r.rules = Copy(rules);
            r.methodSets = Copy(methodSets);
        });
    }
    int32_t UpdateMethods(const qv::IList<Method>& methodSets) override {
        return Record("UpdateMethods", [&](Received& r) { r.methodSets = Copy(methodSets); });
    }
    int32_t SetEnabled(bool enabled) override {
        return Record("SetEnabled", [&](Received& r) { r.enabled = enabled; });
    }
    int32_t IsEnabled(bool& enabled) override {
        enabled = enabledOut;
        return Record("IsEnabled");
    }
    int32_t Subscribe(IEvents* events, int32_t flags) override {
        return Record("Subscribe", [&](Received&) {
            listener = events;
            subscribeFlags.push_back(flags);
        });
    }
    int32_t Unsubscribe(IEvents* events, int32_t) override {
        std::lock_guard lock(mutex_);
        calls_.push_back("Unsubscribe");
        if (events != listener) return 1627;
        listener = nullptr;
        ++unsubscribes;
        return 0;
    }

private:
    template <class T>
    static qv::List<T> Copy(const qv::IList<T>& list) {
        qv::List<T> copy;
        Append(list, copy);
        return copy;
    }
    template <class T>
    static void Append(const qv::IList<T>& from, qv::IList<T>& to) {
        from.ForEach([&](const T& v) { EXPECT_EQ(to.AddTail(v), 0); });
    }

    template <class Fn = void (*)(Received&)>
    int32_t Record(
        const std::string& operation, Fn keep = [](Received&) {}) {
        std::lock_guard lock(mutex_);
        calls_.push_back(operation);
        keep(received_);
        auto it = statuses_.find(operation);
        return it == statuses_.end() ? 0 : it->second;
    }

    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
    std::map<std::string, int32_t> statuses_;
    Received received_;
};

}  // namespace agent_test
