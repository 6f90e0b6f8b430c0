// Any request through the router, onto a live queue: a byte for the method, the target, "\n" and the body.
// Whatever comes, the answer must be whole: a status, and for an error a problem that reads as JSON.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "EventManager.h"
#include "MR_log.h"
#include "rest/Router.h"

namespace {

using namespace Velmora;

Server::Router& TheRouter() {
    static Server::Router* router = [] {
        Mirel::DefaultLogSink().Level(Mirel::LOG_CRIT);
        if (EventManager::InitEventQueue(PListDict()).Failure()) std::abort();
        return new Server::Router(Server::Config());
    }();
    return *router;
}

void Reset() {
    EventManager::IEventQueue& queue = EventManager::GlobalEventQueue();
    PListDict data;
    queue.SetMaxListeners(1024);
    queue.SetMaxWatches(1024);
    queue.DeleteAllEvents();
    queue.DeleteAllTimers();
    queue.DeleteAllWatches();
    if (queue.CreateEvent("e", &data) != STATUS_201_CREATED) std::abort();
}

void CheckProblem(const Server::HttpResponse& response) {
    Mirel::Result_t why;
    const std::unique_ptr<PListItem> item =
        PListItem::CreateFromJSON(response.Body, &why, PListItem::AnyDepth);
    if (item == nullptr || !item->HasType(IT_DICT)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    if (input.empty()) return 0;
    const std::string_view line = input.substr(1, input.find('\n') - 1);
    const std::size_t mark = std::min(line.find('?'), line.size());
    Server::HttpRequest request;
    request.Method = static_cast<Method_t>(data[0] % (METH_PATCH + 1));
    request.Path = line.substr(0, mark);
    request.Query = line.substr(std::min(mark + 1, line.size()));
    request.Body = input.substr(std::min(line.size() + 2, input.size()));
    request.HasBody = !request.Body.empty();

    Server::Router& router = TheRouter();
    Reset();
    Server::HttpRoute route;
    const std::optional<Server::HttpResponse> refused = router.Route(request, route);
    const Server::HttpResponse response = refused ? *refused : router.Handle(request, route);
    if (response.Status < 200 || response.Status == STATUS_500_SERVER_ERROR) std::abort();
    if (response.Status >= 400 && response.ContentType == "application/problem+json") CheckProblem(response);
    return 0;
}
