// /metrics: every number, held against what happened.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "AskRouter.h"
#include "EventManager.h"
#include "HttpClient.h"
#include "HttpTestServer.h"
#include "MR_log.h"
#include "RawClient.h"
#include "Testing.h"
#include "rest/Metrics.h"
#include "rest/Router.h"

namespace Server {

using namespace Velmora;
using EventManager::GlobalEventQueue;
using Testing::Eventually;
using Testing::HttpTestServer;

namespace {

class MetricsTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        PListDict dict;
        dict.SetValue("StateFile", Folder() / "state/state.json");
        std::filesystem::create_directory(Folder() / "state");
        ASSERT_TRUE(EventManager::InitEventQueue(dict).Success());
    }
    void TearDown() override {
        GlobalEventQueue().DeleteAllEvents();
        GlobalEventQueue().DeleteAllTimers();
    }
    static const Testing::TemporaryFolder& Folder() {
        static const Testing::TemporaryFolder own;
        return own;
    }

    HttpResponse Ask(Method_t method, const std::string& path, const std::string& body = "") {
        HttpRequest request;
        request.Method = method;
        request.Path = path;
        request.Body = body;
        request.HasBody = !body.empty();
        return Testing::AskRouter(router, request);
    }
    // The value of a sample, named with its labels.
    double Sample(const std::string& name) {
        const std::string text = Ask(METH_GET, "/metrics").Body;
        const std::size_t at = text.find("\n" + name + " ");
        return at == std::string::npos ? -1 : std::stod(text.substr(at + name.size() + 2));
    }
    bool BecomesOf(const std::string& name, double value, int promised_ms = 1000) {
        return Eventually([&] { return Sample(name) == value; }, promised_ms);
    }
    void Create(const std::string& name, const std::string& callback = "") {
        Mirel::UUID id;
        EXPECT_EQ(GlobalEventQueue().CreateEvent(name, nullptr), STATUS_201_CREATED);
        if (callback.empty()) return;
        EXPECT_EQ(GlobalEventQueue().CreateEventListener(name, callback, nullptr, id), STATUS_201_CREATED);
    }

    static Config Configured() {
        Config config;
        config.StateFile = Folder() / "state/state.json";
        return config;
    }

    Router router{Configured()};
};

TEST_F(MetricsTest, AreWellFormed) {
    router.CountersFrom([] { return HttpServerCounters{}; });
    const HttpResponse answer = Ask(METH_GET, "/metrics");
    EXPECT_EQ(answer.ContentType, "text/plain; version=0.0.4; charset=utf-8");
    std::istringstream lines(answer.Body);
    std::set<std::string> families, samples;
    std::string family, type;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("# HELP ")) {
            family = line.substr(7, line.find(' ', 7) - 7);
            EXPECT_TRUE(families.insert(family).second) << family;
        } else if (line.starts_with("# TYPE ")) {
            type = line.substr(line.rfind(' ') + 1);
            EXPECT_EQ(line, "# TYPE " + family + " " + type);
            const std::string expected = family.ends_with("_total")              ? "counter"
                                         : family.ends_with("_duration_seconds") ? "histogram"
                                                                                 : "gauge";
            EXPECT_EQ(type, expected) << line;
        } else {
            const std::string name = line.substr(0, line.find_first_of(" {"));
            const std::string suffix = name.starts_with(family) ? name.substr(family.size()) : name;
            EXPECT_TRUE(type == "histogram" ? suffix == "_bucket" || suffix == "_sum" || suffix == "_count"
                                            : suffix.empty())
                << line;
            EXPECT_TRUE(samples.insert(line.substr(0, line.rfind(' '))).second) << line;
            EXPECT_NO_THROW(EXPECT_GE(std::stod(line.substr(line.rfind(' '))), 0)) << line;
        }
    }
    EXPECT_TRUE(samples.contains("velmora_build_info{version=\"" VELMORA_VERSION "\"}"));
}

