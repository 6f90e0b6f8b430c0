// Requests through libcurl.
#include "terminal/Api.h"

#include <curl/curl.h>

#include <array>
#include <string_view>
#include <utility>

#include "VL_HTTP.h"
#include "terminal/Failure.h"

namespace Terminal {

namespace {

constexpr long Timeout_sec = 60;
constexpr long ConnectTimeout_sec = 10;
constexpr long Silence_sec = 45;  // of the feed, which has a heartbeat every 15 s

[[noreturn]] void Refuse(long status, const std::string& body) {
    std::string text =
        std::to_string(status) + " " + Velmora::StatusToString(static_cast<Velmora::Status_t>(status));
    const std::unique_ptr<Velmora::PListItem> item = Velmora::PListItem::CreateFromJSON(body);
    if (const auto* problem = dynamic_cast<const Velmora::PListDict*>(item.get())) {
        if (problem->HasItem("detail")) text = problem->GetData("detail").Text();
        for (const Velmora::PListItem& entry : problem->GetArray("errors")) {
            const auto* error = dynamic_cast<const Velmora::PListDict*>(&entry);
            if (error == nullptr) continue;
            const char* key = error->HasItem("parameter") ? "parameter" : "pointer";
            text += "\n  " + error->GetData(key).Text() + " " + error->GetData("detail").Text();
        }
    }
    if (status == 401 || status == 403) throw Failure(ExitNotAllowed, text);
    if (status == 404) throw Failure(ExitMissing, text);
    throw Failure(status >= 500 ? ExitUnreachable : ExitRefused, text);
}

size_t Append(char* data, size_t, size_t size, void* text) {
    static_cast<std::string*>(text)->append(data, size);
    return size;
}

// Takes a stream of server-sent events apart.
class EventReader {
  public:
    explicit EventReader(const std::function<bool(const Api::Event&)>& take) : m_Take(take) {}

    bool Add(std::string_view bytes) {
        m_Rest.append(bytes);
        std::size_t from = 0;
        for (std::size_t end = m_Rest.find('\n'); end != std::string::npos && !m_Over;
             end = m_Rest.find('\n', from)) {
            Line(std::string_view(m_Rest).substr(from, end - from));
            from = end + 1;
        }
        m_Rest.erase(0, from);
        return !m_Over;
    }
    bool Over() const { return m_Over; }

  private:
    void Line(std::string_view line) {
        if (line.empty()) return Dispatch();
        const std::size_t colon = line.find(':');
        std::string_view value = colon == line.npos ? "" : line.substr(colon + 1);
        if (value.starts_with(' ')) value.remove_prefix(1);
        const std::string_view field = line.substr(0, colon);
        if (field == "id") m_Event.Id = value;
        if (field == "event") m_Event.Type = value;
        if (field == "data") m_Event.Data.append(m_Event.Data.empty() ? "" : "\n").append(value);
    }

    void Dispatch() {
        if (!m_Event.Data.empty()) m_Over = !m_Take(m_Event);
        m_Event = {};
    }

    const std::function<bool(const Api::Event&)>& m_Take;
    std::string m_Rest;
    Api::Event m_Event;
    bool m_Over = false;
};

}  // namespace

std::string Encode(const std::string& name) {
    constexpr std::string_view Plain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
    constexpr std::string_view Digits = "0123456789ABCDEF";
    std::string text;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (Plain.find(c) != Plain.npos) {
            text += c;
        } else {
            text.append(1, '%').append(1, Digits[byte >> 4]).append(1, Digits[byte & 15]);
        }
    }
    return text;
}

Velmora::PListDict ReadAnswer(const std::string& text) {
    const std::unique_ptr<Velmora::PListItem> item =
        Velmora::PListItem::CreateFromJSON(text, nullptr, Velmora::PListItem::AnyDepth);
    const auto* answer = dynamic_cast<const Velmora::PListDict*>(item.get());
    if (answer == nullptr) throw Failure(ExitUnreachable, "The answer is not that of a velmora-server.");
    return *answer;
}

