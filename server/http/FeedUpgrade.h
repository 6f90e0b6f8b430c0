// The way from a request for the feed to a WebSocket client of the queue.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VL_Socket.h"
#include "VL_WebSocket.h"
#include "http/Http.h"
#include "http/RequestParser.h"

namespace Server {

inline constexpr std::string_view FeedPath = "/api/v1/feed";
inline constexpr std::string_view EventStreamPath = "/api/v1/feed/sse";

/// Whether a GET for the feed wants server-sent events: by its path, or by what it accepts.
bool WantsEventStream(const RequestHead& head);

/// Reads what a subscriber of the feed asks for, as far as the caller may have it, into `wish`, which stays
/// empty for a client that is told no ids; otherwise the refusal (400, 403).
std::optional<HttpResponse> ReadFeedWish(const RequestHead& head, const HttpRoute& route,
                                         std::optional<Velmora::FeedWish>& wish);

/// The head of the answer that server-sent events follow; `more` are further fields.
std::string EventStreamHead(const std::vector<std::pair<std::string, std::string>>& more);

/// The refusal of a GET for the feed that is no proper WebSocket upgrade (400, 426), or nothing.
std::optional<HttpResponse> RefuseUpgrade(const RequestHead& head);

/// The answer 101 to a proper one, whole.
std::string SwitchingProtocols(const RequestHead& head);

/// Limits how many clients are on the feed, those that are on their way to it included: from the answer 101
/// until the queue, which counts its clients itself, has taken them over. May be used from any thread.
class FeedPlaces {
  public:
    explicit FeedPlaces(std::size_t most) : m_Most(most) {}

    /// A place on the way; it is free again when the pointer is destroyed.
    class Return {
      public:
        void operator()(FeedPlaces* places) const { places->m_OnTheirWay.fetch_sub(1); }
    };
    using Place = std::unique_ptr<FeedPlaces, Return>;

    /// Null where as many as may be are there.
    Place Take();

  private:
    const std::size_t m_Most;
    std::atomic<std::size_t> m_OnTheirWay{0};
};

/// The refusal (503) of a client for which there is no place.
HttpResponse FeedIsFull(std::size_t most);

/// Hands the connection to the live queue, which sends it every posting from now on; `received` is what the
/// client has sent behind its request, `wish` what a subscriber has asked for, `caller` who lets it in. The
/// connection is closed where there is no queue to take it.
void HandOverToFeed(Velmora::SocketStream stream, const std::string& peer, std::string_view received,
                    std::optional<Velmora::FeedWish> wish, const Caller& caller);

}  // namespace Server
