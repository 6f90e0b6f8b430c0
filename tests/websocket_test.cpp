// The feed as its clients see it: order, completeness, slow and misbehaving clients, closing.
#include "VL_WebSocket.h"

#include <fcntl.h>

#include <atomic>
#include <future>
#include <list>
#include <numeric>
#include <stdexcept>

#include "NoMemory.h"
#include "Testing.h"
#include "WebSocketPeer.h"

namespace {

using namespace Testing;
using namespace Velmora;
using Texts = std::vector<std::string>;

std::string ClosePayload(int code, const std::string& reason = "") {
    return std::string{static_cast<char>(code >> 8), static_cast<char>(code & 0xFF)} + reason;
}

class WebSocketTest : public ::testing::Test {
  protected:
    using Manager = WebSocketBroadcastManager;

    static void Adopt(Manager& feed, Peer& peer, const std::string& name = "peer",
                      std::string_view received = {}) {
        TCPSession session = peer.Session(received, name);
        feed.AdoptWsClient(session);
        EXPECT_TRUE(session.Empty());
    }
    static std::string Numbered(int number) { return std::to_string(number) + std::string(7000, 'x'); }
    static bool IsDone(const std::future<void>& future) {
        return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }
    static bool Empties() {
        return Eventually([] { return GetBroadcastCounters().Clients == 0; });
    }

    CapturedLog m_Log;
    const BroadcastOptions m_Patient{.Timeout_ms = 60000, .PingInterval_ms = 600000};
};

class CountingReader : public BroadcastReader {
  public:
    struct Seen {
        Texts Postings;
        std::atomic<int> Closes{0};
    };
    explicit CountingReader(Seen& seen) : m_Seen(seen) {}
    void OnPosting(std::string_view json) override {
        if (json == "throw") throw std::runtime_error("no more");
        m_Seen.Postings.emplace_back(json);
    }
    void OnClose() override { ++m_Seen.Closes; }

  private:
    Seen& m_Seen;
};

TEST_F(WebSocketTest, EveryClientGetsAllPostingsInOneOrder) {
    constexpr int Posters = 3, Postings = 300;
    const std::size_t sizes[] = {0, 125 - 8, 126 - 8, 2000, 65535 - 8, 65536 - 8, 300000};
    Manager feed(m_Patient);
    std::list<Peer> peers;
    for (int i = 0; i < 30; ++i) Adopt(feed, peers.emplace_back(static_cast<Link>(i % 3)));
    CountingReader::Seen seen;
    TCPSession reader = TCPSession::Reader(std::make_unique<CountingReader>(seen), "counter");
    feed.AdoptWsClient(reader);

    std::vector<std::future<Texts>> readings;
    for (Peer& peer : peers)
        readings.push_back(std::async(std::launch::async, [&peer] {
            Frame end;
            Texts texts = peer.ReadTexts(&end);
            EXPECT_EQ(end.CloseCode(), 1001);
            peer.HangUp();
            return texts;
        }));
    std::vector<std::thread> threads;
    for (int poster = 0; poster < Posters; ++poster)
        threads.emplace_back([&, poster] {
            for (int i = 0; i < Postings; ++i) {
                const std::string number = std::to_string(poster * 1000000 + 10000000 + i);
                feed.SendText(number + std::string(i % 40 == poster ? sizes[i / 40 % 7] : 40, 'x'));
            }
        });
    for (std::thread& thread : threads) thread.join();
    feed.CloseAll();

    const Texts& first = seen.Postings;
    ASSERT_EQ(first.size(), Posters * Postings);
    EXPECT_EQ(seen.Closes, 1);
    std::vector<int> last(Posters, -1);
    for (const std::string& text : first) {
        const int number = std::stoi(text.substr(0, 8)) - 10000000;
        EXPECT_EQ(number % 1000000, ++last[static_cast<std::size_t>(number / 1000000)]);
    }
    for (auto& reading : readings) EXPECT_TRUE(reading.get() == first);
    EXPECT_TRUE(m_Log.At(Mirel::LOG_NOTICE).empty());
}

// How often the feed's thread has given up its processor of its own will.
long FeedsNaps() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (ReadFile(task.path() / "comm") != "WebSocket::Feed\n") continue;
        const std::string status = ReadFile(task.path() / "status"), name = "\nvoluntary_ctxt_switches:";
        return std::stol(status.substr(status.find(name) + name.size()));
    }
    return -1;
}

