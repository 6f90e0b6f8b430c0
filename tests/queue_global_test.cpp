// The process-wide functions: each test is a process of its own, for a process has one queue for good.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <random>

#include "EventManager.h"
#include "support/Testing.h"

namespace EventManager {

using Velmora::PListItem;

static PListDict Dict(const std::string& json) {
    const auto item = PListItem::CreateFromJSON(json);
    const auto* read = dynamic_cast<const PListDict*>(item.get());
    return read ? *read : PListDict();
}

// Runs `body` in a child process; its failures are the test's.
static void InProcess(const std::function<void()>& body) {
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        body();
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

static std::string StateText() {
    PListDict state;
    GlobalEventQueue().GetQueueState(state);
    std::string text;
    EXPECT_TRUE(state.EncodeJSON(text).Success());
    return text;
}

TEST(GlobalQueue, AnswersNothingBeforeItIsThere) {
    InProcess([] {
        EXPECT_TRUE(StopEventQueue().Success());
        EXPECT_TRUE(SaveEventQueue().Success());
        EXPECT_FALSE(GetQueueStatistics().Installed);
        IEventQueue& queue = GlobalEventQueue();
        UUID id;
        EXPECT_EQ(queue.CreateEvent("e", nullptr), Velmora::STATUS_503_NO_SERVICE);
        EXPECT_EQ(queue.CreateEventListener("e", "/", nullptr, id), Velmora::STATUS_503_NO_SERVICE);
        EXPECT_FALSE(queue.CreateTimer("e", Timestamp(), 1, nullptr, id) || queue.PostEvent("e", nullptr));
        EXPECT_FALSE(queue.CreateWatch("/", "e", nullptr, false) || queue.DeleteEvent("e"));
        EXPECT_FALSE(id.HasValue());
        queue.SetMaxListeners(7);
        EXPECT_EQ(queue.GetMaxListeners() + queue.GetMaxWatches(), 0);
        EXPECT_EQ(StateText(), "{}");
    });
}

TEST(GlobalQueue, IsOneHoweverManyStartItAndStaysWhenStopped) {
    InProcess([] {
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([] {
                EXPECT_TRUE(InitEventQueue(Dict(R"({"EventManager":{"timer_list":[
                    {"event_name":"e","interval_sec":"60"}]}})"))
                                .Success());
            });
        }
        for (std::thread& thread : threads) thread.join();
        IEventQueue& queue = GlobalEventQueue();
        PListDict state;
        queue.GetTimerState(state);
        EXPECT_EQ(state.GetArray("timer_list").Size(), 1u);
        EXPECT_TRUE(Testing::Eventually([] { return GetQueueStatistics().Passes > 0; }));
        int workers = 0;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
            workers += Testing::ReadFile(task.path() / "comm").starts_with("EventQueue::Mai");
        EXPECT_EQ(workers, 1);

        EXPECT_TRUE(StopEventQueue().Success());
        EXPECT_FALSE(GetQueueStatistics().WorkerRunning);
        EXPECT_TRUE(InitEventQueue(Dict(R"({"EventManager":{"timer_list":[]}})")).Success());
        EXPECT_EQ(&GlobalEventQueue(), &queue);
        EXPECT_EQ(queue.CreateEvent("e", nullptr), Velmora::STATUS_201_CREATED);
    });
}

TEST(GlobalQueue, RestoresBeforeItSavesAndSavesWhatHasEndedAway) {
    Testing::TemporaryFolder folder;
    const std::string path = folder / "state.json";
    const std::string watched = folder / "watched";
    std::filesystem::create_directory(watched);
    InProcess([&] {
        PListDict config =
            Dict(R"({"MaxWatches":7,"EventManager":{"event_list":[{"event_name":"a"},{"event_name":"b"}],
            "timer_list":[{"event_name":"a","interval_sec":"-1"}],
            "watch_list":[{"path":")" +
                 watched + R"(","event_name":"a"}]}})");
        config.SetValue("StateFile", path);
        EXPECT_TRUE(InitEventQueue(config).Success());
        EXPECT_EQ(GetQueueStatistics().Saves, 1u);
        EXPECT_TRUE(Testing::Eventually([] { return GetQueueStatistics().Postings == 1; }));
        EXPECT_TRUE(StopEventQueue().Success());
        GlobalEventQueue().DeleteWatch(watched);
        EXPECT_NE(Testing::ReadFile(path).find(watched), std::string::npos);
        EXPECT_TRUE(SaveEventQueue().Success());
        EXPECT_EQ(Testing::ReadFile(path), R"({"max_listeners":1024,"max_watches":7,"event_list":[)"
                                           R"({"event_name":"a","listener_list":[]},)"
                                           R"({"event_name":"b","listener_list":[]}],)"
                                           R"("timer_list":[],"watch_list":[]})");
    });
}

