// Posting: payloads, Python handlers, HTTP callers and the broadcast.
#define PY_SSIZE_T_CLEAN
#include <Python.h>
// (Python wants to be first)
#include "VL_Python.h"

#include <dlfcn.h>

#include <future>

#include "HttpTestServer.h"
#include "LocalAccessManager.h"
#include "NoMemory.h"
#include "support/QueueProbe.h"

namespace EventManager {

class PostingTest : public QueueTest {
  protected:
    // A handler module in a folder of its own that is on Python's path.
    static void Module(const std::string& name, const std::string& source) {
        static const Testing::TemporaryFolder* modules = new Testing::TemporaryFolder;
        Testing::WriteFile(*modules / (name + ".py"), source);
        InitPython({modules->Path()});
        const PythonContextLock context;
        if (PyRun_SimpleString("import sys\nif sys.version_info[0] > 2:\n import importlib\n"
                               " importlib.invalidate_caches()\n") != 0) {
            ADD_FAILURE();
        }
    }
    // A handler that keeps each payload, as JSON, in its list "calls".
    static void RecordingModule(const std::string& name) {
        Module(name,
               "import json\ncalls = []\ndef event_handler(payload):\n"
               "    calls.append(json.dumps(payload, sort_keys=True))\n");
    }
    // The text of a Python expression evaluated in a module.
    static std::string Ask(const std::string& module, const std::string& expression) {
        using Reference = std::unique_ptr<PyObject, decltype(&Py_DecRef)>;
        const PythonContextLock context;
        const Reference main(PyImport_ImportModule(module.c_str()), Py_DecRef);
        if (!main) return "no module";
        PyObject* globals = PyModule_GetDict(main.get());
        const Reference value(
            PyRun_String(("str(" + expression + ")").c_str(), Py_eval_input, globals, globals), Py_DecRef);
        if (!value) {
            PyErr_Clear();
            return "no value";
        }
#if PY_MAJOR_VERSION >= 3
        return PyUnicode_AsUTF8(value.get());
#else
        return PyString_AsString(value.get());
#endif
    }
};

TEST_F(PostingTest, APayloadHoldsWhatItShouldAndAListenersOwnDataOnly) {
    RecordingModule("recorder");
    Event("e", R"({"d":1})");
    Listen("e", "python://recorder", R"({"l":1})");
    Listen("e", "python://recorder2");
    Module("recorder2", "import recorder\nevent_handler = recorder.event_handler\n");
    EXPECT_TRUE(Post("e"));
    clock.Step(1);
    EXPECT_TRUE(Post("e", "{}"));
    EXPECT_EQ(Ask("recorder", "len(calls)"), "4");
    EXPECT_EQ(Ask("recorder", "calls[0]"),
              R"({"event_data": {"d": 1}, "event_name": "e", "listener_data": {"l": 1}, )"
              R"("timestamp": "2026-03-01T12:00:00+00:00"})");
    EXPECT_EQ(Ask("recorder", "calls[3]"),
              R"({"event_data": {"d": 1}, "event_name": "e", "listener_data": {}, "post_data": {}, )"
              R"("timestamp": "2026-03-01T12:00:01+00:00"})");
    EXPECT_EQ(
        Text(Entry(History(), 1)),
        R"({"event_name":"e","timestamp":"2026-03-01T12:00:01+00:00","post_data":{},"event_data":{"d":1}})");
    EXPECT_FALSE(Post("unknown"));
    EXPECT_TRUE(log.Has("Posting event \"unknown\".\n"));
    EXPECT_EQ(History().Size(), 2u);
}

TEST_F(PostingTest, AHandlerThatFailsIsLoggedAndTheNextListenerCalled) {
    Module("number", "event_handler = 7\n");
    Module("bare", "");
    Module("raises", "def event_handler(payload):\n    raise ValueError('went wrong')\n");
    Module("exits", "import sys\ndef event_handler(payload):\n    sys.exit(3)\n");
    Module("interrupts", "def event_handler(payload):\n    raise KeyboardInterrupt()\n");
    Module("broken", "this is no python\n");
    Module("takes_none", "def event_handler():\n    pass\n");
    const struct {
        std::string callback;
        std::vector<std::string> errors;  // what each Error line begins with or, for exceptions, holds
    } cases[] = {
        {"python://", {"Empty module name", "Unable to locate Python module \"\".\n"}},
        {"python://no_such_module",
         {"no_such_module", "Unable to locate Python module \"no_such_module\".\n"}},
        {"python://broken", {"SyntaxError", "Unable to locate Python module \"broken\".\n"}},
        {"python://b\xff\xfe", {"", "Unable to locate Python module \"b\xff\xfe\".\n"}},
        {std::string("python://after\0x", 16), {"NUL", "Unable to locate Python module \"after"}},
        {"python://bare", {"event_handler"}},
        {"python://number", {"Python object number.event_handler must be callable.\n"}},
        {"python://raises", {"ValueError: went wrong"}},
        {"python://exits", {"SystemExit"}},
        {"python://interrupts", {"KeyboardInterrupt"}},
        {"python://takes_none", {"TypeError"}},
        {"x python://raises", {"Unable to parse callback URL: x python://raises\n"}},
    };
    RecordingModule("after");
    int posted = 0;
    for (const auto& test : cases) {
        queue.DeleteAllEvents();
        Event("e");
        EXPECT_EQ(Listen("e", test.callback), Velmora::STATUS_201_CREATED);
        Listen("e", "python://after");
        log.Clear();
        EXPECT_TRUE(Post("e")) << test.callback;
        const auto errors = log.Errors();
        EXPECT_EQ(errors.size(), test.errors.size()) << test.callback;
        for (std::size_t i = 0; i < errors.size() && i < test.errors.size(); ++i) {
            EXPECT_NE(errors[i].find(test.errors[i]), std::string::npos) << errors[i];
        }
        EXPECT_EQ(Ask("after", "len(calls)"), std::to_string(++posted)) << test.callback;
    }
}

// Wherever memory ends, an event is posted to all or to nobody, but for the one listener whom it ended at.
TEST_F(PostingTest, WithoutMemoryAPostingIsMadeOrIsNot) {
    RecordingModule("spared");
    Module("spared2", "import spared\nevent_handler = spared.event_handler\n");
    Event("e", R"({"a key that is not short":"a text that is as long"})");
    Listen("e", "python://spared", R"({"a key that is not short":"a text that is as long"})");
    Listen("e", "python://spared2");
    Post("e");
    bool refused = true, listener_lost = false;
    for (int allocations = 0; refused; ++allocations) {
        SCOPED_TRACE(allocations);
        Ask("spared", "[calls.pop() for call in list(calls)]");
        const std::size_t before = History().Size();
        bool posted = false;
        {
            const Testing::NoMemory none(allocations);
            try {
                posted = queue.PostEvent("e", nullptr);
            } catch (const std::bad_alloc&) {
            }
            refused = none.Refused();
        }
        EXPECT_EQ(History().Size(), before + posted);
        const int calls = std::stoi(Ask("spared", "len(calls)"));
        EXPECT_TRUE(posted ? calls > 0 : calls == 0) << calls;
        listener_lost = listener_lost || (posted && calls == 1);
    }
    EXPECT_TRUE(listener_lost);
    EXPECT_TRUE(log.Has("Out of memory calling \"python://spared\".\n"));
}

TEST_F(PostingTest, ALoadedModuleIsUsedAsItIsAndItsThreadsRunOn) {
    Module("counting", "loads = 0\ndef event_handler(payload):\n    global loads\n    loads += 1\n");
    Module("threading_handler",
           "import threading\ndone = threading.Event()\ndef event_handler(payload):\n"
           "    threading.Thread(target=done.set).start()\n");
    Event("e");
    Listen("e", "python://counting");
    Post("e");
    Module("counting", "raise ImportError('must not be loaded again')\n");
    Post("e");
    EXPECT_EQ(Ask("counting", "loads"), "2");
    Listen("e", "python://threading_handler");
    Post("e");
    EXPECT_TRUE(Testing::Eventually([] { return Ask("threading_handler", "done.is_set()") == "True"; }));
    EXPECT_TRUE(log.Errors().empty());
}

// The module is among the loaded ones already, without its handler. That the posting waits for the import
// shows in what it asks Python for.
TEST_F(PostingTest, AModuleThatAnotherThreadIsImportingIsWaitedFor) {
    if (PY_MAJOR_VERSION < 3) GTEST_SKIP() << "2.7 keeps no note of an import that is under way";
    Module("gate", R"(import builtins, threading
begun, go, asked, calls = threading.Event(), threading.Event(), [], []
imported = builtins.__import__
def noting(name, *others):
    if name == 'slow_to_load' and begun.is_set(): asked.append(name)
    return imported(name, *others)
builtins.__import__ = noting
def load():
    import slow_to_load
def start():
    threading.Thread(target=load).start()
)");
    Module("slow_to_load",
           "import gate\ngate.begun.set()\ngate.go.wait()\nevent_handler = gate.calls.append\n");
    Event("e");
    Listen("e", "python://slow_to_load");
    Ask("gate", "start()");
    EXPECT_TRUE(Testing::Eventually([] { return Ask("gate", "begun.is_set()") == "True"; }));
    auto posted = std::async(std::launch::async, [&] { return Post("e"); });
    EXPECT_TRUE(Testing::Eventually([&] {
        return Ask("gate", "len(asked)") == "1" ||
               posted.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }));
    Ask("gate", "go.set()");
    EXPECT_TRUE(posted.get());
    EXPECT_EQ(Ask("gate", "len(calls)"), "1");
    EXPECT_TRUE(log.Errors().empty());
    Ask("gate", "setattr(builtins, '__import__', imported)");
}

TEST_F(PostingTest, PostingsLeaveNoPythonReferencesBehind) {
    Module("counted",
           "import gc, sys\nmarker = object()\ndef event_handler(payload):\n    return marker\n"
           "def references():\n    gc.collect()\n"
           "    once = (None, marker, event_handler, sys.modules['counted'])\n"
           "    return [sys.getrefcount(o) for o in once] + [len(gc.get_objects())]\n"
           "def note():\n    global before\n    before = references()\n"
           "def drift():\n    return max(abs(a - b) for a, b in zip(references(), before))\n");
    Event("e");
    Listen("e", "python://counted", R"({"x":[1,"two",null,true,2.5]})");
    Post("e");
    Ask("counted", "note()");
    for (int i = 0; i < 8000; ++i) Post("e", R"({"y":{}})");  // what is freed once is less than half of that
    EXPECT_LT(std::stoi(Ask("counted", "drift()")), 4000);
}

TEST_F(PostingTest, StatisticsDoNotWaitForAHandler) {
    Module("slow",
           "import time\ninside = go = False\ndef event_handler(payload):\n    global inside\n"
           "    inside = True\n    while not go:\n        time.sleep(0.001)\n");
    Event("e");
    Listen("e", "python://slow");
    EXPECT_EQ(Probe::Statistics(queue).Listeners, 1u);
    EXPECT_EQ(Ask("slow", "inside"), "False");  // imported once, here
    std::thread poster([&] { Post("e"); });
    EXPECT_TRUE(Testing::Eventually([] { return Ask("slow", "inside") == "True"; }));
    auto asked = std::async(std::launch::async, [&] { return Probe::Statistics(queue); });
    EXPECT_TRUE(Testing::Eventually(
        [&] { return asked.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
    Ask("slow", "globals().update(go=True)");
    poster.join();
    const QueueStatistics seen = asked.get();
    EXPECT_EQ(seen.Postings, 1u);
    EXPECT_EQ(seen.Listeners, 1u);  // of the earlier reading
}

TEST_F(PostingTest, EveryClientSeesTheHistorysOrderWhoeverPosts) {
    class Reader : public Velmora::BroadcastReader {
      public:
        explicit Reader(std::atomic<int>& count, std::string& order) : m_Count(count), m_Order(order) {}
        void OnPosting(std::string_view json) override {
            m_Order += json;
            ++m_Count;
        }

      private:
        std::atomic<int>& m_Count;
        std::string& m_Order;
    };
    Event("e");
    std::atomic<int> counts[2] = {};
    std::string orders[2];
    for (int i = 0; i < 2; ++i) {
        TCPSession session = TCPSession::Reader(std::make_unique<Reader>(counts[i], orders[i]), "test");
        queue.AdoptWsClient(session);
        EXPECT_TRUE(session.Empty());
    }
    std::vector<std::thread> posters;
    for (int t = 0; t < 8; ++t) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i) Post("e", R"({"from":)" + std::to_string(t * 1000 + i) + "}");
        });
    }
    for (std::thread& poster : posters) poster.join();
    EXPECT_TRUE(Testing::Eventually([&] { return counts[0] == 800 && counts[1] == 800; }));
    std::string history;
    for (const PListItem& record : History()) history += Text(dynamic_cast<const PListDict&>(record));
    EXPECT_EQ(orders[0], history);
    EXPECT_EQ(orders[1], history);
}

