#include "Connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "ConnectionBuffer.h"
#include "ConnectionOutput.h"
#include "ConnectionParser.h"
#include "ConnectionReply.h"
#include "ConnectionTarget.h"
#include "Feed.h"
#include "MR_log.h"

namespace Server {

namespace asio = boost::asio;
using Phase = ConnectionLife::Phase;
using Progress = RequestParser::Progress;

namespace {

constexpr std::size_t FirstRoom = 8u << 10;   // a connection's buffer at first; nearly every request fits
constexpr std::size_t BodyRoom = 32u << 10;   // while a long body comes in
constexpr unsigned RequestsPerTurn = 64;      // then other connections have their turn
constexpr Mirel::i64_t DrainLimit_ms = 2000;  // for the peer to close after the last answer
constexpr std::size_t DrainBytes = 16u << 20;

HttpResponse busy() {
    HttpResponse response = Problem(Velmora::STATUS_503_NO_SERVICE,
                                    "As many requests as may be are waiting for the event queue; try again.");
    response.Headers.emplace_back("Retry-After", "1");
    return response;
}

// Serves one connection. It has at most one operation under way at any time, and that operation owns it; so
// only one thread at a time is here, and no lock is needed.
class Connection : public AdmissionWaiter, public SocketWaiter {
  public:
    using Owner = std::unique_ptr<Connection>;

    Connection(ConnectionShared& shared, int descriptor)
        : m_Shared(shared),
          m_Life(descriptor),
          m_Stream(descriptor, shared.Identity.get()),
          m_Parser(shared.Options.HeaderLimit, shared.Options.BodyLimit) {}

    ~Connection() override {
        Deregister();
        if (m_Owning) close(m_Life.Descriptor);
    }

    // To be called once, before Run(). Throws where the system refuses.
    void Open() {
        m_Life.Enter(Phase::Handshake, m_Shared.Options.RequestTimeout_ms);
        m_Shared.Registry.Add(m_Life);
        m_Registered = true;
        m_Polled = m_Shared.Poll.Add(m_Life.Descriptor, m_PollPlace);
        if (!m_Polled) throw std::system_error(errno, std::generic_category());
    }

    // Does what can be done without waiting, then waits for one thing, or ends with `self`.
    static void Run(Owner self);

  private:
    // What the connection waits for.
    enum class Next { Again, Read, Write, Admission, Turn, Gone };

    Next Advance();
    Next Proceed();
    Next GiveUp(const std::exception& failure);
    Next Handshake();
    Next ReadRequests();
    Next Receive();
    Next EndOfInput();
    Next UseBuffer();
    void MakeRoom();
    void Idle();
    void Begin();

    Next HeadComplete();
    Next RequestComplete();
    Next Answer();
    HttpResponse CallHandler();
    HttpResponse CallHandlerAndLeave();
    Next Respond(HttpResponse response);
    Next RefuseAndClose(HttpResponse response);
    Next FinishRequest();

    Next Upgrade();
    void HandOver();
    Next Flush();
    Next AllWritten();
    Next Drain();

    static Owner WaitFor(Owner self, SocketPoll::For what);
    void Ready(std::unique_ptr<SocketWaiter> self) override;
    void Resume(std::unique_ptr<AdmissionWaiter> self, bool admitted) override;
    static void Continue(Owner self, bool admitted);
    void Deregister();

    ConnectionShared& m_Shared;
    ConnectionLife m_Life;
    ConnectionStream m_Stream;
    RequestParser m_Parser;
    bool m_Owning = true;  // the descriptor
    bool m_Registered = false;
    bool m_Polled = false;
    std::size_t m_PollPlace = 0;  // while it is

    // The request that is coming in.
    ConnectionBuffer m_Buffer;
    bool m_Readable = true;      // there may be more to read without waiting
    std::size_t m_Parsed = 0;    // bytes at the buffer's front that the parser is done with
    std::size_t m_HeadSize = 0;  // of those, the head's; 0 while it is incomplete
    HttpRequest m_Request;
    unsigned m_Answered = 0;  // in this turn

