// The REST interface through the router, on the live queue. Every answer is held against the description.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <set>
#include <thread>

#include "AskRouter.h"
#include "EventManager.h"
#include "HttpClient.h"
#include "HttpTestServer.h"
#include "NoMemory.h"
#include "SchemaCheck.h"
#include "Testing.h"
#include "config/StateFile.h"
#include "rest/Console.h"
#include "rest/ConsoleFiles.h"
#include "rest/Health.h"
#include "rest/OpenApi.h"
#include "rest/Router.h"

namespace Server {

using namespace Velmora;

namespace {

PListDict Parse(const std::string& json) {
    Mirel::Result_t why;
    const std::unique_ptr<PListItem> item = PListItem::CreateFromJSON(json, &why, PListItem::AnyDepth);
    const PListDict* dict = AsDict(item.get());
    if (dict == nullptr) ADD_FAILURE() << json << ": " << why.Message();
    return dict == nullptr ? PListDict() : *dict;
}

Method_t MethodNamed(const std::string& name) {
    for (int method = METH_OPTIONS; method <= METH_PATCH; ++method) {
        if (name == MethodToString(static_cast<Method_t>(method))) return static_cast<Method_t>(method);
    }
    ADD_FAILURE() << name;
    return METH_GET;
}

const PListDict& Description() {
    static const PListDict document = Parse(std::string(OpenApiDocument()));
    return document;
}

// The description's operation for a method and a pattern; empty where there is none.
const PListDict& Described(const std::string& method, const std::string& pattern) {
    std::string key = method;
    for (char& c : key) c = static_cast<char>(std::tolower(c));
    return Description().GetDict("paths").GetDict(pattern).GetDict(key);
}

// The schema of JSON content; null where there is none, as for text.
const PListItem* JSONSchema(const PListDict& described, const std::string& type) {
    return type.find("json") == std::string::npos
               ? nullptr
               : described.GetDict("content").GetDict(type).GetItem("schema");
}

}  // namespace

class RouterTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        PListDict dict;
        ASSERT_TRUE(EventManager::InitEventQueue(dict).Success());
    }
    void TearDown() override {
        for (const char* path : {"/api/v1/events", "/api/v1/timers", "/api/v1/watches"}) Send("DELETE", path);
        EventManager::GlobalEventQueue().SetMaxListeners(1024);
        EventManager::GlobalEventQueue().SetMaxWatches(1024);
    }

    // Asks with a method, "/path?query", a body and an If-None-Match; the answer is kept in `last` and its
    // status returned.
    int Send(const std::string& method, const std::string& target, const std::string& body = "",
             const std::string& tag = "") {
        last = Exchange(method, target, body, tag);
        HoldAgainstDescription(method, target.substr(0, target.find('?')), body);
        return last.Status;
    }
    virtual HttpResponse Exchange(const std::string& method, const std::string& target,
                                  const std::string& body, const std::string& tag) {
        const std::size_t mark = std::min(target.find('?'), target.size());
        HttpRequest request;
        request.Method = MethodNamed(method);
        request.Path = std::string_view(target).substr(0, mark);
        request.Query = std::string_view(target).substr(std::min(mark + 1, target.size()));
        request.Body = body;
        request.HasBody = !body.empty();
        request.IfNoneMatch = tag;
        return Testing::AskRouter(router, request);
    }
    int Call(const std::string& line, const std::string& body = "") {
        return Send(line.substr(0, line.find(' ')), line.substr(line.find(' ') + 1), body);
    }
    std::string Header(const std::string& name) const {
        for (const auto& [key, value] : last.Headers) {
            if (key == name) return value;
        }
        return "";
    }
    PListDict Body() const { return Parse(last.Body); }
    static std::string LastId() { return EventManager::ReadEventHistory(nullptr).Last.Text(); }
    // Pointers of the faults in the last problem, joined by blanks.
    std::string Pointers() const {
        std::string pointers;
        const PListDict body = Body();
        for (const PListItem& error : body.GetArray("errors")) {
            pointers += (pointers.empty() ? "" : " ") + AsDict(&error)->GetData("pointer").Text();
        }
        return pointers;
    }
    std::size_t Count(const char* path, const char* list) {
        EXPECT_EQ(Send("GET", path), 200);
        return Body().GetArray(list).Size();
    }

    Config config;
    Router router{config};
    HttpResponse last;

  private:
    void HoldAgainstDescription(const std::string& method, const std::string& path, const std::string& body) {
        if (last.Status >= 400) {
            EXPECT_EQ(Body().GetData("status").Text(), std::to_string(last.Status)) << last.Body;
        }
        for (const RouteInfo& route : Router::Routes()) {
            if (method != route.Method || !MatchesPattern(route.Pattern, path)) continue;
            SCOPED_TRACE(method + " " + path + " " + std::to_string(last.Status));
            const PListDict& operation = Described(route.Method, route.Pattern);
            HoldAgainst(operation.GetDict("responses").GetDict(std::to_string(last.Status)));
            if (last.Status >= 300 || body.empty()) continue;
            HoldAgainst(JSONSchema(operation.GetDict("requestBody"), "application/json"), body);
        }
    }
    void HoldAgainst(PListDict response) {
        const std::string reference = response.GetData("$ref").Text();
        const std::string name = reference.substr(reference.rfind('/') + 1);
        if (!name.empty()) response = Description().GetDict("components").GetDict("responses").GetDict(name);
        EXPECT_TRUE(response.HasItem("description")) << "not described";
        for (const auto& [header, schema] : response.GetDict("headers")) {
            EXPECT_NE(Header(std::string(header)), "") << header;
        }
        const std::string type(last.ContentType.substr(0, last.ContentType.find(';')));
        EXPECT_EQ(response.GetDict("content").HasItem(type), response.HasItem("content")) << type;
        HoldAgainst(JSONSchema(response, type), last.Body);
    }
    static void HoldAgainst(const PListItem* schema, const std::string& json) {
        if (schema == nullptr) return;
        EXPECT_EQ(Testing::SchemaCheck(Description()).Fault(*schema, Parse(json)), "") << json.substr(0, 500);
    }
    static bool MatchesPattern(std::string pattern, std::string path) {
        const auto steps = [](const std::string& text) { return std::count(text.begin(), text.end(), '/'); };
        const std::size_t brace = pattern.find('{');
        const bool tail = brace == std::string::npos || pattern.find("/listeners") == std::string::npos ||
                          path.find("/listeners") != std::string::npos;
        return steps(pattern) == steps(path) && tail && pattern.substr(0, brace) == path.substr(0, brace);
    }
};

enum class Transport { Direct, Plain, TLS };

