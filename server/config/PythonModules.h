// Which Python modules there are.
#pragma once

#include <string>
#include <vector>

namespace Server {

/// Starts the interpreter as the server does, with these directories in front of the module search path.
/// Where it cannot be started the process ends with one Crit line.
void FindPythonModulesIn(const std::vector<std::string>& directories);

/// Whether a callback "python://MODULE" would find its module. The module itself is not run; the packages
/// around it are.
bool HasPythonModule(const std::string& module);

}  // namespace Server
