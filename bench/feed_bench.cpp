// How fast the feed fans out, and what a posting costs its poster, beside a bare loop that sends a batch of
// ready frames a system call.
//
// feed_bench [DELIVERIES]: about so many deliveries a measurement (20,000,000 without).
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "VL_WebSocket.h"

namespace {

using Velmora::GetBroadcastCounters;
using Velmora::TCPSession;
using Velmora::WebSocketBroadcastManager;
using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

constexpr std::size_t PayloadSize = 200;
constexpr std::size_t FrameSize = PayloadSize + 4;
constexpr std::size_t BareBatch = 64;
constexpr std::size_t MostPostings = 200000;  // what the log holds of them

double SecondsSince(SteadyClock::time_point start) {
    return std::chrono::duration<double>(SteadyClock::now() - start).count();
}

// What the calling thread has computed: the cost of its work on a machine that is busy with other work too.
double ThreadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

[[noreturn]] void Fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

// Connected sockets whose far ends a thread reads empty, until the near ones are closed.
class Drain {
  public:
    explicit Drain(std::size_t clients) : m_Epoll(epoll_create1(0)) {
        for (std::size_t i = 0; i < clients; ++i) {
            int ends[2];
            if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) Fail("socketpair");
            Near.push_back(ends[0]);
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.fd = ends[1];
            epoll_ctl(m_Epoll, EPOLL_CTL_ADD, ends[1], &event);
        }
        m_Thread = std::thread([this] { Read(); });
    }
    ~Drain() {
        while (m_Closed < Near.size()) std::this_thread::yield();
        m_Stop = true;
        m_Thread.join();
        close(m_Epoll);
    }

    void Await(std::size_t bytes) const {
        while (m_Bytes.load(std::memory_order_relaxed) < bytes) std::this_thread::sleep_for(20us);
    }

    std::vector<int> Near;  // for the one who writes, who closes them

  private:
    void Read() {
        std::vector<char> room(256u << 10);
        std::vector<epoll_event> events(Near.size());
        while (!m_Stop) {
            const int count = epoll_wait(m_Epoll, events.data(), static_cast<int>(events.size()), 10);
            for (int i = 0; i < count; ++i) {
                const int far = events[static_cast<std::size_t>(i)].data.fd;
                const ssize_t got = recv(far, room.data(), room.size(), MSG_DONTWAIT);
                if (got > 0)
                    m_Bytes.fetch_add(static_cast<std::size_t>(got), std::memory_order_relaxed);
                else if (got == 0)
                    close(far), ++m_Closed;
            }
        }
    }

    const int m_Epoll;
    std::atomic<std::size_t> m_Bytes{0};
    std::atomic<std::size_t> m_Closed{0};
    std::atomic<bool> m_Stop{false};
    std::thread m_Thread;
};

struct Rates {
    double Deliveries;  // a second
    double Posting_ns;
};

// A burst of postings, from the first one to the last delivery.
Rates FanOut(std::size_t clients, std::size_t postings) {
    const std::string text(PayloadSize, 'x');
    Drain drain(clients);
    WebSocketBroadcastManager feed(30000);
    for (const int near : drain.Near) {
        TCPSession session = TCPSession::WebSocket(near, "bench");
        feed.AdoptWsClient(session);
    }
    const auto start = SteadyClock::now();
    const double before = ThreadSeconds();
    for (std::size_t i = 0; i < postings; ++i) feed.SendText(text);
    const double posting = ThreadSeconds() - before;
    drain.Await(clients * postings * FrameSize);
    const double all = SecondsSince(start);
    return {static_cast<double>(clients * postings) / all, posting * 1e9 / static_cast<double>(postings)};
}

// Sends everything to a full socket, too.
void SendAll(int socket, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = send(socket, data, size, MSG_NOSIGNAL);
        if (sent < 0) Fail("send");
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
}

// The least that a fan-out can do: batches of frames that stand ready, one blocking send each.
double BareLoop(std::size_t clients, std::size_t postings) {
    const std::string batch(BareBatch * FrameSize, 'x');
    Drain drain(clients);
    const std::size_t rounds = std::max<std::size_t>(postings / BareBatch, 1);
    const auto start = SteadyClock::now();
    for (std::size_t round = 0; round < rounds; ++round)
        for (const int near : drain.Near) SendAll(near, batch.data(), batch.size());
    drain.Await(clients * rounds * batch.size());
    const double all = SecondsSince(start);
    for (const int near : drain.Near) close(near);
    return static_cast<double>(clients * rounds * BareBatch) / all;
}

// What a posting costs that follows the one before after `pause`, when everybody has got that.
double spaced_posting_ns(std::size_t clients, std::chrono::microseconds pause) {
    constexpr std::size_t Postings = 500;
    const std::string text(PayloadSize, 'x');
    Drain drain(clients);
    WebSocketBroadcastManager feed(30000);
    for (const int near : drain.Near) {
        TCPSession session = TCPSession::WebSocket(near, "bench");
        feed.AdoptWsClient(session);
    }
    double total = 0;
    for (std::size_t i = 1; i <= Postings; ++i) {
        const double before = ThreadSeconds();
        feed.SendText(text);
        total += ThreadSeconds() - before;
        drain.Await(clients * i * FrameSize);
        for (const auto end = SteadyClock::now() + pause; SteadyClock::now() < end;) continue;
    }
    return total * 1e9 / static_cast<double>(Postings);
}

void RaiseDescriptorLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
    const std::size_t deliveries = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 20000000;
    RaiseDescriptorLimit();
    std::printf("payload %zu bytes, one sending and one reading thread\n", PayloadSize);
    std::printf("%8s %10s %18s %18s %12s %14s %14s\n", "clients", "postings", "feed, M/s", "bare loop, M/s",
                "posting, ns", "at once, ns", "after 1 ms, ns");
    for (const std::size_t clients : {1u, 10u, 100u, 1000u}) {
        const std::size_t postings = std::clamp<std::size_t>(deliveries / clients, 1, MostPostings);
        const Rates feed = FanOut(clients, postings);
        const double bare = BareLoop(clients, postings);
        std::printf("%8zu %10zu %18.2f %18.2f %12.0f %14.0f %14.0f\n", clients, postings,
                    feed.Deliveries / 1e6, bare / 1e6, feed.Posting_ns, spaced_posting_ns(clients, 0us),
                    spaced_posting_ns(clients, 1000us));
        std::fflush(stdout);
    }
    const unsigned long long slow = GetBroadcastCounters().SlowDisconnects;
    if (slow != 0) std::printf("%llu clients were too slow: the figures are void\n", slow);
    return slow == 0 ? 0 : 1;
}
