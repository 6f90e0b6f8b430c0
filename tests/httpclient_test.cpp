// The HTTP(S) client and the background caller, against servers that answer, fail and misbehave.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <openssl/x509.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "HttpTestServer.h"
#include "Testing.h"
#include "VL_HTTP.h"

using namespace Velmora;
using Testing::Eventually;
using Testing::HttpTestServer;
using Testing::TestConnection;

namespace {

using Caller = BackgroundHTTPRequestHandle<TLSHTTPRequestHandle>;

// Every name look-up of the process, libcurl's too (see getaddrinfo below), waits until the gate is opened.
std::mutex gate_lock;
std::condition_variable gate_opened;
bool gate_open = false;

// Every certificate's chain is taken for a good one: what remains is whose certificate it is.
std::atomic<bool> chains_are_good{false};

}  // namespace

extern "C" MR_EXPORT int getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**) {
    std::unique_lock<std::mutex> lock(gate_lock);
    gate_opened.wait(lock, [] { return gate_open; });
    return EAI_NONAME;
}

extern "C" MR_EXPORT int X509_verify_cert(X509_STORE_CTX* context) {
    static const auto verify =
        reinterpret_cast<int (*)(X509_STORE_CTX*)>(dlsym(RTLD_NEXT, "X509_verify_cert"));
    const int good = verify(context);
    if (!chains_are_good) return good;
    X509_STORE_CTX_set_error(context, X509_V_OK);
    return 1;
}

namespace {

URL UrlOf(const std::string& text) {
    URL url;
    EXPECT_TRUE(url.Parse(text)) << text;
    return url;
}

BasicRestEntryCall CallOf(const std::string& text, Method_t method = METH_GET) {
    return {method, UrlOf(text), {{Strings::ContentType, Strings::MIME_json}}};
}

// One exchange with room for a slow machine.
struct Client : TLSHTTPRequestHandle {
    Client() {
        Timeout_ms(20000);
        VerifyPeer(false);
    }
    Result_t Get(const std::string& url) { return Exec(UrlOf(url), {}, METH_GET, HTTP_1_1); }
};

RequestOutcome LastOutcome() {
    return GetRequestOutcomes().at(0);
}

TEST(Client, SendsRequestsAsGiven) {
    HttpTestServer server(HttpTestServer::Answers("200 OK"));
    Client client;
    const HeaderSet headers{{"Content-Type", "application/json"}, {"X-Empty", ""}};
    const std::string body("{\"a\":\"\0\r\n\"}", 11);
    const URL url = UrlOf(server.Url("/a/../b%20c?x=%2F&y"));
    EXPECT_EQ(client.Exec(url, headers, METH_GET, HTTP_1_1), Mirel::RESULT_OK);
    EXPECT_EQ(client.Exec(url, headers, body, METH_POST, HTTP_1_1), Mirel::RESULT_OK);
    EXPECT_EQ(client.Exec(url, headers, body, METH_GET, HTTP_1_1),
              Mirel::RESULT_OK);  // the body changes no method
    EXPECT_EQ(client.Exec(url, {{"Connection", "keep-alive"}, {"user-agent", "me"}}, METH_POST, HTTP_1_1),
              Mirel::RESULT_OK);
    const std::string target = " /a/../b%20c?x=%2F&y HTTP/1.1\r\nHost: " + server.Authority() + "\r\n";
    const std::string agent = "User-Agent: Velmora-EventManager/1.0\r\n";
    const std::string given = "Content-Type: application/json\r\nX-Empty:\r\nConnection: close\r\n";
    const std::vector<std::string> requests = server.Requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0], "GET" + target + agent + given + "\r\n");
    EXPECT_EQ(requests[1], "POST" + target + agent + given + "Content-Length: 11\r\n\r\n" + body);
    EXPECT_EQ(requests[2], "GET" + target + agent + given + "Content-Length: 11\r\n\r\n" + body);
    EXPECT_EQ(requests[3],
              "POST" + target + "Connection: keep-alive\r\nuser-agent: me\r\nContent-Length: 0\r\n\r\n");
}

