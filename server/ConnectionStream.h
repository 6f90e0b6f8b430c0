// A connection's bytes, plain or over TLS, without waiting for them.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <memory>
#include <string>

#include "MR_error.h"

struct ssl_st;
struct ssl_ctx_st;

namespace Server {

/// The server's certificate and key, and how TLS is spoken (1.2 and above). Usable from any thread once
/// loaded.
class TlsIdentity {
  public:
    /// Reads a PEM file with the certificate chain and the key. RESULT_FILEOPEN with one clear line
    /// otherwise.
    Mirel::Result_t Load(const std::string& path);
    ssl_ctx_st* Context() const { return m_Context.get(); }

  private:
    std::shared_ptr<ssl_ctx_st> m_Context;
};

/// What a step on the stream came to.
enum class IoStatus { Done, WantRead, WantWrite, Closed, Failed };
struct IoResult {
    IoStatus Status = IoStatus::Done;
    std::size_t Bytes = 0;
};

/// Reads and writes on a non-blocking socket that somebody else owns. Used by one thread at a time.
class ConnectionStream {
  public:
    /// Without an identity the stream is plain.
    ConnectionStream(int descriptor, const TlsIdentity* identity);
    ~ConnectionStream();
    ConnectionStream(const ConnectionStream&) = delete;
    ConnectionStream& operator=(const ConnectionStream&) = delete;

    /// The client's address and port, for the log.
    std::string Peer() const;
    bool Secure() const { return m_Tls != nullptr; }
    /// The server's part of the TLS handshake; Done at once on a plain stream.
    IoResult Handshake();
    IoResult Read(char* to, std::size_t size);
    /// Writes what can be written; Done with the number of bytes (may be fewer than all).
    IoResult Write(const iovec* pieces, std::size_t count);
    /// Says that nothing more will be sent.
    void EndWriting();
    /// Reads and throws away what is there, bytes as they are on the wire; Closed at their end.
    IoResult Discard();
    /// Gives the TLS state away (null for a plain stream); it goes on doing its I/O on the descriptor.
    ssl_st* ReleaseTls();

  private:
    IoResult Outcome(int result) const;

    const int m_Descriptor;
    ssl_st* m_Tls = nullptr;
};

}  // namespace Server
