#include "deliveries/PrivateAddress.h"

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <cstring>

namespace Server {

namespace {

struct Network {
    std::uint32_t Prefix;
    int Bits;
};

constexpr std::array<Network, 12> PrivateNetworks = {{
    {0x00000000, 8},   // this network
    {0x0a000000, 8},   // private
    {0x64400000, 10},  // shared by carriers
    {0x7f000000, 8},   // loopback
    {0xa9fe0000, 16},  // link-local
    {0xac100000, 12},  // private
    {0xc0000000, 24},  // protocol assignments
    {0xc0a80000, 16},  // private
    {0xc6120000, 15},  // benchmarks
    {0xe0000000, 4},   // multicast
    {0xf0000000, 4},   // reserved, broadcast
    {0xc0000200, 24},  // documentation
}};

bool IsPrivateV4(std::uint32_t address) {
    for (const Network& network : PrivateNetworks) {
        if ((address ^ network.Prefix) >> (32 - network.Bits) == 0) return true;
    }
    return false;
}

std::uint32_t V4At(const std::uint8_t* bytes) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 |
           bytes[3];
}

bool IsPrivateV6(const std::uint8_t* bytes) {
    static constexpr std::uint8_t Zero[12] = {};
    static constexpr std::uint8_t Mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    static constexpr std::uint8_t Nat64[12] = {0, 0x64, 0xff, 0x9b};
    for (const std::uint8_t* with_v4 : {Zero, Mapped, Nat64}) {  // "::" and "::1" are in 0.0.0.0/8
        if (std::memcmp(bytes, with_v4, 12) == 0) return IsPrivateV4(V4At(bytes + 12));
    }
    if (bytes[0] == 0x20 && bytes[1] == 0x02) return IsPrivateV4(V4At(bytes + 2));  // 6to4
    const bool unique_local = (bytes[0] & 0xfe) == 0xfc;
    const bool link_or_site = bytes[0] == 0xfe && (bytes[1] & 0x80) != 0;
    return unique_local || link_or_site || bytes[0] == 0xff;
}

}  // namespace

bool IsPrivateAddress(const sockaddr* address) {
    if (address->sa_family == AF_INET) {
        sockaddr_in v4;
        std::memcpy(&v4, address, sizeof v4);
        return IsPrivateV4(ntohl(v4.sin_addr.s_addr));
    }
    if (address->sa_family != AF_INET6) return true;
    sockaddr_in6 v6;
    std::memcpy(&v6, address, sizeof v6);
    return IsPrivateV6(v6.sin6_addr.s6_addr);
}

}  // namespace Server
