// Calls from the server to itself: the credential that lets them in, and the one address that is told it.
#pragma once

#include <string>
#include <string_view>

#include "MR_error.h"
#include "MR_types.h"
#include "VL_HTTP.h"

/// Calls of this process to its own server.
namespace LocalAccessManager {

/// Tells where this process's own server takes its calls: at the address and port that `listener`, a bound
/// socket, has; one that is bound to every address is reached over loopback of its family. From now on calls
/// to the server itself bear the credential. A later call replaces what an earlier one said. RESULT_PARAM
/// with the system's reason, and nothing changed, where `listener` has no address. Any thread.
MR_EXPORT Mirel::Result_t ServerListens(int listener);

/// "address:port" of ServerListens(), an IPv6 address in brackets; empty while it is not known. For clients,
/// which connect there and nowhere else when a call bears the credential. Any thread.
MR_EXPORT std::string OwnServerAddress();

/// The server takes no more calls: from now on nobody is told the credential. Any thread.
MR_EXPORT void ServerEnded();

/// Prepares a call from this process to its own server.
class MR_EXPORT SelfAuthRestCallback {
  public:
    /// Puts the header "Authorization: Velmora-Self <64 hexadecimal digits>" into the call, in the place of
    /// any other: 256 random bits that were made when the process first needed them and that it tells nobody
    /// else. Whatever name the call's URL has, a call with that header is only ever made to the address of
    /// ServerListens(). RESULT_STATE, and the call unchanged, while that is not known.
    Mirel::Result_t Call(Velmora::BasicRestEntryCall& call);
};

/// Whether the value of a request's Authorization header is this process's own credential. Compares in
/// constant time. May be called from any thread.
MR_EXPORT bool IsSelfAuthorized(std::string_view authorization);

}  // namespace LocalAccessManager
