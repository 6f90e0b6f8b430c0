// A stream beside those of the cluster.
#include "Beside.h"

#include <cstdio>
#include <cstdlib>

namespace Bench {

namespace {

constexpr std::int64_t second_ns = 1000000000;

}  // namespace

void CheckEngine(natsStatus status, const std::string& what) {
    if (status == NATS_OK) return;
    std::fprintf(stderr, "%s: %s\n", what.c_str(), natsStatus_GetText(status));
    std::exit(1);
}

Connection::Connection(const std::string& url) {
    natsOptions* options = nullptr;
    CheckEngine(natsOptions_Create(&options), "options");
    natsOptions_SetURL(options, url.c_str());
    CheckEngine(natsConnection_Connect(&m_Connection, options), "connecting to " + url);
    natsOptions_Destroy(options);
    CheckEngine(natsConnection_JetStream(&m_Context, m_Connection, nullptr), "JetStream");
}

Connection::~Connection() {
    jsCtx_Destroy(m_Context);
    natsConnection_Destroy(m_Connection);
}

BesideStream::BesideStream(const Connection& connection) : m_Connection(connection) {
    const char* subjects[] = {"beside.>"};
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = "beside";
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.Storage = js_FileStorage;
    config.Replicas = 3;
    config.Duplicates = 120 * second_ns;
    config.MaxAge = 600 * second_ns;
    config.MaxBytes = std::int64_t{1} << 30;
    jsErrCode code = jsErrCode(0);
    CheckEngine(js_AddStream(nullptr, m_Connection.Context(), &config, nullptr, &code), "making a stream");
}

BesideStream::~BesideStream() {
    jsErrCode code = jsErrCode(0);
    (void)js_DeleteStream(m_Connection.Context(), "beside", nullptr, &code);
}

}  // namespace Bench
