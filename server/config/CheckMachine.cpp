// Whether what a configuration names is there, and can be used as the server will use it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string_view>

#include "EventManager.h"
#include "VL_HTTP.h"
#include "config/Config.h"
#include "config/PythonModules.h"
#include "config/StateFile.h"
#include "http/Http.h"
#include "http/HttpServerBind.h"
#include "http/TlsIdentity.h"

namespace Server {

namespace Keys = EventManager::Strings;

namespace {

const std::string AddressPointer = PointerTo("", Velmora::Strings::Config::BindAddress);

bool IsBlamed(const std::vector<Fault>& faults, const std::string& pointer) {
    return std::any_of(faults.begin(), faults.end(),
                       [&](const Fault& fault) { return fault.Pointer == pointer; });
}

bool CanRead(const std::string& path) {
    return faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0;
}

// As the server binds, for a moment. A token that is at fault is a token.
void CheckAddress(const Config& config, std::vector<Fault>& faults, std::vector<Fault>& warnings) {
    const HttpServerOptions& http = config.Http;
    const std::string host = PointerTo(AddressPointer, "Host"),
                      port = PointerTo(AddressPointer, "ListenPort");
    if (IsBlamed(faults, host) || IsBlamed(faults, port)) return;
    const bool guarded =
        http.Guarded() || IsBlamed(faults, "/AccessToken") || IsBlamed(faults, "/AccessTokenFile");
    int descriptor = -1;
    Mirel::ui16_t bound_port = 0;
    const Mirel::Result_t bound = BindListener(http.Host, http.Port, guarded, descriptor, bound_port);
    if (bound.Success()) {
        close(descriptor);
    } else if (bound == Mirel::RESULT_STATE) {
        warnings.push_back({port, bound.Message()});
    } else {
        faults.push_back({host, bound.Message()});
    }
}

void CheckTLSIdentity(const std::string& path, std::vector<Fault>& faults) {
    const std::string pointer = PointerTo(AddressPointer, "TLSIdentity");
    if (path.empty() || IsBlamed(faults, pointer)) return;
    TlsIdentity identity;
    const Mirel::Result_t loaded = identity.Load(path);
    if (loaded.Failure()) faults.push_back({pointer, loaded.Message()});
}

void CheckStateFile(const std::string& path, std::vector<Fault>& faults, std::vector<Fault>& warnings) {
    const std::string pointer = PointerTo("", Keys::StateFile);
    const Mirel::Result_t usable = TryStateFile(path);
    if (usable.Failure())
        (usable == Mirel::RESULT_STATE ? warnings : faults).push_back({pointer, usable.Message()});
    std::optional<Velmora::PListDict> document;
    const Mirel::Result_t read = ReadStateFile(path, document);
    if (read.Failure()) faults.push_back({pointer, read.Message()});
}

// Whether it can be made or written; what is in it is seen when it is opened.
void CheckJournal(const std::string& path, std::vector<Fault>& faults) {
    if (path.empty()) return;
    const bool there = access(path.c_str(), F_OK) == 0;
    const std::string folder = path.substr(0, path.find_last_of('/') + 1);
    const bool usable = (!there || access(path.c_str(), R_OK | W_OK) == 0) &&
                        access(folder.empty() ? "." : folder.c_str(), W_OK | X_OK) == 0;
    if (!usable) {
        faults.push_back(
            {"/Deliveries/Journal", "\"" + path + "\" cannot be written: " + std::strerror(errno)});
    }
}

void CheckPythonPath(const std::vector<std::string>& path, std::vector<Fault>& faults) {
    for (std::size_t i = 0; i < path.size(); ++i) {
        if (CanRead(path[i])) continue;
        faults.push_back(
            {PointerTo("/PythonPath", i), "\"" + path[i] + "\" cannot be read: " + std::strerror(errno)});
    }
}

// What a queue state document refers to.
class References {
  public:
    References(const Velmora::PListDict& document, std::vector<Fault>& faults, std::vector<Fault>& warnings);

