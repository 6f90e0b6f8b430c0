// The program's commands, each as an entry of the command line that says what it takes and does.
#pragma once

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <functional>
#include <string>

#include "VL_PList.h"
#include "terminal/Settings.h"

namespace Terminal {

class Api;

/// What the command line has chosen; it is done once everything is read.
struct Chosen {
    Settings Server;
    std::function<void(Api&)> Command;
};

/// Adds a group's commands to `app`.
void AddPosting(CLI::App& app, Chosen& chosen);    // post, tail
void AddRegistry(CLI::App& app, Chosen& chosen);   // events, listeners, timers, watches
void AddOperating(CLI::App& app, Chosen& chosen);  // deliveries, state, status

/// The JSON object that a person gave: the text itself, "@FILE" or "-" for standard input; "" stays "".
/// Throws Failure.
std::string ReadData(const std::string& given);

/// Prints an answer as it came.
void PrintText(const std::string& text);

/// `{"name": VALUE, …}` out of members whose values are JSON already; one with an empty value is left out.
std::string Object(std::initializer_list<std::pair<const char*, std::string>> members);
/// The item as JSON.
std::string Encoded(const Velmora::PListItem& item);
/// The text as JSON.
std::string Quoted(const std::string& text);

}  // namespace Terminal
