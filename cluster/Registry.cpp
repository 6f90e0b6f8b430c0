#include "Registry.h"

#include <algorithm>
#include <string_view>

#include "MR_log.h"
#include "MR_util.h"

namespace Cluster {

using Mirel::AutoMutex;
using Clock = std::chrono::steady_clock;

namespace {

std::string NewId() {
    Mirel::UUID id;
    Mirel::GenRandomValue(id);
    return Mirel::UUIDText(id);
}

constexpr std::size_t MostAtOnce = 1000;  // messages of one change without an answer

bool IsDeletion(natsMsg* message) {
    const char* operation = nullptr;
    return natsMsgHeader_Get(message, "KV-Operation", &operation) == NATS_OK;
}

std::optional<PListDict> DocumentOf(const std::string& key, natsMsg* message) {
    if (IsDeletion(message)) return std::nullopt;
    const std::string json(natsMsg_GetData(message),
                           static_cast<std::size_t>(natsMsg_GetDataLength(message)));
    const auto item = Velmora::PListItem::CreateFromJSON(json, nullptr, Velmora::PListItem::AnyDepth);
    if (const auto* dict = dynamic_cast<const PListDict*>(item.get())) return *dict;
    Mirel::DefaultLogSink().Error("The registry's document \"%s\" is no JSON object\n", key.c_str());
    return std::nullopt;
}

}  // namespace

Registry::Registry(Engine& engine, Publisher& publisher, IRegistryUser& user)
    : m_Engine(engine),
      m_Publisher(publisher),
      m_User(user),
      m_Reader(engine, engine.Names().Registry, engine.Names().RegistryKeys + ">", *this) {}

void Registry::Stop() {
    m_Reader.Stop();
    AutoMutex lock(m_Lock);
    m_Stopped = true;
    m_Came.NotifyAll();
}

// All that was known is forgotten; what is there comes now.
ui64_t Registry::Begin(const StreamFacts&) {
    std::vector<std::string> known;
    {
        AutoMutex lock(m_Lock);
        for (const auto& [key, document] : m_Documents) known.push_back(key);
    }
    for (const std::string& key : known) ApplyOne(key, std::nullopt);
    m_Revision = 0;
    return 0;
}

void Registry::ApplyOne(const std::string& key, std::optional<PListDict> after) {
    std::optional<PListDict> before;
    {
        AutoMutex lock(m_Lock);
        const auto found = m_Documents.find(key);
        if (found != m_Documents.end()) before = found->second;
    }
    m_User.Apply(key, before ? &*before : nullptr, after ? &*after : nullptr);
    AutoMutex lock(m_Lock);
    if (after) {
        m_Documents[key] = std::move(*after);
    } else {
        m_Documents.erase(key);
    }
}

void Registry::Receive(const StreamMessage& message) {
    const std::string_view subject = natsMsg_GetSubject(message.Message);
    const std::string key(subject.substr(std::min(subject.size(), m_Engine.Names().RegistryKeys.size())));
    ApplyOne(key, DocumentOf(key, message.Message));
    const char* id = nullptr;
    if (natsMsgHeader_Get(message.Message, "Nats-Msg-Id", &id) == NATS_OK) {
        AutoMutex lock(m_Lock);
        if (!m_ChangeId.empty() && std::string_view(id).starts_with(m_ChangeId)) ++m_ChangeStored;
    }
    Reached(message.Sequence);
}

void Registry::Reached(ui64_t revision) {
    AutoMutex lock(m_Lock);
    if (revision > m_Revision) m_Revision = revision;
    m_Came.NotifyAll();
}

void Registry::ReachedEnd(ui64_t last) {
    m_WasRead = true;
    Reached(last);
}

bool Registry::WaitFor(ui64_t revision, Publisher::Time deadline) {
    AutoMutex lock(m_Lock);
    while (m_Revision < revision && !m_Stopped) {
        if (!m_Came.WaitUntil(m_Lock, deadline)) return m_Revision >= revision;
    }
    return m_Revision >= revision;
}

bool Registry::WaitUntilRead(Publisher::Time deadline) {
    AutoMutex lock(m_Lock);
    while (!m_WasRead && !m_Stopped) {
        if (!m_Came.WaitUntil(m_Lock, deadline)) break;
    }
    return m_WasRead;
}

void Registry::Look(const std::function<void(const Documents&)>& look) const {
    AutoMutex lock(m_Lock);
    look(m_Documents);
}

Sending Registry::SendingOf(const Put& put) const {
    Sending sending;
    sending.Subject = m_Engine.Names().RegistryKeys + put.Key;
    if (put.Value) {
        (void)put.Value->EncodeJSON(sending.Body);
    } else {
        sending.Headers.emplace_back("KV-Operation", "DEL");
    }
    return sending;
}

void Registry::PutAnyway(const std::string& key, const PListDict& value, Publisher::Done done) {
    Sending sending = SendingOf({key, value});
    sending.Id = NewId();
    m_Publisher.Send(std::move(sending), Clock::now() + std::chrono::seconds(10), std::move(done));
}

namespace {

// The answers to what was sent one behind the other.
struct Answers {
    Mirel::Mutex Lock;
    Mirel::Condition Come;
    std::size_t Open GUARDED_BY(Lock) = 0;
    Sent Worst GUARDED_BY(Lock);
    ui64_t Last GUARDED_BY(Lock) = 0;
};

}  // namespace

// Each expects the number that the one before it gets: whatever comes in between refuses what follows.
Sent Registry::Store(const std::vector<Put>& puts, ui64_t revision, const std::string& id,
                     Publisher::Time deadline) {
    const auto answers = std::make_shared<Answers>();
    std::size_t index = 0;
    for (const Put& put : puts) {
        {
            AutoMutex lock(answers->Lock);
            while (answers->Open >= MostAtOnce) answers->Come.Wait(answers->Lock);
            if (answers->Worst.What != Sent::Fate::Stored) break;
            ++answers->Open;
        }
        Sending sending = SendingOf(put);
        sending.Id = id + "-" + std::to_string(index);
        sending.ExpectedLast = revision + index++;
        m_Publisher.Send(std::move(sending), deadline, [answers](const Sent& sent) {
            AutoMutex lock(answers->Lock);
            if (sent.What != Sent::Fate::Stored && answers->Worst.What == Sent::Fate::Stored)
                answers->Worst = sent;
            answers->Last = std::max(answers->Last, sent.Sequence);
            --answers->Open;
            answers->Come.NotifyAll();
        });
    }
    AutoMutex lock(answers->Lock);
    while (answers->Open > 0) answers->Come.Wait(answers->Lock);
    Sent sent = answers->Worst;
    sent.Sequence = answers->Last;
    return sent;
}

// Nothing is refused over what another node has changed meanwhile. Where there is more, or nobody answers,
// that is waited for a moment.
bool Registry::IsNewest(ui64_t revision, Publisher::Time deadline) {
    StreamFacts facts;
    const bool known = m_Engine.Facts(m_Engine.Names().Registry, facts) == NATS_OK;
    if (known && facts.Last <= revision) return true;
    const ui64_t next = known ? facts.Last : revision + 1;
    (void)WaitFor(next, std::min(deadline, Clock::now() + std::chrono::milliseconds(500)));
    return false;
}

Velmora::Status_t Registry::Change(const Decide& decide, Publisher::Time deadline, Sent& sent) {
    AutoMutex change(m_ChangeLock);
    if (!WaitUntilRead(deadline)) {
        sent = {Sent::Fate::Unavailable, 0, "the registry has not been read yet"};
        return Velmora::STATUS_503_NO_SERVICE;
    }
    for (;;) {
        Decision decision;
        ui64_t revision = 0;
        {
            AutoMutex lock(m_Lock);
            revision = m_Revision;
            decision = decide(m_Documents);
        }
        sent = Sent();
        if (decision.Puts.empty()) {
            if (IsNewest(revision, deadline)) return decision.Status;
            if (Clock::now() < deadline) continue;
            sent = {Sent::Fate::Unavailable, 0, "the registry's newest revision is not known"};
            return Velmora::STATUS_503_NO_SERVICE;
        }
        const std::string id = NewId();
        {
            AutoMutex lock(m_Lock);
            m_ChangeId = id;
            m_ChangeStored = 0;
        }
        sent = Store(decision.Puts, revision, id, deadline);
        if (sent.What == Sent::Fate::Stored) {
            (void)WaitFor(sent.Sequence, deadline);
            return decision.Status;
        }
        if (sent.What != Sent::Fate::Refused || Clock::now() >= deadline) {
            if (sent.What == Sent::Fate::Refused) sent.What = Sent::Fate::Unavailable;
            return Velmora::STATUS_503_NO_SERVICE;
        }
        ++m_Refused;
        // What came first is on its way to this node. Some of our own may have been stored before it.
        const ui64_t next = std::max(revision, sent.Sequence) + 1;
        (void)WaitFor(next, std::min(deadline, Clock::now() + std::chrono::milliseconds(500)));
        // An answer can be lost with a leader of the engine's; then the next attempt is refused over the
        // first.
        AutoMutex lock(m_Lock);
        if (m_ChangeStored < decision.Puts.size()) continue;
        sent = Sent();
        return decision.Status;
    }
}

}  // namespace Cluster
