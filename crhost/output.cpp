#include "output.h"

#include <utility>

#include <json/writer.h>

#include "os/standard_streams.h"
#include "pretty.h"
#include "qv/status.h"

namespace crhost {

const char* StatusName(int32_t status) {
    const char* name = qv::status::Name(status);
    return name ? name : "unknown status";
}

std::string CompactJson(const Json::Value& value) {
    // The builder is made once and only read after: writeString takes it as const.
    static const Json::StreamWriterBuilder builder = [] {
        Json::StreamWriterBuilder made;
        made["indentation"] = "";
        made["emitUTF8"] = true;
        return made;
    }();
    return Json::writeString(builder, value);
}

Output::Output(Format format) : format_(format) {}
Output::Output(Format format, Sink sink) : format_(format), sink_(std::move(sink)) {}

void Output::Write(const Json::Value& object) {
    const std::string line = format_ == Format::kPretty ? PrettyText(object) : CompactJson(object) + "\n";
    std::lock_guard lock(mutex_);
    if (sink_)
        sink_(line);
    else
        static_cast<void>(os::WriteStandardOutput(line));
}

}  // namespace crhost
