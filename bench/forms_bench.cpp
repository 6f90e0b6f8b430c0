// What subscribers of the feed cost beside its plain clients: a burst in each form and over TLS, many who
// want little, many who come back at once, and those who only wait.
//
// forms_bench [REDIS_PORT]: with a port, readers take as many entries each out of a stream of that Redis.
// forms_bench idle: those who only wait.
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Bench.h"
#include "Drain.h"
#include "MR_log.h"
#include "VL_WebSocket.h"

namespace {

using namespace Velmora;
using Bench::Check;
using Bench::Now_ns;
using Bench::Print;

constexpr std::size_t Missed = 10'000;
constexpr std::size_t ManyClients = 1'000;
// It serves them one after the other: more take longer in proportion.
constexpr std::size_t RedisReaders = 100;
constexpr std::size_t IdleClients = 9'900;  // two descriptors each, where 20,000 may be had
const std::string Epoch = "0123456789abcdef";

// A posting as the feed takes it, about 200 bytes of JSON.
PListDict Posting(const std::string& name) {
    PListDict posting;
    posting.SetValue("event_name", name);
    posting.SetValue("post_data", std::string(160, 'x'));
    return posting;
}

// A history of postings that never changes.
class Past : public PostingSource {
  public:
    explicit Past(std::size_t postings) : m_Last(postings), m_Posting(Posting("bench.event")) {}
    Place PlaceAfter(const PostingId* after) const override {
        return {{Epoch, m_Last}, after ? after->Number : m_Last, false};
    }
    bool Read(ui64_t after, std::size_t most, std::vector<NumberedPosting>& postings) const override {
        for (; most > 0 && after < m_Last; --most) postings.push_back({++after, m_Posting});
        return true;
    }

  private:
    const ui64_t m_Last;
    const PListDict m_Posting;
};

// Both ends' side of TLS, with a certificate made for this run.
class Tls {
  public:
    Tls() : m_Server(SSL_CTX_new(TLS_server_method())), m_Client(SSL_CTX_new(TLS_client_method())) {
        EVP_PKEY* key = EVP_EC_gen("P-256");
        X509* certificate = X509_new();
        ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
        X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
        X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
        X509_set_pubkey(certificate, key);
        X509_sign(certificate, key, EVP_sha256());
        SSL_CTX_use_certificate(m_Server, certificate);
        SSL_CTX_use_PrivateKey(m_Server, key);
        X509_free(certificate);
        EVP_PKEY_free(key);
    }
    ~Tls() {
        SSL_CTX_free(m_Server);
        SSL_CTX_free(m_Client);
    }
    Tls(const Tls&) = delete;
    Tls& operator=(const Tls&) = delete;

    // Secures the near end. What comes to the far end is only counted from then on: deciphering it is the
    // work of other machines.
    void Secure(SocketStream& near, int far) {
        SSL* server = SSL_new(m_Server);
        SSL_set_fd(server, near.Descriptor());
        SSL_set_accept_state(server);
        std::thread client([&] {
            SSL* end = SSL_new(m_Client);
            SSL_set_fd(end, far);
            Check(SSL_connect(end) == 1, "SSL_connect");
            SSL_free(end);
        });
        Check(SSL_accept(server) == 1, "SSL_accept");
        client.join();
        near.Secure(server);
    }

