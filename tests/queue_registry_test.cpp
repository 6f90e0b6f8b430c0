// Events, listeners, limits, the state document, the state file and the history.
#include <sys/fsuid.h>
#include <sys/stat.h>

#include "CountedSyncs.h"
#include "NoMemory.h"
#include "support/QueueProbe.h"

namespace EventManager {

using Velmora::STATUS_201_CREATED;
using Velmora::STATUS_400_BAD_REQ;
using Velmora::STATUS_404_NOT_FOUND;
using Velmora::STATUS_409_CONFLICT;
using Velmora::STATUS_412_PRECOND_FAILED;

class RegistryTest : public QueueTest {};

TEST_F(RegistryTest, EventsKeepTheirFirstDataAndTheirCase) {
    EXPECT_EQ(Event("a", R"({"x":1})"), STATUS_201_CREATED);
    EXPECT_EQ(Event("a", R"({"x":2})"), STATUS_412_PRECOND_FAILED);
    EXPECT_EQ(Event("A"), STATUS_201_CREATED);
    EXPECT_EQ(Event(""), STATUS_201_CREATED);
    EXPECT_EQ(Text(EventState()), R"({"event_list":[{"event_name":"","listener_list":[]},)"
                                  R"({"event_name":"A","listener_list":[]},)"
                                  R"({"event_name":"a","event_data":{"x":1},"listener_list":[]}]})");
    EXPECT_TRUE(queue.DeleteEvent("a"));
    EXPECT_FALSE(queue.DeleteEvent("a"));
}

TEST_F(RegistryTest, ListenersAreRefusedInTheOrderOfTheTests) {
    EXPECT_EQ(Listen("none", "not a url"), STATUS_404_NOT_FOUND);
    Event("e");
    last_id.Set(UUID().Value());
    const UUID untouched = last_id;
    EXPECT_EQ(Listen("e", "not a url"), STATUS_400_BAD_REQ);
    EXPECT_TRUE(last_id == untouched && last_id.HasValue());
    for (const char* callback : {"python://", "x python://", "http://h/p", "/local?x=1", "gopher://h/"}) {
        EXPECT_EQ(Listen("e", callback), STATUS_201_CREATED) << callback;
        EXPECT_EQ(Listen("e", callback), STATUS_412_PRECOND_FAILED) << callback;
    }
    EXPECT_FALSE(last_id == untouched);

    queue.SetMaxListeners(4);  // there are 5
    EXPECT_EQ(Listen("none", "not a url"), STATUS_409_CONFLICT);
    EXPECT_EQ(Event("e"), STATUS_409_CONFLICT);
    queue.SetMaxListeners(-1);
    EXPECT_EQ(Event("e"), STATUS_412_PRECOND_FAILED);
    EXPECT_EQ(queue.GetMaxListeners(), -1);
    EXPECT_TRUE(log.Errors().empty());
}

TEST_F(RegistryTest, TheListenerLimitCountsOverAllEventsAndAdmitsOneMore) {
    queue.SetMaxListeners(0);
    Event("a");
    Event("b");
    EXPECT_EQ(Listen("a", "/1"), STATUS_201_CREATED);
    EXPECT_EQ(Listen("b", "/1"), STATUS_409_CONFLICT);
    EXPECT_EQ(Event("c"), STATUS_409_CONFLICT);
    EXPECT_TRUE(queue.DeleteListenersForEvent("a"));
    EXPECT_EQ(Listen("b", "/1"), STATUS_201_CREATED);
}

// Whichever way listeners go, others may come in their place, with the same callbacks.
TEST_F(RegistryTest, WhatIsDeletedCountsNoMore) {
    queue.SetMaxListeners(1);
    const std::vector<std::function<void()>> deletions = {
        [&] { queue.DeleteEventListener("a", last_id); }, [&] { queue.DeleteListenersForEvent("a"); },
        [&] { queue.DeleteEvent("a"); }, [&] { queue.DeleteAllEvents(); }};
    for (const auto& deletion : deletions) {
        Event("b");
        Event("a");
        EXPECT_EQ(Listen("b", "/1"), STATUS_201_CREATED);
        EXPECT_EQ(Listen("a", "/1"), STATUS_201_CREATED);
        EXPECT_EQ(Listen("a", "/2"), STATUS_409_CONFLICT);
        deletion();
        Event("a");
        EXPECT_EQ(Listen("a", "/1"), STATUS_201_CREATED);
        queue.DeleteListenersForEvent("a");
        queue.DeleteListenersForEvent("b");
    }
    EXPECT_EQ(Text(EventState()), R"({"event_list":[{"event_name":"a","listener_list":[]}]})");
}

TEST_F(RegistryTest, ListenersAreDeletedByTheBytesOfTheirIdWithinTheirEvent) {
    Event("a");
    Event("b");
    Listen("a", "/1");
    UUID id = last_id;
    id.m_HasValue = false;
    EXPECT_FALSE(queue.DeleteEventListener("b", id));
    EXPECT_FALSE(queue.DeleteEventListener("none", id));
    EXPECT_TRUE(queue.DeleteEventListener("a", id));
    EXPECT_FALSE(queue.DeleteEventListener("a", id));
    EXPECT_TRUE(queue.DeleteListenersForEvent("a"));
    EXPECT_FALSE(queue.DeleteListenersForEvent("none"));
}

TEST_F(RegistryTest, WhatWasGivenAndWhatIsReadAreTheirOwnersCopies) {
    PListDict data = Dict(R"({"deep":{"x":1}})");
    queue.CreateEvent("e", &data);
    dynamic_cast<PListDict*>(data.GetItem("deep"))->SetValue("x", 2);
    PListDict state = EventState();
    state.SetValue("other", 1);
    dynamic_cast<PListArray*>(state.GetItem("event_list"))->Clear();
    EXPECT_EQ(Text(EventState()),
              R"({"event_list":[{"event_name":"e","event_data":{"deep":{"x":1}},"listener_list":[]}]})");
}

TEST_F(RegistryTest, BadEntriesOfADocumentAreNamedAndTheRestIsApplied) {
    queue.SetEventState(Dict(R"({"event_list":[7,{"event_name":""},{"event_data":{}},
        {"event_name":"e","event_data":3,"listener_list":[5,{"listener_data":{}},
            {"callback":"/ok","listener_data":{"k":"v"},"id":"00000000-0000-0000-0000-000000000000"},
            {"callback":"/ok"},{"callback":"no url"}]},
        {"event_name":"f","listener_list":{}}]})"));
    EXPECT_EQ(log.Errors(),
              (std::vector<std::string>{"Non-dictionary event array entry.\n", "Skipping empty event.\n",
                                        "Skipping empty event.\n", "Non-dictionary listener array entry.\n",
                                        "Skipping empty callback 1 in event \"e\".\n"}));
    const PListDict state = EventState();
    const PListArray& events = state.GetArray("event_list");
    ASSERT_EQ(events.Size(), 2u);
    const PListArray& listeners = Entry(events, 0).GetArray("listener_list");
    ASSERT_EQ(listeners.Size(), 1u);
    EXPECT_EQ(Entry(listeners, 0).GetData("callback").Text(), "/ok");
    EXPECT_EQ(Entry(listeners, 0).GetDict("listener_data").GetData("k").Text(), "v");
    EXPECT_NE(Entry(listeners, 0).GetData("id").Text(), "00000000-0000-0000-0000-000000000000");

