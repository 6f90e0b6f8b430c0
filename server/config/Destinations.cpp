#include "config/Destinations.h"

#include <openssl/evp.h>
#include <strings.h>

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "EventManager.h"
#include "MR_util.h"
#include "config/Secrets.h"

namespace Server {

using Velmora::PListArray;
using Velmora::PListDict;
using Velmora::PListItem;

namespace {

constexpr std::size_t LargestFile = 64u << 10;
constexpr std::string_view SecretPrefix = "whsec_";

bool Same(const std::string& one, const std::string& other) {
    return strcasecmp(one.c_str(), other.c_str()) == 0;
}

unsigned PortOf(const Velmora::URL& url) {
    if (url.Port != 0) return url.Port;
    return Same(url.Scheme, "https") ? 443 : 80;
}

bool IsSchemeOnly(const std::string& match) {
    return Same(match, "http://") || Same(match, "https://");
}

bool IsMatch(const std::string& match) {
    Velmora::URL url;
    if (match.empty() || IsSchemeOnly(match)) return true;
    if (match.front() == '/') return url.ParsePath(match);
    return url.Parse(match) && IsSchemeOnly(url.Scheme + "://") && url.Username.empty() && !url.HasQueryToken;
}

// The bytes of a secret as senders and receivers exchange it; empty where it is none.
std::string DecodeSecret(std::string_view text) {
    if (text.starts_with(SecretPrefix)) text.remove_prefix(SecretPrefix.size());
    std::string bytes(text.size() + 4, '\0');
    const int size =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    if (size < 0 || text.size() % 4 != 0 || text.empty()) return std::string();
    const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
    bytes.resize(static_cast<std::size_t>(size) - padding);
    return bytes;
}

class DestinationReader {
  public:
    DestinationReader(const PListDict& dict, const std::string& base, const ResolvePath& resolve,
                      std::vector<Fault>& faults)
        : m_Shape(dict, base, faults), m_Base(base), m_Faults(faults), m_Resolve(resolve) {}

    Destination Read() {
        m_Read.Match = m_Shape.Text("Match", Need::Required).value_or("");
        if (!IsMatch(m_Read.Match)) {
            m_Shape.Blame("Match",
                          "must be \"\", a path, \"http://\", \"https://\" or a URL without user and query");
        }
        m_Read.Allow = m_Shape.Boolean("Allow").value_or(true);
        Number("Attempts", 1, 100, m_Read.Attempts);
        Number("Backoff_ms", 1, 3600000, m_Read.Backoff_ms);
        Number("Timeout_ms", 1, Velmora::TLSHTTPRequestHandle::MaxTimeout_ms, m_Read.Timeout_ms);
        Number("MaxInFlight", 1, 100000, m_Read.MaxInFlight);
        m_Read.VerifyPeer = m_Shape.Boolean("VerifyPeer").value_or(true);
        m_Read.AllowPrivateAddresses = m_Shape.Boolean("AllowPrivateAddresses").value_or(true);
        if (const auto path = m_Shape.NonEmptyText("CAFile")) m_Read.CAFile = m_Resolve(*path);
        if (const auto path = m_Shape.NonEmptyText("ClientCertificate")) {
            m_Read.ClientCertificate = m_Resolve(*path);
        }
        if (const PListDict* headers = m_Shape.Dict("Headers")) Headers(*headers);
        Secrets();
        m_Shape.NothingElse();
        return std::move(m_Read);
    }

  private:
    void Number(const char* key, Mirel::i64_t min, Mirel::i64_t max, Mirel::ui32_t& field) {
        if (const auto value = m_Shape.Integer(key, min, max)) field = static_cast<Mirel::ui32_t>(*value);
    }

    void Headers(const PListDict& headers) {
        for (const auto& [key, item] : headers) {
            const std::string name(key);
            const std::string value =
                item.HasType(Velmora::IT_STRING)
                    ? std::string(static_cast<const Velmora::PListData&>(item).TextView())
                    : std::string("\n");
            const std::string at = PointerTo(PointerTo(m_Base, "Headers"), name);
            if (value == HiddenSecret) {
                m_Faults.push_back({at, NeedsSecret});
            } else if (!IsToken(name) || !IsPlain(value)) {
                m_Faults.push_back({at, "must be a header's name with a text without control characters"});
            } else {
                m_Read.Headers[name] = value;
            }
        }
    }

    static bool IsToken(const std::string& name) {
        return !name.empty() &&
               name.find_first_not_of(
                   "!#$%&'*+-.^_`|~0123456789"
                   "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz") == name.npos &&
               !Same(name, "Content-Length") && !Same(name, "Transfer-Encoding") && !Same(name, "Host");
    }
    static bool IsPlain(const std::string& value) {
        return std::none_of(value.begin(), value.end(),
                            [](unsigned char c) { return (c < 0x20 && c != '\t') || c == 0x7f; });
    }