TEST_F(MetricsTest, PostingsAreCountedByWhatPostedThem) {
    const std::string sources[] = {"rest", "timer", "watch", "other"};
    std::map<std::string, double> before;
    const auto postings = [&](const std::string& source) {
        return Sample("velmora_postings_total{source=\"" + source + "\"}");
    };
    for (const std::string& source : sources) before[source] = postings(source);
    Create("e");
    const double records = Sample("velmora_history_records");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(Ask(METH_POST, "/api/v1/events/e").Status, STATUS_202_ACCEPTED);
    EXPECT_EQ(Ask(METH_POST, "/api/v1/events/unknown").Status, STATUS_404_NOT_FOUND);
    EXPECT_TRUE(GlobalEventQueue().PostEvent("e", nullptr));
    Mirel::UUID id;
    for (int i = 0; i < 2; ++i) {
        GlobalEventQueue().CreateTimer("e", Mirel::Timestamp(), 0, nullptr, id);
    }
    EXPECT_TRUE(Eventually([&] { return postings("timer") == before["timer"] + 2; }));
    EXPECT_EQ(postings("watch"), before["watch"]);

    std::filesystem::create_directory(Folder() / "watched");
    EXPECT_TRUE(GlobalEventQueue().CreateWatch(Folder() / "watched", "e", nullptr, false));
    int files = 0;  // until the kernel has the watch, nobody sees a change
    EXPECT_TRUE(Eventually([&] {
        Testing::WriteFile(Folder() / ("watched/" + std::to_string(files++)), "");
        return postings("watch") > before["watch"];
    }));
    GlobalEventQueue().DeleteAllWatches();
    EXPECT_TRUE(BecomesOf("velmora_watches", 0, 2000));
    EXPECT_EQ(postings("timer"), before["timer"] + 2);
    EXPECT_EQ(postings("rest"), before["rest"] + 3);
    EXPECT_EQ(postings("other"), before["other"] + 1);
    EXPECT_EQ(Sample("velmora_history_records"), records + 6 + postings("watch") - before["watch"]);
}

TEST(MetricsTextTest, AHistogramsBucketsAreOfAllUpToThem) {
    Mirel::Histogram histogram;
    for (const int us : {-1, 0, 10, 11, 2500, 11000000}) histogram.Count(std::chrono::microseconds(us));
    MetricsText text;
    text.Histogram("took_seconds", histogram.Read(), "Time.");
    const std::string expected =
        "# HELP took_seconds Time.\n# TYPE took_seconds histogram\n"
        "took_seconds_bucket{le=\"1e-05\"} 3\ntook_seconds_bucket{le=\"5e-05\"} 4\n";
    EXPECT_TRUE(text.Text().starts_with(expected)) << text.Text();
    EXPECT_NE(text.Text().find("{le=\"0.001\"} 4\ntook_seconds_bucket{le=\"0.0025\"} 5\n"),
              std::string::npos);
    EXPECT_TRUE(
        text.Text().ends_with("{le=\"10\"} 5\ntook_seconds_bucket{le=\"+Inf\"} 6\n"
                              "took_seconds_sum 11.002521\ntook_seconds_count 6\n"))
        << text.Text();
}

TEST_F(MetricsTest, TheProcessIsThatOfTheKernel) {
    const double descriptors = Sample("process_open_fds");
    EXPECT_EQ(descriptors,
              static_cast<double>(Testing::OpenDescriptors("").size()) - 1);  // but for the folder's own
    const int more = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(Sample("process_open_fds"), descriptors + 1);
    close(more);
    EXPECT_GE(Sample("process_max_fds"), descriptors);
    EXPECT_GE(Sample("process_threads"), 2);  // the worker's, too
    const double resident = Sample("process_resident_memory_bytes");
    EXPECT_GT(resident, 1e6);
    EXPECT_LT(resident, Sample("process_virtual_memory_bytes"));
    const auto now = static_cast<double>(time(nullptr));
    EXPECT_NEAR(Sample("process_start_time_seconds"), now - Sample("velmora_uptime_seconds"), 60);
    const double cpu = Sample("process_cpu_seconds_total");
    EXPECT_TRUE(Eventually([&] { return Sample("process_cpu_seconds_total") > cpu; }));
}

TEST_F(MetricsTest, SizesAreThoseOfTheRegistries) {
    Create("a", "http://127.0.0.1:1/");
    Create("b");
    Mirel::UUID id;
    for (int i = 0; i < 3; ++i) GlobalEventQueue().CreateTimer("a", Mirel::Timestamp(), 600, nullptr, id);
    for (const char* name : {"w1", "w2", "w3", "w4"}) {
        std::filesystem::create_directory(Folder() / name);
        GlobalEventQueue().CreateWatch(Folder() / name, "a", nullptr, false);
    }
    EXPECT_EQ(Sample("velmora_events"), 2);
    EXPECT_EQ(Sample("velmora_listeners"), 1);
    EXPECT_EQ(Sample("velmora_timers"), 3);
    EXPECT_EQ(Sample("velmora_watches"), 4);
    GlobalEventQueue().DeleteAllWatches();
    EXPECT_TRUE(BecomesOf("velmora_watches", 0, 2000));
}

