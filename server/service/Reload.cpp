// Reads the configuration anew, finds what differs, and hands it to whom it is for.
#include "service/Reload.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <map>
#include <thread>
#include <utility>

#include "EventManager.h"
#include "MR_log.h"
#include "VL_HTTP.h"

namespace Server {

namespace {

using namespace std::chrono_literals;
using Mirel::DefaultLogSink;

constexpr std::chrono::microseconds IdentityLook = 400ms;

// What is taken without a restart.
const std::vector<std::string> Live = {"/AccessToken",
                                       "/AccessTokenFile",
                                       "/AccessTokens",
                                       "/BindAddress/AllowedHosts",
                                       "/BindAddress/AllowedOrigins",
                                       "/BindAddress/TLSIdentity",
                                       "/Log/Access",
                                       "/Log/Level",
                                       "/Limits/MaxCallers",
                                       "/Limits/MaxListeners",
                                       "/Limits/MaxWatches"};

using Values = std::map<std::string, std::string>;

// JSON texts by pointers; a queue state document and a list are one value.
void Flatten(const Velmora::PListDict& dict, const std::string& base, Values& values) {
    for (const auto& [key, item] : dict) {
        const std::string pointer = PointerTo(base, key);
        const Velmora::PListDict* inner = AsDict(&item);
        if (inner != nullptr && pointer != "/EventManager") {
            Flatten(*inner, pointer, values);
        } else {
            (void)item.EncodeJSON(values[pointer]);
        }
    }
}

// Everything that is in force. Secrets are not among what is printed, and stand as they are.
Values ValuesOf(const Config& config) {
    Values values;
    const auto printed =
        Velmora::PListItem::CreateFromJSON(PrintConfig(config), nullptr, Velmora::PListItem::AnyDepth);
    if (const Velmora::PListDict* dict = AsDict(printed.get())) Flatten(*dict, "", values);
    values["/AccessToken"] = config.Http.AccessToken;
    for (const AccessToken& token : config.Http.AccessTokens) values["/AccessTokens"] += token.Digest;
    for (const Destination& destination : config.Destinations) {
        std::string& value = values["/Destinations"];
        for (const std::string& secret : destination.SigningSecrets) value += secret + '\n';
        for (const auto& [name, text] : destination.Headers) value += text + '\n';
    }
    return values;
}

std::vector<std::string> Differing(const Config& before, const Config& after) {
    Values old = ValuesOf(before);
    std::vector<std::string> pointers;
    for (const auto& [pointer, value] : ValuesOf(after)) {
        const auto found = old.extract(pointer);
        if (found.empty() ? !value.empty() : found.mapped() != value) pointers.push_back(pointer);
    }
    for (const auto& [pointer, value] : old)
        if (!value.empty()) pointers.push_back(pointer);
    std::sort(pointers.begin(), pointers.end());
    return pointers;
}

bool Among(const std::vector<std::string>& keys, const std::string& pointer) {
    return std::any_of(keys.begin(), keys.end(), [&](const std::string& key) {
        return pointer == key || pointer.starts_with(key + "/");
    });
}

std::string Joined(const std::vector<std::string>& texts) {
    std::string joined;
    for (const std::string& text : texts) joined += (joined.empty() ? "" : ", ") + text;
    return joined;
}

void LogOutcome(const ReloadOutcome& outcome) {
    for (const ConfigFault& fault : outcome.Faults) {
        DefaultLogSink().Error(
            "Not reloaded, nothing was changed: %s\n",
            Mirel::EscapeForLog((fault.Pointer.empty() ? "" : fault.Pointer + ": ") + fault.What).c_str());
    }
    if (!outcome.Faults.empty()) return;
    DefaultLogSink().Notice("Reloaded: %s; %zu Python modules anew, %zu failed\n",
                            outcome.Taken.empty() ? "the configuration has not changed"
                                                  : ("taken " + Joined(outcome.Taken)).c_str(),
                            outcome.Handlers.Reloaded.size(), outcome.Handlers.Failed.size());
    if (outcome.NeedsRestart.empty()) return;
    DefaultLogSink().Warn("Only the next start takes %s\n", Joined(outcome.NeedsRestart).c_str());
}

}  // namespace

FileStamp::FileStamp(const std::string& path) {
    if (stat(path.c_str(), &m_Status) != 0) m_Status = {};
}

bool FileStamp::operator==(const FileStamp& other) const {
    return m_Status.st_dev == other.m_Status.st_dev && m_Status.st_ino == other.m_Status.st_ino &&
           m_Status.st_size == other.m_Status.st_size &&
           m_Status.st_mtim.tv_sec == other.m_Status.st_mtim.tv_sec &&
           m_Status.st_mtim.tv_nsec == other.m_Status.st_mtim.tv_nsec;
}

Reload::Reload(CommandLine command_line, const Config& config, HttpServer& server,
               const ServiceManager& manager)
    : m_CommandLine(std::move(command_line)),
      m_Started(config),
      m_Manager(manager),
      m_Config(config),
      m_Server(&server),
      m_Loaded(config.Http.TLSIdentity),
      m_Seen(m_Loaded) {}

void Reload::AlsoTakes(std::vector<std::string> keys, std::function<void(const Config&)> take) {
    m_Extras.push_back({std::move(keys), std::move(take)});
}

ReloadOutcome Reload::Now() {
    ReloadOutcome outcome;
    {
        Mirel::AutoMutex lock(m_Lock);
        outcome = TakeConfig();
    }
    if (outcome.Faults.empty()) outcome.Handlers = Velmora::ReloadHandlers();
    LogOutcome(outcome);
    return outcome;
}

ReloadOutcome Reload::TakeConfig() {
    ReloadOutcome outcome;
    Config config = LoadConfig(m_CommandLine.ConfigFile, outcome.Faults);
    m_CommandLine.ApplyTo(config);
    CheckDestinations(config.Destinations, outcome.Faults);
    if (m_Server == nullptr) outcome.Faults.push_back({"", "the server is ending"});
    if (!outcome.Faults.empty()) return outcome;
    const FileStamp stamp(config.Http.TLSIdentity);
    const Mirel::Result_t taken = m_Server->TakeAnew(config.Http);
    if (taken.Failure()) {
        outcome.Faults.push_back({"/BindAddress", taken.Message()});
        return outcome;
    }
    m_Loaded = m_Seen = stamp;
    Apply(config, outcome);
    return outcome;
}

// What differs is taken, or is for the next start. TLS is not begun or ended in the middle.
void Reload::Apply(const Config& config, ReloadOutcome& outcome) {
    const bool same_scheme = config.Http.TLSIdentity.empty() == m_Started.Http.TLSIdentity.empty();
    const auto is_live = [&](const std::string& pointer) {
        if (pointer == "/BindAddress/TLSIdentity") return same_scheme;
        return Among(Live, pointer) || std::any_of(m_Extras.begin(), m_Extras.end(), [&](const Extra& extra) {
                   return Among(extra.Keys, pointer);
               });
    };
    const std::vector<std::string> differing = Differing(m_Config, config);
    std::copy_if(differing.begin(), differing.end(), std::back_inserter(outcome.Taken), is_live);
    for (const std::string& pointer : Differing(m_Started, config))
        if (!is_live(pointer)) outcome.NeedsRestart.push_back(pointer);
    DefaultLogSink().Level(config.LogLevel);
    TakeLimits(config);
    for (const Extra& extra : m_Extras) {
        const bool wanted = std::any_of(differing.begin(), differing.end(), [&](const std::string& pointer) {
            return Among(extra.Keys, pointer);
        });
        if (wanted) extra.Take(config);
    }
    m_Config = config;
}

// Only what differs: what a request has set since stays otherwise.
void Reload::TakeLimits(const Config& config) {
    EventManager::IEventQueue& queue = EventManager::GlobalEventQueue();
    if (config.MaxListeners != m_Config.MaxListeners) queue.SetMaxListeners(config.MaxListeners);
    if (config.MaxWatches != m_Config.MaxWatches) queue.SetMaxWatches(config.MaxWatches);
    Velmora::SetMaxCallers(config.MaxCallers);
}

void Reload::Start() {
    ++m_Running;
    try {
        std::thread([self = shared_from_this()] {
            self->m_Manager.TellReloading();
            try {
                self->Now();
            } catch (const std::exception& failure) {
                DefaultLogSink().Error("Cannot reload on signal: %s\n", failure.what());
            }
            self->m_Manager.Tell("READY=1");
            --self->m_Running;
        }).detach();
    } catch (const std::exception& failure) {
        --m_Running;
        DefaultLogSink().Error("Cannot reload on signal: %s\n", failure.what());
    }
}

std::chrono::microseconds Reload::LookInterval() const {
    return m_Started.Http.TLSIdentity.empty() ? 0us : IdentityLook;
}

void Reload::LookAtIdentity() {
    Mirel::AutoMutex lock(m_Lock);
    const std::string& path = m_Config.Http.TLSIdentity;
    if (m_Server == nullptr || path.empty()) return;
    const FileStamp stamp(path);
    const bool settled = stamp == m_Seen;
    m_Seen = stamp;
    if (!settled || stamp == m_Loaded) return;
    m_Loaded = stamp;
    const Mirel::Result_t taken = m_Server->TakeAnew(m_Config.Http);
    if (taken.Success()) {
        DefaultLogSink().Notice("The TLS identity \"%s\" has changed, and is taken anew\n", path.c_str());
    } else {
        DefaultLogSink().Error("The TLS identity has changed, and the one before stays: %s\n",
                               taken.Message());
    }
}

void Reload::End() {
    Mirel::AutoMutex lock(m_Lock);
    m_Server = nullptr;
}

}  // namespace Server