  private:
    // Calls `check` with every dictionary of the list and its pointer.
    template <class Check>
    static void Each(const Velmora::PListDict& owner, const std::string& base, const std::string& key,
                     const Check& check) {
        std::size_t index = 0;
        for (const Velmora::PListItem& item : owner.GetArray(key)) {
            const std::string pointer = PointerTo(PointerTo(base, key), index++);
            if (const Velmora::PListDict* entry = AsDict(&item)) check(*entry, pointer);
        }
    }
    void Callback(const std::string& callback, const std::string& pointer);
    void Event(const Velmora::PListDict& entry, const std::string& pointer);
    void WatchedPath(const Velmora::PListDict& watch, const std::string& pointer);

    std::set<std::string> m_Events;
    std::vector<Fault>& m_Faults;
    std::vector<Fault>& m_Warnings;
};

References::References(const Velmora::PListDict& document, std::vector<Fault>& faults,
                       std::vector<Fault>& warnings)
    : m_Faults(faults), m_Warnings(warnings) {
    const std::string base = PointerTo("", Keys::EventManager);
    Each(document, base, Keys::event_list, [&](const Velmora::PListDict& event, const std::string&) {
        m_Events.insert(event.GetData(Keys::event_name).Text());
    });
    Each(document, base, Keys::event_list, [&](const Velmora::PListDict& event, const std::string& at) {
        Each(event, at, Keys::listener_list,
             [&](const Velmora::PListDict& listener, const std::string& inside) {
                 Callback(listener.GetData(Keys::callback).Text(), PointerTo(inside, Keys::callback));
             });
    });
    Each(document, base, Keys::timer_list,
         [&](const Velmora::PListDict& timer, const std::string& at) { Event(timer, at); });
    Each(document, base, Keys::watch_list, [&](const Velmora::PListDict& watch, const std::string& at) {
        WatchedPath(watch, at);
        Event(watch, at);
    });
}

void References::Callback(const std::string& callback, const std::string& pointer) {
    constexpr std::string_view Python = "python://", Chain = "/api/v1/events/";
    if (callback.starts_with(Python)) {
        const std::string module = callback.substr(Python.size());
        if (!HasPythonModule(module))
            m_Faults.push_back({pointer, "there is no Python module \"" + module + "\""});
        return;
    }
    Velmora::URL url;
    if (!callback.starts_with(Chain) || !url.ParsePath(callback)) return;
    const std::string name = url.Path.substr(Chain.size());
    const std::optional<std::string> decoded = PercentDecode(name);
    if (name.find('/') != name.npos || !decoded || m_Events.contains(*decoded)) return;
    m_Warnings.push_back({pointer, "chains to the event \"" + *decoded + "\", which is not in the document"});
}

void References::Event(const Velmora::PListDict& entry, const std::string& pointer) {
    const std::string name = entry.GetData(Keys::event_name).Text();
    if (name.empty() || m_Events.contains(name)) return;
    m_Warnings.push_back({PointerTo(pointer, Keys::event_name),
                          "posts the event \"" + name + "\", which is not in the document"});
}

// The kernel watches what can be read.
void References::WatchedPath(const Velmora::PListDict& watch, const std::string& pointer) {
    const std::string path = watch.GetData(Keys::path).Text();
    if (IsBlamed(m_Faults, PointerTo(pointer, Keys::path)) || CanRead(path)) return;
    m_Warnings.push_back(
        {PointerTo(pointer, Keys::path),
         "\"" + path + "\" cannot be watched: " + std::strerror(errno) + "; the watch will be dropped"});
}

}  // namespace

void CheckMachine(const Config& config, std::vector<ConfigFault>& faults,
                  std::vector<ConfigFault>& warnings) {
    CheckAddress(config, faults, warnings);
    CheckTLSIdentity(config.Http.TLSIdentity, faults);
    CheckStateFile(config.StateFile, faults, warnings);
    CheckPythonPath(config.PythonPath, faults);
    CheckDestinations(config.Destinations, faults);
    CheckInFlight(config.Destinations, config.MaxCallers, warnings);
    CheckJournal(config.Deliveries.Journal, faults);
    if (config.Node.IsConfigured() && faults.empty()) {
        for (const std::string& what : Cluster::CheckEngine(config.Node))
            faults.push_back({"/Cluster", what});
    }
    FindPythonModulesIn(config.PythonPath);
    References(config.EventManager, faults, warnings);
}

}  // namespace Server