// ---- HTTP listeners

using Testing::HttpTestServer;

class CallerTest : public PostingTest {
  protected:
    CallerTest() { Event("e", R"({"d":1})"); }

    // Reaps what has finished until nothing runs any more.
    void AwaitCallers() {
        EXPECT_TRUE(Testing::Eventually([&] {
            Probe::Reap(queue);
            return Probe::Callers(queue) == 0;
        }));
    }
    // The one request that the server has received.
    static std::string Request(const HttpTestServer& server) {
        EXPECT_TRUE(Testing::Eventually([&] { return server.Requests().size() == 1; }));
        return server.Requests().empty() ? "" : server.Requests()[0];
    }
    static std::string Body(const std::string& request) {
        return request.substr(request.find("\r\n\r\n") + 4);
    }
    static bool Has(const std::string& request, const std::string& part) {
        return request.find(part) != std::string::npos;
    }
};

TEST_F(CallerTest, AListenerWithoutDataIsFetchedAndOneWithDataPostedTo) {
    HttpTestServer get(HttpTestServer::Answers("200 OK"));
    HttpTestServer post(HttpTestServer::Answers("204 No Content"), HttpTestServer::Tls);  // self-signed
    Listen("e", get.Url("/hook?x=1"));
    Listen("e", post.Url("/hook"), R"({"l":1})");
    EXPECT_TRUE(Post("e", R"({"x":"\u00e9"})"));
    EXPECT_EQ(Request(get).find("GET /hook?x=1 HTTP/1.1\r\n"), 0u);
    EXPECT_TRUE(Has(Request(get), "Content-Type: application/json\r\n"));
    EXPECT_EQ(Body(Request(get)), "");
    EXPECT_EQ(Request(post).find("POST /hook HTTP/1.1\r\n"), 0u);
    EXPECT_TRUE(Has(Request(post), "Content-Type: application/json\r\n"));
    EXPECT_TRUE(
        Dict(Body(Request(post))) ==
        Dict(R"({"event_name":"e","timestamp":"2026-03-01T12:00:00+00:00","post_data":{"x":"\u00e9"},)"
             R"("event_data":{"d":1},"listener_data":{"l":1}})"));
    AwaitCallers();
    EXPECT_TRUE(log.Errors().empty());
}