TEST(Client, SendsLargeBodiesAndEveryMethod) {
    HttpTestServer server(HttpTestServer::Answers("200 OK"));
    Client client;
    const std::string body(3 << 20, 'x');
    EXPECT_EQ(client.Exec(UrlOf(server.Url()), {}, body, METH_PUT, HTTP_1_1), Mirel::RESULT_OK);
    EXPECT_TRUE(server.Requests().at(0).ends_with("\r\n\r\n" + body));
    for (const Method_t method : {METH_OPTIONS, METH_HEAD, METH_DELETE, METH_TRACE, METH_PATCH}) {
        EXPECT_EQ(client.Exec(UrlOf(server.Url()), {}, method, HTTP_1_0), Mirel::RESULT_OK);
        EXPECT_TRUE(
            server.Requests().back().starts_with(MethodToString(method) + std::string(" / HTTP/1.0\r\n")));
    }
}

TEST(Client, EveryWholeAnswerIsASuccess) {
    HttpTestServer elsewhere(HttpTestServer::Answers("200 OK"));
    const std::string to = "Location: " + elsewhere.Url() + "\r\nSet-Cookie: a=b\r\n";
    const std::pair<int, HttpTestServer::Script> cases[] = {
        {404, HttpTestServer::Answers("404 Not Found")},
        {302, HttpTestServer::Answers("302 Found", to)},
        {307, HttpTestServer::Answers("307 Temporary Redirect", "Location: http://[bad\r\n")},
        {599, HttpTestServer::Answers("599")},
        {204, HttpTestServer::Sends("HTTP/1.1 204 No Content\r\n\r\n")},
        {200, HttpTestServer::Sends(
                  "HTTP/1.1 103 Early Hints\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")},
        {201, HttpTestServer::Sends(
                  "HTTP/1.1 201 Created\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nx\r\n0\r\n\r\n")},
        {200, HttpTestServer::Sends("HTTP/1.0 200 OK\r\n\r\nuntil the end")},
    };
    for (const auto transport : {HttpTestServer::Plain, HttpTestServer::Tls}) {
        for (const auto& [status, script] : cases) {
            HttpTestServer server(script, transport);
            Client client;
            const RequestCounters before = GetRequestCounters();
            const Result_t result = client.Get(server.Url());
            EXPECT_EQ(result, Mirel::RESULT_OK) << status << result.Message();
            EXPECT_EQ(client.Status(), status);
            const auto status_class = static_cast<std::size_t>(status / 100);
            EXPECT_EQ(GetRequestCounters().AnsweredByClass[status_class],
                      before.AnsweredByClass[status_class] + 1);
            EXPECT_EQ(LastOutcome().Status, status);
            EXPECT_EQ(LastOutcome().Reason, "");
        }
    }
    EXPECT_TRUE(elsewhere.Requests().empty());
}

TEST(Client, ABodyIsReadUpToTheLimitAndThenCutOff) {
    constexpr std::size_t Limit = TLSHTTPRequestHandle::ResponseBodyLimit;
    std::atomic<std::size_t> taken{0};
    const auto sends = [&taken](std::size_t size) {
        return [&taken, size](TestConnection& connection) {
            connection.ReadRequest();
            connection.Write("HTTP/1.1 200 OK\r\n\r\n");
            constexpr std::size_t Piece = 65536;
            for (taken = 0;
                 taken < size && connection.Write(std::string(std::min(Piece, size - taken), 'x'));)
                taken += std::min(Piece, size - taken);
        };
    };
    for (const auto transport : {HttpTestServer::Plain, HttpTestServer::Tls}) {
        Client client;
        {
            HttpTestServer whole(sends(Limit), transport);
            EXPECT_STREQ(client.Get(whole.Url()).Message(), Mirel::RESULT_OK.Message());
        }
        EXPECT_EQ(taken, Limit);
        {
            HttpTestServer endless(sends(SIZE_MAX), transport);
            const Result_t result = client.Get(endless.Url());
            EXPECT_EQ(result, Mirel::RESULT_OK);
            EXPECT_STREQ(result.Message(), "Answered; the response body was cut off at the limit.");
        }
        EXPECT_EQ(client.Status(), STATUS_200_OK);
        EXPECT_LT(taken, 16 * Limit);  // what sockets hold included
    }
}

