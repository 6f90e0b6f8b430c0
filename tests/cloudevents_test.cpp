// CloudEvents in both modes, and a base path in front of every path, over real connections.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <optional>

#include "EventManager.h"
#include "RawClient.h"
#include "Testing.h"
#include "config/Config.h"
#include "http/HttpServer.h"
#include "rest/Router.h"

namespace Server {

using ::testing::HasSubstr;
using ::testing::Not;
using Testing::RawAnswer;
using Testing::RawClient;

namespace {

class CloudEventsTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        std::signal(SIGPIPE, SIG_IGN);
        Velmora::PListDict dict;
        ASSERT_TRUE(EventManager::InitEventQueue(dict).Success());
    }
    CloudEventsTest() {
        m_Options.BasePath = "/velmora/events";
        AccessToken some;
        some.Name = "some";
        some.Digest = TokenDigest("some-token");
        some.Role = Role::Post;
        some.Events = {"order.*"};
        m_Options.AccessToken = "token";
        m_Options.AccessTokens = {some};
        m_Server.emplace(m_Options, m_Router);
        EXPECT_TRUE(m_Server->Bind().Success());
        EXPECT_TRUE(m_Server->Serve().Success());
    }
    ~CloudEventsTest() override {
        m_Server->Stop(1000);
        EventManager::GlobalEventQueue().DeleteAllEvents();
    }