    log.Clear();
    for (const char* nothing :
         {"{}", R"({"event_list":{}})", R"({"event_list":[]})", R"({"event_list":1})"}) {
        queue.SetEventState(Dict(nothing));
    }
    EXPECT_TRUE(log.Entries().empty());
}

TEST_F(RegistryTest, ListenersOfAnExistingEventAreAddedAlsoWhenTheEventIsRefused) {
    Event("e");
    queue.SetEventState(Dict(R"({"event_list":[{"event_name":"e","listener_list":[{"callback":"/1"}]}]})"));
    EXPECT_EQ(Listen("e", "/1"), STATUS_412_PRECOND_FAILED);
}

TEST_F(RegistryTest, ADocumentRoundTripsAndLeavesTheLimits) {
    const PListDict document = Dict(R"({"max_listeners":3,"max_watches":4,"mine":true,
        "event_list":[{"event_name":"e","event_data":{"x":[1]},
            "listener_list":[{"callback":"/2"},{"callback":"/1","listener_data":{"y":2}}]}],
        "timer_list":[{"event_name":"e","interval_sec":"60"}],
        "watch_list":[{"path":"/tmp","event_name":"e","once":true}]})");
    queue.SetQueueState(document);
    PListDict state = Dict(R"({"kept":1})");
    queue.GetQueueState(state);
    EXPECT_EQ(state.GetData("kept").Text(), "1");
    EXPECT_EQ(state.GetData("max_listeners").Text(), "1024");
    EXPECT_EQ(state.GetData("max_watches").GetType(), Velmora::IT_INT);

    EventQueue second(500);
    second.SetQueueState(state);
    second.SetQueueState(state);  // adds nothing but timers
    PListDict again;
    second.GetQueueState(again);
    for (const PListDict* read : {&state, &again}) {
        const PListArray& order = Entry(read->GetArray("event_list"), 0).GetArray("listener_list");
        ASSERT_EQ(order.Size(), 2u);
        EXPECT_EQ(Entry(order, 0).GetData("callback").Text() + Entry(order, 1).GetData("callback").Text(),
                  "/2/1");
    }
    const PListDict& event = Entry(again.GetArray("event_list"), 0);
    EXPECT_EQ(Text(event.GetDict("event_data")), R"({"x":[1]})");
    const PListArray& listeners = event.GetArray("listener_list");
    EXPECT_FALSE(Entry(listeners, 0).HasItem("listener_data"));
    EXPECT_EQ(Text(Entry(listeners, 1).GetDict("listener_data")), R"({"y":2})");
    EXPECT_EQ(again.GetArray("timer_list").Size(), 2u);
    EXPECT_EQ(again.GetArray("watch_list").Size(), 1u);
    EXPECT_TRUE(again.GetArray("watch_list") == state.GetArray("watch_list"));
    EXPECT_FALSE(again.HasItem("mine"));
}

