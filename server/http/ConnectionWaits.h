// What a connection's coroutine can wait for.
#pragma once

#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <coroutine>
#include <cstddef>
#include <new>

#include "MR_log.h"
#include "http/LaterAnswer.h"
#include "http/ThreadPool.h"

namespace Server {

// As soon as an operation has begun, another thread may have resumed the coroutine, or ended it:
// await_suspend() touches nothing of the awaitable after that, and is not inlined, for g++ 12 then keeps what
// it still needs of it in the coroutine's frame.

/// A socket as the loop knows it, for a stream that goes on owning the descriptor.
class PolledSocket {
  public:
    using Socket =
        boost::asio::basic_stream_socket<boost::asio::ip::tcp, boost::asio::io_context::executor_type>;

    /// Registers the descriptor with the kernel. Throws where the system refuses.
    PolledSocket(boost::asio::io_context& io, int descriptor) : m_Socket(io.get_executor()) {
        m_Socket.assign(boost::asio::ip::tcp::v4(), descriptor);
    }
    ~PolledSocket() { Release(); }
    PolledSocket(const PolledSocket&) = delete;
    PolledSocket& operator=(const PolledSocket&) = delete;

    /// Takes it from the loop again. To be called before the descriptor is closed or given away.
    void Release() {
        boost::system::error_code ignored;
        if (m_Socket.is_open()) m_Socket.release(ignored);
    }
    Socket& operator*() { return m_Socket; }

  private:
    Socket m_Socket;
};

/// Until the socket can be read, or written, or has failed. The kernel is asked each time.
class SocketWait {
  public:
    SocketWait(PolledSocket& socket, bool for_room)
        : m_Socket(socket), m_What(for_room ? Socket::wait_write : Socket::wait_read) {}

    bool await_ready() const noexcept { return false; }
    [[gnu::noinline]] void await_suspend(std::coroutine_handle<> frame) {
        (*m_Socket).async_wait(m_What, [frame](boost::system::error_code) { frame.resume(); });
    }
    void await_resume() const noexcept {}

  private:
    using Socket = PolledSocket::Socket;

    PolledSocket& m_Socket;
    const Socket::wait_type m_What;
};

/// Bytes of a plain connection. Answers how many came, 0 at their end. The kernel is not asked to tell of
/// them: it does so anyway, since the socket was registered.
class BytesWait {
  public:
    BytesWait(PolledSocket& socket, char* to, std::size_t size) : m_Socket(socket), m_Room(to, size) {}

    bool await_ready() const noexcept { return false; }
    [[gnu::noinline]] void await_suspend(std::coroutine_handle<> frame) {
        (*m_Socket).async_read_some(m_Room, [this, frame](boost::system::error_code, std::size_t bytes) {
            m_Bytes = bytes;
            frame.resume();
        });
    }
    std::size_t await_resume() const noexcept { return m_Bytes; }

  private:
    PolledSocket& m_Socket;
    const boost::asio::mutable_buffer m_Room;
    std::size_t m_Bytes = 0;
};

/// Until the others have had their turn.
class TurnWait {
  public:
    explicit TurnWait(boost::asio::io_context& io) : m_Io(io) {}

    bool await_ready() const noexcept { return false; }
    [[gnu::noinline]] void await_suspend(std::coroutine_handle<> frame) {
        boost::asio::post(m_Io, [frame] { frame.resume(); });
    }
    void await_resume() const noexcept {}

  private:
    boost::asio::io_context& m_Io;
};

/// Until an answer that comes later is there.
class LaterWait {
  public:
    LaterWait(LaterAnswer& answer, boost::asio::io_context& io) : m_Answer(answer), m_Io(io) {}
    ~LaterWait() { m_Answer.Forget(); }
    LaterWait(const LaterWait&) = delete;
    LaterWait& operator=(const LaterWait&) = delete;

    bool await_ready() const noexcept { return false; }
    [[gnu::noinline]] bool await_suspend(std::coroutine_handle<> frame) {
        return m_Answer.Wait([&io = m_Io, frame] { boost::asio::post(io, [frame] { frame.resume(); }); });
    }
    void await_resume() const noexcept {}

  private:
    LaterAnswer& m_Answer;
    boost::asio::io_context& m_Io;
};

/// Until the request may go into the pool. Answers whether it is inside, not if its time is over or too many
/// wait.
class AdmissionWait : private AdmissionWaiter {
  public:
    AdmissionWait(ThreadPool& pool, boost::asio::io_context& io) : m_Pool(pool), m_Io(io) {}

    bool await_ready() const noexcept { return false; }
    [[gnu::noinline]] bool await_suspend(std::coroutine_handle<> frame) {
        m_Frame = frame;
        return m_Pool.Wait(*this);
    }
    bool await_resume() const noexcept { return m_Admitted; }

  private:
    // From any thread; the coroutine goes on on one of the loop's.
    void Resume(bool admitted) override {
        m_Admitted = admitted;
        const std::coroutine_handle<> frame = m_Frame;
        ThreadPool& pool = m_Pool;
        try {
            boost::asio::post(m_Io, [frame] { frame.resume(); });
        } catch (const std::bad_alloc&) {
            Mirel::DefaultLogSink().Error("A waiting request is dropped: out of memory\n");
            frame.destroy();
            if (admitted) pool.GiveBack();
        }
    }

    ThreadPool& m_Pool;
    boost::asio::io_context& m_Io;
    std::coroutine_handle<> m_Frame;
    bool m_Admitted = false;
};

}  // namespace Server