// The same questions put to the router itself, and through a socket.
class RestTest : public RouterTest, public ::testing::WithParamInterface<Transport> {
  protected:
    void SetUp() override {
        if (GetParam() == Transport::Direct) return;
        HttpServerOptions options;
        if (GetParam() == Transport::TLS) {
            options.TLSIdentity = folder / "identity.pem";
            Testing::WriteTLSIdentity(options.TLSIdentity);
        }
        server = std::make_unique<HttpServer>(options, router);
        const Mirel::Result_t bound = server->Bind();
        ASSERT_TRUE(bound.Success()) << bound.Message();
        ASSERT_TRUE(server->Serve().Success());
        client = std::make_unique<Testing::HttpClient>(server->Port(), GetParam() == Transport::TLS);
    }
    HttpResponse Exchange(const std::string& method, const std::string& target, const std::string& body,
                          const std::string& tag) override {
        if (!client) return RouterTest::Exchange(method, target, body, tag);
        const Testing::HttpClient::Answer answer = client->Call(method, target, body, tag);
        HttpResponse response;
        response.Status = static_cast<Status_t>(answer.result_int());
        static std::set<std::string> types;
        response.ContentType = *types.emplace(answer[Testing::http::field::content_type]).first;
        response.Body = answer.body();
        for (const auto& field : answer) response.Headers.emplace_back(field.name_string(), field.value());
        return response;
    }

    Testing::TemporaryFolder folder;
    std::unique_ptr<HttpServer> server;
    std::unique_ptr<Testing::HttpClient> client;
};

std::string TransportName(const ::testing::TestParamInfo<Transport>& transport) {
    constexpr std::array<const char*, 3> Words = {"Direct", "Plain", "TLS"};
    return Words[transport.index];
}
INSTANTIATE_TEST_SUITE_P(Transports, RestTest,
                         ::testing::Values(Transport::Direct, Transport::Plain, Transport::TLS),
                         TransportName);

// ------------------------------------------------------------------------------------------- routes

TEST_F(RouterTest, TheDescriptionCoversEveryRouteAndNothingElse) {
    std::set<std::string> routes, described;
    for (const RouteInfo& route : Router::Routes()) {
        routes.insert(route.Method + " " + route.Pattern);
        const PListDict& operation = Described(route.Method, route.Pattern);
        EXPECT_EQ(operation.HasItem("requestBody"), route.TakesBody) << route.Pattern;
        std::vector<std::string> query;
        for (const PListItem& parameter : operation.GetArray("parameters")) {
            query.push_back(AsDict(&parameter)->GetData("name").Text());
        }
        EXPECT_EQ(query, route.Query) << route.Method << " " << route.Pattern;
    }
    for (const auto& [path, item] : Description().GetDict("paths")) {
        for (const auto& [key, operation] : *AsDict(&item)) {
            if (key == "parameters") continue;
            std::string method(key);
            for (char& c : method) c = static_cast<char>(std::toupper(c));
            described.insert(method + " " + std::string(path));
        }
    }
    EXPECT_EQ(routes, described);
    EXPECT_EQ(Description().GetDict("info").GetData("version").Text(), VELMORA_VERSION);
}

TEST_P(RestTest, PathsMethodsAndQueriesThatAreNotServed) {
    const std::pair<std::string, int> cases[] = {
        {"GET /api/v1/nothing", 404},
        {"GET /api/v1/events/", 404},
        {"GET /api/v1//events", 404},
        {"GET /api/v1/%65vents", 404},
        {"POST /healthz", 405},
        {"PUT /api/v1/events", 405},
        {"POST /api/v1/timers/x", 405},
        {"TRACE /api/v1/queue", 405},
        {"GET /api/v1/events/%zz", 400},
        {"GET /api/v1/history?limit=-1", 400},
        {"GET /api/v1/history?limit=1x", 400},
        {"GET /api/v1/history?after=1", 400},
        {"GET /api/v1/history?after=", 400},
        {"GET /api/v1/history?limt=1", 400},
        {"GET /api/v1/history?limit=1&limit=2", 400},
        {"GET /api/v1/deliveries?outcome=odd", 400},
        {"GET /api/v1/history?event_name=%f", 400},
        {"GET /api/v1/feed", 426},
        {"GET /api/v1/feed?event_nam=x", 400},
        {"DELETE /api/v1/watches?pth=/tmp", 400},
    };
    for (const auto& [line, status] : cases) EXPECT_EQ(Call(line), status) << line;
    EXPECT_EQ(Call("DELETE /api/v1/watches", R"({"path":"/tmp"})"), 400);
    for (const char* line : {"GET /", "OPTIONS /api/v1/queue", "GET /healthz"})
        EXPECT_EQ(Call(line, "{}"), 400) << line;
    EXPECT_EQ(Call("POST /api/v1/nothing", "{}"), 404);
    EXPECT_EQ(Call("PUT /api/v1/events", "{}"), 405);

    EXPECT_EQ(Call("PUT /api/v1/events"), 405);
    EXPECT_EQ(Header("Allow"), "GET, HEAD, POST, DELETE, OPTIONS");
    EXPECT_EQ(Call("OPTIONS /api/v1/config"), 204);
    EXPECT_EQ(Header("Allow"), "GET, HEAD, PATCH, OPTIONS");
    EXPECT_EQ(Call("HEAD /api/v1/config"), 200);
}

TEST_F(RouterTest, OnlyWhatMayWaitForTheQueueSaysSo) {
    const std::set<std::string> never{"/api/v1/deliveries", "/api/v1/deliveries/{delivery_id}",
                                      "/api/v1/config",     "/api/v1/feed",
                                      "/api/v1/feed/sse",   "/api/v1/cluster"};
    HttpRequest request;
    for (const RouteInfo& route : Router::Routes()) {
        request.Method = MethodNamed(route.Method);
        request.Path = route.Pattern;
        const bool queue = route.Pattern.rfind("/api/", 0) == 0 && never.count(route.Pattern) == 0;
        HttpRoute found;
        found.Caller = CallerWithAllRights("");
        EXPECT_FALSE(router.Route(request, found)) << route.Pattern;
        EXPECT_EQ(found.MayBlock, queue) << route.Pattern;
    }
}

