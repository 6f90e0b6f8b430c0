#include "Calls.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string_view>

#include "MR_log.h"

namespace Cluster {

using Mirel::AutoMutex;
using Mirel::DefaultLogSink;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr i64_t second_ns = 1000000000;
constexpr i64_t AckWait_sec = 6;
constexpr milliseconds ProgressEvery{2000};
constexpr milliseconds LookEvery{1000};
constexpr milliseconds DeafLimit{4000};  // something is pending, and nothing comes
constexpr i64_t FetchWait_ms = 1000;
constexpr std::size_t MostOpen = 1024, MostAtOnce = 128, AckedKept = 100000;
constexpr ui64_t MostDeliveries = 5;

constexpr const char *HasEnded = "+ACK", *GivenBack = "-NAK", *GivenUp = "+TERM", *GoesOn = "+WPI";

}  // namespace

Calls::Calls(Engine& engine, ICaller& caller)
    : m_Engine(engine),
      m_Caller(caller),
      m_Report([this](LoopThread& thread) { Report(thread); }),
      m_Fetch([this](LoopThread& thread) { Fetch(thread); }) {}

Calls::~Calls() {
    StopFetching();
    Stop();
}

Result_t Calls::Start() {
    const Result_t started = m_Report.Start("Cluster::Report");
    return started.Failure() ? started : m_Fetch.Start("Cluster::Call");
}

void Calls::StopFetching() {
    m_Fetch.EndAndWait();
}

void Calls::Stop() {
    m_Report.EndAndWait();
    AckEnded();
    AutoMutex lock(m_Lock);
    m_Open.clear();
}

namespace {

// Every node learns from the consumer how far its postings may have been called before.
constexpr const char* MadeAnew = "made anew at ";

ui64_t AnewUpTo(const jsConsumerInfo& info) {
    const char* const text = info.Config == nullptr ? nullptr : info.Config->Description;
    const std::string_view description = text == nullptr ? "" : text;
    if (!description.starts_with(MadeAnew)) return 0;
    return std::strtoull(text + std::string_view(MadeAnew).size(), nullptr, 10);
}

}  // namespace

// A consumer that was deleted is made anew behind the calls that have ended.
bool Calls::MakeConsumer() {
    HeldConsumerInfo info;
    jsErrCode code = jsErrCode(0);
    const Streams& names = m_Engine.Names();
    const natsStatus found = Take(info, js_GetConsumerInfo, m_Engine.Context(), names.Postings.c_str(),
                                  names.Calls.c_str(), nullptr, &code);
    if (found == NATS_OK) m_AnewUpTo = AnewUpTo(*info);
    if (found != NATS_NOT_FOUND) return found == NATS_OK;
    StreamFacts facts;
    if (m_Engine.Facts(names.Postings, facts) != NATS_OK) return false;
    const bool known = facts.Created_ns == m_StreamCreated;
    const std::optional<ui64_t> told = m_Caller.CalledUpTo(facts.Created_ns);
    const ui64_t floor = std::max(known ? m_Floor.load() : 0, told.value_or(0));
    // A stream of which nobody has told is new, and so are all calls.
    const ui64_t anew_up_to = known || told ? facts.Last : 0;
    const std::string filter = names.Events + ">", description = MadeAnew + std::to_string(anew_up_to);
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Durable = names.Calls.c_str();
    config.Description = description.c_str();
    config.AckPolicy = js_AckExplicit;
    config.AckWait = AckWait_sec * second_ns;
    config.MaxDeliver = -1;
    config.MaxAckPending = 65536;
    config.MaxWaiting = 512;
    config.FilterSubject = filter.c_str();
    config.DeliverPolicy = floor == 0 ? js_DeliverAll : js_DeliverByStartSequence;
    config.OptStartSeq = floor == 0 ? 0 : floor + 1;
    const natsStatus made =
        Take(info, js_AddConsumer, m_Engine.Context(), names.Postings.c_str(), &config, nullptr, &code);
    if (made != NATS_OK) DefaultLogSink().Debug("The consumer of the calls: %s\n", ReasonOf(made).c_str());
    if (made == NATS_OK) m_AnewUpTo = AnewUpTo(*info);
    if (made == NATS_OK && anew_up_to > floor && facts.Messages > 0)
        DefaultLogSink().Notice(
            "The consumer of the calls is made anew: up to %llu postings may be called again\n",
            static_cast<unsigned long long>(std::min(facts.Last - floor, facts.Messages)));
    return made == NATS_OK;
}