TEST(Client, ACertificateMustBeTheServersOwn) {
    HttpTestServer server(HttpTestServer::Answers("200 OK"), HttpTestServer::Tls);  // for localhost
    const std::string named = "https://localhost:" + std::to_string(server.Port());
    Client client;
    client.VerifyPeer(true);
    EXPECT_EQ(client.Get(named), Mirel::RESULT_NETWORK);
    chains_are_good = true;
    EXPECT_EQ(client.Get(named), Mirel::RESULT_OK) << LastOutcome().Reason;
    EXPECT_EQ(client.Get(server.Url()), Mirel::RESULT_NETWORK);
    chains_are_good = false;
    EXPECT_EQ(LastOutcome().Failure, RequestFailure::TLS);
    std::size_t whole_requests = 0;
    for (const std::string& request : server.Requests()) whole_requests += !request.empty();
    EXPECT_EQ(whole_requests, 1u);
}

TEST(Client, AsksNoProxyOfTheEnvironment) {
    HttpTestServer proxy(HttpTestServer::Answers("502 Bad Gateway"));
    for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "ALL_PROXY", "HTTPS_PROXY"}) {
        setenv(name, proxy.Url().c_str(), 1);
    }
    for (const auto transport : {HttpTestServer::Plain, HttpTestServer::Tls}) {
        HttpTestServer server(HttpTestServer::Answers("200 OK"), transport);
        Client client;
        EXPECT_EQ(client.Get(server.Url()), Mirel::RESULT_OK);
        EXPECT_EQ(client.Status(), STATUS_200_OK);
    }
    for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "ALL_PROXY", "HTTPS_PROXY"})
        unsetenv(name);
    EXPECT_TRUE(proxy.Requests().empty());
}

std::string RefusingUrl() {
    return HttpTestServer(HttpTestServer::Answers("200 OK")).Url();  // gone when the request is made
}

TEST(Client, FailuresSayWhy) {
    const auto endless = [](const std::string& start, const std::string& line) {
        return [=](TestConnection& connection) {
            connection.ReadRequest();
            connection.Write(start);
            while (connection.Write(line)) continue;
        };
    };
    const auto reset = [](TestConnection& connection) {
        connection.ReadRequest();
        connection.Reset();
    };
    const auto hang = [](TestConnection& connection) { connection.WaitForClose(); };
    const auto stall = [](TestConnection& connection) {
        connection.Write("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nab");
        connection.WaitForClose();
    };
    const std::string line = "X-Header: " + std::string(80, 'x') + "\r\n";
    HttpTestServer resets(reset), hangs(hang), stalls(stall), closes([](TestConnection&) {});
    HttpTestServer talks_on(endless("HTTP/1.1 200 OK\r\n", line)),
        promises(endless("", "HTTP/1.1 102 Processing\r\n\r\n"));
    HttpTestServer trails(endless("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n", line));
    HttpTestServer cuts(HttpTestServer::Sends("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nab"));
    HttpTestServer babbles([](TestConnection&connection) { connection.Write("hello\r\n\r\n"); }),
        self_signed(HttpTestServer::Answers("200 OK"), HttpTestServer::Tls);
    using Counts = RequestCounters;
    struct {
        std::string Url;
        RequestFailure Failure;
        ui64_t Counts::*Counter;
    } const cases[] = {
        {RefusingUrl(), RequestFailure::Connect, &Counts::FailedConnect},
        {resets.Url(), RequestFailure::Transfer, &Counts::FailedTransfer},
        {closes.Url(), RequestFailure::Transfer, &Counts::FailedTransfer},
        {talks_on.Url(), RequestFailure::Transfer, &Counts::FailedTransfer},
        {promises.Url(), RequestFailure::Transfer, &Counts::FailedTransfer},
        {trails.Url(), RequestFailure::Transfer, &Counts::FailedTransfer},
        {cuts.Url(), RequestFailure::Transfer, &Counts::FailedTransfer},
        {babbles.Url(), RequestFailure::Transfer, &Counts::FailedTransfer},
        {"https://" + babbles.Authority(), RequestFailure::TLS, &Counts::FailedTLS},
        {self_signed.Url(), RequestFailure::TLS, &Counts::FailedTLS},
        {hangs.Url(), RequestFailure::Timeout, &Counts::FailedTimeout},
        {"https://" + hangs.Authority(), RequestFailure::Timeout, &Counts::FailedTimeout},
        {stalls.Url(), RequestFailure::Timeout, &Counts::FailedTimeout},
        {"http://slow.test/", RequestFailure::Timeout, &Counts::FailedTimeout},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(&test - cases);
        const bool in_time = test.Failure != RequestFailure::Timeout;
        const Result_t wanted = in_time ? Mirel::RESULT_NETWORK : Mirel::RESULT_TIMEOUT;
        Client client;
        client.VerifyPeer(true);
        client.Timeout_ms(in_time ? 20000 : 50);
        const ui64_t before = GetRequestCounters().*test.Counter;
        const Result_t result = client.Get(test.Url);
        EXPECT_EQ(result, wanted) << result.Message();
        EXPECT_EQ(client.Status(), STATUS_NONE);
        EXPECT_EQ(GetRequestCounters().*test.Counter, before + 1);
        EXPECT_EQ(LastOutcome().Failure, test.Failure);
        EXPECT_EQ(LastOutcome().Reason, result.Message());
        EXPECT_STRNE(result.Message(), wanted.Message());  // a reason of its own
    }
    {
        std::lock_guard<std::mutex> lock(gate_lock);
        gate_open = true;
        gate_opened.notify_all();
    }
    EXPECT_EQ(Client().Get("http://slow.test/"), Mirel::RESULT_NETWORK);
    EXPECT_EQ(LastOutcome().Failure, RequestFailure::Resolve);
}

