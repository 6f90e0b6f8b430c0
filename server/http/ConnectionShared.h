// What all connections of a server share.
#pragma once

#include <atomic>
#include <memory>

#include "MR_histogram.h"
#include "http/AccessPolicy.h"
#include "http/ConnectionRegistry.h"
#include "http/FeedUpgrade.h"
#include "http/Http.h"
#include "http/HttpServerOptions.h"
#include "http/Replaceable.h"
#include "http/ThreadPool.h"
#include "http/TlsIdentity.h"

namespace boost::asio {
class io_context;
}

namespace Server {

struct ConnectionShared {
    /// A pool of `threads`, `working` of them at a time, that serve on `io`.
    ConnectionShared(const HttpServerOptions& options, HttpHandler& handler, boost::asio::io_context& io,
                     unsigned threads, unsigned working);

    // Immutable once the server is bound.
    const HttpServerOptions Options;
    HttpHandler& Handler;
    boost::asio::io_context& Io;

    // Self-synchronised.
    Replaceable<const TlsIdentity> Identity;  // null: plain, and stays so
    Replaceable<const AccessPolicy> Policy;
    std::atomic<bool> AccessLog;
    ThreadPool Pool;
    ConnectionRegistry Registry;
    FeedPlaces OnFeed;
    std::atomic<bool> Stopping{false};
    std::atomic<Mirel::ui64_t> Accepted{0};
    std::atomic<Mirel::ui64_t> Requests{0};
    std::atomic<Mirel::ui64_t> AnsweredByClass[6] = {};
    std::atomic<Mirel::ui64_t> RefusedBusy{0};
    std::atomic<Mirel::ui64_t> RefusedConnections{0};
    std::atomic<Mirel::ui64_t> RefusedFeedClients{0};
    Mirel::Histogram RequestTimes;
};

}  // namespace Server