TEST(GlobalQueue, WhoRunsItMayRefuseWhatWasRestoredBeforeAnythingIsSavedOrFired) {
    Testing::TemporaryFolder folder;
    const std::string path = folder / "state.json";
    InProcess([&] {
        Testing::WriteFile(path, "from before");
        PListDict config = Dict(R"({"EventManager":{"event_list":[{"event_name":"e"}],
            "timer_list":[{"event_name":"e","interval_sec":"-1"}]}})");
        config.SetValue("StateFile", path);
        const Result_t answer = RestoreEventQueue(config, [] {
            EXPECT_NE(StateText().find("\"e\""), std::string::npos);
            return Mirel::RESULT_STATE;
        });
        EXPECT_TRUE(answer == Mirel::RESULT_STATE);
        GlobalEventQueue().CreateEvent("f", nullptr);
        EXPECT_EQ(Testing::ReadFile(path), "from before");
        EXPECT_NE(StateText().find("-1"), std::string::npos);
        EXPECT_FALSE(GetQueueStatistics().WorkerRunning);
    });
}

TEST(GlobalQueue, CountsWhatTimersAndWatchesPostAndKeepsLateTimersWhereAsked) {
    Testing::TemporaryFolder folder;
    for (const char* timers : {"{}", R"({"KeepRepeating":true})"}) {
        InProcess([&] {
            Testing::SteppedClock clock;
            EXPECT_TRUE(
                InitEventQueue(Dict(R"({"EventManager":{"event_list":[{"event_name":"e"}],"timer_list":[
                {"event_name":"e","interval_sec":"-1"},{"event_name":"e","interval_sec":"3600"}]},"Timers":)" +
                                    std::string(timers) + "}"))
                    .Success());
            EXPECT_TRUE(Testing::Eventually([] { return GetQueueStatistics().TimerPostings == 1; }));
            GlobalEventQueue().CreateWatch(folder.Path(), "e", nullptr, false);
            int files = 0;
            EXPECT_TRUE(Testing::Eventually([&] {
                Testing::WriteFile(folder / std::to_string(files++), "");
                return GetQueueStatistics().WatchPostings > 0;
            }));
            EXPECT_EQ(GetQueueStatistics().TimerPostings, 1u);
            EXPECT_EQ(GetQueueStatistics().ExpiredTimers, 0u);
            clock.Step(3700);
            EXPECT_TRUE(Testing::Eventually([] { return GetQueueStatistics().ExpiredTimers == 1; }));
            EXPECT_TRUE(StopEventQueue().Success());
            const bool kept = std::string(timers).find("true") != std::string::npos;
            EXPECT_EQ(StateText().find("3600") != std::string::npos, kept) << timers;
        });
    }
}

TEST(GlobalQueue, ADocumentThatIsAppliedIsSavedOnceAndWhatOthersChangeMeanwhileAsEver) {
    Testing::TemporaryFolder folder;
    const std::string path = folder / "state.json";
    InProcess([&] {
        const PListDict document =
            Dict(R"({"event_list":[{"event_name":"a","listener_list":[{"callback":"/1"}]},
            {"event_name":"b"}],"timer_list":[{"event_name":"a","interval_sec":60}],
            "watch_list":[{"path":"/","event_name":"a"}]})");
        ApplyQueueState(document);  // nothing to apply it to
        PListDict config;
        config.SetValue("StateFile", path);
        EXPECT_TRUE(InitEventQueue(config).Success());
        ApplyQueueState(document);
        EXPECT_EQ(GetQueueStatistics().Saves, 2u);
        EXPECT_EQ(Testing::ReadFile(path), StateText());
        ApplyQueueState(Dict(R"({"event_list":[{"event_name":"a"}]})"));
        EXPECT_EQ(GetQueueStatistics().Saves, 2u);  // nothing has changed
        GlobalEventQueue().CreateEvent("c", nullptr);
        EXPECT_EQ(GetQueueStatistics().Saves, 3u);

        PListArray many;
        for (int i = 0; i < 20000; ++i) many.Append(Dict(R"({"event_name":"m)" + std::to_string(i) + "\"}"));
        PListDict large;
        large.SetItem("event_list", many);
        std::thread applying([&] { ApplyQueueState(large); });
        EXPECT_TRUE(Testing::Eventually([] { return GetQueueStatistics().Events > 3; }));
        GlobalEventQueue().CreateEvent("meanwhile", nullptr);
        EXPECT_NE(Testing::ReadFile(path).find("\"meanwhile\""), std::string::npos);
        applying.join();
        EXPECT_EQ(GetQueueStatistics().Saves, 5u);
        EXPECT_EQ(Testing::ReadFile(path), StateText());

        std::filesystem::remove(path);
        std::filesystem::create_directories(path + "/occupied");
        ApplyQueueState(Dict(R"({"event_list":[{"event_name":"d"},{"event_name":"f"}]})"));
        EXPECT_TRUE(GetQueueStatistics().LastSaveFailed);
        std::filesystem::remove_all(path);
    });
}

