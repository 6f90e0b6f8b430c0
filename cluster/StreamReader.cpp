#include "StreamReader.h"

#include <algorithm>
#include <chrono>

#include "MR_log.h"

namespace Cluster {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr i64_t second_ns = 1000000000;
constexpr i64_t MessageWait_ms = 500;
constexpr milliseconds LookEvery{2000};  // at the stream, whether it is silent or we have become deaf
constexpr milliseconds BackOff{200};
constexpr milliseconds CatchUpLimit{10000};  // a replica brings the newest within

}  // namespace

StreamReader::StreamReader(Engine& engine, const std::string& stream, const std::string& subject,
                           IStreamUser& user)
    : m_Engine(engine),
      m_Stream(stream),
      m_Subject(subject),
      m_User(user),
      m_Thread([this](LoopThread& thread) { Run(thread); }) {}

void StreamReader::Run(LoopThread& thread) {
    while (!thread.Stopping()) {
        ReadOn(thread);
        thread.Rest(BackOff);
    }
}

// Learns where to begin where the stream is not the one that was read before.
// A leader that has come after a kill may not have the newest yet: only where it stays away is it lost.
bool StreamReader::LostItsEnd(const StreamFacts& facts) {
    if (facts.Last >= m_Last) {
        m_ShortSince = {};
        return false;
    }
    if (m_ShortSince == Clock::time_point()) m_ShortSince = Clock::now();
    return Clock::now() - m_ShortSince > CatchUpLimit;
}

bool StreamReader::LookAtStream(StreamFacts& facts) {
    if (m_Engine.Facts(m_Stream, facts) != NATS_OK) return false;
    if (facts.Created_ns == m_Created_ns && !LostItsEnd(facts)) return facts.Last >= m_Last;
    m_LastPerSubject = false;
    const ui64_t begin = m_User.Begin(facts);
    m_LastPerSubject = begin == 0;
    m_Last = m_LastPerSubject ? 0 : begin - 1;
    m_Created_ns = facts.Created_ns;
    return true;
}

bool StreamReader::Subscribe(HeldSubscription& subscription, const StreamFacts& facts) {
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.Stream = m_Stream.c_str();
    options.Ordered = true;
    options.Config.Heartbeat = second_ns;
    if (m_LastPerSubject && m_Last == 0) {
        options.Config.DeliverPolicy = js_DeliverLastPerSubject;
    } else {
        options.Config.DeliverPolicy = js_DeliverByStartSequence;
        options.Config.OptStartSeq = m_Last + 1;
    }
    jsErrCode code = jsErrCode(0);
    natsSubscription* made = nullptr;
    const natsStatus status =
        js_SubscribeSync(&made, m_Engine.Context(), m_Subject.c_str(), nullptr, &options, &code);
    subscription.reset(made);
    if (status != NATS_OK) {
        Mirel::DefaultLogSink().Debug("Reading %s: %s\n", m_Stream.c_str(), ReasonOf(status).c_str());
        return false;
    }
    m_Newest = facts.Last;
    // What was removed at the stream's end never comes. Only the whole stream's emptiness says so: the
    // consumer may read from a replica that does not have the newest yet, and has nothing pending either.
    if (facts.Messages == 0) {
        m_Last = std::max(m_Last.load(), facts.Last);
        m_User.ReachedEnd(m_Last);
    }
    return true;
}

void StreamReader::TakeMessage(HeldMessage message) {
    HeldMetaData meta;
    if (Take(meta, natsMsg_GetMetaData, message.get()) != NATS_OK) return;
    if (meta->Sequence.Stream <= m_Last) return;
    m_User.Receive({message.get(), meta->Sequence.Stream, meta->Timestamp});
    m_Last = meta->Sequence.Stream;
    m_Lag = meta->NumPending;
    if (meta->NumPending == 0 && m_Last >= m_Newest) m_User.ReachedEnd(m_Last);
}

// False where this subscription will not bring what the stream holds. `last_then`: what had been received at
// the last look.
bool StreamReader::GoesOn(ui64_t last_then) {
    StreamFacts facts;
    if (m_Engine.Facts(m_Stream, facts) != NATS_OK) return true;  // the engine is away: nobody knows
    if (facts.Created_ns != m_Created_ns || LostItsEnd(facts)) return false;
    const ui64_t behind = facts.Last - std::min(facts.Last, m_Last.load());
    m_Lag = behind;
    if (behind == 0) m_User.ReachedEnd(m_Last);
    return behind == 0 || m_Last != last_then;
}

void StreamReader::ReadOn(LoopThread& thread) {
    StreamFacts facts;
    HeldSubscription subscription;
    if (!LookAtStream(facts) || !Subscribe(subscription, facts)) return;
    auto look = Clock::now() + LookEvery;
    ui64_t last_then = m_Last;
    while (!thread.Stopping()) {
        HeldMessage message;
        const natsStatus status = Take(message, natsSubscription_NextMsg, subscription.get(), MessageWait_ms);
        if (status == NATS_OK) {
            TakeMessage(std::move(message));
        } else if (status != NATS_TIMEOUT) {
            Mirel::DefaultLogSink().Debug("Reading %s: %s\n", m_Stream.c_str(), ReasonOf(status).c_str());
            if (status != NATS_MISSED_HEARTBEAT && status != NATS_MISMATCH && status != NATS_SLOW_CONSUMER)
                return;
        }
        if (Clock::now() < look) continue;
        if (!GoesOn(last_then)) return;
        last_then = m_Last;
        look = Clock::now() + LookEvery;
    }
}

}  // namespace Cluster
