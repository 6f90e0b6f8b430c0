// The whole server as a process: started, asked, killed, restarted.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <set>
#include <thread>

#include "HttpClient.h"
#include "Testing.h"

namespace Server {

using Testing::Eventually;
using Testing::FeedClient;
using Testing::HttpClient;
using Testing::ReadFile;

/// One run of velmora-server; killed with the object where it still runs.
class Process {
  public:
    Process(const std::string& errors, const std::vector<std::string>& arguments) {
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0) ADD_FAILURE() << "no pipe";
        std::vector<char*> argv{const_cast<char*>(VELMORA_SERVER)};
        for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        m_Pid = fork();
        if (m_Pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        m_Output = fdopen(out[0], "r");
    }
    ~Process() {
        if (m_Pid > 0) End(SIGKILL);
        fclose(m_Output);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Waits for the line that says where the server listens; 0 where it ends without one.
    unsigned short Port() {
        char line[256];
        while (m_Port == 0 && fgets(line, sizeof line, m_Output) != nullptr) {
            const std::string text = line;
            if (text.rfind("Listening on http", 0) == 0) {
                m_Port = static_cast<unsigned short>(std::stoi(text.substr(text.rfind(':') + 1)));
            }
        }
        return m_Port;
    }
    /// Signals the process (0: not at all) and waits for its end; its exit status, or minus the signal that
    /// ended it.
    int End(int signal) {
        if (signal != 0) kill(m_Pid, signal);
        int status = 0;
        waitpid(m_Pid, &status, 0);
        m_Pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

  private:
    pid_t m_Pid = -1;
    FILE* m_Output = nullptr;
    unsigned short m_Port = 0;
};

class ServerProcessTest : public ::testing::Test {
  protected:
    std::unique_ptr<Process> Start(const std::string& json, std::vector<std::string> more = {}) {
        Testing::WriteFile(folder / "config.json", json);
        more.insert(more.begin(), {"--config", folder / "config.json"});
        return std::make_unique<Process>(folder / "errors", more);
    }
    static unsigned Status(HttpClient& client, const std::string& method, const std::string& target,
                           const std::string& body = "") {
        return client.Call(method, target, body).result_int();
    }

    Testing::TemporaryFolder folder;
};

// An event's listener is a path on the server: the call goes out and comes in again with the process's own
// credential.
TEST_F(ServerProcessTest, OneEventChainsToAnother) {
    Testing::WriteTLSIdentity(folder / "identity.pem");
    int round = 0;
    for (const bool tls : {false, true}) {
        for (const std::string token : {"", "t0ken"}) {
            const std::string journal = folder / ("journal" + std::to_string(round++));
            const std::string config = R"({"Timeout_ms": 20000, "PythonPath": [")" EXAMPLES_DIR
                                       R"(/handlers"], "BindAddress": {"ListenPort": 0)" +
                                       std::string(tls ? R"(, "TLSIdentity": "identity.pem")" : "") + "}," +
                                       (token.empty() ? "" : R"("AccessToken": ")" + token + "\",") +
                                       R"("EventManager": {"event_list": [
                    {"event_name": "A", "listener_list": [{"callback": "/api/v1/events/B", "listener_data": {"by": "A"}}]},
                    {"event_name": "B", "listener_list": [{"callback": "python://write_journal",
                                                           "listener_data": {"file": ")" +
                                       journal + R"("}}]}]}})";
            const auto server = Start(config);
            ASSERT_NE(server->Port(), 0) << ReadFile(folder / "errors");
            HttpClient client(server->Port(), tls, token);
            EXPECT_EQ(Status(client, "POST", "/api/v1/events/A", R"({"n": 5})"), 202u);
            EXPECT_TRUE(Eventually([&] { return ReadFile(journal).find("\"n\": 5") != std::string::npos; }))
                << tls << token << ReadFile(folder / "errors");
            HttpClient stranger(server->Port(), tls);
            EXPECT_EQ(Status(stranger, "GET", "/api/v1/events"), token.empty() ? 200u : 401u);
            EXPECT_EQ(Status(stranger, "GET", "/readyz"), 200u);
        }
    }
}

// Whatever was answered with 201 is there after the process was killed in the middle of more.
TEST_F(ServerProcessTest, AKillLosesNothingThatWasAnswered) {
    const std::string config = R"({"BindAddress": {"ListenPort": 0}, "StateFile": "state.json"})";
    std::set<std::string> answered;
    std::mutex lock;
    for (int round = 0; round < 3; ++round) {
        const auto server = Start(config);
        ASSERT_NE(server->Port(), 0) << ReadFile(folder / "errors");
        HttpClient reader(server->Port(), false);
        const std::string events = reader.Call("GET", "/api/v1/events").body();
        for (const std::string& name : answered) {
            EXPECT_NE(events.find("\"" + name + "\""), std::string::npos) << name;
        }
        const std::size_t enough = answered.size() + 100;
        const auto create = [&](int thread) {
            try {
                HttpClient client(server->Port(), false);
                for (int i = 0;; ++i) {
                    const std::string name =
                        "e" + std::to_string(round) + "-" + std::to_string(thread) + "-" + std::to_string(i);
                    const unsigned status =
                        Status(client, "POST", "/api/v1/events", R"({"event_name": ")" + name + "\"}");
                    std::lock_guard<std::mutex> guard(lock);
                    if (status == 201) answered.insert(name);
                }
            } catch (const boost::system::system_error&) {  // the server was killed
            }
        };
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i) threads.emplace_back(create, i);
        EXPECT_TRUE(Eventually([&] {
            std::lock_guard<std::mutex> guard(lock);
            return answered.size() >= enough;
        }));
        EXPECT_EQ(server->End(SIGKILL), -SIGKILL);
        for (std::thread& thread : threads) thread.join();
    }
}

