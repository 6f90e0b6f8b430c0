// Many receiving connections, read by one thread with one epoll descriptor, which counts messages of one
// length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Bench {

/// How many bytes a message takes, from the first bytes of one; 0: not enough bytes yet.
using MessageSize = std::size_t (*)(std::string_view begin);

/// A WebSocket frame from a server.
std::size_t WebSocketFrameSize(std::string_view begin);

class Drain {
  public:
    Drain();
    ~Drain();
    Drain(const Drain&) = delete;
    Drain& operator=(const Drain&) = delete;

    /// Takes the connected socket over.
    void Add(int socket);

    /// Reads what is there, waiting at most `wait_ms`; the number of bytes read.
    std::size_t Read(int wait_ms);
    /// Reads until that many messages, all as long as the first, have come to every connection; ends the
    /// program where nothing comes for 20 seconds or a connection ends.
    void ReadMessages(std::size_t messages, MessageSize size);

    std::size_t Bytes() const { return m_Bytes; }
    std::size_t Connections() const { return m_Sockets.size(); }
    /// The first bytes that came at all.
    std::string_view First() const { return {m_First, m_FirstSize}; }

  private:
    const int m_Epoll;
    std::vector<int> m_Sockets;
    std::vector<char> m_Room;
    std::size_t m_Bytes = 0;
    char m_First[512] = {};
    std::size_t m_FirstSize = 0;
    int m_FirstSocket = -1;
};

}  // namespace Bench
