// The queue's state file, as the server finds it when it starts.
#pragma once

#include <optional>
#include <string>

#include "MR_error.h"
#include "VL_PList.h"

namespace Server {

/// Reads the state file into `document`; nothing where there is no such file yet (or `path` is empty). A
/// failure's message is one line for the operator: the file is there and is no whole queue state document, or
/// cannot be read. Whoever goes on after that would overwrite it.
Mirel::Result_t ReadStateFile(const std::string& path, std::optional<Velmora::PListDict>& document);

}  // namespace Server
