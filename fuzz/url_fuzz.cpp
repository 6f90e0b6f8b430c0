// Whatever text reads as a URL or a path must compose, and read again, to the same value.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "VL_HTTP.h"

namespace {

bool Equal(const Velmora::URL& lhs, const Velmora::URL& rhs) {
    return lhs.m_Empty == rhs.m_Empty && lhs.Scheme == rhs.Scheme && lhs.Username == rhs.Username &&
           lhs.Password == rhs.Password && lhs.Hostname == rhs.Hostname && lhs.Path == rhs.Path &&
           lhs.QueryString == rhs.QueryString && lhs.HasQueryToken == rhs.HasQueryToken;
}

void Check(const std::string& text, bool (Velmora::URL::*parse)(const std::string&)) {
    Velmora::URL url;
    if (!(url.*parse)(text)) {
        if (!url.Empty() || !url.ComposeAbsolute().empty()) std::abort();
        return;
    }
    const std::string composed = url.ComposeAbsolute();  // without the scheme's own port
    if (url.Empty() || composed.find_first_of(" \r\n#") != std::string::npos) std::abort();
    Velmora::URL again;
    if (!(again.*parse)(composed) || !Equal(url, again) || again.ComposeAbsolute() != composed) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    Check(text, &Velmora::URL::Parse);
    Check(text, &Velmora::URL::ParsePath);
    return 0;
}
