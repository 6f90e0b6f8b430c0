#include "ConnectionStream.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

namespace Server {

namespace {

std::string tls_reason() {
    char text[256];
    const unsigned long code = ERR_peek_error();
    if (code == 0) return "unknown reason";
    ERR_error_string_n(code, text, sizeof text);
    const char* reason = ERR_reason_error_string(code);
    std::string result = reason ? reason : text;
    ERR_clear_error();
    return result;
}

// A key with a passphrase is refused: nobody is there to be asked.
int no_passphrase(char*, int, int, void*) {
    return 0;
}

// HTTP/1.1 where the client offers it; otherwise the extension is left unanswered.
int select_protocol(SSL*, const unsigned char** out, unsigned char* out_length, const unsigned char* in,
                    unsigned int in_length, void*) {
    static constexpr unsigned char http11[] = {8, 'h', 't', 't', 'p', '/', '1', '.', '1'};
    unsigned char* chosen = nullptr;
    if (SSL_select_next_proto(&chosen, out_length, http11, sizeof http11, in, in_length) !=
        OPENSSL_NPN_NEGOTIATED) {
        return SSL_TLSEXT_ERR_NOACK;
    }
    *out = chosen;
    return SSL_TLSEXT_ERR_OK;
}

void set_up(SSL_CTX* context) {
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION |
                                     SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                  SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_default_passwd_cb(context, no_passphrase);
    SSL_CTX_set_alpn_select_cb(context, select_protocol, nullptr);
    static constexpr unsigned char session_id[] = "velmora";
    SSL_CTX_set_session_id_context(context, session_id, sizeof session_id - 1);
}

IoResult socket_outcome(ssize_t result) {
    if (result > 0) return {IoStatus::Done, static_cast<std::size_t>(result)};
    if (result == 0) return {IoStatus::Closed, 0};
    const bool wait = errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    return {wait ? IoStatus::WantRead : IoStatus::Failed, 0};
}

}  // namespace

Mirel::Result_t TlsIdentity::Load(const std::string& path) {
    ERR_clear_error();
    std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    if (!context) throw std::bad_alloc();
    set_up(context.get());
    const bool loaded = SSL_CTX_use_certificate_chain_file(context.get(), path.c_str()) == 1 &&
                        SSL_CTX_use_PrivateKey_file(context.get(), path.c_str(), SSL_FILETYPE_PEM) == 1 &&
                        SSL_CTX_check_private_key(context.get()) == 1;
    if (!loaded) {
        return Mirel::RESULT_FILEOPEN.WithMessage(
            "Cannot use the TLS identity \"" + path +
            "\" (a PEM file with certificate chain and key): " + tls_reason());
    }
    m_Context = std::move(context);
    return Mirel::RESULT_OK;
}

ConnectionStream::ConnectionStream(int descriptor, const TlsIdentity* identity) : m_Descriptor(descriptor) {
    if (!identity) return;
    m_Tls = SSL_new(identity->Context());
    if (!m_Tls || SSL_set_fd(m_Tls, descriptor) != 1) {
        SSL_free(m_Tls);
        throw std::bad_alloc();
    }
    SSL_set_accept_state(m_Tls);
}

ConnectionStream::~ConnectionStream() {
    SSL_free(m_Tls);
}

IoResult ConnectionStream::Outcome(int result) const {
    switch (SSL_get_error(m_Tls, result)) {
        case SSL_ERROR_WANT_READ:
            return {IoStatus::WantRead, 0};
        case SSL_ERROR_WANT_WRITE:
            return {IoStatus::WantWrite, 0};
        case SSL_ERROR_ZERO_RETURN:
            return {IoStatus::Closed, 0};
        default:
            return {IoStatus::Failed, 0};
    }
}

IoResult ConnectionStream::Handshake() {
    if (!m_Tls) return {};
    ERR_clear_error();
    const int result = SSL_do_handshake(m_Tls);
    return result == 1 ? IoResult{} : Outcome(result);
}

IoResult ConnectionStream::Read(char* to, std::size_t size) {
    if (!m_Tls) return socket_outcome(recv(m_Descriptor, to, size, 0));
    ERR_clear_error();
    std::size_t bytes = 0;
    const int result = SSL_read_ex(m_Tls, to, size, &bytes);
    return result == 1 ? IoResult{IoStatus::Done, bytes} : Outcome(result);
}

IoResult ConnectionStream::Write(const iovec* pieces, std::size_t count) {
    if (!m_Tls) {
        msghdr message{};
        message.msg_iov = const_cast<iovec*>(pieces);
        message.msg_iovlen = count;
        // One piece, as nearly always: the simpler call costs the kernel less.
        IoResult result = socket_outcome(
            count == 1 ? send(m_Descriptor, pieces[0].iov_base, pieces[0].iov_len, MSG_NOSIGNAL)
                       : sendmsg(m_Descriptor, &message, MSG_NOSIGNAL));
        if (result.Status == IoStatus::WantRead) result.Status = IoStatus::WantWrite;
        return result;
    }
    ERR_clear_error();
    std::size_t bytes = 0;
    const int result = SSL_write_ex(m_Tls, pieces[0].iov_base, pieces[0].iov_len, &bytes);
    return result == 1 ? IoResult{IoStatus::Done, bytes} : Outcome(result);
}

void ConnectionStream::EndWriting() {
    if (m_Tls) {
        ERR_clear_error();
        if (SSL_is_init_finished(m_Tls)) SSL_shutdown(m_Tls);
    }
    shutdown(m_Descriptor, SHUT_WR);
}

IoResult ConnectionStream::Discard() {
    char scratch[16384];
    return socket_outcome(recv(m_Descriptor, scratch, sizeof scratch, 0));
}

std::string ConnectionStream::Peer() const {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    char text[INET6_ADDRSTRLEN] = "";
    if (getpeername(m_Descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "unknown";
    if (address.ss_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
        inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
        return "[" + std::string(text) + "]:" + std::to_string(ntohs(v6.sin6_port));
    }
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
    inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(v4.sin_port));
}

ssl_st* ConnectionStream::ReleaseTls() {
    return std::exchange(m_Tls, nullptr);
}

}  // namespace Server
