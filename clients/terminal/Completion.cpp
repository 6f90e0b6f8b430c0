// Walks the table of commands and options.
#include "terminal/Completion.h"

#include <algorithm>
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

// What an argument is one of, parted by blanks; empty where it may be anything.
std::string Choices(const CLI::Option& option) {
    std::string text = option.get_type_name();
    const std::size_t open = text.find('{'), close = text.find('}');
    if (open == text.npos || close == text.npos) return "";
    text = text.substr(open + 1, close - open - 1);
    std::replace(text.begin(), text.end(), ',', ' ');
    return text;
}

// What may come next: commands, choices, the command's options, and those of the program.
std::string WordList(const CLI::App& program, const CLI::App& app) {
    std::string words;
    for (const CLI::App* command : CommandsOf(app)) words += " " + command->get_name();
    for (const CLI::Option* option : PositionalsOf(app)) {
        const std::string choices = Choices(*option);
        if (!choices.empty()) words += " " + choices;
    }
    for (const CLI::Option* option : FlagsOf(app)) words += " " + Name(*option);
    if (&app == &program) return words.substr(1);
    for (const CLI::Option* option : FlagsOf(program))
        if (Name(*option) != "--help" && Name(*option) != "--version") words += " " + Name(*option);
    return words.substr(1);
}

// The options that a value follows, of all commands.
std::set<std::string> OptionsWithValues(const CLI::App& app) {
    std::set<std::string> names;
    Walk(app, [&](const Words& path) {
        for (const CLI::Option* option : FlagsOf(*path.back()))
            if (TakesValue(*option)) names.insert(Name(*option));
    });
    return names;
}

// The paths of all commands, in a shell's quotes.
std::vector<std::string> Paths(const CLI::App& app) {
    std::vector<std::string> paths;
    Walk(app, [&](const Words& path) {
        if (path.size() > 1) paths.push_back("'" + PathText(path) + "'");
    });
    return paths;
}

template <class Texts>
std::string Joined(const Texts& texts, const char* between) {
    std::string joined;
    for (const std::string& text : texts) joined += (joined.empty() ? "" : between) + text;
    return joined;
}

// Finds the commands among the words that were typed: what follows an option is its value, and a word is a
// command only where there is one of that name. Then "words" is what may come next; nothing where that is a
// value.
constexpr const char* FindPath =
    "    local command=\"\" value=\"\" words=\"\" word\n"
    "    for word in \"${typed[@]}\"; do\n"
    "        if [[ -n $value ]]; then value=\"\"; continue; fi\n"
    "        case \"$word\" in\n"
    "            @OPTIONS@) value=1; continue ;;\n"
    "        esac\n"
    "        case \"${command:+$command }$word\" in\n"
    "            @PATHS@) command=\"${command:+$command }$word\" ;;\n"
    "        esac\n"
    "    done\n"
    "    [[ -n $value ]] || case \"$command\" in\n";

std::string PathFinder(const CLI::App& app) {
    std::string text = FindPath;
    text.replace(text.find("@OPTIONS@"), 9, Joined(OptionsWithValues(app), "|"));
    text.replace(text.find("@PATHS@"), 7, Joined(Paths(app), "|"));
    Walk(app, [&](const Words& path) {
        text += "        '" + PathText(path) + "') words=\"" + WordList(app, *path.back()) + "\" ;;\n";
    });
    return text + "    esac\n";
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
    std::string finder = PathFinder(app);  // "words" and "path" are zsh's own
    for (std::size_t at = 0; (at = finder.find("words", at)) != finder.npos; at += 6)
        finder.replace(at, 5, "offers");
    return "#compdef velmora\n_velmora() {\n    local -a typed=(\"${(@)words[2,CURRENT-1]}\")\n" + finder +
           "    [[ -z $offers ]] || compadd -- ${=offers}\n    [[ -n $offers && $PREFIX == -* ]] || "
           "_files\n}\n"
           "compdef _velmora velmora\n";
}

// A text between a fish script's single quotes.
std::string FishQuoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) quoted += (c == '\'' || c == '\\') ? std::string("\\") + c : std::string(1, c);
    return quoted + "'";
}

// Whether the commands that were typed are these.
constexpr const char* FishFunction =
    "function __velmora_at\n"
    "    set -l command\n"
    "    set -l value 0\n"
    "    for word in (commandline -opc)[2..-1]\n"
    "        if test $value = 1\n"
    "            set value 0\n"
    "            continue\n"
    "        end\n"
    "        switch $word\n"
    "            case @OPTIONS@\n"
    "                set value 1\n"
    "                continue\n"
    "        end\n"
    "        switch \"$command $word\"\n"
    "            case @PATHS@\n"
    "                set command \"$command $word\"\n"
    "        end\n"
    "    end\n"
    "    test \"$command\" = \"$argv\"\n"
    "end\n";

std::string FishHead(const CLI::App& app) {
    std::string text = std::string("# fish completion for velmora\n") + FishFunction;
    text.replace(text.find("@OPTIONS@"), 9, Joined(OptionsWithValues(app), " "));
    std::vector<std::string> paths = Paths(app);
    for (std::string& path : paths) path.insert(1, " ");
    return text.replace(text.find("@PATHS@"), 7, Joined(paths, " "));
}

std::string FishOption(const std::string& line, const CLI::Option& option) {
    return line + " -l " + Name(option).substr(2) + (TakesValue(option) ? " -r" : "") + " -d " +
           FishQuoted(option.get_description()) + "\n";
}

std::string Fish(const CLI::App& app) {
    std::string text = FishHead(app);
    Walk(app, [&](const Words& path) {
        const std::string typed = PathText(path);
        const std::string line = "complete -c velmora -n " +
                                 FishQuoted("__velmora_at \"" + (typed.empty() ? "" : " " + typed) + "\"");
        for (const CLI::App* command : CommandsOf(*path.back())) {
            text += line + " -f -a " + command->get_name() + " -d " + FishQuoted(command->get_description()) +
                    "\n";
        }
        for (const CLI::Option* option : PositionalsOf(*path.back())) {
            const std::string choices = Choices(*option);
            if (!choices.empty()) text += line + " -f -a " + FishQuoted(choices) + "\n";
        }
        for (const CLI::Option* option : FlagsOf(*path.back())) {
            const bool of_all = path.size() == 1 && Name(*option) != "--help" && Name(*option) != "--version";
            text += FishOption(of_all ? "complete -c velmora" : line, *option);
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