// Every body that is refused, and that it changed nothing.
TEST_P(RestTest, WrongBodiesAreRefusedAtTheirPlace) {
    struct Case {
        std::string line, body;
        int status;
        std::string pointers;
    };
    const Case cases[] = {
        {"POST /api/v1/events", "", 400, ""},
        {"POST /api/v1/events", R"({"event_name": "x")", 400, ""},
        {"POST /api/v1/events", "\"\xff\"", 400, ""},
        {"POST /api/v1/events", std::string(300, '['), 400, ""},
        {"POST /api/v1/events", "[]", 422, ""},
        {"POST /api/v1/events", "{}", 422, ""},
        {"POST /api/v1/events", R"({"event_name": "", "event_dat": {}})", 422, "/event_name /event_dat"},
        {"POST /api/v1/events", R"({"event_name": 5, "event_data": []})", 422, "/event_name /event_data"},
        {"POST /api/v1/events/known", "5", 422, ""},
        {"POST /api/v1/events/known", "{", 400, ""},
        {"POST /api/v1/events/known/listeners", R"({"listener_data": 1})", 422, "/listener_data"},
        {"POST /api/v1/events", R"({"event_name": ")" + std::string(1025, 'x') + "\"}", 422, "/event_name"},
        {"POST /api/v1/timers", R"({"interval_sec": 5, "event_name": ")" + std::string(1025, 'x') + "\"}",
         422, "/event_name"},
        {"POST /api/v1/watches", R"({"path": "/", "event_name": ".."})", 422, "/event_name"},
        {"POST /api/v1/events", R"({"event_name": "."})", 422, "/event_name"},
        {"POST /api/v1/events/known/listeners", R"({"callback": "no url"})", 400, "/callback"},
        {"POST /api/v1/events/known/listeners", R"({"callback": ""})", 400, "/callback"},
        {"POST /api/v1/events/known/listeners", R"({"callback": "ftp://127.0.0.1/"})", 400, "/callback"},
        {"POST /api/v1/events/known/listeners", R"({"callback": "//127.0.0.1/"})", 400, "/callback"},
        {"POST /api/v1/events/known/listeners", R"({"callback": "http:///python://m"})", 400, "/callback"},
        {"POST /api/v1/events/known/listeners", R"({"callback": "python://"})", 400, "/callback"},
        {"POST /api/v1/events/known/listeners", R"({"callback": "python://.m"})", 400, "/callback"},
        {"POST /api/v1/events/known/listeners", R"({"callback": "python://m/n"})", 400, "/callback"},
        {"POST /api/v1/events/known/listeners", R"({"callback": "python://m\u0000x"})", 422, "/callback"},
        {"POST /api/v1/queue",
         R"({"event_list": [{"event_name": "ok"}, {"event_name": ")" + std::string(1025, 'x') +
             R"(", "listener_list": [{"callback": "http://h/"}, {"callback": "ftp://h/"}]}]})",
         422, "/event_list/1/event_name /event_list/1/listener_list/1/callback"},
        {"POST /api/v1/timers", R"({"event_name": "known"})", 422, ""},
        {"POST /api/v1/timers", R"({"interval_sec": 5})", 422, ""},
        {"POST /api/v1/timers", R"({"event_name": "known", "interval_sec": 0})", 422, ""},
        {"POST /api/v1/timers", R"({"event_name": "known", "interval_sec": 1.5})", 422, "/interval_sec"},
        {"POST /api/v1/timers", R"({"event_name": "known", "interval_sec": 4294967296})", 422,
         "/interval_sec"},
        {"POST /api/v1/timers", R"({"event_name": "known", "interval_sec": 5, "start_time": "now"})", 422,
         "/start_time"},
        {"POST /api/v1/timers", R"({"event_name": "known", "start_time": "2026-01-31T12:00:00Z\u0000"})", 422,
         "/start_time"},
        {"POST /api/v1/watches", R"({"path": "", "event_name": "known", "once": 1})", 422, "/path /once"},
        {"POST /api/v1/watches", R"({"path": "/a\u0000b", "event_name": "known"})", 422, "/path"},
        {"PATCH /api/v1/config", R"({"max_listeners": 5, "max_watches": 2147483648})", 422, "/max_watches"},
        {"PATCH /api/v1/config", R"({"max_listeners": 5, "max_watch": 1})", 422, "/max_watch"},
        {"POST /api/v1/queue", R"({"max_listeners": 5})", 422, ""},
        {"POST /api/v1/queue",
         R"({"timer_list": [{"event_name": "known", "interval_sec": 9223372036854775807}]})", 422,
         "/timer_list/0/interval_sec"},
        {"POST /api/v1/queue", R"({"event_list": [{"event_name": "y"}], "timer_list": [{}]})", 422,
         "/timer_list/0 /timer_list/0"},
    };
    Call("POST /api/v1/events", R"({"event_name": "known"})");
    Call("GET /api/v1/queue");
    const std::string before = last.Body;
    for (const Case& test : cases) {
        EXPECT_EQ(Call(test.line, test.body), test.status)
            << test.line << " " << test.body << " " << last.Body;
        EXPECT_EQ(last.ContentType, "application/problem+json");
        EXPECT_EQ(Pointers(), test.pointers) << test.line << " " << test.body << " " << last.Body;
    }
    Call("GET /api/v1/queue");
    EXPECT_EQ(last.Body, before);
}

// One answer lists so many faults, each at its place, and says how many it leaves out.
TEST_F(RouterTest, OneAnswerListsAHundredFaults) {
    std::string document = R"({"timer_list": [0)";
    for (int i = 1; i < 130; ++i) document += ",0";
    EXPECT_EQ(Call("POST /api/v1/queue", document + "]}"), 422);
    const PListDict problem = Body();
    EXPECT_EQ(problem.GetArray("errors").Size(), 100u);
    EXPECT_EQ(AsDict(problem.GetArray("errors").GetItem(99))->GetData("pointer").Text(), "/timer_list/99");
    EXPECT_NE(problem.GetData("detail").Text().find(" 30 more are not listed."), std::string::npos);
}

// Wherever the memory ends on its way, a request is answered.
TEST_F(RouterTest, EveryRequestIsAnsweredWithoutMemory) {
    const Testing::CapturedLog log;
    HttpRequest request;
    request.Method = METH_POST;
    request.Path = "/api/v1/events";
    request.Body = R"({"event_name":"a name that takes memory of its own","event_data":{"k":[1,2]}})";
    request.HasBody = true;
    bool refused = true;
    for (int allocations = 0; refused; ++allocations) {
        HttpRoute route;
        route.Caller = CallerWithAllRights("");
        ASSERT_FALSE(router.Route(request, route));
        HttpResponse response;
        {
            const Testing::NoMemory none(allocations);
            response = router.Handle(request, route);
            refused = none.Refused();
        }
        const int status = response.Status;
        EXPECT_TRUE(status == 503 || status == 400 || status == 201 || status == 412) << status;
        EXPECT_TRUE(refused || status != 503);
    }
    EXPECT_TRUE(log.Has("Request POST /api/v1/events failed: "));
}

// ------------------------------------------------------------------------------------------- resources

