// Names and callbacks that REST takes.
#include "rest/Registration.h"

#include <strings.h>

#include <algorithm>
#include <map>
#include <set>

#include "EventManager.h"
#include "VL_HTTP.h"

namespace Server {

namespace Keys = EventManager::Strings;

namespace {

constexpr std::string_view PythonScheme = "python://";

// Why an event cannot have this name; empty where it can.
std::string NameFault(std::string_view name) {
    if (name.size() > LongestEventName) {
        return "must not be longer than " + std::to_string(LongestEventName) + " bytes";
    }
    if (name == "." || name == "..") return "must not be \".\" or \"..\", which clients take out of a path";
    return std::string();
}

bool IsInModuleName(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.' || static_cast<unsigned char>(c) >= 0x80;
}

// Names parted by dots. What Python makes of bytes beyond ASCII is Python's to say.
bool IsModuleName(std::string_view name) {
    return !name.empty() && name.front() != '.' && name.back() != '.' && name.find("..") == name.npos &&
           std::all_of(name.begin(), name.end(), IsInModuleName);
}

bool IsWebScheme(const std::string& scheme) {
    return strcasecmp(scheme.c_str(), "http") == 0 || strcasecmp(scheme.c_str(), "https") == 0;
}

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

std::optional<std::string> ReadEventName(Shape& shape) {
    auto name = shape.NonEmptyText(Keys::event_name, Need::Required);
    const std::string fault = name ? NameFault(*name) : std::string();
    if (!fault.empty()) shape.Blame(Keys::event_name, fault);
    return name;
}

std::optional<std::string> ReadCallback(Shape& shape) {
    auto callback = shape.Text(Keys::callback, Need::Required);
    if (callback && callback->find('\0') != std::string::npos) {
        shape.Blame(Keys::callback, "must not hold a NUL");
    }
    return callback;
}

bool IsCallable(const std::string& callback) {
    if (callback.starts_with(PythonScheme)) {
        return IsModuleName(std::string_view(callback).substr(PythonScheme.size()));
    }
    Velmora::URL url;
    return url.ParsePath(callback) || (url.Parse(callback) && IsWebScheme(url.Scheme));
}

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
