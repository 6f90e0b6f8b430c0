// The answers that are going out on a connection.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "VL_Socket.h"
#include "http/Http.h"
#include "http/ReplyForm.h"

namespace Server {

/// Gathers answers and writes them together. Small bodies are put behind their head; a large one is sent from
/// where it is, and nothing can be added behind it until all is written.
class ConnectionOutput {
  public:
    /// Bytes that are gathered before they are to be written.
    static constexpr std::size_t Batch = 64u << 10;

    void Append(std::string_view text) { m_Text.append(text); }
    void Append(HttpResponse response, ReplyForm form);

    bool Pending() const { return !m_Text.empty() || m_Large; }
    /// Whether it is to be written before anything is added: backpressure on a client that asks faster than
    /// it reads.
    bool Full() const { return m_Large || m_Text.size() >= Batch; }

    /// Writes on; Moved once everything is written and the output is empty again.
    Velmora::StreamState Write(Velmora::SocketStream& stream);

    /// Whether a good part was written since this was asked last.
    bool Progressed();

  private:
    bool WrittenWhole() const;
    void Clear();

    std::string m_Text;
    std::optional<HttpResponse> m_Large;  // whose body follows the text
    std::size_t m_Written = 0;
    std::size_t m_Noted = 0;  // of that, when Progressed() last said so
};

}  // namespace Server