// The value of the header Authorization, empty where there is none.
static std::string Authorization(const std::string& request) {
    const std::string name = "\r\nAuthorization: ";
    const std::size_t at = request.find(name);
    if (at == std::string::npos) return "";
    const std::size_t begin = at + name.size();
    return request.substr(begin, request.find("\r\n", begin) - begin);
}

// Whatever else listens at the server's port on this machine, and whatever "localhost" stands for.
TEST_F(CallerTest, APathIsCalledWhereTheServerListensAndNobodyElseSeesItsCredential) {
    const std::pair<const char*, const char*> cases[] = {
        // the server's address; another program's
        {"127.0.0.1", "127.0.0.2"},
        {"127.0.0.2", "127.0.0.1"},
        {"::1", "127.0.0.1"},
        {"0.0.0.0", nullptr},
        {"::", nullptr},
    };
    for (const auto& [address, elsewhere] : cases) {
        HttpTestServer server(HttpTestServer::Answers("202 Accepted"), HttpTestServer::Plain, address);
        std::unique_ptr<HttpTestServer> other;
        if (elsewhere != nullptr) {
            other = std::make_unique<HttpTestServer>(HttpTestServer::Answers("200 OK"), HttpTestServer::Plain,
                                                     elsewhere, server.Port());
        }
        const std::string authority = "localhost:" + std::to_string(server.Port());
        URL& own = Probe::EndPoint(queue);
        ASSERT_TRUE(own.Parse("http://" + authority));
        ASSERT_TRUE(LocalAccessManager::ServerListens(server.Listener()).Success());
        queue.DeleteAllEvents();
        Event("e");
        Listen("e", "/api/v1/events/b?x", R"({"l":1})");
        Post("e");
        const std::string request = Request(server);
        EXPECT_EQ(request.find("POST /api/v1/events/b?x HTTP/1.1\r\nHost: " + authority + "\r\n"), 0u)
            << address << request;
        EXPECT_TRUE(LocalAccessManager::IsSelfAuthorized(Authorization(request))) << address;
        AwaitCallers();
        EXPECT_TRUE(!other || other->Requests().empty()) << address;
    }
}

