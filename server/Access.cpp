#include "Access.h"

#include <arpa/inet.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <functional>

#include "LocalAccessManager.h"

namespace Server {

namespace {

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string lowered(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), lower);
    return result;
}

bool starts_with_letters(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && SameLetters(text.substr(0, prefix.size()), prefix);
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

// Calls `visit` with each element of a comma-separated list until it answers true; whether it did.
bool any_element(std::string_view list, const std::function<bool(std::string_view)>& visit) {
    while (!list.empty()) {
        const std::size_t comma = std::min(list.find(','), list.size());
        if (visit(trimmed(list.substr(0, comma)))) return true;
        list.remove_prefix(std::min(comma + 1, list.size()));
    }
    return false;
}

std::vector<std::string> known_hosts(const HttpServerOptions& options) {
    std::vector<std::string> hosts;
    const auto add = [&hosts](std::string_view host) {
        const auto split = SplitAuthority(host);
        // An IPv6 address may stand there without brackets.
        hosts.push_back(lowered(split ? split->first : host));
    };
    // The addresses that stand for every interface are no names to be called by.
    if (options.Host != "0.0.0.0" && options.Host != "::") add(options.Host);
    std::for_each(options.AllowedHosts.begin(), options.AllowedHosts.end(), add);
    return hosts;
}

// Whether the path is under "/api", however it is spelled: what a handler might decode or skip over must not
// lead around the token.
bool under_api(std::string_view path) {
    if (path.substr(0, 5) == "/api/") return true;
    const std::size_t begin = std::min(path.find_first_not_of('/'), path.size());
    const std::string_view first = path.substr(begin, path.find('/', begin) - begin);
    const std::optional<std::string> decoded = PercentDecode(first);
    return !decoded || lowered(*decoded).substr(0, 3) == "api" || decoded->substr(0, 1) == ".";
}

HttpResponse unauthorized() {
    HttpResponse response = Problem(Velmora::STATUS_401_UNAUTHORIZED,
                                    "An access token is wanted: Authorization: Bearer <token>.");
    response.Headers.emplace_back("WWW-Authenticate", "Bearer realm=\"velmora\"");
    return response;
}

}  // namespace

bool SameLetters(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return lower(x) == lower(y); });
}

std::optional<std::pair<std::string_view, std::string_view>> SplitAuthority(std::string_view authority) {
    std::size_t end;
    std::string_view host;
    if (!authority.empty() && authority[0] == '[') {
        const std::size_t bracket = authority.find(']');
        if (bracket == authority.npos) return std::nullopt;
        host = authority.substr(1, bracket - 1);
        end = bracket + 1;
    } else {
        end = std::min(authority.find(':'), authority.size());
        host = authority.substr(0, end);
    }
    if (host.empty()) return std::nullopt;
    if (end == authority.size()) return std::pair{host, std::string_view()};
    const std::string_view port = authority.substr(end + 1);
    if (authority[end] != ':' || port.size() > 5) return std::nullopt;
    if (!std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    return std::pair{host, port};
}

bool IsLoopbackName(std::string_view host) {
    if (SameLetters(host, "localhost")) return true;
    const std::string text(host);
    in_addr v4{};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
    in6_addr v6{};
    return inet_pton(AF_INET6, text.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

bool ListHas(std::string_view list, std::string_view element) {
    return any_element(list, [element](std::string_view one) { return SameLetters(one, element); });
}

std::optional<std::string> DecodeBase64Url(std::string_view text) {
    while (!text.empty() && text.back() == '=') text.remove_suffix(1);
    if (text.size() % 4 == 1) return std::nullopt;
    static constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string bytes;
    unsigned held = 0;
    int bits = 0;
    for (const char c : text) {
        const std::size_t value = alphabet.find(c);
        if (value == alphabet.npos) return std::nullopt;
        held = (held << 6 | static_cast<unsigned>(value)) & 0xffff;
        bits += 6;
        if (bits < 8) continue;
        bits -= 8;
        bytes += static_cast<char>(held >> bits & 0xff);
    }
    return bytes;
}

AccessPolicy::AccessPolicy(const HttpServerOptions& options, Mirel::ui16_t port)
    : m_Token(options.AccessToken), m_Hosts(known_hosts(options)), m_Port(std::to_string(port)) {}

bool AccessPolicy::HostAllowed(std::string_view host) const {
    const auto same = [host](const std::string& known) { return SameLetters(known, host); };
    return std::any_of(m_Hosts.begin(), m_Hosts.end(), same) || IsLoopbackName(host);
}

bool AccessPolicy::OriginAllowed(std::string_view origin, std::string_view authority) const {
    const std::size_t scheme = starts_with_letters(origin, "https://")  ? 8
                               : starts_with_letters(origin, "http://") ? 7
                                                                        : 0;
    if (scheme == 0) return false;
    origin.remove_prefix(scheme);
    const auto split = SplitAuthority(origin);
    if (!split || !HostAllowed(split->first)) return false;
    // Another port of the same machine is another site, unless the client knows this one by it (a tunnel, a
    // proxy).
    return split->second.empty() || split->second == m_Port || SameLetters(origin, authority);
}

bool AccessPolicy::TokenMatches(std::string_view token) const {
    return token.size() == m_Token.size() && CRYPTO_memcmp(token.data(), m_Token.data(), token.size()) == 0;
}

bool AccessPolicy::OffersToken(std::string_view protocols) const {
    return any_element(protocols, [this](std::string_view one) {
        if (one.substr(0, BearerProtocol.size()) != BearerProtocol) return false;
        const std::optional<std::string> token = DecodeBase64Url(one.substr(BearerProtocol.size()));
        return token && TokenMatches(*token);
    });
}

bool AccessPolicy::Authorized(const RequestHead& head) const {
    const std::string_view given = head[Field::Authorization];
    if (starts_with_letters(given, "bearer ") && TokenMatches(trimmed(given.substr(7)))) return true;
    if (LocalAccessManager::IsSelfAuthorized(given)) return true;
    return head.Has(Field::Upgrade) && ListHas(head[Field::WebSocketProtocol], FeedProtocol) &&
           OffersToken(head[Field::WebSocketProtocol]);
}

std::optional<HttpResponse> AccessPolicy::Check(const RequestHead& head, std::string_view path,
                                                std::string_view authority) const {
    if (head.Count(Field::Host) != 1) {
        return Problem(Velmora::STATUS_400_BAD_REQ, "A request needs exactly one Host field.");
    }
    if (authority.empty()) authority = head[Field::Host];
    const auto host = SplitAuthority(authority);
    if (!host || !HostAllowed(host->first)) {
        return Problem(Velmora::STATUS_421_MISDIRECTED,
                       "This server is not known by the name in the Host field.");
    }
    if (head.Count(Field::Origin) > 1 ||
        (head.Has(Field::Origin) && !OriginAllowed(head[Field::Origin], authority))) {
        return Problem(Velmora::STATUS_403_FORBIDDEN, "Requests from pages of other sites are refused.");
    }
    if (!m_Token.empty() && under_api(path) && (head.Count(Field::Authorization) > 1 || !Authorized(head))) {
        return unauthorized();
    }
    return std::nullopt;
}

}  // namespace Server