TEST_F(MetricsTest, LateTimersTheWorkerAndLostLogLinesShow) {
    const double expired = Sample("velmora_timers_expired_total"),
                 lost = Sample("velmora_log_entries_lost_total");
    Mirel::UUID id;
    Mirel::Timestamp past;
    ASSERT_TRUE(past.DecodeString("2001-01-31T12:00:00+00:00"));
    for (int i = 0; i < 2; ++i) GlobalEventQueue().CreateTimer("late", past, 0, nullptr, id);
    EXPECT_TRUE(BecomesOf("velmora_timers_expired_total", expired + 2));

    EXPECT_EQ(Sample("velmora_worker_running"), 1);
    const double passes = Sample("velmora_worker_passes_total");
    const double time = Sample("velmora_worker_pass_seconds_total");
    EXPECT_TRUE(Eventually([&] { return Sample("velmora_worker_passes_total") > passes; }));
    EXPECT_GT(Sample("velmora_worker_pass_seconds_total"), time);
    EXPECT_LT(Sample("velmora_worker_pass_seconds_total"), Sample("velmora_uptime_seconds") + 600);
    EXPECT_LT(Sample("velmora_worker_last_pass_seconds"), 5);
    EXPECT_TRUE(Eventually([&] { return Sample("velmora_worker_since_last_pass_seconds") > 0.1; }));
    EXPECT_LT(Sample("velmora_worker_since_last_pass_seconds"), 5);
    EXPECT_GT(Sample("velmora_uptime_seconds"), 0);
    EXPECT_LT(Sample("velmora_uptime_seconds"), 60);

    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    Mirel::TextLogSink(full).Error("Lost.\n");
    close(full);
    EXPECT_EQ(Sample("velmora_log_entries_lost_total"), lost + 1);
}

TEST_F(MetricsTest, SavesAndFailedOnesAreCountedAndReadinessTells) {
    const Testing::CapturedLog log;
    const auto ready = [&] { return Ask(METH_GET, "/readyz"); };
    ASSERT_TRUE(Eventually([&] { return ready().Status == STATUS_200_OK; }));
    const double saves = Sample("velmora_saves_total"), failed = Sample("velmora_failed_saves_total");
    Create("saved");
    EXPECT_EQ(Sample("velmora_saves_total"), saves + 1);
    EXPECT_EQ(Sample("velmora_failed_saves_total"), failed);
    EXPECT_EQ(Sample("velmora_save_duration_seconds_count"), saves + 1 + failed);
    EXPECT_GT(Sample("velmora_save_duration_seconds_sum"), 0);

    std::filesystem::rename(Folder() / "state", Folder() / "away");
    Create("not saved");
    EXPECT_GE(Sample("velmora_failed_saves_total"), failed + 1);
    EXPECT_EQ(Sample("velmora_saves_total"), saves + 1);
    EXPECT_EQ(ready().Status, STATUS_503_NO_SERVICE);
    EXPECT_NE(ready().Body.find(R"("ready":false,"checks":{"worker":{"ok":true,)"), std::string::npos);
    EXPECT_NE(ready().Body.find(R"("state_file":{"ok":false,)"), std::string::npos);
    std::filesystem::rename(Folder() / "away", Folder() / "state");
    EXPECT_TRUE(Eventually([&] { return ready().Status == STATUS_200_OK; }, 3000)) << ready().Body;
    EXPECT_NE(ready().Body.find(R"("ready":true)"), std::string::npos);
}

TEST_F(MetricsTest, DeliveriesAreCountedByHowTheyEnded) {
    const Testing::CapturedLog log;
    const auto hang = [](Testing::TestConnection& connection) { connection.WaitForClose(); };
    HttpTestServer accepts(HttpTestServer::Answers("204 No Content")),
        moved(HttpTestServer::Answers("302 Found")), missing(HttpTestServer::Answers("404 Not Found")),
        broken(HttpTestServer::Answers("500 Oops")), odd(HttpTestServer::Answers("700 Odd")), hangs(hang),
        babbles([](Testing::TestConnection&connection) { connection.Write("hello\r\n\r\n"); }),
        closes([](Testing::TestConnection&) {});
    const std::pair<std::string, std::string> cases[] = {
        {"2xx", accepts.Url()},
        {"3xx", moved.Url()},
        {"4xx", missing.Url()},
        {"5xx", broken.Url()},
        {"other", odd.Url()},
        {"connect", "http://127.0.0.1:1/"},
        {"resolve", "http://" + std::string(70, 'a') + ".test/"},
        {"tls", "https://" + babbles.Authority() + "/"},
        {"timeout", hangs.Url()},
        {"transfer", closes.Url()},
        {"parameter", "ftp://127.0.0.1/"},
    };
    const auto name = [](const std::string& outcome) {
        return "velmora_deliveries_total{outcome=\"" + outcome + "\"}";
    };
    std::map<std::string, double> before;
    for (const auto& [outcome, url] : cases) before[outcome] = Sample(name(outcome));
    for (const auto& [outcome, url] : cases) {
        Create(outcome, url);
        EXPECT_TRUE(GlobalEventQueue().PostEvent(outcome, nullptr));
        EXPECT_TRUE(BecomesOf(name(outcome), before[outcome] + 1)) << outcome;
    }
    for (const auto& [outcome, url] : cases) EXPECT_EQ(Sample(name(outcome)), before[outcome] + 1) << outcome;
    double counted = 0, timed = Sample("velmora_delivery_duration_seconds_count");
    for (const auto& [outcome, url] : cases) counted += Sample(name(outcome));
    EXPECT_EQ(timed, counted);
    EXPECT_TRUE(BecomesOf("velmora_callers_running", 0));
    EXPECT_TRUE(BecomesOf("velmora_callers_unreaped", 0, 2000));

    Create("hangs", hangs.Url());
    EXPECT_TRUE(GlobalEventQueue().PostEvent("hangs", nullptr));
    EXPECT_TRUE(BecomesOf("velmora_callers_running", 1));
    EXPECT_TRUE(BecomesOf("velmora_callers_unreaped", 1));
}

