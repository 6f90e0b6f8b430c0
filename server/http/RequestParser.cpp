// Reads a head and a sized or chunked body, within the limits.
#include "http/RequestParser.h"

#include <algorithm>
#include <boost/beast/http/basic_parser.hpp>

#include "MR_text.h"

namespace Server {

namespace http = boost::beast::http;
using boost::beast::error_code;
// Beast's own string type in some signatures; both convert to std::string_view.
using beast_view = boost::beast::string_view;

namespace {

std::string_view Plain(beast_view text) {
    return {text.data(), text.size()};
}

std::optional<Method_t> KnownMethod(http::verb verb) {
    switch (verb) {
        case http::verb::options:
            return Velmora::METH_OPTIONS;
        case http::verb::head:
            return Velmora::METH_HEAD;
        case http::verb::get:
            return Velmora::METH_GET;
        case http::verb::post:
            return Velmora::METH_POST;
        case http::verb::put:
            return Velmora::METH_PUT;
        case http::verb::delete_:
            return Velmora::METH_DELETE;
        case http::verb::trace:
            return Velmora::METH_TRACE;
        case http::verb::connect:
            return Velmora::METH_CONNECT;
        case http::verb::patch:
            return Velmora::METH_PATCH;
        default:
            return std::nullopt;
    }
}

std::optional<Field> KnownField(http::field name, std::string_view text) {
    switch (name) {
        case http::field::accept:
            return Field::Accept;
        case http::field::access_control_request_method:
            return Field::PreflightMethod;
        case http::field::host:
            return Field::Host;
        case http::field::origin:
            return Field::Origin;
        case http::field::authorization:
            return Field::Authorization;
        case http::field::content_type:
            return Field::ContentType;
        case http::field::if_match:
            return Field::IfMatch;
        case http::field::if_none_match:
            return Field::IfNoneMatch;
        case http::field::expect:
            return Field::Expect;
        case http::field::upgrade:
            return Field::Upgrade;
        case http::field::connection:
            return Field::Connection;
        case http::field::sec_websocket_key:
            return Field::WebSocketKey;
        case http::field::sec_websocket_version:
            return Field::WebSocketVersion;
        case http::field::sec_websocket_protocol:
            return Field::WebSocketProtocol;
        case http::field::unknown:
            if (boost::beast::iequals(text, "Last-Event-ID")) return Field::LastEventId;
            if (boost::beast::iequals(text, "Idempotency-Key")) return Field::IdempotencyKey;
            return std::nullopt;
        default:
            return std::nullopt;
    }
}

// Whether a request line that is not version 1.0 or 1.1 names some other version of HTTP, behind a method and
// a target without blanks.
bool NamesVersion(std::string_view line) {
    line = line.substr(0, line.find('\r'));
    const std::size_t at = line.find(' ', line.find(' ') + 1);
    if (at == line.npos || line.substr(at, 6) != " HTTP/") return false;
    line.remove_prefix(at + 6);
    return !line.empty() && line.find_first_not_of("0123456789.") == line.npos;
}

// One request: Beast's parser, keeping views of what the server looks at and the body.
class BeastParser : public http::basic_parser<true> {
  public:
    BeastParser(std::size_t header_limit, std::size_t body_limit, std::string_view base_path,
                std::string& collected)
        : m_BasePath(base_path), m_Collected(collected) {
        // The head is given whole and its size is tested before: Beast's own limit only has to let it pass.
        this->header_limit(static_cast<std::uint32_t>(header_limit + 4));
        this->body_limit(body_limit);
        eager(true);
    }

    RequestHead Head;
    std::string_view Bytes;  // what is being parsed
    std::string_view BodyView;
    bool BodyIsView = false;

  private:
    void on_request_impl(http::verb verb, beast_view, beast_view target, int version, error_code&) override {
        Head.Method = KnownMethod(verb);
        Head.Target = Plain(target);
        Head.Parts = SplitTarget(Head.Target);
        if (Head.Parts && Head.Parts->Path.starts_with(m_BasePath) &&
            Head.Parts->Path.substr(m_BasePath.size()).starts_with('/')) {
            Head.Parts->Path.remove_prefix(m_BasePath.size());
        }
        Head.Http10 = version < 11;
    }

    void on_field_impl(http::field name, beast_view text, beast_view value, error_code& error) override {
        if (is_header_done()) return;  // a trailer field: nothing that was checked may change any more
        if (name == http::field::transfer_encoding &&
            (Head.Http10 || !boost::beast::iequals(value, "chunked"))) {
            error = http::error::bad_transfer_encoding;
            return;
        }
        const std::optional<Field> known = KnownField(name, {text.data(), text.size()});
        if (!known) return AddCloudEventField(Plain(text), Plain(value), error);
        if (IsFolded(Plain(text), Plain(value))) {
            error = http::error::bad_obs_fold;
            return;
        }
        const auto index = static_cast<std::size_t>(*known);
        if (Head.Times[index]++ == 0) {
            Head.Fields[index] = Plain(value);
        } else {
            Head.More.emplace_back(*known, Plain(value));
        }
    }

