// The places inside the queue, and who waits for one.
#include "http/Admission.h"

namespace Server {

bool Admission::TryEnter() {
    unsigned inside = m_Inside.load();
    while (inside < m_Limit) {
        if (m_Inside.compare_exchange_weak(inside, inside + 1)) return true;
    }
    return false;
}

bool Admission::Wait(AdmissionWaiter& waiter) {
    {
        Mirel::AutoMutex held(m_Lock);
        if (m_Waiters.size() >= WaitersLimit) return false;
        m_Waiters.push_back({std::chrono::steady_clock::now() + WaitLimit, &waiter});
        m_Waiting.store(m_Waiters.size());
    }
    LetIn();  // a place may have become free in between
    return true;
}

void Admission::Leave() {
    m_Inside.fetch_sub(1);
    if (m_Waiting.load() > 0) LetIn();
}

void Admission::LetIn() {
    AdmissionWaiter* waiter = nullptr;
    {
        Mirel::AutoMutex held(m_Lock);
        if (m_Waiters.empty() || !TryEnter()) return;
        waiter = m_Waiters.front().Waiter;
        m_Waiters.pop_front();
        m_Waiting.store(m_Waiters.size());
    }
    waiter->Resume(true);
}

void Admission::Expire(std::chrono::steady_clock::time_point now, bool everyone) {
    std::deque<Entry> expired;
    {
        Mirel::AutoMutex held(m_Lock);
        while (!m_Waiters.empty() && (everyone || m_Waiters.front().Deadline <= now)) {
            expired.push_back(m_Waiters.front());
            m_Waiters.pop_front();
        }
        m_Waiting.store(m_Waiters.size());
    }
    for (const Entry& entry : expired) entry.Waiter->Resume(false);
}

}  // namespace Server
