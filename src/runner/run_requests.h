#pragma once
// The texts exchanged with the host's policy runner: the request of a method
// set ({"methods", "context"?} in the JSON library's styled form, as wide
// text) and the parsed response.
//
// A request is made from the method set as just read from its stored node.
// The last request made for each method set is kept with the values it was
// made from; when the values read next are the same (same types, same
// members in the same order, same numbers bit for bit, same texts and
// comments: what the styled writer writes), the kept text is answered
// instead of writing it again. So a kept request never differs from the one
// the values read would give, whoever changed the node. Everything kept is
// dropped when the runner's method sets change (Forget).
//
// Thread rules: not synchronised; the runner uses it under its lock (passes
// and method-set operations).
#include <map>
#include <memory>
#include <string>

#include <json/reader.h>
#include <json/value.h>

#include "model/ordinal_order.h"

namespace Product::Integration::ConditionalRunner {

class RunRequests {
public:
    RunRequests();
    ~RunRequests();
    RunRequests(const RunRequests&) = delete;
    RunRequests& operator=(const RunRequests&) = delete;

    // The request for method set `id` read as `methods` and `context` (null:
    // none).
    const std::wstring& Request(const std::wstring& id, Json::Value methods, Json::Value context);
    // Drops every kept request.
    void Forget() { made_.clear(); }

    // The response text as JSON (comments collected); null for an empty
    // text, and null (logged under `function`) for one that does not parse.
    Json::Value ParseResponse(const std::wstring& response, const wchar_t* function);

private:
    struct Made {
        Json::Value methods;
        Json::Value context;
        std::wstring text;
    };

    std::map<std::wstring, Made, qv::Utf16OrdinalLess> made_;
    std::unique_ptr<Json::CharReader> responseReader_;  // made once: its settings never change
};

// Whether the styled writer writes `a` and `b` alike: the same type, members
// in the same order with the same names, numbers equal bit for bit, texts
// and comments equal. Stricter than ==, which takes 0.0 and -0.0 as equal
// and ignores comments.
bool WrittenAlike(const Json::Value& a, const Json::Value& b);

}  // namespace Product::Integration::ConditionalRunner
