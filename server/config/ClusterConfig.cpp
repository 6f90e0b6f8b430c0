#include "config/ClusterConfig.h"

#include <unistd.h>

#include <algorithm>
#include <limits>

#include "config/Secrets.h"

namespace Server {

namespace {

const std::string ClusterPointer = "/Cluster";

bool IsPlainName(const std::string& name) {
    return !name.empty() && name.size() <= 32 && std::all_of(name.begin(), name.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '_';
    });
}

void TakeName(Shape& shape, const char* key, std::string& name) {
    const auto text = shape.NonEmptyText(key, Need::Required);
    if (!text) return;
    name = *text;
    if (!IsPlainName(name)) shape.Blame(key, "must be 1 to 32 letters, digits, \"-\" and \"_\"");
}

void TakePath(Shape& shape, const char* key, const std::filesystem::path& directory, std::string& path) {
    const auto text = shape.NonEmptyText(key);
    if (!text) return;
    path = (directory / *text).lexically_normal().string();
    if (access(path.c_str(), R_OK) != 0) shape.Blame(key, "cannot be read");
}

void TakeServers(Shape& shape, std::vector<std::string>& servers) {
    servers = shape.Texts("Servers");
    if (servers.empty()) shape.Blame("Servers", "must name at least one server of the engine");
    std::size_t index = 0;
    for (const std::string& server : servers) {
        if (!server.empty() && !server.starts_with("nats://") && !server.starts_with("tls://"))
            shape.Blame("Servers", index, "must be a URL that begins with \"nats://\" or \"tls://\"");
        if (LacksCredentials(server)) shape.Blame("Servers", index, NeedsSecret);
        ++index;
    }
}

void TakeTls(const Velmora::PListDict& dict, const std::filesystem::path& directory,
             Cluster::Settings& settings, std::vector<Fault>& faults) {
    settings.UseTLS = true;
    Shape shape(dict, ClusterPointer + "/TLS", faults);
    TakePath(shape, "CAFile", directory, settings.CAFile);
    TakePath(shape, "CertFile", directory, settings.CertFile);
    TakePath(shape, "KeyFile", directory, settings.KeyFile);
    if (settings.CertFile.empty() != settings.KeyFile.empty())
        shape.Blame("CertFile", "and \"KeyFile\" must stand beside each other");
    shape.NothingElse();
}

}  // namespace

Cluster::Settings ReadCluster(const Velmora::PListDict& dict, const std::filesystem::path& directory,
                              std::vector<Fault>& faults) {
    constexpr Mirel::i64_t Most = std::numeric_limits<Mirel::i64_t>::max(), day_sec = 86400;
    Cluster::Settings settings;
    Shape shape(dict, ClusterPointer, faults);
    TakeName(shape, "Name", settings.Name);
    TakeName(shape, "Node", settings.Node);
    TakeServers(shape, settings.Servers);
    settings.User = shape.NonEmptyText("User").value_or("");
    settings.Password = shape.NonEmptyText("Password").value_or("");
    if (settings.Password == HiddenSecret) shape.Blame("Password", NeedsSecret);
    if (settings.User.empty() != settings.Password.empty())
        shape.Blame("User", "and \"Password\" must stand beside each other");
    TakePath(shape, "CredentialsFile", directory, settings.CredentialsFile);
    if (const Velmora::PListDict* tls = shape.Dict("TLS")) TakeTls(*tls, directory, settings, faults);
    if (const auto replicas = shape.Integer("Replicas", 1, 5))
        settings.Replicas = static_cast<int>(*replicas);
    if (const auto age = shape.Integer("MaxAge_sec", 60, 365 * day_sec)) settings.MaxAge_sec = *age;
    if (const auto bytes = shape.Integer("MaxBytes", 1 << 20, Most)) settings.MaxBytes = *bytes;
    if (const auto late = shape.Integer("TimerLateness_sec", 1, 100)) settings.TimerLateness_sec = *late;
    shape.NothingElse();
    if (settings.Name.empty()) settings.Name = "?";  // configured, and at fault
    return settings;
}

Velmora::PListDict ClusterInForce(const Cluster::Settings& settings) {
    Velmora::PListArray servers;
    for (const std::string& server : settings.Servers)
        servers.Append(Velmora::PListData(WithoutCredentials(server)));
    Velmora::PListDict dict;
    dict.SetValue("Name", settings.Name);
    dict.SetValue("Node", settings.Node);
    dict.SetItem("Servers", servers);
    if (!settings.User.empty()) dict.SetValue("User", settings.User);
    if (!settings.Password.empty()) dict.SetValue("Password", HiddenSecret);
    if (!settings.CredentialsFile.empty()) dict.SetValue("CredentialsFile", settings.CredentialsFile);
    if (settings.UseTLS) {
        Velmora::PListDict tls;
        if (!settings.CAFile.empty()) tls.SetValue("CAFile", settings.CAFile);
        if (!settings.CertFile.empty()) tls.SetValue("CertFile", settings.CertFile);
        if (!settings.KeyFile.empty()) tls.SetValue("KeyFile", settings.KeyFile);
        dict.SetItem("TLS", tls);
    }
    dict.SetValue("Replicas", settings.Replicas);
    dict.SetValue("MaxAge_sec", static_cast<long long>(settings.MaxAge_sec));
    dict.SetValue("MaxBytes", static_cast<long long>(settings.MaxBytes));
    dict.SetValue("TimerLateness_sec", static_cast<long long>(settings.TimerLateness_sec));
    return dict;
}

}  // namespace Server
