// A request put to a router as connections do it: its head first. It comes from a caller with all rights.
#pragma once

#include <optional>

#include "rest/Router.h"

namespace Testing {

inline Server::HttpResponse AskRouter(Server::Router& router, const Server::HttpRequest& request) {
    Server::HttpRoute route;
    route.Caller = Server::CallerWithAllRights("");
    const std::optional<Server::HttpResponse> refused = router.Route(request, route);
    return refused ? *refused : router.Handle(request, route);
}

}  // namespace Testing
