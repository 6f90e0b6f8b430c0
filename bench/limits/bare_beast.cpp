// The least that a single-thread HTTP server does with the same library: reads a request with its body, and
// answers the same bytes always. Prints "port N"; ends with its standard input.
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <memory>
#include <optional>
#include <string>

#include "Bench.h"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using asio::ip::tcp;
using boost::system::error_code;

const std::string Answer =
    "HTTP/1.1 202 Accepted\r\nContent-Type: application/json\r\nX-Content-Type-Options: nosniff\r\n"
    "Cache-Control: no-store\r\nContent-Length: 42\r\n\r\n{\"event_name\":\"bench.event\",\"posted\":true}";

class Session : public std::enable_shared_from_this<Session> {
  public:
    explicit Session(tcp::socket socket) : m_Socket(std::move(socket)) {}

    void Read() {
        m_Request.emplace();
        http::async_read(m_Socket, m_Buffer, *m_Request,
                         [self = shared_from_this()](error_code error, std::size_t) {
                             if (!error) self->Write();
                         });
    }

  private:
    void Write() {
        asio::async_write(m_Socket, asio::buffer(Answer),
                          [self = shared_from_this()](error_code error, std::size_t) {
                              if (!error) self->Read();
                          });
    }

    tcp::socket m_Socket;
    beast::flat_buffer m_Buffer;
    std::optional<http::request_parser<http::string_body>> m_Request;
};

void accept_all(tcp::acceptor& acceptor) {
    acceptor.async_accept([&acceptor](error_code error, tcp::socket socket) {
        if (error) return;
        error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        std::make_shared<Session>(std::move(socket))->Read();
        accept_all(acceptor);
    });
}

}  // namespace

int main() {
    Bench::UseCore(0);
    asio::io_context context(1);
    tcp::acceptor acceptor(context, {asio::ip::address_v4::loopback(), 0});
    accept_all(acceptor);
    asio::posix::stream_descriptor input(context, 0);
    char byte = 0;
    input.async_read_some(asio::buffer(&byte, 1), [&](error_code, std::size_t) { context.stop(); });
    Bench::Print("port", acceptor.local_endpoint().port());
    context.run();
    return 0;
}