// A timer or a watch never waits for an event that comes later in the same document.
TEST_F(RegistryTest, ADocumentsEventsAreAppliedBeforeWhatNamesThem) {
    struct Ordered : EventQueue {
        Ordered() : EventQueue(500) {}
        void SetEventState(const PListDict&) override { order += "events "; }
        void SetTimerState(const PListDict&) override { order += "timers "; }
        void SetWatchState(const PListDict&) override { order += "watches "; }
        std::string order;
    } ordered;
    static_cast<IEventQueue&>(ordered).SetQueueState(PListDict());
    EXPECT_EQ(ordered.order, "events timers watches ");
}

TEST_F(RegistryTest, TheEndPointFollowsTheConfiguration) {
    const struct {
        const char* config;
        const char* end_point;
    } cases[] = {{"{}", "http://localhost:80"},
                 {R"({"TLSIdentity":"x.pem"})", "https://localhost:443"},
                 {R"({"ListenPort":8080,"TLSIdentity":""})", "http://localhost:8080"},
                 {R"({"ListenPort":8443,"TLSIdentity":"x.pem"})", "https://localhost:8443"}};
    for (const auto& test : cases) {
        EventQueue configured(500);
        EXPECT_TRUE(configured.InitEventQueue(PListDict(), Dict(test.config)).Success());
        const URL& url = Probe::EndPoint(configured);
        EXPECT_EQ(url.Scheme + "://" + url.Hostname + ":" + std::to_string(url.Port), test.end_point);
        EXPECT_TRUE(url.Path.empty());
    }
}

// ---- state file

class StateFileTest : public QueueTest {
  protected:
    StateFileTest() { Probe::UseStateFile(queue, path); }
    // Whether `operation` saved (the file is no longer the old text) and what it saved is the whole current
    // document.
    bool Saves(const std::function<void()>& operation) {
        Testing::WriteFile(path, "old");
        operation();
        const std::string text = Testing::ReadFile(path);
        if (text == "old") return false;
        EXPECT_EQ(text, State());
        return true;
    }