TEST_F(MetricsTest, ConnectionsAndTheFeedAreCounted) {
    router.CountersFrom([] {
        return HttpServerCounters{.Connections = 11,
                                  .Accepted = 12,
                                  .Requests = 13,
                                  .AnsweredByClass = {20, 21, 22, 23, 24, 25},
                                  .RefusedBusy = 14,
                                  .RefusedConnections = 15,
                                  .RefusedFeedClients = 16,
                                  .RequestTimes = {}};
    });
    EXPECT_EQ(Sample("velmora_http_connections"), 11);
    EXPECT_EQ(Sample("velmora_http_connections_total"), 12);
    EXPECT_EQ(Sample("velmora_http_requests_total"), 13);
    EXPECT_EQ(Sample("velmora_http_responses_total{class=\"other\"}"), 20);
    for (const int digit : {1, 2, 3, 4, 5}) {
        const std::string label = "{class=\"" + std::to_string(digit) + "xx\"}";
        EXPECT_EQ(Sample("velmora_http_responses_total" + label), 20 + digit);
    }
    EXPECT_EQ(Sample("velmora_http_refused_total{reason=\"busy\"}"), 14);
    EXPECT_EQ(Sample("velmora_http_refused_total{reason=\"connections\"}"), 15);
    EXPECT_EQ(Sample("velmora_http_refused_total{reason=\"feed_clients\"}"), 16);

    HttpServer server({}, router);
    ASSERT_TRUE(server.Bind().Success() && server.Serve().Success());
    const double adopted = Sample("velmora_feed_adopted_total"),
                 errors = Sample("velmora_feed_protocol_errors_total"),
                 frames = Sample("velmora_feed_frames_total"),
                 postings = Sample("velmora_feed_postings_total"),
                 sent = Sample("velmora_feed_send_duration_seconds_count"),
                 bytes = Sample("velmora_feed_bytes_total"),
                 slow = Sample("velmora_feed_slow_disconnects_total");
    Create("fed");
    Testing::FeedClient one(server.Port()), two(server.Port());
    ASSERT_TRUE(BecomesOf("velmora_feed_clients", 2));
    EXPECT_EQ(Sample("velmora_feed_adopted_total"), adopted + 2);
    GlobalEventQueue().PostEvent("fed", nullptr);
    const std::string text = one.Read();
    EXPECT_EQ(two.Read(), text);
    EXPECT_TRUE(BecomesOf("velmora_feed_frames_total", frames + 2));
    EXPECT_EQ(Sample("velmora_feed_postings_total"), postings + 1);
    EXPECT_TRUE(BecomesOf("velmora_feed_send_duration_seconds_count", sent + 1));
    EXPECT_EQ(Sample("velmora_feed_lag_seconds"), 0);
    EXPECT_EQ(Sample("velmora_feed_bytes_total"), bytes + 2 * static_cast<double>(text.size() + 2));

    Testing::RawClient rude(server.Port());
    rude.Send(
        "GET /api/v1/feed HTTP/1.1\r\nHost: localhost\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
        "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
    ASSERT_TRUE(BecomesOf("velmora_feed_clients", 3));
    rude.Send("\xFF\xFF\xFF\xFF");
    EXPECT_TRUE(BecomesOf("velmora_feed_clients", 2));
    EXPECT_EQ(Sample("velmora_feed_protocol_errors_total"), errors + 1);
    EXPECT_EQ(Sample("velmora_feed_slow_disconnects_total"), slow);
}

}  // namespace

}  // namespace Server
