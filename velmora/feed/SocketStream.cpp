// Reads and writes a descriptor, in plain or through OpenSSL.
#include "VL_Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Velmora {

namespace {

bool MakeNonBlocking(int descriptor) {
    const int flags = fcntl(descriptor, F_GETFL);
    return flags != -1 && fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) != -1;
}

}  // namespace

Mirel::Result_t SetSockNonBlocking(const int& descriptor) {
    if (!MakeNonBlocking(descriptor)) return Mirel::RESULT_PARAM.WithMessage(strerror(errno));
    return Mirel::RESULT_OK;
}

SocketStream::SocketStream(SocketStream&& from) noexcept {
    *this = std::move(from);
}

SocketStream& SocketStream::operator=(SocketStream&& from) noexcept {
    if (this == &from) return *this;
    Close();
    m_Descriptor = std::exchange(from.m_Descriptor, -1);
    m_Error = from.m_Error;
    m_TLSError = from.m_TLSError;
    m_TLS = std::exchange(from.m_TLS, nullptr);
    m_WriteCommitted = from.m_WriteCommitted;
    m_WriteWantsRead = from.m_WriteWantsRead;
    m_ReadWantsWrite = from.m_ReadWantsWrite;
    return *this;
}

std::string SocketStream::Peer() const {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    char text[INET6_ADDRSTRLEN] = "";
    if (getpeername(m_Descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "unknown";
    if (address.ss_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
        inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof(text));
        return "[" + std::string(text) + "]:" + std::to_string(ntohs(v6.sin6_port));
    }
    if (address.ss_family != AF_INET) return "unknown";
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
    inet_ntop(AF_INET, &v4.sin_addr, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(v4.sin_port));
}

void SocketStream::Secure(ssl_st* tls) {
    SSL_free(std::exchange(m_TLS, tls));
}

bool SocketStream::Prepare() {
    int type = 0;
    socklen_t length = sizeof(type);
    if (getsockopt(m_Descriptor, SOL_SOCKET, SO_TYPE, &type, &length) != 0) return Fail(errno), false;
    if (type != SOCK_STREAM) return Fail(EPROTOTYPE), false;
    if (!MakeNonBlocking(m_Descriptor)) return Fail(errno), false;
    const int on = 1;
    // Refused by sockets that are not TCP, which have no delay to switch off.
    static_cast<void>(setsockopt(m_Descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)));
    if (m_TLS) {
        SSL_set_mode(m_TLS, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                SSL_MODE_RELEASE_BUFFERS);
        SSL_clear_mode(m_TLS, SSL_MODE_AUTO_RETRY);
        SSL_set_options(m_TLS, SSL_OP_NO_RENEGOTIATION);
        SSL_set_read_ahead(m_TLS, 0);
    }
    return true;
}

StreamState SocketStream::Handshake() {
    if (!m_TLS) return StreamState::Moved;
    ERR_clear_error();
    return JudgeTLS(SSL_do_handshake(m_TLS), false);
}

StreamState SocketStream::Write(const char* data, std::size_t size, std::size_t& done) {
    const iovec piece{const_cast<char*>(data), size};
    return Write(&piece, 1, done);
}

StreamState SocketStream::Write(const iovec* pieces, std::size_t count, std::size_t& done) {
    done = 0;
    if (m_TLS) {
        StreamState state = StreamState::Moved;
        for (std::size_t i = 0; i < count && state == StreamState::Moved; ++i)
            state = WriteTLS(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len, done);
        return state == StreamState::Blocked && done > 0 ? StreamState::Moved : state;
    }
    constexpr int Flags = MSG_NOSIGNAL | MSG_DONTWAIT;
    // One piece, as nearly always: the simpler call costs the kernel less.
    if (count == 1) return Judge(send(m_Descriptor, pieces->iov_base, pieces->iov_len, Flags), done);
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(pieces);
    message.msg_iovlen = count;
    return Judge(sendmsg(m_Descriptor, &message, Flags), done);
}