  private:
    SSL_CTX* const m_Server;
    SSL_CTX* const m_Client;
};

enum class Form { Plain, Numbered, EventStream };

// A feed with clients, whose far ends a thread reads empty.
class Crowd {
  public:
    explicit Crowd(const PostingSource& past) : m_Feed(30'000) { m_Feed.SubscribersFrom(past); }
    ~Crowd() {
        m_End = true;
        if (m_Reader.joinable()) m_Reader.join();
    }

    void Add(Form form, FeedWish wish = {}, Tls* tls = nullptr) {
        int ends[2];
        Check(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
        SocketStream stream(ends[0]);
        if (tls != nullptr) tls->Secure(stream, ends[1]);
        m_Drain.Add(ends[1]);
        wish.As = form == Form::Numbered ? FeedWish::Form::Numbered : FeedWish::Form::EventStream;
        TCPSession session = form == Form::Plain
                                 ? TCPSession::WebSocket(std::move(stream), "bench")
                                 : TCPSession::Subscriber(std::move(stream), "bench", {}, std::move(wish));
        m_Feed.AdoptWsClient(session);
    }
    void Read() {
        m_Reader = std::thread([this] {
            while (!m_End) m_Drain.Read(10);
        });
    }
    void Post(const PListDict& posting, ui64_t number, const std::string& name) {
        m_Feed.SendToListeners(posting, {Epoch, number}, name);
    }

  private:
    WebSocketBroadcastManager m_Feed;
    Bench::Drain m_Drain;  // gone before the feed, which has not to wait for its clients then
    std::atomic<bool> m_End{false};
    std::thread m_Reader;
};

void AwaitDelivered(ui64_t frames) {
    Bench::Await("all is delivered", [=] { return GetBroadcastCounters().FramesDelivered >= frames; });
}

struct Burst {
    double PerSecond;
    double BytesPerSecond;
};

Burst BurstOf(Form form, std::size_t clients, std::size_t postings, Tls* tls = nullptr) {
    const Past past(0);
    Crowd crowd(past);
    for (std::size_t i = 0; i < clients; ++i) crowd.Add(form, {}, tls);
    crowd.Read();
    const PListDict posting = Posting("bench.event");
    const BroadcastCounters before = GetBroadcastCounters();
    const std::int64_t start = Now_ns();
    for (std::size_t i = 1; i <= postings; ++i) crowd.Post(posting, i, "bench.event");
    AwaitDelivered(before.FramesDelivered + clients * postings);
    const double seconds = static_cast<double>(Now_ns() - start) * 1e-9;
    return {static_cast<double>(clients * postings) / seconds,
            static_cast<double>(GetBroadcastCounters().BytesDelivered - before.BytesDelivered) / seconds};
}

// What a posting costs its poster where every client wants one of a thousand events: the middle of five
// rounds.
double PostingToFew_ns(std::size_t clients) {
    constexpr std::size_t Postings = 20'000, Rounds = 5;
    const Past past(0);
    Crowd crowd(past);
    std::vector<std::string> names;
    std::vector<PListDict> postings;
    for (std::size_t i = 0; i < ManyClients; ++i) {
        names.push_back("bench.event." + std::to_string(i));
        postings.push_back(Posting(names.back()));
    }
    for (std::size_t i = 0; i < clients; ++i) {
        FeedWish wish;
        wish.Names = {names[i]};
        crowd.Add(Form::Numbered, wish);
    }
    crowd.Read();
    const ui64_t before = GetBroadcastCounters().FramesDelivered;
    std::vector<double> costs;
    for (std::size_t round = 1; round <= Rounds; ++round) {
        const std::int64_t start = Bench::ThreadTime_ns();
        for (std::size_t i = 0; i < Postings; ++i) {
            const std::size_t which = i % ManyClients;
            crowd.Post(postings[which], (round - 1) * Postings + i + 1, names[which]);
        }
        costs.push_back(static_cast<double>(Bench::ThreadTime_ns() - start) / Postings);
        AwaitDelivered(before + round * clients * Postings / ManyClients);
    }
    std::sort(costs.begin(), costs.end());
    return costs[Rounds / 2];
}

double PerSecond(std::size_t clients, std::int64_t start) {
    return static_cast<double>(clients * Missed) / (static_cast<double>(Now_ns() - start) * 1e-9);
}

// Postings a second until a thousand clients that have missed ten thousand are level.
double StormPerSecond() {
    const Past past(Missed);
    Crowd crowd(past);
    crowd.Read();
    const ui64_t before = GetBroadcastCounters().FramesDelivered;
    const std::int64_t start = Now_ns();
    FeedWish wish;
    wish.After = PostingId{Epoch, 0};
    for (std::size_t i = 0; i < ManyClients; ++i) crowd.Add(Form::Numbered, wish);
    AwaitDelivered(before + ManyClients * Missed);
    return PerSecond(ManyClients, start);
}

std::string RedisCommand(const std::vector<std::string>& words) {
    std::string text = "*" + std::to_string(words.size()) + "\r\n";
    for (const std::string& word : words) text += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
    return text;
}

// The same out of a stream of Redis, one XRANGE for each client.
double RedisStormPerSecond(std::uint16_t port) {
    std::string entries = RedisCommand({"DEL", "bench"}), json;
    static_cast<void>(Posting("bench.event").EncodeJSON(json));
    for (std::size_t i = 1; i <= Missed; ++i)
        entries += RedisCommand({"XADD", "bench", std::to_string(i) + "-0", "posting", json});
    const std::string ask = RedisCommand({"XRANGE", "bench", "-", "+"});
    std::size_t size = 0;
    for (std::string text = entries; size == 0; text = ask) {
        Bench::Drain one;
        const int socket = Bench::Connect(port);
        one.Add(socket);
        Bench::SendAll(socket, text.data(), text.size());
        while (one.Read(500) > 0) continue;
        if (text == ask) size = one.Bytes();
    }
    Bench::Drain drain;
    const std::int64_t start = Now_ns();
    for (std::size_t i = 0; i < RedisReaders; ++i) {
        const int socket = Bench::Connect(port);
        drain.Add(socket);
        Bench::SendAll(socket, ask.data(), ask.size());
    }
    while (drain.Bytes() < size * RedisReaders) drain.Read(1000);
    return PerSecond(RedisReaders, start);
}

// Resident bytes of this process for each client that only waits; its own share of what OpenSSL keeps with
// it.
double IdleBytes(std::size_t clients, Tls* tls) {
    const Past past(0);
    Crowd crowd(past);
    crowd.Add(Form::Numbered, {}, tls);
    const double before = Bench::ResidentBytes();
    for (std::size_t i = 0; i < clients; ++i) crowd.Add(Form::Numbered, {}, tls);
    Bench::Await("all are there", [=] { return GetBroadcastCounters().Clients == clients + 1; });
    return (Bench::ResidentBytes() - before) / static_cast<double>(clients);
}

// The share of a core that IdleClients take, which only wait.
double IdleShare() {
    const Past past(0);
    Crowd crowd(past);
    for (std::size_t i = 0; i < IdleClients; ++i) crowd.Add(Form::Numbered);
    const auto computed_ns = [] {
        rusage used{};
        getrusage(RUSAGE_SELF, &used);
        return (used.ru_utime.tv_sec + used.ru_stime.tv_sec) * 1'000'000'000LL +
               (used.ru_utime.tv_usec + used.ru_stime.tv_usec) * 1'000LL;
    };
    std::this_thread::sleep_for(std::chrono::seconds(1));  // the last have been welcomed
    const std::int64_t start = Now_ns();
    const auto before = computed_ns();
    std::this_thread::sleep_for(std::chrono::seconds(5));
    return static_cast<double>(computed_ns() - before) / static_cast<double>(Now_ns() - start);
}

void MeasureIdle() {
    Tls tls;
    Print("idle_bytes", IdleBytes(ManyClients, nullptr));  // first: before there is memory to be used again
    Print("idle_tls_bytes", IdleBytes(ManyClients, &tls));
    Print("idle_9900_share", IdleShare());
}

}  // namespace

int main(int argc, char** argv) {
    Bench::RaiseDescriptorLimit();
    Mirel::DefaultLogSink().Level(Mirel::LOG_ERROR);
    if (argc > 1 && argv[1] == std::string_view("idle")) return MeasureIdle(), 0;
    Tls tls;
    for (const std::size_t clients : {1u, 10u, 100u, 1000u}) {
        const std::size_t postings = std::min<std::size_t>(4'000'000 / clients, 100'000);
        const std::string suffix = "_" + std::to_string(clients);
        Print("v1" + suffix, BurstOf(Form::Plain, clients, postings).PerSecond);
        Print("v2" + suffix, BurstOf(Form::Numbered, clients, postings).PerSecond);
        Print("sse" + suffix, BurstOf(Form::EventStream, clients, postings).PerSecond);
    }
    Print("tls_100_bytes", BurstOf(Form::Plain, 100, 40'000, &tls).BytesPerSecond);
    Print("few_1", PostingToFew_ns(1));
    Print("few_1000", PostingToFew_ns(ManyClients));
    Print("storm_per_s", StormPerSecond());
    if (argc > 1)
        Print("redis_storm_per_s", RedisStormPerSecond(static_cast<std::uint16_t>(std::stoi(argv[1]))));
    const ui64_t slow = GetBroadcastCounters().SlowDisconnects;
    Check(slow == 0, "clients were too slow");
    return 0;
}