TEST(Client, SendsNothingOfAnUnusableRequest) {
    HttpTestServer server(HttpTestServer::Answers("200 OK"));
    const URL url = UrlOf(server.Url()), gopher = UrlOf("gopher://" + server.Authority());
    Client client;
    const auto refused = [&](const URL& target, const HeaderSet& headers, const std::string& body,
                             Method_t method) {
        const Result_t result = client.Exec(target, headers, body, method, HTTP_1_1);
        return result == Mirel::RESULT_PARAM &&
               std::string(result.Message()) != Mirel::RESULT_PARAM.Message();
    };
    EXPECT_TRUE(refused(URL(), {}, "", METH_GET));
    EXPECT_TRUE(refused(gopher, {}, "", METH_GET));
    EXPECT_TRUE(refused(UrlOf("http://%00/"), {}, "", METH_GET));
    EXPECT_TRUE(refused(url, {}, "body", METH_HEAD));
    EXPECT_TRUE(refused(url, {}, "", METH_CONNECT));
    EXPECT_TRUE(refused(url, {}, "", static_cast<Method_t>(15)));
    EXPECT_TRUE(refused(url, {{"X", "a\r\nEvil: b"}}, "", METH_GET));
    EXPECT_TRUE(refused(url, {{"X: y\r\nEvil", "b"}}, "", METH_GET));
    EXPECT_TRUE(refused(url, {{"content-length", "3"}}, "body", METH_POST));
    EXPECT_TRUE(refused(url, {{"Transfer-Encoding", "chunked"}}, "body", METH_POST));
    EXPECT_EQ(LastOutcome().Failure, RequestFailure::Parameter);
    EXPECT_TRUE(server.Requests().empty());
}

