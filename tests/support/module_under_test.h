#pragma once
// Helpers shared by the test programs: JSON documents written inline, and the
// built module loaded by path and reached only through its two exports, as
// the host reaches it.
#include <gtest/gtest.h>

#include <string>

#include <json/reader.h>

#include "module/module_exports.h"
#include "os/module.h"
#include "support/log_capture.h"

namespace testing_support {

// Parses test JSON; a malformed document fails the calling test.
inline Json::Value ParseJson(const std::string& text) {
    Json::Value value;
    Json::Reader reader;
    if (!reader.parse(text, value)) ADD_FAILURE() << "bad test JSON: " << reader.getFormattedErrorMessages() << text;
    return value;
}

// The module library in `directory` (by default beside the test program).
class LoadedModule {
public:
    explicit LoadedModule(const std::wstring& directory = ProgramDirectory())
        : handle_(os::LoadModule(os::JoinPath(directory, os::SharedLibraryFileName(L"ConditionalRunner")))),
          loadError_(handle_ ? std::wstring() : os::LastModuleError()),
          create(reinterpret_cast<QvCreateObjectFn>(os::FindSymbol(handle_, "QvCreateObject"))),
          destroy(reinterpret_cast<QvDestroyObjectFn>(os::FindSymbol(handle_, "QvDestroyObject"))) {}
    ~LoadedModule() { os::ReleaseModule(handle_); }
    LoadedModule(const LoadedModule&) = delete;
    LoadedModule& operator=(const LoadedModule&) = delete;

    bool Loaded() const { return handle_ && create && destroy; }
    // Why the library did not load ("" when it did), for failure messages.
    const std::wstring& loadError() const { return loadError_; }

private:
    os::ModuleHandle handle_;
    std::wstring loadError_;

public:
    const QvCreateObjectFn create;
    const QvDestroyObjectFn destroy;
};

}  // namespace testing_support
