// One HTTP(S) exchange, from checking the request to the status of its answer.
#pragma once

#include <string>

#include "VL_HTTP.h"

namespace Velmora {

/// What to send, and how. Refers to values that outlive the exchange.
struct HttpExchangeRequest {
    const URL& Target;
    const HeaderSet& Headers;
    const std::string& Body;
    Method_t Method;
    Proto_t Proto;
    ui32_t Timeout_ms;
    bool VerifyPeer;
};

/// How it ended. An answered exchange has a status, and a reason only where the answer was cut off at the
/// limit.
struct HttpExchangeEnd {
    RequestFailure Failure = RequestFailure::None;
    Status_t Status = STATUS_NONE;
    std::string Reason;
};

/// Why `request` cannot be sent as it is given; empty where it can.
std::string WhyNotSendable(const HttpExchangeRequest& request);

/// Performs the exchange on the calling thread, which its time-out bounds. Thread-safe. Throws std::bad_alloc
/// only.
HttpExchangeEnd PerformHttpExchange(const HttpExchangeRequest& request);

}  // namespace Velmora
