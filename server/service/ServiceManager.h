// How the process tells the one that started it (systemd) how it fares.
#pragma once

#include <chrono>
#include <string>

#include "MR_types.h"

namespace Server {

/// The service manager, as sd_notify(3) describes it: one datagram for each thing said, to the socket that
/// the environment names. Written here, for the library would be a dependency for one system call. Where no
/// manager is, nothing is said.
class ServiceManager {
  public:
    /// Takes what the manager left in the environment out of it, for programs that handlers start are not to
    /// speak for this process. Before other threads are there.
    ServiceManager();

    /// Says one thing or more, a line each: "READY=1", "STATUS=…", "STOPPING=1". From any thread.
    void Tell(const std::string& lines) const;

    /// Says that a reload has begun; "READY=1" ends it.
    void TellReloading() const;

    /// How long it waits for a sign of life before it ends the process; 0: it does not watch.
    std::chrono::microseconds WatchdogLimit() const { return m_WatchdogLimit; }

  private:
    std::string m_Address;  // of its socket; empty: there is none
    std::chrono::microseconds m_WatchdogLimit{0};
};

/// Passes the worker's sign of life on: while its passes go on, so does the process. Used by one thread.
class Watchdog {
  public:
    explicit Watchdog(const ServiceManager& manager) : m_Manager(manager) {}

    /// How often to look; 0: not at all.
    std::chrono::microseconds Interval() const { return m_Manager.WatchdogLimit() / 4; }
    /// Tells the manager where the worker has ended a pass since the last look.
    void Look();

  private:
    const ServiceManager& m_Manager;
    Mirel::ui64_t m_Passes = 0;  // at the last look
};

}  // namespace Server
