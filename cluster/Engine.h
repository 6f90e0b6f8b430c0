// The connection to the engine, and the streams that a cluster keeps there.
#pragma once

#include <atomic>
#include <string>

#include "Cluster.h"
#include "Held.h"

namespace Cluster {

/// What is known of a stream at one moment.
struct StreamFacts {
    i64_t Created_ns = 0;  // stands for the time it was made: another one: it was made anew
    ui64_t First = 0, Last = 0, Messages = 0, Bytes = 0;
    std::string Leader;
};

/// Names of what one cluster keeps in the engine.
struct Streams {
    explicit Streams(const std::string& name)
        : Postings(name + "_postings"),
          Registry("KV_" + name + "_registry"),
          Timers("KV_" + name + "_timers"),
          Nodes("KV_" + name + "_nodes"),
          Events(name + ".events."),
          RegistryKeys("$KV." + name + "_registry."),
          TimersKey("$KV." + name + "_timers.holder"),
          NodesKeys("$KV." + name + "_nodes."),
          Calls(name + "_calls"),
          Deliveries(name + "_deliveries"),
          DeliveryKeys(name + ".deliveries."),
          Attempts(name + "_attempts") {}

    std::string Postings, Registry, Timers, Nodes;           // streams
    std::string Events, RegistryKeys, TimersKey, NodesKeys;  // beginnings of subjects, and one subject
    std::string Calls;                                       // the consumer of the calls
    std::string Deliveries, DeliveryKeys, Attempts;          // stream, beginning of subjects, consumer
};

/// One connection, kept up for as long as the object lives: whichever server dies, another is connected to.
/// May be used from any thread.
class Engine {
  public:
    explicit Engine(const Settings& settings);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// Begins to connect. With `wait`, fails where no server can be reached now; otherwise goes on trying.
    Result_t Connect(bool wait);
    void Close();

    bool Connected() const;
    natsConnection* Connection() const { return m_Connection.get(); }
    /// For requests, each of which waits 2 seconds at most.
    jsCtx* Context() const { return m_Context.get(); }

    const Settings& Of() const { return m_Settings; }
    const Streams& Names() const { return m_Names; }

    natsStatus Facts(const std::string& stream, StreamFacts& facts) const;
    /// Makes the streams that are not there.
    Result_t MakeStreams();
    /// The server that the node is connected to; empty while there is none. Without credentials.
    std::string Server() const;
    ui64_t Reconnects() const { return m_Reconnects; }

  private:
    Result_t SetOptions(natsOptions* options, bool wait);
    Result_t MakeStream(jsStreamConfig& config);
    Result_t MakeDeliveries();
    static void OnError(natsConnection*, natsSubscription*, natsStatus, void*);
    static void OnReconnected(natsConnection*, void* self);
    static void OnDisconnected(natsConnection*, void* self);

    const Settings m_Settings;
    const Streams m_Names;
    HeldConnection m_Connection;
    HeldContext m_Context;
    std::atomic<ui64_t> m_Reconnects{0};
    std::atomic<bool> m_Closing{false};
};

}  // namespace Cluster
