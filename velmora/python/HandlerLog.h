// What Python code leaves in the log.
#pragma once

#include <string>

#include "MR_log.h"

namespace Velmora {

/// Whether texts of several lines are logged with one entry for each.
void LogLineByLine(bool wanted);

/// Logs a text of Python's: as one entry or line by line, each line then with the prefix
/// "[python://MODULE] " of the handler that the thread is calling, or "[python] ".
void LogPythonText(Mirel::LogType_t level, std::string text);

}  // namespace Velmora
