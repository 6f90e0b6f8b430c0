#include "ClusterQueue.h"

#include <chrono>
#include <utility>

#include "MR_log.h"
#include "Names.h"
#include "RegistryEdit.h"

namespace Cluster {

namespace Keys = EventManager::Strings;
using EventManager::EventQueue;
using Mirel::UUID;
using Velmora::PListArray;
using Velmora::PListItem;
using Velmora::Status_t;
using Clock = std::chrono::steady_clock;

namespace {

constexpr i32_t DefaultLimit = 1024;

// Why this thread's last change was not made.
thread_local Outcome t_failure;

std::string NewId() {
    UUID id;
    Mirel::GenRandomValue(id);
    return Mirel::UUIDText(id);
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

const PListDict* DictOf(const PListDict& owner, const std::string& key) {
    return dynamic_cast<const PListDict*>(owner.GetItem(key));
}

}  // namespace

ClusterQueue::ClusterQueue(Mirel::ui32_t timeout_ms, Engine& engine, Publisher& publisher, Nodes& nodes)
    : EventQueue(timeout_ms),
      m_Engine(engine),
      m_Publisher(publisher),
      m_Nodes(nodes),
      m_Registry(engine, publisher, *this) {}

ClusterQueue::~ClusterQueue() {
    WaitUntilFinished();  // the worker asks for the time
}

Mirel::Timestamp ClusterQueue::HistoryTime() const {
    return Mirel::Timestamp::FromMicroseconds(m_Nodes.EngineTime_us());
}

// ---------------------------------------------------------------- changes

Status_t ClusterQueue::Change(const Decide& decide) {
    t_failure = Outcome();
    Sent sent;
    const Status_t status = m_Registry.Change(decide, Deadline(), sent);
    if (sent.What == Sent::Fate::Stored) return status;
    t_failure = {FateOf(sent.What), {}, sent.Why};
    return Velmora::STATUS_503_NO_SERVICE;
}

Publisher::Time ClusterQueue::Deadline() const {
    return Clock::now() + std::chrono::milliseconds(m_Engine.Of().Patience_ms);
}

bool ClusterQueue::Changed(const Decide& decide) {
    const Status_t status = Change(decide);
    return status == Velmora::STATUS_200_OK || status == Velmora::STATUS_201_CREATED;
}

Outcome ClusterQueue::TakeFailure() {
    return std::exchange(t_failure, Outcome());
}

bool ClusterQueue::IsTooLong(const std::string& name) const {
    const bool too_long = EncodeName(name).size() > LongestName;
    if (too_long) t_failure = {Fate::TooLarge, {}, "the name is too long for the engine"};
    return too_long;
}

Status_t ClusterQueue::CreateEvent(const std::string& event_name, PListDict* event_data) {
    if (IsTooLong(event_name)) return Velmora::STATUS_503_NO_SERVICE;
    const PListDict data = event_data ? *event_data : PListDict();
    return Change([&](const Cluster::Documents& documents) {
        return Cluster::CreateEvent(documents, event_name, data,
                                    LimitOf(documents, Keys::max_listeners, DefaultLimit));
    });
}

void ClusterQueue::DeleteAllEvents() {
    (void)Changed(
        [](const Cluster::Documents& documents) { return DeleteDocuments(documents, {Key::Events}); });
}

bool ClusterQueue::DeleteEvent(const std::string& event_name) {
    return Changed([&](const Cluster::Documents& documents) {
        return DeleteDocument(documents, Key::Event(event_name));
    });
}

Status_t ClusterQueue::CreateEventListener(const std::string& event_name, const std::string& callback,
                                           const PListDict* listener_data, UUID& callback_id) {
    UUID id;
    Mirel::GenRandomValue(id);
    const Status_t status = Change([&](const Cluster::Documents& documents) {
        return CreateListener(documents, event_name, callback, listener_data, id,
                              LimitOf(documents, Keys::max_listeners, DefaultLimit));
    });
    if (status == Velmora::STATUS_201_CREATED) callback_id = id;
    return status;
}

bool ClusterQueue::DeleteListenersForEvent(const std::string& event_name) {
    return Changed(
        [&](const Cluster::Documents& documents) { return DeleteListeners(documents, event_name); });
}

bool ClusterQueue::DeleteEventListener(const std::string& event_name, const UUID& id) {
    return Changed(
        [&](const Cluster::Documents& documents) { return DeleteListener(documents, event_name, id); });
}

bool ClusterQueue::CreateTimer(const std::string& event_name, const Mirel::Timestamp& timestamp,
                               const i64_t& interval_sec, const PListDict* timer_data, UUID& timer_id) {
    Mirel::Timestamp start = timestamp;
    if (interval_sec != 0) {
        start = HistoryTime();
        start.AddSeconds(static_cast<i32_t>(static_cast<Mirel::ui32_t>(interval_sec)));
    }
    UUID id;
    Mirel::GenRandomValue(id);
    const std::string text = Mirel::UUIDText(id);
    const PListDict timer = TimerDocument(text, event_name, start.Microseconds(), interval_sec, timer_data);
    const bool created = Changed([&](const Cluster::Documents&) {
        return Decision{Velmora::STATUS_201_CREATED, {{Key::Timer(text), timer}}};
    });
    if (created) timer_id = id;
    return created;
}

void ClusterQueue::DeleteAllTimers() {
    (void)Changed([](const Cluster::Documents& documents) {
        return DeleteDocuments(documents, {Key::Timers, Key::Fireds});
    });
}

bool ClusterQueue::DeleteTimer(const UUID& timer_id) {
    return Changed([&](const Cluster::Documents& documents) {
        return Cluster::DeleteTimer(documents, Mirel::UUIDText(timer_id));
    });
}

bool ClusterQueue::CreateWatch(const std::string& path, const std::string& event_name,
                               const PListDict* watch_data, const bool& once) {
    if (IsTooLong(path)) return false;
    PListDict entry;
    entry.SetValue(Keys::path, path);
    entry.SetValue(Keys::event_name, event_name);
    entry.SetValue(Keys::once, once);
    if (watch_data && !watch_data->Empty()) entry.SetItem(Keys::watch_data, *watch_data);
    return Changed([&](const Cluster::Documents& documents) {
        return Cluster::CreateWatch(documents, m_Engine.Of().Node, entry,
                                    LimitOf(documents, Keys::max_watches, DefaultLimit));
    });
}

void ClusterQueue::DeleteAllWatches() {
    (void)Changed(
        [](const Cluster::Documents& documents) { return DeleteDocuments(documents, {Key::Watches}); });
}

bool ClusterQueue::DeleteWatch(const std::string& path) {
    return Changed([&](const Cluster::Documents& documents) {
        return Cluster::DeleteWatch(documents, m_Engine.Of().Node, path);
    });
}

// ---------------------------------------------------------------- limits and documents

i32_t ClusterQueue::Limit(const std::string& name) const {
    i32_t limit = DefaultLimit;
    m_Registry.Look(
        [&](const Cluster::Documents& documents) { limit = LimitOf(documents, name, DefaultLimit); });
    return limit;
}

// Until the node has joined this is the module setting up its own, which has none: the registry's count.
void ClusterQueue::SetLimit(const std::string& name, i32_t value) {
    (void)Changed([&](const Cluster::Documents& documents) {
        PListDict limits;
        limits.SetValue(Keys::max_listeners, LimitOf(documents, Keys::max_listeners, DefaultLimit));
        limits.SetValue(Keys::max_watches, LimitOf(documents, Keys::max_watches, DefaultLimit));
        limits.SetValue(name, value);
        return Decision{Velmora::STATUS_200_OK, {{Key::Limits, limits}}};
    });
}

i32_t ClusterQueue::GetMaxListeners() const {
    return Limit(Keys::max_listeners);
}
i32_t ClusterQueue::GetMaxWatches() const {
    return Limit(Keys::max_watches);
}

void ClusterQueue::SetMaxListeners(i32_t max) {
    m_Joined ? SetLimit(Keys::max_listeners, max) : EventQueue::SetMaxListeners(-1);
}
void ClusterQueue::SetMaxWatches(i32_t max) {
    m_Joined ? SetLimit(Keys::max_watches, max) : EventQueue::SetMaxWatches(-1);
}

void ClusterQueue::GetQueueState(PListDict& state) const {
    EventQueue::GetQueueState(state);
    state.SetValue(Keys::max_listeners, GetMaxListeners());
    state.SetValue(Keys::max_watches, GetMaxWatches());
}

void ClusterQueue::GetWatchState(PListDict& state) const {
    PListArray watches;
    m_Registry.Look([&](const Cluster::Documents& documents) {
        EachDocument(documents, Key::Watches,
                     [&](const std::string&, const PListDict& watch) { watches.Append(watch); });
    });
    state.SetItem(Keys::watch_list, std::move(watches));
}

void ClusterQueue::ApplyState(const PListDict& state,
                              const std::function<std::string(std::size_t)>& timer_id) {
    if (!m_Joined) return;
    (void)Changed([&](const Cluster::Documents& documents) {
        return ApplyDocument(documents, state, m_Engine.Of().Node, m_Nodes.EngineTime_us(), timer_id,
                             LimitOf(documents, Keys::max_listeners, DefaultLimit),
                             LimitOf(documents, Keys::max_watches, DefaultLimit));
    });
}

void ClusterQueue::SetQueueState(const PListDict& config) {
    ApplyState(config, [](std::size_t) { return NewId(); });
}

namespace {

PListDict OnlySection(const PListDict& state, const std::string& section) {
    PListDict only;
    only.SetItem(section, state.GetArray(section));
    return only;
}

}  // namespace

void ClusterQueue::SetEventState(const PListDict& state) {
    SetQueueState(OnlySection(state, Keys::event_list));
}
void ClusterQueue::SetTimerState(const PListDict& state) {
    SetQueueState(OnlySection(state, Keys::timer_list));
}
void ClusterQueue::SetWatchState(const PListDict& state) {
    SetQueueState(OnlySection(state, Keys::watch_list));
}

// Timers have ids that follow from what the document says of them.
void ClusterQueue::Import(const PListDict& document) {
    const PListArray& timers = document.GetArray(Keys::timer_list);
    ApplyState(document, [&](std::size_t index) {
        std::string json;
        std::size_t at = 0;
        for (const PListItem& item : timers)
            if (at++ == index) (void)item.EncodeJSON(json);
        ui64_t hash = 14695981039346656037u ^ index;
        for (const char c : json) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
        char text[64];
        std::snprintf(text, sizeof text, "1a90ff1e-0000-4000-%04llx-%012llx",
                      0x8000ull | (hash >> 48 & 0x3fff),
                      static_cast<unsigned long long>(hash & 0xffffffffffff));
        return std::string(text);
    });
}

// Several nodes may do so at once: whatever is there already is not made twice, timers included, whose ids
// follow from their places.
void ClusterQueue::Seed(const PListDict& document) {
    bool seeded = false;
    m_Registry.Look([&](const Cluster::Documents& documents) { seeded = documents.contains(Key::Seeded); });
    if (seeded) return;
    ApplyState(document, [](std::size_t index) {
        char text[64];
        std::snprintf(text, sizeof text, "5eed0000-0000-4000-8000-%012zx", index);
        return std::string(text);
    });
    PListDict marker;
    marker.SetValue("node", m_Engine.Of().Node);
    (void)Changed([&](const Cluster::Documents& documents) {
        if (documents.contains(Key::Seeded)) return Decision{Velmora::STATUS_200_OK, {}};
        return Decision{Velmora::STATUS_201_CREATED, {{Key::Seeded, marker}}};
    });
}

// ---------------------------------------------------------------- postings

bool ClusterQueue::FindEvent(const std::string& name, PListDict& data) const {
    const std::string key = Key::Event(name);
    bool found = false;
    m_Registry.Look([&](const Cluster::Documents& documents) {
        const auto event = documents.find(key);
        found = event != documents.end();
        if (found) data = event->second.GetDict(Keys::event_data);
    });
    return found;
}

void ClusterQueue::Post(const std::string& event_name, std::string json, const std::string& id, Done done) {
    PListDict event_data;
    if (EncodeName(event_name).size() > LongestName || !FindEvent(event_name, event_data)) {
        const bool unread = !m_Registry.WasRead();
        done({unread ? Fate::Unavailable : Fate::NoSuchEvent, {}, "the registry has not been read yet"});
        return;
    }
    Sending sending =
        PostingMessage(m_Engine, event_name, std::move(json), event_data, m_Registry.Revision());
    sending.Id = id.empty() ? NewId() : id;
    m_Publisher.Send(std::move(sending), Deadline(), [done = std::move(done)](const Sent& sent) {
        Outcome outcome{FateOf(sent.What), {}, sent.Why};
        outcome.Id.Number = sent.Sequence;
        done(outcome);
    });
}

// For watches and the like: nobody waits, and what the engine does not take is logged.
bool ClusterQueue::PostEvent(const std::string& event_name, const PListDict* value) {
    std::string json;
    if (value) (void)value->EncodeJSON(json);
    PListDict ignored;
    if (!FindEvent(event_name, ignored)) return false;
    Post(event_name, std::move(json), std::string(), [event_name](const Outcome& outcome) {
        if (outcome.What != Fate::Stored)
            Mirel::DefaultLogSink().Error("A posting of \"%s\" was not stored: %s\n", event_name.c_str(),
                                          outcome.Why.c_str());
    });
    return true;
}

// ---------------------------------------------------------------- what other nodes have changed

void ClusterQueue::Apply(const std::string& key, const PListDict* before, const PListDict* after) {
    if (key.starts_with(Key::Events)) {
        ApplyEvent(before, after);
    } else if (key.starts_with(Key::Timers)) {
        ApplyTimer(before, after);
    } else if (key.starts_with(Key::Watches + m_Engine.Of().Node + ".")) {
        ApplyWatch(before, after);
    }
}

void ClusterQueue::ApplyEvent(const PListDict* before, const PListDict* after) {
    const std::string name =
        (after ? after : before) ? (after ? after : before)->GetData(Keys::event_name).Text() : std::string();
    if (name.empty()) return;
    const bool kept =
        before && after && before->GetDict(Keys::event_data) == after->GetDict(Keys::event_data);
    if (before && !kept) (void)EventQueue::DeleteEvent(name);
    if (!after) return;
    if (!kept) {
        PListDict data = after->GetDict(Keys::event_data);
        (void)EventQueue::CreateEvent(name, &data);
    }
    ApplyListeners(name, kept ? *before : PListDict(), *after);
}

namespace {

bool HasListener(const PListDict& event, std::string_view id) {
    for (const PListItem& item : event.GetArray(Keys::listener_list)) {
        const auto* entry = dynamic_cast<const PListDict*>(&item);
        if (entry && entry->GetData(Keys::id).TextView() == id) return true;
    }
    return false;
}

void EachListenerNotIn(const PListDict& of, const PListDict& other,
                       const std::function<void(const PListDict&, const UUID&)>& visit) {
    for (const PListItem& item : of.GetArray(Keys::listener_list)) {
        const auto* entry = dynamic_cast<const PListDict*>(&item);
        UUID id;
        if (entry && !HasListener(other, entry->GetData(Keys::id).TextView()) &&
            Mirel::UUIDFromText(entry->GetData(Keys::id).Text(), id))
            visit(*entry, id);
    }
}

}  // namespace

void ClusterQueue::ApplyListeners(const std::string& name, const PListDict& before, const PListDict& after) {
    EachListenerNotIn(before, after, [&](const PListDict&, const UUID& id) {
        (void)EventQueue::DeleteEventListener(name, id);
    });
    EachListenerNotIn(after, before, [&](const PListDict& entry, const UUID& id) {
        (void)AddEventListener(name, id, entry.GetData(Keys::callback).Text(),
                               DictOf(entry, Keys::listener_data));
    });
}

void ClusterQueue::ApplyTimer(const PListDict* before, const PListDict* after) {
    UUID id;
    const PListDict* either = after ? after : before;
    if (!either || !Mirel::UUIDFromText(either->GetData(Keys::id).Text(), id)) return;
    if (before) (void)EventQueue::DeleteTimer(id);
    if (!after) return;
    long long interval = 0, start_us = 0;
    after->GetData(Keys::interval_sec).GetValue(interval);
    after->GetData("start_us").GetValue(start_us);
    EventManager::Timer timer(after->GetData(Keys::event_name).Text(), interval,
                              Mirel::Timestamp::FromMicroseconds(start_us), after->GetDict(Keys::timer_data));
    timer.id = id;
    AddTimer(timer);
}

void ClusterQueue::ApplyWatch(const PListDict* before, const PListDict* after) {
    if (before) (void)EventQueue::DeleteWatch(before->GetData(Keys::path).Text());
    if (!after) return;
    bool once = false;
    after->GetData(Keys::once).GetValue(once);
    (void)EventQueue::CreateWatch(after->GetData(Keys::path).Text(), after->GetData(Keys::event_name).Text(),
                                  DictOf(*after, Keys::watch_data), once);
}

// A watch that was deleted a moment ago is in the way of the same one made anew until the worker has passed;
// one that the kernel refuses is dropped by the worker each time.
void ClusterQueue::ReconcileWatches() {
    PListDict state;
    EventQueue::GetWatchState(state);
    std::map<std::string, bool> here;
    for (const PListItem& item : std::as_const(state).GetArray(Keys::watch_list))
        here[static_cast<const PListDict&>(item).GetData(Keys::path).Text()] = true;
    std::map<std::string, PListDict> missing;
    m_Registry.Look([&](const Cluster::Documents& documents) {
        EachDocument(documents, Key::Watches + m_Engine.Of().Node + ".",
                     [&](const std::string& key, const PListDict& watch) {
                         if (!here.contains(watch.GetData(Keys::path).Text())) missing[key] = watch;
                     });
    });
    std::erase_if(m_WatchAttempts, [&](const auto& attempt) { return !missing.contains(attempt.first); });
    for (const auto& entry : missing) {
        const std::string& key = entry.first;
        const PListDict& watch = entry.second;
        if (++m_WatchAttempts[key] <= 2) {
            ApplyWatch(nullptr, &watch);
            continue;
        }
        Mirel::DefaultLogSink().Warn(
            "The watch on \"%s\" is taken from the registry: it cannot be watched here\n",
            watch.GetData(Keys::path).Text().c_str());
        (void)Changed([&](const Cluster::Documents& documents) { return DeleteDocument(documents, key); });
    }
}

}  // namespace Cluster
