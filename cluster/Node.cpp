#include "Node.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "MR_log.h"
#include "Names.h"
#include "VL_HTTP.h"

namespace Cluster {

using Mirel::AutoMutex;
using Mirel::DefaultLogSink;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr i64_t HistoryKept_ns = i64_t{30} * 1000000000;
constexpr milliseconds WatchEvery{1000};
constexpr milliseconds RevisionWait{1000};

std::string EpochOf(i64_t created_ns) {
    char text[32];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(created_ns));
    return text;
}

}  // namespace

Node::Node(const Settings& settings, Mirel::ui32_t timeout_ms)
    : m_Engine(settings),
      m_Publisher(m_Engine),
      m_Nodes(m_Engine, m_Publisher),
      m_Queue(new ClusterQueue(timeout_ms, m_Engine, m_Publisher, m_Nodes)),
      m_Postings(m_Engine, m_Engine.Names().Postings, m_Engine.Names().Events + ">", *this),
      m_Calls(m_Engine, *this),
      m_Timers(m_Engine, m_Publisher, m_Nodes, *m_Queue),
      m_Tasks(m_Engine, m_Publisher, m_Nodes),
      m_Watch([this](LoopThread& thread) { Watch(thread); }) {}

Node::~Node() {
    End();
}

Result_t Node::Start() {
    Result_t started = m_Engine.Connect(false);
    if (started.Success()) started = m_Publisher.Start();
    if (started.Success()) started = m_Watch.Start("Cluster::Watch");
    if (started.Success()) started = m_Queue->Documents().Start();
    if (started.Success()) started = m_Nodes.Start();
    if (started.Success()) started = m_Postings.Start();
    return started;
}

// Calls and timers begin when the node has a registry, and clients can be served.
void Node::Join(const PListDict& seed, Mirel::ui32_t limit_ms) {
    m_Queue->Join();
    m_Seed = seed;
    m_MaySeed = true;
    const auto limit = Clock::now() + milliseconds(limit_ms);
    const bool read = m_Queue->Documents().WaitUntilRead(limit);
    // Feed clients that come from other nodes know the epoch.
    while (read && !m_PostingsRead && Clock::now() < limit) std::this_thread::sleep_for(milliseconds(10));
    if (read) {
        m_Queue->Seed(m_Seed);
    } else {
        DefaultLogSink().Error("The cluster's registry cannot be read yet: %s\n", WhyNotReady().c_str());
    }
    Result_t started = m_Tasks.Start();
    if (started.Success()) started = m_Calls.Start();
    if (started.Success()) started = m_Timers.Start();
    if (started.Failure())
        DefaultLogSink().Error("The cluster's calls and timers do not run: %s\n", started.Message());
}

Result_t Node::Import(const PListDict& document, Mirel::ui32_t limit_ms, PListDict& state) {
    m_Queue->Join();
    if (!m_Queue->Documents().WaitUntilRead(Clock::now() + milliseconds(limit_ms)))
        return Mirel::RESULT_NETWORK.WithMessage("The cluster's registry cannot be read: " + WhyNotReady());
    m_Nodes.LearnTime();
    m_Queue->Import(document);
    const Outcome failure = TakeFailure();
    if (failure.What != Fate::Stored)
        return Mirel::RESULT_NETWORK.WithMessage("The cluster did not store it: " + failure.Why);
    m_Queue->Seed(PListDict());  // what nodes are configured with is not for this cluster any more
    m_Queue->GetQueueState(state);
    return Mirel::RESULT_OK;
}

void Node::BeginEnd() {
    m_Calls.BeginStop();
    m_Tasks.BeginStop();
    m_Timers.Stop();
    m_Calls.StopFetching();
    m_Tasks.StopFetching();
}

