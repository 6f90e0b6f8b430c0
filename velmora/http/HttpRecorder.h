// What all exchanges of the process did: counters and the last outcomes.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "MR_mutex.h"
#include "VL_HTTP.h"

namespace Velmora {

/// Counts exchanges and keeps the last RequestOutcomesKept outcomes. Thread-safe; the lock is held for a few
/// assignments only, texts are made before and freed after it. Never throws: where memory is short an outcome
/// is left out, and the counters stay right.
class HttpRecorder {
  public:
    /// The process's one recorder. Lives until the process ends, for threads that are still at work then.
    static HttpRecorder& Instance();

    void CountStart();
    /// How long an exchange took that was begun.
    void CountTime(std::chrono::nanoseconds duration) { m_Times.Count(duration); }

    /// The end of an exchange that was counted by CountStart(). `url` may hold credentials: they are left
    /// out.
    void CountEnd(Method_t method, const URL& url, Status_t status, std::chrono::milliseconds duration,
                  RequestFailure failure, const std::string& reason);

    RequestCounters Counters() const;
    std::vector<RequestOutcome> Outcomes() const;

  private:
    void CountOutcome(Status_t status, RequestFailure failure) REQUIRES(m_Lock);

    Mirel::Histogram m_Times;  // synchronises itself
    mutable Mirel::Mutex m_Lock;
    RequestCounters m_Counters GUARDED_BY(m_Lock);
    ui64_t m_Ended GUARDED_BY(m_Lock) = 0;
    std::array<RequestOutcome, RequestOutcomesKept> m_Outcomes GUARDED_BY(m_Lock);  // [sequence % size]
};

}  // namespace Velmora
