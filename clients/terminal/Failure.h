// How a command fails: the text for the person and the code for the script.
#pragma once

#include <stdexcept>
#include <string>

namespace Terminal {

/// What the program exits with.
enum ExitCode {
    ExitDone = 0,
    ExitUsage = 1,         ///< the command line, a file or the settings are at fault
    ExitRefused = 2,       ///< the server refuses what was asked (4xx)
    ExitMissing = 3,       ///< there is nothing of that name (404)
    ExitNotAllowed = 4,    ///< the token is missing, wrong or has no right to it (401, 403)
    ExitUnreachable = 5,   ///< no answer, or the server cannot (5xx)
    ExitInterrupted = 130  ///< by the user
};

class Failure : public std::runtime_error {
  public:
    Failure(ExitCode code, const std::string& text) : std::runtime_error(text), m_Code(code) {}
    ExitCode Code() const { return m_Code; }

  private:
    const ExitCode m_Code;
};

}  // namespace Terminal
