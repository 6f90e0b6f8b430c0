// Integer names and the export macro that every library of the framework uses.
#pragma once

#include <cstdint>

/// Marks what a shared library offers to others; everything else stays hidden.
#define MR_EXPORT __attribute__((visibility("default")))

namespace Mirel {

using byte_t = std::uint8_t;
using ui16_t = std::uint16_t;
using i32_t = std::int32_t;
using ui32_t = std::uint32_t;
using i64_t = long long;
using ui64_t = unsigned long long;

}  // namespace Mirel