// However far the feed's thread has come on its way back to sleep, which is what the pauses vary.
TEST_F(WebSocketTest, EveryPostingWakesTheFeedAndWithoutOneItSleeps) {
    using std::chrono::steady_clock;
    Manager feed(m_Patient);
    Peer peer;
    Adopt(feed, peer);
    for (int i = 0; i < 5000; ++i) {
        const auto then = steady_clock::now() + std::chrono::microseconds(i % 130);
        while (steady_clock::now() < then) continue;
        feed.SendText(std::to_string(i));
        ASSERT_EQ(peer.Read().Payload, std::to_string(i));
    }
    long naps = 0;
    int looks_alike = 0;
    EXPECT_TRUE(Eventually([&] {
        const long before = std::exchange(naps, FeedsNaps());
        looks_alike = naps == before ? looks_alike + 1 : 0;
        return looks_alike == 20;
    }));
    EXPECT_GT(naps, 0);
    EXPECT_TRUE(Inherited("anon_inode").empty());  // by programs that handlers start
    peer.HangUp();
}

TEST_F(WebSocketTest, ClientsThatJoinMeanwhileGetAllFromThenOn) {
    constexpr int Clients = 40, Postings = 40 * 400;
    Manager feed(m_Patient);
    std::list<Peer> peers;
    std::atomic<int> posted{0};
    std::thread poster([&] {
        while (posted < Postings) feed.SendText(std::to_string(posted++));
    });
    const ui64_t delivered = GetBroadcastCounters().FramesDelivered;
    std::vector<int> before;
    for (int i = 0; i < Clients; ++i) {
        Eventually([&] { return posted >= i * Postings / Clients; });
        before.push_back(posted);
        Adopt(feed, peers.emplace_back(static_cast<Link>(i % 3)));
    }
    poster.join();
    feed.SendText(std::to_string(Postings));
    auto closing = std::async(std::launch::async, [&feed] { feed.CloseAll(); });
    auto joined = before.begin();
    int read = 0;
    for (Peer& peer : peers) {
        int next = std::stoi(peer.Read().Payload);
        EXPECT_GE(next, *joined++ - 1);
        read += Postings - next + 1;
        for (const std::string& text : peer.ReadTexts()) ASSERT_EQ(text, std::to_string(++next));
        EXPECT_EQ(next, Postings);
        peer.HangUp();
    }
    EXPECT_EQ(GetBroadcastCounters().FramesDelivered, delivered + static_cast<ui64_t>(read));
}

// One that never reads is left behind by the log; when it reads at last, it finds whole frames and the
// reason.
TEST_F(WebSocketTest, ClientLeftBehindIsToldAndDelaysNobody) {
    for (const Link link : {Link::Pair, Link::TCP, Link::TLS}) {
        m_Log.Clear();
        const ui64_t slow_before = GetBroadcastCounters().SlowDisconnects;
        Manager feed(BroadcastOptions{.Timeout_ms = 60000, .LogLimit = 4u << 20});
        Peer stuck(link, 100000), lively;
        Adopt(feed, stuck, "stuck one");
        Adopt(feed, lively);
        std::atomic<int> posted{0}, read{0};
        std::thread reading([&] {
            while (lively.Read().Opcode == 1) ++read;
            lively.HangUp();
        });
        while (!m_Log.Has("stuck one is disconnected") && posted < 5000) {
            feed.SendText(Numbered(posted++));
            EXPECT_TRUE(Eventually([&] { return read > posted - 20; }));
        }
        Frame end;
        const Texts texts = stuck.ReadTexts(&end);
        EXPECT_EQ(end.CloseCode(), 1013);
        ASSERT_FALSE(texts.empty());
        for (std::size_t i = 0; i < texts.size(); ++i) ASSERT_EQ(texts[i], Numbered(static_cast<int>(i)));
        stuck.HangUp();
        feed.CloseAll();
        reading.join();
        EXPECT_EQ(read, posted);
        EXPECT_EQ(m_Log.At(Mirel::LOG_NOTICE).size(), 1u);
        EXPECT_EQ(GetBroadcastCounters().SlowDisconnects, slow_before + 1);
    }
}