// One answered operation of the process that is going to be killed.
struct Answer {
    int thread;
    int event;
};

// Each thread creates its events 0, 1, 2 … and deletes the one before each; what was answered goes into the
// pipe.
[[noreturn]] static void ChangeUntilKilled(const std::string& path, int answers) {
    PListDict config = Dict(Testing::ReadFile(path));
    PListDict whole;
    whole.SetItem("EventManager", config);
    whole.SetValue("StateFile", path);
    if (InitEventQueue(whole).Failure()) _exit(1);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([=] {
            for (Answer answer{t, 0};; ++answer.event) {
                const std::string prefix = std::to_string(getpid()) + "/" + std::to_string(t) + "/";
                GlobalEventQueue().CreateEvent(prefix + std::to_string(answer.event), nullptr);
                if (write(answers, &answer, sizeof(answer)) != sizeof(answer)) _exit(1);
                GlobalEventQueue().DeleteEvent(prefix + std::to_string(answer.event - 1));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    _exit(1);
}

// The youngest event of each thread of process `child` in a saved document; -1 without one.
static std::vector<int> SavedEvents(const std::string& text, pid_t child) {
    Result_t why;
    const auto item = PListItem::CreateFromJSON(text, &why);
    const auto* state = dynamic_cast<const PListDict*>(item.get());
    std::vector<int> youngest(8, -1);
    if (!state) {
        ADD_FAILURE() << why.Message() << ": " << text;
        return youngest;
    }
    for (const PListItem& entry : state->GetArray("event_list")) {
        const std::string name = dynamic_cast<const PListDict&>(entry).GetData("event_name").Text();
        int pid = 0, thread = 0, event = 0;
        if (sscanf(name.c_str(), "%d/%d/%d", &pid, &thread, &event) != 3 || pid != child) continue;
        youngest[static_cast<std::size_t>(thread)] =
            std::max(youngest[static_cast<std::size_t>(thread)], event);
    }
    return youngest;
}

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int KillRounds = 20;  // each start takes long with a sanitizer
#else
constexpr int KillRounds = 60;
#endif

TEST(GlobalQueue, KilledAtAnyInstantLeavesAWholeDocumentNoOlderThanWhatWasAnswered) {
    Testing::TemporaryFolder folder;
    const std::string path = folder / "state.json";
    std::mt19937 random(20260301);
    for (int round = 0; round < KillRounds && !HasFailure(); ++round) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        ASSERT_NE(child, -1);
        if (child == 0) ChangeUntilKilled(path, ends[1]);
        close(ends[1]);

        std::vector<int> answered(8, -1);
        Answer answer{};
        ASSERT_EQ(read(ends[0], &answer, sizeof(answer)), static_cast<ssize_t>(sizeof(answer)));
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
        kill(child, SIGKILL);
        do {
            answered[static_cast<std::size_t>(answer.thread)] = answer.event;
        } while (read(ends[0], &answer, sizeof(answer)) == static_cast<ssize_t>(sizeof(answer)));
        close(ends[0]);
        waitpid(child, nullptr, 0);

        const std::vector<int> saved = SavedEvents(Testing::ReadFile(path), child);
        for (std::size_t t = 0; t < 8; ++t) EXPECT_GE(saved[t], answered[t]) << "thread " << t;
        std::filesystem::remove(path);
    }
}

}  // namespace EventManager
