// libcurl's handles: set up once for the process, shared where sharing saves work, kept for the next
// exchange.
#pragma once

#include <curl/curl.h>

#include <string>

namespace Velmora {

/// The easy handle of one exchange, borrowed from the process's small stock of idle ones.
///
/// An idle handle saves its next user the building of libcurl's inner state (about a tenth of a whole
/// exchange on the loopback, and for verified https the reading of the system's certificates); connections
/// are never carried over. One thread uses a handle at a time; borrowing and returning are thread-safe.
class CurlHandle {
  public:
    CurlHandle();
    ~CurlHandle();
    CurlHandle(const CurlHandle&) = delete;
    CurlHandle& operator=(const CurlHandle&) = delete;

    /// Null where libcurl found no memory for one.
    CURL* Get() const { return m_Handle; }

    /// The exchange went well: the handle may serve another one.
    void KeepForReuse() { m_Reusable = true; }

  private:
    CURL* m_Handle;
    bool m_Reusable = false;
};

/// The store of DNS results and TLS sessions that exchanges with `authority` ("host:port") use. It locks
/// itself and lives until the process ends. Null where libcurl found no memory for it; exchanges then share
/// nothing.
CURLSH* SharedCurlStore(const std::string& authority);

}  // namespace Velmora
