#include "TimerHolder.h"

#include "MR_log.h"
#include "MR_util.h"

namespace Cluster {

using Mirel::AutoMutex;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr seconds Term{3};

std::string RunOf(const std::string& node) {
    Mirel::UUID id;
    Mirel::GenRandomValue(id);
    return node + " " + Mirel::UUIDText(id);
}

std::string NodeOf(const std::string& holder) {
    return holder.substr(0, holder.find(' '));
}

}  // namespace

TimerHolder::TimerHolder(Engine& engine, Publisher& publisher)
    : m_Engine(engine),
      m_Publisher(publisher),
      m_Self(RunOf(engine.Of().Node)),
      m_Reader(engine, engine.Names().Timers, engine.Names().TimersKey, *this) {}

ui64_t TimerHolder::Begin(const StreamFacts&) {
    AutoMutex lock(m_Lock);
    m_Revision = 0;
    m_Holder.clear();
    m_Seen = Clock::now();
    return 0;
}

void TimerHolder::Receive(const StreamMessage& message) {
    AutoMutex lock(m_Lock);
    m_Revision = message.Sequence;
    m_Holder.assign(natsMsg_GetData(message.Message),
                    static_cast<std::size_t>(natsMsg_GetDataLength(message.Message)));
    m_Seen = Clock::now();
}

void TimerHolder::ReachedEnd(ui64_t last) {
    AutoMutex lock(m_Lock);
    m_Read = true;
    if (last > m_Revision) m_Revision = last;
}

bool TimerHolder::Write(const std::string& holder, ui64_t expected) {
    Sending sending;
    sending.Subject = m_Engine.Names().TimersKey;
    sending.Body = holder;
    Mirel::UUID id;
    Mirel::GenRandomValue(id);
    sending.Id = Mirel::UUIDText(id);
    sending.ExpectedLast = expected;
    return m_Publisher.SendAndWait(std::move(sending), Clock::now()).What == Sent::Fate::Stored;
}

void TimerHolder::Renew() {
    ui64_t revision = 0;
    {
        AutoMutex lock(m_Lock);
        if (!m_Read) return;
        const bool free = m_Holder.empty() || m_Holder == m_Self || Clock::now() - m_Seen > Term;
        if (!free) return;
        revision = m_Revision;
    }
    const Clock::time_point began = Clock::now();
    if (!Write(m_Self, revision)) return;
    // Whoever waits for this record's age began to count later than this.
    if (!Holds()) Mirel::DefaultLogSink().Notice("This node fires the timers now\n");
    m_Until = (began + Term).time_since_epoch().count();
}

bool TimerHolder::Holds() const {
    return Clock::now().time_since_epoch().count() < m_Until;
}

void TimerHolder::GiveUp() {
    if (!Holds()) return;
    m_Until = 0;
    ui64_t revision = 0;
    {
        AutoMutex lock(m_Lock);
        revision = m_Revision;
    }
    (void)Write(std::string(), revision);
}

std::string TimerHolder::Holder() const {
    AutoMutex lock(m_Lock);
    return NodeOf(m_Holder);
}

}  // namespace Cluster
