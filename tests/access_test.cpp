// Who may do what: every route with every role, over real connections.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <optional>
#include <regex>

#include "EventManager.h"
#include "RawClient.h"
#include "Testing.h"
#include "config/Config.h"
#include "config/Tokens.h"
#include "http/HttpServer.h"
#include "rest/Router.h"

namespace Server {

using ::testing::HasSubstr;
using ::testing::Not;
using Testing::RawAnswer;
using Testing::RawClient;

namespace {

// The router's decisions; what it lets through is answered without doing it.
class Decisions : public HttpHandler {
  public:
    std::optional<HttpResponse> Route(const HttpRequest& head, HttpRoute& route) const override {
        return m_Router.Route(head, route);
    }
    HttpResponse Handle(const HttpRequest& request, HttpRoute& route) override {
        return Live ? m_Router.Handle(request, route) : Problem(Velmora::STATUS_200_OK, "let in");
    }
    bool Live = false;

  private:
    Router m_Router{Config()};
};

class AccessTest : public ::testing::Test {
  protected:
    AccessTest() {
        std::signal(SIGPIPE, SIG_IGN);
        m_Options.AccessToken = "plain-token";
        Add("reader", Role::Read);
        Add("poster", Role::Post);
        Add("keeper", Role::Admin);
        Add("orders", Role::Post, {"order.*", "stock"});
        m_Server.emplace(m_Options, m_Handler);
        EXPECT_TRUE(m_Server->Bind().Success());
        EXPECT_TRUE(m_Server->Serve().Success());
    }
    ~AccessTest() override { m_Server->Stop(1000); }

    void Add(const std::string& name, Role role, std::vector<std::string> events = {}) {
        AccessToken token;
        token.Name = name;
        token.Digest = TokenDigest(name + "-token");
        token.Role = role;
        token.Events = std::move(events);
        m_Options.AccessTokens.push_back(std::move(token));
    }

    // Asks as the holder of NAME-token, nobody where that is empty. A body is announced and not sent.
    RawAnswer Ask(const std::string& name, const std::string& method, const std::string& target,
                  const std::string& fields = "", const std::string& body = "") {
        std::string request = method + " " + target + " HTTP/1.1\r\nHost: localhost\r\n" + fields;
        if (!name.empty()) request += "Authorization: Bearer " + name + "-token\r\n";
        if (!body.empty())
            request +=
                "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
        return RawClient(m_Server->Port()).Ask(request + "\r\n" + body);
    }
    // Whoever is refused is so before the body comes; who is let in has to send it.
    int Decided(const std::string& name, const RouteInfo& route, const std::string& target, bool refusal) {
        if (!route.TakesBody) return Ask(name, route.Method, target).Status;
        if (!refusal) return Ask(name, route.Method, target, "", "{}").Status;
        return Ask(name, route.Method, target, "Content-Type: application/json\r\nContent-Length: 9\r\n")
            .Status;
    }

    // What the rules say, from method and path alone.
    static int Refused(const std::string& name, const RouteInfo& route, const std::string& target) {
        if (!target.starts_with("/api/")) return 0;
        if (name.empty() || name == "stranger") return 401;
        if (name == "plain" || name == "keeper") return 0;
        const bool posts = route.Method == "POST" && route.Pattern == "/api/v1/events/{event_name}";
        const bool cloud = route.Pattern == "/api/v1/cloudevents";
        if (cloud) return name == "reader" ? 403 : 0;
        if (route.Method != "GET" && !posts) return 403;
        if (posts && name == "reader") return 403;
        if (name != "orders") return 0;
        const std::string& pattern = route.Pattern;
        if (pattern.find("{event_name}") != pattern.npos)
            return std::regex_search(target, std::regex("/(order\\.new|stock)(/|$)")) ? 0 : 403;
        static const std::regex some("/api/v1/(events|timers(/.*)?|watches|history|feed(/sse)?)");
        return std::regex_match(pattern, some) ? 0 : 403;
    }