TEST_P(RestTest, LongListsComeInPages) {
    for (const char* name : {"a", "c", "b2", "b1"}) {
        EXPECT_EQ(Call("POST /api/v1/events", std::string(R"({"event_name": ")") + name + "\"}"), 201);
        EXPECT_EQ(Call("POST /api/v1/timers",
                       std::string(R"({"interval_sec": 1000, "event_name": ")") + name + "\"}"),
                  201);
        EXPECT_EQ(Call("POST /api/v1/events/a/listeners",
                       std::string(R"({"callback": "http://127.0.0.1/)") + name + "\"}"),
                  201);
    }
    // What pages of two bring together, and where each ends.
    const auto pages = [&](const std::string& path, const char* list, const char* key,
                           const char* more = "") {
        std::string found, after;
        do {
            EXPECT_EQ(Send("GET", path + "?limit=2" + more + after), 200) << last.Body;
            const PListDict body = Body();
            for (const PListItem& item : body.GetArray(list))
                found += AsDict(&item)->GetData(key).Text() + " ";
            found += "| ";
            after = "&after=" + body.GetData("next_after").Text();
        } while (after.size() > 7);
        return found;
    };
    EXPECT_EQ(pages("/api/v1/events", "event_list", "event_name"), "a b1 | b2 c | ");
    EXPECT_EQ(pages("/api/v1/events", "event_list", "event_name", "&prefix=b"), "b1 b2 | ");
    EXPECT_EQ(pages("/api/v1/timers", "timer_list", "event_name", "&prefix=b").size(), 8u);
    const std::string listeners = pages("/api/v1/events/a/listeners", "listener_list", "callback");
    EXPECT_EQ(std::count(listeners.begin(), listeners.end(), '|'), 2);
    EXPECT_EQ(std::count(listeners.begin(), listeners.end(), ':'), 4) << listeners;
    EXPECT_EQ(pages("/api/v1/events/a/listeners", "listener_list", "callback", "&prefix=https"), "| ");
    EXPECT_EQ(Call("GET /api/v1/events?after=b1"), 200);
    EXPECT_EQ(Body().GetArray("event_list").Size(), 2u);
    EXPECT_EQ(Call("GET /api/v1/events?limit=x"), 400);
    EXPECT_EQ(Call("GET /api/v1/watches?prefix=/&limit=1"), 200);
    EXPECT_EQ(Call("GET /api/v1/events"), 200);
    EXPECT_FALSE(Body().HasItem("next_after"));
    EXPECT_EQ(Body().GetArray("event_list").Size(), 4u);
}

TEST_P(RestTest, TimersSayWhenTheyFireNext) {
    EXPECT_EQ(
        Call("POST /api/v1/timers", R"({"event_name": "a", "start_time": "2031-02-03T04:05:06+01:00"})"),
        201);
    EXPECT_EQ(Send("GET", Header("Location")), 200);
    EXPECT_EQ(Body().GetData("next_fire").Text().substr(0, 19), "2031-02-03T03:05:06");
    const Mirel::Timestamp before;
    EXPECT_EQ(Call("POST /api/v1/timers", R"({"event_name": "a", "interval_sec": 1000})"), 201);
    EXPECT_EQ(Send("GET", Header("Location")), 200);
    Mirel::Timestamp next = Mirel::Timestamp::FromMicroseconds(0);
    ASSERT_TRUE(next.DecodeString(Body().GetData("next_fire").Text().c_str()));
    EXPECT_NEAR(static_cast<double>(next.Microseconds() - before.Microseconds()), 1000e6, 20e6);
}

// A change that is meant for another state than there is changes nothing.
TEST_F(RouterTest, ChangesAreMadeOnlyInTheStateThatTheyAreMeantFor) {
    const auto send = [&](const char* method, const std::string& path, const std::string& tag,
                          const std::string& body = "") {
        HttpRequest request;
        request.Method = MethodNamed(method);
        request.Path = path;
        request.Body = body;
        request.HasBody = !body.empty();
        request.IfMatch = tag;
        last = Testing::AskRouter(router, request);
        return static_cast<int>(last.Status);
    };
    const auto tag_of = [&](const std::string& path) {
        EXPECT_EQ(Send("GET", path), 200);
        EXPECT_EQ(Send("GET", path, "", Header("ETag")), 304);
        return Header("ETag");
    };
    EXPECT_EQ(Call("POST /api/v1/events", R"({"event_name": "e"})"), 201);
    const std::string event = tag_of("/api/v1/events/e"), all = tag_of("/api/v1/events"),
                      limits = tag_of("/api/v1/config");
    EXPECT_EQ(Call("POST /api/v1/events/e/listeners", R"({"callback": "http://127.0.0.1/"})"), 201);
    const std::string listener = Header("Location");
    EXPECT_EQ(send("OPTIONS", "/api/v1/events/e", "\"other\""), 204);  // changes nothing, and has no state
    EXPECT_EQ(send("DELETE", "/api/v1/events/e", event), 412);
    EXPECT_EQ(send("DELETE", "/api/v1/events", all), 412);
    EXPECT_EQ(send("POST", "/api/v1/events/e", event), 412);
    EXPECT_EQ(send("PATCH", "/api/v1/config", limits, R"({"max_watches": 5})"), 200);
    EXPECT_EQ(send("PATCH", "/api/v1/config", limits, R"({"max_watches": 6})"), 412);
    EXPECT_EQ(EventManager::GlobalEventQueue().GetMaxWatches(), 5);
    EXPECT_EQ(send("DELETE", listener, "W/" + tag_of(listener)), 412);
    EXPECT_EQ(send("DELETE", listener, "\"other\", " + tag_of(listener)), 204);
    EXPECT_EQ(send("DELETE", listener, "*"), 404);
    EXPECT_EQ(send("DELETE", "/api/v1/events/e", event), 204);  // the state is that again
}

// Two who have seen the same state: one of them changes it, the other learns that it is another now.
TEST_F(RouterTest, OfTwoChangesThatAreMeantForOneStateOneIsMade) {
    constexpr int Rounds = 50;
    const Testing::CapturedLog quiet;
    for (int round = 0; round < Rounds && !HasFailure(); ++round) {
        EXPECT_EQ(Send("GET", "/api/v1/events"), 200);
        const std::string tag = Header("ETag");
        std::atomic<int> ready{0};
        int statuses[2] = {};
        const auto create = [&](int who) {
            const std::string body = "{\"event_name\": \"" + std::to_string(2 * round + who) + "\"}";
            HttpRequest request;
            request.Method = METH_POST;
            request.Path = "/api/v1/events";
            request.Body = body;
            request.HasBody = true;
            request.IfMatch = tag;
            ++ready;
            while (ready < 2) std::this_thread::yield();
            statuses[who] = Testing::AskRouter(router, request).Status;
        };
        std::thread other(create, 1);
        create(0);
        other.join();
        EXPECT_EQ(std::min(statuses[0], statuses[1]), 201) << round;
        EXPECT_EQ(std::max(statuses[0], statuses[1]), 412) << round;
        EXPECT_EQ(Send("DELETE", "/api/v1/events"), 204);
    }
}

TEST_P(RestTest, EventsLiveAndAreAnsweredUnderAnyName) {
    EXPECT_EQ(Call("GET /api/v1/events/a%2Fb%20%C3%A9"), 404);
    EXPECT_EQ(Call("POST /api/v1/events/a%2Fb%20%C3%A9"), 404);
    EXPECT_EQ(Call("POST /api/v1/events", "{\"event_name\": \"a/b \xC3\xA9\", \"event_data\": {\"k\": [1]}}"),
              201);
    const std::string location = Header("Location");
    EXPECT_EQ(location, "/api/v1/events/a%2Fb%20%C3%A9");
    const PListDict created = Body();
    EXPECT_EQ(Send("GET", location), 200);
    EXPECT_EQ(Body(), created);
    EXPECT_EQ(Call("POST /api/v1/events", "{\"event_name\": \"a/b \xC3\xA9\"}"), 412);
    EXPECT_EQ(Count("/api/v1/events", "event_list"), 1u);

    EXPECT_EQ(Send("POST", location, R"({"n": 12345678901234})"), 202);
    EXPECT_EQ(last.Body, "{\"event_name\":\"a/b \xC3\xA9\",\"posted\":true,\"id\":\"" + LastId() + "\"}");
    EXPECT_EQ(Send("POST", location), 202);
    const std::pair<std::string, std::string> escaped[] = {
        {"%22", R"(\")"}, {"%5C", R"(\\)"}, {"%0A", R"(\n)"}};
    for (const auto& [segment, json] : escaped) {
        Call("POST /api/v1/events", R"({"event_name":")" + json + "\"}");
        EXPECT_EQ(Call("POST /api/v1/events/" + segment), 202);
        EXPECT_EQ(last.Body, R"({"event_name":")" + json + R"(","posted":true,"id":")" + LastId() + "\"}");
        EXPECT_EQ(Call("DELETE /api/v1/events/" + segment), 204);
    }
    EXPECT_EQ(Call("GET /api/v1/history?event_name=a/b+%C3%A9&limit=2"), 200);
    const PListArray history = Body().GetArray("history");
    ASSERT_EQ(history.Size(), 2u);
    EXPECT_EQ(AsDict(history.GetItem(0))->GetDict("post_data").GetData("n").Text(), "12345678901234");
    EXPECT_FALSE(AsDict(history.GetItem(1))->HasItem("post_data"));

    EXPECT_EQ(Send("DELETE", location), 204);
    EXPECT_EQ(Send("DELETE", location), 404);
}

// Whatever can be created is found where its Location says, with everything below it.
TEST_P(RestTest, EveryNameThatIsTakenCanBeAddressed) {
    const std::string names[] = {std::string(1024, '/'), "...",   R"(\u0000)",
                                 R"(\udcff?#%)",         "+ &;=", "\xF0\x9F\x98\x80"};
    for (const std::string& name : names) {
        EXPECT_EQ(Call("POST /api/v1/events", R"({"event_name":")" + name + "\"}"), 201);
        const std::string event = Header("Location"), entry = last.Body;
        EXPECT_EQ(Send("GET", event), 200);
        EXPECT_EQ(last.Body, entry);
        EXPECT_EQ(Send("POST", event), 202);
        EXPECT_EQ(last.Body, R"({"event_name":")" + name + R"(","posted":true,"id":")" + LastId() + "\"}");
        EXPECT_EQ(Send("POST", event + "/listeners", R"({"callback":"python://a.b-c_1"})"), 201);
        EXPECT_EQ(Send("DELETE", Header("Location")), 204);
        EXPECT_EQ(Send("DELETE", event), 204);
    }
}

// What a program that links the module has registered may be wider; a document with it can be given back to
// the queue that answered it, but does not come into another one.
TEST_F(RouterTest, ADocumentFitsTheQueueThatAnsweredIt) {
    EventManager::IEventQueue& queue = EventManager::GlobalEventQueue();
    Mirel::UUID id;
    const std::string name(5000, 'x');
    EXPECT_EQ(queue.CreateEvent(name, nullptr), STATUS_201_CREATED);
    EXPECT_EQ(queue.CreateEventListener(name, "ftp://h/", nullptr, id), STATUS_201_CREATED);
    Call("GET /api/v1/queue");
    const std::string document = last.Body;
    EXPECT_EQ(Call("POST /api/v1/queue", document), 200);
    EXPECT_EQ(last.Body, document);
    queue.DeleteAllEvents();
    EXPECT_EQ(Call("POST /api/v1/queue", document), 422);
    EXPECT_EQ(Pointers(), "/event_list/0/event_name /event_list/0/listener_list/0/callback");
}

TEST_P(RestTest, ListenersComeAndGoAndTheLimitHolds) {
    const std::string listeners = "/api/v1/events/e/listeners";
    for (const char* method : {"GET", "DELETE"}) EXPECT_EQ(Send(method, listeners), 404);
    EXPECT_EQ(Send("POST", listeners, R"({"callback": "/x"})"), 404);
    Call("POST /api/v1/events", R"({"event_name": "e"})");
    EXPECT_EQ(Send("POST", listeners, R"({"callback": "/x", "listener_data": {"a": 1}})"), 201);
    const std::string location = Header("Location");
    const std::string id = Body().GetData("id").Text();
    EXPECT_EQ(location, listeners + "/" + id);
    EXPECT_EQ(Send("GET", location), 200);
    EXPECT_EQ(last.Body, R"({"id":")" + id + R"(","callback":"/x","listener_data":{"a":1}})");
    Call("POST /api/v1/events", R"({"event_name": "other"})");
    EXPECT_EQ(Send("GET", "/api/v1/events/other/listeners/" + id), 404);
    EXPECT_EQ(Send("POST", listeners, R"({"callback": "/x"})"), 412);
    EXPECT_EQ(Call("PATCH /api/v1/config", R"({"max_listeners": 1})"), 200);
    EXPECT_TRUE(last.Body.starts_with(R"({"max_listeners":1,"max_watches":1024,)"));
    EXPECT_EQ(Send("POST", listeners, R"({"callback": "/y"})"), 201);  // one more than the limit
    EXPECT_EQ(Send("POST", listeners, R"({"callback": "/z"})"), 409);
    EXPECT_EQ(Call("POST /api/v1/events", R"({"event_name": "f"})"), 409);
    EXPECT_EQ(Count(listeners.c_str(), "listener_list"), 2u);

    for (const char* method : {"GET", "DELETE"}) EXPECT_EQ(Send(method, listeners + "/no-uuid"), 404);
    EXPECT_EQ(Send("DELETE", location), 204);
    EXPECT_EQ(Send("DELETE", location), 404);
    EXPECT_EQ(Send("DELETE", listeners), 204);
    EXPECT_EQ(Count(listeners.c_str(), "listener_list"), 0u);
}

TEST_P(RestTest, TimersAreTakenWithNumbersAndTexts) {
    const std::pair<std::string, std::string> cases[] = {
        {R"("interval_sec": 60)", "60"},
        {R"("interval_sec": "600")", "600"},
        {R"("start_time": "2099-01-31T13:00:00+01:00", "timer_data": {"k": 1})",
         "2099-01-31T12:00:00+00:00"}};
    for (const auto& [members, kept] : cases) {
        ASSERT_EQ(Call("POST /api/v1/timers", R"({"event_name": "e", )" + members + "}"), 201);
        const std::string id = Body().GetData("id").Text();
        EXPECT_EQ(Header("Location"), "/api/v1/timers/" + id);
        ASSERT_EQ(Send("GET", "/api/v1/timers/" + id), 200);
        const PListDict entry = Body();
        EXPECT_EQ(entry.GetData("interval_sec").Text() + entry.GetData("start_time").Text(), kept);
        EXPECT_EQ(entry.GetData("id").Text(), id);
        EXPECT_EQ(entry.GetDict("timer_data").GetData("k").Text(), kept.size() > 3 ? "1" : "");
    }
    EXPECT_EQ(Count("/api/v1/timers", "timer_list"), 3u);
    const std::string location = "/api/v1/timers/" + Body().GetData("id").Text();
    EXPECT_EQ(Call("GET /api/v1/timers/none"), 404);
    EXPECT_EQ(Call("DELETE /api/v1/timers/none"), 404);
    Call("GET /api/v1/timers");
    const std::string first = AsDict(Body().GetArray("timer_list").GetItem(0))->GetData("id").Text();
    EXPECT_EQ(Send("DELETE", "/api/v1/timers/" + first), 204);
    EXPECT_EQ(Send("DELETE", "/api/v1/timers/" + first), 404);
    EXPECT_EQ(Call("DELETE /api/v1/timers"), 204);
    EXPECT_EQ(Count("/api/v1/timers", "timer_list"), 0u);
}

TEST_P(RestTest, WatchesWarnAndSayWhyTheyAreRefused) {
    const std::string watch = R"({"event_name": "e", "path": ")" + folder.Path();
    EXPECT_EQ(Call("POST /api/v1/watches", watch + R"(", "once": true, "watch_data": {"k": 1}})"), 201);
    EXPECT_EQ(Body().GetArray("warnings").Size(), 0u);
    EXPECT_EQ(Send("GET", Header("Location")), 200);
    EXPECT_EQ(last.Body, R"({"watch_list":[)" + watch.substr(0, 1) + R"("path":")" + folder.Path() +
                             R"(","event_name":"e","once":true,"watch_data":{"k":1}}]})");
    EXPECT_EQ(Call("POST /api/v1/watches", watch + R"(/absent"})"), 201);
    EXPECT_EQ(Body().GetArray("warnings").Size(), 1u);
    EXPECT_EQ(Call("POST /api/v1/watches", watch + R"("})"), 409);
    EXPECT_NE(Body().GetData("detail").Text().find("watched already"), std::string::npos);
    Call("PATCH /api/v1/config", R"({"max_watches": 0})");
    EXPECT_EQ(Call("POST /api/v1/watches", R"({"event_name": "e", "path": "/"})"), 409);
    EXPECT_NE(Body().GetData("detail").Text().find("max_watches"), std::string::npos);

    for (const char* method : {"GET", "DELETE"}) EXPECT_EQ(Send(method, "/api/v1/watches?path="), 404);
    EXPECT_EQ(Send("DELETE", "/api/v1/watches?path=" + PercentEncode(folder.Path())), 204);
    EXPECT_TRUE(Testing::Eventually([&] { return Count("/api/v1/watches", "watch_list") == 0; }));
}

