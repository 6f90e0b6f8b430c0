// Text: what takes more than a line of it.
#include "MR_text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <string>

namespace Mirel {

int HexValue(char digit) noexcept {
    if (digit >= '0' && digit <= '9') return digit - '0';
    const char lower = LowerASCII(digit);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

bool EqualIgnoringCase(std::string_view a, std::string_view b) noexcept {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return LowerASCII(x) == LowerASCII(y); });
}

Utf8Lead ReadUtf8(std::string_view text) noexcept {
    Utf8Check check;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (!check.Take(static_cast<byte_t>(text[i]))) return {std::max<std::size_t>(i, 1), false};
        if (check.Whole()) return {i + 1, true};
    }
    return {text.size(), false};
}

bool IsUtf8(std::string_view text) noexcept {
    Utf8Check check;
    return std::all_of(text.begin(), text.end(),
                       [&check](char c) { return check.Take(static_cast<byte_t>(c)); }) &&
           check.Whole();
}

bool IsLoopbackName(std::string_view host) {
    if (EqualIgnoringCase(host, "localhost")) return true;
    const std::string text(host);
    in_addr v4{};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
    in6_addr v6{};
    return inet_pton(AF_INET6, text.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

}  // namespace Mirel
