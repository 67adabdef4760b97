#pragma once
// A directory for tests, put in place of the system's services with
// qv::ActiveDirectory::DirectorySystemOverride: user principal names crack to
// the DNs given, the Group Policy records hold the DNs given, and DNs are
// split by the module's own parser (or the split throws what the test asks).
// Anything not given fails as a machine outside any domain does. Any thread.
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "conditions/directory/directory_system.h"

namespace condition_testing {

class FakeDirectory final : public qv::ActiveDirectory::IDirectorySystem {
public:
    static constexpr uint32_t kNoDomain = 1355;  // ERROR_NO_SUCH_DOMAIN
    static constexpr uint32_t kNoKey = 2;        // ERROR_FILE_NOT_FOUND

    FakeDirectory() : override_(*this) {}

    // "user@domain" cracks to `dn`.
    void SetUserDn(const std::wstring& upn, const std::wstring& dn) {
        os::NameCrack crack;
        crack.outcome = os::NameCrackOutcome::kCracked;
        crack.hasName = true;
        crack.name = dn;
        crack.domain = upn.substr(upn.find(L'@') + 1);
        SetCrack(upn, crack);
    }
    // "user@domain" cracks with this outcome.
    void SetCrack(const std::wstring& upn, const os::NameCrack& crack) {
        std::lock_guard lock(mutex_);
        cracks_[upn] = crack;
    }
    // Group Policy recorded `dn` for the user `sid`.
    void SetRecordedDn(const std::wstring& sid, const std::wstring& dn) {
        os::RegistryString read;
        read.outcome = os::RegistryReadOutcome::kRead;
        read.value = dn;
        SetRecord(sid, read);
    }
    void SetRecord(const std::wstring& sid, const os::RegistryString& read) {
        std::lock_guard lock(mutex_);
        records_[sid] = read;
    }
    // Forgets every DN: each lookup fails from now on.
    void ForgetAll() {
        std::lock_guard lock(mutex_);
        cracks_.clear();
        records_.clear();
    }
    // Each DN split calls `thrower` first (nullptr: split normally).
    void ThrowOnSplit(std::function<void()> thrower) {
        std::lock_guard lock(mutex_);
        thrower_ = std::move(thrower);
    }
    int Cracks() const {
        std::lock_guard lock(mutex_);
        return crackCalls_;
    }
    int RecordReads() const {
        std::lock_guard lock(mutex_);
        return recordCalls_;
    }

    os::NameCrack CrackUserPrincipalName(const std::wstring& upn) override {
        std::lock_guard lock(mutex_);
        ++crackCalls_;
        if (auto it = cracks_.find(upn); it != cracks_.end()) return it->second;
        os::NameCrack failed;
        failed.outcome = os::NameCrackOutcome::kBindFailed;
        failed.error = kNoDomain;
        return failed;
    }
    os::RegistryString ReadMachineRegistryString(const std::wstring& keyPath, const std::wstring& valueName) override {
        std::lock_guard lock(mutex_);
        ++recordCalls_;
        constexpr std::wstring_view kPrefix = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Group Policy\\State\\";
        if (valueName == L"Distinguished-Name" && keyPath.starts_with(kPrefix))
            if (auto it = records_.find(keyPath.substr(kPrefix.size())); it != records_.end()) return it->second;
        os::RegistryString failed;
        failed.outcome = os::RegistryReadOutcome::kOpenFailed;
        failed.error = kNoKey;
        return failed;
    }
    uint32_t NextRdn(const wchar_t** dn, size_t* length, os::RdnPart* part) override {
        std::function<void()> thrower;
        {
            std::lock_guard lock(mutex_);
            thrower = thrower_;
        }
        if (thrower) thrower();
        return os::ParseRdn(dn, length, part);
    }

private:
    mutable std::mutex mutex_;
    std::map<std::wstring, os::NameCrack> cracks_;
    std::map<std::wstring, os::RegistryString> records_;
    std::function<void()> thrower_;
    int crackCalls_ = 0;
    int recordCalls_ = 0;
    qv::ActiveDirectory::DirectorySystemOverride override_;
};

}  // namespace condition_testing
