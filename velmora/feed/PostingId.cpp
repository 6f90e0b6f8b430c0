// A posting's id as text.
#include <algorithm>
#include <charconv>

#include "VL_WebSocket.h"

namespace Velmora {

namespace {

// What can stand in JSON, in a header field and in a line without being escaped.
bool IsPlain(char c) {
    return c > ' ' && c < 0x7f && c != '"' && c != '\\';
}

}  // namespace

std::string PostingId::Text() const {
    return Epoch + '-' + std::to_string(Number);
}

std::optional<PostingId> PostingId::FromText(std::string_view text) {
    const std::size_t dash = text.rfind('-');
    if (dash == text.npos || dash == 0 || !std::all_of(text.begin(), text.end(), IsPlain))
        return std::nullopt;
    const std::string_view digits = text.substr(dash + 1);
    PostingId id{std::string(text.substr(0, dash))};
    const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), id.Number);
    if (error != std::errc() || stop != digits.data() + digits.size()) return std::nullopt;
    return id;
}

}  // namespace Velmora
