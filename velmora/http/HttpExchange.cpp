// Makes one exchange with libcurl.
#include "http/HttpExchange.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "LocalAccessManager.h"
#include "MR_log.h"
#include "http/CurlHandle.h"

namespace Velmora {

namespace {

// Most bytes of an answer's headers, interim answers and trailers included.
constexpr std::size_t HeaderLimit = 64 * 1024;

bool IsResourceError(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

// Why no further descriptor can be had right now; 0 where one can. libcurl does not tell a look-up that
// failed for want of a descriptor from one without an answer.
int DescriptorShortage() {
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return IsResourceError(errno) ? errno : 0;
    close(descriptor);
    return 0;
}

RequestFailure FailureOf(CURLcode code) {
    switch (code) {
        case CURLE_OK:
            return RequestFailure::None;
        case CURLE_URL_MALFORMAT:
        case CURLE_BAD_FUNCTION_ARGUMENT:
            return RequestFailure::Parameter;
        case CURLE_COULDNT_RESOLVE_HOST:
            return RequestFailure::Resolve;
        case CURLE_COULDNT_CONNECT:
        case CURLE_INTERFACE_FAILED:
            return RequestFailure::Connect;
        case CURLE_OPERATION_TIMEDOUT:
            return RequestFailure::Timeout;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_ENGINE_INITFAILED:
            return RequestFailure::TLS;
        case CURLE_OUT_OF_MEMORY:
        case CURLE_FAILED_INIT:
            return RequestFailure::Resources;
        default:
            return RequestFailure::Transfer;
    }
}

// One exchange over one borrowed handle.
class Exchange {
  public:
    explicit Exchange(const HttpExchangeRequest& request)
        : m_Request(request), m_Tls(request.Target.Scheme.size() == std::strlen("https")) {}

    HttpExchangeEnd Perform();

  private:
    struct FreeList {
        void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    };
    using List = std::unique_ptr<curl_slist, FreeList>;

    static std::size_t TakeHeader(char*, std::size_t size, std::size_t count, void* exchange);
    static std::size_t TakeBody(char*, std::size_t size, std::size_t count, void* exchange);
    static curl_socket_t OpenSocket(void* exchange, curlsocktype, curl_sockaddr* address);

    template <class Value>
    void Set(CURLoption option, Value value);
    void SetTarget();
    bool PinToOwnServer();
    void SetLimits();
    void SetTls();
    void SetMethodAndBody();
    void SetHeaders();
    void SetHooks();
    static void Append(List& list, const std::string& text);

    HttpExchangeEnd Answered(const char* reason = "") const;
    HttpExchangeEnd Failed(CURLcode code) const;

    const HttpExchangeRequest& m_Request;
    const bool m_Tls;
    CurlHandle m_Handle;
    std::string m_Url;
    List m_Headers;
    List m_ConnectTo;
    CURLcode m_SetUp = CURLE_OK;  // the first failure of setting the handle up
    char m_Error[CURL_ERROR_SIZE] = {};

    std::size_t m_HeaderBytes = 0;
    ui64_t m_BodyBytes = 0;
    int m_SocketError = 0;  // why no socket could be opened
};

std::size_t Exchange::TakeHeader(char*, std::size_t size, std::size_t count, void* exchange) {
    auto* const self = static_cast<Exchange*>(exchange);
    self->m_HeaderBytes += size * count;
    return self->m_HeaderBytes > HeaderLimit ? 0 : size * count;
}

std::size_t Exchange::TakeBody(char*, std::size_t size, std::size_t count, void* exchange) {
    auto* const self = static_cast<Exchange*>(exchange);
    self->m_BodyBytes += size * count;
    return self->m_BodyBytes > TLSHTTPRequestHandle::ResponseBodyLimit ? 0 : size * count;
}

// Opens the socket itself, so that the reason is known where there is none, and so that it never leaks into
// a program that a Python handler starts.
curl_socket_t Exchange::OpenSocket(void* exchange, curlsocktype, curl_sockaddr* address) {
    const int descriptor = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (descriptor < 0) static_cast<Exchange*>(exchange)->m_SocketError = errno;
    return descriptor;
}

template <class Value>
void Exchange::Set(CURLoption option, Value value) {
    const CURLcode code = curl_easy_setopt(m_Handle.Get(), option, value);
    if (m_SetUp == CURLE_OK) m_SetUp = code;
}

void Exchange::SetTarget() {
    // A header Authorization that is given goes before what the URL says.
    URL target = m_Request.Target;
    if (m_Request.Headers.count(Strings::Authorization) != 0) {
        target.Username.clear();
        target.Password.clear();
    }
    m_Url = target.ComposeAbsolute();
    Set(CURLOPT_URL, m_Url.c_str());
    Set(CURLOPT_PATH_AS_IS, 1L);
    Set(CURLOPT_PROTOCOLS_STR, "http,https");
    Set(CURLOPT_PROXY, "");  // not from the environment
    Set(CURLOPT_HTTP_VERSION,
        static_cast<long>(m_Request.Proto == HTTP_1_0 ? CURL_HTTP_VERSION_1_0 : CURL_HTTP_VERSION_1_1));
}

// The server's own credential is for the server alone: whatever the URL's name stands for, and whatever else
// listens at its port, the connection goes to the address that the server has bound. False where that is not
// known (any more).
bool Exchange::PinToOwnServer() {
    const auto authorization = m_Request.Headers.find(Strings::Authorization);
    if (authorization == m_Request.Headers.end()) return true;
    if (!LocalAccessManager::IsSelfAuthorized(authorization->second)) return true;
    const std::string address = LocalAccessManager::OwnServerAddress();
    if (address.empty()) return false;
    Append(m_ConnectTo, "::" + address);  // for every host and port
    Set(CURLOPT_CONNECT_TO, m_ConnectTo.get());
    return true;
}

void Exchange::SetLimits() {
    const ui32_t timeout = m_Request.Timeout_ms;
    Set(CURLOPT_TIMEOUT_MS, static_cast<long>(timeout == 0 ? TLSHTTPRequestHandle::MaxTimeout_ms : timeout));
    Set(CURLOPT_NOSIGNAL, 1L);
    Set(CURLOPT_QUICK_EXIT, 1L);  // a look-up that takes longer than the time-out is left behind
    Set(CURLOPT_FORBID_REUSE, 1L);
    Set(CURLOPT_BUFFERSIZE, 4096L);
    Set(CURLOPT_SHARE,
        SharedCurlStore(m_Request.Target.Hostname + ':' + std::to_string(m_Request.Target.Port)));
}

void Exchange::SetTls() {
    if (!m_Tls || m_Request.VerifyPeer) return;
    Set(CURLOPT_SSL_VERIFYPEER, 0L);
    Set(CURLOPT_SSL_VERIFYHOST, 0L);
    Set(CURLOPT_CAINFO, static_cast<const char*>(nullptr));  // nothing to check against: spare the reading
    Set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
}

void Exchange::SetMethodAndBody() {
    const Method_t method = m_Request.Method;
    const bool expects_body = method == METH_POST || method == METH_PUT || method == METH_PATCH;
    if (method == METH_HEAD) {
        Set(CURLOPT_NOBODY, 1L);
    } else if (expects_body || !m_Request.Body.empty()) {  // an empty body is sent with its length, 0
        Set(CURLOPT_POST, 1L);
        Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(m_Request.Body.size()));
        Set(CURLOPT_POSTFIELDS, m_Request.Body.c_str());
    }
    Set(CURLOPT_CUSTOMREQUEST, MethodToString(method));
}

void Exchange::Append(List& list, const std::string& text) {
    curl_slist* const longer = curl_slist_append(list.get(), text.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    (void)list.release();
    list.reset(longer);
}

void Exchange::SetHeaders() {
    // "Name: value" sends a header, "Name;" one without a value, "Name:" holds libcurl's own back.
    for (const auto& [name, value] : m_Request.Headers) {
        const bool blank = value.find_first_not_of(" \t") == std::string::npos;
        Append(m_Headers, blank ? name + ';' : name + ": " + value);
    }
    for (const char* own : {"Accept", "Expect", "Content-Type"}) {
        if (m_Request.Headers.count(own) == 0) Append(m_Headers, std::string(own) + ':');
    }
    // The connection serves one exchange: the peer is told, and where it closes first keeps the port in
    // TIME_WAIT.
    if (m_Request.Headers.count("Connection") == 0) Append(m_Headers, "Connection: close");
    Set(CURLOPT_HTTPHEADER, m_Headers.get());
    Set(CURLOPT_USERAGENT, "Velmora-EventManager/1.0");
}

void Exchange::SetHooks() {
    Set(CURLOPT_ERRORBUFFER, m_Error);
    Set(CURLOPT_HEADERFUNCTION, &Exchange::TakeHeader);
    Set(CURLOPT_HEADERDATA, static_cast<void*>(this));
    Set(CURLOPT_WRITEFUNCTION, &Exchange::TakeBody);
    Set(CURLOPT_WRITEDATA, static_cast<void*>(this));
    Set(CURLOPT_OPENSOCKETFUNCTION, &Exchange::OpenSocket);
    Set(CURLOPT_OPENSOCKETDATA, static_cast<void*>(this));
}

HttpExchangeEnd Exchange::Answered(const char* reason) const {
    long status = 0;
    curl_easy_getinfo(m_Handle.Get(), CURLINFO_RESPONSE_CODE, &status);
    return {RequestFailure::None, static_cast<Status_t>(status), reason};
}

HttpExchangeEnd Exchange::Failed(CURLcode code) const {
    HttpExchangeEnd end;
    end.Failure = FailureOf(code);
    end.Reason = Mirel::EscapeForLog(m_Error[0] != '\0' ? m_Error : curl_easy_strerror(code));
    if (m_HeaderBytes > HeaderLimit) {
        end.Reason = "Response headers exceed " + std::to_string(HeaderLimit) + " bytes";
    }
    int error = end.Failure == RequestFailure::Connect ? m_SocketError : 0;
    if (end.Failure == RequestFailure::Resolve) error = DescriptorShortage();
    if (IsResourceError(error)) {
        end.Failure = RequestFailure::Resources;
        end.Reason += std::string(": ") + std::strerror(error);
    }
    return end;
}

HttpExchangeEnd Exchange::Perform() {
    if (m_Handle.Get() == nullptr) throw std::bad_alloc();
    SetTarget();
    if (!PinToOwnServer()) {
        return {RequestFailure::Connect, STATUS_NONE, "The server itself takes no calls any more"};
    }
    SetLimits();
    SetTls();
    SetMethodAndBody();
    SetHeaders();
    SetHooks();
    if (m_SetUp != CURLE_OK) return Failed(m_SetUp);
    const CURLcode code = curl_easy_perform(m_Handle.Get());
    if (code == CURLE_OK) {
        m_Handle.KeepForReuse();
        return Answered();
    }
    const bool cut_off = m_BodyBytes > TLSHTTPRequestHandle::ResponseBodyLimit;
    return cut_off ? Answered("Answered; the response body was cut off at the limit.") : Failed(code);
}

}  // namespace

HttpExchangeEnd PerformHttpExchange(const HttpExchangeRequest& request) {
    if (std::string why = WhyNotSendable(request); !why.empty()) {
        return {RequestFailure::Parameter, STATUS_NONE, std::move(why)};
    }
    return Exchange(request).Perform();
}

}  // namespace Velmora
