// Calls that are made, or watched, by somebody else than the queue.
#include <future>

#include "HttpTestServer.h"
#include "VL_Python.h"
#include "support/QueueProbe.h"

namespace EventManager {

using Testing::HttpTestServer;

// Takes the requests to "/taken" over, and writes down what it is told.
class Recorder : public IListenerCaller {
  public:
    bool TakeRequest(const ListenerCall& call, const Velmora::BasicRestEntryCall& request,
                     const std::string& body) override {
        Tell("request " + call.EventName + ' ' + request.TargetUrl.Path + ' ' + body);
        if (request.TargetUrl.Path != "/taken") return false;
        Taken = call.Token;
        return true;
    }
    void HandlerRan(const ListenerCall& call) override {
        Tell(HandlerOutcomeName(Velmora::LastHandlerReport().Outcome) + (" " + call.Called.callback));
    }
    void ListenerDeleted(const std::string& event_name, const Listener& listener) override {
        Tell("deleted " + event_name + ' ' + listener.callback);
    }
    void Tell(const std::string& what) { Told += what + '\n'; }

    std::string Told;
    std::shared_ptr<void> Taken;
};

struct OtherQueue : EventQueue {
    OtherQueue() : EventQueue(5000) {}
    using EventQueue::CallListenersOf;
};

class CallerTest : public QueueTest {
  protected:
    CallerTest() { UseListenerCaller(&recorder); }
    ~CallerTest() override { UseListenerCaller(nullptr); }

    Recorder recorder;
};

TEST_F(CallerTest, WhoMakesTheCallsIsToldOfEachAndOfEveryDeletion) {
    HttpTestServer server(HttpTestServer::Answers("200 OK"));
    Event("e");
    Listen("e", server.Url("/taken"), R"({"l":1})");
    Listen("e", "python://no_such_module");
    Listen("e", server.Url("/left"));
    EXPECT_TRUE(Post("e"));
    EXPECT_EQ(recorder.Told, R"(request e /taken {"event_name":"e","timestamp":"2026-03-01T12:00:00+00:00",)"
                             R"("event_data":{},"listener_data":{"l":1}})"
                             "\nimport python://no_such_module\n"
                             "request e /left \n");
    EXPECT_TRUE(Testing::Eventually([&] { return server.Requests().size() == 1; }));

    recorder.Told.clear();
    queue.DeleteEventListener("e", last_id);
    queue.DeleteListenersForEvent("e");
    Listen("e", "/a");
    queue.DeleteEvent("e");
    Event("f");
    Listen("f", "/b");
    queue.DeleteAllEvents();
    EXPECT_EQ(recorder.Told, "deleted e " + server.Url("/left") + "\ndeleted e " + server.Url("/taken") +
                                 "\ndeleted e python://no_such_module\ndeleted e /a\ndeleted f /b\n");
}

TEST_F(CallerTest, APostingsTokenIsLetGoWhenTheLastOfItsCallsHasEnded) {
    std::promise<void> answer;
    HttpTestServer server([&](Testing::TestConnection& connection) {
        connection.ReadRequest();
        answer.get_future().wait();
        connection.Write("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    });
    OtherQueue other;
    other.CreateEvent("e", nullptr);
    for (const std::string& callback :
         {server.Url("/taken"), server.Url("/left"), std::string("python://none")}) {
        other.CreateEventListener("e", callback, nullptr, last_id);
    }
    auto token = std::make_shared<int>();
    const std::weak_ptr<int> posting = token;
    EXPECT_TRUE(other.CallListenersOf(Dict(R"({"event_name":"e","timestamp":"t"})"), token));
    token.reset();
    EXPECT_EQ(posting.use_count(), 2);  // the call that was taken over, and the one that was not
    answer.set_value();
    EXPECT_TRUE(Testing::Eventually([&] { return posting.use_count() == 1; }));
    recorder.Taken.reset();
    EXPECT_TRUE(posting.expired());

    PListDict history;
    other.GetEventHistory(history);
    EXPECT_EQ(history.GetArray("history").Size(), 0u);
    EXPECT_FALSE(other.CallListenersOf(Dict(R"({"event_name":"f"})"), std::make_shared<int>()));
}

}  // namespace EventManager
