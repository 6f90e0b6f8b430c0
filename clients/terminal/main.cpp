// velmora: posts, registers and watches a velmora-server from a terminal or a script.
#include <cstdio>
#include <exception>

#include "terminal/Api.h"
#include "terminal/Commands.h"
#include "terminal/Completion.h"
#include "terminal/Failure.h"
#include "terminal/Settings.h"

namespace Terminal {

namespace {

// The manual's last sections; --help has them in plain words.
constexpr const char* Environment =
    ".SH ENVIRONMENT\n"
    ".TP\n.B VELMORA_URL\nThe server's address where \\fB\\-\\-server\\fR is not given.\n"
    ".TP\n.B VELMORA_TOKEN\nThe access token where \\fB\\-\\-token\\-file\\fR is not given.\n"
    ".TP\n.B VELMORA_CA_FILE\nThe same for \\fB\\-\\-ca\\-file\\fR.\n"
    ".TP\n.B VELMORA_CONFIG\nThe settings file.\n"
    ".TP\n.BR http_proxy \", \" https_proxy \", \" no_proxy\nA proxy on the way to the server, as for "
    "curl.\n"
    ".SH FILES\n.TP\n.I ~/.config/velmora/client.json\n"
    "A JSON object with \"Address\", \"Token\" and \"CAFile\", for what neither option nor environment says. "
    "A file with a token must be readable by its owner only. Where XDG_CONFIG_HOME is set, the file is "
    "velmora/client.json in there.\n"
    ".SH \"EXIT STATUS\"\n"
    ".TP\n.B 0\nDone.\n.TP\n.B 1\nThe command line, a file or the settings are at fault.\n"
    ".TP\n.B 2\nThe server refuses what was asked.\n.TP\n.B 3\nThere is nothing of that name.\n"
    ".TP\n.B 4\nThe token is missing, wrong or has no right to it.\n"
    ".TP\n.B 5\nNo answer, or the server is not ready.\n"
    ".TP\n.B 130\nInterrupted by the user, while it waited.\n"
    ".SH \"SEE ALSO\"\n.BR velmora\\-server (1)\n";

constexpr const char* Footer =
    "The address and the token are taken from the options, else from VELMORA_URL and VELMORA_TOKEN, else "
    "from\n"
    "~/.config/velmora/client.json. Exit status: 0 done, 1 usage, 2 refused, 3 not there, 4 not allowed,\n"
    "5 no answer or not ready.";

void ReadTokenFile(const std::string& path, Settings& settings) {
    std::FILE* file = std::fopen(path.c_str(), "re");
    if (file == nullptr) throw CLI::ValidationError("--token-file", "\"" + path + "\" cannot be read");
    char token[4096];
    const std::size_t size = std::fread(token, 1, sizeof token, file);
    std::fclose(file);
    settings.Token.assign(token, size);
    while (!settings.Token.empty() && settings.Token.back() <= ' ') settings.Token.pop_back();
    if (settings.Token.empty()) throw CLI::ValidationError("--token-file", "\"" + path + "\" holds no token");
}

// An option for the token itself would show it to everybody who lists the processes.
void AddSettings(CLI::App& app, Settings& settings) {
    app.add_option("--server", settings.Address, "The server's address (http://127.0.0.1:8080)")
        ->type_name("URL");
    app.add_option_function<std::string>(
           "--token-file", [&settings](const std::string& path) { ReadTokenFile(path, settings); },
           "File that holds the access token")
        ->type_name("FILE");
    app.add_option("--ca-file", settings.CaFile, "Certificates that the server's is checked against")
        ->type_name("FILE");
    app.add_flag("--insecure", settings.Insecure, "Take whatever certificate the server has");
    app.add_option("--settings", settings.SettingsFile, "Settings file to read")->type_name("FILE");
    app.add_flag("--json", settings.Json, "Print the server's answers as they are, for programs");
}

// What needs no server.
void AddTexts(CLI::App& app, Chosen& chosen) {
    auto shell = std::make_shared<std::string>();
    CLI::App* command = app.add_subcommand("completion", "Print the completions for a shell");
    command->add_option("shell", *shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
    command->callback([&app, &chosen, shell] {
        chosen.Command = [&app, shell](Api&) { PrintText(Completion(app, *shell)); };
    });
    command = app.add_subcommand("manual", "Print the manual page");
    command->group("");  // for the build
    command->callback(
        [&app, &chosen] { chosen.Command = [&app](Api&) { PrintText(Manual(app) + Environment); }; });
}

int Run(int argc, char** argv) {
    CLI::App app("Posts, registers and watches a velmora-server from a terminal or a script", "velmora");
    Chosen chosen;
    app.set_version_flag("--version", "velmora " VELMORA_VERSION);
    app.set_help_flag("--help", "Print this help and exit");
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(Footer);
    AddSettings(app, chosen.Server);
    AddPosting(app, chosen);
    AddRegistry(app, chosen);
    AddOperating(app, chosen);
    AddTexts(app, chosen);
    try {
        app.parse(argc, argv);
        CompleteSettings(chosen.Server);
        Api api(chosen.Server);
        chosen.Command(api);
        return ExitDone;
    } catch (const CLI::Success& wanted) {  // --help, --version
        return app.exit(wanted);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "velmora: %s (--help lists the options)\n", error.what());
        return ExitUsage;
    } catch (const Failure& failure) {
        std::fprintf(stderr, "velmora: %s\n", failure.what());
        return failure.Code();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "velmora: %s\n", error.what());
        return ExitUsage;
    }
}

}  // namespace

}  // namespace Terminal

int main(int argc, char** argv) {
    return Terminal::Run(argc, argv);
}