TEST(Client, CredentialsReachTheServerAndNobodyElse) {
    HttpTestServer server(HttpTestServer::Answers("200 OK"));
    Client client;
    const std::string url = "http://us%3Aer:secret@" + server.Authority() + "/x?y";
    EXPECT_EQ(client.Get(url), Mirel::RESULT_OK);
    EXPECT_EQ(LastOutcome().Url, server.Url("/x?y"));
    EXPECT_EQ(client.Exec(UrlOf(url), {{Strings::Authorization, "Bearer t"}}, METH_GET, HTTP_1_1),
              Mirel::RESULT_OK);
    const std::vector<std::string> requests = server.Requests();
    EXPECT_NE(requests.at(0).find("\r\nAuthorization: Basic dXM6ZXI6c2VjcmV0\r\n"), std::string::npos);
    EXPECT_NE(requests.at(1).find("\r\nAuthorization: Bearer t\r\n"), std::string::npos);
    EXPECT_EQ(requests.at(1).find("Basic"), std::string::npos);
}

TEST(Client, ResumesTlsSessions) {
    std::atomic<int> resumed{0};
    HttpTestServer server(
        [&](TestConnection& connection) {
            resumed += connection.SessionWasResumed();
            HttpTestServer::Answers("200 OK")(connection);
        },
        HttpTestServer::Tls);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(Client().Get(server.Url()), Mirel::RESULT_OK);
    EXPECT_EQ(resumed, 3);
}

TEST(Client, KeepsTheLastOutcomesNewestFirst) {
    const ui64_t failed = GetRequestCounters().FailedResources;
    for (std::size_t i = 0; i < RequestOutcomesKept + 10; ++i) {
        CountRequestNotStarted(CallOf("http://h/" + std::to_string(i)),
                               Mirel::RESULT_THREAD.WithMessage("no thread"));
    }
    const std::vector<RequestOutcome> outcomes = GetRequestOutcomes();
    ASSERT_EQ(outcomes.size(), RequestOutcomesKept);
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
        EXPECT_EQ(outcomes[i].Url, "http://h/" + std::to_string(RequestOutcomesKept + 9 - i));
        EXPECT_EQ(outcomes[i].Sequence, outcomes[0].Sequence - i);
    }
    EXPECT_EQ(outcomes[0].Reason, "no thread");
    EXPECT_EQ(GetRequestCounters().FailedResources, failed + RequestOutcomesKept + 10);
    EXPECT_EQ(GetRequestCounters().Running, 0u);
}

TEST(BackgroundCaller, PerformsItsRequestUnderItsSettings) {
    HttpTestServer server(HttpTestServer::Answers("404 Not Found"), HttpTestServer::Tls);
    Caller caller(CallOf(server.Url("/hook"), METH_POST), "{}");
    caller.Timeout_ms(20000);
    caller.VerifyPeer(false);
    ASSERT_EQ(caller.Start("caller"), Mirel::RESULT_OK);
    ASSERT_TRUE(Eventually([&] { return caller.IsFinished(); }));
    EXPECT_EQ(caller.Result(), Mirel::RESULT_OK);
    EXPECT_EQ(caller.Status(), STATUS_404_NOT_FOUND);
    EXPECT_TRUE(server.Requests().at(0).ends_with("\r\n\r\n{}"));

    Caller strict(CallOf(server.Url()));
    strict.Timeout_ms(20000);
    Caller nowhere{BasicRestEntryCall()};
    ASSERT_EQ(strict.Start("caller"), Mirel::RESULT_OK);
    ASSERT_EQ(nowhere.Start("caller"), Mirel::RESULT_OK);
    ASSERT_TRUE(Eventually([&] { return strict.IsFinished() && nowhere.IsFinished(); }));
    EXPECT_EQ(strict.Result(), Mirel::RESULT_NETWORK);
    EXPECT_EQ(nowhere.Result(), Mirel::RESULT_PARAM);
}

// The connections that a program which is started now would inherit.
int InheritedConnections() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int descriptor = std::stoi(entry.path().filename());
        int domain = AF_UNSPEC;
        socklen_t size = sizeof domain;
        if (getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 || domain == AF_UNIX) continue;
        if ((fcntl(descriptor, F_GETFD) & FD_CLOEXEC) == 0) ++count;
    }
    return count;
}

