// Timers: the registry, its section of the state document, and the timer phase under a stepped clock.
// With the module's source inside, for the queue that keeps repeating timers is local to it.
#include "EventManager.cpp"

#include "support/QueueProbe.h"

namespace EventManager {

class TimerTest : public QueueTest {
  protected:
    TimerTest() { Event("e"); }

    // Creates a timer that is to start `start` seconds from now.
    UUID Create(double start, i64_t interval, const std::string& event = "e", const char* data = nullptr) {
        const PListDict dict = data ? Dict(data) : PListDict();
        const auto at = Timestamp::FromMicroseconds(clock.Now_us() + static_cast<i64_t>(start * 1e6));
        UUID id;
        EXPECT_TRUE(queue.CreateTimer(event, at, interval, data ? &dict : nullptr, id));
        return id;
    }
    // How many postings a pass at `seconds` from now makes.
    std::size_t FiredAfter(double seconds) {
        clock.Step(seconds);
        const std::size_t before = History().Size();
        Probe::FireTimers(queue);
        return History().Size() - before;
    }
};

TEST_F(TimerTest, FiresWithinTenSecondsOfItsStartBothEndsIncluded) {
    Create(0, 0);
    EXPECT_EQ(FiredAfter(0), 1u);
    Create(-10, 0);
    EXPECT_EQ(FiredAfter(0), 1u);
    Create(5, 0);
    EXPECT_EQ(FiredAfter(4.999999), 0u);
    EXPECT_EQ(FiredAfter(0.000001), 1u);
    EXPECT_EQ(Timers().Size(), 0u);

    const UUID late = Create(-10.000001, 0);
    log.Clear();
    EXPECT_EQ(FiredAfter(0), 0u);
    EXPECT_EQ(Timers().Size(), 0u);
    ASSERT_EQ(log.At(Mirel::LOG_NOTICE).size(), 1u);
    EXPECT_EQ(log.At(Mirel::LOG_NOTICE)[0], "Deleted expired event " + Mirel::UUIDText(late) +
                                                " at start time 2026-03-01T11:59:54+00:00\n");
}

TEST_F(TimerTest, AnIntervalCountsFromCreationAndThenFromEachPass) {
    Create(86400, 60);
    EXPECT_EQ(FiredAfter(59.5), 0u);
    EXPECT_EQ(FiredAfter(1), 1u);  // half a second late
    EXPECT_EQ(FiredAfter(59.5), 0u);
    EXPECT_EQ(FiredAfter(0.5), 1u);
    EXPECT_EQ(FiredAfter(70.5), 0u);  // more than 10 seconds late: repeating timers go too
    EXPECT_EQ(Timers().Size(), 0u);
}

// Half a minute and an hour late, and a little: the times keep their rhythm. What does not repeat, and what
// its interval does not lead into the future (only its low bits are added), is dropped as ever.
TEST_F(TimerTest, AQueueThatKeepsRepeatingTimersSetsThemToTheirNextTime) {
    TimerKeepingQueue keeping(500);
    const auto create = [&](i64_t interval) {
        UUID id;
        keeping.CreateTimer("a \"b\"", Timestamp(), interval, nullptr, id);
        return id;
    };
    const auto left = [&] {
        PListDict state;
        keeping.GetTimerState(state);
        return state.GetArray("timer_list").Size();
    };
    const auto fire = [&](double seconds) {
        clock.Step(seconds);
        log.Clear();
        Probe::FireTimers(keeping);
        return log.At(Mirel::LOG_NOTICE);
    };
    const UUID timer = create(60);
    UUID once;
    keeping.CreateTimer("once", Timestamp(), 0, nullptr, once);
    for (const i64_t interval : {i64_t{-1}, i64_t{1} << 32, (i64_t{1} << 32) + 0x80000001}) create(interval);
    const std::vector<std::string> late = fire(3690.25);
    ASSERT_EQ(late.size(), 5u);
    EXPECT_EQ(late[0], "Timer " + Mirel::UUIDText(timer) +
                           " of event \"a \"b\"\" was not fired at 2026-03-01T12:01:00+00:00: set to "
                           "2026-03-01T13:02:00+00:00\n");
    EXPECT_EQ(late[1].rfind("Deleted expired event ", 0), 0u);
    EXPECT_EQ(left(), 1u);
    EXPECT_TRUE(fire(29.5).empty());
    EXPECT_TRUE(log.At(Mirel::LOG_DEBUG).empty());
    EXPECT_TRUE(fire(0.25).empty());  // on the minute
    EXPECT_EQ(log.At(Mirel::LOG_DEBUG).size(), 2u);
    EXPECT_TRUE(fire(60).empty());
    EXPECT_EQ(fire(3600).size(), 1u);
    EXPECT_EQ(left(), 1u);
}

TEST_F(TimerTest, AClockThatIsFarOffAndSetRightDelaysAndLosesNoMoreThanItMust) {
    Create(60, 0);
    clock.Set("1970-01-01T00:00:00+00:00");
    Create(0, 60);
    EXPECT_EQ(FiredAfter(60), 1u);
    const std::string state = State();
    queue.DeleteAllTimers();
    queue.SetQueueState(Dict(state));
    clock.Set("2026-03-01T12:01:00+00:00");
    EXPECT_EQ(FiredAfter(0), 1u);  // the first one; what began in 1970 is over
    EXPECT_EQ(Timers().Size(), 0u);
    Probe::TrimHistory(queue);
    EXPECT_EQ(History().Size(), 1u);
    clock.Set("2099-01-01T00:00:00+00:00");
    Probe::TrimHistory(queue);
    EXPECT_TRUE(History().Empty());
}

TEST_F(TimerTest, OnlyTheLowBitsOfAnIntervalCount) {
    Create(0, 4294967306);  // 2^32 + 10
    EXPECT_EQ(FiredAfter(9), 0u);
    EXPECT_EQ(FiredAfter(1), 1u);
    EXPECT_EQ(Entry(Timers(), 0).GetData("interval_sec").Text(), "4294967306");
    EXPECT_EQ(FiredAfter(10), 1u);
    queue.DeleteAllTimers();

    Create(100, -5);
    const PListArray timers = Timers();
    EXPECT_EQ(Entry(timers, 0).GetData("interval_sec").Text(), "-5");
    EXPECT_FALSE(Entry(timers, 0).HasItem("start_time"));
    EXPECT_EQ(FiredAfter(0), 1u);
    EXPECT_EQ(Timers().Size(), 0u);
    Create(100, -20);
    EXPECT_EQ(FiredAfter(0), 0u);
    EXPECT_EQ(Timers().Size(), 0u);
}

TEST_F(TimerTest, PostsItsDataInOrderOfCreationOncePerPass) {
    Event("second");
    Create(0, 0, "e", R"({"x":1})");
    Create(-5, 0, "second");
    Create(0, 0, "no such event");
    clock.Step(5);
    Probe::FireTimers(queue);
    EXPECT_EQ(Posted(), "e second");
    EXPECT_EQ(Entry(History(), 0).GetDict("post_data").GetData("x").Text(), "1");
    EXPECT_TRUE(Entry(History(), 1).HasItem("post_data"));
    EXPECT_EQ(Timers().Size(), 0u);
}

TEST_F(TimerTest, TheSectionHoldsTheStartOrTheIntervalInListOrder) {
    EXPECT_EQ(Timers().Size(), 0u);
    const UUID first = Create(90, 0, "", R"({"k":[1]})");
    const UUID second = Create(90, 7);
    PListDict state;
    queue.GetTimerState(state);
    EXPECT_EQ(Text(state),
              R"({"timer_list":[{"id":")" + Mirel::UUIDText(first) +
                  R"(","event_name":"","timer_data":{"k":[1]},"start_time":"2026-03-01T12:01:30+00:00"},)"
                  R"({"id":")" +
                  Mirel::UUIDText(second) + R"(","event_name":"e","interval_sec":"7"}]})");
    EXPECT_TRUE(queue.DeleteTimer(first));
    EXPECT_FALSE(queue.DeleteTimer(first));
    EXPECT_EQ(Timers().Size(), 1u);
}

