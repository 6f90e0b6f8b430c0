// Loading modules of handlers anew.
#pragma once

#include <string>
#include <vector>

namespace Velmora {

// All under the interpreter lock.

/// Whether handlers are looked after, and whether that is done before each call.
void WatchHandlers(const std::vector<std::string>& directories, bool before_each_call);
/// Where it is to be done before each call.
void ReloadBeforeCall();
/// Remembers what has been loaded since the last time. Costs one comparison where nothing was.
void NoteLoadedModules();

}  // namespace Velmora