    // One secret or, while it is being exchanged, two: the text, or a file with one on each line.
    void Secrets() {
        const auto text = m_Shape.Text("SigningSecret");
        const auto path = m_Shape.NonEmptyText("SigningSecretFile");
        if (text && path) m_Shape.Blame("SigningSecretFile", "cannot stand beside \"SigningSecret\"");
        if (text) TakeSecrets("SigningSecret", *text);
        if (!path) return;
        m_Read.SigningSecretFile = m_Resolve(*path);
        std::string read_text;
        const Mirel::Result_t read =
            Mirel::ReadFileIntoString(m_Read.SigningSecretFile, read_text, LargestFile);
        if (read.Failure()) {
            m_Shape.Blame("SigningSecretFile", std::string("cannot be read: ") + read.Message());
        } else {
            TakeSecrets("SigningSecretFile", read_text);
        }
    }

    void TakeSecrets(const char* key, const std::string& text) {
        constexpr std::size_t Shortest = 24, Longest = 64;
        constexpr const char* Blanks = " \r\n\t";
        for (std::size_t at = text.find_first_not_of(Blanks); at != text.npos;
             at = text.find_first_not_of(Blanks, at)) {
            const std::size_t end = std::min(text.find_first_of(Blanks, at), text.size());
            const std::string word = text.substr(at, end - at);
            at = end;
            if (word == HiddenSecret) return m_Shape.Blame(key, NeedsSecret);
            m_Read.SigningSecrets.push_back(DecodeSecret(word));
            const std::size_t size = m_Read.SigningSecrets.back().size();
            if (size < Shortest || size > Longest) {
                return m_Shape.Blame(key,
                                     "must hold 24 to 64 bytes in base64, \"whsec_\" before them or not");
            }
        }
        if (m_Read.SigningSecrets.empty() || m_Read.SigningSecrets.size() > 2) {
            m_Shape.Blame(key, "must hold one secret, or two with a blank or a line's end between them");
        }
    }

    Shape m_Shape;
    const std::string m_Base;
    std::vector<Fault>& m_Faults;
    const ResolvePath& m_Resolve;
    Destination m_Read;
};

// As a server takes the path: what is written "/a/../b" is "/b".
std::string WithoutDots(const std::string& path) {
    std::vector<std::string> parts;
    std::string text;
    for (std::size_t at = 0; at < path.size(); ++at) {
        const bool dot =
            path[at] == '%' && (path.compare(at, 3, "%2e") == 0 || path.compare(at, 3, "%2E") == 0);
        text += dot ? '.' : path[at];
        if (dot) at += 2;
    }
    if (text.find("/.") == text.npos) return path;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('/', at + 1), text.size());
        const std::string part = text.substr(at, end - at);
        at = end;
        if (part != "/." && part != "/..") parts.push_back(part);
        if (part == "/.." && !parts.empty()) parts.pop_back();
        if (at == text.size() && part.starts_with("/.") && part.find_first_not_of("/.") == part.npos) {
            parts.emplace_back("/");
        }
    }
    std::string joined;
    for (const std::string& part : parts) joined += part;
    return joined;
}

bool FitsUrl(const Velmora::URL& match, const Velmora::URL& url) {
    return Same(match.Scheme, url.Scheme) && Same(match.Hostname, url.Hostname) &&
           PortOf(match) == PortOf(url) && WithoutDots(url.Path).starts_with(match.Path);
}

}  // namespace

// By its parts: "https://good.example" must not be the beginning of "https://good.example.evil.example".
bool Fits(const Destination& destination, const std::string& callback) {
    const std::string& match = destination.Match;
    if (match.empty()) return true;
    if (match.front() == '/') return callback.starts_with(match);
    Velmora::URL wanted, url;
    if (!url.Parse(callback)) return false;
    if (IsSchemeOnly(match)) return Same(url.Scheme + "://", match);
    return wanted.Parse(match) && FitsUrl(wanted, url);
}

std::vector<Destination> ReadDestinations(const PListArray& list, const std::string& base,
                                          const ResolvePath& resolve, std::vector<Fault>& faults) {
    std::vector<Destination> destinations;
    std::size_t index = 0;
    for (const PListItem& item : list) {
        const std::string at = PointerTo(base, index++);
        if (const PListDict* entry = AsDict(&item)) {
            destinations.push_back(DestinationReader(*entry, at, resolve, faults).Read());
        } else {
            faults.push_back({at, "must be an object"});
        }
    }
    return destinations;
}

