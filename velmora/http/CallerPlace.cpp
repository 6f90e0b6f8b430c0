// How many background calls there may be at once.
#include <atomic>
#include <chrono>
#include <utility>

#include "MR_log.h"
#include "MR_mutex.h"
#include "VL_HTTP.h"

namespace Velmora {

namespace {

std::atomic<ui32_t> most_callers{0};
std::atomic<ui32_t> places_taken{0};

// One line a second for as many refusals as there were.
class RefusalLog {
  public:
    void Note() {
        const ui64_t refused = Due();
        if (refused == 0) return;
        Mirel::DefaultLogSink().Error("Too many calls to listeners at once: %llu not made.\n",
                                      static_cast<unsigned long long>(refused));
    }

  private:
    // How many refusals a line is to tell of now; 0 where it is too early for one.
    ui64_t Due() {
        const auto now = std::chrono::steady_clock::now();
        Mirel::AutoMutex lock(m_Lock);
        ++m_Refused;
        if (m_Logged && now - m_Last < std::chrono::seconds(1)) return 0;
        m_Logged = true;
        m_Last = now;
        return std::exchange(m_Refused, 0);
    }

    Mirel::Mutex m_Lock;
    bool m_Logged GUARDED_BY(m_Lock) = false;
    std::chrono::steady_clock::time_point m_Last GUARDED_BY(m_Lock);
    ui64_t m_Refused GUARDED_BY(m_Lock) = 0;
};

}  // namespace

void SetMaxCallers(ui32_t most) {
    most_callers = most;
}

bool CallerPlace::Take() {
    if (m_Taken) return true;
    const ui32_t most = most_callers;
    m_Taken = true;
    if (places_taken.fetch_add(1) < most || most == 0) return true;
    GiveBack();
    return false;
}

void CallerPlace::GiveBack() {
    if (!m_Taken) return;
    m_Taken = false;
    --places_taken;
}

void CountRequestRefused(const BasicRestEntryCall& call) {
    static auto* const log = new RefusalLog;
    CountRequestNotStarted(call, Mirel::RESULT_THREAD.WithMessage("Too many calls at once"));
    log->Note();
}

}  // namespace Velmora
