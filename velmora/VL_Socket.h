// Descriptors, and connections on them.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "MR_error.h"
#include "MR_types.h"

struct ssl_st;  // OpenSSL's SSL

namespace Velmora {

/// Makes the descriptor non-blocking. RESULT_PARAM, with the system's reason, where it is not an open one.
MR_EXPORT Mirel::Result_t SetSockNonBlocking(const int& descriptor);

/// What a step on a stream came to.
enum class StreamState {
    Moved,    ///< bytes went, or the step is done
    Blocked,  ///< nothing now: wait for what Interest() says, then do the same again
    Closed,   ///< the peer is done
    Failed,   ///< LastError() says why
};

/// The server's end of a connected stream socket, with TLS on top where there is one; owns both. Moved, not
/// copied: who holds the object holds the connection. On a non-blocking socket no operation waits. Writing
/// never raises SIGPIPE where the stream is plain; over TLS it does on a thread that does not block or ignore
/// that signal. Used by one thread at a time.
class MR_EXPORT SocketStream {
  public:
    /// Holds nothing.
    SocketStream() = default;
    /// Takes the descriptor of a connected stream socket over.
    explicit SocketStream(int descriptor) : m_Descriptor(descriptor) {}
    /// `from` holds nothing afterwards.
    SocketStream(SocketStream&& from) noexcept;
    /// Closes what it held; `from` holds nothing afterwards.
    SocketStream& operator=(SocketStream&& from) noexcept;
    ~SocketStream() { Close(); }

    /// Whether it holds a connection.
    bool Open() const { return m_Descriptor >= 0; }
    /// The socket, still the stream's; -1 where it holds none.
    int Descriptor() const { return m_Descriptor; }
    /// The peer's address and port, for the log; "unknown" where there are none.
    std::string Peer() const;

    /// Speaks TLS from now on: `tls` (taken over) does its I/O on the descriptor.
    void Secure(ssl_st* tls);
    /// Whether it speaks TLS.
    bool IsSecure() const { return m_TLS != nullptr; }

    /// Makes the socket fit for small messages: non-blocking, without Nagle's delay, TLS by the record. False
    /// when it is not a connected stream socket.
    bool Prepare();

    /// TLS's handshake; Moved once it is done, at once on a plain stream.
    StreamState Handshake();

    /// Sends from `data`, or from the pieces in turn; `done` is how much went. Where that is less than all
    /// the socket takes no more now. TLS may have made a record of what follows: where WriteCommitted() is
    /// not 0, the next call must offer the bytes behind `done`, and at least that many.
    StreamState Write(const char* data, std::size_t size, std::size_t& done);
    StreamState Write(const iovec* pieces, std::size_t count, std::size_t& done);  ///< @copydoc Write
    /// Bytes that the next Write() must offer at least; 0 where it may offer anything.
    std::size_t WriteCommitted() const { return m_WriteCommitted; }

    /// Reads what is there, at most `size` bytes; `done` is how many.
    StreamState Read(char* data, std::size_t size, std::size_t& done);
    /// Reads and throws away what is there, bytes as they are on the wire; `done` is how much that was.
    StreamState Discard(std::size_t& done);
    /// True when bytes wait to be read that the socket does not tell of.
    bool HasBuffered() const;

    /// Whether what was Blocked, reading or (`writing`) a write, waits for room to write instead of for
    /// bytes.
    bool WaitsForRoom(bool writing) const { return m_ReadWantsWrite || (writing && !m_WriteWantsRead); }
    /// Events (EPOLLIN, EPOLLOUT) to wait for, where a write is pending (`writing`) or not.
    std::uint32_t Interest(bool writing) const;

    /// Bytes that the kernel has taken and the peer has not; -1 where that is not known.
    long Unsent() const;

    /// Tells the peer that nothing more is coming.
    void EndWriting();
    /// Closes the connection, over TLS without a word to the peer. Nothing where it holds none.
    void Close();

    /// Why a step Failed, or Prepare().
    std::string LastError() const;

  private:
    StreamState Judge(ssize_t result, std::size_t& done);
    StreamState JudgeTLS(int result, bool writing);
    StreamState WriteTLS(const char* data, std::size_t size, std::size_t& done);
    StreamState Fail(int error);

    int m_Descriptor = -1;
    int m_Error = 0;               // the system's
    unsigned long m_TLSError = 0;  // OpenSSL's; 0 where it was the system's
    ssl_st* m_TLS = nullptr;
    std::size_t m_WriteCommitted = 0;
    bool m_WriteWantsRead = false;
    bool m_ReadWantsWrite = false;
};

}  // namespace Velmora