    Decisions m_Handler;
    HttpServerOptions m_Options;
    std::optional<HttpServer> m_Server;
};

// Each route of the table, so that none can be forgotten; and refused before the body is there.
TEST_F(AccessTest, EveryRouteIsForWhoMayUseItAndNobodyElse) {
    const Testing::CapturedLog quiet;
    std::size_t refused = 0, let_in = 0;
    for (const RouteInfo& route : Router::Routes()) {
        for (const char* event : {"order.new", "stock", "stocks", "other", "order%2Enew", "%6frder.new"}) {
            std::string target = std::regex_replace(route.Pattern, std::regex("\\{event_name\\}"), event);
            if (target == route.Pattern && std::string(event) != "stock") continue;
            target =
                std::regex_replace(target, std::regex("\\{\\w+\\}"), "7d444840-9dc0-11d1-b245-5ffdce74fad2");
            const std::string meant = std::regex_replace(target, std::regex("%2E"), ".");
            const std::string plain = std::regex_replace(meant, std::regex("%6f"), "o");
            for (const char* name : {"", "stranger", "reader", "poster", "keeper", "orders", "plain"}) {
                SCOPED_TRACE(std::string(name) + " asks " + route.Method + " " + target);
                const int expected = Refused(name, route, plain);
                const int status = Decided(name, route, target, expected != 0);
                if (expected != 0) {
                    EXPECT_EQ(status, expected);
                    ++refused;
                } else {
                    EXPECT_TRUE(status == 200 || status == 426 || (status == 415 && !route.TakesBody))
                        << status;
                    ++let_in;
                }
            }
        }
    }
    EXPECT_GT(refused, 150u);
    EXPECT_GT(let_in, 150u);
}

TEST_F(AccessTest, SaysWhyAndWhoDidWhat) {
    Testing::CapturedLog log;
    const RawAnswer wrong = Ask("stranger", "GET", "/api/v1/events");
    EXPECT_TRUE(wrong.Has("error=\"invalid_token\"") &&
                wrong.Body.find("not known here") != std::string::npos);
    EXPECT_THAT(Ask("reader", "DELETE", "/api/v1/events").Body,
                HasSubstr(R"(The token \"reader\" has the role \"read\", and this needs \"admin\".)"));
    EXPECT_THAT(Ask("orders", "POST", "/api/v1/events/other").Body,
                HasSubstr(R"(The token \"orders\" is for the events order.*, stock only, and \"other\")"));
    EXPECT_TRUE(log.At(Mirel::LOG_NOTICE).empty());
    Ask("keeper", "DELETE", "/api/v1/events/a%0ab");
    Ask("poster", "POST", "/api/v1/events/a");
    Ask("plain", "DELETE", "/api/v1/timers");
    const std::vector<std::string> lines = log.At(Mirel::LOG_NOTICE);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_THAT(lines[0], ::testing::MatchesRegex(
                              "Audit: \"keeper\" at 127.0.0.1:[0-9]+: DELETE /api/v1/events/a%0ab 200\n"));
    EXPECT_THAT(lines[1], HasSubstr("Audit: \"AccessToken\" at 127.0.0.1:"));
    EXPECT_THAT(lines[0] + lines[1], Not(HasSubstr("-token")));
}

TEST_F(AccessTest, FeedIsForTheSameTokens) {
    const std::string upgrade =
        "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
    const std::string stream = "Accept: text/event-stream\r\n";
    const auto offering = [&](const char* protocols) {
        return upgrade + "Sec-WebSocket-Protocol: " + protocols + "\r\n";
    };
    // "reader-token", "orders-token" and "nobody-token" in base64url.
    const std::string reader = "bearer.cmVhZGVyLXRva2Vu", orders = "bearer.b3JkZXJzLXRva2Vu",
                      nobody = "bearer.bm9ib2R5LXRva2Vu";
    const struct {
        std::string Name, Target, Fields;
        int Status;
    } cases[] = {
        {"", "/api/v1/feed", offering(("velmora.feed.v1, " + reader).c_str()), 101},
        {"", "/api/v1/feed", offering(("velmora.feed.v1, " + nobody).c_str()), 401},
        {"", "/api/v1/feed", offering(("velmora.feed.v1, " + orders).c_str()), 403},
        {"", "/api/v1/feed", offering(("velmora.feed.v2, " + orders).c_str()), 101},
        {"", "/api/v1/feed?event_name=order.a*", offering(("velmora.feed.v2, " + orders).c_str()), 101},
        {"", "/api/v1/feed?event_name=other", offering(("velmora.feed.v2, " + orders).c_str()), 403},
        {"", "/api/v1/feed/sse", "", 401},
        {"reader", "/api/v1/feed/sse", "", 200},
        {"orders", "/api/v1/feed", stream, 200},
        {"orders", "/api/v1/feed/sse?event_name=stock&event_name=orde", "", 403},
    };
    for (const auto& one : cases)
        EXPECT_EQ(Ask(one.Name, "GET", one.Target, one.Fields).Status, one.Status)
            << one.Target << one.Fields;
}

// On the live queue: lists and history hold what the token is for, and nothing else.
TEST_F(AccessTest, ShowsOnlyTheEventsOfTheToken) {
    Velmora::PListDict dict;
    ASSERT_TRUE(EventManager::InitEventQueue(dict).Success());
    m_Handler.Live = true;
    for (const char* event : {"order.new", "stock", "secret"}) {
        const std::string name = std::string("{\"event_name\": \"") + event + "\"";
        EXPECT_EQ(Ask("keeper", "POST", "/api/v1/events", "", name + "}").Status, 201);
        EXPECT_EQ(Ask("keeper", "POST", "/api/v1/timers", "", name + ", \"interval_sec\": 1000}").Status,
                  201);
        EXPECT_EQ(Ask("poster", "POST", std::string("/api/v1/events/") + event).Status, 202);
    }
    for (const char* target :
         {"/api/v1/events", "/api/v1/timers", "/api/v1/history", "/api/v1/history?event_name=*"}) {
        const std::string all = Ask("reader", "GET", target).Body, some = Ask("orders", "GET", target).Body;
        EXPECT_THAT(all, HasSubstr("secret"));
        EXPECT_THAT(some,
                    ::testing::AllOf(HasSubstr("order.new"), HasSubstr("stock"), Not(HasSubstr("secret"))));
    }
    EXPECT_EQ(Ask("orders", "GET", "/api/v1/history?event_name=secret").Status, 403);
    const std::string timers = Ask("reader", "GET", "/api/v1/timers").Body;
    const std::regex secret(
        R"re("id":"([0-9a-f-]+)"[^}]*"event_name":"secret"|"event_name":"secret"[^}]*"id":"([0-9a-f-]+)")re");
    std::smatch found;
    ASSERT_TRUE(std::regex_search(timers, found, secret)) << timers;
    const std::string path = "/api/v1/timers/" + found[1].str() + found[2].str();
    EXPECT_EQ(Ask("orders", "GET", path).Status, 404);
    EXPECT_EQ(Ask("reader", "GET", path).Status, 200);
    RawClient stream(m_Server->Port());
    stream.Send(
        "GET /api/v1/feed/sse?event_name=* HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer "
        "orders-token\r\n\r\n");
    EXPECT_EQ(stream.ReadAnswer().Status, 200);
    std::string text = stream.Read(20);
    for (const char* event : {"secret", "stock"})
        Ask("poster", "POST", std::string("/api/v1/events/") + event);
    while (text.find("event: stock\n") == std::string::npos && !text.empty() && text.size() < 4000) {
        const std::string more = stream.Read(1);
        if (more.empty()) break;
        text += more;
    }
    EXPECT_THAT(text, ::testing::AllOf(HasSubstr("event: stock\n"), Not(HasSubstr("secret"))));
    EXPECT_TRUE(EventManager::StopEventQueue().Success());
    Velmora::CloseAllWebSocketClients();
}

TEST(AccessTokensTest, ConfigurationIsCheckedAndPrintedWithoutSecrets) {
    const Testing::TemporaryFolder folder;
    Testing::WriteFile(folder / "token", "token-of-the-file\n");
    std::string fault;
    const std::string hash = *HashOfToken("a-long-token-for-the-hash", fault);
    std::vector<ConfigFault> faults;
    const auto load = [&](const std::string& tokens, const std::string& more = "") {
        faults.clear();
        Testing::WriteFile(folder / "config.json", "{\"AccessTokens\": [" + tokens + "]" + more + "}");
        return LoadConfig(folder / "config.json", faults);
    };
    const std::string good = R"({"Name": "a", "Token": "token-a", "Role": "read", "Events": ["x.*"]},
                                {"Name": "b", "TokenFile": "token", "Role": "post"},
                                {"Name": "c", "Hash": ")" +
                             hash + R"(", "Role": "admin"})";
    const Config config = load(good);
    ASSERT_TRUE(faults.empty()) << faults[0].Pointer << faults[0].What;
    EXPECT_EQ(config.Http.AccessTokens[1].Digest, TokenDigest("token-of-the-file"));
    EXPECT_EQ(config.Http.AccessTokens[2].Digest, TokenDigest("a-long-token-for-the-hash"));
    const std::string printed = PrintConfig(config);
    EXPECT_THAT(printed, ::testing::AllOf(HasSubstr("\"(hidden)\""), HasSubstr(folder / "token"),
                                          Not(HasSubstr("token-a")), Not(HasSubstr(hash.substr(10)))));
    Testing::WriteFile(folder / "printed.json", printed);
    LoadConfig(folder / "printed.json", faults);
    ASSERT_EQ(faults.size(), 2u);  // of the two that are hidden
    EXPECT_THAT(faults[0].What + faults[1].What, HasSubstr("put the secret itself there"));