TEST_F(WebSocketTest, ClientThatTakesNothingIsEnded) {
    for (const Link link : {Link::Pair, Link::TCP, Link::TLS}) {
        m_Log.Clear();
        Manager feed(100);
        Peer peer(link, 100000);
        Adopt(feed, peer);
        for (int i = 0; i < 100; ++i) feed.SendText(std::string(100000, 'x'));
        EXPECT_TRUE(Empties());
        Frame end;
        peer.ReadTexts(&end);
        EXPECT_EQ(end.Opcode, -1);
        EXPECT_EQ(m_Log.At(Mirel::LOG_NOTICE),
                  Texts{"WebSocket client peer is disconnected: takes nothing.\n"});
    }
}

TEST_F(WebSocketTest, BrokenProtocolIsClosedWithItsCode) {
    const std::string ping126(126, 'p');
    const struct {
        std::string Bytes;
        int Code;
        bool Violates = Code == 1002 || Code == 1007 || Code == 1009;
    } cases[] = {
        {std::string("\x81\x02hi", 4), 1002},  // not masked
        {ClientFrame(0xC1, "x"), 1002},        // reserved bits
        {ClientFrame(0x83, "x"), 1002},        // opcodes
        {ClientFrame(0x8B, "x"), 1002},
        {ClientFrame(0x80, "x"), 1002},                           // continuation of nothing
        {ClientFrame(0x01, "x") + ClientFrame(0x81, "y"), 1002},  // a message inside a message
        {ClientFrame(0x09, "x"), 1002},                           // a control frame in fragments
        {ClientFrame(0x89, ping126), 1002},                       // and too long
        {std::string("\x81\xFE\x00\x7D", 4) + "maskdata", 1002},  // length not in its shortest form
        {std::string("\x82\xFF\x80\0\0\0\0\0\0\0mask", 14), 1002},
        {ClientFrame(0x88, "\x03"), 1002},  // close payloads
        {ClientFrame(0x88, ClosePayload(999)), 1002},
        {ClientFrame(0x88, ClosePayload(1004)), 1002},
        {ClientFrame(0x88, ClosePayload(1005)), 1002},
        {ClientFrame(0x88, ClosePayload(1006)), 1002},
        {ClientFrame(0x88, ClosePayload(1015)), 1002},
        {ClientFrame(0x88, ClosePayload(2999)), 1002},
        {ClientFrame(0x88, ClosePayload(5000)), 1002},
        {ClientFrame(0x88, ClosePayload(1000, "\xC0\xAF")), 1007},  // what is not UTF-8
        {ClientFrame(0x88, ClosePayload(1000, "\xED\xA0\x80")), 1007},
        {ClientFrame(0x81, "\xF5"), 1007},
        {ClientFrame(0x81, "gr\xC3\xBC\xC3"), 1007},
        {ClientFrame(0x01, std::string(200, 'x') + "\xF0\x9F") + ClientFrame(0x89, "p") +
             ClientFrame(0x00, "\x91") + ClientFrame(0x80, ""),
         1007},
        {ClientFrame(0x01, "\xF4") + ClientFrame(0x80, "\x90\x80\x80"), 1007},
        {ClientFrame(0x01, std::string(200, 'x') + "\xF0\x9F") + ClientFrame(0x00, "") +
             ClientFrame(0x80, "\x91\x8B") + ClientFrame(0x81, "") + ClientFrame(0x82, "\xFF") +
             ClientFrame(0x88, ClosePayload(1000)),
         1000},
        {ClientFrame(0x82, std::string(65537, 'x')), 1009},
        {ClientFrame(0x02, std::string(60000, 'x')) + ClientFrame(0x80, std::string(5537, 'x')), 1009},
        {ClientFrame(0x02, std::string(60000, 'x')) + ClientFrame(0x80, std::string(5536, 'x')) +
             ClientFrame(0x88, ClosePayload(4999, "\xF0\x9F\x91\x8B")),
         4999},  // just right
        {ClientFrame(0x82, std::string(40000, 'x')) + ClientFrame(0x82, std::string(40000, 'x')) +
             ClientFrame(0x88, ClosePayload(1003)),
         1003},  // the limit is for each
        {ClientFrame(0x88, ClosePayload(1007)), 1007, false},
        {ClientFrame(0x88, ClosePayload(1014)), 1014},
        {ClientFrame(0x88, ClosePayload(3000)), 3000},
        {ClientFrame(0x88, ""), 0},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(::testing::PrintToString(test.Bytes.substr(0, 40)));
        m_Log.Clear();
        const ui64_t errors = GetBroadcastCounters().ProtocolErrors;
        Manager feed(m_Patient);
        Peer peer;
        Adopt(feed, peer);
        EXPECT_TRUE(peer.Write(test.Bytes));
        Frame answer = peer.Read();
        if (answer.Opcode == 10) answer = peer.Read();
        EXPECT_EQ(answer.CloseCode(), test.Code);
        EXPECT_EQ(peer.Read().Opcode, -1);
        EXPECT_EQ(GetBroadcastCounters().ProtocolErrors, errors + test.Violates);
        EXPECT_EQ(m_Log.At(Mirel::LOG_NOTICE).size(), test.Violates ? 1u : 0u);
        EXPECT_TRUE(test.Violates || Empties());  // both have said that they close: nothing to wait for
        peer.HangUp();
        EXPECT_TRUE(Empties());
    }
}

