// Every member of the configuration file, with its shape and its default.
#include "config/Config.h"

#include <arpa/inet.h>
#include <sys/resource.h>
#include <cstring>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <utility>

#include "EventManager.h"
#include "MR_util.h"
#include "VL_HTTP.h"
#include "config/ClusterConfig.h"
#include "config/Tokens.h"
#include "http/AccessPolicy.h"

namespace Server {

namespace Keys = EventManager::Strings;
using Mirel::i32_t;
using Mirel::ui16_t;
using Mirel::ui32_t;

namespace {

constexpr std::size_t LargestConfig = 16u << 20;

bool IsAddress(int family, const std::string& text) {
    in6_addr any{};
    return text.find('\0') == std::string::npos && inet_pton(family, text.c_str(), &any) == 1;
}

// A name that DNS could have. One that ends in a number would be an address.
bool IsHostName(const std::string& name) {
    constexpr std::size_t LongestName = 253, LongestLabel = 63;
    constexpr const char* Digits = "0123456789";
    const std::string allowed =
        std::string(Digits) + "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_-";
    if (name.empty() || name.size() > LongestName) return false;
    std::size_t begin = 0;
    std::string label;
    while (begin < name.size()) {  // behind the last label a dot may stand
        const std::size_t end = std::min(name.find('.', begin), name.size());
        label = name.substr(begin, end - begin);
        if (label.empty() || label.size() > LongestLabel) return false;
        if (label.find_first_not_of(allowed) != label.npos) return false;
        begin = end + 1;
    }
    return label.find_first_not_of(Digits) != label.npos;
}

// What the Host field of a request can carry; a port does no harm.
bool IsHost(const std::string& text) {
    if (IsAddress(AF_INET6, text)) return true;
    const auto split = SplitAuthority(text);
    if (!split) return false;
    const std::string host(split->first);
    return text.front() == '[' ? IsAddress(AF_INET6, host) : IsAddress(AF_INET, host) || IsHostName(host);
}

bool IsOrigin(const std::string& text) {
    for (const auto& [scheme, usual] : {std::pair{"http://", ":80"}, std::pair{"https://", ":443"}}) {
        if (text.rfind(scheme, 0) != 0) continue;
        const std::string authority = text.substr(std::strlen(scheme));
        return IsHost(authority) && !authority.ends_with(usual);
    }
    return false;
}

// Reads one configuration whose file stands in a directory.
class Loader {
  public:
    Loader(Config& config, std::filesystem::path directory, std::vector<Fault>& faults)
        : m_Config(config), m_Directory(std::move(directory)), m_Faults(faults) {}

    void Load(const Velmora::PListDict& dict);

  private:
    std::string Resolved(const std::string& path) const {
        return (m_Directory / path).lexically_normal().string();
    }
    void BindAddress(const Velmora::PListDict& dict);
    void AllowedHosts(Shape& shape);
    void AllowedOrigins(Shape& shape);
    void BasePath(Shape& shape);
    void CheckAnyOrigin();
    void TLSIdentity(Shape& shape);
    void Token(Shape& shape);
    void Log(const Velmora::PListDict& dict);
    void Limits(const Velmora::PListDict& dict);
    void Timers(const Velmora::PListDict& dict);
    void Python(const Velmora::PListDict& dict);
    void Deliveries(Shape& shape);
    void BelongToCluster();
    void Document(const Velmora::PListDict& dict);

