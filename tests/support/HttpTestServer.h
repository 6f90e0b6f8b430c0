// A small HTTP or HTTPS server for tests: a thread for each connection, and a script for what it does.
#pragma once

#include <sys/types.h>

#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

struct ssl_st;
struct ssl_ctx_st;

namespace Testing {

class HttpTestServer;

/// The server's end of one connection, for the script that runs on its thread.
class TestConnection {
  public:
    TestConnection(HttpTestServer& server, int descriptor, ssl_st* tls)
        : m_Server(server), m_Descriptor(descriptor), m_Tls(tls) {}

    /// Reads one request, head and body (by its Content-Length), and keeps it for HttpTestServer::Requests().
    void ReadRequest();
    /// False once the peer takes no more.
    bool Write(const std::string& text);
    /// Waits until the peer closes, or the server is destroyed.
    void WaitForClose();
    /// Closes so that the peer sees a reset.
    void Reset();
    bool SessionWasResumed() const;

  private:
    ssize_t Read(char* buffer, std::size_t size);

    HttpTestServer& m_Server;
    const int m_Descriptor;
    ssl_st* const m_Tls;  // null: plain
};

/// Listens on an address from construction to destruction, which ends all connections. With TLS its
/// certificate is self-signed and made anew.
class HttpTestServer {
  public:
    using Script = std::function<void(TestConnection&)>;
    enum Transport { Plain, Tls };

    explicit HttpTestServer(Script script, Transport transport = Plain, const char* address = "127.0.0.1",
                            int port = 0);
    ~HttpTestServer();
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    /// A script that reads a request and answers `status` ("404 Not Found") with `extra` header lines.
    static Script Answers(const std::string& status, const std::string& extra = "");
    /// A script that reads a request and sends `text`, as it is.
    static Script Sends(const std::string& text);

    int Listener() const { return m_Listener; }
    int Port() const { return m_Port; }
    std::string Authority() const { return "127.0.0.1:" + std::to_string(m_Port); }
    std::string Url(const std::string& path = "/") const;

    void Record(const std::string& request);
    std::vector<std::string> Requests() const;

  private:
    void Accept();
    void Serve(int descriptor);

    const Script m_Script;
    ssl_ctx_st* const m_Tls;
    int m_Listener = -1;
    int m_Port = 0;
    std::thread m_Acceptor;
    std::vector<std::thread> m_Threads;  // the acceptor's, until it has ended

    mutable std::mutex m_Lock;
    std::set<int> m_Open;
    std::vector<std::string> m_Requests;
};

}  // namespace Testing