TEST_F(WebSocketTest, PingsAreAnsweredWhereverTheyStand) {
    for (const Link link : {Link::Pair, Link::TLS}) {
        Manager feed(m_Patient);
        Peer peer(link);
        const std::string longest(125, 'p');
        Adopt(feed, peer, "peer", ClientFrame(0x89, "early") + ClientFrame(0x89, "cut").substr(0, 5));
        EXPECT_EQ(peer.Read(), (Frame{10, "early"}));
        EXPECT_TRUE(peer.Write(ClientFrame(0x89, "cut").substr(5)));
        EXPECT_EQ(peer.Read(), (Frame{10, "cut"}));
        for (const char byte : ClientFrame(0x01, "a") + ClientFrame(0x89, longest) +
                                   ClientFrame(0x8A, "unasked") + ClientFrame(0x80, std::string(300, 'b')) +
                                   ClientFrame(0x89, ""))
            EXPECT_TRUE(peer.Write({&byte, 1}));
        EXPECT_EQ(peer.Read(), (Frame{10, longest}));
        EXPECT_EQ(peer.Read(), (Frame{10, ""}));
        peer.HangUp();  // without a close
        EXPECT_TRUE(Empties());
    }
    Manager feed(m_Patient);
    Peer peer(Link::TLS);
    EXPECT_TRUE(peer.Write(ClientFrame(0x89, "read ahead")));
    peer.LetServerReadAhead();
    Adopt(feed, peer);
    EXPECT_EQ(peer.Read(), (Frame{10, "read ahead"}));
    peer.HangUp();
}

// The answer to a ping waits for the end of a frame that is partly sent.
TEST_F(WebSocketTest, ControlFramesStandBetweenOthers) {
    for (const Link link : {Link::Pair, Link::TCP, Link::TLS}) {
        Manager feed(m_Patient);
        Peer peer(link, 100000);
        Adopt(feed, peer);
        const ui64_t before = GetBroadcastCounters().BytesDelivered;
        for (int i = 0; i < 8; ++i) feed.SendText(std::string(1000000, 'x'));
        ASSERT_TRUE(Eventually([&] { return GetBroadcastCounters().BytesDelivered > before; }));
        for (int i = 0; i < 5; ++i) EXPECT_TRUE(peer.Write(ClientFrame(0x89, "now")));
        int texts = 0, pongs = 0;
        while (texts < 8 || pongs < 5) {
            const Frame frame = peer.Read();
            ASSERT_TRUE(frame.Payload == (frame.Opcode == 10 ? "now" : std::string(1000000, 'x')))
                << frame.Opcode;
            ++(frame.Opcode == 10 ? pongs : texts);
        }
        EXPECT_EQ(texts, 8);
        EXPECT_EQ(pongs, 5);
        peer.HangUp();
        EXPECT_TRUE(Empties());
    }
}

