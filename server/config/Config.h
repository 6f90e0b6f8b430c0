// The server's configuration: read, checked, printed.
#pragma once

#include <string>
#include <vector>

#include "Cluster.h"
#include "MR_error.h"
#include "MR_log.h"
#include "VL_PList.h"
#include "config/Destinations.h"
#include "config/Shape.h"
#include "http/HttpServerOptions.h"

namespace Server {

/// One fault of a configuration, at a JSON pointer.
using ConfigFault = Fault;

// What is shared out of the process's descriptors where the configuration names no numbers. An eighth of them
// is nobody's: it is kept back for saving, for reading files, and for the server's own few.

/// Most calls to listeners that are under way at once: as many as half of the descriptors are enough for, at
/// four for each, and no more than 4096.
Mirel::ui32_t DefaultMaxCallers();
/// With the most clients of the feed, a quarter of the descriptors and no more than 65536, and the most other
/// connections, an eighth and no more than 4096.
HttpServerOptions DefaultHttpOptions();

/// A checked configuration.
struct Config {
    HttpServerOptions Http = DefaultHttpOptions();
    Mirel::i32_t Timeout_ms = 500;  // of requests to listeners and of WebSocket writes
    Mirel::ui32_t MaxCallers = DefaultMaxCallers();
    std::string StateFile;        // empty: nothing is saved
    std::string AccessTokenFile;  // where Http.AccessToken has been read, empty: nowhere
    std::vector<std::string> PythonPath;
    bool ReloadHandlers = false;         // Python modules below PythonPath, as soon as their files change
    Mirel::ui32_t SlowHandler_ms = 100;  // a Python handler that takes longer is warned of; 0: none is
    Mirel::LogType_t LogLevel = Mirel::LOG_INFO;
    bool LogAsJSON = false;
    bool KeepRepeatingTimers = false;  // those found too late are set to their next time, not dropped
    Mirel::i32_t MaxListeners = 1024;  // of the queue, once its document is restored; negative: none
    Mirel::i32_t MaxWatches = 1024;
    std::vector<Server::Destination> Destinations;  // the first that fits a callback counts
    DeliverySettings Deliveries;
    Mirel::ui32_t EndTimeout_ms = 60000;  // for the orderly end
    Velmora::PListDict EventManager;      // a queue state document
    Cluster::Settings Node;               // of a cluster; not configured: a single server

    /// The dictionary to start the queue with: the port that was really bound, and the document that is to be
    /// restored, which no limit cuts.
    Velmora::PListDict ForEventQueue(Mirel::ui16_t port, const Velmora::PListDict& document) const;
};

/// Reads the configuration file (JSON); an empty path gives the defaults. Every fault is added to `faults`;
/// the configuration is to be used only where there is none. Relative paths in the file are relative to its
/// directory.
Config LoadConfig(const std::string& path, std::vector<ConfigFault>& faults);

/// Whether the server would start with the configuration on this machine: binds for a moment, loads the TLS
/// identity, reads the state file and looks for everything else that is named; creates and changes nothing.
/// Adds what would keep it from starting, and modules and directories of Python that are not there, to
/// `faults` (places that stand in them already are left alone), and to `warnings` what would come to nothing
/// later on, or is in use by a process that may have ended by then. Starts the Python interpreter.
void CheckMachine(const Config& config, std::vector<ConfigFault>& faults, std::vector<ConfigFault>& warnings);

/// Faults of a queue state document: every entry that applying it would skip, and every member that it would
/// not look at. `base` is put before the pointers.
void CheckQueueDocument(const Velmora::PListDict& document, const std::string& base,
                        std::vector<ConfigFault>& faults);

/// Faults of a document that is right in itself and that a queue which holds `existing` (a state document)
/// would refuse in part because of its limits: the first listener or event and the first watch too many.
void CheckQueueLimits(const Velmora::PListDict& document, const Velmora::PListDict& existing,
                      Mirel::i32_t max_listeners, Mirel::i32_t max_watches, const std::string& base,
                      std::vector<ConfigFault>& faults);

/// What is in force, as JSON that can be read as a configuration again, secrets hidden.
std::string PrintConfig(const Config& config);

}  // namespace Server
