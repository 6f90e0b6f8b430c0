// What a request's head decides, before its body is there.
#pragma once

#include <optional>

#include "http/AccessPolicy.h"
#include "http/Http.h"
#include "http/RequestParser.h"

namespace Server {

/// The request as handlers see it, without its body. The views are the head's.
HttpRequest RequestOf(const RequestHead& head);

/// Whether it asks to become a client of the feed.
bool AsksForFeed(const HttpRequest& request);

/// Whatever can be refused without the body: targets, methods, bodies and expectations that are none of ours,
/// and what `policy` and `handler` refuse. Otherwise nothing, and `route` is the handler's.
std::optional<HttpResponse> RefuseHead(const RequestHead& head, const AccessPolicy& policy,
                                       const HttpHandler& handler, HttpRoute& route);

}  // namespace Server
