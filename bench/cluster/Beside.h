// A stream of the engine's, beside those of the cluster, with as many replicas and the same limits.
#pragma once

#include <nats/nats.h>

#include <string>

namespace Bench {

inline constexpr const char* Body = R"({"sensor":"door-17","state":"open","reading":21.5})";

void CheckEngine(natsStatus status, const std::string& what);

class Connection {
  public:
    explicit Connection(const std::string& url);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    natsConnection* Of() const { return m_Connection; }
    jsCtx* Context() const { return m_Context; }

  private:
    natsConnection* m_Connection = nullptr;
    jsCtx* m_Context = nullptr;
};

/// There as long as the object lives.
class BesideStream {
  public:
    explicit BesideStream(const Connection& connection);
    ~BesideStream();
    BesideStream(const BesideStream&) = delete;
    BesideStream& operator=(const BesideStream&) = delete;

    static constexpr const char* Subject = "beside.e";

  private:
    const Connection& m_Connection;
};

}  // namespace Bench
