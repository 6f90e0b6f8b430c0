// Integer names and the export macro that every library of the framework uses.
#pragma once

#include <cstdint>

/// Marks what a shared library offers to others; everything else stays hidden.
#define MR_EXPORT __attribute__((visibility("default")))

/// Takes back what MR_EXPORT of a class says, for what only the library itself uses of it.
#define MR_HIDDEN __attribute__((visibility("hidden")))

/// The utility library: results, mutexes, threads, log, time, identifiers, files.
namespace Mirel {

using byte_t = std::uint8_t;        ///< 8 bits, not a character
using ui16_t = std::uint16_t;       ///< 16 bits, unsigned
using i32_t = std::int32_t;         ///< 32 bits, signed
using ui32_t = std::uint32_t;       ///< 32 bits, unsigned
using i64_t = long long;            ///< 64 bits, signed
using ui64_t = unsigned long long;  ///< 64 bits, unsigned

}  // namespace Mirel
