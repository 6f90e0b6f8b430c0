// Writes to the socket that the service manager has named.
#include "service/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "EventManager.h"
#include "MR_log.h"

namespace Server {

namespace {

std::string TakeFromEnvironment(const char* name) {
    const char* const value = std::getenv(name);
    const std::string text = value == nullptr ? "" : value;
    unsetenv(name);
    return text;
}

// Only what is meant for this process: it may be inherited.
std::chrono::microseconds WatchdogFromEnvironment() {
    const std::string limit = TakeFromEnvironment("WATCHDOG_USEC"), pid = TakeFromEnvironment("WATCHDOG_PID");
    if (!pid.empty() && pid != std::to_string(getpid())) return {};
    return std::chrono::microseconds(std::strtoll(limit.c_str(), nullptr, 10));
}

// False where the address is none that a socket can have.
bool SocketAddress(const std::string& text, sockaddr_un& address, socklen_t& size) {
    if (text.size() < 2 || text.size() >= sizeof address.sun_path) return false;
    address.sun_family = AF_UNIX;
    std::copy(text.begin(), text.end(), address.sun_path);
    if (text[0] == '@') address.sun_path[0] = '\0';  // of the abstract namespace
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size());
    return text[0] == '@' || text[0] == '/';
}

bool Send(const std::string& to, const std::string& lines) {
    sockaddr_un address{};
    socklen_t size = 0;
    errno = EINVAL;
    if (!SocketAddress(to, address, size)) return false;
    const int own = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (own < 0) return false;
    const ssize_t sent = sendto(own, lines.data(), lines.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), size);
    const int reason = errno;
    close(own);
    errno = reason;
    return sent == static_cast<ssize_t>(lines.size());
}

}  // namespace

ServiceManager::ServiceManager()
    : m_Address(TakeFromEnvironment("NOTIFY_SOCKET")), m_WatchdogLimit(WatchdogFromEnvironment()) {}

void ServiceManager::Tell(const std::string& lines) const {
    if (m_Address.empty() || Send(m_Address, lines)) return;
    Mirel::DefaultLogSink().Warn("Cannot tell the service manager at \"%s\": %s\n", m_Address.c_str(),
                                 std::strerror(errno));
}

void ServiceManager::TellReloading() const {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    Tell("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(us));
}

void Watchdog::Look() {
    const Mirel::ui64_t passes = EventManager::GetQueueStatistics().Passes;
    if (passes == m_Passes) return;
    m_Passes = passes;
    m_Manager.Tell("WATCHDOG=1");
}

}  // namespace Server
