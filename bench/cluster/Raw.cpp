// How fast the engine takes messages with ids from whoever waits for no single answer.
#include <atomic>
#include <memory>
#include <string>

#include "Bench.h"
#include "Beside.h"
#include "Measures.h"

namespace Bench {

void MeasureRaw(const std::vector<std::string>& servers, std::size_t messages, std::size_t window) {
    std::vector<std::unique_ptr<Connection>> connections;
    for (const std::string& url : servers) connections.push_back(std::make_unique<Connection>(url));
    const BesideStream stream(*connections.front());
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MaxWait = 10000;
    const auto share = static_cast<std::int64_t>(window / servers.size());
    std::vector<jsCtx*> contexts;
    jsOptions own;
    jsOptions_Init(&own);
    own.PublishAsync.MaxPending = share;  // the client waits where so many are without an answer
    own.PublishAsync.StallWait = 10000;
    for (const auto& connection : connections) {
        contexts.push_back(nullptr);
        CheckEngine(natsConnection_JetStream(&contexts.back(), connection->Of(), &own), "JetStream");
    }
    const std::int64_t begin = Now_ns();
    for (std::size_t i = 0; i < messages; ++i) {
        const std::string id = "m" + std::to_string(i);
        options.MsgId = id.c_str();
        CheckEngine(js_PublishAsync(contexts[i % contexts.size()], BesideStream::Subject, Body,
                                    static_cast<int>(std::string_view(Body).size()), &options),
                    "publishing");
    }
    for (jsCtx* context : contexts)
        CheckEngine(js_PublishAsyncComplete(context, nullptr), "the last answers");
    Print("postings_per_s", static_cast<double>(messages) / (static_cast<double>(Now_ns() - begin) / 1e9));
    for (jsCtx* context : contexts) jsCtx_Destroy(context);
}

}  // namespace Bench
