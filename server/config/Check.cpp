// Whether a queue state document would be applied whole.
#include <limits>
#include <set>
#include <utility>

#include "EventManager.h"
#include "VL_HTTP.h"
#include "config/Config.h"
#include "config/QueueShape.h"
#include "config/Secrets.h"

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

bool CanBeCalled(const std::string& callback) {
    Velmora::URL url;
    return callback.find("python://") != std::string::npos || url.Parse(callback) || url.ParsePath(callback);
}

void CheckListener(const Velmora::PListDict& entry, const std::string& pointer,
                   std::set<std::string>& callbacks, std::vector<Fault>& faults) {
    Shape shape(entry, pointer, faults);
    const auto callback = shape.NonEmptyText(Keys::callback, Need::Required);
    if (callback && !CanBeCalled(*callback)) {
        shape.Blame(Keys::callback,
                    "must be a URL, a path on this server or \"python://\" and a module's name");
    } else if (callback && LacksCredentials(*callback)) {
        shape.Blame(Keys::callback, NeedsSecret);
    } else if (callback && !callbacks.insert(*callback).second) {
        shape.Blame(Keys::callback, "stands twice in this event");
    }
    shape.Dict(Keys::listener_data);
    shape.Any(Keys::id);
    shape.NothingElse();
}

void CheckEvent(const Velmora::PListDict& entry, const std::string& pointer, std::set<std::string>& names,
                std::vector<Fault>& faults) {
    Shape shape(entry, pointer, faults);
    const auto name = shape.NonEmptyText(Keys::event_name, Need::Required);
    if (name && !names.insert(*name).second) shape.Blame(Keys::event_name, "stands twice in the document");
    shape.Dict(Keys::event_data);
    std::set<std::string> callbacks;
    if (const Velmora::PListArray* listeners = shape.Array(Keys::listener_list)) {
        EachEntry(*listeners, PointerTo(pointer, Keys::listener_list), faults,
                  [&](const Velmora::PListDict& listener, const std::string& at) {
                      CheckListener(listener, at, callbacks, faults);
                  });
    }
    shape.NothingElse();
}

void CheckTimer(const Velmora::PListDict& entry, const std::string& pointer, std::vector<Fault>& faults) {
    Shape shape(entry, pointer, faults);
    shape.NonEmptyText(Keys::event_name, Need::Required);
    ReadTimerTimes(shape);
    shape.Dict(Keys::timer_data);
    shape.Any(Keys::id);
    shape.NothingElse();
}

using PathSet = std::set<std::string, Velmora::ci_comp>;

void CheckWatch(const Velmora::PListDict& entry, const std::string& pointer, PathSet& paths,
                std::vector<Fault>& faults) {
    Shape shape(entry, pointer, faults);
    const auto path = ReadWatchPath(shape);
    if (path && !paths.insert(*path).second) {
        shape.Blame(Keys::path, "stands twice in the document (letter case does not count)");
    }
    shape.NonEmptyText(Keys::event_name, Need::Required);
    shape.Boolean(Keys::once);
    shape.Dict(Keys::watch_data);
    shape.NothingElse();
}

}  // namespace

void CheckQueueDocument(const Velmora::PListDict& document, const std::string& base,
                        std::vector<ConfigFault>& faults) {
    Shape shape(document, base, faults);
    std::set<std::string> names;
    PathSet paths;
    if (const Velmora::PListArray* events = shape.Array(Keys::event_list)) {
        EachEntry(*events, PointerTo(base, Keys::event_list), faults,
                  [&](const Velmora::PListDict& entry, const std::string& at) {
                      CheckEvent(entry, at, names, faults);
                  });
    }
    if (const Velmora::PListArray* timers = shape.Array(Keys::timer_list)) {
        EachEntry(
            *timers, PointerTo(base, Keys::timer_list), faults,
            [&](const Velmora::PListDict& entry, const std::string& at) { CheckTimer(entry, at, faults); });
    }
    if (const Velmora::PListArray* watches = shape.Array(Keys::watch_list)) {
        EachEntry(*watches, PointerTo(base, Keys::watch_list), faults,
                  [&](const Velmora::PListDict& entry, const std::string& at) {
                      CheckWatch(entry, at, paths, faults);
                  });
    }
    for (const std::string& limit : {Keys::max_listeners, Keys::max_watches}) {
        shape.Integer(limit, std::numeric_limits<i32_t>::min(), std::numeric_limits<i32_t>::max());
    }
    shape.NothingElse();
}

}  // namespace Server