    Testing::TemporaryFolder folder;
    const std::string path = folder / "state.json";
};

TEST_F(StateFileTest, EveryChangeIsSavedWholeAndARefusalIsNot) {
    UUID id;
    EXPECT_TRUE(Saves([&] { Event("e"); }));
    EXPECT_FALSE(Saves([&] { Event("e"); }));
    EXPECT_TRUE(Saves([&] { Listen("e", "/1"); }));
    EXPECT_FALSE(Saves([&] { Listen("e", "/1"); }));
    EXPECT_TRUE(Saves([&] { queue.DeleteEventListener("e", last_id); }));
    EXPECT_FALSE(Saves([&] { queue.DeleteEventListener("e", last_id); }));
    EXPECT_TRUE(Saves([&] { queue.DeleteListenersForEvent("e"); }));
    EXPECT_TRUE(Saves([&] { queue.CreateTimer("e", Timestamp(), 60, nullptr, id); }));
    EXPECT_TRUE(Saves([&] { queue.DeleteTimer(id); }));
    EXPECT_FALSE(Saves([&] { queue.DeleteTimer(id); }));
    EXPECT_TRUE(Saves([&] { queue.DeleteAllTimers(); }));
    EXPECT_TRUE(Saves([&] { queue.CreateWatch("/tmp", "e", nullptr, false); }));
    EXPECT_FALSE(Saves([&] { queue.CreateWatch("/TMP", "e", nullptr, false); }));
    EXPECT_TRUE(Saves([&] { queue.DeleteWatch("/tmp"); }));
    EXPECT_FALSE(Saves([&] { queue.DeleteWatch("/none"); }));
    EXPECT_TRUE(Saves([&] { queue.DeleteAllWatches(); }));
    EXPECT_TRUE(Saves([&] { queue.DeleteEvent("e"); }));
    EXPECT_FALSE(Saves([&] { queue.DeleteEvent("e"); }));
    EXPECT_TRUE(Saves([&] { queue.DeleteAllEvents(); }));
    EXPECT_FALSE(Saves([&] {
        queue.SetMaxListeners(5);
        queue.SetMaxWatches(5);
        Event("e");
        Testing::WriteFile(path, "old");
        Post("e");
        Probe::FireTimers(queue);
    }));
    EXPECT_FALSE(std::filesystem::exists(path + ".temp"));
}

TEST_F(StateFileTest, AFailedSaveIsLoggedAndLeavesTheFile) {
    Event("e");
    const std::string before = Testing::ReadFile(path);
    chmod(folder.Path().c_str(), 0555);
    const int user = setfsuid(65534);  // this thread's files are no longer root's, who may write anywhere
    EXPECT_EQ(Event("f"), STATUS_201_CREATED);
    EXPECT_EQ(Probe::Save(queue).Value(), Mirel::RESULT_FILEOPEN.Value());
    setfsuid(static_cast<uid_t>(user));
    chmod(folder.Path().c_str(), 0755);
    EXPECT_EQ(log.Errors(), std::vector<std::string>(2, "Unable to write queue state to \"" + path +
                                                            ".temp\": " + strerror(EACCES) + "\n"));
    EXPECT_EQ(Testing::ReadFile(path), before);

    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    Testing::WriteFile(path + "/occupied", "");
    log.Clear();
    Event("g");
    ASSERT_EQ(log.Errors().size(), 1u);
    EXPECT_EQ(log.Errors()[0].find(path + ": "), 0u) << log.Errors()[0];
    EXPECT_EQ(Testing::ReadFile(path + ".temp"), State());
}

TEST_F(StateFileTest, IsOnTheDiskWhenItIsAnswered) {
    Event("e");
    const std::string before = Testing::ReadFile(path);
    // The text under its other name while the file is as it was; then the folder, in which it has the name.
    const Testing::CountedSyncs syncs([&] { return Testing::ReadFile(path) == before ? 'o' : 'n'; });
    Event("f");
    EXPECT_EQ(syncs.Seen, "fodn");
}

