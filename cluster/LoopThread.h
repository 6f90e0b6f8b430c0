// A thread that runs one function, which asks it whether to go on and how long to rest.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>

#include "MR_mutex.h"
#include "MR_thread.h"

namespace Cluster {

/// Runs the function once it is started. The function returns when Stopping() is true.
class LoopThread : public Mirel::Thread {
  public:
    explicit LoopThread(std::function<void(LoopThread&)> body) : m_Body(std::move(body)) {}
    ~LoopThread() override {
        End();
        WaitUntilFinished();
    }

    bool Stopping() const { return m_Stopping.load(std::memory_order_acquire); }
    /// Until the time is over, or somebody wakes or stops the thread.
    void Rest(std::chrono::milliseconds time) {
        Mirel::AutoMutex lock(m_Lock);
        const auto until = std::chrono::steady_clock::now() + time;
        while (!m_Woken && !Stopping() && m_Wake.WaitUntil(m_Lock, until)) {
        }
        m_Woken = false;
    }
    void Wake() {
        Mirel::AutoMutex lock(m_Lock);
        m_Woken = true;
        m_Wake.NotifyAll();
    }
    /// Asks it to end, without waiting.
    void End() {
        Mirel::AutoMutex lock(m_Lock);
        m_Stopping.store(true, std::memory_order_release);
        m_Wake.NotifyAll();
    }
    /// Asks it to end, and waits.
    void EndAndWait() {
        End();
        WaitUntilFinished();
    }

  private:
    Mirel::Result_t ThreadInit() override { return Mirel::RESULT_OK; }
    Mirel::Result_t ThreadBody() override {
        m_Body(*this);
        return Mirel::RESULT_OK;
    }
    Mirel::Result_t ThreadFini(Mirel::Result_t result) override { return result; }
    Mirel::Result_t ThreadStop() override {
        End();
        return Mirel::RESULT_OK;
    }

    std::function<void(LoopThread&)> m_Body;
    std::atomic<bool> m_Stopping{false};
    Mirel::Mutex m_Lock;
    Mirel::Condition m_Wake;
    bool m_Woken GUARDED_BY(m_Lock) = false;
};

}  // namespace Cluster