TEST_F(CallerTest, OnlyPathsBearTheCredentialAndOnlyWhileTheServerListens) {
    HttpTestServer server(HttpTestServer::Answers("200 OK"));
    ASSERT_TRUE(Probe::EndPoint(queue).Parse(server.Url("")));
    ASSERT_TRUE(LocalAccessManager::ServerListens(server.Listener()).Success());
    Velmora::BasicRestEntryCall prepared;
    ASSERT_TRUE(LocalAccessManager::SelfAuthRestCallback().Call(prepared).Success());
    Listen("e", server.Url("/absolute"));
    Post("e");
    EXPECT_EQ(Authorization(Request(server)), "");

    LocalAccessManager::ServerEnded();
    queue.DeleteAllEvents();
    Event("e");
    Listen("e", "/path");
    Post("e");
    AwaitCallers();
    ASSERT_EQ(server.Requests().size(), 2u);
    EXPECT_EQ(server.Requests()[1].find("GET /path"), 0u);
    EXPECT_EQ(Authorization(server.Requests()[1]), "");
    TLSHTTPRequestHandle late;  // prepared before the end, sent after it
    ASSERT_TRUE(prepared.TargetUrl.Parse(server.Url()));
    EXPECT_TRUE(late.Exec(prepared.TargetUrl, prepared.RequestHeaders, Velmora::METH_GET, Velmora::HTTP_1_1)
                    .Failure());
    EXPECT_EQ(server.Requests().size(), 2u);
}

