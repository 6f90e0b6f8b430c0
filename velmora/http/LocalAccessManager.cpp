// Makes the process's credential, adds it to calls to the process itself, and recognises it.
#include "LocalAccessManager.h"

#include <netdb.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "MR_mutex.h"
#include "MR_text.h"
#include "MR_util.h"

namespace LocalAccessManager {

namespace {

constexpr std::string_view Scheme = "Velmora-Self ";
constexpr std::size_t SecretSize = 32;

std::string MakeCredential() {
    std::array<Mirel::byte_t, SecretSize> secret;
    Mirel::GenRandomBytes(secret.data(), secret.size());
    std::string credential(Scheme);
    for (const Mirel::byte_t byte : secret) Mirel::AppendHex(credential, byte);
    OPENSSL_cleanse(secret.data(), secret.size());
    return credential;
}

// Leaked, so that threads that outlive main may still call.
const std::string& Credential() {
    static const std::string& credential = *new std::string(MakeCredential());
    return credential;
}

// Where the own server listens, as OwnServerAddress() tells it.
struct OwnServer {
    Mirel::Mutex m_Lock;
    std::string m_Address GUARDED_BY(m_Lock);
};

// Leaked like the credential.
OwnServer& Server() {
    static OwnServer& server = *new OwnServer;
    return server;
}

void SetServer(const std::string& address) {
    Mirel::AutoMutex lock(Server().m_Lock);
    Server().m_Address = address;
}

// Nobody connects to "every address": loopback of the same family is one of them, and nobody else can
// listen there at the same port.
void ReachWildcardByLoopback(sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        in_addr& v4 = reinterpret_cast<sockaddr_in&>(address).sin_addr;
        if (v4.s_addr == htonl(INADDR_ANY)) v4.s_addr = htonl(INADDR_LOOPBACK);
    } else if (address.ss_family == AF_INET6) {
        in6_addr& v6 = reinterpret_cast<sockaddr_in6&>(address).sin6_addr;
        if (IN6_IS_ADDR_UNSPECIFIED(&v6)) v6 = in6addr_loopback;
    }
}

}  // namespace

Mirel::Result_t ServerListens(int listener) {
    sockaddr_storage address{};
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (getsockname(listener, generic, &size) != 0) return Mirel::RESULT_PARAM.WithMessage(strerror(errno));
    ReachWildcardByLoopback(address);
    char host[NI_MAXHOST];
    char port[NI_MAXSERV];
    const int failure =
        getnameinfo(generic, size, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV);
    if (failure != 0) return Mirel::RESULT_PARAM.WithMessage(gai_strerror(failure));
    const bool v6 = address.ss_family == AF_INET6;
    SetServer((v6 ? "[" + std::string(host) + "]" : std::string(host)) + ":" + port);
    return Mirel::RESULT_OK;
}

void ServerEnded() {
    SetServer(std::string());
}

std::string OwnServerAddress() {
    Mirel::AutoMutex lock(Server().m_Lock);
    return Server().m_Address;
}

Mirel::Result_t SelfAuthRestCallback::Call(Velmora::BasicRestEntryCall& call) {
    if (OwnServerAddress().empty()) return Mirel::RESULT_STATE;
    call.RequestHeaders[Velmora::Strings::Authorization] = Credential();
    return Mirel::RESULT_OK;
}

bool IsSelfAuthorized(std::string_view authorization) {
    const std::string& credential = Credential();
    // The length is no secret; the rest must not be found out byte by byte.
    return authorization.size() == credential.size() &&
           CRYPTO_memcmp(authorization.data(), credential.data(), credential.size()) == 0;
}

}  // namespace LocalAccessManager