TEST_P(RestTest, TheDocumentIsAppliedWholeOrNotAtAll) {
    const std::string document = R"({"event_list": [{"event_name": "e", "listener_list": [
        {"callback": "/1"}, {"callback": "/2"}, {"callback": "/3"}]}], "timer_list": [{"event_name": "e", "interval_sec": 9}],
        "watch_list": [{"path": "/", "event_name": "e"}]})";
    Call("PATCH /api/v1/config", R"({"max_listeners": 1})");
    EXPECT_EQ(Call("POST /api/v1/queue", document), 409);
    EXPECT_EQ(Pointers(), "/event_list/0/listener_list/2");
    EXPECT_EQ(Count("/api/v1/timers", "timer_list") + Count("/api/v1/events", "event_list"), 0u);
    Call("PATCH /api/v1/config", R"({"max_listeners": 2})");
    EXPECT_EQ(Call("POST /api/v1/queue", document), 200);
    EXPECT_EQ(Body().GetArray("timer_list").Size(), 1u);

    EXPECT_EQ(Call("GET /api/v1/queue"), 200);
    const std::string tag = Header("ETag"), state = last.Body;
    EXPECT_EQ(Send("GET", "/api/v1/queue", "", "\"other\", W/" + tag), 304);
    EXPECT_EQ(last.Body, "");
    EXPECT_EQ(Call("POST /api/v1/queue", state),
              200);  // what is there already is no fault, and not beyond the limit
    EXPECT_EQ(Send("GET", "/api/v1/queue", "", tag), 200);
    EXPECT_NE(Header("ETag"), tag);
}

