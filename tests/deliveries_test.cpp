// Deliveries: which destination fits, what is signed and refused, what is kept.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <tuple>

#include "CountedSyncs.h"
#include "Testing.h"
#include "deliveries/DeliveryBook.h"
#include "deliveries/DeliveryDocument.h"
#include "deliveries/DeliveryJournal.h"
#include "deliveries/PrivateAddress.h"
#include "deliveries/Signature.h"

namespace Server {

namespace {

bool Fitting(const std::string& match, const std::string& callback) {
    Destination destination;
    destination.Match = match;
    return Fits(destination, callback);
}

bool Private(const std::string& text) {
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    v4.sin_family = AF_INET;
    v6.sin6_family = AF_INET6;
    if (inet_pton(AF_INET, text.c_str(), &v4.sin_addr) == 1) {
        return IsPrivateAddress(reinterpret_cast<sockaddr*>(&v4));
    }
    EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr), 1) << text;
    return IsPrivateAddress(reinterpret_cast<sockaddr*>(&v6));
}

Delivery Made(const std::string& event, const std::string& body, DeliveryState state) {
    Delivery delivery;
    delivery.EventName = event;
    delivery.Callback = "http://a/";
    delivery.Body = std::make_shared<const std::string>(body);
    delivery.Attempts = 3;
    delivery.Attempt = 1;
    delivery.State = state;
    return delivery;
}

TEST(DeliveriesTest, ADestinationFitsByItsPartsSoThatNoOtherHostPassesForIt) {
    EXPECT_TRUE(Fitting("", "http://a/"));
    EXPECT_TRUE(Fitting("", "/path"));
    EXPECT_TRUE(Fitting("https://good.example", "HTTPS://GOOD.example:443/hook?q"));
    EXPECT_TRUE(Fitting("https://", "https://a/"));
    EXPECT_TRUE(Fitting("/in", "/inside"));
    EXPECT_TRUE(Fitting("http://a/x", "http://user:pw@a/xy"));
    for (const char* other : {"https://good.example.evil.test/", "https://good.example@evil.test/",
                              "https://good.example:8443/", "http://good.example/", "/good.example"}) {
        EXPECT_FALSE(Fitting("https://good.example", other)) << other;
    }
    EXPECT_FALSE(Fitting("/", "http://a/"));
    EXPECT_TRUE(Fitting("http://a/in/", "http://a/in/./x/../y"));
    for (const char* other : {"http://a/in/../admin", "http://a/in/%2E%2e/admin", "http://a/in/x/../.."}) {
        EXPECT_FALSE(Fitting("http://a/in/", other)) << other;
    }
}

TEST(DeliveriesTest, AddressesThatAreNotPublicArePrivateInEveryForm) {
    for (const char* text : {"127.0.0.1", "10.1.2.3", "172.31.0.1", "192.168.0.1", "169.254.169.254",
                             "0.0.0.0", "100.64.0.1", "224.0.0.1", "::1", "::", "fe80::1", "fd00::1",
                             "ff02::1", "::ffff:127.0.0.1", "64:ff9b::10.0.0.1", "2002:7f00:1::1"}) {
        EXPECT_TRUE(Private(text)) << text;
    }
    for (const char* text : {"8.8.8.8", "172.32.0.1", "100.128.0.1", "2001:4860::1", "::ffff:8.8.8.8"}) {
        EXPECT_FALSE(Private(text)) << text;
    }
}

TEST(DeliveriesTest, TheSignatureIsThatOfStandardWebhooks) {
    const std::string secret = "\x30\xaf\xcc\x2d";
    const std::string one = WebhookSignature({secret}, "msg_1", 1614265330, "{}");
    EXPECT_EQ(one.substr(0, 3), "v1,");
    EXPECT_EQ(one.size(), 3u + 44u);
    EXPECT_EQ(WebhookSignature({secret, "other"}, "msg_1", 1614265330, "{}").substr(0, one.size() + 4),
              one + " v1,");
}