// Also where time would not end it: the answers take no more memory than they may.
TEST_F(WebSocketTest, FloodOfPingsWithoutReadingIsEnded) {
    Manager feed(m_Patient);
    Peer peer(Link::Pair, 100000);
    Adopt(feed, peer);
    const ui64_t slow = GetBroadcastCounters().SlowDisconnects;
    const std::string ping = ClientFrame(0x89, std::string(125, 'p'));
    int pings = 0;
    while (pings < 10000 && peer.Write(ping)) ++pings;
    EXPECT_LT(pings, 10000);
    EXPECT_TRUE(Empties());
    EXPECT_EQ(m_Log.At(Mirel::LOG_NOTICE),
              Texts{"WebSocket client peer is disconnected: does not take answers to its pings.\n"});
    EXPECT_EQ(GetBroadcastCounters().SlowDisconnects, slow + 1);
}

TEST_F(WebSocketTest, SilentClientsArePingedAndGivenUp) {
    Manager feed(BroadcastOptions{.Timeout_ms = 60000, .PingInterval_ms = 600});
    Peer silent, answering;
    Adopt(feed, silent, "silent");
    Adopt(feed, answering, "answering");
    EXPECT_EQ(silent.Read(), (Frame{9, ""}));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(answering.Read(), (Frame{9, ""}));
        EXPECT_TRUE(answering.Write(ClientFrame(0x8A, "")));
    }
    EXPECT_EQ(silent.Read().Opcode, -1);
    EXPECT_TRUE(m_Log.Has("silent is disconnected: does not answer a ping"));
    EXPECT_TRUE(answering.Write(ClientFrame(0x88, ClosePayload(1000, "bye"))));
    EXPECT_EQ(answering.Read().CloseCode(), 1000);
    EXPECT_EQ(m_Log.At(Mirel::LOG_NOTICE).size(), 1u);
}

TEST_F(WebSocketTest, CloseAllGivesWhatIsPendingAndCanBeUsedOn) {
    Manager feed(m_Patient), other(m_Patient), unused(m_Patient);
    for (int round = 0; round < 2; ++round) {
        std::list<Peer> peers;
        for (const Link link : {Link::Pair, Link::TCP, Link::TLS})
            Adopt(feed, peers.emplace_back(link, 100000));
        Adopt(other, peers.emplace_back());
        for (int i = 0; i < 50; ++i) feed.SendText(std::string(100000, 'x'));
        for (int i = 0; i < 50; ++i) other.SendText("other");
        auto closing = std::async(std::launch::async, [] { CloseAllWebSocketClients(); });
        for (Peer& peer : peers) {
            Frame end;
            EXPECT_EQ(peer.ReadTexts(&end).size(), 50u);
            EXPECT_EQ(end.CloseCode(), 1001);
            EXPECT_TRUE(peer.Write(ClientFrame(0x88, end.Payload)));
            EXPECT_EQ(peer.Read().Opcode, -1);
        }
        closing.get();
        EXPECT_EQ(GetBroadcastCounters().Clients, 0u);
    }
}

TEST_F(WebSocketTest, CloseAllWaitsNoLongerThanTheTimeOut) {
    Manager feed(200);
    Peer mute, stuck(Link::TCP, 100000);
    Adopt(feed, mute);
    Adopt(feed, stuck, "stuck");
    for (int i = 0; i < 50; ++i) feed.SendText(std::string(100000, 'x'));
    auto closing = std::async(std::launch::async, [&feed] { feed.CloseAll(); });
    EXPECT_TRUE(Eventually([&] { return IsDone(closing); }, 300));
    closing.get();
    EXPECT_EQ(GetBroadcastCounters().Clients, 0u);
    EXPECT_EQ(m_Log.At(Mirel::LOG_NOTICE).size(), 2u);
}

TEST_F(WebSocketTest, CloseAllIsForThosePresentWhoeverComesBeforeItIsDone) {
    Manager feed(m_Patient);
    Peer mute, later;
    Adopt(feed, mute);
    auto closing = std::async(std::launch::async, [&feed] { feed.CloseAll(); });
    EXPECT_EQ(mute.Read().CloseCode(), 1001);
    Adopt(feed, later);
    feed.SendText("for the later one");
    EXPECT_EQ(later.Read().Payload, "for the later one");
    EXPECT_FALSE(IsDone(closing));
    mute.HangUp();
    EXPECT_TRUE(Eventually([&] { return IsDone(closing); }));
    feed.SendText("still there");
    EXPECT_EQ(later.Read().Payload, "still there");
    later.HangUp();
}

