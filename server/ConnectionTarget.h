// What a request's head asks for, and whether it may.
#pragma once

#include <optional>
#include <string_view>

#include "Access.h"
#include "ConnectionParser.h"
#include "Http.h"

namespace Server {

/// A request's target in its parts: "/path?query", "http://authority/path?query" or "*". Views into the head.
struct RequestTarget {
    std::string_view Authority, Path, Query;
};

/// Nothing for any other form.
std::optional<RequestTarget> SplitTarget(std::string_view text);

/// What can be refused before the body is there: targets, methods, bodies and expectations that are none of
/// ours, and whatever `policy` refuses.
std::optional<HttpResponse> RefuseHead(const RequestHead& head, const AccessPolicy& policy);

}  // namespace Server
