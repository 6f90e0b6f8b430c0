// The threads that serve connections, and the watchdog that keeps one of them free.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "MR_error.h"
#include "MR_mutex.h"
#include "http/Admission.h"

namespace Server {

/// Threads that all run the same loop, of which only a few do at a time: one thread without others to wake
/// serves connections fastest. A thread that stays inside a request (it waits for the queue, or for a Python
/// handler in it) is relieved by an idle one within a few milliseconds, and because fewer requests are let
/// in than there are threads, one is always left for everything else.
class ThreadPool {
  public:
    /// What the pool needs of the loop.
    struct Loop {
        std::function<void()> Run;                        // serves until the loop is stopped
        std::function<void(std::function<void()>)> Post;  // has one of the running threads call the function
    };

    /// `threads` in all (at least 2), `working` of them at a time.
    ThreadPool(unsigned threads, unsigned working, Loop loop);
    /// Join() must have been called after a successful Start().
    ~ThreadPool() = default;
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// RESULT_THREAD with the system's reason where a thread cannot be started; none is running then.
    Mirel::Result_t Start(const std::function<void()>& stop_loop);
    /// Returns when all threads have ended; the loop must have been stopped.
    void Join();

    /// Around a request that may block, on a thread of the pool: Enter() or, where a waiter was resumed as
    /// admitted, Resumed(), then Leave().
    bool Enter();
    void Resumed();
    void Leave();
    /// Keeps a request that could not enter, as Admission::Wait does.
    bool Wait(AdmissionWaiter& waiter);
    /// For a waiter that was resumed as admitted and does not go in.
    void GiveBack();
    /// Answers those that wait, for the end of the server.
    void RefuseWaiters();

  private:
    // One thread's place: odd while it is inside a request.
    struct alignas(64) Place {
        std::atomic<unsigned> Sequence{0};
    };

    void Serve(std::size_t index);
    void Idle();
    void Watchdog();
    unsigned CountStuck(std::vector<unsigned>& seen, bool& quiet) const;
    void Staff(unsigned wanted);
    void WakeWatchdog();

    const unsigned m_Threads;
    const unsigned m_Working;
    const Loop m_Loop;

    Admission m_Admission;
    std::vector<Place> m_Places;
    std::atomic<bool> m_WatchdogAsleep{false};

    Mirel::Mutex m_Lock;
    Mirel::Condition m_IdleWoken;               // for idle threads
    Mirel::Condition m_WatchdogWoken;           // for the watchdog
    unsigned m_AtWork GUARDED_BY(m_Lock);       // threads that are not idle
    unsigned m_Wanted GUARDED_BY(m_Lock);       // as many as should not be
    unsigned m_Leaving GUARDED_BY(m_Lock) = 0;  // calls of Idle() that are on their way
    bool m_Ending GUARDED_BY(m_Lock) = false;

    std::vector<std::thread> m_Running;
};

}  // namespace Server
