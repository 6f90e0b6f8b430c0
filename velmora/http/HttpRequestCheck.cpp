#include <algorithm>
#include <string_view>

#include "http/HttpExchange.h"

namespace Velmora {

namespace {

/// A header's name is a token (RFC 9110).
bool is_token(std::string_view name) {
    constexpr std::string_view others = "!#$%&'*+-.^_`|~";
    return !name.empty() && std::all_of(name.begin(), name.end(), [&](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               others.find(c) != std::string_view::npos;
    });
}

bool has_control_character(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < 0x20 && c != '\t') || byte == 0x7f;
    });
}

bool is_named(const std::string& name, const char* other) {
    const ci_comp less;
    return !less(name, other) && !less(other, name);
}

/// Headers that would end the request early or tell its end wrongly are refused: what follows them would be
/// read as a request of its own.
std::string why_not_header(const std::string& name, const std::string& value, std::size_t body_size) {
    if (!is_token(name)) return "Malformed header name";
    if (has_control_character(value)) return "Control character in header " + name;
    if (is_named(name, "Transfer-Encoding")) return "Header Transfer-Encoding is not supported";
    if (is_named(name, "Content-Length") && value != std::to_string(body_size)) {
        return "Header Content-Length does not match the body";
    }
    return {};
}

std::string why_not_method(const HttpExchangeRequest& request) {
    const Method_t method = request.Method;
    if (method < METH_OPTIONS || method > METH_PATCH) return "Unknown method";
    if (method == METH_CONNECT) return "Method CONNECT is not supported";
    if ((method == METH_HEAD || method == METH_TRACE) && !request.Body.empty()) {
        return std::string("Method ") + MethodToString(method) + " takes no body";
    }
    if (request.Proto == HTTP_0_9) return "HTTP/0.9 is not supported";
    return {};
}

}  // namespace

std::string WhyNotSendable(const HttpExchangeRequest& request) {
    if (request.Target.Empty()) return "No URL";
    if (!is_named(request.Target.Scheme, "http") && !is_named(request.Target.Scheme, "https")) {
        return "Scheme \"" + request.Target.Scheme + "\" is not supported";
    }
    if (std::string why = why_not_method(request); !why.empty()) return why;
    for (const auto& [name, value] : request.Headers) {
        if (std::string why = why_not_header(name, value, request.Body.size()); !why.empty()) return why;
    }
    return {};
}

}  // namespace Velmora