    void AddCloudEventField(std::string_view name, std::string_view value, error_code& error) {
        if (name.size() < 4 || !Mirel::EqualIgnoringCase(name.substr(0, 3), "ce-")) return;
        if (IsFolded(name, value)) {
            error = http::error::bad_obs_fold;
            return;
        }
        Head.CloudEvent.emplace_back(name, value);
    }

    // Whether a value went over several lines, which nobody sends any more: Beast puts it together in another
    // place, or begins it behind the first line's end where that line is empty.
    bool IsFolded(std::string_view name, std::string_view value) const {
        if (value.empty()) return false;
        if (value.data() < Bytes.data() || value.data() > Bytes.data() + Bytes.size()) return true;
        const char* const behind = name.data() + name.size();
        return std::string_view(behind, static_cast<std::size_t>(value.data() - behind)).find('\n') !=
               Bytes.npos;
    }

    void on_header_impl(error_code&) override {}

    void on_body_init_impl(boost::optional<std::uint64_t> const& length, error_code&) override {
        m_Length = length ? static_cast<std::size_t>(*length) : 0;
    }

    std::size_t on_body_impl(beast_view piece, error_code&) override {
        if (m_Collected.empty() && piece.size() == m_Length) {
            BodyView = Plain(piece);
            BodyIsView = true;
        } else {
            if (m_Collected.empty()) m_Collected.reserve(m_Length);
            m_Collected.append(piece.data(), piece.size());
        }
        return piece.size();
    }

    void on_chunk_header_impl(std::uint64_t, beast_view, error_code&) override {}
    std::size_t on_chunk_body_impl(std::uint64_t, beast_view piece, error_code&) override {
        m_Collected.append(piece.data(), piece.size());
        return piece.size();
    }
    void on_finish_impl(error_code&) override {}
    void on_response_impl(int, beast_view, int, error_code&) override {}

    const std::string_view m_BasePath;
    std::size_t m_Length = 0;
    std::string& m_Collected;
};

}  // namespace

void RequestHead::Rebase(const char* from, const char* to) {
    const auto move = [=](std::string_view& view) {
        if (view.data()) view = {to + (view.data() - from), view.size()};
    };
    move(Target);
    if (Parts) {
        for (std::string_view* view : {&Parts->Authority, &Parts->Path, &Parts->Query}) move(*view);
    }
    std::for_each(Fields.begin(), Fields.end(), move);
    for (auto& [field, value] : More) move(value);
    for (auto& [name, value] : CloudEvent) {
        move(name);
        move(value);
    }
}

class RequestParser::Impl {
  public:
    Impl(std::size_t header_limit, std::size_t body_limit, std::string_view base_path)
        : m_HeaderLimit(header_limit), m_LongestBody(body_limit), m_BasePath(base_path) {
        Reset();
    }

    void Reset() {
        // What one large request needed is not kept for a connection's whole life.
        if (m_Collected.capacity() > CollectedKept) m_Collected = std::string();
        m_Collected.clear();
        m_Searched = 0;
        m_HeadReported = false;
        m_BodyLimit = m_LongestBody;
        m_Parser.emplace(m_HeaderLimit, m_BodyLimit, m_BasePath, m_Collected);
    }

    Progress Parse(std::string_view bytes, std::size_t& consumed) {
        consumed = 0;
        if (bytes.empty()) return Progress::NeedMore;
        if (m_Parser->is_header_done() && IsPartOfLastChunk(bytes)) return Progress::NeedMore;
        if (!m_Parser->is_header_done() && !WholeHead(bytes))
            return m_Failure ? Progress::Failed : Progress::NeedMore;
        m_Parser->Bytes = bytes;
        error_code error;
        // Head first: what it says is checked before the body is waited for, and "100 Continue" goes out.
        m_Parser->eager(m_Parser->is_header_done());
        consumed = m_Parser->put(boost::asio::const_buffer(bytes.data(), bytes.size()), error);
        if (error && error != http::error::need_more) return Fail(bytes, error);
        if (!m_Parser->is_header_done())  // Beast hopes for more, but this was all of it
            return Refuse(Velmora::STATUS_400_BAD_REQ, NotARequest);
        if (m_Parser->is_done()) return Progress::Complete;
        if (!m_HeadReported) {
            m_HeadReported = true;
            m_Parser->Head.HasBody = true;
            return Progress::HeadComplete;
        }
        if (bytes.size() - consumed > ChunkLineLimit)
            return Refuse(Velmora::STATUS_400_BAD_REQ, "A chunk's size line is too long.");
        return Progress::NeedMore;
    }

