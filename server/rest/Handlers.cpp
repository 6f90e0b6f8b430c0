// Python handlers: setting them up, loading them anew.
#include "rest/Handlers.h"

#include "EventManager.h"
#include "VL_Python.h"
#include "rest/Rest.h"

namespace Server {

Mirel::Result_t SetUpHandlers(const Config& config) {
    InitPython(config.PythonPath);
    Velmora::HandlerOptions options;
    options.Slow_ms = config.SlowHandler_ms;
    options.LineByLine = !config.LogAsJSON;  // a JSON entry holds the whole traceback
    options.ExplainImports = true;
    options.RunCoroutines = true;
    options.Reload = config.ReloadHandlers;
    options.ReloadBelow = config.PythonPath;
    Velmora::SetHandlerOptions(options);
    return Velmora::StartHandlerPostings([](const std::string& name, const Velmora::PListDict* data) {
        return EventManager::GlobalEventQueue().PostEvent(name, data);
    });
}

HttpResponse PostHandlersReload(RestCall&) {
    const Velmora::HandlerReload done = Velmora::ReloadHandlers();
    Velmora::PListArray reloaded, failed;
    for (const std::string& modules : done.Reloaded) reloaded.Append(Velmora::PListData(modules));
    for (const auto& [modules, traceback] : done.Failed) {
        Velmora::PListDict entry;
        entry.SetValue("modules", modules);
        entry.SetValue("traceback", traceback);
        failed.Append(entry);
    }
    Velmora::PListDict answer;
    answer.SetItem("reloaded", reloaded);
    answer.SetItem("failed", failed);
    return Json(Velmora::STATUS_200_OK, answer);
}

}  // namespace Server
