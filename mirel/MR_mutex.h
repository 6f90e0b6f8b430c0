// A plain mutex, its scoped lock and a condition, annotated so that clang checks the locking at compile time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

/// Clang's capability annotations (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html), which its
/// `-Wthread-safety` checks; nothing elsewhere.
///@{
#if defined(__clang__)
#define MR_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define MR_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) MR_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY MR_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) MR_THREAD_ANNOTATION(guarded_by(x))
#define ACQUIRED_BEFORE(...) MR_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define REQUIRES(...) MR_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) MR_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) MR_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) MR_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) MR_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS MR_THREAD_ANNOTATION(no_thread_safety_analysis)
///@}

namespace Mirel {

/// A plain, non-recursive mutex. A thread that holds it and locks it again waits for ever.
class CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Waits until no other thread holds the mutex.
    void Lock() ACQUIRE() { m_Mutex.lock(); }
    /// Only for the thread that holds it.
    void Unlock() RELEASE() { m_Mutex.unlock(); }
    /// False, without waiting, where a thread holds it.
    bool TryLock() TRY_ACQUIRE(true) { return m_Mutex.try_lock(); }

  private:
    friend class Condition;
    std::mutex m_Mutex;
};

/// Locks a mutex for the life of the object.
class SCOPED_CAPABILITY AutoMutex {
  public:
    /// Locks `mutex`, which must outlive this object.
    explicit AutoMutex(Mutex& mutex) ACQUIRE(mutex) : m_Mutex(mutex) { m_Mutex.Lock(); }
    ~AutoMutex() RELEASE() { m_Mutex.Unlock(); }
    AutoMutex(const AutoMutex&) = delete;
    AutoMutex& operator=(const AutoMutex&) = delete;

  private:
    Mutex& m_Mutex;
};

/// A condition that threads wait for under a mutex. Waits may wake without cause: test the condition again.
class Condition {
  public:
    /// Lets `mutex`, which the caller holds, go for the time of the wait, and holds it again when it returns.
    void Wait(Mutex& mutex) REQUIRES(mutex) {
        std::unique_lock<std::mutex> held(mutex.m_Mutex, std::adopt_lock);
        m_Condition.wait(held);
        held.release();
    }

    /// The same, but no longer than until `deadline`. False when that has passed.
    bool WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline) REQUIRES(mutex) {
        std::unique_lock<std::mutex> held(mutex.m_Mutex, std::adopt_lock);
        const bool in_time = m_Condition.wait_until(held, deadline) == std::cv_status::no_timeout;
        held.release();
        return in_time;
    }

    /// Wakes one of the threads that wait, if any. With or without the mutex.
    void NotifyOne() { m_Condition.notify_one(); }
    /// Wakes all threads that wait.
    void NotifyAll() { m_Condition.notify_all(); }

  private:
    std::condition_variable m_Condition;
};

}  // namespace Mirel