    RawAnswer Ask(const std::string& method, const std::string& target, const std::string& fields = "",
                  const std::string& body = "", const std::string& token = "token") {
        return RawClient(m_Server->Port())
            .Ask(method + " " + target + " HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer " + token +
                 "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + fields + "\r\n" + body);
    }
    RawAnswer Post(const std::string& fields, const std::string& body, const std::string& token = "token") {
        return Ask("POST", "/api/v1/cloudevents", fields, body, token);
    }
    void Register(const std::string& name) {
        EXPECT_EQ(Ask("POST", "/api/v1/events", "Content-Type: application/json\r\n",
                      "{\"event_name\": \"" + name + "\"}")
                      .Status,
                  201);
    }
    std::string History() { return Ask("GET", "/api/v1/history").Body; }

    HttpServerOptions m_Options;
    static Config Below(const std::string& base) {
        Config config;
        config.Http.BasePath = base;
        return config;
    }
    Router m_Router{Below("/velmora/events")};
    std::optional<HttpServer> m_Server;
};

constexpr const char* Structured = "Content-Type: Application/CloudEvents+json; charset=utf-8\r\n";
constexpr const char* Whole = R"({"specversion": "1.0", "id": "1", "source": "/shop", "type": "order.new")";
const std::string Binary =
    "ce-specversion: 1.0\r\nCE-ID: 7\r\nce-source: /a%20b\r\nce-type: order.new\r\nce-traceparent: 00-1\r\n";

TEST_F(CloudEventsTest, BothModesPostTheEventOfTheType) {
    Register("order.new");
    const RawAnswer posted = Post(Structured, std::string(Whole) + R"(, "data": [1, 2.50], "myext": true})");
    EXPECT_EQ(posted.Status, 202) << posted.Body;
    EXPECT_THAT(posted.Body, HasSubstr(R"({"event_name":"order.new","posted":true,"id":")"));
    EXPECT_THAT(History(), HasSubstr(R"("data":[1,2.50],"myext":true)"));

    EXPECT_EQ(Post(Binary + "Content-Type: application/vnd.shop+json\r\n", R"({"n": 5})").Status, 202);
    EXPECT_THAT(History(),
                ::testing::AllOf(HasSubstr(R"("source":"/a b")"), HasSubstr(R"("traceparent":"00-1")"),
                                 HasSubstr(R"("data":{"n":5})"), HasSubstr(R"("id":"7")")));
    EXPECT_EQ(Post(Binary + "Content-Type: text/plain\r\n", "a text").Status, 202);
    EXPECT_THAT(History(), HasSubstr(R"("data":"a text")"));
    EXPECT_EQ(Post(Binary + "Content-Type: image/png\r\n", std::string("\0\xff\x10", 3)).Status, 202);
    EXPECT_THAT(History(), HasSubstr(R"("data_base64":"AP8Q")"));
    EXPECT_EQ(Post(Binary, "").Status, 202);
}

TEST_F(CloudEventsTest, WhatIsNoCloudEventIsRefusedWithTheReason) {
    Register("secret");
    const struct {
        std::string Fields, Body;
        int Status;
        const char* Reason;
    } cases[] = {
        {Structured, "{}", 422, R"(\"specversion\" is missing)"},
        {Structured, R"({"specversion": "0.3", "id": "1", "source": "s", "type": "t"})", 422,
         R"("/specversion")"},
        {Structured, std::string(Whole) + R"(, "time": "noon"})", 422, R"("/time")"},
        {Structured, std::string(Whole) + R"(, "Bad-Name": 1})", 422, R"("/Bad-Name")"},
        {Structured, std::string(Whole) + R"(, "data": 1, "data_base64": "AA=="})", 422, R"("/data_base64")"},
        {Structured, "[", 400, "not JSON"},
        {Structured, std::string(Whole) + "}", 404, "order.new"},
        {"Content-Type: application/cloudevents-batch+json\r\n", "[]", 415, "one event a request"},
        {"Content-Type: application/json\r\n", "{}", 415, "ce-specversion"},
        {Binary + "ce-id: 8\r\n", "", 400, "twice"},
        {Binary + "ce-x: %zz\r\n", "", 400, "percent"},
        {Binary + "Content-Type: application/json\r\n", "{", 400, "data is not JSON"},
        {"ce-type: order.new\r\n", "", 422, R"(\"id\" is missing)"},
    };
    for (const auto& one : cases) {
        const RawAnswer answer = Post(one.Fields, one.Body);
        EXPECT_EQ(answer.Status, one.Status) << one.Fields << one.Body;
        EXPECT_THAT(answer.Body, HasSubstr(one.Reason)) << one.Fields << one.Body;
    }
    const std::string other = R"({"specversion": "1.0", "id": "1", "source": "s", "type": "secret"})";
    EXPECT_EQ(Post(Structured, other, "some-token").Status, 403);
    EXPECT_EQ(Post(Structured, other, "nobody").Status, 401);
    EXPECT_EQ(Post(Structured, other).Status, 202);
}

TEST_F(CloudEventsTest, EveryPathIsServedBelowTheBasePathAsWell) {
    const std::string base = m_Options.BasePath;
    const RawAnswer made = Ask("POST", base + "/api/v1/events", "Content-Type: application/json\r\n",
                               R"({"event_name": "order.new"})");
    EXPECT_EQ(made.Status, 201);
    EXPECT_THAT(made.Head, HasSubstr("Location: " + base + "/api/v1/events/order.new\r\n"));
    for (const std::string& front : {base, std::string()}) {
        EXPECT_EQ(Ask("GET", front + "/api/v1/events/order.new").Status, 200);
        EXPECT_EQ(Ask("GET", front + "/healthz", "", "", "nobody").Status, 200);
        EXPECT_EQ(Ask("GET", front + "/api/v1/events", "", "", "nobody").Status, 401);
        EXPECT_EQ(Ask("GET", front + "/api/v1/feed").Status, 426);
        const RawAnswer page = Ask("GET", front + "/");
        EXPECT_THAT(page.Body,
                    ::testing::AllOf(HasSubstr("\"console/app.js\""), Not(HasSubstr("\"/console"))));
        EXPECT_EQ(Ask("GET", front + "/console/app.js").Status, 200);
    }
    EXPECT_THAT(Ask("GET", base + "/openapi.json").Body,
                HasSubstr("\"servers\": [{\"url\": \"" + base + "\"}],\n"));
    EXPECT_EQ(Ask("GET", base + base + "/healthz").Status, 404);
    EXPECT_EQ(Ask("GET", "/velmora/eventsapi/v1/events").Status, 404);
    EXPECT_EQ(Ask("GET", base).Status, 404);
}

}  // namespace

}  // namespace Server
