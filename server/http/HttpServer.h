// The listening socket, its connections and the I/O threads that serve them.
#pragma once

#include <memory>
#include <string>

#include "MR_error.h"
#include "MR_histogram.h"
#include "MR_types.h"
#include "http/Http.h"
#include "http/HttpServerOptions.h"

namespace Server {

struct HttpServerCounters {
    Mirel::ui64_t Connections = 0;  // now, without those on the feed
    Mirel::ui64_t Accepted = 0;
    Mirel::ui64_t Requests = 0;
    Mirel::ui64_t AnsweredByClass[6] = {};
    Mirel::ui64_t RefusedBusy = 0;  // 503: as many requests as may be were waiting for the queue
    Mirel::ui64_t RefusedConnections = 0;
    Mirel::ui64_t RefusedFeedClients = 0;  // 503 on the upgrade
    Mirel::HistogramCounts RequestTimes;   // from a request's last byte to its answer
};

/// HTTP/1.1 (and TLS) server. Checks Host, Origin, token, sizes and times itself, upgrades "/api/v1/feed" to
/// a WebSocket that it hands to the queue, and gives every other request to the handler.
class HttpServer {
  public:
    /// `handler` must outlive the server.
    HttpServer(HttpServerOptions options, HttpHandler& handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Loads the TLS identity and binds. A failure's message is one clear line for the operator.
    Mirel::Result_t Bind();
    /// The bound port, and the URL to reach the server at ("http://127.0.0.1:8080").
    Mirel::ui16_t Port() const;
    std::string Url() const;

    /// Starts the I/O threads and begins to accept.
    Mirel::Result_t Serve();
    /// Takes TLS identity, tokens, names, origins and the access log's switch anew, for what comes from now
    /// on: all of it or, with the reason for the operator, nothing. Clients that are on the feed stay. From
    /// any thread, once bound.
    Mirel::Result_t TakeAnew(const HttpServerOptions& options);
    /// Stops accepting, lets requests that are being answered finish (at most `limit_ms`), closes connections
    /// and joins the threads. WebSocket clients that were handed over stay with the queue.
    void Stop(Mirel::ui32_t limit_ms);

    HttpServerCounters Counters() const;

  private:
    class Impl;
    std::unique_ptr<Impl> m_Impl;
};

}  // namespace Server
