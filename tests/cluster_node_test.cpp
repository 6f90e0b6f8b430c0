// Nodes of a cluster over a real nats-server with JetStream on loopback; skipped where there is none.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <future>
#include <numeric>
#include <set>
#include <thread>
#include <vector>

#include "Cluster.h"
#include "EventManager.h"
#include "HttpTestServer.h"
#include "MR_thread.h"
#include "Testing.h"

extern char** environ;

namespace Cluster {

using namespace std::chrono_literals;
using EventManager::IEventQueue;
using Mirel::UUID;

namespace {

int FreePort() {
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&address), size), 0);
    getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
    close(probe);
    return ntohs(address.sin_port);
}

bool Eventually(const std::function<bool()>& condition, std::chrono::seconds limit = 60s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

// One server of the engine, whose store outlives its process.
class EngineProcess {
  public:
    EngineProcess() { Start(); }
    ~EngineProcess() { Kill(); }

    void Start() {
        const std::string port = std::to_string(m_Port), store = m_Folder / "store", log = m_Folder / "log";
        const char* arguments[] = {"nats-server", "-a", "127.0.0.1", "-p",   port.c_str(), "-js", "-sd",
                                   store.c_str(), "-l", log.c_str(), nullptr};
        if (posix_spawnp(&m_Process, "nats-server", nullptr, nullptr, const_cast<char**>(arguments),
                         environ) != 0)
            m_Process = -1;
    }
    void Kill() {
        if (m_Process <= 0) return;
        kill(m_Process, SIGKILL);
        waitpid(m_Process, nullptr, 0);
        m_Process = -1;
    }
    bool Runs() const { return m_Process > 0; }
    std::string Url() const { return "nats://127.0.0.1:" + std::to_string(m_Port); }

    /// What any client of the engine may do, in the engine's own protocol.
    void Publish(const std::string& subject, const std::string& body) const {
        const int socket_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(m_Port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        const std::string text = "CONNECT {\"verbose\":false}\r\nPUB " + subject + " " +
                                 std::to_string(body.size()) + "\r\n" + body + "\r\nPING\r\n";
        ASSERT_EQ(send(socket_, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
        std::string read;
        char buffer[4096];
        while (read.find("PONG") == std::string::npos) {
            const ssize_t bytes = recv(socket_, buffer, sizeof buffer, 0);
            if (bytes <= 0) break;
            read.append(buffer, static_cast<std::size_t>(bytes));
        }
        EXPECT_NE(read.find("PONG"), std::string::npos) << read;
        close(socket_);
    }

  private:
    const Testing::TemporaryFolder m_Folder;
    const int m_Port = FreePort();
    pid_t m_Process = -1;
};

std::unique_ptr<ICluster> Join(const EngineProcess& engine, const std::string& name, const std::string& node,
                               const PListDict& seed = PListDict()) {
    Settings settings;
    settings.Name = name;
    settings.Node = node;
    settings.Servers = {engine.Url()};
    settings.Patience_ms = 500;
    std::unique_ptr<ICluster> made;
    EXPECT_TRUE(MakeNode(settings, 500, made).Success());
    made->Queue()->SetMaxListeners(-1);
    made->Queue()->SetMaxWatches(-1);
    EXPECT_TRUE(made->Queue()->Start("EventQueue::Main").Success());
    made->Join(seed, 60000);
    EXPECT_TRUE(Eventually([&] { return made->Figures().Ready; })) << made->Figures().Detail;
    return made;
}

// Several at the same time.
void Leave(const std::vector<std::unique_ptr<ICluster>*>& nodes) {
    std::vector<std::thread> leaving;
    for (std::unique_ptr<ICluster>* node : nodes) {
        leaving.emplace_back([&each = **node] {
            each.BeginEnd();
            EXPECT_TRUE(each.Queue()->Stop(20000, true).Success());
            each.End();
        });
    }
    for (std::thread& thread : leaving) thread.join();
}

Outcome Post(ICluster& node, const std::string& event, const std::string& json, const std::string& key = "") {
    std::promise<Outcome> outcome;
    node.Post(event, json, key, [&](const Outcome& come) { outcome.set_value(come); });
    return outcome.get_future().get();
}

std::string HistoryOf(ICluster& node) {
    PListDict history;
    std::string json;
    static_cast<IEventQueue*>(node.Queue())->GetEventHistory(history);
    EXPECT_TRUE(history.EncodeJSON(json).Success());
    return json;
}

std::size_t CountOf(ICluster& node, const std::string& event) {
    const std::string history = HistoryOf(node), wanted = "\"event_name\":\"" + event + "\"";
    std::size_t count = 0;
    for (std::size_t at = history.find(wanted); at != history.npos; at = history.find(wanted, at + 1))
        ++count;
    return count;
}

std::string StateOf(ICluster& node) {
    PListDict state;
    std::string json;
    static_cast<IEventQueue*>(node.Queue())->GetQueueState(state);
    EXPECT_TRUE(state.EncodeJSON(json).Success());
    return json;
}

bool Has(ICluster& node, const std::string& text) {
    return StateOf(node).find(text) != std::string::npos;
}

std::string Numbered(std::size_t n) {
    return "{\"n\":" + std::to_string(n) + "}";
}

/// One engine and two nodes, for all cases: they leave in the last one, or at the end.
class ClusterNodeTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        s_Engine = new EngineProcess();
        Settings settings;
        settings.Name = settings.Node = "x";
        settings.Servers = {s_Engine->Url()};
        std::unique_ptr<ICluster> none;
        s_Built = MakeNode(settings, 500, none) != Mirel::RESULT_STATE;
        if (!s_Engine->Runs() || !s_Built) return;
        PListDict seed, event;
        event.SetValue("event_name", "seeded");
        Velmora::PListArray events;
        events.Append(event);
        seed.SetItem("event_list", events);
        s_A = new std::unique_ptr<ICluster>(Join(*s_Engine, "plant", "a", seed));
        s_B = new std::unique_ptr<ICluster>(Join(*s_Engine, "plant", "b", seed));
    }
    static void TearDownTestSuite() {
        if (s_A) Leave({s_A, s_B});
        delete s_Engine;
    }
    void SetUp() override {
        if (!s_Engine->Runs()) GTEST_SKIP() << "no nats-server is installed";
        if (!s_Built) GTEST_SKIP() << "built without the cluster";
    }

    static EngineProcess& Engine() { return *s_Engine; }
    static ICluster& A() { return **s_A; }
    static ICluster& B() { return **s_B; }
    static IEventQueue& AtA() { return *A().Queue(); }
    static IEventQueue& AtB() { return *B().Queue(); }

    static inline EngineProcess* s_Engine = nullptr;
    static inline std::unique_ptr<ICluster>*s_A = nullptr, *s_B = nullptr;
    static inline bool s_Built = false;
};

TEST_F(ClusterNodeTest, OfManyWritersOneWins) {
    std::vector<std::thread> writers;
    std::atomic<int> created{0}, refused{0};
    for (int writer = 0; writer < 4; ++writer) {
        writers.emplace_back([&, writer] {
            for (int i = 0; i < 10; ++i) {
                const auto status =
                    (writer % 2 ? AtA() : AtB()).CreateEvent("race " + std::to_string(i), nullptr);
                ++(status == Velmora::STATUS_201_CREATED ? created : refused);
            }
        });
    }
    for (std::thread& writer : writers) writer.join();
    EXPECT_EQ(created, 10);
    EXPECT_EQ(refused, 30);

    UUID id;
    EXPECT_EQ(AtA().CreateEventListener("race 1", "python://none", nullptr, id), Velmora::STATUS_201_CREATED);
    EXPECT_TRUE(Eventually([] { return StateOf(A()) == StateOf(B()); })) << StateOf(A()) << StateOf(B());
    EXPECT_NE(StateOf(A()).find("seeded"), std::string::npos);
    EXPECT_TRUE(AtB().DeleteEventListener("race 1", id));
    EXPECT_FALSE(AtB().DeleteEventListener("race 1", id));
    EXPECT_EQ(AtB().CreateEventListener("none", "python://none", nullptr, id), Velmora::STATUS_404_NOT_FOUND);

    // What is larger than the engine takes changes nothing.
    PListDict large;
    large.SetValue("text", std::string(std::size_t{2} << 20, 'x'));
    EXPECT_EQ(AtA().CreateEvent("large", &large), Velmora::STATUS_503_NO_SERVICE);
    EXPECT_EQ(A().TakeFailure().What, Fate::TooLarge);
}

TEST_F(ClusterNodeTest, PostingsAreTheSameEverywhere) {
    ASSERT_EQ(AtA().CreateEvent("same", nullptr), Velmora::STATUS_201_CREATED);
    ASSERT_TRUE(Eventually([] { return Has(B(), "same"); }));
    std::set<ui64_t> numbers;
    for (std::size_t i = 0; i < 100; ++i) {
        const Outcome outcome = Post(i % 2 ? A() : B(), "same", Numbered(i));
        ASSERT_EQ(outcome.What, Fate::Stored) << outcome.Why;
        numbers.insert(outcome.Id.Number);
    }
    EXPECT_EQ(numbers.size(), 100u);
    EXPECT_TRUE(Eventually([] { return CountOf(A(), "same") == 100 && CountOf(B(), "same") == 100; }));
    EXPECT_EQ(HistoryOf(A()), HistoryOf(B()));
    const Outcome first = Post(A(), "same", "", "key"), again = Post(B(), "same", "", "key");
    EXPECT_EQ(first.Id.Number, again.Id.Number);
    EXPECT_EQ(Post(A(), "none", "").What, Fate::NoSuchEvent);
}

TEST_F(ClusterNodeTest, DueTimesFireOnce) {
    ASSERT_EQ(AtA().CreateEvent("tick", nullptr), Velmora::STATUS_201_CREATED);
    UUID once;
    Mirel::Timestamp soon;
    ASSERT_TRUE(AtA().CreateTimer("tick", soon, 0, nullptr, once));
    EXPECT_TRUE(Eventually([] { return CountOf(A(), "tick") == 1 && CountOf(B(), "tick") == 1; }));
    EXPECT_TRUE(Eventually([&] { return StateOf(B()).find(Mirel::UUIDText(once)) == std::string::npos; }));
    EXPECT_EQ(CountOf(A(), "tick"), 1u);
}

TEST_F(ClusterNodeTest, ListenersAreCalledOnceWhateverIsTakenAwayFromTheReaders) {
    Testing::HttpTestServer listener(Testing::HttpTestServer::Answers("200 OK"));
    UUID id;
    ASSERT_EQ(AtA().CreateEvent("e", nullptr), Velmora::STATUS_201_CREATED);
    PListDict data;
    data.SetValue("with", "a body");
    ASSERT_EQ(AtA().CreateEventListener("e", listener.Url("/called"), &data, id),
              Velmora::STATUS_201_CREATED);
    ASSERT_TRUE(Eventually([] { return Has(B(), "\"e\""); }));
    std::size_t posted = 0;
    const auto post = [&](int count) {
        for (int i = 0; i < count; ++i, ++posted) {
            ICluster& node = i % 2 ? A() : B();
            ASSERT_TRUE(Eventually([&] { return Post(node, "e", Numbered(posted)).What == Fate::Stored; }));
        }
    };
    // How often each posting has been called.
    const auto calls = [&] {
        const std::vector<std::string> requests = listener.Requests();
        std::vector<std::ptrdiff_t> count;
        for (std::size_t n = 0; n < posted; ++n)
            count.push_back(std::count_if(requests.begin(), requests.end(), [&](const std::string& request) {
                return request.find(Numbered(n)) != std::string::npos;
            }));
        return count;
    };
    const auto called = [&] {
        const auto count = calls();
        return std::all_of(count.begin(), count.end(), [](std::ptrdiff_t n) { return n > 0; });
    };
    post(30);
    EXPECT_TRUE(Eventually(called));

    const ui64_t repeated = A().Figures().RepeatedCalls + B().Figures().RepeatedCalls;
    Engine().Publish("$JS.API.CONSUMER.DELETE.plant_postings.plant_calls", "");
    post(20);
    EXPECT_TRUE(Eventually(called));
    // What was called again was counted.
    const auto count = calls();
    const std::ptrdiff_t again =
        std::accumulate(count.begin(), count.end(), std::ptrdiff_t{0}) - static_cast<std::ptrdiff_t>(posted);
    EXPECT_LE(again, static_cast<std::ptrdiff_t>(A().Figures().RepeatedCalls + B().Figures().RepeatedCalls -
                                                 repeated));

    Engine().Publish("plant.events.e", "no JSON");
    Engine().Publish("plant.events.e", "[1]");
    Engine().Publish("plant.events.e=4", "");
    Engine().Publish("plant.events.e", Numbered(posted));
    ++posted;
    EXPECT_TRUE(Eventually(called));
    EXPECT_TRUE(Eventually([] { return A().Figures().Malformed == 3 && B().Figures().Malformed == 3; }));
    EXPECT_TRUE(Eventually([] { return HistoryOf(A()) == HistoryOf(B()); }));

    Engine().Publish("$JS.API.STREAM.PURGE.plant_postings", "");
    post(5);
    EXPECT_TRUE(Eventually(called));

    const std::string epoch = Post(A(), "e", Numbered(posted)).Id.Epoch;
    ++posted;
    EXPECT_TRUE(Eventually(called));
    Engine().Publish("$JS.API.STREAM.DELETE.plant_postings", "");
    post(5);
    EXPECT_TRUE(Eventually(called));
    EXPECT_TRUE(Eventually([&] { return Post(B(), "e", "").Id.Epoch != epoch; }));
    EXPECT_TRUE(Eventually([] { return HistoryOf(A()) == HistoryOf(B()); }));
}

TEST_F(ClusterNodeTest, ManyPostingsAtOnceAreStoredRecordedAndHandedOut) {
    constexpr std::size_t count = 3000;
    ASSERT_EQ(AtA().CreateEvent("many", nullptr), Velmora::STATUS_201_CREATED);
    ASSERT_TRUE(Eventually([] { return Has(B(), "many"); }));
    std::atomic<std::size_t> stored{0}, refused{0};
    for (std::size_t i = 0; i < count; ++i)
        (i % 2 ? A() : B()).Post("many", Numbered(i), "", [&](const Outcome& outcome) {
            ++(outcome.What == Fate::Stored ? stored : refused);
        });
    EXPECT_TRUE(Eventually([&] { return stored + refused == count; }));
    EXPECT_EQ(refused, 0u);
    EXPECT_TRUE(Eventually([] { return CountOf(A(), "many") == count && CountOf(B(), "many") == count; }));
    EXPECT_TRUE(
        Eventually([] { return A().Figures().PendingCalls == 0 && B().Figures().PendingCalls == 0; }));
}

TEST_F(ClusterNodeTest, APostingIsOpenUntilItsCallsHaveEnded) {
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    Testing::HttpTestServer listener([released](Testing::TestConnection& connection) {
        connection.ReadRequest();
        released.wait();
        (void)connection.Write("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    });
    UUID id;
    ASSERT_EQ(AtA().CreateEvent("long", nullptr), Velmora::STATUS_201_CREATED);
    ASSERT_EQ(AtA().CreateEventListener("long", listener.Url(), nullptr, id), Velmora::STATUS_201_CREATED);
    ASSERT_EQ(Post(A(), "long", "").What, Fate::Stored);
    EXPECT_TRUE(Eventually([&] { return listener.Requests().size() == 1; }));
    const auto running = [] { return A().Figures().RunningCalls + B().Figures().RunningCalls; };
    EXPECT_EQ(running(), 1u);
    release.set_value();
    EXPECT_TRUE(Eventually([&] { return running() == 0; }));
    EXPECT_EQ(listener.Requests().size(), 1u);
}

TEST_F(ClusterNodeTest, AnEngineThatIsAwayIsSaidAndComesBack) {
    ASSERT_EQ(Post(A(), "seeded", "{}").What, Fate::Stored);
    Engine().Kill();
    EXPECT_TRUE(Eventually([] { return !A().Figures().Ready; }));
    EXPECT_EQ(Post(A(), "seeded", "{}").What, Fate::Unavailable);
    EXPECT_EQ(AtA().CreateEvent("new", nullptr), Velmora::STATUS_503_NO_SERVICE);
    EXPECT_NE(A().TakeFailure().What, Fate::Stored);
    EXPECT_TRUE(Has(A(), "seeded"));
    Engine().Start();
    EXPECT_TRUE(Eventually([] { return A().Figures().Ready && B().Figures().Ready; }));
    const std::size_t before = CountOf(A(), "seeded");
    EXPECT_TRUE(Eventually([] { return Post(A(), "seeded", "{}").What == Fate::Stored; }));
    EXPECT_TRUE(Eventually([&] { return CountOf(B(), "seeded") == before + 1; }));
    EXPECT_TRUE(Eventually([] { return AtA().CreateEvent("new", nullptr) == Velmora::STATUS_201_CREATED; }));
}

// The last one: a node leaves, another one with its name comes.
TEST_F(ClusterNodeTest, AnotherNodeTakesOverTheTimers) {
    ASSERT_EQ(AtA().CreateEvent("beat", nullptr), Velmora::STATUS_201_CREATED);
    ASSERT_TRUE(Eventually([] { return A().Figures().HoldsTimers != B().Figures().HoldsTimers; }));
    UUID each;
    ASSERT_TRUE(AtA().CreateTimer("beat", Mirel::Timestamp(), 1, nullptr, each));
    std::unique_ptr<ICluster>& holder = A().Figures().HoldsTimers ? *s_A : *s_B;
    std::unique_ptr<ICluster>& successor = &holder == s_A ? *s_B : *s_A;
    const std::string name = &holder == s_A ? "a" : "b";
    Leave({&holder});
    const ui64_t fired = successor->Figures().TimerFirings;
    EXPECT_TRUE(Eventually([&] { return successor->Figures().TimerFirings > fired; }));
    EXPECT_TRUE(static_cast<IEventQueue*>(successor->Queue())->DeleteTimer(each));
    holder = Join(Engine(), "plant", name);
    EXPECT_TRUE(Eventually([] { return StateOf(A()) == StateOf(B()); }));
    auto other = Join(Engine(), "other", "a");
    EXPECT_FALSE(Has(*other, "seeded"));
    EXPECT_EQ(CountOf(*other, "e"), 0u);
    Leave({&other});
}

}  // namespace

}  // namespace Cluster
