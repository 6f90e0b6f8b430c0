// Whether a queue state document would be applied whole.
#include <limits>
#include <set>
#include <utility>

#include "EventManager.h"
#include "config/Config.h"
#include "config/QueueShape.h"

namespace Server {

namespace Keys = EventManager::Strings;
using Mirel::i32_t;

namespace {

// Calls `check` with every dictionary of the array and its pointer; whatever else stands there is a fault.
template <class Check>
void EachEntry(const Velmora::PListArray& array, const std::string& base, std::vector<Fault>& faults,
               const Check& check) {
    std::size_t index = 0;
    for (const Velmora::PListItem& item : array) {
        const std::string pointer = PointerTo(base, index++);
        if (const Velmora::PListDict* entry = AsDict(&item)) {
            check(*entry, pointer);
        } else {
            faults.push_back({pointer, "must be an object"});
        }
    }
}

void CheckEvent(const Velmora::PListDict& entry, const std::string& pointer, std::set<std::string>& names,
                DocumentSoFar& document, std::vector<Fault>& faults) {
    Shape shape(entry, pointer, faults);
    const auto name = ReadEventName(shape, &document);
    if (name && !names.insert(*name).second) shape.Blame(Keys::event_name, "stands twice in the document");
    shape.Dict(Keys::event_data);
    document.Callbacks.clear();
    if (const Velmora::PListArray* listeners = shape.Array(Keys::listener_list)) {
        EachEntry(*listeners, PointerTo(pointer, Keys::listener_list), faults,
                  [&](const Velmora::PListDict& listener, const std::string& at) {
                      Shape of_listener(listener, at, faults);
                      ReadListener(of_listener, &document);
                  });
    }
    shape.NothingElse();
}

}  // namespace

void CheckQueueDocument(const Velmora::PListDict& document, const std::string& base,
                        std::vector<ConfigFault>& faults) {
    Shape shape(document, base, faults);
    std::set<std::string> names;
    DocumentSoFar so_far;
    if (const Velmora::PListArray* events = shape.Array(Keys::event_list)) {
        EachEntry(*events, PointerTo(base, Keys::event_list), faults,
                  [&](const Velmora::PListDict& entry, const std::string& at) {
                      CheckEvent(entry, at, names, so_far, faults);
                  });
    }
    if (const Velmora::PListArray* timers = shape.Array(Keys::timer_list)) {
        EachEntry(*timers, PointerTo(base, Keys::timer_list), faults,
                  [&](const Velmora::PListDict& entry, const std::string& at) {
                      Shape of_timer(entry, at, faults);
                      ReadTimer(of_timer, &so_far);
                  });
    }
    if (const Velmora::PListArray* watches = shape.Array(Keys::watch_list)) {
        EachEntry(*watches, PointerTo(base, Keys::watch_list), faults,
                  [&](const Velmora::PListDict& entry, const std::string& at) {
                      Shape of_watch(entry, at, faults);
                      ReadWatch(of_watch, &so_far);
                  });
    }
    for (const std::string& limit : {Keys::max_listeners, Keys::max_watches}) {
        shape.Integer(limit, std::numeric_limits<i32_t>::min(), std::numeric_limits<i32_t>::max());
    }
    shape.NothingElse();
}

}  // namespace Server