std::size_t Calls::Room() const {
    AutoMutex lock(m_Lock);
    return MostOpen - std::min(MostOpen, m_Open.size());
}

void Calls::Fetch(LoopThread& thread) {
    while (!thread.Stopping()) {
        PullSubscription consumer(m_Engine, m_Engine.Names().Postings, m_Engine.Names().Calls);
        m_ConsumerGone = false;
        if (MakeConsumer() && consumer.Begin() == NATS_OK) FetchFrom(thread, consumer);
        if (!thread.Stopping()) thread.Rest(milliseconds(200));
    }
}

void Calls::FetchFrom(LoopThread& thread, PullSubscription& consumer) {
    auto heard = Clock::now();
    while (!thread.Stopping() && !m_ConsumerGone) {
        if (FetchSome(thread, consumer) || m_Pending == 0) heard = Clock::now();
        if (Clock::now() - heard > DeafLimit) return;
    }
    // What has come and was not looked at is another node's, at once.
    HeldMessage message;
    while (consumer.Next(message, 1) == Fetched::Message) Answer(natsMsg_GetReply(message.get()), GivenBack);
}

// One is waited for, then what is there, where there is more. False where nothing came.
bool Calls::FetchSome(LoopThread& thread, PullSubscription& consumer) {
    std::size_t room = Room();
    if (room == 0) {
        thread.Rest(milliseconds(20));
        return true;
    }
    ui64_t pending = 0;
    HeldMessage message;
    Fetched came = Fetched::ConsumerIsAway;
    if (consumer.Ask(1, FetchWait_ms) == NATS_OK) came = consumer.Next(message, FetchWait_ms + 200);
    if (came == Fetched::ConsumerIsAway) thread.Rest(milliseconds(200));
    if (came != Fetched::Message) return false;
    pending = Handle(thread, std::move(message));
    room = std::min<ui64_t>({Room(), MostAtOnce, pending});
    if (room == 0 || consumer.Ask(room, 0) != NATS_OK) return true;
    // Others take of the same: fewer may come.
    for (; room > 0 && pending > 0 && consumer.Next(message, 100) == Fetched::Message; --room)
        pending = Handle(thread, std::move(message));
    return true;
}

void Calls::Answer(const std::string& to, const char* what) const {
    (void)natsConnection_PublishString(m_Engine.Connection(), to.c_str(), what);
}

bool Calls::IsRepeated(const DeliveryFacts& facts) const {
    return facts.Delivered > 1 || facts.Sequence <= m_AnewUpTo;
}

// Whether this delivery needs no call: the calls run here, or have ended, or have been given up.
bool Calls::TakenUp(const std::string& reply, const DeliveryFacts& facts) {
    AutoMutex lock(m_Lock);
    if (facts.Sequence > m_Delivered) m_Delivered = facts.Sequence;
    const Place place(facts.Sequence, facts.Time_ns);
    const auto open = m_Open.find(place);
    if (open != m_Open.end()) {
        open->second = reply;
        return true;
    }
    if (m_Acked.contains(place)) {
        Answer(reply, HasEnded);
        return true;
    }
    if (facts.Delivered <= MostDeliveries) return false;
    ++m_SetAside;
    DefaultLogSink().Error("The posting %llu is set aside: its calls have not ended %llu times\n",
                           static_cast<unsigned long long>(facts.Sequence),
                           static_cast<unsigned long long>(facts.Delivered - 1));
    Answer(reply, GivenUp);
    return true;
}

// Answers how many are pending behind it.
ui64_t Calls::Handle(LoopThread& thread, HeldMessage message) {
    DeliveryFacts facts;
    if (!ReadDelivery(message.get(), facts)) return 0;
    if (!TakenUp(natsMsg_GetReply(message.get()), facts)) Begin(thread, message.get(), facts);
    return facts.Pending;
}

