// Subscribers of the feed: what they are told, what they have missed, what they want, and that nothing is
// lost.
#include <gmock/gmock.h>

#include <atomic>
#include <random>
#include <thread>

#include "EventManager.h"
#include "QueueProbe.h"
#include "WebSocketPeer.h"

namespace EventManager {

namespace {

using Testing::Frame;
using Testing::Link;
using Testing::Peer;
using Velmora::FeedWish;
using Form = FeedWish::Form;
using Texts = std::vector<std::string>;

FeedWish As(Form form) {
    FeedWish wish;
    wish.As = form;
    return wish;
}
FeedWish Behind(const PostingId& after) {
    FeedWish wish;
    wish.After = after;
    return wish;
}

/// Postings before the feed: none.
class Nothing : public Velmora::PostingSource {
    Place PlaceAfter(const PostingId*) const override { return {{"x", 0}, 0, false}; }
    bool Read(ui64_t, std::size_t, std::vector<Velmora::NumberedPosting>&) const override { return true; }
};

class SubscriberTest : public QueueTest {
  protected:
    void Adopt(Peer& peer, FeedWish wish = {}) {
        TCPSession session = peer.Subscriber(std::move(wish));
        feed.AdoptWsClient(session);
    }
    bool Post(const std::string& event, int n) {
        PListDict data;
        data.SetValue("n", n);
        return feed.PostEvent(event, &data);
    }
    PostingId Id(ui64_t number) { return {Probe::ReadHistory(feed).Last.Epoch, number}; }
    std::string Hello(ui64_t number, bool gap) {
        return R"({"id":")" + Id(number).Text() + R"(","gap":)" + (gap ? "true}" : "false}");
    }
    /// The number of the message's id.
    static ui64_t Number(const Frame& frame) {
        const std::size_t end = frame.Payload.find("\",\"posting\":{");
        const auto id = PostingId::FromText(frame.Payload.substr(7, end - 7));
        EXPECT_TRUE(id) << frame.Payload;
        return id ? id->Number : 0;
    }

