// Addresses that are not of the public Internet.
#pragma once

struct sockaddr;

namespace Server {

/// Whether the address is loopback, link-local, private, unspecified or multicast; an IPv4 address inside an
/// IPv6 one counts as itself. What is neither IPv4 nor IPv6 is private.
bool IsPrivateAddress(const sockaddr* address);

}  // namespace Server