TEST_F(WebSocketTest, UselessSessionsEndWithOneLine) {
    Manager feed(m_Patient);
    TCPSession empty;
    feed.AdoptWsClient(empty);
    TCPSession no_reader = TCPSession::Reader(nullptr, "none");
    feed.AdoptWsClient(no_reader);
    EXPECT_TRUE(m_Log.Entries().empty());

    int closed[2], ends[2];
    ASSERT_EQ(pipe(closed), 0);
    close(closed[1]);
    ASSERT_EQ(pipe(ends), 0);
    const int descriptors[] = {closed[1], ends[1], open("/dev/null", O_RDWR), socket(AF_INET, SOCK_DGRAM, 0)};
    for (const int descriptor : descriptors) {
        TCPSession session = TCPSession::WebSocket(descriptor, "wrong\nname");
        feed.AdoptWsClient(session);
        EXPECT_TRUE(Empties());
    }
    EXPECT_EQ(m_Log.Errors().size(), std::size(descriptors));
    close(closed[0]);
    close(ends[0]);

    const ui64_t postings = GetBroadcastCounters().Postings;
    feed.SendText("nobody listens");
    feed.SendToListeners(PListDict());
    EXPECT_EQ(GetBroadcastCounters().Postings, postings);
}

// OpenSSL writes in a way that raises SIGPIPE, by which a process ends.
TEST_F(WebSocketTest, WhoHangsUpBeforeAFrameIsWrittenEndsAlone) {
    struct Gate : BroadcastReader {
        explicit Gate(std::atomic<int>& steps) : Steps(steps) {}
        void OnPosting(std::string_view) override {
            ++Steps;
            Eventually([this] { return Steps >= 2; });
        }
        std::atomic<int>& Steps;
    };
    std::atomic<int> steps{0};
    Manager feed(m_Patient);
    TCPSession gate = TCPSession::Reader(std::make_unique<Gate>(steps), "gate");
    feed.AdoptWsClient(gate);
    std::list<Peer> peers;
    for (const Link link : {Link::Pair, Link::TCP, Link::TLS, Link::TLSPair})
        Adopt(feed, peers.emplace_back(link));
    feed.SendText("one that holds the feed's thread up");
    EXPECT_TRUE(Eventually([&] { return steps == 1; }));
    for (Peer& peer : peers) peer.HangUp();
    feed.SendText("for nobody");
    ++steps;
    EXPECT_TRUE(Eventually([] { return GetBroadcastCounters().Clients == 1; }));
    feed.CloseAll();
}

TEST_F(WebSocketTest, APostingThatMemoryEndsAtIsNotPassedOverInSilence) {
    const std::string text(100000, 'x');
    PListDict dict;
    dict.SetValue("text", text);
    const std::function<void(Manager&)> postings[] = {[&](Manager& feed) { feed.SendText(text); },
                                                      [&](Manager& feed) { feed.SendToListeners(dict); }};
    for (const auto& post : postings) {
        m_Log.Clear();
        Manager feed(m_Patient);
        Peer peer;
        Adopt(feed, peer);
        feed.SendText("before");
        {
            const NoMemory none(0);
            post(feed);
            EXPECT_TRUE(none.Refused());
        }
        EXPECT_EQ(peer.Read().Payload, "before");
        EXPECT_EQ(peer.Read().CloseCode(), 1001);
        EXPECT_EQ(m_Log.Errors().size(), 1u);
        peer.HangUp();
    }
}

TEST_F(WebSocketTest, FailingReaderIsLetGoAlone) {
    CountingReader::Seen seen;
    Manager feed(m_Patient);
    Peer peer;
    Adopt(feed, peer);
    TCPSession reader = TCPSession::Reader(std::make_unique<CountingReader>(seen), "reader");
    feed.AdoptWsClient(reader);
    feed.SendToListeners(PListDict());
    feed.SendText("throw");
    feed.SendText("after");
    EXPECT_TRUE(Eventually([&] { return seen.Closes == 1; }));
    for (const char* text : {"{}", "throw", "after"}) EXPECT_EQ(peer.Read(), (Frame{1, text}));
    EXPECT_EQ(seen.Postings, Texts{"{}"});
    EXPECT_EQ(m_Log.Errors().size(), 1u);
    peer.HangUp();
}

}  // namespace
