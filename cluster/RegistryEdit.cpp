#include "RegistryEdit.h"

#include <set>

#include "Names.h"
#include "VL_HTTP.h"

namespace Cluster {

namespace Keys = EventManager::Strings;
using Mirel::i32_t;
using Velmora::PListArray;
using Velmora::PListItem;

namespace Key {

std::string Event(const std::string& name) {
    return Events + EncodeName(name);
}
std::string Timer(const std::string& id) {
    return Timers + id;
}
std::string Fired(const std::string& id) {
    return Fireds + id;
}
std::string Watch(const std::string& node, const std::string& path) {
    return Watches + node + "." + EncodeName(path);
}

}  // namespace Key

namespace {

const PListDict* AsDict(const PListItem& item) {
    return dynamic_cast<const PListDict*>(&item);
}

Decision Refuse(Velmora::Status_t status) {
    return {status, {}};
}

// As unsigned, so that a negative limit is none.
bool IsOver(std::size_t count, i32_t limit) {
    return limit >= 0 && count > static_cast<std::size_t>(limit);
}

bool HasTooManyListeners(const Documents& documents, i32_t limit) {
    if (limit < 0) return false;
    std::size_t count = 0;
    EachDocument(documents, Key::Events, [&](const std::string&, const PListDict& event) {
        count += event.GetArray(Keys::listener_list).Size();
    });
    return IsOver(count, limit);
}

bool IsUsable(const std::string& callback) {
    Velmora::URL url;
    return callback.find("python://") != std::string::npos || url.Parse(callback) || url.ParsePath(callback);
}

bool HasCallback(const PListDict& event, const std::string& callback) {
    for (const PListItem& item : event.GetArray(Keys::listener_list)) {
        const PListDict* entry = AsDict(item);
        if (entry && entry->GetData(Keys::callback).TextView() == callback) return true;
    }
    return false;
}

PListDict WithListener(const PListDict& event, const std::string& callback, const PListDict* data,
                       const Mirel::UUID& id) {
    PListDict entry;
    entry.SetValue(Keys::id, Mirel::UUIDText(id));
    entry.SetValue(Keys::callback, callback);
    if (data && !data->Empty()) entry.SetItem(Keys::listener_data, *data);
    PListArray listeners = event.GetArray(Keys::listener_list);
    listeners.Append(entry);
    PListDict changed = event;
    changed.SetItem(Keys::listener_list, listeners);
    return changed;
}

bool SamePath(const std::string& a, const std::string& b) {
    const Velmora::ci_comp less;
    return !less(a, b) && !less(b, a);
}

}  // namespace

void EachDocument(const Documents& documents, const std::string& prefix,
                  const std::function<void(const std::string&, const PListDict&)>& visit) {
    for (auto it = documents.lower_bound(prefix); it != documents.end() && it->first.starts_with(prefix);
         ++it)
        visit(it->first, it->second);
}

i32_t LimitOf(const Documents& documents, const std::string& limit, i32_t otherwise) {
    const auto found = documents.find(Key::Limits);
    int value = otherwise;
    if (found != documents.end()) found->second.GetData(limit).GetValue(value, otherwise);
    return value;
}

Decision CreateEvent(const Documents& documents, const std::string& name, const PListDict& data,
                     i32_t max_listeners) {
    if (HasTooManyListeners(documents, max_listeners)) return Refuse(Velmora::STATUS_409_CONFLICT);
    const std::string key = Key::Event(name);
    if (documents.contains(key)) return Refuse(Velmora::STATUS_412_PRECOND_FAILED);
    PListDict event;
    event.SetValue(Keys::event_name, name);
    if (!data.Empty()) event.SetItem(Keys::event_data, data);
    event.SetItem(Keys::listener_list, PListArray());
    return {Velmora::STATUS_201_CREATED, {{key, event}}};
}

Decision CreateListener(const Documents& documents, const std::string& name, const std::string& callback,
                        const PListDict* data, const Mirel::UUID& id, i32_t max_listeners) {
    if (HasTooManyListeners(documents, max_listeners)) return Refuse(Velmora::STATUS_409_CONFLICT);
    const std::string key = Key::Event(name);
    const auto event = documents.find(key);
    if (event == documents.end()) return Refuse(Velmora::STATUS_404_NOT_FOUND);
    if (!IsUsable(callback)) return Refuse(Velmora::STATUS_400_BAD_REQ);
    if (HasCallback(event->second, callback)) return Refuse(Velmora::STATUS_412_PRECOND_FAILED);
    return {Velmora::STATUS_201_CREATED, {{key, WithListener(event->second, callback, data, id)}}};
}

Decision DeleteListener(const Documents& documents, const std::string& name, const Mirel::UUID& id) {
    const std::string key = Key::Event(name), text = Mirel::UUIDText(id);
    const auto event = documents.find(key);
    if (event == documents.end()) return Refuse(Velmora::STATUS_404_NOT_FOUND);
    PListArray left;
    for (const PListItem& item : event->second.GetArray(Keys::listener_list)) {
        const PListDict* entry = AsDict(item);
        if (entry && entry->GetData(Keys::id).TextView() != text) left.Append(item);
    }
    if (left.Size() == event->second.GetArray(Keys::listener_list).Size())
        return Refuse(Velmora::STATUS_404_NOT_FOUND);
    PListDict changed = event->second;
    changed.SetItem(Keys::listener_list, left);
    return {Velmora::STATUS_200_OK, {{key, changed}}};
}

Decision DeleteListeners(const Documents& documents, const std::string& name) {
    const std::string key = Key::Event(name);
    const auto event = documents.find(key);
    if (event == documents.end()) return Refuse(Velmora::STATUS_404_NOT_FOUND);
    PListDict changed = event->second;
    changed.SetItem(Keys::listener_list, PListArray());
    return {Velmora::STATUS_200_OK, {{key, changed}}};
}

Decision DeleteDocument(const Documents& documents, const std::string& key) {
    if (!documents.contains(key)) return Refuse(Velmora::STATUS_404_NOT_FOUND);
    return {Velmora::STATUS_200_OK, {{key, std::nullopt}}};
}

Decision DeleteDocuments(const Documents& documents, std::initializer_list<std::string> prefixes) {
    Decision decision{Velmora::STATUS_200_OK, {}};
    for (const std::string& prefix : prefixes) {
        EachDocument(documents, prefix, [&](const std::string& key, const PListDict&) {
            decision.Puts.push_back({key, std::nullopt});
        });
    }
    return decision;
}

Decision DeleteTimer(const Documents& documents, const std::string& id) {
    Decision decision = DeleteDocument(documents, Key::Timer(id));
    if (!decision.Puts.empty() && documents.contains(Key::Fired(id)))
        decision.Puts.push_back({Key::Fired(id), std::nullopt});
    return decision;
}

Decision CreateWatch(const Documents& documents, const std::string& node, const PListDict& entry,
                     i32_t max_watches) {
    const std::string path = entry.GetData(Keys::path).Text();
    std::size_t count = 0;
    bool watched = false;
    EachDocument(documents, Key::Watches, [&](const std::string& key, const PListDict& watch) {
        ++count;
        if (key.starts_with(Key::Watches + node + ".") && SamePath(watch.GetData(Keys::path).Text(), path))
            watched = true;
    });
    if (IsOver(count, max_watches) || watched) return Refuse(Velmora::STATUS_409_CONFLICT);
    PListDict document = entry;
    document.SetValue("node", node);
    return {Velmora::STATUS_201_CREATED, {{Key::Watch(node, path), document}}};
}

Decision DeleteWatch(const Documents& documents, const std::string& node, const std::string& path) {
    std::string own, other;
    EachDocument(documents, Key::Watches, [&](const std::string& key, const PListDict& watch) {
        if (!SamePath(watch.GetData(Keys::path).Text(), path)) return;
        (key.starts_with(Key::Watches + node + ".") ? own : other) = key;
    });
    if (own.empty()) own = other;
    return own.empty() ? Refuse(Velmora::STATUS_404_NOT_FOUND)
                       : Decision{Velmora::STATUS_200_OK, {{own, std::nullopt}}};
}

PListDict TimerDocument(const std::string& id, const std::string& event_name, i64_t start_us,
                        i64_t interval_sec, const PListDict* data) {
    PListDict timer;
    timer.SetValue(Keys::id, id);
    timer.SetValue(Keys::event_name, event_name);
    if (data && !data->Empty()) timer.SetItem(Keys::timer_data, *data);
    timer.SetValue(Keys::interval_sec, std::to_string(interval_sec));
    timer.SetValue("start_us", std::to_string(start_us));
    return timer;
}

namespace {

// Applies a document entry by entry to a copy of the documents, and remembers which keys have changed.
class Application {
  public:
    Application(const Documents& documents, std::string node, i32_t max_listeners, i32_t max_watches)
        : m_Documents(documents),
          m_Node(std::move(node)),
          m_MaxListeners(max_listeners),
          m_MaxWatches(max_watches) {}

