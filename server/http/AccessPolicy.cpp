// Host, Origin and token of a request against what the configuration allows.
#include "http/AccessPolicy.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <charconv>
#include <functional>

#include "LocalAccessManager.h"
#include "MR_text.h"
#include "VL_WebSocket.h"

namespace Server {

namespace {

std::string Lowered(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), Mirel::LowerASCII);
    return result;
}

bool StartsWithLetters(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && Mirel::EqualIgnoringCase(text.substr(0, prefix.size()), prefix);
}

std::string_view Trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

using Visit = std::function<bool(std::string_view)>;

// Calls `visit` with each element of a comma-separated list until it answers true; whether it did.
bool AnyElement(std::string_view list, const Visit& visit) {
    while (!list.empty()) {
        const std::size_t comma = std::min(list.find(','), list.size());
        if (visit(Trimmed(list.substr(0, comma)))) return true;
        list.remove_prefix(std::min(comma + 1, list.size()));
    }
    return false;
}

// The same for a field: all its lines are one list (RFC 9110, 5.3).
bool AnyElement(const RequestHead& head, Field field, const Visit& visit) {
    if (AnyElement(head[field], visit)) return true;
    return std::any_of(head.More.begin(), head.More.end(), [&](const auto& line) {
        return line.first == field && AnyElement(line.second, visit);
    });
}

std::string HostOf(const std::string& name) {
    const auto split = SplitAuthority(name);
    // An IPv6 address may stand there without brackets.
    return Lowered(split ? split->first : name);
}

std::vector<std::string> AllowedHosts(const HttpServerOptions& options) {
    std::vector<std::string> hosts;
    for (const std::string& name : options.AllowedHosts) hosts.push_back(HostOf(name));
    return hosts;
}

// The addresses that stand for every interface are no names to be called by.
std::string BoundHost(const HttpServerOptions& options) {
    return options.Host == "0.0.0.0" || options.Host == "::" ? "" : HostOf(options.Host);
}

// The port's number; `usual` where none is named.
int PortNumber(std::string_view port, int usual) {
    int number = usual;
    std::from_chars(port.data(), port.data() + port.size(), number);
    return number;
}

// Whether the path is under "/api", however it is spelled: what a handler might decode or skip over must not
// lead around the token.
bool UnderApi(std::string_view path) {
    if (path.substr(0, 5) == "/api/") return true;
    const std::size_t begin = std::min(path.find_first_not_of('/'), path.size());
    const std::string_view first = path.substr(begin, path.find('/', begin) - begin);
    const std::optional<std::string> decoded = PercentDecode(first);
    return !decoded || Lowered(*decoded).substr(0, 3) == "api" || decoded->substr(0, 1) == ".";
}

// A caller that may be told to leave, alike and at the same time as one from before who has the same token
// and saw no more.
Caller Revocable(AccessToken token, const std::vector<Caller>& before) {
    const auto goes_on = [&](const Caller& former) {
        return former->Digest == token.Digest && token.SeesAllOf(*former);
    };
    const auto found = std::find_if(before.begin(), before.end(), goes_on);
    token.Ended = found == before.end() ? std::make_shared<std::atomic<bool>>(false) : (*found)->Ended;
    return std::make_shared<const AccessToken>(std::move(token));
}

// Who has the token, or all where it is empty and none is wanted.
Caller HolderOfAll(const std::string& name, const std::string& token, const std::vector<Caller>& before) {
    AccessToken all;
    all.Name = name;
    if (!token.empty()) all.Digest = TokenDigest(token);
    return Revocable(std::move(all), before);
}

std::vector<Caller> Holders(const std::vector<AccessToken>& tokens, const std::vector<Caller>& before) {
    std::vector<Caller> holders;
    for (const AccessToken& token : tokens) holders.push_back(Revocable(token, before));
    return holders;
}

HttpResponse Unauthorized(const RequestHead& head) {
    const bool shown = head.Has(Field::Authorization);
    HttpResponse response = Problem(Velmora::STATUS_401_UNAUTHORIZED,
                                    shown ? "The access token that the request shows is not known here."
                                          : "An access token is wanted: Authorization: Bearer <token>.");
    const char* const error = shown ? ", error=\"invalid_token\"" : "";
    response.Headers.emplace_back("WWW-Authenticate", std::string("Bearer realm=\"velmora\"") + error);
    return response;
}

}  // namespace

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