// Data of every kind that a program can hand in: any bytes, any number, nested `depth` levels.
class AnyData {
  public:
    explicit AnyData(unsigned seed) : m_Random(seed) {}

    std::string Bytes() {
        std::string bytes;
        for (auto i = m_Random() % 24 + 1; i > 0; --i) bytes += static_cast<char>(m_Random());
        return bytes;
    }
    PListDict Dict(int depth) {
        PListDict dict;
        for (; depth > 1; --depth) dict = Around(std::move(dict));
        dict.SetItem(Bytes(), Scalar());
        return dict;
    }
    // The same as a REST client sends it; its JSON is nested `depth` levels.
    std::string Json(std::size_t depth) {
        static const char* const scalars[] = {"1E400", "-1e-999", "12345678901234567890",
                                              R"("\u0000\udcff")"};
        const std::string scalar = scalars[m_Random() % std::size(scalars)];
        std::string json = "{\"k\":" + scalar + "}";
        for (; depth > 1; --depth) {
            json = m_Random() % 2 && depth > 2 ? "[1," + json + "]"
                                               : "{\"k\":" + json + ",\"\\udcc3\":" + scalar + "}";
        }
        return json;
    }

  private:
    PListDict Around(PListDict&& inner) {
        PListDict dict;
        dict.SetItem(Bytes(), Scalar());
        if (m_Random() % 2) {
            dict.SetItem("", std::move(inner));
        } else {
            PListArray array;
            array.Append(std::move(inner));
            dict.SetItem("array", std::move(array));
        }
        return dict;
    }
    PListData Scalar() {
        static const char* const numbers[] = {"1E400", "-1e999", "1e", "inf",
                                              "+1",    ".5",     "",   "9999999999999999999"};
        static const ItemType_t types[] = {IT_REAL, IT_INT, IT_INT64, IT_DATE, IT_NULL};
        if (m_Random() % 2) return PListData(Bytes());
        return PListData(types[m_Random() % std::size(types)], numbers[m_Random() % std::size(numbers)]);
    }

    std::mt19937 m_Random;
};