    bool LimitBody(std::size_t limit) {
        m_BodyLimit = std::min(limit, m_LongestBody);
        m_Parser->body_limit(m_BodyLimit);  // for chunks
        if (m_Parser->content_length().value_or(0) <= m_BodyLimit) return true;
        RefuseBody();
        return false;
    }

    const BeastParser& Parser() const { return *m_Parser; }
    BeastParser& Parser() { return *m_Parser; }
    std::string_view Body() const {
        return m_Parser->BodyIsView ? m_Parser->BodyView : std::string_view(m_Collected);
    }
    const HttpResponse& Failure() const { return *m_Failure; }

  private:
    // Whether the bytes hold all of a head. Heads are parsed whole, so that their size can be limited exactly
    // and nothing of them has to be copied; what cannot be the beginning of one is refused at once.
    bool WholeHead(std::string_view bytes) {
        const std::size_t end = bytes.find("\r\n\r\n", m_Searched);
        m_Searched = bytes.size() < 3 ? 0 : bytes.size() - 3;  // the end may be there in part
        const std::size_t line = std::min(bytes.find('\n'), bytes.size());
        if (line > TargetLimit) {
            Refuse(Velmora::STATUS_414_URI_TOO_LONG, "The request's target is too long.");
        } else if (std::min(end, m_Searched) > m_HeaderLimit) {
            Refuse(Velmora::STATUS_431_HEADERS_TOO_LARGE, "The request's header fields are too large.");
        } else if (end == bytes.npos && !MayBeginRequest(bytes, line)) {
            Refuse(Velmora::STATUS_400_BAD_REQ, NotARequest);
        }
        return end != bytes.npos && !m_Failure;
    }

    // Beast asserts that it is not asked again about a last chunk before that can be whole.
    bool IsPartOfLastChunk(std::string_view bytes) const {
        constexpr std::string_view Whole = "0\r\n\r\n";
        return m_Parser->chunked() && bytes[0] == Whole[0] && bytes.size() < Whole.size();
    }

    static bool MayBeginRequest(std::string_view bytes, std::size_t line) {
        if (line < bytes.size() && (line == 0 || bytes[line - 1] != '\r')) return false;
        return bytes.empty() || (bytes[0] > ' ' && bytes[0] < 0x7f);
    }

    Progress Refuse(Status_t status, const std::string& detail) {
        m_Failure = Problem(status, detail);
        return Progress::Failed;
    }

    Progress RefuseBody() {
        return Refuse(Velmora::STATUS_413_TOO_LARGE,
                      "The body is larger than " + std::to_string(m_BodyLimit) + " bytes.");
    }

    Progress Fail(std::string_view bytes, error_code error) {
        if (error == http::error::body_limit) return RefuseBody();
        if (error == http::error::bad_version && NamesVersion(bytes)) {
            return Refuse(Velmora::STATUS_505_VERSION, "Only HTTP/1.0 and HTTP/1.1 are spoken here.");
        }
        return Refuse(Velmora::STATUS_400_BAD_REQ, "Malformed request: " + error.message() + ".");
    }

    static constexpr const char* NotARequest = "This is not an HTTP request.";
    static constexpr std::size_t CollectedKept = 64u << 10;

    const std::size_t m_HeaderLimit;
    const std::size_t m_LongestBody;
    const std::string_view m_BasePath;
    std::size_t m_BodyLimit = 0;  // of the request that is coming in

    std::string m_Collected;     // a body that did not come in one piece
    std::size_t m_Searched = 0;  // bytes of an incomplete head in which it does not end
    bool m_HeadReported = false;
    std::optional<BeastParser> m_Parser;
    std::optional<HttpResponse> m_Failure;
};

RequestParser::RequestParser(std::size_t header_limit, std::size_t body_limit, std::string_view base_path)
    : m_Impl(std::make_unique<Impl>(header_limit, body_limit, base_path)) {}
RequestParser::~RequestParser() = default;

void RequestParser::Reset() {
    m_Impl->Reset();
}
RequestParser::Progress RequestParser::Parse(std::string_view bytes, std::size_t& consumed) {
    return m_Impl->Parse(bytes, consumed);
}
bool RequestParser::LimitBody(std::size_t limit) {
    return m_Impl->LimitBody(limit);
}
const RequestHead& RequestParser::Head() const {
    return m_Impl->Parser().Head;
}
RequestHead& RequestParser::Head() {
    return m_Impl->Parser().Head;
}
bool RequestParser::KeepAlive() const {
    return m_Impl->Parser().keep_alive();
}
std::string_view RequestParser::Body() const {
    return m_Impl->Body();
}
HttpResponse RequestParser::Error() const {
    return m_Impl->Failure();
}

}  // namespace Server
