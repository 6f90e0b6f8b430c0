#include "rest/ClusterGate.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "MR_log.h"
#include "rest/Rest.h"

namespace Server {

using Mirel::AutoMutex;

namespace {

constexpr std::size_t MostWaiting = 1024, LongestKey = 200;

// What the engine did not do, as an answer.
HttpResponse NotDone(const Cluster::Outcome& outcome) {
    if (outcome.What == Cluster::Fate::TooLarge)
        return Problem(Velmora::STATUS_413_TOO_LARGE, "The cluster cannot store it: " + outcome.Why + ".");
    const std::string what = outcome.What == Cluster::Fate::MayBeStored
                                 ? "The cluster did not answer in time: it may have been stored"
                                 : "The cluster is not available, nothing was stored";
    Velmora::PListDict problem;
    problem.SetValue("type", "about:blank");
    problem.SetValue("title", Velmora::StatusToString(Velmora::STATUS_503_NO_SERVICE));
    problem.SetValue("status", static_cast<int>(Velmora::STATUS_503_NO_SERVICE));
    problem.SetValue("code", "cluster-unavailable");
    problem.SetValue("detail", what + (outcome.Why.empty() ? "." : " (" + outcome.Why + ")."));
    HttpResponse response = Json(Velmora::STATUS_503_NO_SERVICE, problem);
    response.ContentType = "application/problem+json";
    response.Headers.emplace_back("Retry-After", "2");
    return response;
}

HttpResponse PostingAnswer(const Cluster::Outcome& outcome, const std::string& event_name) {
    if (outcome.What == Cluster::Fate::Stored) return Posted(event_name, outcome.Id.Text());
    if (outcome.What == Cluster::Fate::NoSuchEvent)
        return Problem(Velmora::STATUS_404_NOT_FOUND, "There is no event \"" + event_name + "\".");
    return NotDone(outcome);
}

// What a header of the engine's can carry.
bool IsKey(std::string_view key) {
    return key.size() <= LongestKey &&
           std::all_of(key.begin(), key.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

}  // namespace

ClusterGate::~ClusterGate() {
    (void)ThreadStop();
    WaitUntilFinished();
}

HttpResponse ClusterGate::Post(const HttpRequest& request, const std::string& event_name) {
    if (!IsKey(request.IdempotencyKey)) {
        return Problem(Velmora::STATUS_400_BAD_REQ,
                       "Idempotency-Key must be at most 200 printable ASCII characters.");
    }
    HttpResponse response;
    response.Later = std::make_shared<LaterAnswer>();
    m_Cluster.Post(event_name, std::string(request.Body), std::string(request.IdempotencyKey),
                   [later = response.Later, event_name](const Cluster::Outcome& outcome) {
                       later->Give(PostingAnswer(outcome, event_name));
                   });
    return response;
}

HttpResponse ClusterGate::Change(const HttpRequest& request, const HttpRoute& route, Answer answer) {
    auto waiting = std::make_unique<Waiting>();
    waiting->Path = request.Path;
    waiting->Query = request.Query;
    waiting->Body = request.Body;
    waiting->Request.Method = request.Method;
    waiting->Request.Path = waiting->Path;
    waiting->Request.Query = waiting->Query;
    waiting->Request.Body = waiting->Body;
    waiting->Request.HasBody = request.HasBody;
    waiting->Route = route;  // the connection goes on to ask its own who called
    waiting->Function = std::move(answer);
    waiting->Later = std::make_shared<LaterAnswer>();
    HttpResponse response;
    response.Later = waiting->Later;
    AutoMutex lock(m_Lock);
    if (m_Ending || m_Waiting.size() >= MostWaiting)
        return NotDone({Cluster::Fate::Unavailable, {}, "too many changes wait for the engine"});
    m_Waiting.push_back(std::move(waiting));
    m_Come.NotifyOne();
    return response;
}

Mirel::Result_t ClusterGate::ThreadStop() {
    AutoMutex lock(m_Lock);
    m_Ending = true;
    m_Come.NotifyAll();
    return Mirel::RESULT_OK;
}

HttpResponse ClusterGate::AnswerOf(Waiting& waiting) {
    try {
        (void)m_Cluster.TakeFailure();
        HttpResponse response = waiting.Function(waiting.Request, waiting.Route);
        const Cluster::Outcome failure = m_Cluster.TakeFailure();
        return failure.What == Cluster::Fate::Stored ? std::move(response) : NotDone(failure);
    } catch (const std::exception& failure) {
        Mirel::DefaultLogSink().Error("A change failed: %s\n", failure.what());
        return Problem(Velmora::STATUS_500_SERVER_ERROR,
                       "The request could not be completed; the log says why.");
    }
}

Mirel::Result_t ClusterGate::ThreadBody() {
    for (;;) {
        std::unique_ptr<Waiting> next;
        {
            AutoMutex lock(m_Lock);
            while (m_Waiting.empty() && !m_Ending) m_Come.Wait(m_Lock);
            if (m_Waiting.empty()) return Mirel::RESULT_OK;
            next = std::move(m_Waiting.front());
            m_Waiting.pop_front();
        }
        next->Later->Give(AnswerOf(*next));
    }
}

}  // namespace Server