class AnyStateTest : public RouterTest {
  protected:
    void FillFromREST(AnyData& any, const std::string& name) {
        constexpr std::size_t Depth = PListItem::UsualDepth - 1;  // the body is one level of it
        EXPECT_EQ(Call("POST /api/v1/events",
                       R"({"event_name":")" + name + R"(","event_data":)" + any.Json(Depth) + "}"),
                  201);
        EXPECT_EQ(Call("POST /api/v1/events/" + name + "/listeners",
                       R"({"callback":"/1","listener_data":)" + any.Json(Depth) + "}"),
                  201);
        EXPECT_EQ(Call("POST /api/v1/timers",
                       R"({"event_name":"e","interval_sec":60,"timer_data":)" + any.Json(Depth) + "}"),
                  201);
        EXPECT_EQ(Call("POST /api/v1/watches", R"({"event_name":"e","path":")" + Watched(name) +
                                                   R"(","watch_data":)" + any.Json(Depth) + "}"),
                  201);
        EXPECT_EQ(
            Call("POST /api/v1/events", R"({"event_name":"deep","event_data":)" + any.Json(Depth + 1) + "}"),
            400);
    }
    void FillFromProgram(AnyData& any, int depth) {
        EventManager::IEventQueue& queue = EventManager::GlobalEventQueue();
        Mirel::UUID id;
        const std::string name = any.Bytes();
        PListDict data = any.Dict(depth);
        EXPECT_EQ(queue.CreateEvent(name, &data), STATUS_201_CREATED);
        data = any.Dict(depth);
        EXPECT_EQ(queue.CreateEventListener(name, "/1", &data, id), STATUS_201_CREATED);
        data = any.Dict(depth);
        EXPECT_TRUE(queue.CreateTimer(name, Mirel::Timestamp(), 60, &data, id));
        data = any.Dict(depth);
        EXPECT_TRUE(queue.CreateWatch(Watched("\xE4" + std::to_string(depth)), name, &data, true));
    }
    // The state as it is answered, without the ids, which a restored entry gets anew.
    std::string State() {
        EXPECT_EQ(Call("GET /api/v1/queue"), 200);
        std::string text = last.Body;
        for (std::size_t at = 0; (at = text.find("\"id\":\"", at)) != std::string::npos; ++at) {
            text.erase(at + 6, Mirel::UUIDLen);
        }
        return text;
    }

    // A path that the kernel takes, so that the worker leaves its watch alone.
    std::string Watched(const std::string& name) {
        std::filesystem::create_directory(folder / name);
        return folder / name;
    }

    Testing::TemporaryFolder folder;
};

// Whatever was accepted, from whomever: the state file is read back as the document that was saved, a
// configuration takes it, and so does a queue that has lost everything.
TEST_F(AnyStateTest, IsReadBackFromFileConfigurationAndRequest) {
    for (unsigned seed = 0; seed < 4; ++seed) {
        AnyData any(seed);
        FillFromREST(any, "e");
        for (const int depth : {1, 250, 257, 2000}) FillFromProgram(any, depth);
        const std::string state = State();
        const std::string document = last.Body;

        Testing::WriteFile(folder / "state.json", document);
        std::optional<PListDict> saved;
        const Mirel::Result_t read = ReadStateFile(folder / "state.json", saved);
        ASSERT_TRUE(read.Success() && saved) << read.Message();
        std::string again;
        EXPECT_TRUE(saved->EncodeJSON(again).Success());
        EXPECT_TRUE(again == document);

        Testing::WriteFile(folder / "config.json", "{\"EventManager\":" + document + "}");
        std::vector<ConfigFault> faults;
        LoadConfig(folder / "config.json", faults);
        EXPECT_TRUE(faults.empty()) << faults[0].Pointer << " " << faults[0].What;

        TearDown();
        ASSERT_EQ(Call("POST /api/v1/queue", document), 200) << last.Body;
        EXPECT_TRUE(State() == state);
        TearDown();
    }
}

TEST_P(RestTest, HistoryAnswersTheLastOnesOldestFirst) {
    const std::string h =
        "h" + std::to_string(static_cast<int>(GetParam())) + "-";  // the history outlives the test
    for (const char* name : {"1", "2"}) Call("POST /api/v1/events", R"({"event_name": ")" + h + name + "\"}");
    for (int i = 0; i < 6; ++i) {
        Send("POST", "/api/v1/events/" + h + (i % 2 ? "2" : "1"), R"({"i": )" + std::to_string(i) + "}");
    }
    const auto numbers = [&](const std::string& query) {
        EXPECT_EQ(Send("GET", "/api/v1/history" + query), 200);
        std::string text;
        const PListDict body = Body();
        for (const PListItem& item : body.GetArray("history")) {
            text += AsDict(&item)->GetDict("post_data").GetData("i").Text();
        }
        return text;
    };
    EXPECT_EQ(numbers("?limit=3"), "345");
    EXPECT_EQ(numbers("?limit=2&event_name=" + h + "1"), "24");
    EXPECT_EQ(numbers("?event_name=" + h + "2"), "135");
    EXPECT_EQ(numbers("?limit=0"), "");
    EXPECT_EQ(numbers("?event_name=none"), "");
}

TEST_P(RestTest, WhatCameAfterAPostingIsReadPageByPage) {
    const std::string name = "after-" + std::to_string(static_cast<int>(GetParam()));
    Call("POST /api/v1/events", R"({"event_name": ")" + name + "\"}");
    Call("POST /api/v1/events", R"({"event_name": "other"})");
    std::string ids[5];
    for (std::string& id : ids) {
        ASSERT_EQ(Send("POST", "/api/v1/events/" + name), 202);
        id = Body().GetData("id").Text();
        Send("POST", "/api/v1/events/other");
    }
    const auto ask = [&](const std::string& after, const std::string& more) {
        EXPECT_EQ(Send("GET", "/api/v1/history?after=" + after + more), 200);
        return Body().GetArray("history").Size();
    };
    EXPECT_EQ(ask(ids[0], ""), 9u);
    EXPECT_EQ(Body().GetData("last_id").Text(), LastId());
    EXPECT_FALSE(Body().HasItem("gap"));
    EXPECT_EQ(ask(ids[0], "&limit=3&event_name=" + name), 3u);
    EXPECT_EQ(Body().GetData("last_id").Text(), ids[3]);
    EXPECT_EQ(ask(ids[3], "&limit=3&event_name=" + name), 1u);
    EXPECT_EQ(Body().GetData("last_id").Text(), LastId());
    EXPECT_EQ(ask(ids[2], "&limit=0"), 0u);
    EXPECT_EQ(Body().GetData("last_id").Text(), ids[2]);
    EXPECT_EQ(ask(LastId(), ""), 0u);
    EXPECT_GE(ask("another-epoch-7", ""), 10u);
    EXPECT_TRUE(Body().HasItem("gap"));
}

TEST_P(RestTest, DeliveriesTellHowCallsEnded) {
    const std::string url = "http://127.0.0.1:1/refused-" + std::to_string(static_cast<int>(GetParam()));
    Call("POST /api/v1/events", R"({"event_name": "d"})");
    Call("POST /api/v1/events/d/listeners", R"({"callback": ")" + url + "\"}");
    Call("POST /api/v1/events/d");
    ASSERT_TRUE(Testing::Eventually([&] {
        Call("GET /api/v1/deliveries?outcome=failed&limit=1");
        return last.Body.find(url) != std::string::npos;
    }));
    const PListDict newest = *AsDict(Body().GetArray("deliveries").GetItem(0));
    EXPECT_EQ(newest.GetData("status").Text(), "0");
    EXPECT_NE(newest.GetData("reason").Text(), "");
    EXPECT_EQ(newest.GetData("outcome").Text(), "failed");
    EXPECT_EQ(newest.GetData("method").Text(), "GET");
    Call("GET /api/v1/deliveries?outcome=ok");
    EXPECT_EQ(last.Body.find(url), std::string::npos);
    EXPECT_EQ(Count("/api/v1/deliveries?limit=0", "deliveries"), 0u);
    EXPECT_EQ(Count("/api/v1/deliveries?limit=1", "deliveries"), 1u);
}

