#include "deliveries/Transfer.h"

#include <curl/curl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "LocalAccessManager.h"
#include "MR_log.h"
#include "deliveries/PrivateAddress.h"
#include "deliveries/Signature.h"

namespace Server {

using Velmora::RequestFailure;

namespace {

constexpr std::size_t HeaderLimit = 64 * 1024, AnswerKept = 1024;

struct FreeList {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using List = std::unique_ptr<curl_slist, FreeList>;

void Append(List& list, const std::string& text) {
    curl_slist* const longer = curl_slist_append(list.get(), text.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    (void)list.release();
    list.reset(longer);
}

}  // namespace

struct Transfer::Curl {
    CURL* Easy = curl_easy_init();
    List Headers, ConnectTo;
    char Error[CURL_ERROR_SIZE] = {};
    std::string Answer;
    std::size_t HeaderBytes = 0, BodyBytes = 0;
    bool PrivateToo = true, MetPrivate = false, Tried = false;
    int SocketError = 0;

    Curl() {
        if (Easy == nullptr) throw std::bad_alloc();
    }
    ~Curl() { curl_easy_cleanup(Easy); }

    template <class Value>
    void Set(CURLoption option, Value value) {
        if (curl_easy_setopt(Easy, option, value) == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
    }

    static std::size_t TakeHeader(char*, std::size_t size, std::size_t count, void* transfer) {
        auto* const self = static_cast<Curl*>(transfer);
        self->HeaderBytes += size * count;
        return self->HeaderBytes > HeaderLimit ? 0 : size * count;
    }
    static std::size_t TakeBody(char* bytes, std::size_t size, std::size_t count, void* transfer) {
        auto* const self = static_cast<Curl*>(transfer);
        self->BodyBytes += size * count;
        if (self->Answer.size() < AnswerKept) {
            self->Answer.append(bytes, std::min(size * count, AnswerKept - self->Answer.size()));
        }
        return self->BodyBytes > Velmora::TLSHTTPRequestHandle::ResponseBodyLimit ? 0 : size * count;
    }
    // The address that is looked at here is the one that the connection is made to.
    static curl_socket_t OpenSocket(void* transfer, curlsocktype, curl_sockaddr* address) {
        auto* const self = static_cast<Curl*>(transfer);
        if (!self->PrivateToo && IsPrivateAddress(&address->addr)) {
            self->MetPrivate = true;
            return CURL_SOCKET_BAD;
        }
        const int descriptor = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
        if (descriptor < 0) self->SocketError = errno;
        self->Tried = true;
        return descriptor;
    }
};

Transfer::Transfer(const Delivery& delivery, std::shared_ptr<const Destination> destination,
                   const Velmora::URL& self, Mirel::ui32_t timeout_ms)
    : m_Id(delivery.Id), m_Destination(std::move(destination)), m_Body(delivery.Body) {
    auto curl = std::make_unique<Curl>();
    if (!FindTarget(delivery, self)) return;
    m_Curl = std::move(curl);
    SetRequest(delivery);
    SetHeaders(delivery);
    SetTls();
    m_Curl->Set(CURLOPT_TIMEOUT_MS, static_cast<long>(timeout_ms));
}

Transfer::~Transfer() = default;

void* Transfer::Handle() const {
    return m_Curl ? m_Curl->Easy : nullptr;
}

// A path is on the server itself: the call bears its credential, and goes to the address that it is bound to.
bool Transfer::FindTarget(const Delivery& delivery, const Velmora::URL& self) {
    if (m_Url.Parse(delivery.Callback)) return true;
    Velmora::BasicRestEntryCall call;
    const bool known =
        m_Url.ParsePath(delivery.Callback) && LocalAccessManager::SelfAuthRestCallback().Call(call).Success();
    m_Url.Scheme = self.Scheme;
    m_Url.Hostname = self.Hostname;
    m_Url.Port = self.Port;
    m_Authorization = call.RequestHeaders[Velmora::Strings::Authorization];
    m_Address = LocalAccessManager::OwnServerAddress();
    return known && !m_Address.empty();
}

void Transfer::SetRequest(const Delivery& delivery) {
    Curl& curl = *m_Curl;
    Velmora::URL url = m_Url;
    if (m_Destination->Headers.contains(Velmora::Strings::Authorization)) {  // goes before what the URL says
        url.Username.clear();
        url.Password.clear();
    }
    m_Text = url.ComposeAbsolute();
    curl.Set(CURLOPT_URL, m_Text.c_str());
    curl.Set(CURLOPT_PATH_AS_IS, 1L);
    curl.Set(CURLOPT_PROTOCOLS_STR, "http,https");
    curl.Set(CURLOPT_PROXY, "");
    curl.Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl.Set(CURLOPT_NOSIGNAL, 1L);
    curl.Set(CURLOPT_QUICK_EXIT, 1L);
    curl.Set(CURLOPT_FORBID_REUSE, 1L);
    curl.Set(CURLOPT_ERRORBUFFER, curl.Error);
    curl.Set(CURLOPT_PRIVATE, static_cast<void*>(this));
    curl.Set(CURLOPT_HEADERFUNCTION, &Curl::TakeHeader);
    curl.Set(CURLOPT_HEADERDATA, static_cast<void*>(&curl));
    curl.Set(CURLOPT_WRITEFUNCTION, &Curl::TakeBody);
    curl.Set(CURLOPT_WRITEDATA, static_cast<void*>(&curl));
    curl.Set(CURLOPT_OPENSOCKETFUNCTION, &Curl::OpenSocket);
    curl.Set(CURLOPT_OPENSOCKETDATA, static_cast<void*>(&curl));
    curl.PrivateToo = m_Destination->AllowPrivateAddresses || !m_Authorization.empty();
    if (delivery.Method == Velmora::METH_GET) return;
    curl.Set(CURLOPT_POST, 1L);
    curl.Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(m_Body->size()));
    curl.Set(CURLOPT_POSTFIELDS, m_Body->c_str());
}

void Transfer::SetHeaders(const Delivery& delivery) {
    Velmora::HeaderSet headers = m_Destination->Headers;
    headers.emplace(Velmora::Strings::ContentType, Velmora::Strings::MIME_json);
    headers.emplace("Connection", "close");
    if (!m_Destination->SigningSecrets.empty()) {
        const Mirel::i64_t now_sec = Mirel::Timestamp().Microseconds() / 1000000;
        const std::string id = "msg_" + std::to_string(delivery.Id);
        headers["webhook-id"] = id;
        headers["webhook-timestamp"] = std::to_string(now_sec);
        headers["webhook-signature"] = WebhookSignature(m_Destination->SigningSecrets, id, now_sec, *m_Body);
    }
    if (!m_Authorization.empty()) {
        headers[Velmora::Strings::Authorization] = m_Authorization;
        Append(m_Curl->ConnectTo, "::" + m_Address);
        m_Curl->Set(CURLOPT_CONNECT_TO, m_Curl->ConnectTo.get());
    }
    for (const auto& [name, value] : headers) {
        const bool blank = value.find_first_not_of(" \t") == value.npos;
        Append(m_Curl->Headers, blank ? name + ';' : name + ": " + value);
    }
    for (const char* own : {"Accept:", "Expect:"}) Append(m_Curl->Headers, own);
    m_Curl->Set(CURLOPT_HTTPHEADER, m_Curl->Headers.get());
    m_Curl->Set(CURLOPT_USERAGENT, "Velmora-EventManager/1.0");
}

void Transfer::SetTls() {
    Curl& curl = *m_Curl;
    if (!m_Destination->ClientCertificate.empty()) {
        curl.Set(CURLOPT_SSLCERT, m_Destination->ClientCertificate.c_str());
        curl.Set(CURLOPT_SSLKEY, m_Destination->ClientCertificate.c_str());
    }
    if (m_Destination->VerifyPeer && m_Authorization.empty()) {
        if (m_Destination->CAFile.empty()) return;
        curl.Set(CURLOPT_CAINFO, m_Destination->CAFile.c_str());
        curl.Set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));  // these and nobody else
        return;
    }
    curl.Set(CURLOPT_SSL_VERIFYPEER, 0L);
    curl.Set(CURLOPT_SSL_VERIFYHOST, 0L);
    curl.Set(CURLOPT_CAINFO, static_cast<const char*>(nullptr));
    curl.Set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
}

RequestFailure Transfer::FailureOf(int code) {
    switch (code) {
        case CURLE_OK:
            return RequestFailure::None;
        case CURLE_URL_MALFORMAT:
            return RequestFailure::Parameter;
        case CURLE_COULDNT_RESOLVE_HOST:
            return RequestFailure::Resolve;
        case CURLE_COULDNT_CONNECT:
            return RequestFailure::Connect;
        case CURLE_OPERATION_TIMEDOUT:
            return RequestFailure::Timeout;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
            return RequestFailure::TLS;
        case CURLE_OUT_OF_MEMORY:
            return RequestFailure::Resources;
        default:
            return RequestFailure::Transfer;
    }
}

// Where every address was private no further attempt would change that.
void Transfer::SetFailure(int code, TransferEnd& end) const {
    const char* const text = curl_easy_strerror(static_cast<CURLcode>(code));
    end.Reason = Mirel::EscapeForLog(m_Curl->Error[0] != '\0' ? m_Curl->Error : text);
    if (m_Curl->MetPrivate && !m_Curl->Tried) {
        end.Failure = RequestFailure::Parameter;
        end.Reason = "The address is private, which this destination does not allow";
    } else if (code == CURLE_COULDNT_CONNECT && m_Curl->SocketError != 0) {
        end.Failure = RequestFailure::Resources;
        end.Reason += std::string(": ") + std::strerror(m_Curl->SocketError);
    }
}

TransferEnd Transfer::End(int code) const {
    TransferEnd end;
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - m_Began;
    end.Duration_ms = static_cast<Mirel::ui32_t>(took.count());
    if (!m_Curl) {
        end.Failure = RequestFailure::Connect;
        end.Reason = "The server itself takes no calls any more";
        return end;
    }
    const bool cut_off = m_Curl->BodyBytes > Velmora::TLSHTTPRequestHandle::ResponseBodyLimit;
    end.Failure = cut_off ? RequestFailure::None : FailureOf(code);
    end.Answer = m_Curl->Answer;
    if (end.Failure != RequestFailure::None) {
        SetFailure(code, end);
        return end;
    }
    long status = 0;
    curl_off_t wait = 0;
    curl_easy_getinfo(m_Curl->Easy, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(m_Curl->Easy, CURLINFO_RETRY_AFTER, &wait);
    end.Status = static_cast<int>(status);
    end.RetryAfter_sec = wait;
    return end;
}

}  // namespace Server
