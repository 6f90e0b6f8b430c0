// The client's end of a feed, to be tested with: reads and writes WebSocket frames, in plain or over TLS.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Testing.h"
#include "VL_WebSocket.h"

namespace Testing {

enum class Link { Pair, TCP, TLS, TLSPair };  // the first three are what most tests go through

/// Two connected sockets.
inline std::pair<int, int> Connected(bool tcp) {
    int ends[2] = {-1, -1};
    if (!tcp) {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        return {ends[0], ends[1]};
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof(address);
    const int listening = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(bind(listening, generic, size), 0);
    EXPECT_EQ(listen(listening, 1), 0);
    EXPECT_EQ(getsockname(listening, generic, &size), 0);
    ends[1] = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(connect(ends[1], generic, size), 0);
    ends[0] = accept(listening, nullptr, nullptr);
    close(listening);
    return {ends[0], ends[1]};
}

/// A TLS context with a certificate of its own making.
inline SSL_CTX* ServerContext() {
    static SSL_CTX* const context = [] {
        SSL_CTX* made = SSL_CTX_new(TLS_method());
        EVP_PKEY* key = EVP_EC_gen("P-256");
        X509* certificate = X509_new();
        X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
        X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
        X509_set_pubkey(certificate, key);
        EXPECT_GT(X509_sign(certificate, key, EVP_sha256()), 0);
        EXPECT_EQ(SSL_CTX_use_certificate(made, certificate), 1);
        EXPECT_EQ(SSL_CTX_use_PrivateKey(made, key), 1);
        X509_free(certificate);
        EVP_PKEY_free(key);
        return made;
    }();
    return context;
}

struct Frame {
    int Opcode = -1;  // -1: the connection has ended instead
    std::string Payload;
    bool operator==(const Frame&) const = default;
    int CloseCode() const {
        if (Opcode != 8 || Payload.size() < 2) return Opcode == 8 ? 0 : -1;
        return static_cast<std::uint8_t>(Payload[0]) << 8 | static_cast<std::uint8_t>(Payload[1]);
    }
};

/// One client. Its reads block, but no longer than postings and answers may take.
class Peer {
  public:
    /// `kernel_room`: bytes of the server's socket buffer, 0 for the usual.
    explicit Peer(Link link = Link::Pair, int kernel_room = 0) {
        std::tie(m_Server, m_Socket) = Connected(link == Link::TCP || link == Link::TLS);
        if (kernel_room > 0) {
            setsockopt(m_Server, SOL_SOCKET, SO_SNDBUF, &kernel_room, sizeof(kernel_room));
            setsockopt(m_Socket, SOL_SOCKET, SO_RCVBUF, &kernel_room, sizeof(kernel_room));
        }
        const timeval limit{Patience, 0};
        setsockopt(m_Socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        if (link == Link::TLS || link == Link::TLSPair) ShakeHands();
    }
    ~Peer() { HangUp(); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    /// What the server is handed.
    Velmora::TCPSession Session(std::string_view received = {}, const std::string& name = "peer") {
        if (!m_ServerTLS) return Velmora::TCPSession::WebSocket(m_Server, name, received);
        Velmora::SocketStream stream(m_Server);
        stream.Secure(m_ServerTLS);
        return Velmora::TCPSession::WebSocket(std::move(stream), name, received);
    }

    /// The same for a client that is told the postings' ids.
    Velmora::TCPSession Subscriber(Velmora::FeedWish wish) {
        Velmora::SocketStream stream(m_Server);
        if (m_ServerTLS) stream.Secure(m_ServerTLS);
        return Velmora::TCPSession::Subscriber(std::move(stream), "peer", {}, std::move(wish));
    }
    /// What comes, up to and with `end` or the end of the connection.
    std::string ReadUntil(const std::string& end) {
        std::string text;
        char byte;
        while (!text.ends_with(end) && ReadAll(&byte, 1)) text += byte;
        return text;
    }

    /// Has the server's TLS take what was written, before the session is made: the socket tells of it no
    /// more.
    void LetServerReadAhead() {
        char byte;
        SSL_set_read_ahead(m_ServerTLS, 1);
        EXPECT_EQ(SSL_peek(m_ServerTLS, &byte, 1), 1);
    }

    void HangUp() {
        SSL_free(std::exchange(m_TLS, nullptr));
        if (m_Socket >= 0) close(std::exchange(m_Socket, -1));
    }

    /// False when the server does not take all of it.
    bool Write(std::string_view bytes) {
        if (m_TLS) return SSL_write(m_TLS, bytes.data(), static_cast<int>(bytes.size())) > 0;
        return send(m_Socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    /// The server's next frame, its header checked.
    Frame Read() {
        std::uint8_t head[10];
        if (!ReadAll(head, 2)) return {};
        EXPECT_EQ(head[0] & 0xF0, 0x80) << "not one whole frame";
        std::uint64_t size = head[1];
        const std::size_t extended = size == 126 ? 2 : size == 127 ? 8 : 0;
        if (!ReadAll(head + 2, extended)) return {};
        if (extended > 0) size = 0;
        for (std::size_t i = 0; i < extended; ++i) size = size << 8 | head[2 + i];
        EXPECT_GE(size, extended == 0 ? 0u : extended == 2 ? 126u : 65536u) << "not in its shortest form";
        Frame frame{head[0] & 0x0F, std::string(size, '\0')};
        return ReadAll(frame.Payload.data(), size) ? frame : Frame{};
    }

    /// Texts up to something else, which `end` is given.
    std::vector<std::string> ReadTexts(Frame* end = nullptr) {
        std::vector<std::string> texts;
        Frame frame = Read();
        for (; frame.Opcode == 1; frame = Read()) texts.push_back(std::move(frame.Payload));
        if (end) *end = frame;
        return texts;
    }

  private:
    void ShakeHands() {
        m_ServerTLS = SSL_new(ServerContext());
        SSL_set_fd(m_ServerTLS, m_Server);
        SSL_CTX* context = SSL_CTX_new(TLS_method());
        m_TLS = SSL_new(context);
        SSL_CTX_free(context);
        SSL_set_fd(m_TLS, m_Socket);
        std::thread client([this] { EXPECT_EQ(SSL_connect(m_TLS), 1); });
        EXPECT_EQ(SSL_accept(m_ServerTLS), 1);
        client.join();
    }

    bool ReadAll(void* to, std::size_t size) {
        auto* out = static_cast<char*>(to);
        while (size > 0) {
            const int part = static_cast<int>(std::min<std::size_t>(size, 1u << 20));
            const ssize_t got =
                m_TLS ? SSL_read(m_TLS, out, part) : recv(m_Socket, out, static_cast<std::size_t>(part), 0);
            if (got <= 0) return false;
            out += got;
            size -= static_cast<std::size_t>(got);
        }
        return true;
    }

    int m_Server = -1;  // the session's, once that is made
    int m_Socket = -1;
    SSL* m_ServerTLS = nullptr;
    SSL* m_TLS = nullptr;
};

/// A client's frame, masked.
inline std::string ClientFrame(int first_byte, std::string_view payload) {
    std::string frame(1, static_cast<char>(first_byte));
    const auto byte = [](std::size_t value) { return static_cast<char>(value & 0xFF); };
    if (payload.size() < 126) {
        frame += byte(0x80 | payload.size());
    } else {
        const int bytes = payload.size() <= 0xFFFF ? 2 : 8;
        frame += byte(bytes == 2 ? 0xFE : 0xFF);
        for (int i = bytes - 1; i >= 0; --i) frame += byte(payload.size() >> (8 * i));
    }
    const std::string mask = "\x11\xA2\x03\x7F";
    frame += mask;
    for (std::size_t i = 0; i < payload.size(); ++i) frame += static_cast<char>(payload[i] ^ mask[i % 4]);
    return frame;
}

}  // namespace Testing