bool ListHas(const RequestHead& head, Field field, std::string_view element) {
    return AnyElement(head, field,
                      [element](std::string_view one) { return Mirel::EqualIgnoringCase(one, element); });
}

std::optional<std::string> DecodeBase64Url(std::string_view text) {
    while (!text.empty() && text.back() == '=') text.remove_suffix(1);
    if (text.size() % 4 == 1) return std::nullopt;
    static constexpr std::string_view Alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string bytes;
    unsigned held = 0;
    int bits = 0;
    for (const char c : text) {
        const std::size_t value = Alphabet.find(c);
        if (value == Alphabet.npos) return std::nullopt;
        held = (held << 6 | static_cast<unsigned>(value)) & 0xffff;
        bits += 6;
        if (bits < 8) continue;
        bits -= 8;
        bytes += static_cast<char>(held >> bits & 0xff);
    }
    return bytes;
}

AccessPolicy::AccessPolicy(const HttpServerOptions& options, const AccessPolicy* before)
    : AccessPolicy(options, before == nullptr ? std::vector<Caller>() : before->Callers()) {}

AccessPolicy::AccessPolicy(const HttpServerOptions& options, const std::vector<Caller>& before)
    : m_Token(options.AccessToken),
      m_TokenHolder(m_Token.empty() ? nullptr : HolderOfAll("AccessToken", m_Token, before)),
      m_Holders(Holders(options.AccessTokens, before)),
      m_Self(CallerWithAllRights("(this server)")),
      m_Anybody(options.Guarded() ? nullptr : HolderOfAll("", "", before)),
      m_Secure(!options.TLSIdentity.empty()),
      m_AllowedHosts(AllowedHosts(options)),
      m_AllowedOrigins(options.AllowedOrigins),
      m_BoundHost(BoundHost(options)) {}

// All that may be told to leave.
std::vector<Caller> AccessPolicy::Callers() const {
    std::vector<Caller> callers = m_Holders;
    for (const Caller& caller : {m_TokenHolder, m_Anybody})
        if (caller) callers.push_back(caller);
    return callers;
}

void AccessPolicy::DismissFormer(const AccessPolicy& before) const {
    const std::vector<Caller> present = Callers();
    for (const Caller& former : before.Callers()) {
        const bool stays = std::any_of(present.begin(), present.end(),
                                       [&](const Caller& caller) { return caller->Ended == former->Ended; });
        if (!stays) former->Ended->store(true, std::memory_order_release);
    }
    Velmora::DismissWebSocketClients();
}

bool AccessPolicy::FromOtherOrigin(const RequestHead& head) const {
    if (m_AllowedOrigins.empty() || head.Count(Field::Origin) != 1) return false;
    return std::any_of(m_AllowedOrigins.begin(), m_AllowedOrigins.end(), [&](const std::string& allowed) {
        return (allowed == "*" && !m_Anybody) || Mirel::EqualIgnoringCase(allowed, head[Field::Origin]);
    });
}

bool AccessPolicy::IsPreflight(const RequestHead& head) const {
    return head.Method == Velmora::METH_OPTIONS && head.Has(Field::PreflightMethod) && FromOtherOrigin(head);
}

AccessPolicy::Fields AccessPolicy::ForOtherOrigin(const RequestHead& head) const {
    if (!FromOtherOrigin(head)) return {};
    Fields fields = {
        {"Access-Control-Allow-Origin", std::string(head[Field::Origin])},
        {"Vary", "Origin"},
        {"Access-Control-Expose-Headers", "Allow, ETag, Location, Retry-After, WWW-Authenticate"}};
    if (!IsPreflight(head)) return fields;
    fields.emplace_back("Access-Control-Allow-Methods", "GET, HEAD, POST, PATCH, DELETE");
    fields.emplace_back(
        "Access-Control-Allow-Headers",
        "Authorization, Content-Type, Idempotency-Key, If-Match, If-None-Match, Last-Event-ID");
    fields.emplace_back("Access-Control-Max-Age", "600");
    return fields;
}

