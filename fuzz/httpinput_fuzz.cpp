// What a client may send as requests: found alike however the bytes are cut up, within bounds, and never
// after an error. Whether they are let in is asked as well.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "http/ConnectionInput.h"
#include "http/FeedUpgrade.h"
#include "http/RefuseHead.h"

namespace {

using namespace Server;
using Progress = ConnectionInput::Progress;

constexpr std::size_t HeaderLimit = 1u << 10;
constexpr std::size_t BodyLimit = 2u << 10;

void Require(bool condition) {
    if (!condition) std::abort();
}

// Takes whatever has come so far.
class AnyHandler : public HttpHandler {
  public:
    std::optional<HttpResponse> Route(const HttpRequest&, HttpRoute&) const override { return {}; }
    HttpResponse Handle(const HttpRequest&, HttpRoute&) override { return {}; }
};

void CheckRefusal(const std::optional<HttpResponse>& refusal) {
    Require(!refusal || refusal->Status >= 400);
}

// The request in one text. Asks for it to be let in, as a connection does.
std::string Described(const ConnectionInput& input) {
    static const AccessPolicy policy({.AccessToken = "token", .AllowedHosts = {"events.example"}});
    const RequestHead& head = input.Head();
    HttpRoute route;
    CheckRefusal(RefuseHead(head, policy, AnyHandler(), route));
    CheckRefusal(RefuseUpgrade(head));
    Require(input.Body().size() <= BodyLimit);
    std::string text = head.Method ? Velmora::MethodToString(*head.Method) : "?";
    text.append(" ").append(head.Target).append(head.Http10 ? " 1.0" : " 1.1");
    text.append(input.KeepAlive() ? " stays" : " ends").append(head.HasBody ? " with " : " without ");
    for (const std::string_view field : head.Fields) text.append(field).append("|");
    for (const auto& [field, value] : head.More) text.append(value).append("|");
    if (head.Parts) text.append(head.Parts->Authority).append(head.Parts->Path).append(head.Parts->Query);
    return text.append(input.Body()).append("\n");
}

// All that is found when the bytes come in pieces of at most `piece`.
std::string RequestsIn(std::string_view bytes, std::size_t piece) {
    ConnectionInput input(HeaderLimit, BodyLimit);
    std::string found;
    for (;;) {
        while (input.HasUnparsed() && (input.HeadKnown() || input.SkipEmptyLines())) {
            const Progress progress = input.Parse();
            if (progress == Progress::Failed) {
                Require(input.Error().Status >= 400);
                return found;
            }
            if (progress == Progress::NeedMore) break;
            found += Described(input);
            if (progress == Progress::Complete) input.FinishRequest();
        }
        if (bytes.empty()) return found;
        input.MakeRoom();
        const std::size_t size = std::min({piece, input.Room(), bytes.size()});
        Require(size > 0);
        std::memcpy(input.Free(), bytes.data(), size);
        input.Commit(size);
        bytes.remove_prefix(size);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::string whole = RequestsIn(input, input.size() + 1);
    Require(whole == RequestsIn(input, 1));
    Require(whole == RequestsIn(input, 7));
    return 0;
}
