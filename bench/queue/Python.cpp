// A Python listener beside what it cannot do without.
#define PY_SSIZE_T_CLEAN
#include <Python.h>
// (Python wants to be first)
#include "VL_Python.h"

#include <fstream>

#include "Bench.h"
#include "Queue.h"

namespace Bench {

using EventManager::IEventQueue;

namespace {

constexpr std::size_t Calls = 20'000;
constexpr int Turns = 5;

double bare_ns(PyObject* handler, const PListDict& payload) {
    return CostOf([&] {
               for (std::size_t i = 0; i < Calls; ++i) {
                   const PythonContextLock context;
                   PyObject* arguments = PyTuple_New(1);
                   PyTuple_SetItem(arguments, 0, PyObject_FromPListItem(payload));
                   PyObject* result = PyObject_CallObject(handler, arguments);
                   Check(result != nullptr, "calling the handler");
                   Py_DECREF(result);
                   Py_DECREF(arguments);
               }
           }).Wall_ns /
           static_cast<double>(Calls);
}

double posting_ns(EventQueue& queue, const PListDict& data) {
    IEventQueue& posting = queue;
    return CostOf([&] {
               for (std::size_t i = 0; i < Calls; ++i) posting.PostEvent(EventName, &data);
           }).Wall_ns /
           static_cast<double>(Calls);
}

PyObject* ImportHandler() {
    const PythonContextLock context;
    PyObject* module = PyImport_ImportModule("bench_handler");
    PyObject* handler = module != nullptr ? PyObject_GetAttrString(module, "event_handler") : nullptr;
    Check(handler != nullptr, "importing the handler");
    return handler;
}

}  // namespace

void MeasurePython() {
    UseCore(0);
    WarmHeap(2 * Turns * Calls * RecordBytes);
    const Folder folder;
    std::ofstream(folder / "bench_handler.py") << "def event_handler(posting):\n    pass\n";
    InitPython({folder.Path()});
    PyObject* handler = ImportHandler();

    EventQueue silent(500);
    EventQueue listening(500);
    CreateEvent(silent);
    CreateEvent(listening);
    CreateListener(listening, "python://bench_handler", "");
    const PListDict data = TypicalData();
    PListDict payload;
    payload.SetValue("event_name", EventName);
    payload.SetValue("timestamp", "2026-03-01T12:00:00+00:00");
    payload.SetItem("post_data", data);
    payload.SetItem("event_data", PListDict());
    payload.SetItem("listener_data", PListDict());

    std::vector<double> bare;
    std::vector<double> listener;
    for (int i = 0; i < Turns; ++i) {
        bare.push_back(bare_ns(handler, payload));
        listener.push_back(posting_ns(listening, data) - posting_ns(silent, data));
    }
    Print("listener_ns", Percentile(listener, 0.5));
    Print("bare_ns", Percentile(bare, 0.5));
}

}  // namespace Bench
