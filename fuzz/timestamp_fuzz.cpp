// Whatever text decodes as a time must encode, and decode again, to the same second.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "MR_util.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    Mirel::Timestamp time = Mirel::Timestamp::FromMicroseconds(42);
    if (!time.DecodeString(text.c_str())) {
        if (time.Microseconds() != 42) std::abort();
        return 0;
    }
    Mirel::Timestamp back = Mirel::Timestamp::FromMicroseconds(0);
    if (!back.DecodeString(time.Text().c_str())) std::abort();
    const Mirel::i64_t dropped = time.Microseconds() - back.Microseconds();
    if (dropped < 0 || dropped >= 1000000 || time.Text() != back.Text()) std::abort();
    return 0;
}
