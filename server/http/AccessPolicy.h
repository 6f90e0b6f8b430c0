// Who may ask what: the checks of Host, Origin and token that every request passes.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http/Http.h"
#include "http/HttpServerOptions.h"
#include "http/RequestParser.h"

namespace Server {

/// Name of the feed's WebSocket subprotocol, and the prefix of the one that carries a browser's token.
inline constexpr std::string_view FeedProtocol = "velmora.feed.v1";
inline constexpr std::string_view NumberedFeedProtocol = "velmora.feed.v2";
inline constexpr std::string_view BearerProtocol = "bearer.";

/// Decides from a request's head whether it is let in. Immutable, so usable from any thread.
class AccessPolicy {
  public:
    /// `before`: the one in whose place it comes; null: none. Callers whose token goes on to let them see as
    /// much stay; for the others see DismissFormer().
    explicit AccessPolicy(const HttpServerOptions& options, const AccessPolicy* before = nullptr);

    /// Once this has taken the place of `before`: has those leave the feed whose token is gone, or for less.
    void DismissFormer(const AccessPolicy& before) const;

    /// The refusal (400, 401, 403, 421), or nothing where the request may go on. `path` is the target's path;
    /// `authority` that of an absolute target, which then stands for the Host field. `caller` is who asks,
    /// where the path needs it to be known.
    std::optional<HttpResponse> Check(const RequestHead& head, std::string_view path,
                                      std::string_view authority, Caller& caller) const;

    /// The header fields by which a browser lets a page from elsewhere see the answer, where the operator has
    /// allowed its origin; to the question before the request (a preflight) also what it may ask.
    using Fields = std::vector<std::pair<std::string, std::string>>;
    Fields ForOtherOrigin(const RequestHead& head) const;

  private:
    AccessPolicy(const HttpServerOptions& options, const std::vector<Caller>& before);

    std::vector<Caller> Callers() const;
    bool FromOtherOrigin(const RequestHead& head) const;
    bool IsPreflight(const RequestHead& head) const;
    bool NamedByOperator(std::string_view host) const;
    bool HostAllowed(std::string_view host) const;
    bool OriginAllowed(std::string_view origin, std::string_view authority) const;
    Caller Identify(const RequestHead& head) const;
    Caller HolderOf(std::string_view token) const;
    Caller HolderOffered(const RequestHead& head) const;

    const std::string m_Token;
    const Caller m_TokenHolder;                     // who has that one; null: there is none
    const std::vector<Caller> m_Holders;            // those of the further tokens
    const Caller m_Self;                            // this process
    const Caller m_Anybody;                         // who calls where no token is wanted; otherwise null
    const bool m_Secure;                            // it speaks TLS itself
    const std::vector<std::string> m_AllowedHosts;  // lower case, IPv6 addresses without brackets
    const std::vector<std::string> m_AllowedOrigins;
    const std::string m_BoundHost;  // alike; empty where it stands for every interface
};

/// "host:port", "host", "[::1]:port" or "[::1]" in two; the host without its brackets, the port empty where
/// none is named. Nothing for anything else.
std::optional<std::pair<std::string_view, std::string_view>> SplitAuthority(std::string_view authority);

/// Whether the field, a comma-separated list that may stand in several lines, has the element, in any letter
/// case.
bool ListHas(const RequestHead& head, Field field, std::string_view element);

/// Base64 with the URL alphabet, padded or not, to bytes; nothing for anything else.
std::optional<std::string> DecodeBase64Url(std::string_view text);

}  // namespace Server
