// Python handlers: setting them up, loading them anew.
#include "rest/Handlers.h"

#include "EventManager.h"
#include "VL_Python.h"
#include "rest/Rest.h"
#include "service/Reload.h"

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

namespace {

Velmora::PListArray Texts(const std::vector<std::string>& texts) {
    Velmora::PListArray array;
    for (const std::string& text : texts) array.Append(Velmora::PListData(text));
    return array;
}

Velmora::PListDict Entry(const Velmora::HandlerReload& done) {
    Velmora::PListArray failed;
    for (const auto& [modules, traceback] : done.Failed) {
        Velmora::PListDict entry;
        entry.SetValue("modules", modules);
        entry.SetValue("traceback", traceback);
        failed.Append(entry);
    }
    Velmora::PListDict answer;
    answer.SetItem("reloaded", Texts(done.Reloaded));
    answer.SetItem("failed", failed);
    return answer;
}

}  // namespace

HttpResponse PostHandlersReload(RestCall&) {
    return Json(Velmora::STATUS_200_OK, Entry(Velmora::ReloadHandlers()));
}

HttpResponse PostReload(RestCall& call) {
    if (call.Context.Reloading == nullptr)
        return Problem(Velmora::STATUS_503_NO_SERVICE, "Nothing can be read anew here.");
    const ReloadOutcome outcome = call.Context.Reloading->Now();
    if (!outcome.Faults.empty()) {
        return Problem(Velmora::STATUS_409_CONFLICT, "The configuration cannot be used; nothing was changed.",
                       outcome.Faults);
    }
    Velmora::PListDict answer;
    answer.SetItem("taken", Texts(outcome.Taken));
    answer.SetItem("needs_restart", Texts(outcome.NeedsRestart));
    answer.SetItem("handlers", Entry(outcome.Handlers));
    return Json(Velmora::STATUS_200_OK, answer);
}

}  // namespace Server