DeliverySettings ReadDeliverySettings(const PListDict& dict, const std::string& base,
                                      const ResolvePath& resolve, std::vector<Fault>& faults) {
    DeliverySettings settings;
    settings.On = true;
    Shape shape(dict, base, faults);
    const auto take = [&](const char* key, Mirel::i64_t min, Mirel::i64_t max, auto& field) {
        if (const auto value = shape.Integer(key, min, max)) {
            field = static_cast<std::remove_reference_t<decltype(field)>>(*value);
        }
    };
    if (const auto path = shape.NonEmptyText("Journal")) settings.Journal = resolve(*path);
    take("Keep", 0, 1000000, settings.Keep);
    take("KeepBytes", 0, Mirel::i64_t{1} << 40, settings.KeepBytes);
    take("MaxWaiting", 1, 10000000, settings.MaxWaiting);
    take("MaxWaitingBytes", 1024, Mirel::i64_t{1} << 40, settings.MaxWaitingBytes);
    take("MaxAge_sec", 1, 315360000, settings.MaxAge_sec);
    shape.NothingElse();
    return settings;
}

namespace {

PListDict DestinationInForce(const Destination& destination) {
    PListDict shown;
    shown.SetValue("Match", destination.Match);
    shown.SetValue("Allow", destination.Allow);
    shown.SetValue("Attempts", static_cast<long long>(destination.Attempts));
    shown.SetValue("Backoff_ms", static_cast<long long>(destination.Backoff_ms));
    if (destination.Timeout_ms != 0) {
        shown.SetValue("Timeout_ms", static_cast<long long>(destination.Timeout_ms));
    }
    shown.SetValue("MaxInFlight", static_cast<long long>(destination.MaxInFlight));
    shown.SetValue("VerifyPeer", destination.VerifyPeer);
    shown.SetValue("AllowPrivateAddresses", destination.AllowPrivateAddresses);
    if (!destination.CAFile.empty()) shown.SetValue("CAFile", destination.CAFile);
    if (!destination.ClientCertificate.empty()) {
        shown.SetValue("ClientCertificate", destination.ClientCertificate);
    }
    PListDict headers;
    for (const auto& [name, value] : destination.Headers) headers.SetValue(name, HiddenSecret);
    if (!headers.Empty()) shown.SetItem("Headers", headers);
    if (!destination.SigningSecretFile.empty()) {
        shown.SetValue("SigningSecretFile", destination.SigningSecretFile);
    } else if (!destination.SigningSecrets.empty()) {
        shown.SetValue("SigningSecret", HiddenSecret);
    }
    return shown;
}

void CheckFile(const std::string& path, const std::string& pointer, const char* holds,
               std::vector<Fault>& faults) {
    std::string text;
    if (path.empty()) return;
    const Mirel::Result_t read = Mirel::ReadFileIntoString(path, text, 16u << 20);
    if (read.Failure()) {
        faults.push_back({pointer, std::string("cannot be read: ") + read.Message()});
    } else if (text.find(holds) == text.npos) {
        faults.push_back({pointer, std::string("must be a PEM file with \"") + holds + "\" in it"});
    }
}

}  // namespace

PListArray DestinationsInForce(const std::vector<Destination>& destinations) {
    PListArray shown;
    for (const Destination& destination : destinations) shown.Append(DestinationInForce(destination));
    return shown;
}

PListDict DeliveriesInForce(const DeliverySettings& settings) {
    PListDict shown;
    if (!settings.Journal.empty()) shown.SetValue("Journal", settings.Journal);
    shown.SetValue("Keep", static_cast<long long>(settings.Keep));
    shown.SetValue("KeepBytes", static_cast<long long>(settings.KeepBytes));
    shown.SetValue("MaxWaiting", static_cast<long long>(settings.MaxWaiting));
    shown.SetValue("MaxWaitingBytes", static_cast<long long>(settings.MaxWaitingBytes));
    shown.SetValue("MaxAge_sec", static_cast<long long>(settings.MaxAge_sec));
    return shown;
}

void CheckInFlight(const std::vector<Destination>& destinations, Mirel::ui32_t max_callers,
                   std::vector<Fault>& warnings) {
    Mirel::ui64_t all = 0;
    for (const Destination& destination : destinations)
        all += destination.Allow ? destination.MaxInFlight : 0;
    if (all <= max_callers) return;
    warnings.push_back({"/Destinations", "may have " + std::to_string(all) +
                                             " calls in flight together, and \"MaxCallers\" allows " +
                                             std::to_string(max_callers) +
                                             ": one that hangs can hold up the others"});
}

void CheckDestinations(const std::vector<Destination>& destinations, std::vector<Fault>& faults) {
    for (std::size_t i = 0; i < destinations.size(); ++i) {
        const std::string base = PointerTo("/Destinations", i);
        CheckFile(destinations[i].CAFile, base + "/CAFile", "-----BEGIN CERTIFICATE", faults);
        CheckFile(destinations[i].ClientCertificate, base + "/ClientCertificate", "PRIVATE KEY-----", faults);
    }
}

}  // namespace Server
