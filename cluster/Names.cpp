#include "Names.h"

#include <cctype>

namespace Cluster {

namespace {

constexpr char Digits[] = "0123456789ABCDEF";

bool IsPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

// A dot that parts two tokens, neither of which is empty.
bool Parts(std::string_view name, std::size_t at) {
    return name[at] == '.' && at > 0 && at + 1 < name.size() && name[at - 1] != '.' && name[at + 1] != '.';
}

int DigitOf(char c) {
    const std::size_t at = std::string_view(Digits).find(static_cast<char>(std::toupper(c)));
    return c == '\0' || at == std::string_view::npos ? -1 : static_cast<int>(at);
}

}  // namespace

std::string EncodeName(std::string_view name) {
    std::string encoded;
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (IsPlain(name[i]) || Parts(name, i)) {
            encoded += name[i];
        } else {
            const auto byte = static_cast<unsigned char>(name[i]);
            encoded += {'=', Digits[byte >> 4], Digits[byte & 15]};
        }
    }
    return encoded;
}

std::optional<std::string> DecodeName(std::string_view text) {
    std::string name;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '=') {
            name += text[i];
            continue;
        }
        const bool whole = i + 2 < text.size();
        const int high = whole ? DigitOf(text[i + 1]) : -1, low = whole ? DigitOf(text[i + 2]) : -1;
        if (high < 0 || low < 0) return std::nullopt;
        name += static_cast<char>(high * 16 + low);
        i += 2;
    }
    if (name.empty()) return std::nullopt;
    return name;
}

}  // namespace Cluster
