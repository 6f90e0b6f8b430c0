// Whether an engine has what a cluster needs.
#include <vector>

#include "Engine.h"

namespace Cluster {

namespace {

// Streams that are there show what the account may; for those that are not, a request that changes nothing.
void CheckRights(const Engine& engine, std::vector<std::string>& faults) {
    StreamFacts facts;
    const Streams& names = engine.Names();
    std::vector<std::string> streams = {names.Postings, names.Registry, names.Timers, names.Nodes};
    if (engine.Of().DeliveriesAge_sec > 0) streams.push_back(names.Deliveries);
    for (const std::string& stream : streams) {
        const natsStatus status = engine.Facts(stream, facts);
        if (status == NATS_OK || status == NATS_NOT_FOUND) continue;
        faults.push_back("no right to ask for the stream \"" + stream + "\" (" + ReasonOf(status) + ")");
    }
    // Without a configuration the engine answers what is wrong with the request, to whoever may make it.
    HeldMessage reply;
    const std::string subject = "$JS.API.STREAM.CREATE." + names.Postings;
    const natsStatus asked =
        Take(reply, natsConnection_RequestString, engine.Connection(), subject.c_str(), "", 2000);
    if (asked != NATS_OK)
        faults.push_back("no right to create the stream \"" + names.Postings + "\" (" + ReasonOf(asked) +
                         ")");
}

// A stream that is made for the question, with nothing in it and in memory, and removed.
void CheckReplicas(const Engine& engine, std::vector<std::string>& faults) {
    const int replicas = engine.Of().Replicas;
    if (replicas < 2) return;
    const std::string name = engine.Names().Postings + "_check", subject = engine.Of().Name + ".check";
    const char* subjects[] = {subject.c_str()};
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = name.c_str();
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.Storage = js_MemoryStorage;
    config.Replicas = replicas;
    HeldStreamInfo info;
    jsErrCode code = jsErrCode(0);
    const natsStatus made = Take(info, js_AddStream, engine.Context(), &config, nullptr, &code);
    if (made == NATS_OK) {
        (void)js_DeleteStream(engine.Context(), name.c_str(), nullptr, &code);
    } else {
        faults.push_back("the engine cannot keep " + std::to_string(replicas) + " replicas (" +
                         ReasonOf(made) + ")");
    }
}

}  // namespace

std::vector<std::string> CheckEngine(const Settings& settings) {
    std::vector<std::string> faults;
    Engine engine(settings);
    const Result_t connected = engine.Connect(true);
    if (connected.Failure()) return {connected.Message()};
    HeldAccountInfo account;
    jsErrCode code = jsErrCode(0);
    const natsStatus jetstream = Take(account, js_GetAccountInfo, engine.Context(), nullptr, &code);
    if (jetstream != NATS_OK)
        return {"JetStream is not on at the engine, or not for this account (" + ReasonOf(jetstream) + ")"};
    CheckRights(engine, faults);
    CheckReplicas(engine, faults);
    return faults;
}

}  // namespace Cluster
