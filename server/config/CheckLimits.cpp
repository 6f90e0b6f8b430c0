// Whether a queue state document fits into a queue under its limits.
#include <map>
#include <set>
#include <utility>

#include "EventManager.h"
#include "VL_HTTP.h"
#include "config/Config.h"

namespace Server {

namespace Keys = EventManager::Strings;
using Mirel::i32_t;

namespace {

// A creation is refused once the count is above the limit, and a negative limit is none: both as the queue
// has it.
bool Refused(std::size_t count, i32_t limit) {
    return limit >= 0 && count > static_cast<std::size_t>(limit);
}

std::string Over(const char* what, i32_t limit) {
    return std::string("is beyond the limit: creation stops once there are more than ") +
           std::to_string(limit) + " " + what;
}

// The events with their callbacks as they would be after every creation, one by one.
class ListenerCount {
  public:
    explicit ListenerCount(i32_t limit) : m_Limit(limit) {}

    // False where the queue would refuse to create the event; nothing is then counted.
    bool AddEvent(const std::string& name) {
        if (m_Callbacks.contains(name)) return true;
        if (Refused(m_Count, m_Limit)) return false;
        m_Callbacks[name];
        return true;
    }
    bool AddListener(const std::string& name, const std::string& callback) {
        std::set<std::string>& callbacks = m_Callbacks[name];
        if (callbacks.contains(callback)) return true;
        if (Refused(m_Count, m_Limit)) return false;
        callbacks.insert(callback);
        ++m_Count;
        return true;
    }
    void Limit(i32_t limit) { m_Limit = limit; }

    // The pointer of the first entry of the document that would be refused; empty where all fit.
    std::string Add(const Velmora::PListDict& document) {
        std::size_t index = 0;
        for (const Velmora::PListItem& item : document.GetArray(Keys::event_list)) {
            const std::string pointer = PointerTo(PointerTo("", Keys::event_list), index++);
            const Velmora::PListDict* event = AsDict(&item);
            if (event == nullptr) continue;
            const std::string name = event->GetData(Keys::event_name).Text();
            if (!AddEvent(name)) return pointer;
            const std::string refused = AddListeners(name, *event, pointer);
            if (!refused.empty()) return refused;
        }
        return std::string();
    }

  private:
    std::string AddListeners(const std::string& name, const Velmora::PListDict& event,
                             const std::string& pointer) {
        std::size_t index = 0;
        for (const Velmora::PListItem& item : event.GetArray(Keys::listener_list)) {
            const std::size_t position = index++;
            const Velmora::PListDict* listener = AsDict(&item);
            if (listener == nullptr || AddListener(name, listener->GetData(Keys::callback).Text())) continue;
            return PointerTo(PointerTo(pointer, Keys::listener_list), position);
        }
        return std::string();
    }

    i32_t m_Limit;
    std::size_t m_Count = 0;
    std::map<std::string, std::set<std::string>> m_Callbacks;
};

std::string FirstWatchRefused(const Velmora::PListDict& document, const Velmora::PListDict& existing,
                              i32_t limit) {
    std::set<std::string, Velmora::ci_comp> paths;
    for (const Velmora::PListItem& item : existing.GetArray(Keys::watch_list)) {
        if (const Velmora::PListDict* watch = AsDict(&item)) paths.insert(watch->GetData(Keys::path).Text());
    }
    std::size_t index = 0;
    for (const Velmora::PListItem& item : document.GetArray(Keys::watch_list)) {
        const std::size_t position = index++;
        const Velmora::PListDict* watch = AsDict(&item);
        if (watch == nullptr) continue;
        const std::string path = watch->GetData(Keys::path).Text();
        if (paths.contains(path)) continue;
        if (Refused(paths.size(), limit)) return PointerTo(PointerTo("", Keys::watch_list), position);
        paths.insert(path);
    }
    return std::string();
}

}  // namespace

void CheckQueueLimits(const Velmora::PListDict& document, const Velmora::PListDict& existing,
                      i32_t max_listeners, i32_t max_watches, const std::string& base,
                      std::vector<ConfigFault>& faults) {
    ListenerCount listeners(-1);
    listeners.Add(existing);
    listeners.Limit(max_listeners);
    const std::string event = listeners.Add(document);
    if (!event.empty()) faults.push_back({base + event, Over("listeners", max_listeners)});
    const std::string watch = FirstWatchRefused(document, existing, max_watches);
    if (!watch.empty()) faults.push_back({base + watch, Over("watches", max_watches)});
}

}  // namespace Server
