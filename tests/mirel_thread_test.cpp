// Threads' hooks and their order, names, stopping and joining.
#include "MR_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Testing.h"

using namespace Mirel;
using Testing::Eventually;

namespace {

// Its hooks answer what they are told to and leave their first letters in the trace.
class Worker : public Thread {
  public:
    using Hook = std::function<Result_t()>;

    explicit Worker(Hook body = [] { return RESULT_OK; }) : Body(std::move(body)) {}
    ~Worker() override { WaitUntilFinished(); }

    Hook Init = [] { return RESULT_OK; };
    Hook Body;
    Hook Asked = [] { return RESULT_OK; };
    std::string Trace;  // of the thread, once it has finished
    std::atomic<int> Stops{0};

  private:
    Result_t ThreadInit() override { return Trace += 'I', Init(); }
    Result_t ThreadBody() override { return Trace += 'B', Body(); }
    Result_t ThreadFini(Result_t result) override { return Trace += 'F', result; }
    Result_t ThreadStop() override { return ++Stops, Asked(); }
};

i64_t AddressSpacePages() {
    i64_t pages = -1;
    std::ifstream("/proc/self/statm") >> pages;
    return pages;
}

}  // namespace

TEST(Thread, RunsItsHooksInOrderAndKeepsTheOutcome) {
    const Testing::CapturedLog log;
    const Worker::Hook good = [] { return RESULT_OK; };
    const Worker::Hook bad = [] { return RESULT_NETWORK; };
    const Worker::Hook throws = []() -> Result_t { throw std::runtime_error("the\nreason"); };
    const Worker::Hook throws_oddly = []() -> Result_t { throw 42; };
    const struct {
        Worker::Hook init, body;
        const char* trace;
        Result_t result;
    } cases[] = {{good, good, "IBF", RESULT_OK},
                 {good, bad, "IBF", RESULT_NETWORK},
                 {bad, good, "IF", RESULT_NETWORK},
                 {throws, good, "IF", RESULT_FAIL},
                 {good, throws_oddly, "IBF", RESULT_FAIL}};
    for (const auto& one : cases) {
        Worker worker(one.body);
        worker.Init = one.init;
        EXPECT_FALSE(worker.IsFinished());
        ASSERT_TRUE(worker.Start("worker").Success());
        ASSERT_TRUE(Eventually([&] { return worker.IsFinished(); }));
        EXPECT_EQ(worker.Trace, one.trace);
        EXPECT_EQ(worker.Result(), one.result);
        EXPECT_EQ(worker.Start("again"), RESULT_STATE);
    }
    EXPECT_EQ(log.Errors().size(), 2u);
    EXPECT_TRUE(log.Has("the\nreason"));
}

TEST(Thread, AnswersTheSystemsReasonWhenThereIsNoThread) {
    Worker worker;
    worker.StackSize(std::size_t{1} << 60);
    const Result_t result = worker.Start("none");
    EXPECT_EQ(result, RESULT_THREAD);
    EXPECT_NE(std::string(result.Message()).find(strerror(EAGAIN)), std::string::npos) << result.Message();
    ASSERT_TRUE(worker.IsFinished());
    EXPECT_STREQ(worker.Result().Message(), result.Message());
    EXPECT_EQ(worker.Start("none"), RESULT_STATE);
    EXPECT_EQ(worker.Stop(10000, true), RESULT_OK);
}

TEST(Thread, StopAsksAndWaitsNoLongerThanItsLimit) {
    std::promise<void> released;
    Worker worker([&] { return released.get_future().wait(), RESULT_OK; });
    EXPECT_EQ(worker.Stop(10000, true), RESULT_OK);  // not started: nothing to wait for
    EXPECT_EQ(worker.Stops, 1);
    ASSERT_TRUE(worker.Start("gate").Success());
    EXPECT_EQ(worker.Stop(0, false), RESULT_OK);
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(worker.Stop(20, true), RESULT_TIMEOUT);
    const auto waited = std::chrono::steady_clock::now() - began;
    EXPECT_GE(waited, std::chrono::milliseconds(20));
    EXPECT_LT(waited, std::chrono::seconds(2));
    EXPECT_FALSE(worker.IsFinished());

    worker.Asked = [&] { return released.set_value(), RESULT_NETWORK; };
    EXPECT_EQ(worker.Stop(10000, true), RESULT_NETWORK);
    worker.Asked = [] { return RESULT_STATE; };
    EXPECT_EQ(worker.Stop(10000, true), RESULT_STATE);  // asked, though its run is over
    EXPECT_EQ(worker.Stops, 5);

    Worker self;
    self.Body = [&] { return self.Stop(10000, true); };
    ASSERT_TRUE(self.Start("self").Success());
    EXPECT_TRUE(Eventually([&] { return self.IsFinished(); }));
    EXPECT_EQ(self.Result(), RESULT_STATE);
}

TEST(Thread, BearsItsNameAsFarAsTheKernelTakesIt) {
    std::string current, kernel(16, '\0');
    Worker worker([&] {
        current = Thread::CurrentName();
        pthread_getname_np(pthread_self(), kernel.data(), kernel.size());
        return RESULT_OK;
    });
    ASSERT_TRUE(worker.Start("fourteen bytes\xC3\xA4").Success());
    ASSERT_TRUE(Eventually([&] { return worker.IsFinished(); }));
    EXPECT_EQ(worker.Name(), "fourteen bytes\xC3\xA4");
    EXPECT_EQ(current, worker.Name());
    EXPECT_STREQ(kernel.c_str(), "fourteen bytes");
}

TEST(Thread, MayBeDeletedTheMomentItIsFinished) {
    const auto churn = [] {
        for (int i = 0; i < 500; ++i) {
            auto worker = std::make_unique<Worker>();
            worker->StackSize(1);  // raised to what the system takes
            ASSERT_TRUE(worker->Start("short-lived").Success());
            while (i % 2 == 0 && !worker->IsFinished()) std::this_thread::yield();
        }
    };
    std::vector<std::thread> creators;
    for (int i = 0; i < 4; ++i) creators.emplace_back(churn);
    for (std::thread& creator : creators) creator.join();
}

TEST(Thread, GivesItsStackBackBeforeAnybodyAsksForTheOutcome) {
    const i64_t before = AddressSpacePages();
    ASSERT_GT(before, 0);
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 64; ++i) {
        workers.push_back(std::make_unique<Worker>());
        workers.back()->StackSize(64u << 20);
        ASSERT_TRUE(workers.back()->Start("stack").Success());
    }
    EXPECT_TRUE(Eventually([&] { return AddressSpacePages() < before + (1 << 18); }));
}
