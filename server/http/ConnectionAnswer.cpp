// How a connection's requests are answered.
#include <exception>
#include <utility>

#include "MR_log.h"
#include "http/Connection.h"
#include "http/FeedUpgrade.h"
#include "http/RefuseHead.h"

namespace Server {

namespace {

constexpr unsigned RequestsPerTurn = 64;  // then other connections have their turn

HttpResponse Busy() {
    HttpResponse response = Problem(Velmora::STATUS_503_NO_SERVICE,
                                    "As many requests as may be are waiting for the event queue; try again.");
    response.Headers.emplace_back("Retry-After", "1");
    return response;
}

}  // namespace

Connection::Step Connection::NextStep() {
    if (!m_Input.HasUnparsed()) return Step::Input;
    return m_Answered < RequestsPerTurn ? UseInput() : Step::Turn;
}

// Parses on.
Connection::Step Connection::UseInput() {
    if (!m_Input.HeadKnown()) {
        if (!m_Input.SkipEmptyLines()) return Step::Input;
        Begin();
    }
    switch (m_Input.Parse()) {
        case ConnectionInput::Progress::HeadComplete:
            return HeadComplete();
        case ConnectionInput::Progress::Complete:
            return RequestComplete();
        case ConnectionInput::Progress::Failed:
            return RefuseAndClose(m_Input.Error());
        case ConnectionInput::Progress::NeedMore:
            break;
    }
    return Step::Input;
}

Connection::Step Connection::HeadComplete() {
    const RequestHead& head = m_Input.Head();
    if (auto refusal = RefuseHead(head, *m_Shared.Policy.Get(), m_Shared.Handler, m_Route)) {
        return RefuseAndClose(std::move(*refusal));
    }
    // A document may have whatever length the parser lets through.
    if (!m_Route.TakesDocument && !m_Input.LimitBody(m_Shared.Options.BodyLimit)) {
        return RefuseAndClose(m_Input.Error());
    }
    if (head.Has(Field::Expect) && !head.Http10 && !m_Input.HasUnparsed()) {
        m_Output.Append("HTTP/1.1 100 Continue\r\n\r\n");
    }
    return Step::Again;
}

Connection::Step Connection::RequestComplete() {
    m_Began = Clock::now();
    const RequestHead& head = m_Input.Head();
    if (!m_Input.HeadKnown()) {
        if (auto refusal = RefuseHead(head, *m_Shared.Policy.Get(), m_Shared.Handler, m_Route)) {
            return Respond(std::move(*refusal));
        }
    }
    m_Request = RequestOf(head);
    m_Request.Body = m_Input.Body();
    return AsksForFeed(m_Request) ? Upgrade() : Answer();
}

Connection::Step Connection::Answer() {
    if (!m_Route.MayBlock) return RespondOrWait(CallHandler());
    m_Life.Enter(Phase::Handling, 0);
    if (!m_Shared.Pool.Enter()) return Step::Admission;
    return RespondOrWait(CallHandlerAndLeave());
}

// The turn of a request that waited has come.
Connection::Step Connection::AnswerAdmitted() {
    m_Shared.Pool.Resumed();
    return RespondOrWait(CallHandlerAndLeave());
}

// Its time is over, or too many wait.
Connection::Step Connection::AnswerBusy() {
    m_Shared.RefusedBusy.fetch_add(1, std::memory_order_relaxed);
    return Respond(Busy());
}

// For a request that is inside the pool.
HttpResponse Connection::CallHandlerAndLeave() {
    const std::unique_ptr<ThreadPool, void (*)(ThreadPool*)> inside(&m_Shared.Pool,
                                                                    [](ThreadPool* pool) { pool->Leave(); });
    return CallHandler();
}

HttpResponse Connection::CallHandler() {
    try {
        return m_Shared.Handler.Handle(m_Request, m_Route);
    } catch (const std::exception& error) {
        Mirel::DefaultLogSink().Error("Answering %s \"%s\" failed: %s\n",
                                      Velmora::MethodToString(m_Request.Method),
                                      Mirel::EscapeForLog(m_Request.Path).c_str(), error.what());
        return Problem(Velmora::STATUS_500_SERVER_ERROR, "The server could not answer this request.");
    }
}

Connection::Step Connection::RespondOrWait(HttpResponse response) {
    m_Later = std::move(response.Later);
    return m_Later ? Step::Later : Respond(std::move(response));
}

Connection::Step Connection::Respond(HttpResponse response) {
    const RequestHead& head = m_Input.Head();
    ReplyForm form;
    form.HeadOnly = head.Method == Velmora::METH_HEAD;
    form.Http10 = head.Http10;
    form.KeepAlive =
        !m_CloseAfter && m_Input.KeepAlive() && !m_Shared.Stopping.load(std::memory_order_relaxed);
    m_CloseAfter = !form.KeepAlive;

    for (auto& [name, value] : response.Headers)
        if (name == "Location" && value.starts_with('/')) value.insert(0, m_Shared.Options.BasePath);
    CountAnswer(response.Status, response.Body.size());
    if (m_Route.Changes && response.Status < 300) LogChange(response);
    for (auto& field : m_Shared.Policy.Get()->ForOtherOrigin(head))
        response.Headers.push_back(std::move(field));
    m_Output.Append(std::move(response), form);
    return FinishRequest();
}

void Connection::CountAnswer(Status_t status, std::size_t size) {
    ++m_Answered;
    m_Shared.Requests.fetch_add(1, std::memory_order_relaxed);
    const int status_class = status / 100;
    m_Shared.AnsweredByClass[status_class < 6 ? status_class : 0].fetch_add(1, std::memory_order_relaxed);
    // What was refused for its head alone has taken no time.
    const Clock::time_point began = std::exchange(m_Began, Clock::time_point());
    const Clock::duration took = began == Clock::time_point() ? Clock::duration() : Clock::now() - began;
    m_Shared.RequestTimes.Count(took);
    if (m_Shared.AccessLog.load(std::memory_order_relaxed) || Mirel::DefaultLogSink().Logs(Mirel::LOG_DEBUG))
        LogAnswer(status, size, took);
}

// The access log's line; without one the same line for finding faults.
void Connection::LogAnswer(Status_t status, std::size_t size, Clock::duration took) const {
    const RequestHead& head = m_Input.Head();
    const std::string target = Mirel::EscapeForLog(head.Target);
    const double took_ms = std::chrono::duration<double, std::milli>(took).count();
    const auto write =
        m_Shared.AccessLog.load(std::memory_order_relaxed) ? &Mirel::ILogSink::Info : &Mirel::ILogSink::Debug;
    (Mirel::DefaultLogSink().*write)("Access: %s \"%s %s\" %d, %zu bytes, %.3f ms\n", m_Stream.Peer().c_str(),
                                     head.Method ? Velmora::MethodToString(*head.Method) : "-",
                                     target.c_str(), static_cast<int>(status), size, took_ms);
}

// Who did what; said only where callers have names.
void Connection::LogChange(const HttpResponse& response) const {
    if (m_Route.Caller->Name.empty()) return;
    std::string made;
    for (const auto& [name, value] : response.Headers)
        if (name == "Location") made = ", made " + Mirel::EscapeForLog(value);
    Mirel::DefaultLogSink().Notice(
        "Audit: \"%s\" at %s: %s %s %d%s\n", Mirel::EscapeForLog(m_Route.Caller->Name).c_str(),
        m_Stream.Peer().c_str(), Velmora::MethodToString(m_Request.Method),
        Mirel::EscapeForLog(m_Input.Head().Target).c_str(), static_cast<int>(response.Status), made.c_str());
}

Connection::Step Connection::FinishRequest() {
    m_Input.FinishRequest();
    m_Route = {};
    m_Life.Enter(Phase::Handling, 0);  // until the answer is written
    return Step::Again;
}

Connection::Step Connection::RefuseAndClose(HttpResponse response) {
    m_CloseAfter = true;
    return Respond(std::move(response));
}

Connection::Step Connection::Upgrade() {
    m_FeedPlace = m_Shared.OnFeed.Take();
    if (!m_FeedPlace) {
        m_Shared.RefusedFeedClients.fetch_add(1, std::memory_order_relaxed);
        return Respond(FeedIsFull(m_Shared.Options.MaxFeedClients));
    }
    const RequestHead& head = m_Input.Head();
    if (auto refusal = ReadFeedWish(head, m_Route, m_FeedWish)) return Respond(std::move(*refusal));
    const bool events = WantsEventStream(head);
    m_Output.Append(events ? EventStreamHead(m_Shared.Policy.Get()->ForOtherOrigin(head))
                           : SwitchingProtocols(head));
    CountAnswer(events ? Velmora::STATUS_200_OK : Velmora::STATUS_101_SWITCHING, 0);
    m_FeedCaller = m_Route.Caller;
    m_UpgradeAfter = true;
    return FinishRequest();
}

}  // namespace Server