void Calls::Begin(LoopThread& thread, natsMsg* message, const DeliveryFacts& facts) {
    std::string why;
    const std::string reply = natsMsg_GetReply(message);
    const auto posting = ReadPosting(m_Engine, message, facts.Time_ns, why);
    if (!posting) return Answer(reply, GivenUp);  // counted and logged where the feed reads it
    const Place place(facts.Sequence, facts.Time_ns);
    {
        AutoMutex lock(m_Lock);
        m_Open[place] = reply;
    }
    while (!thread.Stopping() && !m_Caller.KnowsRevision(posting->Revision)) {
    }
    while (!thread.Stopping() && !m_Caller.HasRoom()) thread.Rest(milliseconds(2));
    if (thread.Stopping()) {  // another node's, at once
        AutoMutex lock(m_Lock);
        const auto open = m_Open.find(place);
        if (open != m_Open.end()) Answer(open->second, GivenBack);
        m_Open.erase(place);
        return;
    }
    if (IsRepeated(facts)) ++m_Repeated;
    ++m_Running;
    // Not null: whoever makes the calls holds what is there.
    const std::shared_ptr<void> token(this, [this, place](void*) { Ended(place); });
    m_Caller.Call(posting->Payload, facts.Sequence, token);
}

// On whatever thread the last call ends.
void Calls::Ended(const Place& place) {
    --m_Running;
    bool first = false;
    {
        AutoMutex lock(m_Lock);
        first = m_Ended.empty();
        m_Ended.push_back(place);
    }
    if (first) m_Report.Wake();
}

void Calls::AckEnded() {
    std::vector<std::string> ended;
    {
        AutoMutex lock(m_Lock);
        for (const Place& place : m_Ended) {
            const auto open = m_Open.find(place);
            if (open == m_Open.end()) continue;
            ended.push_back(std::move(open->second));
            m_Open.erase(open);
            if (m_Acked.insert(place).second) m_AckedInOrder.push_back(place);
            if (m_AckedInOrder.size() <= AckedKept) continue;
            m_Acked.erase(m_AckedInOrder.front());
            m_AckedInOrder.pop_front();
        }
        m_Ended.clear();
    }
    for (const std::string& reply : ended) Answer(reply, HasEnded);
}

void Calls::SayInProgress() {
    AutoMutex lock(m_Lock);
    for (const auto& [place, reply] : m_Open) Answer(reply, GoesOn);
}

// What the stream has dropped before anybody fetched it is lost to the listeners. The consumer itself counts
// as delivered what was purged, so the last look counts, or what this node has been given since.
void Calls::CountLost(const StreamFacts& facts) {
    if (m_StreamCreated != facts.Created_ns || facts.First <= m_Delivered + 1) return;
    const ui64_t lost = facts.First - m_Delivered - 1;
    m_Lost += lost;
    DefaultLogSink().Error("The stream dropped %llu postings before their calls were made\n",
                           static_cast<unsigned long long>(lost));
}

void Calls::LookAtConsumer() {
    HeldConsumerInfo info;
    jsErrCode code = jsErrCode(0);
    StreamFacts facts;
    const Streams& names = m_Engine.Names();
    if (m_Engine.Facts(names.Postings, facts) != NATS_OK) return;
    const natsStatus status = Take(info, js_GetConsumerInfo, m_Engine.Context(), names.Postings.c_str(),
                                   names.Calls.c_str(), nullptr, &code);
    if (status == NATS_NOT_FOUND) m_ConsumerGone = true;
    if (status != NATS_OK) return;
    CountLost(facts);
    if (m_StreamCreated != facts.Created_ns) m_Delivered = 0;
    m_Delivered = std::max<ui64_t>(m_Delivered, info->Delivered.Stream);
    m_StreamCreated = facts.Created_ns;
    m_Pending = info->NumPending;
    m_Floor = info->AckFloor.Stream;
}

void Calls::Report(LoopThread& thread) {
    auto progress = Clock::now() + ProgressEvery, look = Clock::now();
    while (!thread.Stopping()) {
        thread.Rest(milliseconds(200));
        AckEnded();
        if (Clock::now() >= progress) {
            SayInProgress();
            progress = Clock::now() + ProgressEvery;
        }
        if (Clock::now() < look) continue;
        LookAtConsumer();
        look = Clock::now() + LookEvery;
    }
}

}  // namespace Cluster
