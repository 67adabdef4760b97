// The module's own RDN splitter: it ends, every step consumes text, and the
// parts it answers lie within the text it consumed; what it consumed, step
// by step, is the text from the start, so that the pieces join up again.
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "os/directory.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::wstring dn(data, data + size);
    const wchar_t* at = dn.c_str();
    size_t length = dn.size();
    size_t steps = 0;
    while (length > 0) {
        const wchar_t* before = at;
        const size_t lengthBefore = length;
        os::RdnPart part;
        const uint32_t status = os::ParseRdn(&at, &length, &part);
        if (status != 0) {
            FUZZ_CHECK(status == os::kInvalidDnSyntax, "unexpected status %u", status);
            break;
        }
        FUZZ_CHECK(at > before && at <= before + lengthBefore, "a step consumed nothing or ran past the end");
        FUZZ_CHECK(length == lengthBefore - static_cast<size_t>(at - before), "the length left does not follow");
        const auto inside = [&](const wchar_t* p, size_t n) { return p >= before && p + n <= at; };
        FUZZ_CHECK(part.type && inside(part.type, part.typeLength), "the type lies outside what was consumed");
        FUZZ_CHECK(!part.value || inside(part.value, part.valueLength), "the value lies outside what was consumed");
        FUZZ_CHECK(part.type + part.typeLength <= part.value || !part.value, "the type runs into the value");
        FUZZ_CHECK(++steps <= dn.size(), "more steps than characters");
    }
    FUZZ_CHECK(at >= dn.c_str() && at + length == dn.c_str() + dn.size(), "the pieces do not join up to the text");
    return 0;
}
