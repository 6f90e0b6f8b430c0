// Reads many receiving connections with one thread.
#include "Drain.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "Bench.h"

namespace Bench {

namespace {
constexpr std::size_t RoomSize = 256u << 10;
constexpr std::int64_t Silence_ns = 20'000'000'000;
}  // namespace

std::size_t WebSocketFrameSize(std::string_view begin) {
    if (begin.size() < 10) return 0;
    const auto byte = [&](std::size_t i) {
        return static_cast<std::size_t>(static_cast<unsigned char>(begin[i]));
    };
    const std::size_t length = byte(1) & 127;
    if (length < 126) return 2 + length;
    return length == 126 ? 4 + (byte(2) << 8 | byte(3)) : 10 + (byte(7) << 16 | byte(8) << 8 | byte(9));
}

Drain::Drain() : m_Epoll(epoll_create1(EPOLL_CLOEXEC)), m_Room(RoomSize) {}

Drain::~Drain() {
    for (const int socket : m_Sockets) close(socket);
    close(m_Epoll);
}

void Drain::Add(int socket) {
    m_Sockets.push_back(socket);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = socket;
    Check(epoll_ctl(m_Epoll, EPOLL_CTL_ADD, socket, &event) == 0, "epoll_ctl");
}

std::size_t Drain::Read(int wait_ms) {
    std::array<epoll_event, 256> events;
    const int count = epoll_wait(m_Epoll, events.data(), static_cast<int>(events.size()), wait_ms);
    std::size_t bytes = 0;
    for (int i = 0; i < count; ++i) {
        const int socket = events[static_cast<std::size_t>(i)].data.fd;
        const ssize_t got = recv(socket, m_Room.data(), m_Room.size(), MSG_DONTWAIT);
        if (got < 0 && errno == EAGAIN) continue;
        Check(got > 0, "a client was disconnected");
        if (m_FirstSocket < 0) m_FirstSocket = socket;
        if (socket == m_FirstSocket && m_FirstSize < sizeof(m_First)) {
            const std::size_t more = std::min(static_cast<std::size_t>(got), sizeof(m_First) - m_FirstSize);
            std::memcpy(m_First + m_FirstSize, m_Room.data(), more);
            m_FirstSize += more;
        }
        bytes += static_cast<std::size_t>(got);
    }
    m_Bytes += bytes;
    return bytes;
}

void Drain::ReadMessages(std::size_t messages, MessageSize size) {
    std::size_t expected = 0;
    std::int64_t last = Now_ns();
    while (expected == 0 || m_Bytes < expected) {
        if (Read(1000) > 0) last = Now_ns();
        if (expected == 0) expected = size(First()) * messages * Connections();
        errno = ETIMEDOUT;
        Check(Now_ns() - last < Silence_ns, "waiting for messages");
    }
}

}  // namespace Bench
