#include "WebSocketStream.h"

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

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

namespace Velmora::Feed {

Stream::Stream(Stream&& from) noexcept
    : m_Descriptor(std::exchange(from.m_Descriptor, -1)),
      m_TLS(std::exchange(from.m_TLS, nullptr)),
      m_WriteCommitted(from.m_WriteCommitted),
      m_WriteWantsRead(from.m_WriteWantsRead),
      m_ReadWantsWrite(from.m_ReadWantsWrite),
      m_LastError(std::move(from.m_LastError)) {}

Stream& Stream::operator=(Stream&& from) noexcept {
    if (this == &from) return *this;
    Close();
    m_Descriptor = std::exchange(from.m_Descriptor, -1);
    m_TLS = std::exchange(from.m_TLS, nullptr);
    m_WriteCommitted = from.m_WriteCommitted;
    m_WriteWantsRead = from.m_WriteWantsRead;
    m_ReadWantsWrite = from.m_ReadWantsWrite;
    m_LastError = std::move(from.m_LastError);
    return *this;
}

bool Stream::Prepare() {
    int type = 0;
    socklen_t length = sizeof(type);
    if (getsockopt(m_Descriptor, SOL_SOCKET, SO_TYPE, &type, &length) != 0) return Fail(errno), false;
    if (type != SOCK_STREAM) return Fail(EPROTOTYPE), false;
    const int flags = fcntl(m_Descriptor, F_GETFL);
    if (flags < 0 || fcntl(m_Descriptor, F_SETFL, flags | O_NONBLOCK) != 0) return Fail(errno), false;
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

StreamState Stream::Write(const char* data, std::size_t size, std::size_t& done) {
    done = 0;
    if (m_TLS) return WriteTLS(data, size, done);
    const ssize_t sent = send(m_Descriptor, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
        done = static_cast<std::size_t>(sent);
        return StreamState::Moved;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return StreamState::Blocked;
    return Fail(errno);
}

/// Record by record, until all is sent or the socket takes no more.
StreamState Stream::WriteTLS(const char* data, std::size_t size, std::size_t& done) {
    StreamState state = StreamState::Moved;
    while (done < size && state == StreamState::Moved) {
        std::size_t sent = 0;
        ERR_clear_error();
        state = JudgeTLS(SSL_write_ex(m_TLS, data + done, size - done, &sent), true);
        done += sent;
    }
    // A record that waits to be sent is made of these bytes; OpenSSL wants to be offered no fewer again.
    m_WriteCommitted = state == StreamState::Blocked ? size - done : 0;
    return state == StreamState::Blocked && done > 0 ? StreamState::Moved : state;
}

StreamState Stream::Read(char* data, std::size_t size, std::size_t& done) {
    done = 0;
    if (m_TLS) {
        ERR_clear_error();
        return JudgeTLS(SSL_read_ex(m_TLS, data, size, &done), false);
    }
    const ssize_t received = recv(m_Descriptor, data, size, MSG_DONTWAIT);
    if (received > 0) {
        done = static_cast<std::size_t>(received);
        return StreamState::Moved;
    }
    if (received == 0) return StreamState::Closed;
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return StreamState::Blocked;
    return Fail(errno);
}

bool Stream::HasBuffered() const {
    return m_TLS && SSL_pending(m_TLS) > 0;
}

std::uint32_t Stream::Interest(bool writing) const {
    const bool out = m_ReadWantsWrite || (writing && !m_WriteWantsRead);
    return EPOLLIN | (out ? static_cast<std::uint32_t>(EPOLLOUT) : 0u);
}

long Stream::Unsent() const {
    int bytes = 0;
    return ioctl(m_Descriptor, SIOCOUTQ, &bytes) == 0 ? bytes : -1;
}

void Stream::EndWriting() {
    if (m_TLS && m_WriteCommitted == 0) {
        ERR_clear_error();
        static_cast<void>(SSL_shutdown(m_TLS));  // best effort: what matters was the close frame
    }
    shutdown(m_Descriptor, SHUT_WR);
}

void Stream::Close() {
    SSL_free(std::exchange(m_TLS, nullptr));
    if (m_Descriptor >= 0) close(std::exchange(m_Descriptor, -1));
}

StreamState Stream::Fail(int error) {
    m_LastError = std::strerror(error);
    return StreamState::Failed;
}

StreamState Stream::JudgeTLS(int result, bool writing) {
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
    char text[256];
    if (const unsigned long code = ERR_get_error()) {
        // A client that hangs up without TLS's own goodbye, as browsers do.
        if (ERR_GET_REASON(code) == SSL_R_UNEXPECTED_EOF_WHILE_READING) return StreamState::Closed;
        ERR_error_string_n(code, text, sizeof(text));
        m_LastError = text;
        ERR_clear_error();
        return StreamState::Failed;
    }
    return Fail(system_error != 0 ? system_error : ECONNRESET);
}

}  // namespace Velmora::Feed
