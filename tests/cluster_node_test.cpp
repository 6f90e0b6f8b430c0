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
    std::unique_ptr<ICluster> made;
    EXPECT_TRUE(MakeNode(settings, 500, made).Success());
    made->Queue()->SetMaxListeners(-1);
    made->Queue()->SetMaxWatches(-1);
    EXPECT_TRUE(made->Queue()->Start("EventQueue::Main").Success());
    made->Join(seed, 60000);
    EXPECT_TRUE(Eventually([&] { return made->Figures().Ready; })) << made->Figures().Detail;
    return made;
}

void Leave(std::unique_ptr<ICluster>& node) {
    node->BeginEnd();
    EXPECT_TRUE(node->Queue()->Stop(20000, true).Success());
    node->End();
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

std::size_t CountOf(ICluster& node) {
    PListDict history;
    static_cast<IEventQueue*>(node.Queue())->GetEventHistory(history);
    return std::as_const(history).GetArray("history").Size();
}

std::string StateOf(ICluster& node) {
    PListDict state;
    std::string json;
    static_cast<IEventQueue*>(node.Queue())->GetQueueState(state);
    EXPECT_TRUE(state.EncodeJSON(json).Success());
    return json;
}

std::string Numbered(std::size_t n) {
    return "{\"n\":" + std::to_string(n) + "}";
}

class ClusterNodeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!Engine.Runs()) GTEST_SKIP() << "no nats-server is installed";
        Settings settings;
        settings.Name = settings.Node = "x";
        settings.Servers = {Engine.Url()};
        std::unique_ptr<ICluster> none;
        if (MakeNode(settings, 500, none) == Mirel::RESULT_STATE) GTEST_SKIP() << "built without the cluster";
    }
    EngineProcess Engine;
};

TEST_F(ClusterNodeTest, TwoNodesShowTheSameAndOfManyWritersOneWins) {
    auto a = Join(Engine, "plant", "a"), b = Join(Engine, "plant", "b");
    auto other = Join(Engine, "other", "a");
    IEventQueue& at_a = *a->Queue();
    IEventQueue& at_b = *b->Queue();

    std::vector<std::thread> writers;
    std::atomic<int> created{0}, refused{0};
    for (int writer = 0; writer < 4; ++writer) {
        writers.emplace_back([&, writer] {
            for (int i = 0; i < 10; ++i) {
                const auto status =
                    (writer % 2 ? at_a : at_b).CreateEvent("race " + std::to_string(i), nullptr);
                ++(status == Velmora::STATUS_201_CREATED ? created : refused);
            }
        });
    }
    for (std::thread& writer : writers) writer.join();
    EXPECT_EQ(created, 10);
    EXPECT_EQ(refused, 30);

    UUID id;
    EXPECT_EQ(at_a.CreateEventListener("race 1", "python://none", nullptr, id), Velmora::STATUS_201_CREATED);
    EXPECT_TRUE(Eventually([&] { return StateOf(*a) == StateOf(*b); })) << StateOf(*a) << StateOf(*b);
    EXPECT_TRUE(at_b.DeleteEventListener("race 1", id));
    EXPECT_FALSE(at_b.DeleteEventListener("race 1", id));
    EXPECT_EQ(at_b.CreateEventListener("none", "python://none", nullptr, id), Velmora::STATUS_404_NOT_FOUND);

    // Postings of both: one order, and the same bytes.
    std::set<ui64_t> numbers;
    for (int i = 0; i < 100; ++i) {
        const Outcome outcome = Post(i % 2 ? *a : *b, "race 1", "{\"n\":" + std::to_string(i) + "}");
        ASSERT_EQ(outcome.What, Fate::Stored) << outcome.Why;
        numbers.insert(outcome.Id.Number);
    }
    EXPECT_EQ(numbers.size(), 100u);
    EXPECT_TRUE(Eventually([&] { return CountOf(*a) == 100 && CountOf(*b) == 100; }));
    EXPECT_EQ(HistoryOf(*a), HistoryOf(*b));
    const Outcome first = Post(*a, "race 1", "", "key"), again = Post(*b, "race 1", "", "key");
    EXPECT_EQ(first.Id.Number, again.Id.Number);
    EXPECT_EQ(Post(*a, "none", "").What, Fate::NoSuchEvent);

    // What is larger than the engine takes changes nothing.
    PListDict large;
    large.SetValue("text", std::string(std::size_t{2} << 20, 'x'));
    EXPECT_EQ(at_a.CreateEvent("large", &large), Velmora::STATUS_503_NO_SERVICE);
    EXPECT_EQ(a->TakeFailure().What, Fate::TooLarge);
    EXPECT_EQ(CountOf(*other), 0u);
    EXPECT_EQ(StateOf(*other).find("race"), std::string::npos);

    // A node that comes later has the same registry.
    auto c = Join(Engine, "plant", "c");
    EXPECT_EQ(StateOf(*c), StateOf(*a));
    for (auto* node : {&a, &b, &c, &other}) Leave(*node);
}