TEST_F(CallerTest, OnlyAnErrorStatusIsLoggedOnceAndTheUnfinishedStay) {
    HttpTestServer hanging([](Testing::TestConnection& connection) { connection.WaitForClose(); });
    HttpTestServer missing(HttpTestServer::Answers("404 Not Found"));
    HttpTestServer resetting([](Testing::TestConnection& connection) { connection.Reset(); });
    const ui64_t timeouts = Velmora::GetRequestCounters().FailedTimeout;
    Listen("e", hanging.Url());
    Listen("e", "http://user:secret@" + missing.Authority() + "/a/path");
    Listen("e", resetting.Url());
    Post("e");
    EXPECT_EQ(Probe::Callers(queue), 3u);
    AwaitCallers();
    EXPECT_EQ(log.Errors(), (std::vector<std::string>{"Callback to \"http://" + missing.Authority() +
                                                      "\" failed: 404 (Not Found)\n"}));
    EXPECT_EQ(Velmora::GetRequestCounters().FailedTimeout, timeouts + 1);
}

TEST_F(CallerTest, BeyondTheLimitCallsFailAndAreCountedAndLoggedOnce) {
    std::atomic<bool> hangs{true};
    HttpTestServer server([&](Testing::TestConnection& connection) {
        connection.ReadRequest();
        Testing::Eventually([&] { return !hangs; });
        connection.Write("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    });
    EventQueue patient(20000);
    patient.CreateEvent("e", nullptr);
    patient.CreateEventListener("e", server.Url("/all"), nullptr, last_id);
    Velmora::SetMaxCallers(3);
    const auto before = Velmora::GetRequestCounters();
    for (int i = 0; i < 10; ++i) patient.PostEvent("e", nullptr);
    EXPECT_EQ(Probe::Callers(patient), 3u);
    EXPECT_EQ(Velmora::GetRequestCounters().FailedResources, before.FailedResources + 7);
    EXPECT_EQ(Velmora::GetRequestOutcomes().front().Url, server.Url("/all"));
    EXPECT_EQ(Velmora::GetRequestOutcomes().front().Reason, "Too many calls at once");
    EXPECT_EQ(log.Errors(), std::vector<std::string>{"Too many calls to listeners at once: 1 not made.\n"});

    hangs = false;  // each that ends makes room for another, also before it is reaped
    EXPECT_TRUE(Testing::Eventually([&] { return Velmora::GetRequestCounters().Running == 0; }));
    EXPECT_TRUE(Testing::Eventually([&] {
        patient.PostEvent("e", nullptr);
        return Velmora::GetRequestCounters().AnsweredByClass[2] >= before.AnsweredByClass[2] + 6;
    }));
    EXPECT_GT(Probe::Callers(patient), 3u);
    Velmora::SetMaxCallers(0);
    const ui64_t refused = Velmora::GetRequestCounters().FailedResources;
    for (int i = 0; i < 10; ++i) patient.PostEvent("e", nullptr);
    EXPECT_EQ(Velmora::GetRequestCounters().FailedResources, refused);
}

TEST_F(CallerTest, WhatHasFinishedIsReapedAlsoBehindWhatHasNot) {
    std::atomic<bool> hangs{true};
    HttpTestServer slow([&](Testing::TestConnection& connection) {
        connection.ReadRequest();
        Testing::Eventually([&] { return !hangs; });
        connection.Write("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    });
    HttpTestServer quick(HttpTestServer::Answers("200 OK"));
    EventQueue patient(20000);
    patient.CreateEvent("e", nullptr);
    patient.CreateEventListener("e", slow.Url(), nullptr, last_id);
    patient.CreateEventListener("e", quick.Url(), nullptr, last_id);
    patient.PostEvent("e", nullptr);
    EXPECT_TRUE(Testing::Eventually([&] {
        Probe::Reap(patient);
        return Probe::Callers(patient) == 1;
    }));
    EXPECT_EQ(Probe::FirstCallersTimeout_ms(patient), 20000u);
    hangs = false;
}

TEST_F(CallerTest, DestroyingAQueueWaitsForItsRunningCallers) {
    HttpTestServer hanging([](Testing::TestConnection& connection) { connection.WaitForClose(); });
    {
        EventQueue other(300);
        UUID id;
        other.CreateEvent("e", nullptr);
        other.CreateEventListener("e", hanging.Url(), nullptr, id);
        other.CreateTimer("e", Timestamp(), 60, nullptr, id);
        for (int i = 0; i < 20; ++i) other.PostEvent("e", nullptr);
    }
    EXPECT_EQ(Velmora::GetRequestCounters().Running, 0u);
}

#if !defined(__SANITIZE_THREAD__) && \
    !defined(__SANITIZE_ADDRESS__)  // these stand in for pthread_create themselves

static std::atomic<bool> s_no_threads{false};

extern "C" MR_EXPORT int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                        void* (*run)(void*), void* argument) noexcept {
    using create_t = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto create = reinterpret_cast<create_t>(dlsym(RTLD_NEXT, "pthread_create"));
    return s_no_threads ? EAGAIN : create(thread, attributes, run, argument);
}

TEST_F(CallerTest, WithoutThreadsCallsFailWithTheirReasonAndAreReapedAtOnce) {
    HttpTestServer server(HttpTestServer::Answers("200 OK"));
    for (const char* path : {"/", "/b", "/c"}) Listen("e", server.Url(path));
    const ui64_t failed = Velmora::GetRequestCounters().FailedResources;
    s_no_threads = true;
    EXPECT_TRUE(Post("e"));
    s_no_threads = false;
    EXPECT_EQ(Probe::Callers(queue), 3u);
    Probe::Reap(queue);
    EXPECT_EQ(Probe::Callers(queue), 0u);
    EXPECT_EQ(Velmora::GetRequestCounters().FailedResources, failed + 3);
    EXPECT_NE(Velmora::GetRequestOutcomes().front().Reason.find(strerror(EAGAIN)), std::string::npos);
    Post("e");
    EXPECT_TRUE(Testing::Eventually([&] { return server.Requests().size() == 3; }));
    AwaitCallers();
}

#endif

}  // namespace EventManager
