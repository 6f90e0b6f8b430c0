// Descriptors.
#pragma once

#include "MR_error.h"
#include "MR_types.h"

namespace Velmora {

/// Makes the descriptor non-blocking. RESULT_PARAM, with the system's reason, where it is not an open one.
MR_EXPORT Mirel::Result_t SetSockNonBlocking(const int& descriptor);

}  // namespace Velmora
