// One client of the feed and the log it is written from, at times that the test chooses. With the sources
// inside, for the library hides them.
#include "feed/FeedClient.cpp"
#include "feed/FeedFilter.cpp"
#include "feed/Frame.cpp"
#include "feed/FrameLog.cpp"
#include "feed/NumberedFrame.cpp"
#include "feed/Replays.cpp"
#include "feed/Subscription.cpp"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "Testing.h"
#include "WebSocketPeer.h"

namespace Velmora::Feed {

using Turn = FeedClient::Turn;

class FeedClientTest : public ::testing::Test {
  protected:
    ~FeedClientTest() override {
        client.reset();
        close(peer);
    }
    SocketClient& Join(bool tcp = false) {
        const auto [server, other] = Testing::Connected(tcp);
        peer = other;
        client.emplace(frames, SocketStream(server), "peer", "", limits);
        EXPECT_TRUE(client->Begin(now));
        return *client;
    }
    void Tick(int after_ms) {
        now += Milliseconds(after_ms);
        client->Tick(now);
    }
    // Gives turns until nothing more happens; how the last one ended.
    Turn Work() {
        Turn turn = Turn::More;
        while (turn == Turn::More) turn = client->TakeTurn(frames.End(), now);
        return turn;
    }
    // What the server has sent, at most so many bytes.
    std::string Sent(std::size_t size = 1000) {
        std::string bytes(size, '\0');
        const ssize_t got = recv(peer, bytes.data(), size, MSG_DONTWAIT);
        return bytes.substr(0, got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    void Receive(std::string_view bytes) {
        ASSERT_EQ(send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
        char room[100];
        client->Receive(room, now);
    }
    void FillUntilBlocked() {
        for (int i = 0; i < 20; ++i) frames.Append(std::string(100000, 'x'));
        ASSERT_EQ(Work(), Turn::Blocked);
    }

    Testing::CapturedLog log;
    const ClientLimits limits{Milliseconds(100), Milliseconds(1000)};
    FrameLog frames{64u << 20};
    Time now{Milliseconds(5000)};
    std::optional<SocketClient> client;
    int peer = -1;
};

TEST_F(FeedClientTest, WhatTheKernelSendsOnIsProgressAndNothingElseIs) {
    Join();
    FillUntilBlocked();
    Tick(0);
    for (int i = 0; i < 4; ++i) {  // too little for the socket to take more
        EXPECT_GT(Sent(40000).size(), 0u);
        Tick(60);
        EXPECT_TRUE(client->Hurried());
    }
    Tick(99);
    EXPECT_TRUE(log.At(Mirel::LOG_NOTICE).empty());
    const std::uint64_t slow = Counters.SlowDisconnects;
    Tick(1);
    EXPECT_TRUE(log.Has("peer is disconnected: takes nothing.\n"));
    EXPECT_EQ(Counters.SlowDisconnects, slow + 1);
    EXPECT_EQ(Work(), Turn::Gone);
}

// Which has the client tried again, as a full socket that empties does.
TEST_F(FeedClientTest, WhoSendsButTakesNothingIsEndedInTheSameTime) {
    Join();
    FillUntilBlocked();
    for (int i = 0; i < 5; ++i) {
        Tick(i == 0 ? 0 : 24);
        EXPECT_TRUE(client->Hurried());
        Receive(Testing::ClientFrame(0x89, "ping"));
        EXPECT_EQ(Work(), Turn::Blocked);
    }
    Tick(4);
    EXPECT_TRUE(log.Has("peer is disconnected: takes nothing.\n"));
}

TEST_F(FeedClientTest, TheSocketNeitherBlocksNorDelays) {
    const int socket = Join(true).Descriptor();
    int no_delay = 0;
    socklen_t size = sizeof(no_delay);
    EXPECT_EQ(getsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &no_delay, &size), 0);
    EXPECT_EQ(no_delay, 1);
    EXPECT_NE(fcntl(socket, F_GETFL) & O_NONBLOCK, 0);
}

// Before whatever else it is sent.
TEST_F(FeedClientTest, TheRestOfAFrameIsSentFirstHoweverOftenTheSocketIsFull) {
    Join();
    frames.Append(std::string(2000000, 'x'));
    frames.Append("never sent");
    EXPECT_EQ(Work(), Turn::Blocked);
    Receive(Testing::ClientFrame(0x88, "\x03\xE8"));
    std::string sent;
    int turns = 0;
    for (std::string part; !(part = Sent(100000)).empty(); ++turns) {
        sent += part;
        Work();
    }
    EXPECT_GT(turns, 3);
    ASSERT_EQ(sent.size(), 10 + 2000000 + 4u);
    EXPECT_EQ(sent.substr(10 + 2000000 - 1), "x\x88\x02\x03\xE8");
    EXPECT_EQ(Work(), Turn::Gone);
}

TEST_F(FeedClientTest, APingIsDueAfterSilenceOnlyAndItsAnswerInTheSameTime) {
    Join();
    Tick(999);
    EXPECT_FALSE(client->WantsTurn());
    Receive(Testing::ClientFrame(0x81, "not silent"));
    Tick(999);
    EXPECT_FALSE(client->WantsTurn());
    for (int round = 0; round < 2; ++round) {
        Tick(round == 0 ? 1 : 1000);
        EXPECT_EQ(Work(), Turn::CaughtUp);
        EXPECT_EQ(Sent(), std::string("\x89\0", 2));
        Tick(999);
        EXPECT_FALSE(client->WantsTurn());  // one ping is enough
        if (round == 0) Receive(Testing::ClientFrame(0x8A, ""));
    }
    EXPECT_TRUE(log.At(Mirel::LOG_NOTICE).empty());
    Tick(1);
    EXPECT_TRUE(log.Has("peer is disconnected: does not answer a ping.\n"));
    EXPECT_EQ(Work(), Turn::Gone);
}

TEST_F(FeedClientTest, WhoLeavesHasUntilItsDeadlineToTakeWhatIsPendingAndToClose) {
    Join();
    frames.Append("pending");
    client->Leave(frames.End(), now + Milliseconds(100));
    frames.Append("later");
    EXPECT_EQ(Work(), Turn::CaughtUp);
    EXPECT_EQ(Sent(), "\x81\x07pending\x88\x02\x03\xE9");
    Tick(99);
    EXPECT_EQ(Work(), Turn::CaughtUp);  // lingers
    Tick(1);
    EXPECT_EQ(Work(), Turn::Gone);
    EXPECT_TRUE(log.At(Mirel::LOG_NOTICE).empty());
    client.reset();
    close(peer);

    Join();
    FillUntilBlocked();
    client->Leave(frames.End(), now + Milliseconds(100));
    Sent(100000);  // progress helps no longer
    Tick(99);
    EXPECT_EQ(Work(), Turn::Blocked);
    Tick(1);
    EXPECT_TRUE(log.Has("peer is disconnected: did not take in time what was pending.\n"));
    EXPECT_EQ(Work(), Turn::Gone);
    client.reset();
    close(peer);

    Join();
    client->Leave(frames.End(), now + Milliseconds(100));
    Tick(60);
    Receive(std::string("\x81\x02hi", 4));  // a fault of its own brings no more time
    EXPECT_EQ(Work(), Turn::CaughtUp);
    Tick(40);
    EXPECT_EQ(Work(), Turn::Gone);
}

TEST_F(FeedClientTest, AReaderThatIsLeftBehindIsLetGo) {
    struct Nothing : BroadcastReader {
        void OnPosting(std::string_view) override {}
    };
    FrameLog small(1000);
    ReaderClient reader(small, std::make_unique<Nothing>(), "reader");
    const std::uint64_t slow = Counters.SlowDisconnects;
    small.Append(std::string(200, 'x'));
    EXPECT_EQ(reader.TakeTurn(small.End(), now), Turn::CaughtUp);
    for (int i = 0; i < 10; ++i) small.Append(std::string(200, 'x'));
    reader.CheckPlace(small.End(), now);
    EXPECT_EQ(reader.TakeTurn(small.End(), now), Turn::Gone);
    EXPECT_EQ(log.At(Mirel::LOG_NOTICE),
              std::vector<std::string>{"Reader reader of the feed is let go: too slow.\n"});
    EXPECT_EQ(Counters.SlowDisconnects, slow + 1);
}

TEST(FrameLogTest, WhoWaitsIsWokenOnceByTheFirstFrameAndWhoComesTooLateDoesNotWait) {
    FrameLog frames(1u << 20);
    EXPECT_FALSE(frames.Append("for nobody"));
    LogCursor cursor = frames.Attach();
    const LogEnd seen = frames.End();
    EXPECT_EQ(seen.Frames, 0u);
    EXPECT_TRUE(frames.PrepareToWait(seen));
    EXPECT_TRUE(frames.Append("first"));
    EXPECT_FALSE(frames.Append("second"));
    EXPECT_FALSE(frames.PrepareToWait(seen));
    EXPECT_FALSE(frames.Append("third"));
    EXPECT_TRUE(frames.PrepareToWait(frames.End()));
    EXPECT_EQ(frames.End().Frames, 3u);  // looking ends the waiting
    EXPECT_FALSE(frames.Append("fourth"));
    frames.Detach(cursor);
}

TEST(FrameLogTest, WhatAllHaveTakenIsGivenBackAndMemoryStaysWithinItsLimit) {
    const std::uint64_t before = Counters.LogBytes;
    {
        FrameLog frames(64u << 10);
        LogCursor reader = frames.Attach(), idle = frames.Attach();
        for (int i = 0; i < 1000; ++i) {
            frames.Append(std::string(1000, 'x'));
            EXPECT_LE(Counters.LogBytes, before + (64u << 10));
        }
        EXPECT_TRUE(FrameLog::FellOff(reader, frames.End()));
        EXPECT_FALSE(frames.Advance(reader));
        frames.Detach(reader);
        frames.Detach(idle);
        frames.Detach(idle);  // a second time is nothing
        EXPECT_FALSE(frames.HasReaders());

        reader = frames.Attach();
        for (int i = 0; i < 100; ++i) {
            frames.Append(std::string(1000, 'x'));
            reader.Move(reader.Limit(frames.End()) - reader.Offset, frames.End());
            EXPECT_TRUE(reader.Segment->Number == frames.End().Segment || frames.Advance(reader));
        }
        EXPECT_LE(Counters.LogBytes, before + (16u << 10));
        frames.Detach(reader);
    }
    EXPECT_EQ(Counters.LogBytes, before);
}

// Of this process, in bytes.
std::size_t AddressSpace() {
    return std::stoul(Testing::ReadFile("/proc/self/statm")) * static_cast<std::size_t>(getpagesize());
}

TEST(FrameLogTest, AfterALotOnlyALittleIsKeptToBeUsedAnew) {
    FrameLog frames(256u << 20);
    const std::size_t before = AddressSpace();
    for (const std::size_t size : {60000u, 1000000u}) {
        LogCursor reader = frames.Attach();
        const std::string text(size, 'x');
        for (std::size_t sum = 0; sum < 100000000; sum += size) frames.Append(text);
        EXPECT_GT(AddressSpace(), before + 90000000);
        frames.Detach(reader);
        EXPECT_LT(AddressSpace(), before + (16u << 20));
    }
}

}  // namespace Velmora::Feed