    // The answers that are going out.
    ConnectionOutput m_Output;
    bool m_CloseAfter = false;
    bool m_UpgradeAfter = false;
    std::size_t m_Drained = 0;
};

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
        m_Buffer.Release();
        m_Parsed = m_HeadSize = 0;
        m_Parser.Reset();
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
    switch (m_Stream.Handshake().Status) {
        case IoStatus::Done:
            Idle();
            return Next::Again;
        case IoStatus::WantRead:
            return Next::Read;
        case IoStatus::WantWrite:
            return Next::Write;
        default:
            return Next::Gone;
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

// Uses what is there and reads on. Answers go out before anything is waited for.
Connection::Next Connection::ReadRequests() {
    while (m_Buffer.View().size() > m_Parsed) {
        if (m_Answered >= RequestsPerTurn) return m_Output.Pending() ? Flush() : Next::Turn;
        const Next next = UseBuffer();
        if (next == Next::Read) break;
        if (next != Next::Again) return next;
        if (m_Output.Full() || m_CloseAfter || m_UpgradeAfter) return Flush();
    }
    return m_Output.Pending() ? Flush() : Receive();
}

Connection::Next Connection::Receive() {
    if (m_Life.Expired.load(std::memory_order_relaxed)) return EndOfInput();
    if (!m_Readable) return Next::Read;
    MakeRoom();
    const std::size_t room = m_Buffer.Room();
    const IoResult result = m_Stream.Read(m_Buffer.Free(), room);
    switch (result.Status) {
        case IoStatus::Done:
            m_Buffer.Commit(result.Bytes);
            // A socket that gave less than was asked for is empty; what TLS still holds is not told.
            m_Readable = result.Bytes == room || m_Stream.Secure();
            return Next::Again;
        case IoStatus::WantRead:
            m_Readable = false;
            return Next::Read;
        case IoStatus::WantWrite:
            return Next::Write;
        default:
            return EndOfInput();
    }
}

void Connection::MakeRoom() {
    const char* const before = m_Buffer.View().data();
    if (m_HeadSize == 0) {
        if (m_Buffer.Room() == 0) m_Buffer.MakeRoom(FirstRoom);
    } else if (m_Buffer.Room() < ChunkLineLimit) {
        m_Buffer.MakeRoom(BodyRoom);
        m_Parser.Head().Rebase(before, m_Buffer.View().data());
    }
}

// The peer has closed, or its time is over.
Connection::Next Connection::EndOfInput() {
    if (m_Life.Now.load(std::memory_order_relaxed) == Phase::Idle || m_Buffer.Empty()) return Next::Gone;
    return RefuseAndClose(
        m_Life.Expired.load()
            ? Problem(Velmora::STATUS_408_TIMEOUT, "The request did not arrive in time.")
            : Problem(Velmora::STATUS_400_BAD_REQ, "The request ended before it was complete."));
}

// Parses on; Read where more is needed.
Connection::Next Connection::UseBuffer() {
    if (m_HeadSize == 0) {
        // Empty lines in front of a request are passed over (RFC 9112, 2.2).
        while (m_Buffer.View().substr(0, 2) == "\r\n") m_Buffer.Consume(2);
        if (m_Buffer.Empty() || m_Buffer.View() == "\r") return Next::Read;
        Begin();
    }
    std::size_t consumed = 0;
    const Progress progress = m_Parser.Parse(m_Buffer.View().substr(m_Parsed), consumed);
    m_Parsed += consumed;
    switch (progress) {
        case Progress::HeadComplete:
            return HeadComplete();
        case Progress::Complete:
            return RequestComplete();
        case Progress::Failed:
            return RefuseAndClose(m_Parser.Error());
        case Progress::NeedMore:
            break;
    }
    if (m_HeadSize > 0 && m_Parsed > m_HeadSize) {
        // What came of the body is the parser's now; its place is used again.
        m_Buffer.Cut(m_HeadSize, m_Parsed - m_HeadSize);
        m_Parsed = m_HeadSize;
    }
    return Next::Read;
}

Connection::Next Connection::HeadComplete() {
    m_HeadSize = m_Parsed;
    if (auto refusal = RefuseHead(m_Parser.Head(), *m_Shared.Policy))
        return RefuseAndClose(std::move(*refusal));
    const RequestHead& head = m_Parser.Head();
    if (head.Has(Field::Expect) && !head.Http10 && m_Buffer.View().size() == m_Parsed) {
        m_Output.Append("HTTP/1.1 100 Continue\r\n\r\n");
    }
    return Next::Again;
}

Connection::Next Connection::RequestComplete() {
    const bool checked = m_HeadSize > 0;
    if (!checked) {
        m_HeadSize = m_Parsed;
        if (auto refusal = RefuseHead(m_Parser.Head(), *m_Shared.Policy)) return Respond(std::move(*refusal));
    }
    const RequestHead& head = m_Parser.Head();
    const RequestTarget target = *SplitTarget(head.Target);
    m_Request.Method = *head.Method;
    m_Request.Path = target.Path;
    m_Request.Query = target.Query;
    m_Request.ContentType = head[Field::ContentType];
    m_Request.IfNoneMatch = head[Field::IfNoneMatch];
    m_Request.Body = m_Parser.Body();
    m_Request.HasBody = head.HasBody;
    if (m_Request.Method == Velmora::METH_GET && m_Request.Path == FeedPath) return Upgrade();
    return Answer();
}

Connection::Next Connection::Answer() {
    if (!m_Shared.Handler.MayBlock(m_Request)) return Respond(CallHandler());
    m_Life.Enter(Phase::Handling, 0);
    if (!m_Shared.Crew.Enter()) return Next::Admission;
    return Respond(CallHandlerAndLeave());
}

// For a request that is inside the crew.
HttpResponse Connection::CallHandlerAndLeave() {
    const std::unique_ptr<AdmissionCrew, void (*)(AdmissionCrew*)> inside(
        &m_Shared.Crew, [](AdmissionCrew* crew) { crew->Leave(); });
    return CallHandler();
}

HttpResponse Connection::CallHandler() {
    try {
        return m_Shared.Handler.Handle(m_Request);
    } catch (const std::exception& error) {
        Mirel::DefaultLogSink().Error("Answering %s \"%s\" failed: %s\n",
                                      Velmora::MethodToString(m_Request.Method),
                                      Mirel::EscapeForLog(m_Request.Path).c_str(), error.what());
        return Problem(Velmora::STATUS_500_SERVER_ERROR, "The server could not answer this request.");
    }
}

// The turn of a request that waited has come, or its time is over.
void Connection::Resume(std::unique_ptr<AdmissionWaiter> self, bool admitted) {
    Owner owner(static_cast<Connection*>(self.release()));
    ConnectionShared& shared = m_Shared;
    try {
        asio::post(shared.Io,
                   [owner = std::move(owner), admitted]() mutable { Continue(std::move(owner), admitted); });
    } catch (const std::bad_alloc&) {
        Mirel::DefaultLogSink().Error("A waiting request is dropped: out of memory\n");
        if (!admitted) return;
        shared.Crew.Resumed();
        shared.Crew.Leave();
    }
}

void Connection::Continue(Owner self, bool admitted) {
    Connection& connection = *self;
    if (admitted) {
        connection.m_Shared.Crew.Resumed();
        connection.Respond(connection.CallHandlerAndLeave());
    } else {
        connection.m_Shared.RefusedBusy.fetch_add(1, std::memory_order_relaxed);
        connection.Respond(busy());
    }
    Run(std::move(self));
}

Connection::Next Connection::Respond(HttpResponse response) {
    const RequestHead& head = m_Parser.Head();
    ReplyForm form;
    form.HeadOnly = head.Method == Velmora::METH_HEAD;
    form.Http10 = head.Http10;
    form.KeepAlive =
        !m_CloseAfter && m_Parser.KeepAlive() && !m_Shared.Stopping.load(std::memory_order_relaxed);
    m_CloseAfter = !form.KeepAlive;

    ++m_Answered;
    m_Shared.Requests.fetch_add(1, std::memory_order_relaxed);
    const int status_class = response.Status / 100;
    m_Shared.AnsweredByClass[status_class < 6 ? status_class : 0].fetch_add(1, std::memory_order_relaxed);
    if (Mirel::DefaultLogSink().Logs(Mirel::LOG_DEBUG)) {
        Mirel::DefaultLogSink().Debug("%s: \"%s\" answered with %d\n", m_Stream.Peer().c_str(),
                                      Mirel::EscapeForLog(head.Target).c_str(),
                                      static_cast<int>(response.Status));
    }

    m_Output.Append(std::move(response), form);
    return FinishRequest();
}

Connection::Next Connection::FinishRequest() {
    m_Buffer.Consume(m_Parsed);
    m_Parsed = m_HeadSize = 0;
    m_Parser.Reset();
    m_Life.Enter(Phase::Handling, 0);  // until the answer is written
    return Next::Again;
}

Connection::Next Connection::RefuseAndClose(HttpResponse response) {
    m_CloseAfter = true;
    return Respond(std::move(response));
}

Connection::Next Connection::Upgrade() {
    if (auto refusal = RefuseUpgrade(m_Parser.Head())) return Respond(std::move(*refusal));
    m_Output.Append(SwitchingProtocols(m_Parser.Head()));
    m_Shared.Requests.fetch_add(1, std::memory_order_relaxed);
    m_Shared.AnsweredByClass[1].fetch_add(1, std::memory_order_relaxed);
    m_UpgradeAfter = true;
    return FinishRequest();
}

void Connection::HandOver() {
    const std::string peer = m_Stream.Peer();
    Deregister();
    m_Owning = false;
    HandOverToFeed(m_Life.Descriptor, m_Stream.ReleaseTls(), peer, m_Buffer.View());
}

// Writes what is to go out.
Connection::Next Connection::Flush() {
    const IoStatus status = m_Output.Write(m_Stream);
    if (status == IoStatus::Done) return AllWritten();
    if (status == IoStatus::Closed || status == IoStatus::Failed) return Next::Gone;
    // The peer has to go on taking it.
    if (m_Output.Progressed() || m_Life.Now.load(std::memory_order_relaxed) != Phase::Writing) {
        m_Life.Enter(Phase::Writing, m_Shared.Options.RequestTimeout_ms);
    }
    return status == IoStatus::WantRead ? Next::Read : Next::Write;
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
    if (m_HeadSize == 0 && m_Buffer.Empty()) {
        if (m_Buffer.Capacity() > FirstRoom) m_Buffer.Release();
        Idle();
    } else {
        Begin();
    }
    return Next::Again;
}

// Waits for the peer to close, so that it is not told of a reset before it has read the answer.
Connection::Next Connection::Drain() {
    for (;;) {
        const IoResult result = m_Stream.Discard();
        if (result.Status == IoStatus::WantRead) return Next::Read;
        if (result.Status != IoStatus::Done) return Next::Gone;
        m_Drained += result.Bytes;
        if (m_Drained > DrainBytes) return Next::Gone;
    }
}

void Connection::Deregister() {
    if (std::exchange(m_Registered, false)) m_Shared.Registry.Remove(m_Life);
    if (std::exchange(m_Polled, false)) m_Shared.Poll.Remove(m_Life.Descriptor, m_PollPlace);
}

void serve_connection(ConnectionShared& shared, int descriptor, bool& taken_over) {
    auto connection = std::make_unique<Connection>(shared, descriptor);
    taken_over = true;
    connection->Open();
    // Not here and now: a request that blocks would keep the next connections from being accepted.
    asio::post(shared.Io,
               [connection = std::move(connection)]() mutable { Connection::Run(std::move(connection)); });
}

// More connections than may be: said in one write where that can be done, for there is no place to wait.
void refuse_connection(ConnectionShared& shared, int descriptor) {
    shared.RefusedConnections.fetch_add(1, std::memory_order_relaxed);
    if (!shared.Identity) {
        HttpResponse response = Problem(Velmora::STATUS_503_NO_SERVICE, "Too many connections; try again.");
        response.Headers.emplace_back("Retry-After", "1");
        std::string text;
        AppendReplyHead(text, response, {.KeepAlive = false});
        text.append(response.Body);
        if (send(descriptor, text.data(), text.size(), MSG_NOSIGNAL) > 0) shutdown(descriptor, SHUT_WR);
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

void ServeConnection(ConnectionShared& shared, int descriptor) {
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    shared.Accepted.fetch_add(1, std::memory_order_relaxed);
    bool taken_over = false;
    try {
        if (shared.Registry.Size() < shared.Options.MaxConnections) {
            serve_connection(shared, descriptor, taken_over);
        } else {
            refuse_connection(shared, descriptor);
        }
    } catch (const std::exception& failure) {
        Mirel::DefaultLogSink().Error("Cannot serve a connection: %s\n", failure.what());
    }
    if (!taken_over) close(descriptor);
}

}  // namespace Server
