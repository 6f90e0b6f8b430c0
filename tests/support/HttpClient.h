// A blocking HTTP client for tests, plain or over TLS (whose certificate it does not check), and a WebSocket
// client.
#pragma once

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

namespace Testing {

namespace http = boost::beast::http;
using Tcp = boost::asio::ip::tcp;

/// One connection to 127.0.0.1, and another where the server has closed that with an answer. What goes wrong
/// on it throws boost::system::system_error.
class HttpClient {
  public:
    using Answer = http::response<http::string_body>;

    HttpClient(unsigned short port, bool tls, const std::string& token = "")
        : m_Server(boost::asio::ip::address_v4::loopback(), port), m_Secure(tls), m_Token(token) {
        Connect();
    }

    Answer Call(const std::string& method, const std::string& target, const std::string& body = "",
                const std::string& if_none_match = "") {
        http::request<http::string_body> request;
        request.method_string(method);
        request.target(target);
        request.version(11);
        request.set(http::field::host, "localhost");
        if (!m_Token.empty()) request.set(http::field::authorization, "Bearer " + m_Token);
        if (!if_none_match.empty()) request.set(http::field::if_none_match, if_none_match);
        if (!body.empty()) request.set(http::field::content_type, "application/json");
        request.body() = body;
        request.prepare_payload();
        return m_Tls ? Exchange(*m_Tls, request) : Exchange(m_Plain, request);
    }

  private:
    void Connect() {
        m_Buffer.clear();
        if (m_Secure) {
            m_Tls.emplace(m_Io, m_TlsContext);
            m_Tls->next_layer().connect(m_Server);
            m_Tls->handshake(boost::asio::ssl::stream_base::client);
        } else {
            m_Plain = Tcp::socket(m_Io);
            m_Plain.connect(m_Server);
        }
    }

    template <class Stream>
    Answer Exchange(Stream& stream, const http::request<http::string_body>& request) {
        http::write(stream, request);
        http::response_parser<http::string_body> parser;
        parser.skip(request.method() == http::verb::head);
        parser.body_limit(boost::none);
        http::read(stream, m_Buffer, parser);
        if (!parser.keep_alive()) Connect();
        return parser.release();
    }

    const Tcp::endpoint m_Server;
    const bool m_Secure;
    const std::string m_Token;
    boost::asio::io_context m_Io;
    boost::asio::ssl::context m_TlsContext{boost::asio::ssl::context::tls_client};
    Tcp::socket m_Plain{m_Io};
    std::optional<boost::asio::ssl::stream<Tcp::socket>> m_Tls;
    boost::beast::flat_buffer m_Buffer;
};

/// A client of the feed.
class FeedClient {
  public:
    explicit FeedClient(unsigned short port) {
        m_Socket.next_layer().connect(Tcp::endpoint(boost::asio::ip::address_v4::loopback(), port));
        m_Socket.handshake("localhost", "/api/v1/feed");
    }
    /// The next posting's text.
    std::string Read() {
        m_Buffer.clear();
        m_Socket.read(m_Buffer);
        return boost::beast::buffers_to_string(m_Buffer.data());
    }
    /// The code with which the server closes the connection, after whatever is still on the way.
    int CloseCode() {
        boost::beast::error_code error;
        while (!error) m_Socket.read(m_Buffer, error);
        return m_Socket.reason().code;
    }

  private:
    boost::asio::io_context m_Io;
    boost::beast::websocket::stream<Tcp::socket> m_Socket{m_Io};
    boost::beast::flat_buffer m_Buffer;
};

/// Writes a new self-signed certificate for localhost and its key into one PEM file.
inline void WriteTLSIdentity(const std::string& path) {
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), X509_free);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
    X509_set_pubkey(certificate.get(), key.get());
    const unsigned char name[] = "localhost";
    X509_NAME* subject = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, name, -1, -1, 0);
    X509_set_issuer_name(certificate.get(), subject);
    ASSERT_GT(X509_sign(certificate.get(), key.get(), EVP_sha256()), 0);

    const std::unique_ptr<FILE, decltype(&fclose)> file(fopen(path.c_str(), "w"), fclose);
    ASSERT_EQ(PEM_write_X509(file.get(), certificate.get()), 1);
    ASSERT_EQ(PEM_write_PrivateKey(file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr), 1);
}

}  // namespace Testing
