#include "runner/run_requests.h"

#include <bit>
#include <string_view>

#include "os/utf8.h"
#include "plugin/log.h"

namespace Product::Integration::ConditionalRunner {
namespace {

constexpr Json::CommentPlacement kPlacements[] = {Json::commentBefore, Json::commentAfterOnSameLine,
                                                  Json::commentAfter};

bool SameComments(const Json::Value& a, const Json::Value& b) {
    for (const Json::CommentPlacement placement : kPlacements) {
        const bool has = a.hasComment(placement);
        if (has != b.hasComment(placement)) return false;
        if (has && a.getComment(placement) != b.getComment(placement)) return false;
    }
    return true;
}

std::string_view Text(const Json::Value& value) {
    const char* begin = nullptr;
    const char* end = nullptr;
    if (!value.getString(&begin, &end)) return {};
    return std::string_view(begin, static_cast<size_t>(end - begin));
}

std::string_view MemberName(const Json::Value::const_iterator& member) {
    const char* end = nullptr;
    const char* begin = member.memberName(&end);
    return std::string_view(begin, static_cast<size_t>(end - begin));
}

}  // namespace

bool WrittenAlike(const Json::Value& a, const Json::Value& b) {
    if (a.type() != b.type() || !SameComments(a, b)) return false;
    switch (a.type()) {
        case Json::nullValue:
            return true;
        case Json::intValue:
            return a.asLargestInt() == b.asLargestInt();
        case Json::uintValue:
            return a.asLargestUInt() == b.asLargestUInt();
        case Json::realValue: {
            // Bit for bit: 0.0 and -0.0 are equal numbers but not equal texts.
            const double x = a.asDouble();
            const double y = b.asDouble();
            return std::bit_cast<uint64_t>(x) == std::bit_cast<uint64_t>(y);
        }
        case Json::booleanValue:
            return a.asBool() == b.asBool();
        case Json::stringValue:
            return Text(a) == Text(b);
        case Json::arrayValue:
        case Json::objectValue: {
            if (a.size() != b.size()) return false;
            const bool object = a.type() == Json::objectValue;
            for (auto x = a.begin(), y = b.begin(); x != a.end(); ++x, ++y) {
                if (object && MemberName(x) != MemberName(y)) return false;
                if (!WrittenAlike(*x, *y)) return false;
            }
            return true;
        }
    }
    return false;
}

RunRequests::RunRequests() {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = true;
    responseReader_.reset(builder.newCharReader());
}

RunRequests::~RunRequests() = default;

const std::wstring& RunRequests::Request(const std::wstring& id, Json::Value methods, Json::Value context) {
    auto found = made_.find(id);
    if (found != made_.end() && WrittenAlike(found->second.methods, methods) &&
        WrittenAlike(found->second.context, context))
        return found->second.text;
    Json::Value document(Json::objectValue);
    document["methods"] = methods;
    if (!context.isNull()) document["context"] = context;
    std::wstring text = os::Utf8ToWideLossy(document.toStyledString());
    if (found == made_.end()) found = made_.emplace(id, Made{}).first;
    found->second = Made{std::move(methods), std::move(context), std::move(text)};
    return found->second.text;
}

Json::Value RunRequests::ParseResponse(const std::wstring& response, const wchar_t* function) {
    Json::Value parsed;
    if (response.empty()) return parsed;
    const std::string text = os::WideToUtf8Lossy(response);
    std::string errors;
    if (!responseReader_->parse(text.data(), text.data() + text.size(), &parsed, &errors)) {
        logging::Log(logging::kWarning, function, L"Cannot parse response %S", text.c_str());
        parsed = Json::Value();
    }
    return parsed;
}

}  // namespace Product::Integration::ConditionalRunner
