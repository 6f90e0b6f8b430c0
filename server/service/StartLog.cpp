// Puts the lines together: what is loaded, where, and how to reach it.
#include "service/StartLog.h"

namespace Server {

namespace {

std::string Number(Mirel::ui64_t count, const char* one, const char* many) {
    return std::to_string(count) + ' ' + (count == 1 ? one : many);
}

std::string Quoted(const std::string& text) {
    return '"' + text + '"';
}

std::string QueueLine(const Config& config, QueueOrigin origin, const EventManager::QueueStatistics& queue) {
    const std::string content =
        Number(queue.Events, "event", "events") + ", " + Number(queue.Listeners, "listener", "listeners") +
        ", " + Number(queue.Timers, "timer", "timers") + ", " + Number(queue.Watches, "watch", "watches");
    if (origin == QueueOrigin::StateFile) return "State file " + Quoted(config.StateFile) + ": " + content;
    if (origin == QueueOrigin::Cluster)
        return "Node " + Quoted(config.Node.Node) + " of the cluster " + Quoted(config.Node.Name) + ": " +
               content;
    const std::string saved = config.StateFile.empty()
                                  ? "no state file, nothing is saved"
                                  : "saved to " + Quoted(config.StateFile) + " from now on";
    return "Queue of the configuration: " + content + "; " + saved;
}

std::string AddressLine(const Config& config, const std::string& url) {
    std::string line = "Address " + url + ": ";
    line += config.Http.TLSIdentity.empty() ? "without TLS" : "TLS with " + Quoted(config.Http.TLSIdentity);
    if (!config.AccessTokenFile.empty()) {
        line += ", access token from " + Quoted(config.AccessTokenFile);
    } else if (!config.Http.AccessToken.empty()) {
        line += ", access token of the configuration";
    }
    if (!config.Http.Guarded()) return line + ", no access token";
    const std::size_t further = config.Http.AccessTokens.size();
    return further == 0 ? line
                        : line + ", " + Number(further, "access token", "access tokens") + " with a role";
}

}  // namespace

std::vector<std::string> StartLines(const Config& config, const std::string& config_file,
                                    const std::string& url, QueueOrigin origin,
                                    const EventManager::QueueStatistics& queue) {
    std::vector<std::string> lines;
    lines.push_back("velmora-server " VELMORA_VERSION ", configuration " +
                    (config_file.empty() ? "of the program" : Quoted(config_file)));
    lines.push_back(QueueLine(config, origin, queue));
    lines.push_back(AddressLine(config, url));
    return lines;
}

}  // namespace Server
