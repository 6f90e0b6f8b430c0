// deliveries_bench URL [CALLS [ROUNDS]]: deliveries a second to a listener, 64 in flight, beside a bare loop
// over libcurl's multi interface with new connections as well, in turns.
#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Bench.h"
#include "EventManager.h"
#include "deliveries/DeliveryEngine.h"

namespace {

constexpr std::size_t InFlight = 64;
const std::string Body = R"({"event_name":"bench","post_data":{"n":1},"listener_data":{"l":1}})";

Server::DeliveryEngine::Options Options(const std::string& url, Mirel::ui32_t attempts) {
    Server::DeliveryEngine::Options options;
    Server::Destination destination;
    destination.Match = url;
    destination.Attempts = attempts;
    destination.MaxInFlight = InFlight;
    destination.Timeout_ms = 30000;
    options.Destinations.push_back(destination);
    options.Settings.MaxWaiting = 1000000;
    options.Settings.MaxWaitingBytes = Mirel::ui64_t{1} << 32;
    return options;
}

double PerSecond(int calls, std::chrono::steady_clock::time_point began) {
    return calls / std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
}

double Deliver(Server::DeliveryEngine& engine, const std::string& url, int calls) {
    const EventManager::Listener listener(url);
    const std::string event = "bench";
    const Velmora::PListDict payload;
    Velmora::BasicRestEntryCall request;
    request.Method = Velmora::METH_POST;
    const auto began = std::chrono::steady_clock::now();
    // The token is let go when no further attempt is needed.
    std::atomic<int> left{calls};
    for (int i = 0; i < calls; ++i) {
        const std::shared_ptr<void> token(&left, [&left](void*) { --left; });
        (void)engine.TakeRequest({event, listener, payload, token}, request, Body);
    }
    Bench::Await("all is delivered", [&left] { return left == 0; });
    return PerSecond(calls, began);
}

CURL* NewCall(const std::string& url, curl_slist* headers) {
    CURL* const handle = curl_easy_init();
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(handle, CURLOPT_PROXY, "");
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, Body.c_str());
    curl_easy_setopt(
        handle, CURLOPT_WRITEFUNCTION,
        +[](char*, std::size_t size, std::size_t count, void*) { return size * count; });
    return handle;
}

double Bare(const std::string& url, int calls) {
    CURLM* const multi = curl_multi_init();
    curl_slist* const headers = curl_slist_append(nullptr, "Content-Type: application/json");
    const auto began = std::chrono::steady_clock::now();
    int begun = 0, running = 0, left = 0;
    for (int ended = 0; ended < calls;) {
        for (; begun < calls && begun - ended < static_cast<int>(InFlight); ++begun)
            curl_multi_add_handle(multi, NewCall(url, headers));
        curl_multi_perform(multi, &running);
        while (const CURLMsg* message = curl_multi_info_read(multi, &left)) {
            Bench::Check(message->data.result == CURLE_OK, "a bare call");
            CURL* const handle = message->easy_handle;
            curl_multi_remove_handle(multi, handle);
            curl_easy_cleanup(handle);
            ++ended;
        }
        curl_multi_poll(multi, nullptr, 0, 100, nullptr);
    }
    const double rate = PerSecond(calls, began);
    curl_slist_free_all(headers);
    curl_multi_cleanup(multi);
    return rate;
}

}  // namespace

int main(int argc, char** argv) {
    Bench::Check(argc > 1, "usage: deliveries_bench URL [CALLS [ROUNDS]]");
    const std::string url = argv[1];
    const int calls = argc > 2 ? std::atoi(argv[2]) : 4000, rounds = argc > 3 ? std::atoi(argv[3]) : 5;
    Server::DeliveryEngine once(Options(url, 1), std::make_unique<Server::DeliveryStore>());
    Server::DeliveryEngine retried(Options(url, 5), std::make_unique<Server::DeliveryStore>());
    for (Server::DeliveryEngine* const engine : {&once, &retried}) engine->Start(Velmora::URL());
    std::vector<double> ours, with_retries, bare;
    for (int i = 0; i < rounds; ++i) {
        ours.push_back(Deliver(once, url, calls));
        with_retries.push_back(Deliver(retried, url, calls));
        bare.push_back(Bare(url, calls));
    }
    Bench::Print("deliveries_per_s", Bench::Percentile(ours, 0.5));
    Bench::Print("retried_per_s", Bench::Percentile(with_retries, 0.5));
    Bench::Print("multi_per_s", Bench::Percentile(bare, 0.5));
    return 0;
}
