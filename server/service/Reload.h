// Reading the configuration anew while the server runs.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "MR_mutex.h"
#include "VL_Python.h"
#include "config/CommandLine.h"
#include "config/Config.h"
#include "http/HttpServer.h"
#include "service/ServiceManager.h"

namespace Server {

/// What came of a reload.
struct ReloadOutcome {
    std::vector<ConfigFault> Faults;        // not empty: nothing was changed
    std::vector<std::string> Taken;         // pointers of what is different from now on
    std::vector<std::string> NeedsRestart;  // pointers of what differs, and only the next start takes
    Velmora::HandlerReload Handlers;
};

/// What a file is, as far as its name shows: another one, or the same written again.
class FileStamp {
  public:
    FileStamp() = default;
    explicit FileStamp(const std::string& path);
    bool operator==(const FileStamp& other) const;

  private:
    struct stat m_Status {};
};

/// Takes anew what can be taken while the server runs: TLS identity, access tokens, allowed hosts and
/// origins, log level and access log, the queue's limits, the calls' limit, and Python handlers. What it also
/// takes is for others. All operations but the constructor may be called from any thread.
class Reload : public std::enable_shared_from_this<Reload> {
  public:
    /// `config` is in force; `server` is bound and lives until End().
    Reload(CommandLine command_line, const Config& config, HttpServer& server, const ServiceManager& manager);

    /// Has `take` called with each new configuration in which one of the keys differs ("/Destinations").
    /// Before the first reload.
    void AlsoTakes(std::vector<std::string> keys, std::function<void(const Config&)> take);

    /// Reads everything anew, waiting for another reload that is under way. What came of it is logged as
    /// well.
    ReloadOutcome Now();
    /// The same on a thread of its own, on which handlers may keep it waiting.
    void Start();
    /// Whether one of those threads is still there.
    bool Running() const { return m_Running > 0; }

    /// How often LookAtIdentity() is to be called; 0: not at all.
    std::chrono::microseconds LookInterval() const;
    /// Loads the TLS identity anew where its file has changed, and has then stayed the same from one look to
    /// the next.
    void LookAtIdentity();

    /// The server is going to end; nothing is changed any more.
    void End();

  private:
    struct Extra {
        std::vector<std::string> Keys;
        std::function<void(const Config&)> Take;
    };

    ReloadOutcome TakeConfig() REQUIRES(m_Lock);
    void Apply(const Config& config, ReloadOutcome& outcome) REQUIRES(m_Lock);
    void TakeLimits(const Config& config) REQUIRES(m_Lock);

    const CommandLine m_CommandLine;
    const Config m_Started;  // what the server was started with
    const ServiceManager& m_Manager;
    std::vector<Extra> m_Extras;
    std::atomic<int> m_Running{0};

    Mirel::Mutex m_Lock;
    Config m_Config GUARDED_BY(m_Lock);
    HttpServer* m_Server GUARDED_BY(m_Lock);  // null: it has ended
    FileStamp m_Loaded GUARDED_BY(m_Lock);    // of the TLS identity's file
    FileStamp m_Seen GUARDED_BY(m_Lock);      // at the last look
};

}  // namespace Server
