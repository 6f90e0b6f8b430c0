// The options, read with CLI11.
#include "config/CommandLine.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdio>

#include "http/AccessPolicy.h"

namespace Server {

namespace {

void AddConfig(CLI::App& app, CommandLine& command_line) {
    app.add_option_function<std::string>(
           "--config",
           [&command_line](const std::string& path) {
               if (path.empty()) throw CLI::ValidationError("--config", "names no file");
               command_line.ConfigFile = path;
           },
           "Configuration to read (JSON)")
        ->type_name("FILE");
}

void AddListen(CLI::App& app, CommandLine& command_line) {
    app.add_option_function<std::string>(
           "--listen",
           [&command_line](const std::string& text) {
               command_line.Listen = ReadHostAndPort(text);
               if (!command_line.Listen) {
                   throw CLI::ValidationError(
                       "--listen", "\"" + text + "\" is not HOST:PORT (\"127.0.0.1:8080\", \"[::1]:0\")");
               }
           },
           "Address to listen on; port 0 takes a free one")
        ->type_name("HOST:PORT");
}

void AddLogOptions(CLI::App& app, CommandLine& command_line) {
    app.add_option_function<std::string>(
           "--log-level",
           [&command_line](const std::string& text) {
               Mirel::LogType_t level = Mirel::LOG_INFO;
               if (!Mirel::LogTypeFromName(text, level)) {
                   throw CLI::ValidationError(
                       "--log-level",
                       "\"" + text + "\" is none of debug, info, notice, warn, error, crit, alert");
               }
               command_line.LogLevel = level;
           },
           "Least severity that is logged: debug, info, notice, warn, error, crit or alert")
        ->type_name("LEVEL");
    app.add_option_function<std::string>(
           "--log-format",
           [&command_line](const std::string& text) {
               if (text != "text" && text != "json") {
                   throw CLI::ValidationError("--log-format", "\"" + text + "\" is neither text nor json");
               }
               command_line.LogAsJSON = text == "json";
           },
           "Form of the log on standard error: text or json")
        ->type_name("FORMAT");
}

}  // namespace

std::optional<std::pair<std::string, Mirel::ui16_t>> ReadHostAndPort(const std::string& text) {
    const auto split = SplitAuthority(text);
    if (!split || split->second.empty()) return std::nullopt;
    const unsigned long port = std::stoul(std::string(split->second));
    if (port > 65535) return std::nullopt;
    return std::pair{std::string(split->first), static_cast<Mirel::ui16_t>(port)};
}

void CommandLine::ApplyTo(Config& config) const {
    if (Listen) std::tie(config.Http.Host, config.Http.Port) = *Listen;
    if (LogLevel) config.LogLevel = *LogLevel;
    if (LogAsJSON) config.LogAsJSON = *LogAsJSON;
}

std::optional<int> ReadCommandLine(int argc, const char* const* argv, CommandLine& command_line) {
    CLI::App app("Serves named events: registers, posts, times and watches, and calls who listens.",
                 "velmora-server");
    app.set_version_flag("--version", std::string("velmora-server ") + VELMORA_VERSION);
    app.set_help_flag("--help", "Print this help and exit");
    AddConfig(app, command_line);
    AddListen(app, command_line);
    app.add_flag("--check", command_line.Check,
                 "Check the configuration and what it names, say every fault, and exit");
    app.add_flag("--print-config", command_line.PrintConfig,
                 "Print what is in force, secrets hidden, and exit");
    app.add_flag("--hash-token", command_line.HashToken,
                 "Read an access token from standard input, print what \"Hash\" holds for it, and exit");
    app.add_option("--import-state", command_line.ImportState,
                   "Add a single server's state file to the cluster of the configuration, and exit")
        ->type_name("FILE");
    AddLogOptions(app, command_line);
    app.footer(
        "Limits that PATCH /api/v1/config sets hold until this process ends. Each start begins with those "
        "of\n"
        "the configuration's \"Limits\".");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& wanted) {  // --help, --version
        return app.exit(wanted);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "velmora-server: %s (--help lists the options)\n", error.what());
        return 1;
    }
    return std::nullopt;
}

}  // namespace Server
