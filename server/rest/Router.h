// Every resource that the server offers, and the way from a request to the function that answers it.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "MR_mutex.h"
#include "config/Config.h"
#include "http/Http.h"
#include "http/HttpServerOptions.h"
#include "rest/Rest.h"

namespace Server {

/// One row of the table of routes, for those who describe it.
struct RouteInfo {
    std::string Method;              // "GET"; HEAD and OPTIONS come with every path
    std::string Pattern;             // "/api/v1/events/{event_name}"
    std::vector<std::string> Query;  // names of the query parameters that are understood
    bool TakesBody;
    std::optional<Role> Needs;  // the least role that may; nothing: no token is wanted
};

/// Answers every request that is not a WebSocket upgrade: the REST interface on the live queue, the endpoints
/// for operations, and the console. Called from any thread.
class Router : public HttpHandler {
  public:
    explicit Router(const Config& config);

    /// Where /metrics takes the connections' counters from. To be called before the first request.
    void CountersFrom(std::function<HttpServerCounters()> source);

    /// Where changes and postings of a node of a cluster go. To be called before the first request.
    void GoThrough(ClusterGate& gate) { m_Context.Gate = &gate; }

    /// The engine that makes the calls, which outlives the router. To be called before the first request.
    void DeliveriesFrom(DeliveryEngine* engine) { m_Context.Deliveries = engine; }

    /// Whom a request to reload is for. To be called before the first request.
    void ReloadWith(Reload* reload) { m_Context.Reloading = reload; }

    std::optional<HttpResponse> Route(const HttpRequest& head, HttpRoute& route) const override;
    HttpResponse Handle(const HttpRequest& request, HttpRoute& route) override;

    static std::vector<RouteInfo> Routes();

  private:
    HttpResponse Answer(const HttpRequest& request, HttpRoute& route);
    std::optional<HttpResponse> Precondition(const HttpRequest& request, const HttpRoute& route);
    HttpResponse Dispatch(const HttpRequest& request, HttpRoute& route);

    RestContext m_Context;
    Mirel::Mutex m_Change;       // held for each change that may wait for the queue
    Mirel::Mutex m_QuickChange;  // and for those that do not
};

}  // namespace Server
