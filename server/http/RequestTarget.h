// A request's target in its parts.
#pragma once

#include <optional>
#include <string_view>

namespace Server {

/// "/path?query", "http://authority/path?query" or "*" in its parts: views into the text it was split from.
struct RequestTarget {
    std::string_view Authority, Path, Query;
};

/// Nothing for any other form.
std::optional<RequestTarget> SplitTarget(std::string_view text);

}  // namespace Server
