// The Python handlers as the server runs them.
#pragma once

#include "config/Config.h"

namespace Server {

/// Starts the interpreter with the configuration's directories, and what surrounds the calls of handlers:
/// their log, slow ones, `import velmora`, loading modules anew. To be called before the queue is started.
Mirel::Result_t SetUpHandlers(const Config& config);

}  // namespace Server
