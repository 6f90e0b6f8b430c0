// One publishing connection: keeps its window full and reads the answers.
#include "Publisher.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "Bench.h"

namespace Bench {

Publisher::Publisher(const Protocol& protocol, std::uint16_t port)
    : m_Protocol(protocol),
      m_Socket(ConnectWith(port, protocol.PublisherHello, protocol.PublisherHelloEnd)) {}

Publisher::~Publisher() {
    close(m_Socket);
}

void Publisher::Fill(std::size_t window, std::size_t& budget) {
    while (budget > 0 && Unanswered() + m_Protocol.Batch <= window) {
        for (std::size_t i = 0; i < m_Protocol.Batch; ++i) m_Out += m_Protocol.Publish;
        m_Out += m_Protocol.PublishBatchEnd;
        m_Published += m_Protocol.Batch;
        budget -= std::min(budget, m_Protocol.Batch);
    }
    Flush();
}

void Publisher::PublishNow() {
    char time[TimeDigits + 1];
    std::snprintf(time, sizeof(time), "%019lld", static_cast<long long>(Now_ns()));
    std::string publication = m_Protocol.Publish;
    publication.replace(publication.find(TimeMark) + 2, TimeDigits, time);
    m_Out += publication;
    ++m_Published;
    Flush();
}

void Publisher::Flush() {
    while (!m_Out.empty()) {
        const ssize_t sent = send(m_Socket, m_Out.data(), m_Out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno == EAGAIN) return;
        Check(sent > 0, "publishing");
        m_Out.erase(0, static_cast<std::size_t>(sent));
    }
}

void Publisher::Receive() {
    Flush();
    char room[64 << 10];
    const ssize_t got = recv(m_Socket, room, sizeof(room), MSG_DONTWAIT);
    if (got < 0 && errno == EAGAIN) return;
    Check(got > 0, "a publisher was disconnected");
    m_In.append(room, static_cast<std::size_t>(got));
    CountAnswers();
}

// Every answer is looked at, since their lengths differ where one counts or holds a time.
void Publisher::CountAnswers() {
    std::size_t read = 0;
    while (read < m_In.size()) {
        const std::size_t size = m_Protocol.AnswerSize(std::string_view(m_In).substr(read));
        if (size == 0 || read + size > m_In.size()) break;
        read += size;
        m_Answered += m_Protocol.Batch;
    }
    m_In.erase(0, read);
}

}  // namespace Bench
