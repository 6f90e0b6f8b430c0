// How many requests may be waiting for the event queue at once.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>

#include "MR_mutex.h"
#include "MR_types.h"

namespace Server {

/// What waits for its turn.
class AdmissionWaiter {
  public:
    /// Its turn has come (it is inside, and has to leave) or its time is over. Called once, from any thread,
    /// without a lock, also before Wait() has returned; must not block. The waiter may be gone afterwards.
    virtual void Resume(bool admitted) = 0;

  protected:
    ~AdmissionWaiter() = default;
};

/// The backpressure of the queue: lets at most `limit` requests in at once. Those beyond wait in the order of
/// their arrival, a bounded number of them for a bounded time and without a thread. All operations may be
/// called from any thread.
class Admission {
  public:
    /// How long a request waits for its turn, and how many may be waiting.
    static constexpr std::chrono::milliseconds WaitLimit{200};
    static constexpr std::size_t WaitersLimit = 1024;

    explicit Admission(unsigned limit) : m_Limit(limit) {}

    /// True: the caller is in and calls Leave() when it is done.
    bool TryEnter();
    /// For a caller that could not enter: knows the waiter until its turn or its time comes, and resumes it
    /// then. False, and it will not be resumed, where too many are waiting.
    bool Wait(AdmissionWaiter& waiter);
    void Leave();

    /// Resumes those whose time is over; all of them where `everyone` is true.
    void Expire(std::chrono::steady_clock::time_point now, bool everyone = false);
    bool HasWaiters() const { return m_Waiting.load() > 0; }

  private:
    struct Entry {
        std::chrono::steady_clock::time_point Deadline;
        AdmissionWaiter* Waiter;
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
