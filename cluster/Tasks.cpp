#include "Tasks.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "MR_log.h"
#include "MR_util.h"

namespace Cluster {

using Mirel::AutoMutex;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr i64_t second_ns = 1000000000;
constexpr i64_t AckWait_sec = 6;
constexpr i64_t MostWaiting = 1000000;  // of the consumer
constexpr i64_t NoRoomWait_ms = 3000;
constexpr milliseconds ProgressEvery{2000};
constexpr milliseconds DeafLimit{10000};  // nothing came: perhaps for another reason than that nothing is due
constexpr milliseconds Patience{10000};
constexpr milliseconds BackOff{200};
constexpr i64_t FetchWait_ms = 1000;
constexpr std::size_t MostAtOnce = 64;
constexpr const char *HasEnded = "+ACK", *GivenBack = "-NAK", *GoesOn = "+WPI";
constexpr const char* ByHeader = "Velmora-By";
constexpr const char* DelayHeader = "Velmora-Delay";

std::string NewSelf() {
    Mirel::UUID id;
    Mirel::GenRandomValue(id);
    return Mirel::UUIDText(id);
}

std::string_view HeaderOf(natsMsg* message, const char* key) {
    const char* value = nullptr;
    return natsMsgHeader_Get(message, key, &value) == NATS_OK && value != nullptr ? value : "";
}

// Negative: never.
i64_t DelayOf_ms(natsMsg* message) {
    const std::string_view text = HeaderOf(message, DelayHeader);
    return text.empty() ? -1 : std::strtoll(std::string(text).c_str(), nullptr, 10);
}

std::string DataOf(natsMsg* message) {
    return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
}

// Brought again when the time is over.
std::string GivenBackFor(i64_t delay_ms) {
    return GivenBack + (" {\"delay\": " + std::to_string(delay_ms * 1000000) + "}");
}

Fate FateOf(Sent::Fate fate) {
    switch (fate) {
        case Sent::Fate::Stored:
            return Fate::Stored;
        case Sent::Fate::TooLarge:
            return Fate::TooLarge;
        case Sent::Fate::MayBeStored:
            return Fate::MayBeStored;
        default:
            return Fate::Unavailable;
    }
}

}  // namespace

Tasks::Tasks(Engine& engine, Publisher& publisher, Nodes& nodes)
    : m_Engine(engine),
      m_Publisher(publisher),
      m_Nodes(nodes),
      m_Self(NewSelf()),
      m_Reader(engine, engine.Names().Deliveries, engine.Names().DeliveryKeys + ">", *this),
      m_Fetch([this](LoopThread& thread) { Fetch(thread); }) {
    AutoMutex lock(m_Open->Lock);
    m_Open->Answering = &engine;
}

Tasks::~Tasks() {
    Stop();
}

Result_t Tasks::Start() {
    if (m_User == nullptr) return Mirel::RESULT_OK;
    const Result_t started = m_Reader.Start();
    return started.Failure() ? started : m_Fetch.Start("Cluster::Tasks");
}

void Tasks::Answer(Engine& engine, const std::string& to, const std::string& what) {
    (void)natsConnection_PublishString(engine.Connection(), to.c_str(), what.c_str());
}

void Tasks::End(Open& open, ui64_t number, const std::string& answer) {
    AutoMutex lock(open.Lock);
    const auto found = open.Replies.find(number);
    if (found == open.Replies.end()) return;
    if (open.Answering != nullptr) Answer(*open.Answering, found->second, answer);
    open.Replies.erase(found);
}

void Tasks::Stop() {
    StopFetching();
    m_Reader.Stop();
    AutoMutex lock(m_Open->Lock);
    for (const auto& [number, reply] : m_Open->Replies) Answer(m_Engine, reply, GivenBack);
    m_Open->Replies.clear();
    m_Open->Answering = nullptr;
}

void Tasks::Put(const std::string& key, const std::string& document, i64_t delay_ms,
                ICluster::TaskDone done) {
    Sending sending;
    sending.Subject = m_Engine.Names().DeliveryKeys + key;
    sending.Body = document;
    sending.Id = m_Self + '-' + std::to_string(++m_Puts);
    sending.Headers.emplace_back(ByHeader, m_Self);
    if (delay_ms >= 0) sending.Headers.emplace_back(DelayHeader, std::to_string(delay_ms));
    m_Publisher.Send(std::move(sending), Clock::now() + Patience,
                     [done = std::move(done)](const Sent& sent) { done(FateOf(sent.What), sent.Why); });
}

std::string Tasks::KeyOf(natsMsg* message) const {
    const std::string_view subject = natsMsg_GetSubject(message);
    return std::string(subject.substr(std::min(subject.size(), m_Engine.Names().DeliveryKeys.size())));
}

// ---- What there is ----

ui64_t Tasks::Begin(const StreamFacts&) {
    m_Reading = true;
    m_User->TasksAnew();
    return 0;
}