TEST(DeliveriesTest, ADestinationsSecretsAreReadShownToNobodyAndNoHeaderHoldsAnother) {
    const auto read = [](const std::string& json, std::vector<Fault>& faults) {
        const auto list = Velmora::PListItem::CreateFromJSON(json, nullptr, Velmora::PListItem::AnyDepth);
        const auto as_is = [](const std::string& path) { return path; };
        return ReadDestinations(static_cast<const Velmora::PListArray&>(*list), "/Destinations", as_is,
                                faults);
    };
    std::vector<Fault> faults;
    const auto good = read(R"([{"Match": "", "Headers": {"X-Key": "hush"},
        "SigningSecret": "whsec_QUJDQUJDQUJDQUJDQUJDQUJDQUJDQUJD QUJDQUJDQUJDQUJDQUJDQUJDQUJDQURE"}])",
                           faults);
    ASSERT_TRUE(faults.empty());
    EXPECT_EQ(good[0].SigningSecrets,
              (std::vector<std::string>{"ABCABCABCABCABCABCABCABC", "ABCABCABCABCABCABCABCADD"}));
    std::string shown;
    (void)DestinationsInForce(good).EncodeJSON(shown);
    EXPECT_EQ(shown.find("hush"), shown.npos) << shown;
    EXPECT_EQ(shown.find("QUJD"), shown.npos) << shown;
    for (const char* wrong : {R"([{"Match": "", "Headers": {"X": "a\r\nY: b"}}])",
                              R"([{"Match": "", "Headers": {"X: a\r\nY": "b"}}])",
                              R"([{"Match": "", "SigningSecret": "whsec_QUJD"}])"}) {
        faults.clear();
        read(wrong, faults);
        EXPECT_EQ(faults.size(), 1u) << wrong;
    }
}

TEST(DeliveriesTest, ADocumentHoldsWhatAnotherServerNeeds) {
    Delivery made = Made("e", R"({"n":1})", DeliveryState::Waiting);
    made.PostingId = "0a-7";
    made.ListenerId = "l";
    made.Method = Velmora::METH_POST;
    made.Next_us = 1780000000123456;
    made.Status = 503;
    made.Answer = "bytes\xff";
    const auto read = DeliveryFrom(DocumentOf(made), 9);
    ASSERT_TRUE(read);
    EXPECT_EQ(*read->Body, *made.Body);
    EXPECT_EQ(std::tie(read->EventName, read->Callback, read->PostingId, read->ListenerId, read->Method,
                       read->Attempt, read->Attempts, read->Next_us, read->Status, read->State),
              std::tie(made.EventName, made.Callback, made.PostingId, made.ListenerId, made.Method,
                       made.Attempt, made.Attempts, made.Next_us, made.Status, made.State));
    made.State = DeliveryState::Ok;
    const std::string end = DocumentOf(made);
    EXPECT_EQ(end.find("callback"), end.npos) << "what ended is short";
    EXPECT_EQ(DeliveryFrom(end, 9)->State, DeliveryState::Ok);
    for (const char* none : {"", "[]", "{}", R"({"state": "lost"})"})
        EXPECT_FALSE(DeliveryFrom(none, 9)) << none;
}

class DeliveryBookTest : public testing::Test {
  protected:
    // As the engine does it; null where there is no room.
    Delivery* Enter(const std::string& event, const std::string& body, DeliveryState state,
                    std::size_t lane = 0) {
        Delivery delivery = Made(event, body, state);
        delivery.Lane = lane;
        if (state != DeliveryState::Ok && !book.MakeRoom(delivery, dropped)) return nullptr;
        return book.Add(std::move(delivery));
    }
    std::vector<const Delivery*> List(const DeliveryFilter& filter) { return book.List(filter, more); }

    DeliverySettings Small() {
        DeliverySettings settings;
        settings.Keep = 2;
        settings.MaxWaiting = 3;
        settings.MaxWaitingBytes = 12000;
        return settings;
    }
    DeliveryBook book{Small()};
    std::vector<Mirel::ui64_t> dropped;
    bool more = false;
};

TEST_F(DeliveryBookTest, WhatWaitsIsBoundedForEachDestinationAndTheOldestDeadMakeRoom) {
    EXPECT_EQ(Enter("e", std::string(12000, 'x'), DeliveryState::Waiting), nullptr);
    const Delivery* const first = Enter("e", "1", DeliveryState::Waiting);
    ASSERT_NE(first, nullptr);
    const Mirel::ui64_t dead = Enter("e", "2", DeliveryState::Dead)->Id;
    ASSERT_NE(Enter("e", "3", DeliveryState::Dead), nullptr);
    EXPECT_EQ(Enter("e", std::string(11000, 'x'), DeliveryState::Waiting), nullptr);
    EXPECT_TRUE(dropped.empty()) << "what does not fit either way drops nothing";
    ASSERT_NE(Enter("e", "4", DeliveryState::Waiting), nullptr);
    EXPECT_EQ(dropped, std::vector<Mirel::ui64_t>{dead});
    ASSERT_NE(Enter("e", "5", DeliveryState::Waiting), nullptr);
    EXPECT_EQ(Enter("e", "6", DeliveryState::Waiting), nullptr);
    EXPECT_NE(Enter("e", "7", DeliveryState::Waiting, 1), nullptr) << "another destination";
    EXPECT_EQ(book.Dead(), 0u);
    EXPECT_EQ(book.Waiting(), 4u);
}

