// Names of events and paths as tokens of the engine's subjects and keys.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "MR_types.h"

namespace Cluster {

/// Most bytes of an encoded name: a longer subject ends the connection to the engine.
inline constexpr std::size_t LongestName = 3000;

/// Letters, digits, '-' and '_' stand for themselves, and so does a '.' between two other characters; every
/// other byte is "=XX". Different names stay different.
std::string EncodeName(std::string_view name);

/// The name; nothing for a '=' without two hexadecimal digits. Bytes that EncodeName would have encoded stand
/// for themselves, since others write subjects too.
std::optional<std::string> DecodeName(std::string_view text);

}  // namespace Cluster
