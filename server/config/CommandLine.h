// What velmora-server is told when it is started.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "MR_log.h"
#include "MR_types.h"
#include "config/Config.h"

namespace Server {

struct CommandLine {
    std::string ConfigFile;  // empty: defaults
    std::optional<std::pair<std::string, Mirel::ui16_t>> Listen;
    std::optional<Mirel::LogType_t> LogLevel;
    std::optional<bool> LogAsJSON;
    bool Check = false;
    bool PrintConfig = false;
    bool HashToken = false;
    std::string ImportState;  // empty: nothing is to be moved into a cluster

    /// Puts what the command line says in the place of what the configuration does.
    void ApplyTo(Config& config) const;
};

/// Reads the command line. Where there is nothing to go on with (help, version, a mistake) that has been
/// printed, and the answer is the exit status.
std::optional<int> ReadCommandLine(int argc, const char* const* argv, CommandLine& command_line);

/// Reads "HOST:PORT", an IPv6 address in brackets.
std::optional<std::pair<std::string, Mirel::ui16_t>> ReadHostAndPort(const std::string& text);

}  // namespace Server
