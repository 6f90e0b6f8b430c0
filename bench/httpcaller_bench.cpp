// How many requests a second background callers make, 64 in flight, against a quick listener in a process of
// its own; beside bare libcurl with a thread for each request in the same run.
#include <curl/curl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "VL_HTTP.h"

namespace {

constexpr std::size_t InFlight = 64;
constexpr std::size_t StackSize = 256 * 1024;

[[noreturn]] void Fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

// ---------------------------------------------------------------- the listener's process

SSL_CTX* MakeTlsContext() {
    SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
    EVP_PKEY* const key = EVP_RSA_gen(2048u);
    X509* const certificate = X509_new();
    X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
    X509_set_pubkey(certificate, key);
    X509_sign(certificate, key, EVP_sha256());
    SSL_CTX_use_certificate(context, certificate);
    SSL_CTX_use_PrivateKey(context, key);
    return context;
}

constexpr char Answer[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
constexpr int AnswerSize = sizeof Answer - 1;

// A caller's request comes in one segment here, and so in one read.
void AnswerPlain(int connection) {
    char request[4096];
    if (read(connection, request, sizeof request) > 0) (void)!write(connection, Answer, AnswerSize);
}

void AnswerTls(int connection, SSL_CTX* context) {
    SSL* const tls = SSL_new(context);
    SSL_set_fd(tls, connection);
    char request[4096];
    if (SSL_accept(tls) == 1 && SSL_read(tls, request, sizeof request) > 0)
        SSL_write(tls, Answer, AnswerSize);
    SSL_shutdown(tls);
    SSL_free(tls);
}

void Serve(int listener, SSL_CTX* context) {
    for (;;) {
        const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) continue;
        const int on = 1;
        setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        context != nullptr ? AnswerTls(connection, context) : AnswerPlain(connection);
        close(connection);
    }
}

// Starts the process, which ends with this one; returns the port.
int StartListener(bool tls) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (bind(listener, generic, size) != 0 || listen(listener, 4096) != 0) Fail("listen");
    getsockname(listener, generic, &size);
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::signal(SIGPIPE, SIG_IGN);
        SSL_CTX* const context = tls ? MakeTlsContext() : nullptr;
        for (int i = 0; i < 15; ++i) std::thread(Serve, listener, context).detach();
        Serve(listener, context);
    }
    close(listener);
    return ntohs(address.sin_port);
}

// ---------------------------------------------------------------- what is measured

std::atomic<int> failures{0};

using Caller = Velmora::BackgroundHTTPRequestHandle<Velmora::TLSHTTPRequestHandle>;

void RunCallers(const std::string& text, int calls) {
    Velmora::BasicRestEntryCall call;
    call.TargetUrl.Parse(text);
    call.RequestHeaders[Velmora::Strings::ContentType] = Velmora::Strings::MIME_json;
    std::array<std::unique_ptr<Caller>, InFlight> ring;
    const auto reap = [](std::unique_ptr<Caller>& caller) {
        if (!caller) return;
        Caller* const finished = caller.get();
        (void)finished->Stop(30000, true);  // waits for the request
        if (finished->Result().Failure() || finished->Status() != 200) ++failures;
        caller.reset();
    };
    for (int i = 0; i < calls; ++i) {
        std::unique_ptr<Caller>& place = ring[static_cast<std::size_t>(i) % InFlight];
        reap(place);
        place = std::make_unique<Caller>(call, "{\"event_name\":\"bench\"}");
        place->Timeout_ms(30000);
        place->VerifyPeer(false);
        (void)place->Start("caller");
    }
    for (auto& place : ring) reap(place);
}

struct BareStore {
    CURLSH* Share = curl_share_init();
    std::array<std::mutex, CURL_LOCK_DATA_LAST> Locks;