    void Event(const PListDict& entry) {
        const std::string name = entry.GetData(Keys::event_name).Text();
        if (name.empty() || EncodeName(name).size() > LongestName) return;
        Take(CreateEvent(m_Documents, name, entry.GetDict(Keys::event_data), m_MaxListeners));
        for (const PListItem& item : entry.GetArray(Keys::listener_list)) {
            const PListDict* listener = AsDict(item);
            if (!listener) continue;
            Mirel::UUID id;
            Mirel::GenRandomValue(id);
            Take(CreateListener(m_Documents, name, listener->GetData(Keys::callback).Text(),
                                &listener->GetDict(Keys::listener_data), id, m_MaxListeners));
        }
    }

    void Timer(const PListDict& entry, const std::string& id, i64_t now_us) {
        long long interval = 0;
        entry.GetData(Keys::interval_sec).GetValue(interval);
        Mirel::Timestamp start = Mirel::Timestamp::FromMicroseconds(now_us);
        const std::string text = entry.GetData(Keys::start_time).Text();
        const std::string name = entry.GetData(Keys::event_name).Text();
        if (name.empty() || (interval == 0 && text.empty())) return;
        if (interval != 0) {
            start.AddSeconds(static_cast<i32_t>(static_cast<Mirel::ui32_t>(interval)));
        } else if (!start.DecodeString(text.c_str())) {
            return;
        }
        if (m_Documents.contains(Key::Timer(id))) return;
        Take({Velmora::STATUS_201_CREATED,
              {{Key::Timer(id),
                TimerDocument(id, name, start.Microseconds(), interval, &entry.GetDict(Keys::timer_data))}}});
    }