bool AccessPolicy::NamedByOperator(std::string_view host) const {
    return std::any_of(m_AllowedHosts.begin(), m_AllowedHosts.end(), [host](const std::string& allowed) {
        return Mirel::EqualIgnoringCase(allowed, host);
    });
}

bool AccessPolicy::HostAllowed(std::string_view host) const {
    return NamedByOperator(host) || Mirel::IsLoopbackName(host) ||
           Mirel::EqualIgnoringCase(m_BoundHost, host);
}

// Only pages that came from where the request goes to: of the same scheme, host and port. Which port that is
// says the request itself (`authority`, which passed for one of this server's): behind a tunnel or a proxy it
// is not the one that is bound. Where the server speaks plain HTTP the page may have come over TLS only
// through a proxy, whose name the operator has given.
bool AccessPolicy::OriginAllowed(std::string_view origin, std::string_view authority) const {
    const bool secure = StartsWithLetters(origin, "https://");
    if (!secure && (m_Secure || !StartsWithLetters(origin, "http://"))) return false;
    origin.remove_prefix(origin.find("//") + 2);
    const auto from = SplitAuthority(origin);
    const auto to = SplitAuthority(authority);
    if (!from || !to || !Mirel::EqualIgnoringCase(from->first, to->first)) return false;
    if (secure && !m_Secure && !NamedByOperator(from->first)) return false;
    const int usual = secure ? 443 : 80;
    return PortNumber(from->second, usual) == PortNumber(to->second, usual);
}

// Every token is compared, so that the time tells of none.
Caller AccessPolicy::HolderOf(std::string_view token) const {
    Caller found;
    if (!m_Token.empty() && token.size() == m_Token.size() &&
        CRYPTO_memcmp(token.data(), m_Token.data(), token.size()) == 0) {
        found = m_TokenHolder;
    }
    if (m_Holders.empty()) return found;
    const std::string digest = TokenDigest(token);
    for (const Caller& holder : m_Holders) {
        const bool same = holder->Digest.size() == digest.size() &&
                          CRYPTO_memcmp(digest.data(), holder->Digest.data(), digest.size()) == 0;
        if (same) found = holder;
    }
    return found;
}

Caller AccessPolicy::HolderOffered(const RequestHead& head) const {
    Caller holder;
    AnyElement(head, Field::WebSocketProtocol, [&](std::string_view one) {
        if (one.substr(0, BearerProtocol.size()) != BearerProtocol) return false;
        const std::optional<std::string> token = DecodeBase64Url(one.substr(BearerProtocol.size()));
        if (token) holder = HolderOf(*token);
        return holder != nullptr;
    });
    return holder;
}

Caller AccessPolicy::Identify(const RequestHead& head) const {
    if (head.Count(Field::Authorization) > 1) return nullptr;
    const std::string_view given = head[Field::Authorization];
    if (StartsWithLetters(given, "bearer ")) {
        if (Caller holder = HolderOf(Trimmed(given.substr(7)))) return holder;
    }
    if (LocalAccessManager::IsSelfAuthorized(given)) return m_Self;
    if (!head.Has(Field::Upgrade)) return nullptr;
    const bool feed = ListHas(head, Field::WebSocketProtocol, FeedProtocol) ||
                      ListHas(head, Field::WebSocketProtocol, NumberedFeedProtocol);
    return feed ? HolderOffered(head) : nullptr;
}

std::optional<HttpResponse> AccessPolicy::Check(const RequestHead& head, std::string_view path,
                                                std::string_view authority, Caller& caller) const {
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
        (head.Has(Field::Origin) && !OriginAllowed(head[Field::Origin], authority) &&
         !FromOtherOrigin(head))) {
        return Problem(Velmora::STATUS_403_FORBIDDEN, "Requests from pages of other sites are refused.");
    }
    if (IsPreflight(head)) return std::nullopt;  // a browser asks without the token whether it may use it
    caller = m_Anybody;
    if (caller || !UnderApi(path)) return std::nullopt;
    caller = Identify(head);
    return caller ? std::nullopt : std::optional(Unauthorized(head));
}

}  // namespace Server