    const auto bad = [&](const std::string& tokens, const std::string& more = "") {
        load(tokens, more);
        std::string text;
        for (const ConfigFault& one : faults) text += one.Pointer + " " + one.What + "\n";
        return text;
    };
    EXPECT_EQ(bad(R"({"Role": "read", "Token": "t"})"), "/AccessTokens/0 \"Name\" is missing\n");
    EXPECT_THAT(bad(R"({"Name": "a", "Role": "read"})"), HasSubstr("/AccessTokens/0 must have one of"));
    EXPECT_THAT(bad(R"({"Name": "a", "Role": "read", "Token": "t", "Hash": "h"})"),
                HasSubstr("must have one of"));
    EXPECT_THAT(bad(R"({"Name": "a", "Role": "boss", "Token": "t"})"),
                HasSubstr("/AccessTokens/0/Role must be"));
    EXPECT_THAT(bad(R"({"Name": "a", "Role": "admin", "Token": "t", "Events": ["x"]})"),
                HasSubstr("/0/Events cannot"));
    EXPECT_THAT(bad(R"({"Name": "a", "Role": "read", "Hash": "md5:00"})"), HasSubstr("--hash-token"));
    EXPECT_THAT(bad(good + R"(, {"Name": "d", "Role": "read", "Token": "token-of-the-file"})"),
                HasSubstr("/AccessTokens/3/Token is the same token as that of \"b\""));
    EXPECT_THAT(bad(good, R"(, "AccessToken": "token-a")"), HasSubstr("the same token as \"AccessToken\""));
    EXPECT_FALSE(HashOfToken("short", fault));
    EXPECT_THAT(fault, HasSubstr("fewer than 20"));
}

}  // namespace

}  // namespace Server
