// The requests that are coming in on a connection.
#pragma once

#include <cstddef>
#include <string_view>

#include "http/ConnectionBuffer.h"
#include "http/RequestParser.h"

namespace Server {

/// Gathers bytes and parses the requests in them, one after the other. Used by one thread at a time.
class ConnectionInput {
  public:
    using Progress = RequestParser::Progress;

    ConnectionInput(std::size_t header_limit, std::size_t body_limit, std::string_view base_path = {})
        : m_Parser(header_limit, body_limit, base_path) {}

    /// Where the next bytes go, how many fit, and how many have come.
    void MakeRoom();
    char* Free() { return m_Buffer.Free(); }
    std::size_t Room() const { return m_Buffer.Room(); }
    void Commit(std::size_t bytes) { m_Buffer.Commit(bytes); }

    /// Whether nothing has come of a request that is not finished.
    bool Empty() const { return m_Buffer.Empty(); }
    bool HasUnparsed() const { return m_Buffer.View().size() > m_Parsed; }
    /// Passes over empty lines in front of a request (RFC 9112, 2.2); false where nothing else is there.
    bool SkipEmptyLines();
    /// Parses what has come. HeadComplete is answered once for each request that has a body.
    Progress Parse();

    /// Whether HeadComplete was answered for the request that is coming in.
    bool HeadKnown() const { return m_HeadSize > 0; }
    /// The request, as far as it is parsed. Its views hold until FinishRequest(), or until room is made.
    const RequestHead& Head() const { return m_Parser.Head(); }
    std::string_view Body() const { return m_Parser.Body(); }
    bool LimitBody(std::size_t limit) { return m_Parser.LimitBody(limit); }
    bool KeepAlive() const { return m_Parser.KeepAlive(); }
    HttpResponse Error() const { return m_Parser.Error(); }

    /// Forgets the request, which was complete; the next one may be there already.
    void FinishRequest();
    /// Forgets everything and gives the memory back.
    void Discard();
    /// Gives back what a long request took. Only while it is empty.
    void Shrink();

    /// What came behind the last request.
    std::string_view Unread() const { return m_Buffer.View(); }

  private:
    RequestParser m_Parser;
    ConnectionBuffer m_Buffer;
    std::size_t m_Parsed = 0;    // bytes at the buffer's front that the parser is done with
    std::size_t m_HeadSize = 0;  // of those, the head's, where a body follows
};

}  // namespace Server
