#include "physical_adapters.h"

#include <cwchar>

namespace host::ovra {

std::wstring MacText(const unsigned char* address, unsigned length) {
    std::wstring text;
    for (unsigned i = 0; i < length; ++i) {
        wchar_t pair[3];
        std::swprintf(pair, 3, L"%02x", address[i]);
        text += pair;
    }
    return text;
}

}  // namespace host::ovra
