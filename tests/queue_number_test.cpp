// The numbers of postings: who counts them, who learns them, and what is known to be missing.
#include <gmock/gmock.h>

#include <map>
#include <mutex>
#include <thread>

#include "EventManager.h"
#include "QueueProbe.h"

namespace EventManager {

namespace {

class NumberTest : public QueueTest {
  protected:
    // "n" of the records that came after the posting with this number, and "gap" where something is missing.
    std::string After(const PostingId& id) {
        const HistoryReading reading = Probe::ReadHistory(queue, &id);
        std::string text = reading.Gap ? "gap" : "";
        for (std::size_t i = reading.Begin; i < reading.Records.Size(); ++i)
            text += " " + std::to_string(reading.IdAt(i).Number);
        return text;
    }
    std::string Epoch() { return Probe::ReadHistory(queue).Last.Epoch; }
};

TEST_F(NumberTest, EveryPostingHasTheNumberThatItsPosterLearns) {
    constexpr int Threads = 4, Each = 300;
    Event("e");
    std::mutex lock;
    std::map<ui64_t, std::string> posted;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < Threads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < Each; ++i) {
                const std::string n = std::to_string(thread * Each + i);
                ASSERT_TRUE(Post("e", "{\"n\": " + n + "}"));
                const std::lock_guard<std::mutex> guard(lock);
                posted[LastPostingOfThread().Number] = n;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    const HistoryReading reading = Probe::ReadHistory(queue);
    ASSERT_EQ(posted.size(), std::size_t{Threads * Each});
    ASSERT_EQ(reading.Records.Size(), posted.size());
    for (std::size_t i = 0; i < posted.size(); ++i) {
        ASSERT_EQ(reading.IdAt(i), (PostingId{Epoch(), i + 1}));
        ASSERT_EQ(Entry(reading.Records, i).GetDict("post_data").GetData("n").Text(), posted[i + 1]);
    }
    EXPECT_FALSE(Post("no such event"));
    EXPECT_EQ(Probe::ReadHistory(queue).Last.Number, posted.size());  // and nothing was counted
}

TEST_F(NumberTest, WhatCameAfterIsThereOrKnownToBeMissing) {
    Event("e");
    const std::string epoch = Epoch();
    EXPECT_EQ(After({epoch, 0}), "");
    for (int i = 0; i < 3; ++i) Post("e");
    clock.Step(20);
    for (int i = 0; i < 2; ++i) Post("e");
    EXPECT_EQ(After({epoch, 0}), " 1 2 3 4 5");
    EXPECT_EQ(After({epoch, 3}), " 4 5");
    EXPECT_EQ(After({epoch, 5}), "");
    EXPECT_EQ(After({epoch, ~ui64_t{0}}), "");
    EXPECT_EQ(After({"another", 4}), "gap 1 2 3 4 5");
    clock.Step(11);
    Probe::TrimHistory(queue);
    EXPECT_EQ(After({epoch, 2}), "gap 4 5");
    EXPECT_EQ(After({epoch, 3}), " 4 5");  // the first that is needed is there
    clock.Step(31);
    Probe::TrimHistory(queue);
    EXPECT_EQ(After({epoch, 4}), "gap");
    EXPECT_EQ(After({epoch, 5}), "");
    Post("e");
    EXPECT_EQ(After({epoch, 5}), " 6");
}

TEST_F(NumberTest, AQueueStartsAnEpochOfItsOwn) {
    EventQueue other(500);
    EXPECT_NE(Epoch(), Probe::ReadHistory(other).Last.Epoch);
    EXPECT_FALSE(Epoch().empty());
}

// A queue whose postings are numbered elsewhere.
class NumberedElsewhere : public EventQueue {
  public:
    using EventQueue::BeginEpoch;
    using EventQueue::EventQueue;
    using EventQueue::RecordPosting;
};

TEST_F(NumberTest, NumbersFromElsewhereMayHaveHolesAndBeginAnywhere) {
    NumberedElsewhere numbered(500);
    const auto after = [&](const PostingId& id) {
        const HistoryReading reading = Probe::ReadHistory(numbered, &id);
        std::string text = reading.Gap ? "gap" : "";
        for (std::size_t i = reading.Begin; i < reading.Records.Size(); ++i)
            text += " " + std::to_string(reading.IdAt(i).Number);
        return text;
    };
    const PListDict record = Dict(R"({"event_name": "e", "timestamp": "2026-03-01T12:00:00+00:00"})");
    numbered.BeginEpoch("a", 100);
    for (const ui64_t number : {101u, 102u, 105u, 0u}) numbered.RecordPosting(record, number);
    EXPECT_EQ(LastPostingOfThread(), (PostingId{"a", 106}));
    EXPECT_EQ(after({"a", 99}), "gap 101 102 105 106");
    EXPECT_EQ(after({"a", 100}), " 101 102 105 106");
    EXPECT_EQ(after({"a", 103}), " 105 106");
    numbered.BeginEpoch("b", 0);
    numbered.RecordPosting(record, 0);
    EXPECT_EQ(after({"b", 0}), " 1");
    EXPECT_EQ(after({"a", 106}), "gap 0 0 0 0 1");  // all of it: who asks cannot know any of it
    clock.Set("2026-03-01T12:01:00+00:00");
    Probe::TrimHistory(numbered);
    EXPECT_EQ(after({"b", 0}), "gap");
    EXPECT_EQ(after({"b", 1}), "");
}

TEST(PostingIdTest, ATextIsAnIdOrIsNone) {
    EXPECT_EQ(PostingId::FromText("ab-c-12"), (PostingId{"ab-c", 12}));
    EXPECT_EQ((PostingId{"ab-c", 12}).Text(), "ab-c-12");
    for (const char* text : {"", "-", "-1", "a", "a-", "a-1x", "a--1x", "a-+1", "a b-1", "a\"-1", "a\n-1",
                             "\xc3-1", "a-18446744073709551616"})
        EXPECT_EQ(PostingId::FromText(text), std::nullopt) << text;
}

}  // namespace

}  // namespace EventManager
