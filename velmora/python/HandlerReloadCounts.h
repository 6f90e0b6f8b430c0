// How often modules of handlers were loaded anew.
#pragma once

#include <atomic>

#include "MR_types.h"

namespace Velmora {

extern std::atomic<Mirel::ui64_t> HandlerReloads;
extern std::atomic<Mirel::ui64_t> FailedHandlerReloads;

}  // namespace Velmora