TEST_F(DeliveryBookTest, PagesAreOfWhatIsAskedFor) {
    Delivery* const first = Enter("e", "1", DeliveryState::Waiting);
    Enter("e", "2", DeliveryState::Dead);
    for (int i = 0; i < 5; ++i) EXPECT_NE(Enter("g", "5", DeliveryState::Ok), nullptr);
    EXPECT_EQ(List({}).size(), 4u);
    DeliveryFilter filter;
    filter.Limit = 1;
    filter.EventName = "e";
    const auto page = List(filter);
    ASSERT_EQ(page.size(), 1u);
    EXPECT_TRUE(more);
    filter.Before = page[0]->Id;
    EXPECT_EQ(List(filter)[0], first);
    EXPECT_FALSE(more);

    DeliverySettings fewer = Small();
    fewer.KeepBytes = 2 * Made("g", "5", DeliveryState::Ok).Bytes() - 1;
    book.TakeAnew(fewer);
    EXPECT_EQ(List({}).size(), 3u) << "the bytes of ended ones";

    first->State = DeliveryState::Failed;
    book.StateChanged(*first, DeliveryState::Waiting);
    EXPECT_EQ(book.Waiting(), 0u);
    first->State = DeliveryState::Waiting;
    book.StateChanged(*first, DeliveryState::Failed);
    EXPECT_EQ(book.Waiting(), 1u);
}

TEST_F(DeliveryBookTest, AStatusIsThatOfTheListenerThatIsThere) {
    const ListenerKey key("e", "http://a/");
    Delivery delivery = Made("e", "1", DeliveryState::Ok);
    delivery.ListenerId = "one";
    book.CountAttempt(delivery, true);
    EXPECT_EQ(book.Status(key), nullptr) << "nobody has registered it";
    book.AddListener(key, "one");
    for (const bool ok : {true, false, false}) book.CountAttempt(delivery, ok);
    ASSERT_NE(book.Status(key), nullptr);
    EXPECT_EQ(book.Status(key)->FailuresInRow, 2u);
    EXPECT_EQ(book.Status(key)->Calls, 3u);
    book.AddListener({"f", "http://a/"}, "three");
    EXPECT_EQ(book.Status({"f", "http://a/"}), nullptr) << "another listener with that address";
    book.RemoveListener(key);
    book.AddListener(key, "two");
    book.CountAttempt(delivery, true);
    EXPECT_EQ(book.Status(key), nullptr) << "a late call of the one that was deleted";
}

TEST(DeliveriesTest, AJournalKeepsWhatWasCommittedAndIsOneProcesss) {
    const Testing::TemporaryFolder folder;
    const std::string event("any\0\xff bytes", 12);
    {
        DeliveryJournal journal;
        ASSERT_TRUE(journal.Open(folder / "j.db").Success());
        Delivery delivery = Made(event, std::string("body\0\xfe", 6), DeliveryState::Dead);
        for (const Mirel::ui64_t id : {7u, 8u, 9u}) {
            delivery.Id = id;
            journal.Put(delivery);
        }
        ListenerStatus status;
        status.Last = DeliveryState::Ok;
        status.Calls = 5;
        status.Durations_ms = {3, 70000};
        journal.PutStatus({event, "http://a/"}, status);
        Testing::CountedSyncs syncs;
        EXPECT_TRUE(journal.Commit());
        EXPECT_FALSE(syncs.Seen.empty()) << "the machine's power may fail";
        journal.Remove(8);
        EXPECT_TRUE(journal.Commit());
        journal.Remove(9);  // and not committed

        DeliveryJournal second;
        const Mirel::Result_t refused = second.Open(folder / "j.db");
        EXPECT_TRUE(refused.Failure());
        EXPECT_NE(std::string(refused.Message()).find("another process uses it"), std::string::npos);
    }
    DeliveryJournal journal;
    ASSERT_TRUE(journal.Open(folder / "j.db").Success());
    std::vector<Delivery> deliveries;
    std::map<ListenerKey, ListenerStatus> statuses;
    journal.Load(deliveries, statuses);
    ASSERT_EQ(deliveries.size(), 2u);
    EXPECT_EQ(deliveries[0].Id, 7u);
    EXPECT_EQ(deliveries[1].Id, 9u);
    EXPECT_EQ(deliveries[0].EventName, event);
    EXPECT_EQ(*deliveries[0].Body, std::string("body\0\xfe", 6));
    EXPECT_EQ(deliveries[0].State, DeliveryState::Dead);
    const ListenerStatus& status = statuses[{event, "http://a/"}];
    EXPECT_EQ(status.Calls, 5u);
    EXPECT_EQ(status.Durations_ms, (std::deque<Mirel::ui32_t>{3, 70000}));
}

}  // namespace

}  // namespace Server
