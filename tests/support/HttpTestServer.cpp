// A test's server: accepts, reads requests, and answers by the script.
#include "HttpTestServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace Testing {

namespace {

SSL_CTX* SelfSignedContext() {
    EVP_PKEY* const key = EVP_EC_gen("P-256");
    X509* const certificate = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
    X509_set_pubkey(certificate, key);
    X509_NAME* const name = X509_get_subject_name(certificate);
    const unsigned char text[] = "localhost";
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0);
    X509_set_issuer_name(certificate, name);
    X509_sign(certificate, key, EVP_sha256());

    SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
    const bool good =
        SSL_CTX_use_certificate(context, certificate) == 1 && SSL_CTX_use_PrivateKey(context, key) == 1;
    X509_free(certificate);
    EVP_PKEY_free(key);
    if (!good) throw std::runtime_error("no certificate for the test server");
    return context;
}

// How many bytes a request whose head ends at `head_size` has in all.
std::size_t RequestSize(const std::string& text, std::size_t head_size) {
    const std::string mark = "\r\nContent-Length: ";
    const std::size_t found = text.find(mark);
    const bool has_body = found != std::string::npos && found < head_size;
    return head_size + (has_body ? std::strtoul(text.c_str() + found + mark.size(), nullptr, 10) : 0);
}

}  // namespace

ssize_t TestConnection::Read(char* buffer, std::size_t size) {
    return m_Tls != nullptr ? SSL_read(m_Tls, buffer, static_cast<int>(size))
                            : read(m_Descriptor, buffer, size);
}

void TestConnection::ReadRequest() {
    std::string text;
    char buffer[4096];
    std::size_t wanted = std::string::npos;
    while (text.size() < wanted) {
        const ssize_t got = Read(buffer, sizeof buffer);
        if (got <= 0) break;
        text.append(buffer, static_cast<std::size_t>(got));
        const std::size_t end = text.find("\r\n\r\n");
        if (end != std::string::npos) wanted = RequestSize(text, end + 4);
    }
    m_Server.Record(text);
}

bool TestConnection::Write(const std::string& text) {
    std::size_t sent = 0;
    while (sent < text.size()) {
        const std::size_t rest = text.size() - sent;
        const ssize_t put = m_Tls != nullptr ? SSL_write(m_Tls, text.data() + sent, static_cast<int>(rest))
                                             : write(m_Descriptor, text.data() + sent, rest);
        if (put <= 0) return false;
        sent += static_cast<std::size_t>(put);
    }
    return true;
}

void TestConnection::WaitForClose() {
    char buffer[4096];
    while (Read(buffer, sizeof buffer) > 0) continue;
}

void TestConnection::Reset() {
    const linger at_once{1, 0};
    setsockopt(m_Descriptor, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

bool TestConnection::SessionWasResumed() const {
    return SSL_session_reused(m_Tls) == 1;
}

HttpTestServer::HttpTestServer(Script script, Transport transport, const char* address, int port)
    : m_Script(std::move(script)), m_Tls(transport == Tls ? SelfSignedContext() : nullptr) {
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(static_cast<uint16_t>(port));
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = v6.sin6_port;
    const bool is_v4 = inet_pton(AF_INET, address, &v4.sin_addr) == 1;
    if (!is_v4) inet_pton(AF_INET6, address, &v6.sin6_addr);
    auto* const generic = is_v4 ? reinterpret_cast<sockaddr*>(&v4) : reinterpret_cast<sockaddr*>(&v6);
    socklen_t size = is_v4 ? sizeof v4 : sizeof v6;
    m_Listener = socket(generic->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(m_Listener, generic, size) != 0 || listen(m_Listener, 4096) != 0 ||
        getsockname(m_Listener, generic, &size) != 0) {
        throw std::runtime_error("the test server cannot listen");
    }
    m_Port = ntohs(is_v4 ? v4.sin_port : v6.sin6_port);
    m_Acceptor = std::thread([this] { Accept(); });
}

HttpTestServer::~HttpTestServer() {
    shutdown(m_Listener, SHUT_RDWR);
    m_Acceptor.join();
    close(m_Listener);
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        for (const int descriptor : m_Open) shutdown(descriptor, SHUT_RDWR);
    }
    for (std::thread& thread : m_Threads) thread.join();
    SSL_CTX_free(m_Tls);
}

void HttpTestServer::Accept() {
    for (;;) {
        const int descriptor = accept4(m_Listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor < 0) return;
        std::lock_guard<std::mutex> lock(m_Lock);
        m_Open.insert(descriptor);
        m_Threads.emplace_back([this, descriptor] { Serve(descriptor); });
    }
}

void HttpTestServer::Serve(int descriptor) {
    // A write to a closed connection is to fail on this thread only; a client's is to be seen.
    sigset_t broken_pipe;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);

    SSL* const tls = m_Tls != nullptr ? SSL_new(m_Tls) : nullptr;
    if (tls != nullptr) SSL_set_fd(tls, descriptor);
    TestConnection connection(*this, descriptor, tls);
    if (tls == nullptr || SSL_accept(tls) == 1) m_Script(connection);
    SSL_free(tls);
    std::lock_guard<std::mutex> lock(m_Lock);
    m_Open.erase(descriptor);
    close(descriptor);
}

HttpTestServer::Script HttpTestServer::Answers(const std::string& status, const std::string& extra) {
    return Sends("HTTP/1.1 " + status + "\r\nContent-Length: 0\r\n" + extra + "\r\n");
}

HttpTestServer::Script HttpTestServer::Sends(const std::string& text) {
    return [text](TestConnection& connection) {
        connection.ReadRequest();
        connection.Write(text);
    };
}

std::string HttpTestServer::Url(const std::string& path) const {
    return (m_Tls != nullptr ? "https://" : "http://") + Authority() + path;
}

void HttpTestServer::Record(const std::string& request) {
    std::lock_guard<std::mutex> lock(m_Lock);
    m_Requests.push_back(request);
}

std::vector<std::string> HttpTestServer::Requests() const {
    std::lock_guard<std::mutex> lock(m_Lock);
    return m_Requests;
}

}  // namespace Testing
