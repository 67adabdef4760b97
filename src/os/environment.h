#pragma once
// Process environment and facts about the platform the code runs on.
#include <optional>
#include <string>

namespace os {

// The variable's value in the process environment (shared by all modules of
// the process, whatever C runtime each was linked with).
std::optional<std::wstring> GetEnv(const std::wstring& name);
// Sets (or, with nullopt, removes) a variable of the process environment.
void SetEnv(const std::wstring& name, const std::optional<std::wstring>& value);

// True when the Windows build runs under Wine; always false on Linux.
bool RunningUnderWine() noexcept;

}  // namespace os