TEST_F(StateFileTest, KeepsWhatAnOperatorGaveIt) {
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    chmod(path.c_str(), 0644);
    Event("e");
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);

    std::filesystem::create_directory(folder / "target");
    std::filesystem::create_symlink("target/state", folder / "link");
    EventQueue linked(500);
    Probe::UseStateFile(linked, folder / "link");
    linked.CreateEvent("e", nullptr);
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "link"));
    EXPECT_NE(Testing::ReadFile(folder / "target/state").find("\"e\""), std::string::npos);

    Testing::WriteFile(folder / "precious", "text");
    std::filesystem::create_symlink("precious", path + ".temp");
    EXPECT_TRUE(Saves([&] { Event("f"); }));
    EXPECT_EQ(Testing::ReadFile(folder / "precious"), "text");
}

TEST_F(StateFileTest, AFailedSaveIsRepeatedUntilItSucceedsAndLoggedOnce) {
    std::filesystem::remove(path);
    std::filesystem::create_directories(path + "/occupied");
    Event("e");
    for (int i = 0; i < 3; ++i) Probe::RepeatFailedSave(queue);
    EXPECT_EQ(log.Errors().size(), 1u);
    EXPECT_TRUE(Probe::Statistics(queue).LastSaveFailed);
    Probe::RepeatFailedSave(queue);
    std::filesystem::remove(path + ".temp");
    std::filesystem::create_directory(path + ".temp");
    for (int i = 0; i < 3; ++i) Probe::RepeatFailedSave(queue);
    EXPECT_EQ(log.Errors().size(), 2u);  // for another reason
    std::filesystem::remove(path + ".temp");
    std::filesystem::remove_all(path);
    Probe::RepeatFailedSave(queue);
    EXPECT_FALSE(Probe::Statistics(queue).LastSaveFailed);
    EXPECT_EQ(Testing::ReadFile(path), State());
    EXPECT_TRUE(log.Has("saved again"));
    EXPECT_FALSE(Saves([&] { Probe::RepeatFailedSave(queue); }));
}

// Wherever memory ends: what was there stays, the change is made whole or not at all, and what the file holds
// is what the queue holds as soon as there is memory again.
TEST_F(StateFileTest, WithoutMemoryAChangeIsMadeWholeOrNotAtAllAndIsNotLost) {
    const PListDict data = Dict(R"({"a key that is not short":"a text that is as long"})");
    PListDict event_data = data;
    const std::string name = "an event with a long name";
    UUID id;
    using Change = std::function<void()>;
    const std::pair<Change, Change> changes[] = {
        {[&] { queue.CreateEvent(name, &event_data); }, [&] { queue.DeleteEvent(name); }},
        {[&] { queue.CreateEventListener(name, "http://a.host/with/a/path", &data, id); },
         [&] { queue.DeleteEventListener(name, id); }},
        {[&] { queue.CreateTimer(name, Timestamp(), 60, &data, id); }, [&] { queue.DeleteTimer(id); }},
        {[&] { queue.CreateWatch("/a/path/that/is/long", name, &data, false); },
         [&] { queue.DeleteAllWatches(); }},
    };
    const auto shape = [&] {  // without the ids, which are new each time
        const std::string begin = "\"id\":\"";
        std::string text = State();
        for (std::size_t at = text.find(begin); at != text.npos; at = text.find(begin, at + 1))
            text.erase(at + begin.size(), Mirel::UUIDLen);
        return text;
    };
    const auto try_everywhere = [&](const Change& change, const Change& undo, bool may_throw) {
        const std::string before = shape();
        change();
        const std::string whole = shape();
        undo();
        bool refused = true;
        for (int allocations = 0; refused; ++allocations) {
            SCOPED_TRACE(allocations);
            {
                const Testing::NoMemory none(allocations);
                try {
                    change();
                } catch (const std::bad_alloc&) {
                    EXPECT_TRUE(may_throw);
                }
                refused = none.Refused();
            }
            const bool changed = shape() != before;
            EXPECT_TRUE(!changed || shape() == whole) << shape();
            Probe::RepeatFailedSave(queue);
            ASSERT_EQ(Testing::ReadFile(path), State());
            ASSERT_FALSE(Probe::Statistics(queue).LastSaveFailed);
            if (changed) undo();
        }
    };
    for (const auto& [change, undo] : changes) {
        try_everywhere(change, undo, true);
        change();
        try_everywhere(undo, change, false);
    }
}

