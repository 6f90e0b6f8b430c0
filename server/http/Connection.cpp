// A connection's coroutine, from top to bottom.
#include "http/Connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <utility>

#include "MR_log.h"
#include "http/FeedUpgrade.h"
#include "http/ReplyForm.h"

namespace Server {

namespace asio = boost::asio;
using Velmora::StreamState;

namespace {

constexpr Mirel::i64_t DrainLimit_ms = 2000;  // for the peer to close after the last answer
constexpr std::size_t DrainBytes = 16u << 20;

std::size_t LongestBody(const HttpServerOptions& options) {
    return std::max(options.BodyLimit, options.DocumentLimit);
}

}  // namespace

Connection::Connection(ConnectionShared& shared, Velmora::SocketStream stream)
    : m_Shared(shared),
      m_Stream(std::move(stream)),
      m_Socket(shared.Io, m_Stream.Descriptor()),
      m_Life(m_Stream.Descriptor()),
      m_Input(shared.Options.HeaderLimit, LongestBody(shared.Options), shared.Options.BasePath) {
    if (const auto identity = shared.Identity.Get()) identity->Secure(m_Stream);
}

Connection::~Connection() {
    Deregister();
}

void Connection::Register(std::coroutine_handle<> frame) {
    m_Life.Frame = frame;
    m_Shared.Registry.Add(m_Life);
    m_Registered = true;
}

Coroutine Connection::Serve(std::unique_ptr<Connection> /*self*/) {
    m_Life.Enter(Phase::Handshake, m_Shared.Options.RequestTimeout_ms);
    for (StreamState state = m_Stream.Handshake(); state != StreamState::Moved;
         state = m_Stream.Handshake()) {
        if (state != StreamState::Blocked) co_return;
        co_await Ready(false);
    }
    Idle();
    for (;;) {
        try {
            // The requests that are there are answered.
            Step step = Step::Again;
            while (step == Step::Again && !m_Output.Full() && !Leaving()) {
                step = NextStep();
                if (step != Step::Admission) continue;
                const bool admitted = co_await AdmissionWait(m_Shared.Pool, m_Shared.Io);
                step = admitted ? AnswerAdmitted() : AnswerBusy();
            }
            // The answers go out before anything else is waited for.
            for (StreamState state = Flush(); state != StreamState::Moved; state = Flush()) {
                if (state != StreamState::Blocked) co_return;
                co_await Ready(true);
            }
            if (Leaving()) break;
            if (step == Step::Later) {
                m_Life.Enter(Phase::Handling, 0);
                co_await LaterWait(*m_Later, m_Shared.Io);
                Respond(m_Later->Take());
                m_Later = nullptr;
                continue;
            }
            if (step == Step::Again) continue;
            // The others have their turn. By then the next bytes are there mostly: who reads at once makes a
            // system call for nothing.
            co_await TurnWait(m_Shared.Io);
            m_Answered = 0;
            if (step == Step::Turn) continue;
            m_Input.MakeRoom();
            std::size_t bytes = 0;
            if (m_Stream.IsSecure()) {
                while (!Expired() && Read(bytes) == StreamState::Blocked) co_await Ready(false);
            } else if (!Expired()) {
                bytes = co_await BytesWait(m_Socket, m_Input.Free(), m_Input.Room());
            }
            if (!Take(bytes)) co_return;
        } catch (const std::exception& failure) {
            if (!GiveUp(failure)) co_return;
        }
    }
    if (m_UpgradeAfter) co_return HandOver();
    // Waits for the peer to close, so that it is not told of a reset before it has read the answer.
    m_Stream.EndWriting();
    m_Life.Enter(Phase::Draining, DrainLimit_ms);
    for (std::size_t drained = 0; drained <= DrainBytes;) {
        std::size_t bytes = 0;
        const StreamState state = m_Stream.Discard(bytes);
        drained += bytes;
        if (state == StreamState::Blocked)
            co_await Ready(false);
        else if (state != StreamState::Moved)
            co_return;
    }
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

// Writes what is to go out, as far as the peer takes it.
StreamState Connection::Flush() {
    if (!m_Output.Pending()) return StreamState::Moved;
    const StreamState state = m_Output.Write(m_Stream);
    if (state == StreamState::Moved) {
        AllWritten();
    } else if (m_Output.Progressed() || m_Life.Now.load(std::memory_order_relaxed) != Phase::Writing) {
        // The peer has to go on taking it.
        m_Life.Enter(Phase::Writing, m_Shared.Options.RequestTimeout_ms);
    }
    return state;
}

void Connection::AllWritten() {
    if (Leaving()) return;
    // In the middle of a request this was "100 Continue", and its time goes on.
    if (!m_Input.Empty()) return Begin();
    m_Input.Shrink();
    Idle();
}

StreamState Connection::Read(std::size_t& bytes) {
    return m_Stream.Read(m_Input.Free(), m_Input.Room(), bytes);
}

// False where the connection is over.
bool Connection::Take(std::size_t bytes) {
    m_Input.Commit(bytes);
    return (bytes > 0 && !Expired()) || EndOfInput();
}

// The peer has closed, or its time is over. False where that ends the connection, true where there is an
// answer.
bool Connection::EndOfInput() {
    if (m_Life.Now.load(std::memory_order_relaxed) == Phase::Idle || m_Input.Empty()) return false;
    RefuseAndClose(Expired()
                       ? Problem(Velmora::STATUS_408_TIMEOUT, "The request did not arrive in time.")
                       : Problem(Velmora::STATUS_400_BAD_REQ, "The request ended before it was complete."));
    return true;
}

// There is no memory for what comes in, or for the answer: the peer is told where nothing of one has gone
// out. False where it cannot be.
bool Connection::GiveUp(const std::exception& failure) {
    Mirel::DefaultLogSink().Error("A connection is closed: %s\n", failure.what());
    if (m_Life.Now.load(std::memory_order_relaxed) != Phase::Reading) return false;
    try {
        m_Input.Discard();
        RefuseAndClose(NoMemory());
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

void Connection::HandOver() {
    const std::string peer = m_Stream.Peer();
    Deregister();
    HandOverToFeed(std::move(m_Stream), peer, m_Input.Unread(), std::move(m_FeedWish), m_FeedCaller);
}

void Connection::Deregister() {
    if (std::exchange(m_Registered, false)) m_Shared.Registry.Remove(m_Life);
    m_Socket.Release();
}

namespace {

void BeginServing(ConnectionShared& shared, Velmora::SocketStream stream) {
    auto owned = std::make_unique<Connection>(shared, std::move(stream));
    Connection& connection = *owned;
    Coroutine serving = connection.Serve(std::move(owned));
    connection.Register(serving.Frame());
    // Not here and now: a request that blocks would keep the next connections from being accepted.
    asio::post(shared.Io, [frame = serving.Frame()] { frame.resume(); });
    serving.Release();
}

// More connections than may be: said in one write where that can be done, for there is no place to wait.
void RefuseConnection(ConnectionShared& shared, const Velmora::SocketStream& stream) {
    shared.RefusedConnections.fetch_add(1, std::memory_order_relaxed);
    if (!shared.Identity.Get()) {
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
      AccessLog(options.AccessLog),
      Pool(threads, working,
           {[&io] { io.run(); }, [&io](std::function<void()> call) { asio::post(io, std::move(call)); }}),
      OnFeed(options.MaxFeedClients) {}

void ServeConnection(ConnectionShared& shared, Velmora::SocketStream stream) {
    const int on = 1;
    setsockopt(stream.Descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    shared.Accepted.fetch_add(1, std::memory_order_relaxed);
    try {
        if (shared.Registry.Size() < shared.Options.MaxConnections) {
            BeginServing(shared, std::move(stream));
        } else {
            RefuseConnection(shared, stream);
        }
    } catch (const std::exception& failure) {
        Mirel::DefaultLogSink().Error("Cannot serve a connection: %s\n", failure.what());
    }
}

}  // namespace Server
