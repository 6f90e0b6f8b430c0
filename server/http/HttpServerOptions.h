// What a server is told before it starts.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "MR_types.h"
#include "http/AccessTokens.h"

namespace Server {

/// What a server is told once, before it binds.
struct HttpServerOptions {
    std::string Host = "127.0.0.1";
    Mirel::ui16_t Port = 0;   // 0: any free port
    std::string TLSIdentity;  // PEM file with certificate chain and key; empty: plain HTTP
    std::string AccessToken;  // one with all rights; empty: none
    std::vector<Server::AccessToken> AccessTokens;  // further ones, with rights of their own
    std::vector<std::string> AllowedHosts;  // names beside the bound one, localhost and loopback addresses

    std::string BasePath;  // what a proxy puts in front of paths ("/velmora"); empty: nothing

    bool AccessLog = false;  // one Info line for each answer

    std::vector<std::string> AllowedOrigins;  // of pages from elsewhere, or "*": all that have the token

    std::size_t IOThreads = 0;  // 0: chosen from the number of cores
    std::size_t MaxConnections = 4096;
    std::size_t MaxFeedClients = 4096;
    std::size_t BodyLimit = 1u << 20;
    std::size_t DocumentLimit = 64u << 20;  // the same for a queue state document, where it is more
    std::size_t HeaderLimit = 16u << 10;
    Mirel::ui32_t IdleTimeout_ms = 75000;  // between requests
    Mirel::ui32_t RequestTimeout_ms =
        15000;  // from a request's first byte to its last, and to take the answer

    /// Whether a token is wanted.
    bool Guarded() const { return !AccessToken.empty() || !AccessTokens.empty(); }
};

}  // namespace Server
