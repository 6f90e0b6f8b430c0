// Access tokens in the configuration.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "VL_PList.h"
#include "config/Shape.h"
#include "http/AccessTokens.h"

namespace Server {

/// Most bytes of a file that holds a secret.
inline constexpr std::size_t LargestSecretFile = 64u << 10;

/// Adds a fault where an Authorization header could not carry the token.
void CheckTokenText(Shape& shape, const std::string& key, const std::string& token);

/// The token in a file, without the end of its line; what is amiss is blamed on the key.
std::string ReadTokenFile(Shape& shape, const std::string& key, const std::string& path);

/// Reads "AccessTokens", each beside `plain`, the one token that stands alone (empty: there is none).
/// Relative paths begin at the directory.
std::vector<AccessToken> ReadAccessTokens(Shape& shape, const std::string& directory,
                                          const std::string& plain, std::vector<Fault>& faults);

/// The same as it is printed: names, roles, events and files, and no secret.
Velmora::PListArray AccessTokensInForce(const std::vector<AccessToken>& tokens);

/// What the configuration's "Hash" of the token is; nothing for one that would not be strong enough, which
/// `fault` then says.
std::optional<std::string> HashOfToken(const std::string& token, std::string& fault);

}  // namespace Server
