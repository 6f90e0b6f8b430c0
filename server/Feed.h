// The way from a request for the feed to a WebSocket client of the queue.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ConnectionParser.h"
#include "Http.h"
#include "VL_Socket.h"

namespace Server {

inline constexpr std::string_view FeedPath = "/api/v1/feed";

/// The refusal of a GET for the feed that is no proper WebSocket upgrade (400, 426), or nothing.
std::optional<HttpResponse> RefuseUpgrade(const RequestHead& head);

/// The answer 101 to a proper one, whole.
std::string SwitchingProtocols(const RequestHead& head);

/// Hands the connection to the live queue, which sends it every posting from now on; `received` is what the
/// client has sent behind its request. The connection is closed where there is no queue to take it.
void HandOverToFeed(Velmora::SocketStream stream, const std::string& peer, std::string_view received);

}  // namespace Server
