// What a request must be to be sent.
#include <algorithm>
#include <string_view>

#include "http/HttpExchange.h"

namespace Velmora {

namespace {

// A header's name is a token (RFC 9110).
bool IsToken(std::string_view name) {
    constexpr std::string_view Others = "!#$%&'*+-.^_`|~";
    return !name.empty() && std::all_of(name.begin(), name.end(), [&](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               Others.find(c) != std::string_view::npos;
    });
}

bool HasControlCharacter(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < 0x20 && c != '\t') || byte == 0x7f;
    });
}

bool IsNamed(const std::string& name, const char* other) {
    const ci_comp less;
    return !less(name, other) && !less(other, name);
}

// Headers that would end the request early or tell its end wrongly are refused: what follows them would be
// read as a request of its own.
std::string WhyNotHeader(const std::string& name, const std::string& value, std::size_t body_size) {
    if (!IsToken(name)) return "Malformed header name";
    if (HasControlCharacter(value)) return "Control character in header " + name;
    if (IsNamed(name, "Transfer-Encoding")) return "Header Transfer-Encoding is not supported";
    if (IsNamed(name, "Content-Length") && value != std::to_string(body_size)) {
        return "Header Content-Length does not match the body";
    }
    return {};
}

std::string WhyNotMethod(const HttpExchangeRequest& request) {
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
    if (!IsNamed(request.Target.Scheme, "http") && !IsNamed(request.Target.Scheme, "https")) {
        return "Scheme \"" + request.Target.Scheme + "\" is not supported";
    }
    if (std::string why = WhyNotMethod(request); !why.empty()) return why;
    for (const auto& [name, value] : request.Headers) {
        if (std::string why = WhyNotHeader(name, value, request.Body.size()); !why.empty()) return why;
    }
    return {};
}

}  // namespace Velmora
