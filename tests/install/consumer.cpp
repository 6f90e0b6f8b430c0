// A program of somebody else: every library's interface is used through what was installed.
#include <EventManager.h>
#include <LocalAccessManager.h>
#include <MR_log.h>

int main() {
    Velmora::PListDict config;
    config.SetValue("Timeout_ms", 250);
    Mirel::DefaultLogSink().Level(Mirel::LOG_DEBUG);
    const bool ok = EventManager::InitEventQueue(config).Success();
    EventManager::IEventQueue& queue = EventManager::GlobalEventQueue();
    const bool posted = queue.CreateEvent("greeting", &config) == Velmora::STATUS_201_CREATED &&
                        queue.PostEvent("greeting", nullptr);
    const bool stopped = EventManager::StopEventQueue().Success();
    return ok && stopped && posted && !LocalAccessManager::IsSelfAuthorized("") ? 0 : 1;
}