TEST(BackgroundCaller, StopAndDestructionLetTheRequestEnd) {
    std::atomic<bool> asked{false}, stopped{false};
    HttpTestServer server([&](TestConnection& connection) {
        connection.ReadRequest();
        asked = true;
        Eventually([&] { return stopped.load(); });
        connection.Write("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    });
    const ui64_t answered = GetRequestCounters().AnsweredByClass[2];
    {
        Caller caller(CallOf(server.Url()));
        caller.Timeout_ms(20000);
        ASSERT_EQ(caller.Start("caller"), Mirel::RESULT_OK);
        ASSERT_TRUE(Eventually([&] { return asked.load(); }));
        EXPECT_EQ(InheritedConnections(), 0);
        EXPECT_EQ(caller.Stop(0, true), Mirel::RESULT_TIMEOUT);
        EXPECT_FALSE(caller.IsFinished());
        stopped = true;
    }
    EXPECT_EQ(GetRequestCounters().AnsweredByClass[2], answered + 1);
}

// ThreadSanitizer does not see the atomic counts by which OpenSSL, compiled without it, keeps its threads
// apart, and takes threads that are at work at the end for forgotten ones. For programs started from now on.
void LookIntoOurOwnCodeOnly() {
#if defined(__SANITIZE_THREAD__)
    const char* const given = getenv("TSAN_OPTIONS");
    const std::string options = given ? std::string(given) + ':' : std::string();
    setenv("TSAN_OPTIONS", (options + "ignore_noninstrumented_modules=1:report_thread_leaks=0").c_str(), 1);
#endif
}

TEST(BackgroundCaller, AProgramMayEndWhileCallsAreUnderWay) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    LookIntoOurOwnCodeOnly();
    const auto end_amid_handshakes = [] {
        HttpTestServer server(HttpTestServer::Answers("200 OK"), HttpTestServer::Tls);
        std::atomic<int> answered{0};
        for (int i = 0; i < 16; ++i) {
            std::thread([url = server.Url(), &answered] {
                for (Client client;;) answered += client.Get(url).Success();
            }).detach();
        }
        Eventually([&] { return answered > 32; });
        std::exit(EXIT_SUCCESS);
    };
    for (int i = 0; i < 3; ++i)
        EXPECT_EXIT(end_amid_handshakes(), ::testing::ExitedWithCode(EXIT_SUCCESS), "");
}

// Leaves the process only a few more descriptors than it has.
class DescriptorLimit {
  public:
    explicit DescriptorLimit(rlim_t more) {
        getrlimit(RLIMIT_NOFILE, &m_Before);
        const std::filesystem::directory_iterator open("/proc/self/fd"), end;
        const rlimit lowered{static_cast<rlim_t>(std::distance(open, end)) + more, m_Before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &lowered);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_Before); }

  private:
    rlimit m_Before{};
};

TEST(BackgroundCaller, ABurstBeyondTheDescriptorsFailsInPartAndPasses) {
    HttpTestServer silent([](TestConnection& connection) { connection.WaitForClose(); });
    const RequestCounters before = GetRequestCounters();
    {
        DescriptorLimit limit(40);
        std::vector<std::unique_ptr<Caller>> callers;
        for (int i = 0; i < 100; ++i) {
            callers.push_back(std::make_unique<Caller>(CallOf(silent.Url())));
            callers.back()->Timeout_ms(2000);
            if (const Result_t started = callers.back()->Start("caller"); started.Failure()) {
                CountRequestNotStarted(callers.back()->CallData(), started);
            }
        }
        for (const auto& caller : callers) EXPECT_TRUE(Eventually([&] { return caller->IsFinished(); }));
    }
    const RequestCounters after = GetRequestCounters();
    EXPECT_EQ(after.Started, before.Started + 100);
    EXPECT_GT(after.FailedResources, before.FailedResources);
    EXPECT_GT(after.FailedTimeout, before.FailedTimeout);
    EXPECT_EQ(after.FailedResources + after.FailedTimeout,
              before.FailedResources + before.FailedTimeout + 100);
    EXPECT_EQ(after.Running, 0u);

    HttpTestServer server(HttpTestServer::Answers("200 OK"));
    EXPECT_EQ(Client().Get(server.Url()), Mirel::RESULT_OK);
}

}  // namespace
