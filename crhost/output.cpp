#include "output.h"

#include "os/standard_streams.h"
#include "pretty.h"
#include "qv/status.h"

namespace crhost {

const char* StatusName(int32_t status) {
    const char* name = qv::status::Name(status);
    return name ? name : "unknown status";
}

Output::Output(Format format) : format_(format) {
    builder_["indentation"] = "";
    builder_["emitUTF8"] = true;
}

std::string Output::Compact(const Json::Value& value) const { return Json::writeString(builder_, value); }

void Output::Write(const Json::Value& object) {
    const std::string line = format_ == Format::kPretty ? PrettyText(object) : Compact(object) + "\n";
    std::lock_guard lock(mutex_);
    static_cast<void>(os::WriteStandardOutput(line));
}

}  // namespace crhost
