// The connections that are open, and the end of those that take too long.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <vector>

#include "MR_mutex.h"
#include "http/ConnectionLife.h"

namespace Server {

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
