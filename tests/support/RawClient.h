// A client that sends the very bytes a test wants sent, plain or over TLS, and reads what comes back.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace Testing {

/// One answer as it came: "" for status 0 where the connection ended instead.
struct RawAnswer {
    int Status = 0;
    std::string Head;  // with the empty line
    std::string Body;
    bool Has(std::string_view part) const { return Head.find(part) != std::string::npos; }
};

/// One connection to 127.0.0.1. A read waits at most 20 seconds.
class RawClient {
  public:
    explicit RawClient(unsigned short port, bool tls = false) : RawClient() {
        Connect(port);
        if (tls) StartTls();
    }
    /// A socket that is not connected yet.
    RawClient() : m_Socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const timeval limit{20, 0};
        setsockopt(m_Socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        const int at_once = 1;  // pieces are sent as pieces
        setsockopt(m_Socket, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
    }
    ~RawClient() {
        m_Tls.reset();
        close(m_Socket);
    }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool Connect(unsigned short port) {
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(port);
        server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return connect(m_Socket, reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0;
    }

    /// False where the server has closed before all was sent.
    bool Send(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = m_Tls ? SSL_write(m_Tls.get(), bytes.data(), static_cast<int>(bytes.size()))
                                       : send(m_Socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) return false;
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }
    void EndSending() { shutdown(m_Socket, SHUT_WR); }

    /// Exactly so many bytes, or fewer at the end of the connection.
    std::string Read(std::size_t size) {
        while (m_Received.size() < size && Receive()) {
        }
        const std::string bytes = m_Received.substr(0, size);
        m_Received.erase(0, size);
        return bytes;
    }

    /// The next answer; `head_only` where it is one to HEAD.
    RawAnswer ReadAnswer(bool head_only = false) {
        RawAnswer answer;
        std::size_t end;
        while ((end = m_Received.find("\r\n\r\n")) == std::string::npos) {
            if (!Receive()) return answer;
        }
        answer.Head = Read(end + 4);
        answer.Status = std::atoi(answer.Head.c_str() + 9);
        const std::size_t length = answer.Head.find("Content-Length: ");
        if (length != std::string::npos && !head_only) {
            answer.Body = Read(std::strtoul(answer.Head.c_str() + length + 16, nullptr, 10));
        }
        return answer;
    }
    RawAnswer Ask(std::string_view request) {
        Send(request);
        return ReadAnswer();
    }

    /// Whether the server closes the connection without another byte.
    bool Ends() { return m_Received.empty() && !Receive(); }

  private:
    bool Receive() {
        char bytes[65536];
        const ssize_t got =
            m_Tls ? SSL_read(m_Tls.get(), bytes, sizeof bytes) : recv(m_Socket, bytes, sizeof bytes, 0);
        if (got > 0) m_Received.append(bytes, static_cast<std::size_t>(got));
        return got > 0;
    }

    void StartTls() {
        m_Context.reset(SSL_CTX_new(TLS_client_method()));
        m_Tls.reset(SSL_new(m_Context.get()));
        SSL_set_fd(m_Tls.get(), m_Socket);
        SSL_connect(m_Tls.get());
    }

    struct Free {
        void operator()(SSL* tls) const { SSL_free(tls); }
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    };
    const int m_Socket;
    std::unique_ptr<SSL_CTX, Free> m_Context;
    std::unique_ptr<SSL, Free> m_Tls;
    std::string m_Received;
};

}  // namespace Testing
