// Accepts connections, sweeps them, and ends in order.
#include "http/HttpServer.h"

#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cerrno>
#include <cstring>
#include <optional>
#include <thread>
#include <utility>

#include "LocalAccessManager.h"
#include "MR_log.h"
#include "http/Connection.h"
#include "http/HttpServerBind.h"

namespace Server {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

constexpr std::size_t LeastThreads = 4;  // so that three slow requests leave one for everything else
constexpr unsigned AcceptsPerTurn = 64;  // then open connections have their turn
constexpr std::chrono::milliseconds AcceptPause{200};  // after the system refused a descriptor
constexpr Mirel::i64_t RefusalLogInterval_ms = 10000;
constexpr std::chrono::milliseconds StopInterval{100};

unsigned ThreadCount(const HttpServerOptions& options) {
    const std::size_t cores = std::max(1u, std::thread::hardware_concurrency());
    const std::size_t wanted = options.IOThreads > 0 ? options.IOThreads : std::max(LeastThreads, cores);
    return static_cast<unsigned>(std::max<std::size_t>(wanted, 2));
}

// Deadlines are looked at often enough to be kept within a quarter.
std::chrono::milliseconds SweepInterval(const HttpServerOptions& options) {
    const Mirel::ui32_t shortest = std::min(options.IdleTimeout_ms, options.RequestTimeout_ms);
    return std::chrono::milliseconds(std::clamp<Mirel::ui32_t>(shortest / 4, 10, 500));
}

// Null for an empty path.
Mirel::Result_t LoadIdentity(const std::string& path, std::shared_ptr<TlsIdentity>& identity) {
    if (path.empty()) return Mirel::RESULT_OK;
    identity = std::make_shared<TlsIdentity>();
    return identity->Load(path);
}

}  // namespace

class HttpServer::Impl {
  public:
    Impl(HttpServerOptions options, HttpHandler& handler)
        : m_Io(std::make_unique<asio::io_context>()),
          m_Shared(options, handler, *m_Io, ThreadCount(options), WorkingThreads),
          m_SweepInterval(SweepInterval(options)),
          m_Acceptor(std::in_place, *m_Io),
          m_Pause(std::in_place, *m_Io),
          m_Sweep(std::in_place, *m_Io) {}

    ~Impl() {
        if (m_Serving) Stop(0);
        m_Shared.Registry.DestroyAll();  // no operation that is still pending goes on with them
        m_Acceptor.reset();
        m_Pause.reset();
        m_Sweep.reset();
        m_Io.reset();
    }

    Mirel::Result_t Bind();
    Mirel::Result_t Serve();
    Mirel::Result_t TakeAnew(const HttpServerOptions& options);
    void Stop(Mirel::ui32_t limit_ms);
    std::string Url() const;
    Mirel::ui16_t Port() const { return m_Port; }
    HttpServerCounters Counters() const;

  private:
    // One thread at a time serves connections as long as requests do not block: the posting behind most of
    // them runs under one lock anyway, and a thread that is left alone wakes no other with every request.
    static constexpr unsigned WorkingThreads = 1;

    void AwaitConnections();
    void AcceptConnections();
    void PauseAccepting(int reason);
    void AwaitSweep();

    std::unique_ptr<asio::io_context> m_Io;
    ConnectionShared m_Shared;
    const std::chrono::milliseconds m_SweepInterval;

    // Set by Bind() and Serve().
    Mirel::ui16_t m_Port = 0;
    int m_Listener = -1;  // the acceptor's descriptor, to be shut down from another thread
    bool m_Serving = false;

    // Each with at most one operation under way, and used by its handler only.
    std::optional<asio::posix::stream_descriptor> m_Acceptor;
    std::optional<asio::steady_timer> m_Pause;
    std::optional<asio::steady_timer> m_Sweep;
    Mirel::i64_t m_RefusalLogged_ms = 0;
};

Mirel::Result_t HttpServer::Impl::Bind() {
    const HttpServerOptions& options = m_Shared.Options;
    std::shared_ptr<TlsIdentity> identity;
    const Mirel::Result_t loaded = LoadIdentity(options.TLSIdentity, identity);
    if (loaded.Failure()) return loaded;
    m_Shared.Identity.Set(std::move(identity));
    int descriptor = -1;
    const Mirel::Result_t bound =
        BindListener(options.Host, options.Port, options.Guarded(), descriptor, m_Port);
    if (bound.Failure()) return bound;
    m_Listener = descriptor;
    m_Acceptor->assign(descriptor);
    m_Shared.Policy.Set(std::make_shared<const AccessPolicy>(options));
    return LocalAccessManager::ServerListens(descriptor);
}

Mirel::Result_t HttpServer::Impl::TakeAnew(const HttpServerOptions& options) {
    if (!options.Guarded() && !ListensOnLoopback(m_Listener))
        return Mirel::RESULT_PARAM.WithMessage(
            "Without an access token only loopback addresses are served, and this server listens to others.");
    HttpServerOptions taken = m_Shared.Options;
    taken.AccessToken = options.AccessToken;
    taken.AccessTokens = options.AccessTokens;
    taken.AllowedHosts = options.AllowedHosts;
    taken.AllowedOrigins = options.AllowedOrigins;
    if (!taken.TLSIdentity.empty() && !options.TLSIdentity.empty()) {
        std::shared_ptr<TlsIdentity> identity;
        const Mirel::Result_t loaded = LoadIdentity(options.TLSIdentity, identity);
        if (loaded.Failure()) return loaded;
        m_Shared.Identity.Set(std::move(identity));
    }
    const std::shared_ptr<const AccessPolicy> before = m_Shared.Policy.Get();
    const auto policy = std::make_shared<const AccessPolicy>(taken, before.get());
    m_Shared.Policy.Set(policy);
    policy->DismissFormer(*before);
    m_Shared.AccessLog = options.AccessLog;
    return Mirel::RESULT_OK;
}