TEST_F(ServerProcessTest, EveryClientOfTheFeedSeesEveryPostingInOrder) {
    constexpr int clients = 200, postings = 500;
    const auto server = Start(R"({"Timeout_ms": 20000, "BindAddress": {"ListenPort": 0},
                                  "EventManager": {"event_list": [{"event_name": "e"}]}})");
    ASSERT_NE(server->Port(), 0) << ReadFile(folder / "errors");
    std::vector<std::unique_ptr<FeedClient>> feeds;
    for (int i = 0; i < clients; ++i) feeds.push_back(std::make_unique<FeedClient>(server->Port()));
    HttpClient poster(server->Port(), false);
    ASSERT_TRUE(Eventually([&] {
        return poster.Call("GET", "/metrics").body().find("\nvelmora_feed_clients 200\n") !=
               std::string::npos;
    }));

    std::atomic<int> complete{0}, normal_ends{0};
    std::vector<std::thread> threads;
    for (const auto& feed : feeds) {
        threads.emplace_back([&, client = feed.get()] {
            int next = 0;
            while (next < postings &&
                   client->Read().find("{\"n\":" + std::to_string(next) + "}") != std::string::npos) {
                ++next;
            }
            complete += next == postings;
            normal_ends += client->CloseCode() == 1001;
        });
    }
    for (int i = 0; i < postings; ++i) {
        ASSERT_EQ(Status(poster, "POST", "/api/v1/events/e", R"({"n":)" + std::to_string(i) + "}"), 202u);
    }
    EXPECT_TRUE(Eventually([&] { return complete == clients; })) << complete;
    EXPECT_EQ(server->End(SIGTERM), 0);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(normal_ends, clients);
}

TEST_F(ServerProcessTest, ACleanEndSavesWhatIsLeftAndTheStateFileWins) {
    const std::string config = R"({"BindAddress": {"ListenPort": 0}, "StateFile": "state.json",
                                   "EventManager": {"event_list": [{"event_name": "seed"}]}})";
    {
        const auto server = Start(config);
        ASSERT_NE(server->Port(), 0) << ReadFile(folder / "errors");
        HttpClient client(server->Port(), false);
        EXPECT_EQ(Status(client, "POST", "/api/v1/timers", R"({"event_name": "seed", "interval_sec": -1})"),
                  201u);
        EXPECT_EQ(Status(client, "POST", "/api/v1/events", R"({"event_name": "mine"})"), 201u);
        EXPECT_EQ(Status(client, "DELETE", "/api/v1/events/seed"), 204u);
        EXPECT_TRUE(Eventually([&] {
            return client.Call("GET", "/api/v1/timers").body() == R"({"timer_list":[]})";  // it has fired
        }));
        EXPECT_EQ(server->End(SIGTERM), 0);
    }
    const std::string saved = ReadFile(folder / "state.json");
    EXPECT_NE(saved.find("\"timer_list\":[]"), std::string::npos) << saved;
    {
        const auto server = Start(config);
        ASSERT_NE(server->Port(), 0) << ReadFile(folder / "errors");
        HttpClient client(server->Port(), false);
        EXPECT_EQ(Status(client, "GET", "/api/v1/events/mine"), 200u);
        EXPECT_EQ(Status(client, "GET", "/api/v1/events/seed"), 404u);
    }
    const std::string broken = saved.substr(0, saved.size() / 2);
    Testing::WriteFile(folder / "state.json", broken);
    EXPECT_EQ(Start(config)->End(0), 1);
    EXPECT_EQ(ReadFile(folder / "state.json"), broken);
}

TEST_F(ServerProcessTest, WhatKeepsItFromStartingIsOneLineAndStatusOne) {
    const auto busy = Start(R"({"BindAddress": {"ListenPort": 0}})");
    const std::string port = std::to_string(busy->Port());
    const std::pair<std::string, std::string> cases[] = {
        {R"({"Timeout_ms": "x"})", "/Timeout_ms"},
        {R"({"BindAddress": {"Host": "0.0.0.0", "ListenPort": 0}})", "token"},
        {R"({"BindAddress": {"ListenPort": )" + port + "}}", port},
        {"{", "JSON"},
    };
    for (const auto& [config, reason] : cases) {
        Testing::WriteFile(folder / "errors", "");
        EXPECT_EQ(Start(config)->End(0), 1) << config;
        const std::string errors = ReadFile(folder / "errors");
        EXPECT_NE(errors.find(reason), std::string::npos) << errors;
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
    }
    EXPECT_EQ(Start(R"({"BindAddress": {"ListenPort": 0}})", {"--check"})->End(0), 0);
    const std::string open = R"({"BindAddress": {"Host": "::"}})";
    EXPECT_EQ(Start(open, {"--check"})->End(0), 1);
    EXPECT_EQ(Start(open, {"--check", "--listen", "[::1]:0"})->End(0), 0);
    EXPECT_EQ(Start(R"({"Timeout_ms": 0, "BindAddress": {"Hos": ""}})", {"--check"})->End(0), 1);
}

}  // namespace Server
