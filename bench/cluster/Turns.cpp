// A posting's way from one node to the feed of another, in turns with a plain message's through the engine.
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>

#include "../load/Protocol.h"
#include "Bench.h"
#include "Beside.h"
#include "Measures.h"

namespace Bench {

namespace {

constexpr std::size_t BlockOf = 50;

/// Posts over one connection, and reads the feed over another.
class Rest {
  public:
    Rest(std::uint16_t post_at, std::uint16_t feed_at)
        : m_Protocol(ProtocolNamed("ws", 200, false)),
          m_Poster(ConnectWith(post_at, {}, {})),
          m_Feed(ConnectWith(feed_at, m_Protocol.Subscribe, m_Protocol.SubscribeEnd)) {}
    ~Rest() {
        close(m_Poster);
        close(m_Feed);
    }
    Rest(const Rest&) = delete;
    Rest& operator=(const Rest&) = delete;

    double Once_us() {
        const std::int64_t begin = Now_ns();
        SendAll(m_Poster, m_Protocol.Publish.data(), m_Protocol.Publish.size());
        Read(m_Feed, m_Delivered, m_Protocol.DeliverySize);
        const std::int64_t end = Now_ns();
        Read(m_Poster, m_Answered, m_Protocol.AnswerSize);
        return static_cast<double>(end - begin) / 1e3;
    }

  private:
    static void Read(int socket, std::string& text, MessageSize size_of) {
        char room[4096];
        std::size_t size = 0;
        while (text.empty() || (size = size_of(text)) == 0 || text.size() < size) {
            const ssize_t got = recv(socket, room, sizeof room, 0);
            Check(got > 0, "a connection ended");
            text.append(room, static_cast<std::size_t>(got));
        }
        text.erase(0, size);
    }

    const Protocol m_Protocol;
    const int m_Poster, m_Feed;
    std::string m_Delivered, m_Answered;
};

/// Publishes over one connection, and listens over another.
class Plain {
  public:
    Plain(const std::string& publish_at, const std::string& listen_at)
        : m_Publisher(publish_at), m_Listener(listen_at), m_Stream(m_Publisher) {
        jsSubOptions options;
        jsSubOptions_Init(&options);
        options.Stream = "beside";
        options.Ordered = true;
        jsErrCode code = jsErrCode(0);
        CheckEngine(js_Subscribe(&m_Subscription, m_Listener.Context(), BesideStream::Subject, Heard, this,
                                 nullptr, &options, &code),
                    "subscribing");
    }
    ~Plain() { natsSubscription_Destroy(m_Subscription); }
    Plain(const Plain&) = delete;
    Plain& operator=(const Plain&) = delete;

    double Once_us() {
        m_Heard_ns = 0;
        const std::int64_t begin = Now_ns();
        jsErrCode code = jsErrCode(0);
        CheckEngine(js_Publish(nullptr, m_Publisher.Context(), BesideStream::Subject, Body,
                               static_cast<int>(std::string_view(Body).size()), nullptr, &code),
                    "publishing");
        std::unique_lock lock(m_Lock);
        m_Came.wait(lock, [this] { return m_Heard_ns != 0; });
        return static_cast<double>(m_Heard_ns - begin) / 1e3;
    }

  private:
    static void Heard(natsConnection*, natsSubscription*, natsMsg* message, void* self) {
        const std::int64_t now = Now_ns();
        natsMsg_Destroy(message);
        Plain& own = *static_cast<Plain*>(self);
        const std::lock_guard lock(own.m_Lock);
        own.m_Heard_ns = now;
        own.m_Came.notify_one();
    }

    Connection m_Publisher, m_Listener;
    BesideStream m_Stream;
    natsSubscription* m_Subscription = nullptr;
    std::mutex m_Lock;
    std::condition_variable m_Came;
    std::atomic<std::int64_t> m_Heard_ns{0};
};

void PrintTimes(const std::string& of, std::vector<double>& times) {
    Print(of + "_p50_us", Percentile(times, 0.5));
    Print(of + "_p99_us", Percentile(times, 0.99));
}

}  // namespace

void MeasureTurns(const Turns& plan) {
    Rest rest(plan.PostAt, plan.FeedAt);
    Plain plain(plan.PublishAt, plan.ListenAt);
    std::vector<double> ours, beside;
    for (std::size_t i = 0; i < BlockOf; ++i) (void)(rest.Once_us() + plain.Once_us());  // the first are slow
    while (ours.size() < plan.Count) {
        for (std::size_t i = 0; i < BlockOf; ++i) ours.push_back(rest.Once_us());
        for (std::size_t i = 0; i < BlockOf; ++i) beside.push_back(plain.Once_us());
    }
    PrintTimes("ours", ours);
    PrintTimes("plain", beside);
}

}  // namespace Bench
