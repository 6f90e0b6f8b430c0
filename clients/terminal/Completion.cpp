// Walks the table of commands and options.
#include "terminal/Completion.h"

#include <functional>
#include <set>
#include <vector>

namespace Terminal {

namespace {

using Words = std::vector<const CLI::App*>;  // from the program down to a command

void Walk(const CLI::App& app, Words& path, const std::function<void(const Words&)>& visit) {
    path.push_back(&app);
    visit(path);
    for (const CLI::App* command :
         app.get_subcommands([](const CLI::App* sub) { return !sub->get_group().empty(); })) {
        Walk(*command, path, visit);
    }
    path.pop_back();
}

void Walk(const CLI::App& app, const std::function<void(const Words&)>& visit) {
    Words path;
    Walk(app, path, visit);
}

std::vector<const CLI::App*> CommandsOf(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App* sub) { return !sub->get_group().empty(); });
}

std::vector<const CLI::Option*> FlagsOf(const CLI::App& app) {
    return app.get_options([](const CLI::Option* option) { return option->nonpositional(); });
}

std::vector<const CLI::Option*> PositionalsOf(const CLI::App& app) {
    return app.get_options([](const CLI::Option* option) { return !option->nonpositional(); });
}

std::string Name(const CLI::Option& option) {
    return option.get_name(false, false);
}

bool TakesValue(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

// The commands' names behind the program's.
std::string PathText(const Words& path) {
    std::string text;
    for (std::size_t i = 1; i < path.size(); ++i) text += (i > 1 ? " " : "") + path[i]->get_name();
    return text;
}

std::string WordList(const CLI::App& app) {
    std::string words;
    for (const CLI::App* command : CommandsOf(app)) words += command->get_name() + " ";
    for (const CLI::Option* option : FlagsOf(app)) words += Name(*option) + " ";
    if (!words.empty()) words.pop_back();
    return words;
}

// The cases of a shell's "case": the words that may follow each path of commands.
std::string Cases(const CLI::App& app, const std::string& action) {
    std::string text;
    Walk(app, [&](const Words& path) {
        text += "        \"" + PathText(path) + "\") " + action + "=\"" + WordList(*path.back()) + "\" ;;\n";
    });
    return text;
}

// The names of all commands, for finding the path in what was typed.
std::string AllCommands(const CLI::App& app) {
    std::set<std::string> names;
    Walk(app, [&](const Words& path) {
        if (path.size() > 1) names.insert(path.back()->get_name());
    });
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : "|") + name;
    return text;
}

constexpr const char* FindPath =
    "    local path=\"\" word\n"
    "    for word in \"${typed[@]}\"; do\n"
    "        case \"$word\" in\n"
    "            @COMMANDS@) path=\"${path:+$path }$word\" ;;\n"
    "        esac\n"
    "    done\n"
    "    local words=\"\"\n"
    "    case \"$path\" in\n";

std::string PathFinder(const CLI::App& app) {
    std::string text = FindPath;
    return text.replace(text.find("@COMMANDS@"), 10, AllCommands(app)) + Cases(app, "words") + "    esac\n";
}

std::string Bash(const CLI::App& app) {
    return "# bash completion for velmora\n_velmora() {\n"
           "    local current=\"${COMP_WORDS[COMP_CWORD]}\"\n"
           "    local typed=(\"${COMP_WORDS[@]:1:COMP_CWORD-1}\")\n" +
           PathFinder(app) +
           "    mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n}\n"
           "complete -o default -F _velmora velmora\n";
}

std::string Zsh(const CLI::App& app) {
    return "#compdef velmora\n_velmora() {\n    local -a typed=(\"${(@)words[2,CURRENT-1]}\")\n" +
           PathFinder(app) + "    compadd -- ${=words}\n    _files\n}\ncompdef _velmora velmora\n";
}

