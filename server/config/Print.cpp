// The configuration as it is in force, printed without its secrets.
#if defined(__clang__)  // the library adds to null pointers where it asks whether there is room
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#if defined(__clang__)
#pragma clang attribute pop
#endif

#include <utility>

#include "EventManager.h"
#include "config/ClusterConfig.h"
#include "config/Config.h"
#include "config/Secrets.h"
#include "config/Tokens.h"

namespace Server {

namespace Keys = EventManager::Strings;

namespace {

Velmora::PListArray Texts(const std::vector<std::string>& texts) {
    Velmora::PListArray array;
    for (const std::string& text : texts) array.Append(Velmora::PListData(text));
    return array;
}

Velmora::PListDict AddressInForce(const HttpServerOptions& http) {
    Velmora::PListDict address;
    address.SetValue("Host", http.Host);
    address.SetValue("ListenPort", static_cast<int>(http.Port));
    if (!http.TLSIdentity.empty()) address.SetValue("TLSIdentity", http.TLSIdentity);
    if (!http.BasePath.empty()) address.SetValue("BasePath", http.BasePath);
    address.SetItem("AllowedHosts", Texts(http.AllowedHosts));
    address.SetItem("AllowedOrigins", Texts(http.AllowedOrigins));
    return address;
}

Velmora::PListDict LimitsInForce(const Config& config) {
    const HttpServerOptions& http = config.Http;
    const auto number = [](auto value) { return static_cast<long long>(value); };
    Velmora::PListDict limits;
    limits.SetValue("MaxConnections", number(http.MaxConnections));
    limits.SetValue("MaxFeedClients", number(http.MaxFeedClients));
    limits.SetValue("MaxCallers", number(config.MaxCallers));
    limits.SetValue("MaxBodyBytes", number(http.BodyLimit));
    limits.SetValue("MaxDocumentBytes", number(http.DocumentLimit));
    limits.SetValue("MaxHeaderBytes", number(http.HeaderLimit));
    limits.SetValue("IdleTimeout_ms", number(http.IdleTimeout_ms));
    limits.SetValue("RequestTimeout_ms", number(http.RequestTimeout_ms));
    limits.SetValue("IOThreads", number(http.IOThreads));
    limits.SetValue(Keys::MaxListeners, number(config.MaxListeners));
    limits.SetValue(Keys::MaxWatches, number(config.MaxWatches));
    limits.SetValue("EndTimeout_ms", number(config.EndTimeout_ms));
    return limits;
}

Velmora::PListArray ListenersWithoutCredentials(const Velmora::PListArray& listeners) {
    Velmora::PListArray shown;
    for (const Velmora::PListItem& item : listeners) {
        Velmora::PListDict listener = *AsDict(&item);
        listener.SetValue(Keys::callback, WithoutCredentials(listener.GetData(Keys::callback).Text()));
        shown.Append(listener);
    }
    return shown;
}

Velmora::PListDict DocumentWithoutCredentials(const Velmora::PListDict& document) {
    Velmora::PListDict shown = document;
    Velmora::PListArray events;
    for (const Velmora::PListItem& item : document.GetArray(Keys::event_list)) {
        Velmora::PListDict event = *AsDict(&item);
        const Velmora::PListArray listeners = std::as_const(event).GetArray(Keys::listener_list);
        if (!listeners.Empty()) event.SetItem(Keys::listener_list, ListenersWithoutCredentials(listeners));
        events.Append(event);
    }
    if (document.HasItem(Keys::event_list)) shown.SetItem(Keys::event_list, events);
    return shown;
}

std::string Indented(const std::string& json) {
    rapidjson::StringBuffer out;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(out);
    writer.SetIndent(' ', 2);
    rapidjson::StringStream in(json.c_str());
    rapidjson::Reader reader;
    constexpr unsigned Flags = rapidjson::kParseFullPrecisionFlag | rapidjson::kParseIterativeFlag;
    if (!reader.Parse<Flags>(in, writer)) return json;
    return std::string(out.GetString(), out.GetSize());
}

}  // namespace

std::string PrintConfig(const Config& config) {
    Velmora::PListDict log;
    log.SetValue("Level", Mirel::LogTypeName(config.LogLevel));
    log.SetValue("Format", config.LogAsJSON ? "json" : "text");
    log.SetValue("Access", config.Http.AccessLog);
    Velmora::PListDict python;
    python.SetValue("Reload", config.ReloadHandlers);
    python.SetValue("SlowHandler_ms", static_cast<long long>(config.SlowHandler_ms));
    Velmora::PListDict timers;
    timers.SetValue(Keys::KeepRepeating, config.KeepRepeatingTimers);
    Velmora::PListDict dict;
    dict.SetValue(Keys::Timeout_ms, static_cast<int>(config.Timeout_ms));
    dict.SetItem(Velmora::Strings::Config::BindAddress, AddressInForce(config.Http));
    if (!config.AccessTokenFile.empty()) {
        dict.SetValue("AccessTokenFile", config.AccessTokenFile);
    } else if (!config.Http.AccessToken.empty()) {
        dict.SetValue("AccessToken", HiddenSecret);
    }
    if (!config.Http.AccessTokens.empty())
        dict.SetItem("AccessTokens", AccessTokensInForce(config.Http.AccessTokens));
    if (!config.StateFile.empty()) dict.SetValue(Keys::StateFile, config.StateFile);
    dict.SetItem("PythonPath", Texts(config.PythonPath));
    dict.SetItem("Python", python);
    dict.SetItem("Log", log);
    dict.SetItem("Limits", LimitsInForce(config));
    dict.SetItem(Keys::Timers, timers);
    if (config.Node.IsConfigured()) dict.SetItem("Cluster", ClusterInForce(config.Node));
    if (config.Deliveries.On) dict.SetItem("Deliveries", DeliveriesInForce(config.Deliveries));
    if (!config.Destinations.empty()) {
        dict.SetItem("Destinations", DestinationsInForce(config.Destinations));
    }
    dict.SetItem(Keys::EventManager, DocumentWithoutCredentials(config.EventManager));
    std::string json;
    if (dict.EncodeJSON(json).Failure()) return std::string();
    return Indented(json);
}

}  // namespace Server
