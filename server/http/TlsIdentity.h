// The server's certificate and key.
#pragma once

#include <memory>
#include <string>

#include "MR_error.h"
#include "VL_Socket.h"

struct ssl_ctx_st;

namespace Server {

/// The server's certificate and key, and how TLS is spoken (1.2 and above). Usable from any thread once
/// loaded.
class TlsIdentity {
  public:
    /// Reads a PEM file with the certificate chain and the key. RESULT_FILEOPEN with one clear line
    /// otherwise.
    Mirel::Result_t Load(const std::string& path);

    /// Has the stream speak TLS, as the server; its handshake is to come.
    void Secure(Velmora::SocketStream& stream) const;

  private:
    std::shared_ptr<ssl_ctx_st> m_Context;
};

}  // namespace Server