// A text between a fish script's single quotes.
std::string FishQuoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) quoted += (c == '\'' || c == '\\') ? std::string("\\") + c : std::string(1, c);
    return quoted + "'";
}

// When a command's words may follow: all of its path was typed, and none of the commands below it.
std::string FishCondition(const Words& path) {
    std::string text = path.size() == 1 ? "__fish_use_subcommand" : "";
    for (std::size_t i = 1; i < path.size(); ++i) {
        text += (i > 1 ? "; and " : "") + ("__fish_seen_subcommand_from " + path[i]->get_name());
    }
    std::string below;
    for (const CLI::App* command : CommandsOf(*path.back())) below += " " + command->get_name();
    if (path.size() > 1 && !below.empty()) text += "; and not __fish_seen_subcommand_from" + below;
    return text;
}

std::string Fish(const CLI::App& app) {
    std::string text = "# fish completion for velmora\n";
    Walk(app, [&](const Words& path) {
        const std::string line = "complete -c velmora -n " + FishQuoted(FishCondition(path));
        for (const CLI::App* command : CommandsOf(*path.back())) {
            text += line + " -f -a " + command->get_name() + " -d " + FishQuoted(command->get_description()) +
                    "\n";
        }
        for (const CLI::Option* option : FlagsOf(*path.back())) {
            text += line + " -l " + Name(*option).substr(2) + (TakesValue(*option) ? " -r" : "") + " -d " +
                    FishQuoted(option->get_description()) + "\n";
        }
    });
    return text;
}

// A text in roff, whose lines must not begin with its control characters.
std::string Roff(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '\\' || c == '-') escaped += '\\';
        if ((c == '.' || c == '\'') && escaped.empty()) escaped += "\\&";
        escaped += c;
    }
    return escaped;
}

std::string Upper(std::string text) {
    for (char& c : text) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
    return text;
}

std::string Flag(const CLI::Option& option) {
    std::string text = ".B " + Roff(Name(option));
    if (TakesValue(option))
        text += " \\fI" + Roff(option.get_type_name().substr(0, option.get_type_name().find(':'))) + "\\fR";
    return text;
}

std::string Described(const CLI::App& app) {
    std::string text;
    for (const CLI::Option* option : PositionalsOf(app)) {
        text += ".TP\n.I " + Roff(Upper(option->get_name(true, false))) + "\n" +
                Roff(option->get_description()) + "\n";
    }
    for (const CLI::Option* option : FlagsOf(app)) {
        text += ".TP\n" + Flag(*option) + "\n" + Roff(option->get_description()) + "\n";
    }
    return text;
}

std::string Heading(const Words& path) {
    std::string text = ".SS \"velmora " + PathText(path);
    for (const CLI::Option* option : PositionalsOf(*path.back())) {
        const std::string name = Upper(option->get_name(true, false));
        text += option->get_required() ? " " + name : " [" + name + "]";
    }
    return text + "\"\n";
}

}  // namespace

std::string Completion(const CLI::App& app, const std::string& shell) {
    if (shell == "bash") return Bash(app);
    if (shell == "zsh") return Zsh(app);
    return shell == "fish" ? Fish(app) : "";
}

std::string Manual(const CLI::App& app) {
    std::string text =
        ".TH VELMORA 1 \"\" \"EventManager " VELMORA_VERSION "\"\n.SH NAME\nvelmora \\- " +
        Roff(app.get_description()) + "\n.SH SYNOPSIS\n.B velmora\n[\\fIOPTIONS\\fR] \\fICOMMAND\\fR …\n" +
        ".SH OPTIONS\nThey may stand before or behind the command.\n" + Described(app) + ".SH COMMANDS\n";
    Walk(app, [&](const Words& path) {
        if (path.size() == 1 || !CommandsOf(*path.back()).empty()) return;
        text += Heading(path) + Roff(path.back()->get_description()) + ".\n" + Described(*path.back());
    });
    return text;
}

}  // namespace Terminal