    // Whatever node it was on, it is this one's now.
    void Watch(const PListDict& entry) {
        const std::string path = entry.GetData(Keys::path).Text();
        if (path.empty() || EncodeName(path).size() > LongestName) return;
        PListDict watch = entry;
        watch.DeleteItem("node");
        Take(CreateWatch(m_Documents, m_Node, watch, m_MaxWatches));
    }

    Decision Changes() const {
        Decision decision;
        for (const std::string& key : m_Order) decision.Puts.push_back({key, m_Documents.at(key)});
        return decision;
    }

  private:
    void Take(const Decision& decision) {
        for (const Put& put : decision.Puts) {
            if (m_Changed.insert(put.Key).second) m_Order.push_back(put.Key);
            m_Documents[put.Key] = *put.Value;
        }
    }

    Documents m_Documents;
    const std::string m_Node;
    const i32_t m_MaxListeners, m_MaxWatches;
    std::vector<std::string> m_Order;
    std::set<std::string> m_Changed;
};

}  // namespace

Decision ApplyDocument(const Documents& documents, const PListDict& state, const std::string& node,
                       i64_t now_us, const std::function<std::string(std::size_t)>& timer_id,
                       i32_t max_listeners, i32_t max_watches) {
    Application application(documents, node, max_listeners, max_watches);
    for (const PListItem& item : state.GetArray(Keys::event_list)) {
        if (AsDict(item)) application.Event(*AsDict(item));
    }
    std::size_t index = 0;
    for (const PListItem& item : state.GetArray(Keys::timer_list)) {
        if (AsDict(item)) application.Timer(*AsDict(item), timer_id(index), now_us);
        ++index;
    }
    for (const PListItem& item : state.GetArray(Keys::watch_list)) {
        if (AsDict(item)) application.Watch(*AsDict(item));
    }
    return application.Changes();
}

}  // namespace Cluster
