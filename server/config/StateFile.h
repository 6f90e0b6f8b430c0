// The queue's state file, as the server finds it when it starts.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "MR_error.h"
#include "VL_PList.h"

namespace Server {

inline constexpr std::size_t StateFileLimit = std::size_t{1} << 30;  // bytes

/// Takes the state file (none where `path` is empty) for this process until it ends: by a lock on a file
/// beside it ("….lock"), which stays where it is when the state file is replaced. A failure's message is one
/// line for the operator: RESULT_STATE where another process, which it names, has the state file, and
/// RESULT_FILEOPEN where it cannot be locked.
Mirel::Result_t LockStateFile(const std::string& path);

/// Whether LockStateFile would succeed, and files can be made in the state file's folder, with its failures;
/// takes and makes nothing.
Mirel::Result_t TryStateFile(const std::string& path);

/// Reads the state file into `document`; nothing where there is no such file yet (or `path` is empty). A
/// failure's message is one line for the operator: the file is there and is no whole queue state document, or
/// cannot be read. Whoever goes on after that would overwrite it.
Mirel::Result_t ReadStateFile(const std::string& path, std::optional<Velmora::PListDict>& document);

/// A few words for each entry of a queue state document that the queue whose document is `queue` lacks.
std::vector<std::string> LeftOut(const Velmora::PListDict& document, const Velmora::PListDict& queue);

/// Where there is anything in `left_out`, copies the state file to one beside it ("….before-TIME") before it
/// is saved over, and logs one Error line with the number and the names. A failure's message says why there
/// is no copy.
Mirel::Result_t KeepStateFileBefore(const std::string& path, const std::vector<std::string>& left_out);

}  // namespace Server
