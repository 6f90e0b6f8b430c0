// Reads and composes URLs.
#include <arpa/inet.h>

#include <charconv>
#include <string_view>
#include <utility>

#include "MR_text.h"
#include "VL_HTTP.h"

namespace Velmora {

namespace {

// Locale-independent, so that what is a URL does not depend on where the server runs.
bool IsAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}
bool IsHexDigit(char c) {
    return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool IsUnreservedOrDelimiter(char c) {
    return IsAlpha(c) || IsDigit(c) || std::string_view("-._~!$&'()*+,;=").find(c) != std::string_view::npos;
}

// True where `text` is made of unreserved characters, sub-delimiters, well-formed percent escapes and the
// characters of `others`.
bool IsMadeOf(std::string_view text, std::string_view others) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            if (text.size() - i < 3 || !IsHexDigit(text[i + 1]) || !IsHexDigit(text[i + 2])) return false;
            i += 2;
        } else if (!IsUnreservedOrDelimiter(text[i]) && others.find(text[i]) == std::string_view::npos) {
            return false;
        }
    }
    return true;
}

bool IsScheme(std::string_view text) {
    if (text.empty() || !IsAlpha(text.front())) return false;
    for (const char c : text) {
        if (!IsAlpha(c) && !IsDigit(c) && c != '+' && c != '-' && c != '.') return false;
    }
    return true;
}

// The port that `scheme` stands for; 0 where it is neither http nor https.
ui16_t SchemePort(std::string_view scheme) {
    if (Mirel::EqualIgnoringCase(scheme, "http")) return 80;
    if (Mirel::EqualIgnoringCase(scheme, "https")) return 443;
    return 0;
}

// Reads what follows "host:". Nothing at all stands for the scheme's own port, as 0.
bool ReadPort(std::string_view text, ui16_t& port) {
    port = 0;
    if (text.empty()) return true;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size();
}

// Splits "user:password@" off the front of `authority`.
bool ReadUser(std::string_view& authority, URL& url) {
    const std::size_t at = authority.find('@');
    if (at == std::string_view::npos) return true;
    const std::string_view user = authority.substr(0, at);
    authority.remove_prefix(at + 1);
    if (!IsMadeOf(user, ":")) return false;
    const std::size_t colon = user.find(':');
    url.Username = user.substr(0, colon);
    if (colon != std::string_view::npos) url.Password = user.substr(colon + 1);
    return true;
}

// Reads "[address]" off the front of `authority`. Zone names and future address forms are refused.
bool ReadIpv6(std::string_view& authority, URL& url) {
    const std::size_t close = authority.find(']');
    if (close == std::string_view::npos) return false;
    url.Hostname = authority.substr(1, close - 1);
    authority.remove_prefix(close + 1);
    in6_addr address;
    const bool whole_text = url.Hostname.find('\0') == std::string::npos;  // inet_pton reads up to a NUL
    return whole_text && inet_pton(AF_INET6, url.Hostname.c_str(), &address) == 1;
}

bool ReadName(std::string_view& authority, URL& url) {
    url.Hostname = authority.substr(0, authority.find(':'));
    authority.remove_prefix(url.Hostname.size());
    return !url.Hostname.empty() && IsMadeOf(url.Hostname, "");
}

bool ReadAuthority(std::string_view authority, URL& url) {
    if (!ReadUser(authority, url)) return false;
    const bool ipv6 = !authority.empty() && authority.front() == '[';
    if (!(ipv6 ? ReadIpv6(authority, url) : ReadName(authority, url))) return false;
    if (authority.empty()) return true;
    return authority.front() == ':' && ReadPort(authority.substr(1), url.Port);
}

// Reads "/path?query", each part possibly absent.
bool ReadPathAndQuery(std::string_view text, URL& url) {
    const std::size_t question = text.find('?');
    url.Path = text.substr(0, question);
    url.HasQueryToken = question != std::string_view::npos;
    if (url.HasQueryToken) url.QueryString = text.substr(question + 1);
    return IsMadeOf(url.Path, "/:@") && IsMadeOf(url.QueryString, "/:@?");
}

bool ReadAbsolute(std::string_view text, URL& url) {
    const std::size_t mark = text.find("://");
    if (mark == std::string_view::npos || !IsScheme(text.substr(0, mark))) return false;
    url.Scheme = text.substr(0, mark);
    text.remove_prefix(mark + 3);
    const std::size_t end = text.find_first_of("/?#");
    if (!ReadAuthority(text.substr(0, end), url)) return false;
    return end == std::string_view::npos || ReadPathAndQuery(text.substr(end), url);
}

}  // namespace

bool URL::Parse(const std::string& text) {
    URL read;
    read.m_Empty = false;
    const bool good = ReadAbsolute(text, read);
    *this = good ? std::move(read) : URL();
    return good;
}

bool URL::ParsePath(const std::string& text) {
    URL read;
    read.m_Empty = false;
    const bool good = text.starts_with('/') && !text.starts_with("//") && ReadPathAndQuery(text, read);
    *this = good ? std::move(read) : URL();
    return good;
}

std::string URL::ComposeAbsolute() const {
    std::string text = ComposeSchemeAndHost(true) + Path;
    if (HasQueryToken || !QueryString.empty()) text += '?' + QueryString;
    return text;
}

std::string URL::ComposeSchemeAndHost(bool with_credentials) const {
    std::string text;
    if (!Scheme.empty() || !Hostname.empty()) text = Scheme + "://";
    if (with_credentials && !(Username.empty() && Password.empty())) {
        text += Username;
        if (!Password.empty()) text += ':' + Password;
        text += '@';
    }
    const bool ipv6 = Hostname.find(':') != std::string::npos;
    text += ipv6 ? '[' + Hostname + ']' : Hostname;
    if (Port != 0 && Port != SchemePort(Scheme)) text += ':' + std::to_string(Port);
    return text;
}

bool URL::Empty() const {
    return m_Empty && Hostname.empty() && Path.empty();
}

}  // namespace Velmora