void Tasks::Receive(const StreamMessage& message) {
    m_User->TaskPut(KeyOf(message.Message), DataOf(message.Message),
                    HeaderOf(message.Message, ByHeader) == m_Self);
}

void Tasks::ReachedEnd(ui64_t) {
    if (std::exchange(m_Reading, false)) m_User->TasksRead();
}

// ---- What is due ----

bool Tasks::MakeConsumer() {
    HeldConsumerInfo info;
    jsErrCode code = jsErrCode(0);
    const Streams& names = m_Engine.Names();
    const natsStatus found = Take(info, js_GetConsumerInfo, m_Engine.Context(), names.Deliveries.c_str(),
                                  names.Attempts.c_str(), nullptr, &code);
    if (found != NATS_NOT_FOUND) return found == NATS_OK;
    const std::string filter = names.DeliveryKeys + ">";
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Durable = names.Attempts.c_str();
    config.AckPolicy = js_AckExplicit;
    config.AckWait = AckWait_sec * second_ns;
    config.MaxDeliver = -1;
    config.MaxAckPending = MostWaiting;
    config.MaxWaiting = 512;
    config.FilterSubject = filter.c_str();
    config.DeliverPolicy = js_DeliverAll;
    const natsStatus made =
        Take(info, js_AddConsumer, m_Engine.Context(), names.Deliveries.c_str(), &config, nullptr, &code);
    if (made != NATS_OK)
        Mirel::DefaultLogSink().Debug("The consumer of the deliveries: %s\n", ReasonOf(made).c_str());
    return made == NATS_OK;
}

void Tasks::Fetch(LoopThread& thread) {
    while (!thread.Stopping()) {
        PullSubscription consumer(m_Engine, m_Engine.Names().Deliveries, m_Engine.Names().Attempts);
        if (MakeConsumer() && consumer.Begin() == NATS_OK) {
            auto heard = Clock::now();
            while (!thread.Stopping() && Clock::now() - heard < DeafLimit) {
                if (FetchSome(thread, consumer)) heard = Clock::now();
                SayInProgress();
            }
            HeldMessage message;  // what has come is another node's, or this one's again, at once
            while (consumer.Next(message, 1) == Fetched::Message)
                Answer(m_Engine, natsMsg_GetReply(message.get()), GivenBack);
        }
        SayInProgress();
        if (!thread.Stopping()) thread.Rest(BackOff);
    }
}

// One is waited for, then what is there. False where nothing came.
bool Tasks::FetchSome(LoopThread& thread, PullSubscription& consumer) {
    HeldMessage message;
    Fetched came = Fetched::ConsumerIsAway;
    if (consumer.Ask(1, FetchWait_ms) == NATS_OK) came = consumer.Next(message, FetchWait_ms + 200);
    if (came == Fetched::ConsumerIsAway) thread.Rest(BackOff);
    if (came != Fetched::Message) return false;
    Handle(message.get());
    if (consumer.Ask(MostAtOnce, 0) != NATS_OK) return true;
    for (std::size_t i = 0; i < MostAtOnce && consumer.Next(message, 100) == Fetched::Message; ++i)
        Handle(message.get());
    return true;
}

void Tasks::SayInProgress() {
    if (Clock::now() < m_NextProgress) return;
    m_NextProgress = Clock::now() + ProgressEvery;
    AutoMutex lock(m_Open->Lock);
    for (const auto& [number, reply] : m_Open->Replies) Answer(m_Engine, reply, GoesOn);
}

void Tasks::Handle(natsMsg* message) {
    DeliveryFacts facts;
    if (!ReadDelivery(message, facts)) return;
    const char* const reply = natsMsg_GetReply(message);
    const i64_t delay_ms = DelayOf_ms(message);
    if (delay_ms < 0) return Answer(m_Engine, reply, HasEnded);
    const i64_t left_ms = facts.Time_ns / 1000000 + delay_ms - m_Nodes.EngineTime_us() / 1000;
    left_ms > 0 ? Answer(m_Engine, reply, GivenBackFor(left_ms)) : Offer(message, facts.Sequence);
}

// What comes once more while it is worked at answers in the place of the one before.
void Tasks::Offer(natsMsg* message, ui64_t number) {
    {
        AutoMutex lock(m_Open->Lock);
        const bool open = m_Open->Replies.contains(number);
        m_Open->Replies[number] = natsMsg_GetReply(message);
        if (open) return;
    }
    // Not null: whoever works at it holds what is there.
    const std::shared_ptr<void> token(m_Open.get(),
                                      [open = m_Open, number](void*) { End(*open, number, HasEnded); });
    if (!m_User->TaskDue(KeyOf(message), DataOf(message), token))
        End(*m_Open, number, GivenBackFor(NoRoomWait_ms));
}

}  // namespace Cluster