TEST_F(TimerTest, ADocumentsTimersAreAddedAndBadOnesNamed) {
    const PListDict document = Dict(R"({"timer_list":["x",{"interval_sec":"5"},{"event_name":"e"},
        {"event_name":"e","interval_sec":"0"},{"event_name":"bad","start_time":"2026-02-31T00:00:00+00:00","interval_sec":"9"},
        {"event_name":"e","interval_sec":"9223372036854775807"},{"event_name":"e","interval_sec":30},
        {"event_name":"e","start_time":"2026-03-01T13:00:05+01:00","timer_data":{"x":1}},
        {"event_name":"e","start_time":"2026-03-01T12:00:05+00:00","timer_data":4}]})");
    queue.SetTimerState(document);
    EXPECT_EQ(log.Errors(),
              (std::vector<std::string>{"Non-dictionary timer array entry.\n", "Skipping empty timer.\n",
                                        "Skipping empty timer.\n", "Skipping empty timer.\n",
                                        "Error decoding timestamp in timer \"bad\".\n"}));
    PListArray timers = Timers();
    ASSERT_EQ(timers.Size(), 4u);
    EXPECT_EQ(Entry(timers, 0).GetData("interval_sec").Text(), "9223372036854775807");
    EXPECT_EQ(Entry(timers, 1).GetData("interval_sec").Text(), "30");
    EXPECT_EQ(Entry(timers, 2).GetData("start_time").Text(), "2026-03-01T12:00:05+00:00");
    EXPECT_EQ(Entry(timers, 2).GetDict("timer_data").Size(), 1u);
    EXPECT_FALSE(Entry(timers, 3).HasItem("timer_data"));

    queue.SetTimerState(document);
    EXPECT_EQ(Timers().Size(), 8u);
    for (const char* nothing : {"{}", R"({"timer_list":{}})", R"({"timer_list":[]})"}) {
        queue.SetTimerState(Dict(nothing));
    }
    EXPECT_EQ(Timers().Size(), 8u);
}

TEST_F(TimerTest, ACopyKeepsTheId) {
    Timer timer("e", 5, Timestamp(), Dict(R"({"x":1})"));
    timer.start_time.AddSeconds(7);
    Timer copy("f", 1, Timestamp());
    EXPECT_FALSE(copy.id == timer.id);
    copy = timer;
    EXPECT_TRUE(copy.id == timer.id && Timer(timer).id == timer.id);
    EXPECT_TRUE(copy.data == timer.data);
    EXPECT_EQ(copy.interval_sec, 5);
    EXPECT_EQ(copy.event_name, "e");
    EXPECT_FALSE(copy.start_time < timer.start_time || copy.start_time > timer.start_time);
}

}  // namespace EventManager
