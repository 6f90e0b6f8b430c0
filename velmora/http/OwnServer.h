// Where this process's own server listens. Private to the library.
#pragma once

#include <string>

namespace LocalAccessManager {

/// "address:port" of ServerListens(), an IPv6 address in brackets; empty while it is not known. For the
/// client, which connects there and nowhere else when a call bears the credential.
std::string OwnServerAddress();

}  // namespace LocalAccessManager
