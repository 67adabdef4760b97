#include "runner/runner_store.h"

#include <vector>

#include "os/utf8.h"
#include "plugin/call_trace.h"
#include "plugin/log.h"
#include "plugin/scope_exit.h"
#include "qv/status.h"

namespace Product::Integration::ConditionalRunner {
namespace {

constexpr const wchar_t* kRunnerNode = L"/MethodsRunner";
constexpr const wchar_t* kRunStartedPath = L"/MethodsRunner/methodsRunStarted";
constexpr const wchar_t* kEnabledValue = L"enabled";
constexpr const wchar_t* kUnnamed = L"";
constexpr const wchar_t* kDocumentData = L"data";  // the array inside a rules document
constexpr const wchar_t* kMethodPrefix = L"Methods_";

constexpr const wchar_t* kReadEnabled = L"ConditionalRunnerAL::ReadEnabled";
constexpr const wchar_t* kSaveEnabled = L"ConditionalRunnerAL::SaveEnabled";
constexpr const wchar_t* kReadRules = L"ConditionalRunnerAL::ReadRules";
constexpr const wchar_t* kSaveRules = L"ConditionalRunnerAL::SaveRules";
constexpr const wchar_t* kReadRunStarted = L"ConditionalRunnerAL::ReadMethodsRunStarted";
constexpr const wchar_t* kSaveRunStarted = L"ConditionalRunnerAL::SaveMethodsRunStarted";
constexpr const wchar_t* kReadLastRunRules = L"ConditionalRunnerAL::ReadLastRunRules";
constexpr const wchar_t* kReadMethods = L"ConditionalRunnerAL::ReadMethods";
constexpr const wchar_t* kExtractSdkMethod = L"ConditionalRunnerAL::ExtractSdkMethod";
constexpr const wchar_t* kSaveMethod = L"ConditionalRunnerAL::SaveMethod";
constexpr const wchar_t* kDeleteMethod = L"ConditionalRunnerAL::DeleteMethod";
constexpr const wchar_t* kDeleteAllMethods = L"ConditionalRunnerAL::DeleteAllMethods";

bool IsMethodNode(const std::wstring& name) { return name.rfind(kMethodPrefix, 0) == 0; }

// Runs `steps` (callables returning a status) in order until one fails;
// returns that status, or 0. A failed change is thus never committed.
template <class... Steps>
int32_t InOrder(Steps&&... steps) {
    int32_t status = 0;
    static_cast<void>((((status = steps()) == 0) && ...));
    return status;
}

}  // namespace

std::wstring RunnerStore::MethodNodeName(const std::wstring& id) { return kMethodPrefix + id; }

int32_t RunnerStore::Open(const wchar_t* path, bool forWrite, Node& node, const wchar_t* function,
                          const wchar_t* missingNode) {
    if (!settings_) {
        logging::Log(logging::kError, function, L"Error invalid settings");
        return qv::status::kDependencyNotFound;
    }
    IEPSettingsNode* opened = nullptr;
    const int32_t status = forWrite ? settings_->OpenForWrite(path, &opened) : settings_->OpenForRead(path, &opened);
    if (status != 0 || !opened) {
        if (missingNode) logging::Log(logging::kError, function, L"%s", missingNode);
        return status != 0 ? status : qv::status::kFunctionFailed;
    }
    node.reset(opened);
    return 0;
}

int32_t RunnerStore::ReadEnabled(bool& enabled) {
    logging::CallTrace trace(kReadEnabled);
    Node node;
    if (const int32_t status = Open(kRunnerNode, false, node, kReadEnabled, L"Error invalid root accessor"))
        return status;
    return node->GetBool(kEnabledValue, enabled);
}

int32_t RunnerStore::SaveEnabled(bool enabled) {
    logging::CallTrace trace(kSaveEnabled);
    Node node;
    if (const int32_t status = Open(kRunnerNode, true, node, kSaveEnabled, L"Error invalid root accessor"))
        return status;
    return InOrder([&] { return node->SetBool(kEnabledValue, enabled); }, [&] { return node->Commit(); });
}

int32_t RunnerStore::ReadRules(const wchar_t* path, qv::List<Rule>& rules) {
    logging::CallTrace trace(kReadRules);
    rules.Clear();
    // Nothing stored yet, or nothing readable: no rules, and no failure.
    Node node;
    if (Open(path, false, node, kReadRules, nullptr) != 0) return 0;
    Json::Value document;
    if (node->GetJson(kUnnamed, document) != 0) return 0;
    if (!JsonForms::ReadRules(document, kDocumentData, rules)) rules.Clear();
    return 0;
}

int32_t RunnerStore::SaveRules(const wchar_t* path, const qv::IList<Rule>& rules) {
    logging::CallTrace trace(kSaveRules);
    Json::Value document(Json::objectValue);
    if (!JsonForms::WriteRules(document, kDocumentData, rules)) {
        logging::Log(logging::kError, kSaveRules, L"Could not save rules to settings!");
        return qv::status::kFunctionFailed;
    }
    return SaveRulesDocument(path, document);
}

int32_t RunnerStore::SaveRules(const wchar_t* path, const std::vector<RulePtr>& rules) {
    logging::CallTrace trace(kSaveRules);
    Json::Value& document = lendingDocument_;
    if (!document.isObject()) {
        document = Json::Value(Json::objectValue);
        document[os::WideToUtf8Lossy(kDocumentData)] = Json::Value(Json::arrayValue);
    }
    Json::Value& array = document[os::WideToUtf8Lossy(kDocumentData)];
    array.resize(static_cast<Json::ArrayIndex>(rules.size()));
    // Every form is lent to its element and given back on every way out,
    // which leaves the elements null again.
    size_t lent = 0;
    qv::ScopeExit giveBack([&] {
        auto element = array.begin();
        for (size_t i = 0; i < lent; ++i) rules[i]->TakeBack(*element++);
    });
    for (auto element = array.begin(); lent < rules.size(); ++lent) rules[lent]->Lend(*element++);
    return SaveRulesDocument(path, document);
}

int32_t RunnerStore::SaveRulesDocument(const wchar_t* path, const Json::Value& document) {
    Node node;
    int32_t status = Open(path, true, node, kSaveRules, nullptr);
    if (status == 0)
        status = InOrder([&] { return node->SetJson(kUnnamed, document); }, [&] { return node->Commit(); });
    if (status != 0) logging::Log(logging::kError, kSaveRules, L"Could not save rules to settings!");
    return status;
}

int32_t RunnerStore::ReadMethodsRunStarted(bool& started) {
    logging::CallTrace trace(kReadRunStarted);
    Node node;
    int32_t status = Open(kRunStartedPath, false, node, kReadRunStarted, nullptr);
    if (status == 0) status = node->GetBool(kUnnamed, started);
    if (status != 0)
        logging::Log(logging::kError, kReadRunStarted, L"Could not load methods run start flag from settings!");
    return status;
}

int32_t RunnerStore::SaveMethodsRunStarted(bool started) {
    logging::CallTrace trace(kSaveRunStarted);
    Node node;
    if (const int32_t status = Open(kRunStartedPath, true, node, kSaveRunStarted, nullptr)) return status;
    return InOrder([&] { return node->SetBool(kUnnamed, started); }, [&] { return node->Commit(); });
}

int32_t RunnerStore::ReadLastRunRules(qv::List<Rule>& rules) {
    logging::CallTrace trace(kReadLastRunRules);
    rules.Clear();
    // The flag is true on disk exactly while method sets may be half run; the
    // stored last-run rules are trusted only when it reads false.
    bool started = true;
    if (ReadMethodsRunStarted(started) != 0 || started) return 0;
    return ReadRules(kLastRunPath, rules);
}

int32_t RunnerStore::ReadMethodNode(const std::wstring& nodeName, Method& methodSet) {
    Node node;
    const std::wstring path = L"/" + nodeName;
    if (const int32_t status = Open(path.c_str(), false, node, kReadMethods, nullptr)) return status;
    Method read;
    int32_t status = InOrder([&] { return node->GetString(JsonForms::keys::kId, read.id); },
                             [&] { return node->GetString(JsonForms::keys::kDisplayName, read.displayName); },
                             [&] { return node->GetJson(JsonForms::keys::kMethods, read.methods); });
    if (status != 0) return status;
    // The context is optional: absent reads as null.
    status = node->GetJson(JsonForms::keys::kContext, read.context);
    if (status == qv::status::kNotFound)
        read.context = Json::Value();
    else if (status != 0)
        return status;
    methodSet = std::move(read);
    return 0;
}

int32_t RunnerStore::ReadMethods(MethodSets& methodSets) {
    logging::CallTrace trace(kReadMethods);
    methodSets.clear();
    Node root;
    if (const int32_t status = Open(L"/", false, root, kReadMethods, nullptr)) return status;
    std::vector<std::wstring> children;
    if (const int32_t status = root->GetChildNames(children)) return status;
    for (const std::wstring& child : children) {
        if (!IsMethodNode(child)) continue;
        Method methodSet;
        if (ReadMethodNode(child, methodSet) != 0) {
            logging::Log(logging::kError, kReadMethods, L"Error reading method %s", child.c_str());
            continue;
        }
        const std::wstring id = methodSet.id;
        methodSets[id] = std::move(methodSet);
    }
    return 0;
}

int32_t RunnerStore::ReadMethod(const std::wstring& id, Method& methodSet) {
    logging::CallTrace trace(kExtractSdkMethod);
    const int32_t status = ReadMethodNode(MethodNodeName(id), methodSet);
    if (status != 0) logging::Log(logging::kError, kExtractSdkMethod, L"Error reading method %s", id.c_str());
    return status;
}

int32_t RunnerStore::SaveMethod(const Method& methodSet) {
    logging::CallTrace trace(kSaveMethod);
    Node node;
    const std::wstring path = L"/" + MethodNodeName(methodSet.id);
    int32_t status = Open(path.c_str(), true, node, kSaveMethod, nullptr);
    if (status == 0)
        status = InOrder([&] { return node->SetString(JsonForms::keys::kId, methodSet.id); },
                         [&] { return node->SetString(JsonForms::keys::kDisplayName, methodSet.displayName); },
                         [&] { return node->SetJson(JsonForms::keys::kMethods, methodSet.methods); },
                         [&] { return node->SetJson(JsonForms::keys::kContext, methodSet.context); },
                         [&] { return node->Commit(); });
    if (status != 0) logging::Log(logging::kError, kSaveMethod, L"Error saving method %s", methodSet.id.c_str());
    return status;
}

int32_t RunnerStore::DeleteMethod(const std::wstring& id) {
    logging::CallTrace trace(kDeleteMethod);
    Node root;
    if (Open(L"/", true, root, kDeleteMethod, nullptr) != 0) {
        logging::Log(logging::kError, kDeleteMethod, L"Error getting accessor %s", L"/");
        return qv::status::kFunctionFailed;
    }
    int32_t status = root->RemoveChild(MethodNodeName(id).c_str());
    if (status == qv::status::kNotFound) return 0;  // nothing stored under that id
    if (status == 0) status = root->Commit();
    if (status != 0) logging::Log(logging::kError, kDeleteMethod, L"Error deleting method %s", id.c_str());
    return status;
}

int32_t RunnerStore::DeleteAllMethods(std::vector<std::wstring>& removed) {
    logging::CallTrace trace(kDeleteAllMethods);
    removed.clear();
    Node root;
    std::vector<std::wstring> children;
    if (Open(L"/", true, root, kDeleteAllMethods, nullptr) != 0 || root->GetChildNames(children) != 0) {
        logging::Log(logging::kError, kDeleteAllMethods, L"Error getting accessor root");
        return qv::status::kFunctionFailed;
    }
    std::vector<std::wstring> gone;
    for (const std::wstring& child : children) {
        if (!IsMethodNode(child)) continue;
        if (root->RemoveChild(child.c_str()) != 0)
            logging::Log(logging::kError, kDeleteAllMethods, L"Error deleting method %s", child.c_str());
        else
            gone.push_back(child);
    }
    if (gone.empty()) return 0;  // nothing to save
    if (const int32_t status = root->Commit(); status != 0) {
        logging::Log(logging::kError, kDeleteAllMethods, L"Error deleting method %s", L"*");
        return status;
    }
    removed.swap(gone);
    return 0;
}

}  // namespace Product::Integration::ConditionalRunner