void Node::End() {
    m_Calls.Stop();
    m_Tasks.Stop();
    m_Postings.BeginStop();
    m_Nodes.BeginStop();
    m_Queue->Documents().BeginStop();
    m_Watch.EndAndWait();
    m_Postings.Stop();
    m_Nodes.Stop();
    m_Queue->Documents().Stop();
    m_Publisher.Stop();
    if (m_Engine.Connected()) natsConnection_FlushTimeout(m_Engine.Connection(), 1000);
    m_Engine.Close();
}

void Node::Post(const std::string& event_name, std::string json, const std::string& key, Done done) {
    const std::string id = key.empty() ? key : "key-" + EncodeName(event_name) + "-" + key;
    m_Queue->Post(event_name, std::move(json), id, [this, done = std::move(done)](const Outcome& outcome) {
        Outcome told = outcome;
        AutoMutex lock(m_Lock);
        told.Id.Epoch = m_Epoch;
        done(told);
    });
}

// ---------------------------------------------------------------- the postings' stream

// A consumer that is never read from tells where the last 30 seconds begin.
ui64_t Node::StartOfHistory(const StreamFacts& facts) const {
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.DeliverPolicy = js_DeliverByStartTime;
    config.OptStartTime = m_Nodes.EngineTime_us() * 1000 - HistoryKept_ns;
    config.AckPolicy = js_AckNone;
    config.InactiveThreshold = i64_t{5} * 1000000000;
    config.MemoryStorage = true;
    config.Replicas = 1;
    HeldConsumerInfo info;
    jsErrCode code = jsErrCode(0);
    const std::string& stream = m_Engine.Names().Postings;
    if (Take(info, js_AddConsumer, m_Engine.Context(), stream.c_str(), &config, nullptr, &code) != NATS_OK)
        return facts.Last + 1;
    const ui64_t first = facts.Last + 1 - std::min<ui64_t>(info->NumPending, facts.Last);
    (void)js_DeleteConsumer(m_Engine.Context(), stream.c_str(), info->Name, nullptr, &code);
    return std::max<ui64_t>(std::max(first, facts.First), 1);
}

ui64_t Node::Begin(const StreamFacts& facts) {
    m_Nodes.LearnTime();
    const ui64_t begin = StartOfHistory(facts);
    const std::string epoch = EpochOf(facts.Created_ns);
    m_Queue->BeginPostings(epoch, begin - 1);
    AutoMutex lock(m_Lock);
    m_Epoch = epoch;
    m_Leader = facts.Leader;
    return begin;
}

void Node::Receive(const StreamMessage& message) {
    std::string why;
    const auto posting = ReadPosting(m_Engine, message.Message, message.Time_ns, why);
    if (posting) return m_Queue->Record(posting->Payload, message.Sequence);
    ++m_Malformed;
    DefaultLogSink().Error("The message %llu on \"%s\" posts nothing: %s\n",
                           static_cast<unsigned long long>(message.Sequence),
                           natsMsg_GetSubject(message.Message), why.c_str());
}

bool Node::KnowsRevision(ui64_t revision) {
    return m_Queue->Documents().WaitFor(revision, Clock::now() + RevisionWait);
}

std::optional<ui64_t> Node::CalledUpTo(i64_t stream_created_ns) {
    return m_Nodes.CalledUpTo(EpochOf(stream_created_ns));
}

// What would find no place among the callers would not be called at all.
bool Node::HasRoom() {
    return Velmora::GetRequestCounters().Running < m_Engine.Of().MostCallers;
}

void Node::Call(const PListDict& payload, ui64_t number, const std::shared_ptr<void>& token) {
    Velmora::PostingId id;
    id.Number = number;
    {
        AutoMutex lock(m_Lock);
        id.Epoch = m_Epoch;
    }
    (void)m_Queue->Call(payload, id, token);
}

// ---------------------------------------------------------------- what is looked at every second

