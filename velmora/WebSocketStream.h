// The bytes of one client's connection, in plain or over TLS.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct ssl_st;

namespace Velmora::Feed {

enum class StreamState {
    Moved,    // at least one byte
    Blocked,  // none now: wait for what Interest() says
    Closed,   // the peer is done
    Failed,   // LastError() says why
};

/// A connected stream socket, with TLS on top where there is one; owns both. Never blocks and never raises
/// SIGPIPE on a thread that blocks that signal (TLS) or at all (plain). Not thread-safe.
class Stream {
  public:
    Stream() = default;
    Stream(int descriptor, ssl_st* tls) : m_Descriptor(descriptor), m_TLS(tls) {}
    Stream(Stream&& from) noexcept;
    Stream& operator=(Stream&& from) noexcept;
    ~Stream() { Close(); }

    bool Open() const { return m_Descriptor >= 0; }
    int Descriptor() const { return m_Descriptor; }

    /// Makes the socket fit for the feed: non-blocking, without Nagle's delay. False when it is not a
    /// connected stream socket.
    bool Prepare();

    /// Sends from `data`; `done` is how much went. Where that is less than `size` the socket takes no more
    /// now. TLS may have made a record of what follows: where WriteCommitted() is not 0, the next call must
    /// offer the bytes behind `done`, and at least that many.
    StreamState Write(const char* data, std::size_t size, std::size_t& done);
    std::size_t WriteCommitted() const { return m_WriteCommitted; }

    StreamState Read(char* data, std::size_t size, std::size_t& done);
    /// True when bytes wait to be read that the socket does not tell of.
    bool HasBuffered() const;

    /// Events (EPOLLIN, EPOLLOUT) to wait for, where a write is pending (`writing`) or not.
    std::uint32_t Interest(bool writing) const;

    /// Bytes that the kernel has taken and the peer has not; -1 where that is not known.
    long Unsent() const;

    /// Tells the peer that nothing more is coming.
    void EndWriting();
    void Close();

    const std::string& LastError() const { return m_LastError; }

  private:
    StreamState WriteTLS(const char* data, std::size_t size, std::size_t& done);
    StreamState Fail(int error);
    StreamState JudgeTLS(int result, bool writing);

    int m_Descriptor = -1;
    ssl_st* m_TLS = nullptr;
    std::size_t m_WriteCommitted = 0;
    bool m_WriteWantsRead = false;
    bool m_ReadWantsWrite = false;
    std::string m_LastError;
};

}  // namespace Velmora::Feed
