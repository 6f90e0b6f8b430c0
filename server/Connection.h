// One client's connection, from its first byte to its last.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "Access.h"
#include "AdmissionCrew.h"
#include "ConnectionRegistry.h"
#include "Http.h"
#include "HttpServer.h"
#include "SocketPoll.h"
#include "TlsIdentity.h"

namespace boost::asio {
class io_context;
}

namespace Server {

/// What all connections of a server share.
struct ConnectionShared {
    ConnectionShared(const HttpServerOptions& options, HttpHandler& handler, boost::asio::io_context& io,
                     unsigned threads, unsigned working);

    // Immutable once the server is bound.
    const HttpServerOptions Options;
    HttpHandler& Handler;
    boost::asio::io_context& Io;
    std::unique_ptr<TlsIdentity> Identity;  // null: plain
    std::unique_ptr<AccessPolicy> Policy;

    // Self-synchronised.
    AdmissionCrew Crew;
    ConnectionRegistry Registry;
    SocketPoll Poll;
    std::atomic<bool> Stopping{false};
    std::atomic<Mirel::ui64_t> Accepted{0};
    std::atomic<Mirel::ui64_t> Requests{0};
    std::atomic<Mirel::ui64_t> AnsweredByClass[6] = {};
    std::atomic<Mirel::ui64_t> RefusedBusy{0};
    std::atomic<Mirel::ui64_t> RefusedConnections{0};
};

/// Serves the connected, non-blocking socket until its end. On a thread of the crew.
void ServeConnection(ConnectionShared& shared, Velmora::SocketStream stream);

}  // namespace Server
