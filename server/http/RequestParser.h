// Reads requests from a connection's bytes.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http/Http.h"
#include "http/RequestTarget.h"

namespace Server {

/// The header fields that the server looks at.
enum class Field {
    Host,
    Origin,
    Authorization,
    ContentType,
    IfNoneMatch,
    IfMatch,
    IdempotencyKey,
    Expect,
    Upgrade,
    Connection,
    WebSocketKey,
    WebSocketVersion,
    WebSocketProtocol,
    Accept,
    LastEventId,
    PreflightMethod,  // Access-Control-Request-Method
    Count,
};

/// A request's line and header fields. All views point into the bytes that were given to the parser.
struct RequestHead {
    std::optional<Method_t> Method;  // nothing: one that is not known here
    std::string_view Target;
    std::optional<RequestTarget> Parts;  // the target's; nothing: it has none of the forms that are served
    bool Http10 = false;
    bool HasBody = false;
    std::array<std::string_view, static_cast<std::size_t>(Field::Count)> Fields{};
    std::array<unsigned, static_cast<std::size_t>(Field::Count)> Times{};  // how often each field came
    std::vector<std::pair<Field, std::string_view>> More;  // what further lines of the same fields hold
    HeaderFields CloudEvent;                               // those whose names begin with "ce-"

    std::string_view operator[](Field field) const { return Fields[static_cast<std::size_t>(field)]; }
    bool Has(Field field) const { return Times[static_cast<std::size_t>(field)] > 0; }
    unsigned Count(Field field) const { return Times[static_cast<std::size_t>(field)]; }

    /// Follows the bytes to where they were moved.
    void Rebase(const char* from, const char* to);
};

/// Most bytes of a request's target.
inline constexpr std::size_t TargetLimit = 8u << 10;
/// Most bytes of a chunk's size line and of the trailer fields.
inline constexpr std::size_t ChunkLineLimit = 4u << 10;

/// Parses one request after the other. Used by one thread at a time.
class RequestParser {
  public:
    enum class Progress { NeedMore, HeadComplete, Complete, Failed };

    /// `body_limit` is for any request; a single one's can be made narrower. `base_path` is taken off the
    /// front of paths that have it; its bytes outlive the parser.
    RequestParser(std::size_t header_limit, std::size_t body_limit, std::string_view base_path = {});
    ~RequestParser();

    /// Ready for the next request.
    void Reset();

    /// Looks at `bytes`, which begin where the last call stopped consuming (a head is consumed whole or not
    /// at all), and sets `consumed`. HeadComplete is answered once for each request that has a body; go on
    /// with the bytes behind `consumed`. Where the bytes are moved between calls, rebase the head.
    Progress Parse(std::string_view bytes, std::size_t& consumed);

    /// After HeadComplete: how long this request's body may be. False (and there is an Error) where it will
    /// be longer.
    bool LimitBody(std::size_t limit);

    const RequestHead& Head() const;
    RequestHead& Head();
    bool KeepAlive() const;

    /// The body, once the request is complete: a view into the bytes that were given last or into the parser.
    std::string_view Body() const;

    /// What is to be answered after Failed; the connection cannot be used on.
    HttpResponse Error() const;

  private:
    class Impl;
    std::unique_ptr<Impl> m_Impl;
};

}  // namespace Server