// Record by record, until all is sent or the socket takes no more. Adds to `done`.
StreamState SocketStream::WriteTLS(const char* data, std::size_t size, std::size_t& done) {
    StreamState state = StreamState::Moved;
    std::size_t sent = 0;
    while (sent < size && state == StreamState::Moved) {
        std::size_t record = 0;
        ERR_clear_error();
        state = JudgeTLS(SSL_write_ex(m_TLS, data + sent, size - sent, &record), true);
        sent += record;
    }
    // A record that waits to be sent is made of these bytes; OpenSSL wants to be offered no fewer again.
    m_WriteCommitted = state == StreamState::Blocked ? size - sent : 0;
    done += sent;
    return state;
}

StreamState SocketStream::Read(char* data, std::size_t size, std::size_t& done) {
    done = 0;
    if (!m_TLS) return Judge(recv(m_Descriptor, data, size, MSG_DONTWAIT), done);
    ERR_clear_error();
    return JudgeTLS(SSL_read_ex(m_TLS, data, size, &done), false);
}

StreamState SocketStream::Discard(std::size_t& done) {
    char scratch[16384];
    done = 0;
    m_ReadWantsWrite = false;
    return Judge(recv(m_Descriptor, scratch, sizeof(scratch), MSG_DONTWAIT), done);
}

bool SocketStream::HasBuffered() const {
    return m_TLS && SSL_pending(m_TLS) > 0;
}

std::uint32_t SocketStream::Interest(bool writing) const {
    return EPOLLIN | (WaitsForRoom(writing) ? static_cast<std::uint32_t>(EPOLLOUT) : 0u);
}

long SocketStream::Unsent() const {
    int bytes = 0;
    return ioctl(m_Descriptor, SIOCOUTQ, &bytes) == 0 ? bytes : -1;
}

void SocketStream::EndWriting() {
    if (m_TLS && m_WriteCommitted == 0 && SSL_is_init_finished(m_TLS)) {
        ERR_clear_error();
        static_cast<void>(SSL_shutdown(m_TLS));  // best effort: what matters has been said before
    }
    shutdown(m_Descriptor, SHUT_WR);
}

void SocketStream::Close() {
    SSL_free(std::exchange(m_TLS, nullptr));
    if (m_Descriptor >= 0) close(std::exchange(m_Descriptor, -1));
}

std::string SocketStream::LastError() const {
    if (m_TLSError == 0) return std::strerror(m_Error);
    char text[256];
    ERR_error_string_n(m_TLSError, text, sizeof(text));
    return text;
}

StreamState SocketStream::Fail(int error) {
    m_Error = error;
    m_TLSError = 0;
    return StreamState::Failed;
}

// What the socket itself has answered.
StreamState SocketStream::Judge(ssize_t result, std::size_t& done) {
    if (result > 0) {
        done = static_cast<std::size_t>(result);
        return StreamState::Moved;
    }
    if (result == 0) return StreamState::Closed;
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return StreamState::Blocked;
    return Fail(errno);
}

StreamState SocketStream::JudgeTLS(int result, bool writing) {
    const int system_error = errno;
    const int error = result > 0 ? SSL_ERROR_NONE : SSL_get_error(m_TLS, result);
    (writing ? m_WriteWantsRead : m_ReadWantsWrite) =
        error == (writing ? SSL_ERROR_WANT_READ : SSL_ERROR_WANT_WRITE);
    switch (error) {
        case SSL_ERROR_NONE:
            return StreamState::Moved;
        case SSL_ERROR_WANT_READ:
        case SSL_ERROR_WANT_WRITE:
            return StreamState::Blocked;
        case SSL_ERROR_ZERO_RETURN:
            return StreamState::Closed;
        default:
            break;
    }
    const unsigned long code = ERR_get_error();
    if (code == 0) return Fail(system_error != 0 ? system_error : ECONNRESET);
    ERR_clear_error();
    // A client that hangs up without TLS's own goodbye, as browsers do.
    if (ERR_GET_REASON(code) == SSL_R_UNEXPECTED_EOF_WHILE_READING) return StreamState::Closed;
    m_TLSError = code;
    return StreamState::Failed;
}

}  // namespace Velmora
