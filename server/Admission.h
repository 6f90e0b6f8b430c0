// How many requests may be waiting for the event queue at once.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>

#include "MR_mutex.h"
#include "MR_types.h"

namespace Server {

/// What waits for its turn.
class AdmissionWaiter {
  public:
    virtual ~AdmissionWaiter() = default;
    /// Its turn has come (it is inside, and has to leave) or its time is over. Called from any thread,
    /// without a lock; must not block. `self` is the waiter itself.
    virtual void Resume(std::unique_ptr<AdmissionWaiter> self, bool admitted) = 0;
};

/// Lets at most `limit` requests in at once. Those beyond wait in the order of their arrival, a bounded
/// number of them for a bounded time and without a thread. All operations may be called from any thread.
class Admission {
  public:
    /// How long a request waits for its turn, and how many may be waiting.
    static constexpr std::chrono::milliseconds WaitLimit{200};
    static constexpr std::size_t WaitersLimit = 1024;

    explicit Admission(unsigned limit) : m_Limit(limit) {}

    /// True: the caller is in and calls Leave() when it is done.
    bool TryEnter();
    /// For a caller that could not enter: keeps the waiter until its turn or its time comes. False, and the
    /// waiter is the caller's still, where too many are waiting.
    bool Wait(std::unique_ptr<AdmissionWaiter>& waiter);
    void Leave();

    /// Resumes those whose time is over; all of them where `everyone` is true.
    void Expire(std::chrono::steady_clock::time_point now, bool everyone = false);
    bool HasWaiters() const { return m_Waiting.load() > 0; }

  private:
    struct Entry {
        std::chrono::steady_clock::time_point Deadline;
        std::unique_ptr<AdmissionWaiter> Waiter;
    };
    void LetIn();

    const unsigned m_Limit;

    std::atomic<unsigned> m_Inside{0};
    // The length of the list, raised before a waiter looks for a place once more and read after one was given
    // back, so that one of the two sides sees the other.
    std::atomic<std::size_t> m_Waiting{0};

    Mirel::Mutex m_Lock;
    std::deque<Entry> m_Waiters GUARDED_BY(m_Lock);
};

}  // namespace Server
