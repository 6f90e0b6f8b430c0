// The connections that are open, and the end of those that take too long.
#pragma once

#include <atomic>
#include <chrono>
#include <coroutine>
#include <cstddef>
#include <vector>

#include "MR_mutex.h"
#include "MR_types.h"

namespace Server {

/// Milliseconds on a clock that never jumps and costs next to nothing to read; exact to a few milliseconds.
Mirel::i64_t CoarseNow_ms();

/// What others than the thread that serves a connection may see of it.
struct ConnectionLife {
    enum class Phase {
        Handshake,
        Idle,      // between requests
        Reading,   // some of a request is there
        Handling,  // being answered, or waiting to be
        Writing,   // the peer does not take the answer as fast as it is written
        Draining,  // everything is written; the peer is to close
    };

    explicit ConnectionLife(int descriptor) : Descriptor(descriptor) {}

    const int Descriptor;
    std::atomic<Phase> Now{Phase::Handshake};
    std::atomic<Mirel::i64_t> Deadline_ms{0};  // 0: none
    std::atomic<bool> Expired{false};

    /// From now on in `phase`, for at most `limit_ms` (0: without a limit). Whoever looks from outside may
    /// see it a little later, and looks again.
    void Enter(Phase phase, Mirel::i64_t limit_ms) {
        Deadline_ms.store(limit_ms == 0 ? 0 : CoarseNow_ms() + limit_ms, std::memory_order_release);
        Now.store(phase, std::memory_order_release);
    }

    std::coroutine_handle<> Frame;  // of what serves the connection; immutable once that is registered
    std::size_t Index = 0;          // the registry's
};

/// Knows every open connection. Ends them from outside by shutting their sockets down, which the thread that
/// serves them sees as the end of the input. All operations may be called from any thread.
class ConnectionRegistry {
  public:
    void Add(ConnectionLife& life);
    /// To be called before the descriptor is closed or given away.
    void Remove(ConnectionLife& life);
    std::size_t Size() const { return m_Size.load(); }

    /// Ends the connections whose deadline has passed. One that was reading a request can still be answered.
    void EndExpired();
    /// Ends those that are not at work on a request; all of them where `everyone` is true.
    void EndIdle(bool everyone);
    /// Destroys what serves them. For the end, when no thread serves any more.
    void DestroyAll();
    /// Waits until none is left; false where `deadline` came first.
    bool WaitUntilEmpty(std::chrono::steady_clock::time_point deadline);

  private:
    Mirel::Mutex m_Lock;
    Mirel::Condition m_Empty;
    std::vector<ConnectionLife*> m_Lives GUARDED_BY(m_Lock);
    std::atomic<std::size_t> m_Size{0};
};

}  // namespace Server
