// Waiting for sockets that were registered with the kernel once.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "MR_mutex.h"
#include "MR_types.h"

namespace boost::asio {
class io_context;
}

namespace Server {

/// What waits for a socket. It is owned by what it waits for.
class SocketWaiter {
  public:
    virtual ~SocketWaiter() = default;
    /// The socket may be ready. On a thread of the loop.
    virtual void Ready(std::unique_ptr<SocketWaiter> self) = 0;
};

/// Tells when sockets can be read or written again, through a loop that others use as well. Each socket is
/// registered with the kernel once, edge-triggered: the loop's own wait would be a system call for every
/// request, a tenth of what a small one costs in all. All operations but Open() and Close() may be called
/// from any thread.
class SocketPoll {
  public:
    enum class For { Read, Write };

    explicit SocketPoll(boost::asio::io_context& io);
    ~SocketPoll();
    SocketPoll(const SocketPoll&) = delete;
    SocketPoll& operator=(const SocketPoll&) = delete;

    /// Begins to listen to the kernel; false, with errno, where the system refuses.
    bool Open();
    /// Destroys all that wait. The loop must have been stopped, and must still be there.
    void Close();

    /// Registers a socket; `place` stands for it from now on. False, with errno, where the system refuses.
    bool Add(int descriptor, std::size_t& place);
    /// To be called before the descriptor is closed or given away, while nothing waits for it.
    void Remove(int descriptor, std::size_t place);

    /// Keeps `waiter` until the socket may be ready. False, and the waiter stays where it is, where it became
    /// so since it was waited for last: the caller tries again at once. One that waits reads or writes, after
    /// Add() or Ready(), until the system says that it would block, or has given less than was asked for.
    bool Wait(std::size_t place, For what, std::unique_ptr<SocketWaiter>& waiter);

  private:
    class Impl;
    struct Place {
        std::unique_ptr<SocketWaiter> Waiter;
        Mirel::ui32_t Round = 0;  // of its use: an event that was meant for an earlier one is not heard
        bool Ready = false;       // an event came while nothing waited
        bool Ended = false;       // there will be no further event for the input's end
    };

    void Resume(std::unique_ptr<SocketWaiter> waiter);
    void Await();
    void Collect();

    boost::asio::io_context& m_Io;
    std::unique_ptr<Impl> m_Impl;

    Mirel::Mutex m_Lock;
    std::vector<Place> m_Places GUARDED_BY(m_Lock);
    std::vector<std::size_t> m_Free GUARDED_BY(m_Lock);
};

}  // namespace Server