    explicit BareStore(bool sessions) {
        curl_share_setopt(Share, CURLSHOPT_USERDATA, this);
        curl_share_setopt(
            Share, CURLSHOPT_LOCKFUNC, +[](CURL*, curl_lock_data data, curl_lock_access, void* self) {
                static_cast<BareStore*>(self)->Locks[data].lock();
            });
        curl_share_setopt(
            Share, CURLSHOPT_UNLOCKFUNC, +[](CURL*, curl_lock_data data, void* self) {
                static_cast<BareStore*>(self)->Locks[data].unlock();
            });
        curl_share_setopt(Share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        if (sessions) curl_share_setopt(Share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    }
    ~BareStore() { curl_share_cleanup(Share); }
};

struct BareCall {
    const char* Url;
    CURLSH* Share;
};

void* CallBare(void* argument) {
    const auto* const call = static_cast<const BareCall*>(argument);
    CURL* const handle = curl_easy_init();
    curl_slist* const headers = curl_slist_append(nullptr, "Content-Type: application/json");
    curl_easy_setopt(handle, CURLOPT_URL, call->Url);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, 30000L);
    curl_easy_setopt(handle, CURLOPT_SHARE, call->Share);
    curl_easy_setopt(handle, CURLOPT_PROXY, "");
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, "{\"event_name\":\"bench\"}");
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(handle, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(
        handle, CURLOPT_WRITEFUNCTION,
        +[](char*, std::size_t size, std::size_t count, void*) { return size * count; });
    if (curl_easy_perform(handle) != CURLE_OK) ++failures;
    curl_easy_cleanup(handle);
    curl_slist_free_all(headers);
    return nullptr;
}

void RunBare(const std::string& url, int calls, bool sessions) {
    BareStore store(sessions);
    BareCall call{url.c_str(), store.Share};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, StackSize);
    std::array<pthread_t, InFlight> ring;
    for (int i = 0; i < calls; ++i) {
        pthread_t& place = ring[static_cast<std::size_t>(i) % InFlight];
        if (i >= static_cast<int>(InFlight)) pthread_join(place, nullptr);
        if (pthread_create(&place, &attributes, CallBare, &call) != 0) Fail("pthread_create");
    }
    const int open = std::min(calls, static_cast<int>(InFlight));
    for (int i = calls - open; i < calls; ++i)
        pthread_join(ring[static_cast<std::size_t>(i) % InFlight], nullptr);
    pthread_attr_destroy(&attributes);
}

// ---------------------------------------------------------------- rounds and table

// What this process has computed, in microseconds: does not tell what else the machine is busy with.
double computed_us() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) * 1e-3;
}

struct Figures {
    std::vector<double> PerSecond;
    std::vector<double> Computed_us;  // for one call

    void Measure(int calls, const std::function<void()>& run) {
        const auto start = std::chrono::steady_clock::now();
        const double computed = computed_us();
        run();
        Computed_us.push_back((computed_us() - computed) / calls);
        PerSecond.push_back(calls /
                            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
};

double Median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

// Measures both in turns, so that what else the machine does meets both alike.
void Compare(const std::string& url, int calls, int rounds, bool sessions, const char* peer, double wanted) {
    Figures ours, bare;
    std::vector<double> ratios;
    RunCallers(url, calls / 4);
    RunBare(url, calls / 4, sessions);
    for (int i = 0; i < rounds; ++i) {
        ours.Measure(calls, [&] { RunCallers(url, calls); });
        bare.Measure(calls, [&] { RunBare(url, calls, sessions); });
        ratios.push_back(ours.PerSecond.back() / bare.PerSecond.back());
    }
    const double ratio = Median(ratios);
    std::printf("%-6s %9.0f %9.0f %9.0f %9.0f   %-36s %5.2f (wanted %.2f: %s)\n",
                url.substr(0, url.find(':')).c_str(), Median(ours.PerSecond), Median(bare.PerSecond),
                Median(ours.Computed_us), Median(bare.Computed_us), peer, ratio, wanted,
                ratio >= wanted ? "met" : "missed");
    std::fflush(stdout);
}

int Usage(const char* name, int status) {
    std::printf(
        "usage: %s [CALLS [ROUNDS]]\n\nCalls a round (default 4000; a quarter for https) and rounds (default "
        "7).\n"
        "Prints requests a second, the processor time of one, and the median of the rounds' ratios.\n",
        name);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    const int calls = argc > 1 ? std::atoi(argv[1]) : 4000;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 7;
    if (argc > 1 && argv[1] == std::string("--help")) return Usage(argv[0], 0);
    if (argc > 3 || calls < 4 || rounds < 1) return Usage(argv[0], 2);
    const std::string http = "http://127.0.0.1:" + std::to_string(StartListener(false)) + "/hook";
    const std::string https = "https://127.0.0.1:" + std::to_string(StartListener(true)) + "/hook";
    curl_global_init(CURL_GLOBAL_ALL);
    std::printf("%-6s %9s %9s %9s %9s   %-36s %5s\n", "", "callers/s", "bare/s", "us each", "us bare",
                "bare: a thread a call, libcurl,", "ratio");
    Compare(http, calls, rounds, true, "shared names and sessions", 0.95);
    Compare(https, std::max(calls / 4, 4), rounds, true, "shared names and sessions", 0.95);
    Compare(https, std::max(calls / 4, 4), rounds, false, "shared names, every TLS session new", 1.3);
    if (failures != 0) std::printf("failed calls: %d\n", failures.load());
    return failures == 0 ? 0 : 1;
}