// A handle of libcurl's, and what a request is made of.
class Api::Transfer {
  public:
    Transfer() : m_Handle(curl_easy_init()) {
        if (m_Handle == nullptr) throw Failure(ExitUsage, "Out of memory.");
    }
    ~Transfer() {
        curl_slist_free_all(m_Headers);
        curl_easy_cleanup(m_Handle);
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    void Begin(const Settings& settings, const std::string& url) {
        curl_easy_reset(m_Handle);
        curl_slist_free_all(std::exchange(m_Headers, nullptr));
        m_Why[0] = '\0';
        Set(CURLOPT_URL, url.c_str());
        Set(CURLOPT_ERRORBUFFER, m_Why.data());
        Set(CURLOPT_NOSIGNAL, 1L);
        Set(CURLOPT_CONNECTTIMEOUT, ConnectTimeout_sec);
        Set(CURLOPT_PROTOCOLS_STR, "http,https");
        Set(CURLOPT_USERAGENT, "velmora/" VELMORA_VERSION);
        if (!settings.CaFile.empty()) Set(CURLOPT_CAINFO, settings.CaFile.c_str());
        Set(CURLOPT_SSL_VERIFYPEER, settings.Insecure ? 0L : 1L);
        Set(CURLOPT_SSL_VERIFYHOST, settings.Insecure ? 0L : 2L);
        if (!settings.Token.empty()) Header("Authorization: Bearer " + settings.Token);
    }
    template <typename Value>
    void Set(CURLoption option, Value value) {
        curl_easy_setopt(m_Handle, option, value);
    }
    void Header(const std::string& line) { m_Headers = curl_slist_append(m_Headers, line.c_str()); }

    CURLcode Run() {
        Set(CURLOPT_HTTPHEADER, m_Headers);
        return curl_easy_perform(m_Handle);
    }
    long Status() const {
        long status = 0;
        curl_easy_getinfo(m_Handle, CURLINFO_RESPONSE_CODE, &status);
        return status;
    }
    std::string Why(CURLcode code) const {
        return m_Why[0] != '\0' ? m_Why.data() : curl_easy_strerror(code);
    }

  private:
    CURL* const m_Handle;
    curl_slist* m_Headers = nullptr;
    std::array<char, CURL_ERROR_SIZE> m_Why{};
};

Api::Api(const Settings& settings) : m_Settings(settings), m_Transfer(std::make_unique<Transfer>()) {}

Api::~Api() = default;

std::string Api::Ask(const char* method, const std::string& path, const std::string& body) {
    const bool at_root = path.starts_with("//");
    m_Transfer->Begin(m_Settings, m_Settings.Address + (at_root ? path.substr(1) : "/api/v1" + path));
    m_Transfer->Set(CURLOPT_CUSTOMREQUEST, method);
    m_Transfer->Set(CURLOPT_TIMEOUT, Timeout_sec);
    if (!body.empty()) {
        m_Transfer->Header("Content-Type: application/json");
        m_Transfer->Header("Expect:");
        m_Transfer->Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        m_Transfer->Set(CURLOPT_POSTFIELDS, body.c_str());
    }
    std::string text;
    m_Transfer->Set(CURLOPT_WRITEFUNCTION, Append);
    m_Transfer->Set(CURLOPT_WRITEDATA, &text);
    const CURLcode code = m_Transfer->Run();
    if (code != CURLE_OK) {
        throw Failure(ExitUnreachable,
                      m_Settings.Address + " does not answer: " + m_Transfer->Why(code) + ".");
    }
    if (m_Transfer->Status() >= 300 && !at_root) Refuse(m_Transfer->Status(), text);
    return text;
}

void Api::Follow(const std::string& query, const std::string& last_id,
                 const std::function<bool(const Event&)>& take) {
    struct Stream {
        Transfer& From;
        EventReader Events;
        std::string Refusal;
    } stream{*m_Transfer, EventReader(take), ""};
    m_Transfer->Begin(m_Settings, m_Settings.Address + "/api/v1/feed" + query);
    m_Transfer->Header("Accept: text/event-stream");
    if (!last_id.empty()) m_Transfer->Header("Last-Event-ID: " + last_id);
    m_Transfer->Set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    m_Transfer->Set(CURLOPT_LOW_SPEED_TIME, Silence_sec);
    m_Transfer->Set(CURLOPT_WRITEDATA, &stream);
    m_Transfer->Set(
        CURLOPT_WRITEFUNCTION, +[](char* data, size_t, size_t size, void* to) -> size_t {
            auto& into = *static_cast<Stream*>(to);
            if (into.From.Status() == 200) return into.Events.Add({data, size}) ? size : 0;
            into.Refusal.append(data, size);
            return size;
        });
    const CURLcode code = m_Transfer->Run();
    if (stream.Events.Over()) return;
    if (m_Transfer->Status() >= 300) Refuse(m_Transfer->Status(), stream.Refusal);
    throw Failure(ExitUnreachable, code == CURLE_OK ? "The feed ended." : m_Transfer->Why(code) + ".");
}

}  // namespace Terminal