std::string HttpServer::Impl::Url() const {
    return (m_Shared.Identity.Get() ? "https://" : "http://") + HostAndPort(m_Shared.Options.Host, m_Port);
}

Mirel::Result_t HttpServer::Impl::Serve() {
    if (m_Serving || !m_Acceptor->is_open()) return Mirel::RESULT_STATE;
    AwaitConnections();
    AwaitSweep();
    const Mirel::Result_t started = m_Shared.Pool.Start([this] { m_Io->stop(); });
    m_Serving = started.Success();
    return started;
}

void HttpServer::Impl::AwaitConnections() {
    m_Acceptor->async_wait(asio::posix::stream_descriptor::wait_read, [this](error_code error) {
        if (!error) AcceptConnections();
    });
}

void HttpServer::Impl::AcceptConnections() {
    for (unsigned i = 0; i < AcceptsPerTurn; ++i) {
        const int descriptor =
            accept4(m_Acceptor->native_handle(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (descriptor >= 0) {
            ServeConnection(m_Shared, Velmora::SocketStream(descriptor));
            continue;
        }
        // A client that has gone again while it waited is no reason to stop.
        if (errno == ECONNABORTED || errno == EINTR || errno == EPROTO) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) break;
        if (m_Shared.Stopping.load()) return;  // the socket was shut down
        return PauseAccepting(errno);
    }
    AwaitConnections();
}

// No descriptors or no memory: the clients wait in the kernel's queue until something is free again.
void HttpServer::Impl::PauseAccepting(int reason) {
    const Mirel::i64_t now = CoarseNow_ms();
    if (m_RefusalLogged_ms == 0 || now - m_RefusalLogged_ms > RefusalLogInterval_ms) {
        Mirel::DefaultLogSink().Error("Cannot accept connections at the moment: %s\n", std::strerror(reason));
        m_RefusalLogged_ms = now;
    }
    m_Pause->expires_after(AcceptPause);
    m_Pause->async_wait([this](error_code error) {
        if (!error) AcceptConnections();
    });
}

void HttpServer::Impl::AwaitSweep() {
    m_Sweep->expires_after(m_SweepInterval);
    m_Sweep->async_wait([this](error_code error) {
        if (error) return;
        m_Shared.Registry.EndExpired();
        AwaitSweep();
    });
}

void HttpServer::Impl::Stop(Mirel::ui32_t limit_ms) {
    if (!m_Serving) return;
    m_Serving = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
    m_Shared.Stopping.store(true);
    LocalAccessManager::ServerEnded();  // before anybody else can take the port
    shutdown(m_Listener, SHUT_RDWR);
    // Again and again: requests end, and what they leave is idle.
    std::chrono::steady_clock::time_point until;
    do {
        m_Shared.Registry.EndIdle(false);
        until = std::min(deadline, std::chrono::steady_clock::now() + StopInterval);
    } while (!m_Shared.Registry.WaitUntilEmpty(until) && until < deadline);
    if (m_Shared.Registry.Size() > 0) {
        Mirel::DefaultLogSink().Notice("Closing %zu connections that are still in use\n",
                                       m_Shared.Registry.Size());
        m_Shared.Registry.EndIdle(true);
    }
    m_Io->stop();
    m_Shared.Pool.Join();
    m_Shared.Pool.RefuseWaiters();
    m_Acceptor->close();
}

HttpServerCounters HttpServer::Impl::Counters() const {
    HttpServerCounters counters;
    counters.Connections = m_Shared.Registry.Size();
    counters.Accepted = m_Shared.Accepted.load();
    counters.Requests = m_Shared.Requests.load();
    for (std::size_t i = 0; i < 6; ++i) counters.AnsweredByClass[i] = m_Shared.AnsweredByClass[i].load();
    counters.RefusedBusy = m_Shared.RefusedBusy.load();
    counters.RefusedConnections = m_Shared.RefusedConnections.load();
    counters.RefusedFeedClients = m_Shared.RefusedFeedClients.load();
    counters.RequestTimes = m_Shared.RequestTimes.Read();
    return counters;
}

HttpServer::HttpServer(HttpServerOptions options, HttpHandler& handler)
    : m_Impl(std::make_unique<Impl>(std::move(options), handler)) {}
HttpServer::~HttpServer() = default;
Mirel::Result_t HttpServer::Bind() {
    return m_Impl->Bind();
}
Mirel::ui16_t HttpServer::Port() const {
    return m_Impl->Port();
}
std::string HttpServer::Url() const {
    return m_Impl->Url();
}
Mirel::Result_t HttpServer::Serve() {
    return m_Impl->Serve();
}
Mirel::Result_t HttpServer::TakeAnew(const HttpServerOptions& options) {
    return m_Impl->TakeAnew(options);
}
void HttpServer::Stop(Mirel::ui32_t limit_ms) {
    m_Impl->Stop(limit_ms);
}
HttpServerCounters HttpServer::Counters() const {
    return m_Impl->Counters();
}

}  // namespace Server