void Node::Watch(LoopThread& thread) {
    bool made = false;
    while (!thread.Stopping()) {
        thread.Rest(made ? WatchEvery : milliseconds(100));
        if (!m_Engine.Connected()) continue;
        const Result_t streams = m_Engine.MakeStreams();
        made = made || streams.Success();
        {
            AutoMutex lock(m_Lock);
            const std::string trouble = streams.Failure() ? streams.Message() : "";
            if (!trouble.empty() && trouble != m_Trouble) DefaultLogSink().Error("%s\n", trouble.c_str());
            m_Trouble = trouble;
        }
        if (!made) continue;
        m_Nodes.LearnTime();
        if (!m_MaySeed) continue;  // not joined
        PListDict record;
        record.SetValue("version", PROJECT_VERSION_TEXT);
        record.SetValue("revision", static_cast<long long>(m_Queue->Documents().Revision()));
        record.SetValue("sequence", static_cast<long long>(m_Postings.Last()));
        record.SetValue("engine", m_Engine.Server());
        record.SetValue("called", static_cast<long long>(m_Calls.Floor()));
        record.SetValue("epoch", EpochOf(m_Calls.StreamCreated()));
        m_Nodes.Announce(std::move(record));
        if (!m_Queue->Documents().WasRead()) continue;
        m_Queue->Seed(m_Seed);
        m_Queue->ReconcileWatches();
    }
}

std::string Node::WhyNotReady() const {
    if (!m_Engine.Connected()) return "no server of the engine can be reached";
    AutoMutex lock(m_Lock);
    if (!m_Trouble.empty()) return m_Trouble;
    if (!m_Queue->Documents().WasRead()) return "the registry has not been read yet";
    if (!m_Nodes.KnowsTime()) return "the engine's time is not known yet";
    return m_PostingsRead ? std::string() : "the postings have not been read yet";
}

Statistics Node::Figures() const {
    Statistics figures;
    figures.Connected = m_Engine.Connected();
    figures.Detail = WhyNotReady();
    figures.Ready = figures.Detail.empty();
    figures.HoldsTimers = m_Timers.Holds();
    figures.Revision = m_Queue->Documents().Revision();
    figures.Sequence = m_Postings.Last();
    figures.Lag = m_Postings.Lag();
    figures.PendingCalls = m_Calls.Pending();
    figures.RunningCalls = m_Calls.Running();
    figures.PendingPublishes = m_Publisher.Pending();
    figures.RepeatedCalls = m_Calls.Repeated();
    figures.SetAside = m_Calls.SetAside();
    figures.Malformed = m_Malformed;
    figures.LostCalls = m_Calls.Lost();
    figures.TimerFirings = m_Timers.Firings();
    figures.SkippedFirings = m_Timers.Skipped();
    figures.PublishRetries = m_Publisher.Retries();
    figures.RefusedChanges = m_Queue->Documents().RefusedChanges();
    figures.Reconnects = m_Engine.Reconnects();
    return figures;
}

PListDict Node::Describe() const {
    const Statistics figures = Figures();
    PListDict engine;
    engine.SetValue("connected", figures.Connected);
    engine.SetValue("server", m_Engine.Server());
    engine.SetValue("detail", figures.Ready ? "in order" : figures.Detail);
    PListDict description;
    description.SetValue("name", m_Engine.Of().Name);
    description.SetValue("node", m_Engine.Of().Node);
    description.SetItem("engine", engine);
    description.SetValue("revision", static_cast<long long>(figures.Revision));
    description.SetValue("sequence", static_cast<long long>(figures.Sequence));
    description.SetValue("lag", static_cast<long long>(figures.Lag));
    description.SetValue("pending_calls", static_cast<long long>(figures.PendingCalls));
    description.SetValue("timers_holder", m_Timers.Holder());
    description.SetItem("nodes", m_Nodes.List());
    return description;
}

Result_t MakeNode(const Settings& settings, Mirel::ui32_t timeout_ms, std::unique_ptr<ICluster>& node) {
    auto made = std::make_unique<Node>(settings, timeout_ms);
    const Result_t started = made->Start();
    if (started.Success()) node = std::move(made);
    return started;
}

}  // namespace Cluster
