// What a client may send: found alike however the bytes are cut up, within bounds, and never after a
// violation.
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "feed/Frame.cpp"  // local to the library

namespace {

using Velmora::Feed::FrameParser;

struct Event {
    FrameParser::Found What;
    int Code;
    std::string Payload;
    bool operator==(const Event&) const = default;
};

void Require(bool condition) {
    if (!condition) std::abort();
}

// All that is found when the input comes in pieces of `piece` bytes.
std::vector<Event> Parse(std::string_view input, std::size_t piece) {
    FrameParser parser;
    std::vector<Event> events;
    bool dead = false;
    while (!input.empty()) {
        std::string_view part = input.substr(0, piece);
        input.remove_prefix(part.size());
        for (;;) {
            const FrameParser::Found found = parser.Next(part);
            if (found == FrameParser::Found::Nothing) break;
            Require(!dead && parser.Payload().size() <= Velmora::Feed::MaxControlPayload);
            dead = found == FrameParser::Found::Violation;
            const bool has_code = dead || found == FrameParser::Found::Close;
            events.push_back(
                {found, has_code ? parser.Code() : 0, dead ? "" : std::string(parser.Payload())});
        }
        Require(part.empty() || dead);
    }
    return events;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::vector<Event> whole = Parse(input, input.size() + 1);
    Require(whole == Parse(input, 1));
    Require(whole == Parse(input, 7));
    return 0;
}
