// Checks the names and callbacks of whole documents.
#include "rest/Registration.h"

#include <map>
#include <set>

#include "EventManager.h"
#include "config/QueueShape.h"

namespace Server {

namespace Keys = EventManager::Strings;

namespace {

using CallbacksByEvent = std::map<std::string, std::set<std::string>>;

// Calls `visit` with every dictionary of the list and its pointer.
template <class Visit>
void EachEntry(const Velmora::PListDict& owner, const std::string& list, const std::string& base,
               const Visit& visit) {
    std::size_t index = 0;
    for (const Velmora::PListItem& item : owner.GetArray(list)) {
        const std::string pointer = PointerTo(PointerTo(base, list), index++);
        if (const Velmora::PListDict* entry = AsDict(&item)) visit(*entry, pointer);
    }
}

CallbacksByEvent Callbacks(const Velmora::PListDict& existing) {
    CallbacksByEvent callbacks;
    EachEntry(existing, Keys::event_list, "", [&](const Velmora::PListDict& event, const std::string&) {
        std::set<std::string>& own = callbacks[event.GetData(Keys::event_name).Text()];
        EachEntry(event, Keys::listener_list, "",
                  [&](const Velmora::PListDict& listener, const std::string&) {
                      own.insert(listener.GetData(Keys::callback).Text());
                  });
    });
    return callbacks;
}

void CheckListeners(const Velmora::PListDict& event, const std::string& base,
                    const std::set<std::string>& existing, std::vector<Fault>& faults) {
    EachEntry(event, Keys::listener_list, base,
              [&](const Velmora::PListDict& listener, const std::string& pointer) {
                  const std::string callback = listener.GetData(Keys::callback).Text();
                  if (existing.contains(callback) || IsCallable(callback)) return;
                  faults.push_back({PointerTo(pointer, Keys::callback), CallableForms});
              });
}

}  // namespace

void CheckRegistrations(const Velmora::PListDict& document, const Velmora::PListDict& existing,
                        std::vector<Fault>& faults) {
    CallbacksByEvent known = Callbacks(existing);
    EachEntry(document, Keys::event_list, "",
              [&](const Velmora::PListDict& event, const std::string& pointer) {
                  const std::string name = event.GetData(Keys::event_name).Text();
                  const std::string fault = known.contains(name) ? std::string() : NameFault(name);
                  if (!fault.empty()) faults.push_back({PointerTo(pointer, Keys::event_name), fault});
                  CheckListeners(event, pointer, known[name], faults);
              });
}

}  // namespace Server
