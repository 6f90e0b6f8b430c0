// Shell completions and the manual page, both made from the command line's own table.
#pragma once

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <string>

namespace Terminal {

/// The script that a shell ("bash", "zsh", "fish") reads; empty for another.
std::string Completion(const CLI::App& app, const std::string& shell);

/// The manual page in roff's man macros.
std::string Manual(const CLI::App& app);

}  // namespace Terminal
