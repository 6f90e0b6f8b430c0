// The listening socket.
#pragma once

#include <string>

#include "MR_error.h"
#include "MR_types.h"

namespace Server {

/// "host:port", an IPv6 address in brackets.
std::string HostAndPort(const std::string& host, Mirel::ui16_t port);

/// A listening, non-blocking socket on the host (a name or an address) and port; `bound_port` is the one that
/// was really taken. An address that others than this machine reach is refused unless `guarded` is true. A
/// failure's message is one line that names host and port and the reason; RESULT_STATE where somebody has the
/// port.
Mirel::Result_t BindListener(const std::string& host, Mirel::ui16_t port, bool guarded, int& descriptor,
                             Mirel::ui16_t& bound_port);

/// Whether the bound socket is reached from this machine only.
bool ListensOnLoopback(int descriptor);

}  // namespace Server