TEST_F(ClusterNodeTest, DueTimesFireOnceAndAnotherNodeTakesOver) {
    auto a = Join(Engine, "plant", "a"), b = Join(Engine, "plant", "b");
    IEventQueue& at_a = *a->Queue();
    ASSERT_EQ(at_a.CreateEvent("tick", nullptr), Velmora::STATUS_201_CREATED);
    UUID once, each;
    Mirel::Timestamp soon;
    ASSERT_TRUE(at_a.CreateTimer("tick", soon, 0, nullptr, once));
    EXPECT_TRUE(Eventually([&] { return CountOf(*a) == 1 && CountOf(*b) == 1; }));
    EXPECT_TRUE(Eventually([&] { return StateOf(*b).find(Mirel::UUIDText(once)) == std::string::npos; }));
    ASSERT_TRUE(at_a.CreateTimer("tick", soon, 1, nullptr, each));
    EXPECT_TRUE(Eventually([&] { return CountOf(*b) >= 3; }));
    EXPECT_NE(a->Figures().HoldsTimers, b->Figures().HoldsTimers);
    auto& holder = a->Figures().HoldsTimers ? a : b;
    auto& successor = a->Figures().HoldsTimers ? b : a;
    Leave(holder);
    EXPECT_TRUE(Eventually([&] { return successor->Figures().TimerFirings >= 2; }));
    EXPECT_TRUE(static_cast<IEventQueue*>(successor->Queue())->DeleteTimer(each));
    Leave(successor);
}

TEST_F(ClusterNodeTest, ListenersAreCalledOnceWhateverIsTakenAwayFromTheReaders) {
    Testing::HttpTestServer listener(Testing::HttpTestServer::Answers("200 OK"));
    auto a = Join(Engine, "plant", "a"), b = Join(Engine, "plant", "b");
    IEventQueue& at_a = *a->Queue();
    UUID id;
    ASSERT_EQ(at_a.CreateEvent("e", nullptr), Velmora::STATUS_201_CREATED);
    PListDict data;
    data.SetValue("with", "a body");
    ASSERT_EQ(at_a.CreateEventListener("e", listener.Url("/called"), &data, id), Velmora::STATUS_201_CREATED);
    std::size_t posted = 0;
    const auto post = [&](int count) {
        for (int i = 0; i < count; ++i, ++posted) {
            ICluster& node = i % 2 ? *a : *b;
            ASSERT_TRUE(Eventually([&] { return Post(node, "e", Numbered(posted)).What == Fate::Stored; }));
        }
    };
    // Which postings have been called: more than one call for one of them is not two.
    const auto called = [&] {
        const std::vector<std::string> requests = listener.Requests();
        std::size_t count = 0;
        for (std::size_t n = 0; n < posted; ++n)
            count += std::any_of(requests.begin(), requests.end(), [&](const std::string& request) {
                return request.find(Numbered(n)) != std::string::npos;
            });
        return count;
    };
    post(30);
    EXPECT_TRUE(Eventually([&] { return called() == posted; })) << called();

    Engine.Publish("$JS.API.CONSUMER.DELETE.plant_postings.plant_calls", "");
    post(20);
    EXPECT_TRUE(Eventually([&] { return called() >= posted; })) << called();

    Engine.Publish("plant.events.e", "no JSON");
    Engine.Publish("plant.events.e", "[1]");
    Engine.Publish("plant.events.e=4", "");
    Engine.Publish("plant.events.e", Numbered(posted));
    ++posted;
    EXPECT_TRUE(Eventually([&] { return called() >= posted; })) << called();
    EXPECT_TRUE(Eventually([&] { return a->Figures().Malformed == 3 && b->Figures().Malformed == 3; }));
    EXPECT_TRUE(Eventually([&] { return HistoryOf(*a) == HistoryOf(*b); }));

    Engine.Publish("$JS.API.STREAM.PURGE.plant_postings", "");
    post(5);
    EXPECT_TRUE(Eventually([&] { return called() >= posted; })) << called();

    const std::string epoch = Post(*a, "e", Numbered(posted)).Id.Epoch;
    ++posted;
    EXPECT_TRUE(Eventually([&] { return called() >= posted; })) << called();
    Engine.Publish("$JS.API.STREAM.DELETE.plant_postings", "");
    post(5);
    EXPECT_TRUE(Eventually([&] { return called() >= posted; })) << called() << " of " << posted;
    EXPECT_TRUE(Eventually([&] { return Post(*b, "e", "").Id.Epoch != epoch; }));
    EXPECT_TRUE(Eventually([&] { return HistoryOf(*a) == HistoryOf(*b); }));
    Leave(a);
    Leave(b);
}

TEST_F(ClusterNodeTest, AnEngineThatIsAwayIsSaidAndComesBack) {
    PListDict seed, event;
    event.SetValue("event_name", "seeded");
    Velmora::PListArray events;
    events.Append(event);
    seed.SetItem("event_list", events);
    auto a = Join(Engine, "plant", "a", seed);
    ASSERT_EQ(Post(*a, "seeded", "{}").What, Fate::Stored);
    Engine.Kill();
    EXPECT_TRUE(Eventually([&] { return !a->Figures().Ready; }));
    EXPECT_NE(Post(*a, "seeded", "{}").What, Fate::Stored);
    IEventQueue& queue = *a->Queue();
    EXPECT_EQ(queue.CreateEvent("new", nullptr), Velmora::STATUS_503_NO_SERVICE);
    EXPECT_NE(a->TakeFailure().What, Fate::Stored);
    EXPECT_NE(StateOf(*a).find("seeded"), std::string::npos);
    Engine.Start();
    EXPECT_TRUE(Eventually([&] { return a->Figures().Ready; }));
    EXPECT_TRUE(Eventually([&] { return Post(*a, "seeded", "{}").What == Fate::Stored; }));
    EXPECT_TRUE(Eventually([&] { return CountOf(*a) >= 2; }));
    EXPECT_TRUE(Eventually([&] { return queue.CreateEvent("new", nullptr) == Velmora::STATUS_201_CREATED; }));
    Leave(a);
}

}  // namespace

}  // namespace Cluster
