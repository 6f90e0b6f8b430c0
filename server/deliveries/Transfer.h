// One attempt of one delivery, as libcurl makes it.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "VL_HTTP.h"
#include "config/Destinations.h"
#include "deliveries/Delivery.h"

namespace Server {

/// How an attempt ended.
struct TransferEnd {
    Velmora::RequestFailure Failure = Velmora::RequestFailure::None;
    int Status = 0;
    Mirel::ui32_t Duration_ms = 0;
    std::string Reason;  ///< why there is no answer
    std::string Answer;  ///< its first KiB
    Mirel::i64_t RetryAfter_sec = 0;
};

/// Set up on construction, then put into a multi handle by its owner. Holds all that the handle refers to.
class Transfer {
  public:
    /// `self` is the server's own URL, for callbacks that are paths.
    Transfer(const Delivery& delivery, std::shared_ptr<const Destination> destination,
             const Velmora::URL& self, Mirel::ui32_t timeout_ms);
    ~Transfer();
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    /// libcurl's handle; null where there is no memory or the request cannot be made: End() says why.
    void* Handle() const;
    Mirel::ui64_t Id() const { return m_Id; }
    const Velmora::URL& Url() const { return m_Url; }
    /// `code` is libcurl's.
    TransferEnd End(int code) const;

  private:
    struct Curl;

    void SetRequest(const Delivery& delivery);
    void SetHeaders(const Delivery& delivery);
    void SetTls();
    bool FindTarget(const Delivery& delivery, const Velmora::URL& self);
    void SetFailure(int code, TransferEnd& end) const;
    static Velmora::RequestFailure FailureOf(int code);

    const Mirel::ui64_t m_Id;
    const std::shared_ptr<const Destination> m_Destination;
    Velmora::URL m_Url;
    std::string m_Authorization, m_Address;  // of calls to the server itself
    std::string m_Text;                      // the URL's
    const std::shared_ptr<const std::string> m_Body;
    std::chrono::steady_clock::time_point m_Began = std::chrono::steady_clock::now();
    std::unique_ptr<Curl> m_Curl;
};

}  // namespace Server
