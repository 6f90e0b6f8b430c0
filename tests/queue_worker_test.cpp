// The worker's loop as a whole, on its own thread.
#include "support/QueueProbe.h"

#include <sys/resource.h>

#include "NoMemory.h"

namespace EventManager {

class WorkerTest : public QueueTest {
  protected:
    ~WorkerTest() override { Stop(); }
    void Stop() { EXPECT_TRUE(Probe::Stop(queue).Success()); }
    // What the worker does is done within a pass.
    static bool WithinAPass(const std::function<bool()>& condition) {
        return Testing::Eventually(condition, Pass.count());
    }

    static constexpr std::chrono::duration<int, std::milli> Pass{500};

    Testing::TemporaryFolder folder;
};

TEST_F(WorkerTest, FiresTimersAndWatchesAndTrimsUntilItIsStopped) {
    Event("timer");
    Event("watch");
    UUID id;
    queue.CreateTimer("timer", Timestamp(), 0, nullptr, id);
    queue.CreateWatch(folder.Path(), "watch", nullptr, false);
    const auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(queue.Start("EventQueue::Main").Success());
    EXPECT_EQ(queue.Name(), "EventQueue::Main");
    EXPECT_TRUE(WithinAPass([&] { return log.Has("watch.handle=") && Posted() == "timer"; }));
    EXPECT_TRUE(Testing::Inherited("inotify").empty());
    Testing::WriteFile(folder / "x", "");
    EXPECT_TRUE(WithinAPass([&] { return Posted() == "timer watch"; })) << Posted();
    clock.Step(31);
    EXPECT_TRUE(WithinAPass([&] { return History().Empty(); }));
    EXPECT_TRUE(Testing::Eventually([&] {  // by which a process knows that its worker is well
        const QueueStatistics now = Probe::Statistics(queue);
        return now.WorkerRunning && now.Passes > 1 && now.SinceLastPass_ms < 250;
    }));

    Stop();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
    EXPECT_LE(Probe::Statistics(queue).Passes,
              2 + took / Pass);  // it has waited in all but the one that saw the change
    EXPECT_TRUE(queue.IsFinished());
    EXPECT_EQ(queue.Result().Value(), 0);
    EXPECT_TRUE(Testing::OpenDescriptors("inotify").empty());
    queue.CreateTimer("timer", Timestamp(), 0, nullptr, id);
    EXPECT_TRUE(Post("watch"));
    EXPECT_EQ(Posted(), "watch");
    EXPECT_TRUE(queue.Start("EventQueue::Main").Failure());
}

TEST_F(WorkerTest, StoppedBeforeItStartsItMakesNoPass) {
    Event("e");
    UUID id;
    queue.CreateTimer("e", Timestamp(), 0, nullptr, id);
    Stop();
    ASSERT_TRUE(queue.Start("EventQueue::Main").Success());
    EXPECT_TRUE(Testing::Eventually([&] { return queue.IsFinished(); }));
    EXPECT_EQ(queue.Result().Value(), 0);
    EXPECT_EQ(Posted(), "");
}

TEST_F(WorkerTest, WithoutAKernelStreamItEndsAndTheRegistryAnswersOn) {
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = before;
    none.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &none);
    const Result_t started = queue.Start("EventQueue::Main");
    const bool finished = Testing::Eventually([&] { return queue.IsFinished(); });
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(started.Success() && finished);
    EXPECT_EQ(queue.Result().Value(), Mirel::RESULT_FILEOPEN.Value());
    EXPECT_EQ(log.Errors(),
              (std::vector<std::string>{std::string("Kernel queue: ") + strerror(EMFILE) + ".\n"}));
    EXPECT_EQ(Event("e"), Velmora::STATUS_201_CREATED);
}

TEST_F(WorkerTest, ASaveThatFailedIsRepeatedWithoutAnotherChange) {
    const std::string path = folder / "state.json";
    std::filesystem::create_directories(path + "/occupied");
    Probe::UseStateFile(queue, path);
    ASSERT_TRUE(queue.Start("EventQueue::Main").Success());
    Event("e");
    EXPECT_TRUE(
        Testing::Eventually([&] { return Probe::Statistics(queue).FailedSaves > 2; }));  // tried again
    std::filesystem::remove_all(path);
    EXPECT_TRUE(Testing::Eventually([&] { return Testing::ReadFile(path) == State(); }, 1500));
}

TEST_F(WorkerTest, APassInWhichMemoryEndsIsMadeUpFor) {
    const std::string name(5000, 'e');
    Event(name);
    UUID id;
    queue.CreateTimer(name, Timestamp(), 0, nullptr, id);
    std::thread worker([&] {
        const Testing::NoMemory none(0, name.size());
        EXPECT_TRUE(Probe::Work(queue).Success());
    });
    EXPECT_TRUE(Testing::Eventually([&] { return Posted() == name; }, 1100));
    Stop();
    worker.join();
    EXPECT_EQ(log.Errors(), std::vector<std::string>{"Out of memory in a pass of the worker.\n"});
}

TEST_F(WorkerTest, ManyThreadsChangeWhatTheWorkerFires) {
    Event("e");
    ASSERT_TRUE(queue.Start("EventQueue::Main").Success());
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            const std::string path = folder / std::to_string(t);
            for (int i = 0; i < 50; ++i) {
                UUID timer;
                queue.CreateTimer("e", Timestamp(), i % 2, nullptr, timer);
                queue.CreateWatch(path, "e", nullptr, false);
                Testing::WriteFile(path, std::to_string(i));
                queue.DeleteTimer(timer);
                queue.DeleteWatch(path);
                State();
                Post("e");
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(Testing::Eventually([&] { return Watches().Empty(); }));
    Stop();
    EXPECT_GE(History().Size(), 400u);
}

}  // namespace EventManager
