#include "Connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "ConnectionReply.h"
#include "ConnectionState.h"
#include "Feed.h"
#include "MR_log.h"

namespace Server {

namespace asio = boost::asio;
using Velmora::StreamState;

namespace {

constexpr unsigned RequestsPerTurn = 64;      // then other connections have their turn
constexpr Mirel::i64_t DrainLimit_ms = 2000;  // for the peer to close after the last answer
constexpr std::size_t DrainBytes = 16u << 20;

}  // namespace

Connection::Connection(ConnectionShared& shared, Velmora::SocketStream stream)
    : m_Shared(shared),
      m_Life(stream.Descriptor()),
      m_Stream(std::move(stream)),
      m_Input(shared.Options.HeaderLimit, shared.Options.BodyLimit) {
    if (shared.Identity) shared.Identity->Secure(m_Stream);
}

Connection::~Connection() {
    Deregister();
}

void Connection::Open() {
    m_Life.Enter(Phase::Handshake, m_Shared.Options.RequestTimeout_ms);
    m_Shared.Registry.Add(m_Life);
    m_Registered = true;
    m_Polled = m_Shared.Poll.Add(m_Life.Descriptor, m_PollPlace);
    if (!m_Polled) throw std::system_error(errno, std::generic_category());
}

void Connection::Run(Owner self) {
    while (self) {
        Connection& connection = *self;
        switch (connection.Advance()) {
            case Next::Read:
                self = WaitFor(std::move(self), SocketPoll::For::Read);
                break;
            case Next::Write:
                self = WaitFor(std::move(self), SocketPoll::For::Write);
                break;
            case Next::Turn:
                connection.m_Answered = 0;
                asio::post(connection.m_Shared.Io,
                           [self = std::move(self)]() mutable { Run(std::move(self)); });
                return;
            case Next::Admission: {
                std::unique_ptr<AdmissionWaiter> waiter = std::move(self);
                if (!connection.m_Shared.Crew.Wait(waiter)) connection.Resume(std::move(waiter), false);
                return;
            }
            case Next::Again:
            case Next::Gone:
                return;
        }
    }
}

// Answers `self` where there is nothing to wait for, since the socket has become ready in the meantime.
Connection::Owner Connection::WaitFor(Owner self, SocketPoll::For what) {
    Connection& connection = *self;
    std::unique_ptr<SocketWaiter> waiter = std::move(self);
    if (connection.m_Shared.Poll.Wait(connection.m_PollPlace, what, waiter)) return nullptr;
    connection.m_Readable = true;
    return Owner(static_cast<Connection*>(waiter.release()));
}

void Connection::Ready(std::unique_ptr<SocketWaiter> self) {
    m_Readable = true;
    m_Answered = 0;
    Run(Owner(static_cast<Connection*>(self.release())));
}

Connection::Next Connection::Advance() {
    try {
        return Proceed();
    } catch (const std::exception& failure) {
        return GiveUp(failure);
    }
}

// There is no memory for what comes in, or for the answer: the peer is told where nothing of one has gone
// out.
Connection::Next Connection::GiveUp(const std::exception& failure) {
    Mirel::DefaultLogSink().Error("A connection is closed: %s\n", failure.what());
    if (m_Life.Now.load(std::memory_order_relaxed) != Phase::Reading) return Next::Gone;
    try {
        m_Input.Discard();
        RefuseAndClose(NoMemory());
        return Proceed();
    } catch (const std::exception&) {
        return Next::Gone;
    }
}

Connection::Next Connection::Proceed() {
    for (;;) {
        Next next = Next::Gone;
        switch (m_Life.Now.load(std::memory_order_relaxed)) {
            case Phase::Handshake:
                next = Handshake();
                break;
            case Phase::Idle:
            case Phase::Reading:
                next = ReadRequests();
                break;
            case Phase::Handling:
            case Phase::Writing:
                next = Flush();
                break;
            case Phase::Draining:
                next = Drain();
                break;
        }
        if (next != Next::Again) return next;
    }
}

Connection::Next Connection::Handshake() {
    const StreamState state = m_Stream.Handshake();
    if (state == StreamState::Blocked) return Blocked(false);
    if (state != StreamState::Moved) return Next::Gone;
    Idle();
    return Next::Again;
}

void Connection::Idle() {
    m_Life.Enter(Phase::Idle, m_Shared.Options.IdleTimeout_ms);
    // The server's end may have come while the last answer was made.
    if (m_Shared.Stopping.load()) m_Life.Expired.store(true);
}

// The first bytes of a request are there.
void Connection::Begin() {
    if (m_Life.Now.load(std::memory_order_relaxed) != Phase::Reading) {
        m_Life.Enter(Phase::Reading, m_Shared.Options.RequestTimeout_ms);
    }
}

// Uses what is there and reads on. Answers go out before anything is waited for.
Connection::Next Connection::ReadRequests() {
    while (m_Input.HasUnparsed()) {
        if (m_Answered >= RequestsPerTurn) return m_Output.Pending() ? Flush() : Next::Turn;
        const Next next = UseInput();
        if (next == Next::Read) break;
        if (next != Next::Again) return next;
        if (m_Output.Full() || m_CloseAfter || m_UpgradeAfter) return Flush();
    }
    return m_Output.Pending() ? Flush() : Receive();
}

Connection::Next Connection::Receive() {
    if (m_Life.Expired.load(std::memory_order_relaxed)) return EndOfInput();
    if (!m_Readable) return Next::Read;
    m_Input.MakeRoom();
    const std::size_t room = m_Input.Room();
    std::size_t bytes = 0;
    switch (m_Stream.Read(m_Input.Free(), room, bytes)) {
        case StreamState::Moved:
            m_Input.Commit(bytes);
            // A socket that gave less than was asked for is empty; what TLS still holds is not told.
            m_Readable = bytes == room || m_Stream.IsSecure();
            return Next::Again;
        case StreamState::Blocked:
            m_Readable = false;
            return Blocked(false);
        default:
            return EndOfInput();
    }
}

// The peer has closed, or its time is over.
Connection::Next Connection::EndOfInput() {
    if (m_Life.Now.load(std::memory_order_relaxed) == Phase::Idle || m_Input.Empty()) return Next::Gone;
    return RefuseAndClose(
        m_Life.Expired.load()
            ? Problem(Velmora::STATUS_408_TIMEOUT, "The request did not arrive in time.")
            : Problem(Velmora::STATUS_400_BAD_REQ, "The request ended before it was complete."));
}

// Writes what is to go out.
Connection::Next Connection::Flush() {
    const StreamState state = m_Output.Write(m_Stream);
    if (state == StreamState::Moved) return AllWritten();
    if (state != StreamState::Blocked) return Next::Gone;
    // The peer has to go on taking it.
    if (m_Output.Progressed() || m_Life.Now.load(std::memory_order_relaxed) != Phase::Writing) {
        m_Life.Enter(Phase::Writing, m_Shared.Options.RequestTimeout_ms);
    }
    return Blocked(true);
}

Connection::Next Connection::Blocked(bool writing) const {
    return m_Stream.WaitsForRoom(writing) ? Next::Write : Next::Read;
}

Connection::Next Connection::AllWritten() {
    if (m_UpgradeAfter) {
        HandOver();
        return Next::Gone;
    }
    if (m_CloseAfter) {
        m_Stream.EndWriting();
        m_Life.Enter(Phase::Draining, DrainLimit_ms);
        return Next::Again;
    }
    // In the middle of a request this was "100 Continue", and its time goes on.
    if (m_Input.Empty()) {
        m_Input.Shrink();
        Idle();
    } else {
        Begin();
    }
    return Next::Again;
}

void Connection::HandOver() {
    const std::string peer = m_Stream.Peer();
    Deregister();
    HandOverToFeed(std::move(m_Stream), peer, m_Input.Rest());
}

// Waits for the peer to close, so that it is not told of a reset before it has read the answer.
Connection::Next Connection::Drain() {
    for (;;) {
        std::size_t bytes = 0;
        const StreamState state = m_Stream.Discard(bytes);
        if (state == StreamState::Blocked) return Next::Read;
        if (state != StreamState::Moved) return Next::Gone;
        m_Drained += bytes;
        if (m_Drained > DrainBytes) return Next::Gone;
    }
}

void Connection::Deregister() {
    if (std::exchange(m_Registered, false)) m_Shared.Registry.Remove(m_Life);
    if (std::exchange(m_Polled, false)) m_Shared.Poll.Remove(m_Life.Descriptor, m_PollPlace);
}

namespace {

void serve_connection(ConnectionShared& shared, Velmora::SocketStream stream) {
    auto connection = std::make_unique<Connection>(shared, std::move(stream));
    connection->Open();
    // Not here and now: a request that blocks would keep the next connections from being accepted.
    asio::post(shared.Io,
               [connection = std::move(connection)]() mutable { Connection::Run(std::move(connection)); });
}

// More connections than may be: said in one write where that can be done, for there is no place to wait.
void refuse_connection(ConnectionShared& shared, const Velmora::SocketStream& stream) {
    shared.RefusedConnections.fetch_add(1, std::memory_order_relaxed);
    if (!shared.Identity) {
        HttpResponse response = Problem(Velmora::STATUS_503_NO_SERVICE, "Too many connections; try again.");
        response.Headers.emplace_back("Retry-After", "1");
        std::string text;
        AppendReplyHead(text, response, {.KeepAlive = false});
        text.append(response.Body);
        if (send(stream.Descriptor(), text.data(), text.size(), MSG_NOSIGNAL) > 0)
            shutdown(stream.Descriptor(), SHUT_WR);
    }
}

}  // namespace

ConnectionShared::ConnectionShared(const HttpServerOptions& options, HttpHandler& handler,
                                   asio::io_context& io, unsigned threads, unsigned working)
    : Options(options),
      Handler(handler),
      Io(io),
      Crew(threads, working,
           {[&io] { io.run(); }, [&io](std::function<void()> call) { asio::post(io, std::move(call)); }}),
      Poll(io) {}

void ServeConnection(ConnectionShared& shared, Velmora::SocketStream stream) {
    const int on = 1;
    setsockopt(stream.Descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    shared.Accepted.fetch_add(1, std::memory_order_relaxed);
    try {
        if (shared.Registry.Size() < shared.Options.MaxConnections) {
            serve_connection(shared, std::move(stream));
        } else {
            refuse_connection(shared, stream);
        }
    } catch (const std::exception& failure) {
        Mirel::DefaultLogSink().Error("Cannot serve a connection: %s\n", failure.what());
    }
}

}  // namespace Server
