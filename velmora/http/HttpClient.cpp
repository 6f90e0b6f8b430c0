// The client handle, and the caller on a thread of its own.
#include <chrono>
#include <exception>
#include <string>

#include "VL_HTTP.h"
#include "http/HttpExchange.h"
#include "http/HttpRecorder.h"

namespace Velmora {

namespace {

HttpExchangeEnd Perform(const HttpExchangeRequest& request) noexcept {
    try {
        return PerformHttpExchange(request);
    } catch (const std::exception&) {  // nothing but a lack of memory throws there
        HttpExchangeEnd end;
        end.Failure = RequestFailure::Resources;
        return end;
    }
}

// The message of `end` in a result of the kind that its failure calls for.
Result_t ResultOf(const HttpExchangeEnd& end) {
    switch (end.Failure) {
        case RequestFailure::None:
            return end.Reason.empty() ? Mirel::RESULT_OK : Mirel::RESULT_OK.WithMessage(end.Reason);
        case RequestFailure::Parameter:
            return Mirel::RESULT_PARAM.WithMessage(end.Reason);
        case RequestFailure::Timeout:
            return Mirel::RESULT_TIMEOUT.WithMessage(end.Reason);
        default:
            return Mirel::RESULT_NETWORK.WithMessage(end.Reason);
    }
}

// Counts one exchange from its start to its end.
HttpExchangeEnd PerformAndCount(const HttpExchangeRequest& request) {
    HttpRecorder& recorder = HttpRecorder::Instance();
    const auto start = std::chrono::steady_clock::now();
    recorder.CountStart();
    HttpExchangeEnd end = Perform(request);
    const auto duration = std::chrono::steady_clock::now() - start;
    recorder.CountTime(duration);
    const bool failed = end.Failure != RequestFailure::None;
    if (failed && end.Reason.empty()) end.Reason = "Out of memory";
    recorder.CountEnd(request.Method, request.Target, end.Status,
                      std::chrono::duration_cast<std::chrono::milliseconds>(duration), end.Failure,
                      failed ? end.Reason : std::string());
    return end;
}

}  // namespace

Result_t TLSHTTPRequestHandle::Exec(const URL& url, const HeaderSet& headers, const Method_t& method,
                                    const Proto_t& proto) {
    return Exec(url, headers, std::string(), method, proto);
}

Result_t TLSHTTPRequestHandle::Exec(const URL& url, const HeaderSet& headers, const std::string& body,
                                    const Method_t& method, const Proto_t& proto) {
    m_Status = STATUS_NONE;
    const HttpExchangeEnd end =
        PerformAndCount({url, headers, body, method, proto, m_Timeout_ms, m_VerifyPeer});
    m_Status = end.Status;
    return ResultOf(end);
}

}  // namespace Velmora