TEST_F(StateFileTest, ManyThreadsNeverLeaveAnOlderDocument) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i) Event(std::to_string(t) + "/" + std::to_string(i));
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(Testing::ReadFile(path), State());
    EXPECT_EQ(EventState().GetArray("event_list").Size(), 160u);
}

// ---- history

class HistoryTest : public QueueTest {
  protected:
    void Append(const char* timestamp) {
        PListDict record;
        record.SetValue("event_name", "e");
        record.SetValue("timestamp", timestamp);
        Probe::AppendHistory(queue, record);
    }
    std::size_t Trimmed() {
        Probe::TrimHistory(queue);
        return History().Size();
    }
};

TEST_F(HistoryTest, RecordsGoAtThirtySeconds) {
    EXPECT_EQ(Trimmed(), 0u);
    Event("e");
    Post("e");
    Post("e", "{}");
    clock.Step(29);
    Post("e", R"({"x":1})");
    EXPECT_EQ(Trimmed(), 3u);
    clock.Step(1);
    EXPECT_EQ(Trimmed(), 1u);
    const PListArray history = History();
    EXPECT_EQ(
        Text(Entry(history, 0)),
        R"({"event_name":"e","timestamp":"2026-03-01T12:00:29+00:00","post_data":{"x":1},"event_data":{}})");
    clock.Step(29.5);  // the record's text says 12:00:29, the horizon is 12:00:29.5
    EXPECT_EQ(Trimmed(), 0u);
}

TEST_F(HistoryTest, WhatDoesNotDecodeGoesOnceItIsFirstAndAnOlderRecordWaitsBehindAYoungerOne) {
    Append("no time");
    Append("2026-03-01T12:00:00+00:00");
    Append("no time");
    EXPECT_EQ(Trimmed(), 2u);
    Append("2026-03-01T11:00:00+00:00");  // the clock stepped back
    EXPECT_EQ(Trimmed(), 3u);
    clock.Step(30);
    EXPECT_EQ(Trimmed(), 0u);
    PListDict record;
    record.SetValue("timestamp", "2026-03-01T12:00:00+00:00");
    Probe::PutIntoHistory(queue, record);  // past the index
    Append("2026-03-01T12:00:29+00:00");
    EXPECT_EQ(Trimmed(), 1u);
    Probe::DateFirstRecord(queue, "2026-03-01T12:00:00+00:00");
    EXPECT_EQ(Trimmed(), 0u);
}

TEST_F(HistoryTest, ReadingIsIndependentOfWhatFollows) {
    Event("e");
    Post("e");
    PListDict mine = Dict(R"({"kept":1})");
    queue.GetEventHistory(mine);
    dynamic_cast<PListArray*>(mine.GetItem("history"))->Clear();
    PListDict data = Dict(R"({"x":1})");
    queue.PostEvent("e", &data);
    data.SetValue("x", 2);
    EXPECT_EQ(mine.Size(), 2u);
    ASSERT_EQ(History().Size(), 2u);
    EXPECT_EQ(Entry(History(), 1).GetDict("post_data").GetData("x").Text(), "1");
    EXPECT_FALSE(Post("unknown"));
    EXPECT_EQ(History().Size(), 2u);
}

TEST_F(HistoryTest, PostingReadingAndTrimmingFromManyThreadsLosesNothing) {
    Event("e");
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done) {
            History();
            Probe::Reap(queue);
        }
    });
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&] {
            for (int i = 0; i < 500; ++i) Post("e", R"({"x":1})");
        });
    }
    for (std::thread& poster : posters) poster.join();
    done = true;
    reader.join();
    EXPECT_EQ(History().Size(), 2000u);
}

}  // namespace EventManager
