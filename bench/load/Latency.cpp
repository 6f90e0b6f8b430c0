// How long a publication takes to its subscribers, at a fixed rate of postings.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Bench.h"
#include "Load.h"
#include "Publisher.h"

namespace Bench {

namespace {

constexpr std::size_t Posters = 8;
constexpr std::int64_t Patience_ns = 5'000'000'000;

// Receivers that read the time out of every delivery. The driver never sleeps, so that its own waking up is
// in no figure.
class TimedClients {
  public:
    TimedClients(const Protocol& protocol, const Steady& plan) : m_Epoll(epoll_create1(EPOLL_CLOEXEC)) {
        for (std::size_t i = 0; i < plan.Clients; ++i) {
            const int socket = ConnectWith(plan.Port, protocol.Subscribe, protocol.SubscribeEnd);
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u64 = m_Left.size();
            m_Sockets.push_back(socket);
            m_Left.emplace_back();
            Check(epoll_ctl(m_Epoll, EPOLL_CTL_ADD, socket, &event) == 0, "epoll_ctl");
        }
    }
    ~TimedClients() {
        for (const int socket : m_Sockets) close(socket);
        close(m_Epoll);
    }
    TimedClients(const TimedClients&) = delete;
    TimedClients& operator=(const TimedClients&) = delete;

    void Read() {
        std::array<epoll_event, 128> events;
        const int count = epoll_wait(m_Epoll, events.data(), static_cast<int>(events.size()), 0);
        for (int i = 0; i < count; ++i) ReadOne(events[static_cast<std::size_t>(i)].data.u64);
    }

    std::vector<double> Latencies_us;

  private:
    void ReadOne(std::size_t client) {
        const ssize_t got = recv(m_Sockets[client], m_Room.data(), m_Room.size(), MSG_DONTWAIT);
        if (got < 0 && errno == EAGAIN) return;
        Check(got > 0, "a client was disconnected");
        const std::int64_t now = Now_ns();
        std::string& text = m_Left[client];
        text.append(m_Room.data(), static_cast<std::size_t>(got));
        std::size_t from = 0;
        for (;;) {
            const std::size_t mark = text.find(TimeMark, from);
            if (mark == text.npos || mark + 2 + TimeDigits > text.size()) {
                text.erase(0, mark == text.npos ? text.size() - (text.empty() ? 0 : 1) : mark);
                return;
            }
            from = mark + 2 + TimeDigits;
            const std::int64_t sent = std::strtoll(text.substr(mark + 2, TimeDigits).c_str(), nullptr, 10);
            Latencies_us.push_back(static_cast<double>(now - sent) / 1e3);
        }
    }

    const int m_Epoll;
    std::vector<int> m_Sockets;
    std::vector<std::string> m_Left;  // of a delivery that is not whole yet
    std::array<char, 64 << 10> m_Room;
};

}  // namespace

void MeasureLatency(const Protocol& protocol_as_named, const Steady& plan) {
    Protocol protocol = protocol_as_named;
    protocol.Batch = 1;
    TimedClients clients(protocol, plan);
    std::vector<std::unique_ptr<Publisher>> posters;
    for (std::size_t i = 0; i < Posters; ++i)
        posters.push_back(std::make_unique<Publisher>(protocol, plan.Port));

    const std::size_t postings = plan.Rate * plan.Milliseconds / 1000;
    const std::int64_t interval = 1'000'000'000 / static_cast<std::int64_t>(plan.Rate);
    std::int64_t due = Now_ns();
    const std::int64_t end = due + static_cast<std::int64_t>(plan.Milliseconds) * 1'000'000 + Patience_ns;
    std::size_t sent = 0;
    while (clients.Latencies_us.size() < postings * plan.Clients && Now_ns() < end) {
        if (sent < postings && Now_ns() >= due) {
            posters[sent % Posters]->PublishNow();
            ++sent;
            due += interval;
        }
        for (const auto& poster : posters) {
            if (poster->Unanswered() > 0) poster->Receive();
        }
        clients.Read();
    }
    Print("missing", static_cast<double>(postings * plan.Clients - clients.Latencies_us.size()));
    Print("p50_us", Percentile(clients.Latencies_us, 0.5));
    Print("p99_us", Percentile(clients.Latencies_us, 0.99));
}

}  // namespace Bench
