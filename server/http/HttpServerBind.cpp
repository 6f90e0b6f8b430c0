// Resolves the address and listens on it.
#include "http/HttpServerBind.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace Server {

namespace {

constexpr int Backlog = 4096;  // the system cuts it to its own limit

Mirel::Result_t CannotListen(const std::string& host, Mirel::ui16_t port, const std::string& reason) {
    return Mirel::RESULT_NETWORK.WithMessage("Cannot listen on " + HostAndPort(host, port) + ": " + reason);
}

bool IsLoopback(const sockaddr* address) {
    if (address->sa_family == AF_INET) {
        return ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr) >> 24 == 127;
    }
    return address->sa_family == AF_INET6 &&
           IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
}

Mirel::ui16_t PortOf(int descriptor) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
    return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                                               : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

}  // namespace

bool ListensOnLoopback(int descriptor) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    return getsockname(descriptor, generic, &length) == 0 && IsLoopback(generic);
}

std::string HostAndPort(const std::string& host, Mirel::ui16_t port) {
    const bool bare_v6 = host.find(':') != host.npos && host[0] != '[';
    return (bare_v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

Mirel::Result_t BindListener(const std::string& host, Mirel::ui16_t port, bool guarded, int& descriptor,
                             Mirel::ui16_t& bound_port) {
    const std::string name = host.size() > 2 && host[0] == '[' ? host.substr(1, host.size() - 2) : host;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int failure = getaddrinfo(name.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (failure != 0) return CannotListen(host, port, gai_strerror(failure));
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> list(found, freeaddrinfo);

    if (!guarded && !IsLoopback(found->ai_addr)) {
        return CannotListen(
            host, port,
            "without an access token only loopback addresses are served; set \"AccessToken\", "
            "\"AccessTokenFile\" or \"AccessTokens\"");
    }
    const int taken = socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (taken < 0) return CannotListen(host, port, std::strerror(errno));
    const int on = 1;
    setsockopt(taken, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(taken, found->ai_addr, found->ai_addrlen) != 0 || listen(taken, Backlog) != 0) {
        const int reason = errno;
        close(taken);
        const Mirel::Result_t failed = CannotListen(host, port, std::strerror(reason));
        return reason == EADDRINUSE ? Mirel::RESULT_STATE.WithMessage(failed.Message()) : failed;
    }
    descriptor = taken;
    bound_port = PortOf(taken);
    return Mirel::RESULT_OK;
}

}  // namespace Server
