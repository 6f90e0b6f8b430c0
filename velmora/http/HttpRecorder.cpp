// Records outcomes and counts.
#include "http/HttpRecorder.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace Velmora {

namespace {

// Longest URL or reason that is kept, in bytes: an outcome is there to be read by people.
constexpr std::size_t KeptTextLimit = 1024;

std::string Shortened(std::string text) {
    if (text.size() > KeptTextLimit) text.replace(KeptTextLimit - 3, std::string::npos, "...");
    return text;
}

std::string UrlWithoutCredentials(const URL& url) {
    std::string text = url.ComposeSchemeAndHost(false) + url.Path;
    if (url.HasQueryToken) text += '?' + url.QueryString;
    return Shortened(std::move(text));
}

}  // namespace

HttpRecorder& HttpRecorder::Instance() {
    static auto* const recorder = new HttpRecorder;
    return *recorder;
}

void HttpRecorder::CountStart() {
    Mirel::AutoMutex lock(m_Lock);
    ++m_Counters.Started;
    ++m_Counters.Running;
}

void HttpRecorder::CountOutcome(Status_t status, RequestFailure failure) {
    --m_Counters.Running;
    switch (failure) {
        case RequestFailure::None:
            break;
        case RequestFailure::Parameter:
            ++m_Counters.FailedParameter;
            return;
        case RequestFailure::Resolve:
            ++m_Counters.FailedResolve;
            return;
        case RequestFailure::Connect:
            ++m_Counters.FailedConnect;
            return;
        case RequestFailure::TLS:
            ++m_Counters.FailedTLS;
            return;
        case RequestFailure::Timeout:
            ++m_Counters.FailedTimeout;
            return;
        case RequestFailure::Transfer:
            ++m_Counters.FailedTransfer;
            return;
        case RequestFailure::Resources:
            ++m_Counters.FailedResources;
            return;
    }
    const int status_class = status / 100;
    ++m_Counters.AnsweredByClass[status_class >= 1 && status_class <= 5 ? status_class : 0];
}

void HttpRecorder::CountEnd(Method_t method, const URL& url, Status_t status,
                            std::chrono::milliseconds duration, RequestFailure failure,
                            const std::string& reason) {
    RequestOutcome outcome;
    bool complete = false;
    try {
        outcome.Method = method;
        outcome.Url = UrlWithoutCredentials(url);
        outcome.Status = status;
        outcome.Duration_ms = static_cast<ui32_t>(duration.count());
        outcome.Failure = failure;
        outcome.Reason = Shortened(reason);
        complete = true;
    } catch (const std::exception&) {
        // No memory for the texts; the counters below say what happened.
    }
    Mirel::AutoMutex lock(m_Lock);
    CountOutcome(status, failure);
    if (!complete) return;
    outcome.Sequence = ++m_Ended;
    std::swap(m_Outcomes[outcome.Sequence % m_Outcomes.size()], outcome);
}

RequestCounters HttpRecorder::Counters() const {
    Mirel::AutoMutex lock(m_Lock);
    RequestCounters counters = m_Counters;
    counters.Times = m_Times.Read();
    return counters;
}

std::vector<RequestOutcome> HttpRecorder::Outcomes() const {
    std::vector<RequestOutcome> outcomes;
    outcomes.reserve(RequestOutcomesKept);
    Mirel::AutoMutex lock(m_Lock);
    const ui64_t kept = std::min<ui64_t>(m_Ended, m_Outcomes.size());
    for (ui64_t i = 0; i < kept; ++i) outcomes.push_back(m_Outcomes[(m_Ended - i) % m_Outcomes.size()]);
    return outcomes;
}

RequestCounters GetRequestCounters() {
    return HttpRecorder::Instance().Counters();
}

std::vector<RequestOutcome> GetRequestOutcomes() {
    return HttpRecorder::Instance().Outcomes();
}

void CountRequestStarted() {
    HttpRecorder::Instance().CountStart();
}

void CountRequestEnded(const URL& url, const RequestOutcome& outcome) {
    const std::chrono::milliseconds duration(outcome.Duration_ms);
    HttpRecorder::Instance().CountTime(duration);
    HttpRecorder::Instance().CountEnd(outcome.Method, url, outcome.Status, duration, outcome.Failure,
                                      outcome.Reason);
}

void CountRequestNotStarted(const BasicRestEntryCall& call, const Result_t& reason) {
    HttpRecorder& recorder = HttpRecorder::Instance();
    recorder.CountStart();
    recorder.CountEnd(call.Method, call.TargetUrl, STATUS_NONE, std::chrono::milliseconds(0),
                      RequestFailure::Resources, reason.Message());
}

}  // namespace Velmora
