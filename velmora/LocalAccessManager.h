// Calls from the server to itself: the credential that lets them in.
#pragma once

#include <string_view>

#include "MR_error.h"
#include "MR_types.h"
#include "VL_HTTP.h"

namespace LocalAccessManager {

/// Prepares a call from this process to its own server.
class MR_EXPORT SelfAuthRestCallback {
  public:
    /// Puts the header "Authorization: Velmora-Self <64 hexadecimal digits>" into the call, in the place of
    /// any other: 256 random bits that were made when the process first needed them and that it tells nobody
    /// else.
    Mirel::Result_t Call(Velmora::BasicRestEntryCall& call);
};

/// Whether the value of a request's Authorization header is this process's own credential. Compares in
/// constant time. May be called from any thread.
MR_EXPORT bool IsSelfAuthorized(std::string_view authorization);

}  // namespace LocalAccessManager
