// Loads certificate and key into OpenSSL's context.
#include "http/TlsIdentity.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <new>
#include <utility>

namespace Server {

namespace {

std::string TlsReason() {
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
int NoPassphrase(char*, int, int, void*) {
    return 0;
}

// HTTP/1.1 where the client offers it; otherwise the extension is left unanswered.
int SelectProtocol(SSL*, const unsigned char** out, unsigned char* out_length, const unsigned char* in,
                   unsigned int in_length, void*) {
    static constexpr unsigned char Http11[] = {8, 'h', 't', 't', 'p', '/', '1', '.', '1'};
    unsigned char* chosen = nullptr;
    if (SSL_select_next_proto(&chosen, out_length, Http11, sizeof Http11, in, in_length) !=
        OPENSSL_NPN_NEGOTIATED) {
        return SSL_TLSEXT_ERR_NOACK;
    }
    *out = chosen;
    return SSL_TLSEXT_ERR_OK;
}

void SetUp(SSL_CTX* context) {
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION |
                                     SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                  SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_default_passwd_cb(context, NoPassphrase);
    SSL_CTX_set_alpn_select_cb(context, SelectProtocol, nullptr);
    static constexpr unsigned char SessionId[] = "velmora";
    SSL_CTX_set_session_id_context(context, SessionId, sizeof SessionId - 1);
}

}  // namespace

Mirel::Result_t TlsIdentity::Load(const std::string& path) {
    ERR_clear_error();
    std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    if (!context) throw std::bad_alloc();
    SetUp(context.get());
    const bool loaded = SSL_CTX_use_certificate_chain_file(context.get(), path.c_str()) == 1 &&
                        SSL_CTX_use_PrivateKey_file(context.get(), path.c_str(), SSL_FILETYPE_PEM) == 1 &&
                        SSL_CTX_check_private_key(context.get()) == 1;
    if (!loaded) {
        return Mirel::RESULT_FILEOPEN.WithMessage(
            "Cannot use the TLS identity \"" + path +
            "\" (a PEM file with certificate chain and key): " + TlsReason());
    }
    m_Context = std::move(context);
    return Mirel::RESULT_OK;
}

void TlsIdentity::Secure(Velmora::SocketStream& stream) const {
    SSL* const tls = SSL_new(m_Context.get());
    if (!tls || SSL_set_fd(tls, stream.Descriptor()) != 1) {
        SSL_free(tls);
        throw std::bad_alloc();
    }
    SSL_set_accept_state(tls);
    stream.Secure(tls);
}

}  // namespace Server