    EventQueue feed{60000};
};

TEST_F(SubscriberTest, WhoIsToldIdsGetsThePostingsOfEveryoneElse) {
    Peer plain, numbered, events;
    TCPSession session = plain.Session();
    feed.AdoptWsClient(session);
    Adopt(numbered);
    Adopt(events, As(Form::EventStream));
    feed.CreateEvent("a\nb", nullptr);
    Post("a\nb", 1);
    const std::string posting = plain.Read().Payload, id = Id(1).Text();
    EXPECT_EQ(numbered.Read().Payload, Hello(0, false));
    EXPECT_EQ(numbered.Read().Payload, R"({"id":")" + id + R"(","posting":)" + posting + "}");
    EXPECT_EQ(events.ReadUntil("\n\n"), "retry: 2000\nid: " + Id(0).Text() +
                                            "\nevent: velmora.hello\ndata: " + Hello(0, false) + "\n\n");
    EXPECT_EQ(events.ReadUntil("\n\n"), "id: " + id + "\nevent: a%0Ab\ndata: " + posting + "\n\n");
    feed.DeleteAllEvents();
}

TEST_F(SubscriberTest, WhatWasMissedComesFirstAndAGapIsSaid) {
    feed.CreateEvent("e", nullptr);
    for (int i = 1; i <= 600; ++i) Post("e", i);
    const auto first_after = [&](const PostingId& after, bool gap) {
        Peer peer;
        Adopt(peer, Behind(after));
        EXPECT_EQ(peer.Read().Payload, Hello(600, gap));
        return Number(peer.Read());
    };
    EXPECT_EQ(first_after(Id(0), false), 1u);
    EXPECT_EQ(first_after(Id(300), false), 301u);
    EXPECT_EQ(first_after(Id(599), false), 600u);
    EXPECT_EQ(first_after({"another", 7}, true), 1u);
    clock.Step(31);
    Probe::TrimHistory(feed);
    Peer late, level, ahead;
    Adopt(late, Behind(Id(10)));
    Adopt(level, Behind(Id(600)));
    Adopt(ahead, Behind(Id(601)));
    EXPECT_EQ(late.Read().Payload, Hello(600, true));
    EXPECT_EQ(level.Read().Payload, Hello(600, false));
    ahead.Read();
    Post("e", 601);
    Post("e", 602);
    EXPECT_EQ(Number(late.Read()), 601u);
    EXPECT_EQ(Number(level.Read()), 601u);
    EXPECT_EQ(Number(ahead.Read()), 602u);
}

TEST_F(SubscriberTest, OnlyWhatIsWantedComesAndIsWritten) {
    for (const char* name : {"a", "a.b", "b", "c"}) feed.CreateEvent(name, nullptr);
    for (int i = 0; i < 400; ++i) Post(i % 4 == 0 ? "a" : i % 4 == 1 ? "a.b" : i % 4 == 2 ? "b" : "c", i);
    Peer one, two, all, beginning;
    Adopt(one, {.Names = {"b"}, .After = Id(0)});
    Adopt(two, {.Names = {"c", "a"}, .After = Id(0)});
    Adopt(all, {.Names = {"b", "*"}, .After = Id(0)});
    Adopt(beginning, {.Names = {"a*", "x"}, .After = Id(0)});
    const auto numbers = [](Peer& peer, int count) {
        peer.Read();
        std::vector<ui64_t> seen;
        for (int i = 0; i < count; ++i) seen.push_back(Number(peer.Read()));
        return seen;
    };
    const auto expected = [](std::initializer_list<unsigned> wanted, ui64_t to) {
        std::vector<ui64_t> result;
        for (ui64_t n = 1; n <= to; ++n)
            for (const unsigned w : wanted)
                if ((n - 1) % 4 == w) result.push_back(n);
        return result;
    };
    const ui64_t before = Velmora::GetBroadcastCounters().FramesDelivered;
    for (int i = 400; i < 4000; ++i) Post(i % 4 == 0 ? "a" : i % 4 == 1 ? "a.b" : i % 4 == 2 ? "b" : "c", i);
    EXPECT_EQ(numbers(one, 1000), expected({2}, 4000));
    EXPECT_EQ(numbers(two, 2000), expected({0, 3}, 4000));
    EXPECT_EQ(numbers(all, 4000), expected({0, 1, 2, 3}, 4000));
    EXPECT_EQ(numbers(beginning, 2000), expected({0, 1}, 4000));
    EXPECT_LE(Velmora::GetBroadcastCounters().FramesDelivered - before, 9000u);
}

TEST_F(SubscriberTest, WhoWantsFewGetsThemAtOnceAndBeforeTheEnd) {
    constexpr unsigned Names = 8, Rounds = 400;
    const Nothing nothing;
    WebSocketBroadcastManager manager(Velmora::BroadcastOptions{.Timeout_ms = 60000, .LogLimit = 64u << 10});
    manager.SubscribersFrom(nothing);  // segments of 8 KiB
    const PListDict posting = Dict(R"({"text": ")" + std::string(500, 'x') + "\"}");
    ui64_t number = 0;
    const auto post = [&](unsigned name) {
        manager.SendToListeners(posting, {"x", ++number}, "e" + std::to_string(name));
        return number;
    };
    std::vector<std::unique_ptr<Peer>> peers;
    for (unsigned i = 0; i <= Names; ++i) {
        peers.push_back(std::make_unique<Peer>(static_cast<Link>(i % 3)));
        FeedWish wish;
        wish.Names = {i < Names ? "e" + std::to_string(i) : "e3*"};
        TCPSession session = peers.back()->Subscriber(wish);
        manager.AdoptWsClient(session);
        EXPECT_EQ(peers.back()->Read().Opcode, 1);
    }
    std::mt19937 random(1);
    const auto read = [&](const std::vector<std::pair<unsigned, ui64_t>>& posted) {
        for (const auto& [name, id] : posted) {
            ASSERT_EQ(Number(peers[name]->Read()), id);
            if (name == 3) {
                ASSERT_EQ(Number(peers[Names]->Read()), id);
            }
        }
    };
    std::vector<std::pair<unsigned, ui64_t>> posted;
    for (unsigned round = 0; round < Rounds; ++round) {  // whatever is left waiting is never read
        posted.clear();
        for (auto count = 1 + random() % 40; count > 0; --count) {
            const unsigned name = static_cast<unsigned>(random() % Names);
            posted.emplace_back(name, post(name));
        }
        ASSERT_NO_FATAL_FAILURE(read(posted));
    }
    posted.clear();
    for (unsigned i = 0; i < 40; ++i) posted.emplace_back(i % Names, post(i % Names));
    std::thread closing([&] { manager.CloseAll(); });
    read(posted);
    for (const auto& peer : peers) {
        Frame end;
        EXPECT_THAT(peer->ReadTexts(&end), ::testing::IsEmpty());
        EXPECT_EQ(end.CloseCode(), 1001);
        peer->HangUp();
    }
    closing.join();
}

TEST_F(SubscriberTest, NobodyMissesOrGetsAnythingTwiceHoweverOftenItComesBack) {
    constexpr int Posters = 2, Each = 4000, Clients = 6;
    constexpr ui64_t Last = Posters * Each;
    feed.CreateEvent("e", nullptr);
    std::vector<std::thread> threads;
    for (int client = 0; client < Clients; ++client) {
        threads.emplace_back([&, client] {
            std::mt19937 random(static_cast<unsigned>(client));
            ui64_t last = 0;
            while (last < Last) {
                Peer peer(static_cast<Link>(client % 3));
                Adopt(peer, Behind(Id(last)));
                ASSERT_EQ(peer.Read().Payload.find("\"gap\":false") == std::string::npos, false);
                for (unsigned count = static_cast<unsigned>(random() % 1500); count > 0 && last < Last;
                     --count) {
                    ASSERT_EQ(Number(peer.Read()), last + 1);
                    ++last;
                }
            }
        });
    }
    for (int poster = 0; poster < Posters; ++poster)
        threads.emplace_back([&] {
            for (int i = 0; i < Each; ++i) Post("e", i);
        });
    for (std::thread& thread : threads) thread.join();
}

TEST_F(SubscriberTest, ASilentFeedIsHeardAndAnEndIsSaid) {
    const Nothing nothing;
    WebSocketBroadcastManager manager(
        Velmora::BroadcastOptions{.Timeout_ms = 60000, .HeartbeatInterval_ms = 30});
    Peer peer, unserved;
    TCPSession session = unserved.Subscriber(As(Form::EventStream));
    manager.AdoptWsClient(session);  // nobody has said from where
    EXPECT_EQ(unserved.ReadUntil("\n"), "");
    manager.SubscribersFrom(nothing);
    session = peer.Subscriber(As(Form::EventStream));
    manager.AdoptWsClient(session);
    EXPECT_TRUE(peer.ReadUntil("\n\n").starts_with("retry: "));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(peer.ReadUntil("\n\n"), ":\n\n");
    std::thread closing([&] { manager.CloseAll(); });
    std::string text = ":\n\n";
    while (text == ":\n\n") text = peer.ReadUntil("\n\n");
    EXPECT_EQ(text, ": closed 1001 \n\n");
    peer.HangUp();
    closing.join();
}

TEST_F(SubscriberTest, WhoFallsBehindIsToldAndCanComeBack) {
    WebSocketBroadcastManager manager(Velmora::BroadcastOptions{.Timeout_ms = 60000, .LogLimit = 100000});
    const Nothing nothing;
    manager.SubscribersFrom(nothing);
    Peer peer(Link::Pair, 4096), events(Link::Pair, 4096);
    for (Peer* slow : {&peer, &events}) {
        TCPSession session = slow->Subscriber(As(slow == &peer ? Form::Numbered : Form::EventStream));
        manager.AdoptWsClient(session);
    }
    const PListDict posting = Dict(R"({"event_name": "e", "text": ")" + std::string(2000, 'x') + "\"}");
    EXPECT_EQ(peer.Read().Opcode, 1);
    for (ui64_t i = 1; i <= 500; ++i) manager.SendToListeners(posting, {"x", i}, "e");
    Frame end;
    peer.ReadTexts(&end);
    EXPECT_EQ(end.CloseCode(), 1013);
    EXPECT_THAT(events.ReadUntil("never"), ::testing::HasSubstr("\n\n: closed 1013 too slow\n\n"));
    peer.HangUp();
}

}  // namespace

}  // namespace EventManager
