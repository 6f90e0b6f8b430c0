// Who of the I/O threads works, who is idle, and the watchdog between them.
#include "http/ThreadPool.h"

#include <pthread.h>

#include <algorithm>
#include <exception>
#include <system_error>

#include "MR_log.h"

namespace Server {

namespace {

// How long a thread may stay inside one request before another takes over.
constexpr std::chrono::milliseconds WatchdogInterval{2};
// How many quiet looks before the watchdog sleeps: waking it is a part of the request that does.
constexpr unsigned QuietLooks = 50;

// The calling thread's place in its pool.
thread_local std::atomic<unsigned>* t_sequence = nullptr;

}  // namespace

ThreadPool::ThreadPool(unsigned threads, unsigned working, Loop loop)
    : m_Threads(threads),
      m_Working(working),
      m_Loop(std::move(loop)),
      m_Admission(threads - 1),
      m_Places(threads),
      m_AtWork(threads),
      m_Wanted(working) {}

Mirel::Result_t ThreadPool::Start(const std::function<void()>& stop_loop) {
    try {
        for (std::size_t i = 0; i < m_Threads; ++i) m_Running.emplace_back([this, i] { Serve(i); });
        m_Running.emplace_back([this] { Watchdog(); });
    } catch (const std::system_error& error) {
        stop_loop();
        Join();
        return Mirel::RESULT_THREAD.WithMessage(std::string("Cannot start a thread: ") + error.what());
    }
    return Mirel::RESULT_OK;
}

void ThreadPool::Join() {
    {
        Mirel::AutoMutex held(m_Lock);
        m_Ending = true;
        m_IdleWoken.NotifyAll();
        m_WatchdogWoken.NotifyAll();
    }
    for (std::thread& thread : m_Running) thread.join();
    m_Running.clear();
}

void ThreadPool::Serve(std::size_t index) {
    pthread_setname_np(pthread_self(), "Http::Serve");
    t_sequence = &m_Places[index].Sequence;
    if (index >= m_Working) Idle();
    for (bool ended = false; !ended;) {
        try {
            m_Loop.Run();
            ended = true;
        } catch (const std::exception& failure) {  // ends what it happened to, not the thread
            Mirel::DefaultLogSink().Error("Serving failed: %s\n", failure.what());
        }
    }
}

bool ThreadPool::Enter() {
    if (!m_Admission.TryEnter()) return false;
    Resumed();
    return true;
}

void ThreadPool::Resumed() {
    t_sequence->fetch_add(1);
    if (m_WatchdogAsleep.load()) WakeWatchdog();
}

void ThreadPool::Leave() {
    t_sequence->fetch_add(1, std::memory_order_release);
    m_Admission.Leave();
}

bool ThreadPool::Wait(AdmissionWaiter& waiter) {
    return m_Admission.Wait(waiter);
}

void ThreadPool::GiveBack() {
    m_Admission.Leave();
}

void ThreadPool::RefuseWaiters() {
    m_Admission.Expire(std::chrono::steady_clock::now(), true);
}

void ThreadPool::Idle() {
    Mirel::AutoMutex held(m_Lock);
    if (m_Leaving > 0) --m_Leaving;
    if (m_AtWork <= m_Wanted) return;
    --m_AtWork;
    while (m_AtWork >= m_Wanted && !m_Ending) m_IdleWoken.Wait(m_Lock);
    ++m_AtWork;
}

void ThreadPool::WakeWatchdog() {
    Mirel::AutoMutex held(m_Lock);
    m_WatchdogWoken.NotifyOne();
}

unsigned ThreadPool::CountStuck(std::vector<unsigned>& seen, bool& quiet) const {
    unsigned stuck = 0;
    for (std::size_t i = 0; i < m_Places.size(); ++i) {
        const unsigned sequence = m_Places[i].Sequence.load();
        if (sequence % 2 == 1 && sequence == seen[i]) ++stuck;
        if (sequence % 2 == 1 || sequence != seen[i]) quiet = false;
        seen[i] = sequence;
    }
    return stuck;
}

// Has so many threads at work: wakes idle ones, or asks surplus ones to go idle when they come by.
void ThreadPool::Staff(unsigned wanted) {
    unsigned surplus = 0;
    {
        Mirel::AutoMutex held(m_Lock);
        m_Wanted = std::min(wanted, m_Threads);
        if (m_AtWork < m_Wanted) m_IdleWoken.NotifyAll();
        if (m_AtWork > m_Wanted + m_Leaving) surplus = m_AtWork - m_Wanted - m_Leaving;
        m_Leaving += surplus;
    }
    for (; surplus > 0; --surplus) m_Loop.Post([this] { Idle(); });
}

// Looks at the places every few milliseconds while requests come in, and sleeps when none have come for a
// while.
void ThreadPool::Watchdog() {
    pthread_setname_np(pthread_self(), "Http::Watchdog");
    std::vector<unsigned> seen(m_Places.size(), 0);
    unsigned quiet_looks = 0;
    for (;;) {
        bool quiet = true;
        try {
            Staff(m_Working + CountStuck(seen, quiet));
            m_Admission.Expire(std::chrono::steady_clock::now());
        } catch (const std::exception& failure) {  // looked at again a little later
            Mirel::DefaultLogSink().Error("Watching the requests failed: %s\n", failure.what());
            quiet = false;
        }
        if (m_Admission.HasWaiters()) quiet = false;
        quiet_looks = quiet ? quiet_looks + 1 : 0;

        Mirel::AutoMutex held(m_Lock);
        if (m_Ending) return;
        if (quiet_looks >= QuietLooks && m_AtWork <= m_Wanted) {
            // Announced first, looked at again after: whoever enters in between sees the one or is seen by
            // the other.
            m_WatchdogAsleep.store(true);
            bool still_quiet = true;
            CountStuck(seen, still_quiet);
            if (still_quiet) m_WatchdogWoken.Wait(m_Lock);
            m_WatchdogAsleep.store(false);
            if (m_Ending) return;
        }
        m_WatchdogWoken.WaitUntil(m_Lock, std::chrono::steady_clock::now() + WatchdogInterval);
    }
}

}  // namespace Server
