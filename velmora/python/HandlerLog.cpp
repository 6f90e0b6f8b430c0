// Exceptions of Python code in the log.
#define PY_SSIZE_T_CLEAN
#include <Python.h>
// (Python wants to be first)
#include "python/HandlerLog.h"

#include <algorithm>

#include "VL_Python.h"
#include "python/ExceptionText.h"

namespace Velmora {

namespace {

std::atomic<bool> s_LineByLine{false};

void EscapeNulBytes(std::string& text) {
    for (std::size_t at = text.find('\0'); at != std::string::npos; at = text.find('\0', at)) {
        text.replace(at, 1, "\\x00");
    }
}

void WriteEntry(Mirel::LogType_t level, const std::string& text) {
    Mirel::ILogSink& sink = Mirel::DefaultLogSink();
    switch (level) {
        case Mirel::LOG_DEBUG:
            return sink.Debug("%s\n", text.c_str());
        case Mirel::LOG_INFO:
            return sink.Info("%s\n", text.c_str());
        case Mirel::LOG_WARN:
            return sink.Warn("%s\n", text.c_str());
        case Mirel::LOG_ERROR:
            return sink.Error("%s\n", text.c_str());
        case Mirel::LOG_NOTICE:
            return sink.Notice("%s\n", text.c_str());
        case Mirel::LOG_ALERT:
            return sink.Alert("%s\n", text.c_str());
        case Mirel::LOG_CRIT:
            return sink.Crit("%s\n", text.c_str());
    }
}

}  // namespace

void LogLineByLine(bool wanted) {
    s_LineByLine = wanted;
}

// A line that a handler forges stands behind the prefix like all others.
void LogPythonText(Mirel::LogType_t level, std::string text) {
    EscapeNulBytes(text);
    if (!s_LineByLine) return WriteEntry(level, text);
    const HandlerCall* call = HandlerCall::Current();
    const std::string prefix = "[python" + (call == nullptr ? "" : "://" + call->Module()) + "] ";
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        WriteEntry(level, prefix + text.substr(begin, end - begin));
        begin = end + 1;
    }
}

}  // namespace Velmora

// PyErr_Print is not for this: it would end the process on SystemExit.
void mr_log_python_exception(const Mirel::LogType_t& level) {
    Velmora::HandlerCall* const call = Velmora::HandlerCall::Current();
    const bool logs = Mirel::DefaultLogSink().Logs(level);
    if (PyErr_Occurred() == nullptr) return;
    if (!logs && call == nullptr) return PyErr_Clear();
    ExceptionText text = TakeExceptionText();
    if (call != nullptr) call->TakeException(text.Traceback, text.Reason);
    if (logs) Velmora::LogPythonText(level, std::move(text.Traceback));
}