    Config& m_Config;
    const std::filesystem::path m_Directory;
    std::vector<Fault>& m_Faults;
};

void Loader::Load(const Velmora::PListDict& dict) {
    Shape shape(dict, "", m_Faults);
    if (const auto timeout =
            shape.Integer(Keys::Timeout_ms, 1, Velmora::TLSHTTPRequestHandle::MaxTimeout_ms)) {
        m_Config.Timeout_ms = static_cast<i32_t>(*timeout);
    }
    if (const Velmora::PListDict* address = shape.Dict(Velmora::Strings::Config::BindAddress))
        BindAddress(*address);
    Token(shape);
    m_Config.Http.AccessTokens =
        ReadAccessTokens(shape, m_Directory.string(), m_Config.Http.AccessToken, m_Faults);
    CheckAnyOrigin();
    if (const auto path = shape.NonEmptyText(Keys::StateFile)) m_Config.StateFile = Resolved(*path);
    for (const std::string& path : shape.Texts("PythonPath")) m_Config.PythonPath.push_back(Resolved(path));
    if (const Velmora::PListDict* python = shape.Dict("Python")) Python(*python);
    if (const Velmora::PListDict* log = shape.Dict("Log")) Log(*log);
    if (const Velmora::PListDict* limits = shape.Dict("Limits")) Limits(*limits);
    if (const Velmora::PListDict* timers = shape.Dict(Keys::Timers)) Timers(*timers);
    Deliveries(shape);
    if (const Velmora::PListDict* document = shape.Dict(Keys::EventManager)) Document(*document);
    if (const Velmora::PListDict* cluster = shape.Dict("Cluster"))
        m_Config.Node = ReadCluster(*cluster, m_Directory, m_Faults);
    if (m_Config.Node.IsConfigured() && !m_Config.StateFile.empty())
        shape.Blame("Cluster", "cannot stand beside \"StateFile\": the cluster keeps the state");
    if (m_Config.Node.IsConfigured() && m_Config.Deliveries.On) BelongToCluster();
    shape.NothingElse();
}

void Loader::BindAddress(const Velmora::PListDict& dict) {
    Shape shape(dict, PointerTo("", Velmora::Strings::Config::BindAddress), m_Faults);
    if (const auto host = shape.NonEmptyText("Host")) m_Config.Http.Host = *host;
    if (const auto port = shape.Integer("ListenPort", 0, 65535))
        m_Config.Http.Port = static_cast<ui16_t>(*port);
    TLSIdentity(shape);
    AllowedHosts(shape);
    AllowedOrigins(shape);
    BasePath(shape);
    shape.NothingElse();
}

void Loader::AllowedHosts(Shape& shape) {
    const std::string key = "AllowedHosts";
    m_Config.Http.AllowedHosts = shape.Texts(key);
    std::size_t index = 0;
    for (const std::string& host : m_Config.Http.AllowedHosts) {
        if (!host.empty() && !IsHost(host)) shape.Blame(key, index, "must be a host name or an IP address");
        ++index;
    }
}

// As a browser writes it: scheme, host and, where it is not the usual one, the port.
void Loader::AllowedOrigins(Shape& shape) {
    const std::string key = "AllowedOrigins";
    m_Config.Http.AllowedOrigins = shape.Texts(key);
    std::size_t index = 0;
    for (const std::string& origin : m_Config.Http.AllowedOrigins) {
        if (!origin.empty() && origin != "*" && !IsOrigin(origin))
            shape.Blame(key, index, "must be an origin (https://host or https://host:port), or \"*\"");
        ++index;
    }
}

// Segments that no client writes in another way.
void Loader::BasePath(Shape& shape) {
    const auto path = shape.NonEmptyText("BasePath");
    if (!path) return;
    m_Config.Http.BasePath = *path;
    constexpr std::string_view Allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_~/";
    if (path->front() != '/' || path->back() == '/' || path->find("//") != path->npos ||
        path->find_first_not_of(Allowed) != path->npos) {
        shape.Blame("BasePath",
                    "must be a path like \"/velmora\", of letters, digits, \"-\", \"_\" and \"~\"");
    }
}

// Pages from anywhere may ask only what needs a token.
void Loader::CheckAnyOrigin() {
    const auto& origins = m_Config.Http.AllowedOrigins;
    const auto any = std::find(origins.begin(), origins.end(), "*");
    if (any == origins.end() || m_Config.Http.Guarded()) return;
    const std::string base =
        PointerTo(PointerTo("", Velmora::Strings::Config::BindAddress), "AllowedOrigins");
    m_Faults.push_back(
        {PointerTo(base, static_cast<std::size_t>(any - origins.begin())),
         "needs an access token: name the origins, or set \"AccessToken\" or \"AccessTokens\""});
}

void Loader::TLSIdentity(Shape& shape) {
    const auto path = shape.NonEmptyText("TLSIdentity");
    if (!path) return;
    m_Config.Http.TLSIdentity = Resolved(*path);
    std::string pem;
    const Mirel::Result_t read = Mirel::ReadFileIntoString(m_Config.Http.TLSIdentity, pem, LargestSecretFile);
    if (read.Failure()) {
        shape.Blame("TLSIdentity", std::string("cannot be read: ") + read.Message());
    } else if (pem.find("-----BEGIN CERTIFICATE") == std::string::npos ||
               pem.find("PRIVATE KEY-----") == std::string::npos) {
        shape.Blame("TLSIdentity", "must be a PEM file that holds a certificate and its private key");
    }
}

void Loader::Token(Shape& shape) {
    const auto token = shape.NonEmptyText("AccessToken");
    const auto path = shape.NonEmptyText("AccessTokenFile");
    if (token) CheckTokenText(shape, "AccessToken", m_Config.Http.AccessToken = *token);
    if (!path) return;
    m_Config.AccessTokenFile = Resolved(*path);
    if (token) shape.Blame("AccessTokenFile", "cannot stand beside \"AccessToken\"");
    m_Config.Http.AccessToken = ReadTokenFile(shape, "AccessTokenFile", m_Config.AccessTokenFile);
}

void Loader::Log(const Velmora::PListDict& dict) {
    Shape shape(dict, "/Log", m_Faults);
    const auto level = shape.Text("Level");
    if (level && !Mirel::LogTypeFromName(*level, m_Config.LogLevel)) {
        shape.Blame("Level", R"(must be "debug", "info", "notice", "warn", "error", "crit" or "alert")");
    }
    const auto format = shape.Text("Format");
    if (format && *format != "text" && *format != "json")
        shape.Blame("Format", R"(must be "text" or "json")");
    m_Config.LogAsJSON = format == "json";
    m_Config.Http.AccessLog = shape.Boolean("Access").value_or(false);
    const bool has_info = m_Config.LogLevel == Mirel::LOG_INFO || m_Config.LogLevel == Mirel::LOG_DEBUG;
    if (m_Config.Http.AccessLog && !has_info)
        shape.Blame("Access", "writes lines of level info, which \"Level\" leaves out");
    shape.NothingElse();
}

// Takes a number into a field of whatever width where it is there.
template <class Field>
void TakeNumber(Shape& shape, const char* key, Mirel::i64_t min, Mirel::i64_t max, Field& field) {
    if (const auto value = shape.Integer(key, min, max)) field = static_cast<Field>(*value);
}

void Loader::Limits(const Velmora::PListDict& dict) {
    constexpr Mirel::i64_t day_ms = 86400000, I32Max = std::numeric_limits<i32_t>::max();
    HttpServerOptions& http = m_Config.Http;
    Shape shape(dict, "/Limits", m_Faults);
    TakeNumber(shape, "MaxConnections", 1, 1000000, http.MaxConnections);
    TakeNumber(shape, "MaxFeedClients", 1, 1000000, http.MaxFeedClients);
    TakeNumber(shape, "MaxCallers", 1, 1000000, m_Config.MaxCallers);
    TakeNumber(shape, "MaxBodyBytes", 1024, 1 << 30, http.BodyLimit);
    TakeNumber(shape, "MaxDocumentBytes", 1024, 1 << 30, http.DocumentLimit);
    TakeNumber(shape, "MaxHeaderBytes", 1024, 1 << 20, http.HeaderLimit);
    TakeNumber(shape, "IdleTimeout_ms", 100, day_ms, http.IdleTimeout_ms);
    TakeNumber(shape, "RequestTimeout_ms", 100, day_ms, http.RequestTimeout_ms);
    TakeNumber(shape, "IOThreads", 0, 256, http.IOThreads);
    TakeNumber(shape, Keys::MaxListeners.c_str(), -1, I32Max, m_Config.MaxListeners);
    TakeNumber(shape, Keys::MaxWatches.c_str(), -1, I32Max, m_Config.MaxWatches);
    TakeNumber(shape, "EndTimeout_ms", 100, day_ms, m_Config.EndTimeout_ms);
    shape.NothingElse();
}

void Loader::Timers(const Velmora::PListDict& dict) {
    Shape shape(dict, PointerTo("", Keys::Timers), m_Faults);
    m_Config.KeepRepeatingTimers = shape.Boolean(Keys::KeepRepeating).value_or(false);
    shape.NothingElse();
}

void Loader::Python(const Velmora::PListDict& dict) {
    Shape shape(dict, "/Python", m_Faults);
    m_Config.ReloadHandlers = shape.Boolean("Reload").value_or(false);
    TakeNumber(shape, "SlowHandler_ms", 0, 86400000, m_Config.SlowHandler_ms);
    shape.NothingElse();
}

void Loader::Deliveries(Shape& shape) {
    const auto resolve = [this](const std::string& path) { return Resolved(path); };
    if (const Velmora::PListDict* settings = shape.Dict("Deliveries")) {
        m_Config.Deliveries = ReadDeliverySettings(*settings, "/Deliveries", resolve, m_Faults);
    }
    if (const Velmora::PListArray* list = shape.Array("Destinations")) {
        m_Config.Destinations = ReadDestinations(*list, "/Destinations", resolve, m_Faults);
    }
    if (!m_Config.Destinations.empty()) m_Config.Deliveries.On = true;
}

// What waits and what is dead.
void Loader::BelongToCluster() {
    m_Config.Node.DeliveriesAge_sec = m_Config.Deliveries.MaxAge_sec;
    if (m_Config.Deliveries.Journal.empty()) return;
    m_Faults.push_back({"/Deliveries/Journal",
                        "cannot stand beside \"Cluster\": the cluster keeps what waits and what is dead"});
}

// The document with the watches' relative paths made to start at the configuration's directory.
void Loader::Document(const Velmora::PListDict& dict) {
    const std::string base = PointerTo("", Keys::EventManager);
    CheckQueueDocument(dict, base, m_Faults);
    m_Config.EventManager = dict;
    if (AsArray(dict.GetItem(Keys::watch_list)) == nullptr) return;
    Velmora::PListArray watches;
    for (const Velmora::PListItem& item : dict.GetArray(Keys::watch_list)) {
        Velmora::PListDict watch =
            AsDict(&item) != nullptr ? *AsDict(&item) : Velmora::PListDict();  // which is a fault
        watch.SetValue(Keys::path, Resolved(watch.GetData(Keys::path).Text()));
        watches.Append(watch);
    }
    m_Config.EventManager.SetItem(Keys::watch_list, watches);
}

}  // namespace

namespace {

// So many as one in `share` of the process's descriptors are enough for, at `for_each` for each of them.
rlim_t ShareOfDescriptors(rlim_t share, rlim_t for_each, rlim_t most) {
    rlimit limit{};  // the server raises it to what it may have
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return most;
    return std::clamp<rlim_t>(limit.rlim_max / share / for_each, 1, most);
}

}  // namespace

ui32_t DefaultMaxCallers() {
    return static_cast<ui32_t>(ShareOfDescriptors(2, 4, 4096));
}

HttpServerOptions DefaultHttpOptions() {
    HttpServerOptions options;
    options.MaxFeedClients = ShareOfDescriptors(4, 1, 65536);
    options.MaxConnections = ShareOfDescriptors(8, 1, 4096);
    return options;
}

Config LoadConfig(const std::string& path, std::vector<ConfigFault>& faults) {
    Config config;
    if (path.empty()) return config;
    std::string text;
    const Mirel::Result_t read = Mirel::ReadFileIntoString(path, text, LargestConfig);
    if (read.Failure()) {
        faults.push_back({"", std::string("cannot be read: ") + read.Message()});
        return config;
    }
    Mirel::Result_t why;
    const std::unique_ptr<Velmora::PListItem> item =
        Velmora::PListItem::CreateFromJSON(text, &why, Velmora::PListItem::AnyDepth);
    const Velmora::PListDict* dict = AsDict(item.get());
    if (dict == nullptr) {
        faults.push_back({"", item ? "must be an object" : std::string("is not JSON: ") + why.Message()});
        return config;
    }
    std::error_code ignored;  // an empty current directory leaves the path relative, which serves as well
    Loader(config, std::filesystem::absolute(path, ignored).parent_path(), faults).Load(*dict);
    return config;
}

Velmora::PListDict Config::ForEventQueue(ui16_t port, const Velmora::PListDict& document) const {
    Velmora::PListDict address;
    address.SetValue("ListenPort", static_cast<int>(port));
    if (!Http.TLSIdentity.empty()) address.SetValue("TLSIdentity", Http.TLSIdentity);
    Velmora::PListDict timers;
    timers.SetValue(Keys::KeepRepeating, KeepRepeatingTimers);
    Velmora::PListDict dict;
    dict.SetValue(Keys::Timeout_ms, static_cast<int>(Timeout_ms));
    dict.SetItem(Velmora::Strings::Config::BindAddress, address);
    dict.SetItem(Keys::Timers, timers);
    dict.SetItem(Keys::EventManager, document);
    dict.SetValue(Keys::MaxListeners, -1);
    dict.SetValue(Keys::MaxWatches, -1);
    if (!StateFile.empty()) dict.SetValue(Keys::StateFile, StateFile);
    return dict;
}

}  // namespace Server