// From half of the time-out on, whatever it is; newest first; with the answer's status and what it means.
TEST_F(RouterTest, DeliveriesAreSlowFromHalfOfTheTimeout) {
    Testing::HttpTestServer good(Testing::HttpTestServer::Answers("204 No Content")),
        bad(Testing::HttpTestServer::Answers("500 Oops"));
    for (const Testing::HttpTestServer* server : {&good, &bad}) {
        Call("POST /api/v1/events", R"({"event_name": "s"})");
        Call("POST /api/v1/events/s/listeners",
             R"({"callback": ")" + server->Url() + R"(", "listener_data": {"a": 1}})");
        Call("POST /api/v1/events/s");
        ASSERT_TRUE(Testing::Eventually([&] {
            Call("GET /api/v1/deliveries?limit=1");
            return last.Body.find(server->Url()) != std::string::npos;
        }));
        Call("DELETE /api/v1/events/s");
    }
    Call("GET /api/v1/deliveries?limit=2");
    const PListArray deliveries = Body().GetArray("deliveries");
    const PListDict &failed = *AsDict(deliveries.GetItem(0)), &ok = *AsDict(deliveries.GetItem(1));
    const auto told = [](const PListDict& entry) {
        return entry.GetData("method").Text() + " " + entry.GetData("status").Text() + " " +
               entry.GetData("outcome").Text() + " " + entry.GetData("reason").Text();
    };
    EXPECT_EQ(told(ok), "POST 204 ok ");
    EXPECT_EQ(told(failed).substr(0, 16), "POST 500 failed ");
    EXPECT_GT(told(failed).size(), 16u);
    EXPECT_GT(std::stoll(failed.GetData("sequence").Text()), std::stoll(ok.GetData("sequence").Text()));

    const int took_ms = std::stoi(failed.GetData("duration_ms").Text());
    const auto slow = [&](int timeout_ms) {
        Config other;
        other.Timeout_ms = timeout_ms;
        HttpRequest request;
        request.Path = "/api/v1/deliveries";
        request.Query = "outcome=slow";
        Router asked(other);
        return Testing::AskRouter(asked, request).Body.find(bad.Url()) != std::string::npos;
    };
    EXPECT_TRUE(slow(2 * took_ms));
    EXPECT_FALSE(slow(2 * took_ms + 2));
}

TEST_F(RouterTest, AHistoryBeyondTheMostSaysWhatItLeavesOut) {
    EventManager::IEventQueue& queue = EventManager::GlobalEventQueue();
    queue.CreateEvent("many", nullptr);
    const PListDict first = Parse(R"({"first": true})");
    queue.PostEvent("many", &first);
    for (int i = 0; i < 100002; ++i) queue.PostEvent("many", nullptr);
    const auto answer = [&](const std::string& query) {
        return RouterTest::Exchange("GET", "/api/v1/history?event_name=many" + query, "", "").Body;
    };
    const std::string all = answer("");
    EXPECT_TRUE(all.ends_with(R"("omitted":3})"));
    EXPECT_EQ(all.find("first"), std::string::npos);
    EXPECT_GT(all.size(), 100000 * std::string(R"({"event_name":"many","timestamp":""})").size());
    EXPECT_EQ(answer("&limit=100000").find("omitted"), std::string::npos);
    EXPECT_TRUE(answer("&limit=100001").ends_with(R"("omitted":1})"));
}

// ------------------------------------------------------------------------------------------- operations

TEST_F(RouterTest, TheConsoleIsServedWithWhatKeepsItToItself) {
    int files = 0;
    for (const ConsoleFile* file = ConsoleFiles; !file->Name.empty(); ++file, ++files) {
        const std::string name(file->Name), path = name == "console/index.html" ? "/" : "/" + name;
        SCOPED_TRACE(path);
        HttpRequest request;
        request.Path = path;
        last = Testing::AskRouter(router, request);
        EXPECT_EQ(last.Status, 200);
        EXPECT_EQ(last.StaticBody, file->Content);
        const std::string type(last.ContentType);
        const std::string ending = name.substr(name.rfind('.') + 1);
        EXPECT_NE(type.find(ending.ends_with("js") ? "javascript" : ending), std::string::npos) << type;
        EXPECT_NE(Header("Content-Security-Policy").find("default-src 'none'; script-src 'self'"),
                  std::string::npos);
        EXPECT_NE(Header("Content-Security-Policy").find("frame-ancestors 'none'"), std::string::npos);
        EXPECT_EQ(Header("Referrer-Policy"), "no-referrer");
        const std::string tags = "\"other\", W/" + Header("ETag");
        for (const std::string& tag : {tags, std::string("*")}) {
            request.IfNoneMatch = tag;
            EXPECT_EQ(Testing::AskRouter(router, request).Status, 304);
        }
        request.IfNoneMatch = "\"other\"";
        EXPECT_EQ(Testing::AskRouter(router, request).Status, 200);
        request.Method = METH_POST;
        EXPECT_EQ(Testing::AskRouter(router, request).Status, 404);
    }
    EXPECT_GT(files, 5);
    for (const char* path : {"/console", "/console/", "/console/none.js", "/clients",
                             "/clients/velmora_client.py", "/console/../index.html", "/index.html"}) {
        EXPECT_EQ(Send("GET", path), 404) << path;
    }
    EXPECT_EQ(Send("GET", "/api/v1/queue", "", "*"), 304);
}

TEST_F(RouterTest, ReadinessSaysWhatIsWrong) {
    EXPECT_EQ(Call("GET /healthz"), 200);
    ASSERT_TRUE(Testing::Eventually([] { return CheckWorker(EventManager::GetQueueStatistics()).Ok; }));
    EXPECT_EQ(Call("GET /readyz"), 200) << last.Body;

    EventManager::QueueStatistics queue;
    EXPECT_FALSE(CheckWorker(queue).Ok);
    queue.Installed = queue.WorkerRunning = true;
    EXPECT_TRUE(CheckWorker(queue).Ok);
    queue.SinceLastPass_ms = LongestPass_ms + 1;
    EXPECT_FALSE(CheckWorker(queue).Ok);

    const Testing::TemporaryFolder folder;
    EXPECT_TRUE(CheckStateFile(queue, "").Ok);
    EXPECT_TRUE(CheckStateFile(queue, folder / "state.json").Ok);
    EXPECT_FALSE(CheckStateFile(queue, folder / "absent/state.json").Ok);
    queue.LastSaveFailed = true;
    EXPECT_FALSE(CheckStateFile(queue, folder / "state.json").Ok);
}

}  // namespace Server
