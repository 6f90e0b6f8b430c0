#include "Engine.h"

#include <algorithm>
#include <string_view>

#include "MR_log.h"
#include "MR_util.h"

namespace Cluster {

using Mirel::DefaultLogSink;

namespace {

constexpr i64_t second_ns = 1000000000;
constexpr i64_t RequestLimit_ms = 2000;
constexpr i64_t DuplicateWindow_sec = 120;

Result_t Failure(const std::string& what, natsStatus status) {
    return Mirel::RESULT_NETWORK.WithMessage(what + ": " + ReasonOf(status));
}

// Keys and their last values, as the engine's tools know them.
void KeyValueStream(jsStreamConfig& config) {
    config.MaxMsgsPerSubject = 1;
    config.Discard = js_DiscardNew;
    config.AllowRollup = true;
    config.DenyDelete = true;
    config.AllowDirect = true;
}

// The time at which a stream was made differs between its replicas; what it was given then does not.
i64_t IdentityOf(const jsStreamInfo& info) {
    const char* const given = info.Config == nullptr ? nullptr : info.Config->Description;
    if (given == nullptr || *given == '\0') return info.Created;
    ui64_t hash = 14695981039346656037u;
    for (const char c : std::string_view(given))
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
    return static_cast<i64_t>(hash >> 1);
}

std::string NewIdentity() {
    Mirel::UUID id;
    Mirel::GenRandomValue(id);
    return "made as " + Mirel::UUIDText(id);
}

}  // namespace

Engine::Engine(const Settings& settings) : m_Settings(settings), m_Names(settings.Name) {}

Engine::~Engine() {
    Close();
}

void Engine::Close() {
    m_Closing = true;
    if (m_Connection) natsConnection_Close(m_Connection.get());
}

void Engine::OnError(natsConnection*, natsSubscription*, natsStatus status, void*) {
    // The subscription may be gone: it is not looked at.
    DefaultLogSink().Debug("The engine's client: %s\n", natsStatus_GetText(status));
}

void Engine::OnReconnected(natsConnection*, void* self) {
    ++static_cast<Engine*>(self)->m_Reconnects;
    DefaultLogSink().Notice("Connected to the engine again\n");
}

void Engine::OnDisconnected(natsConnection*, void* self) {
    if (!static_cast<Engine*>(self)->m_Closing)
        DefaultLogSink().Warn("The connection to the engine is lost; connecting again\n");
}

Result_t Engine::SetOptions(natsOptions* options, bool wait) {
    std::vector<const char*> servers;
    for (const std::string& server : m_Settings.Servers) servers.push_back(server.c_str());
    natsStatus status = natsOptions_SetServers(options, servers.data(), static_cast<int>(servers.size()));
    if (status != NATS_OK) return Failure("The engine's servers cannot be used", status);
    const Settings& own = m_Settings;
    if (!own.User.empty()) status = natsOptions_SetUserInfo(options, own.User.c_str(), own.Password.c_str());
    if (status == NATS_OK && !own.CredentialsFile.empty())
        status = natsOptions_SetUserCredentialsFromFiles(options, own.CredentialsFile.c_str(), nullptr);
    if (status != NATS_OK) return Failure("The engine's credentials cannot be used", status);
    if (own.UseTLS) status = natsOptions_SetSecure(options, true);
    if (status == NATS_OK && !own.CAFile.empty())
        status = natsOptions_LoadCATrustedCertificates(options, own.CAFile.c_str());
    if (status == NATS_OK && !own.CertFile.empty())
        status = natsOptions_LoadCertificatesChain(options, own.CertFile.c_str(), own.KeyFile.c_str());
    if (status != NATS_OK) return Failure("TLS towards the engine cannot be set up", status);
    natsOptions_SetName(options, ("velmora-server " + own.Node).c_str());
    natsOptions_SetSendAsap(options, true);  // otherwise the client waits a millisecond for more to send
    natsOptions_SetTimeout(options, RequestLimit_ms);
    natsOptions_SetAllowReconnect(options, true);
    natsOptions_SetMaxReconnect(options, -1);
    natsOptions_SetReconnectWait(options, 200);
    natsOptions_SetReconnectJitter(options, 100, 100);
    natsOptions_SetReconnectBufSize(options, 1);  // what was answered as not stored is not to be sent later
    natsOptions_SetFailRequestsOnDisconnect(options, true);
    natsOptions_SetPingInterval(options, 1500);
    natsOptions_SetMaxPingsOut(options, 2);
    natsOptions_SetMaxPendingMsgs(options, 1000000);
    natsOptions_SetErrorHandler(options, OnError, this);
    natsOptions_SetReconnectedCB(options, OnReconnected, this);
    natsOptions_SetDisconnectedCB(options, OnDisconnected, this);
    if (!wait) natsOptions_SetRetryOnFailedConnect(options, true, nullptr, nullptr);
    return Mirel::RESULT_OK;
}

Result_t Engine::Connect(bool wait) {
    HeldOptions options;
    natsStatus status = Take(options, natsOptions_Create);
    if (status != NATS_OK) return Failure("The engine's client", status);
    const Result_t set = SetOptions(options.get(), wait);
    if (set.Failure()) return set;
    status = Take(m_Connection, natsConnection_Connect, options.get());
    // Not yet connected is fine: it goes on trying.
    if (status != NATS_OK && (wait || status != NATS_NOT_YET_CONNECTED))
        return Failure("No connection to the engine", status);
    jsOptions js;
    jsOptions_Init(&js);
    js.Wait = RequestLimit_ms;
    jsCtx* context = nullptr;
    status = natsConnection_JetStream(&context, m_Connection.get(), &js);
    m_Context.reset(context);
    return status == NATS_OK ? Mirel::RESULT_OK : Failure("JetStream", status);
}

bool Engine::Connected() const {
    return m_Connection && natsConnection_Status(m_Connection.get()) == NATS_CONN_STATUS_CONNECTED;
}

std::string Engine::Server() const {
    char url[512] = "";
    if (!Connected() || natsConnection_GetConnectedUrl(m_Connection.get(), url, sizeof url) != NATS_OK)
        return std::string();
    std::string shown = url;
    const std::size_t scheme = shown.find("://"), at = shown.rfind('@');
    if (scheme != shown.npos && at != shown.npos) shown.erase(scheme + 3, at - scheme - 2);
    return shown;
}

natsStatus Engine::Facts(const std::string& stream, StreamFacts& facts) const {
    HeldStreamInfo info;
    jsErrCode code = jsErrCode(0);
    const natsStatus status = Take(info, js_GetStreamInfo, m_Context.get(), stream.c_str(), nullptr, &code);
    if (status != NATS_OK) return status;
    facts.Created_ns = IdentityOf(*info);
    facts.First = info->State.FirstSeq;
    facts.Last = info->State.LastSeq;
    facts.Messages = info->State.Msgs;
    facts.Bytes = info->State.Bytes;
    if (info->Cluster && info->Cluster->Leader) facts.Leader = info->Cluster->Leader;
    return NATS_OK;
}

Result_t Engine::MakeStream(jsStreamConfig& config) {
    StreamFacts facts;
    const natsStatus found = Facts(config.Name, facts);
    if (found == NATS_OK) return Mirel::RESULT_OK;
    if (found != NATS_NOT_FOUND) return Failure(std::string("The stream ") + config.Name, found);
    HeldStreamInfo info;
    jsErrCode code = jsErrCode(0);
    const natsStatus status = Take(info, js_AddStream, m_Context.get(), &config, nullptr, &code);
    if (status == NATS_OK || Facts(config.Name, facts) == NATS_OK) return Mirel::RESULT_OK;
    return Failure(std::string("The stream ") + config.Name + " cannot be made", status);
}

// The newest of each delivery.
Result_t Engine::MakeDeliveries() {
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    const std::string subject = m_Names.DeliveryKeys + ">", identity = NewIdentity();
    const char* subjects[] = {subject.c_str()};
    config.Name = m_Names.Deliveries.c_str();
    config.Description = identity.c_str();
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.Storage = js_FileStorage;
    config.Replicas = m_Settings.Replicas;
    config.MaxMsgsPerSubject = 1;
    config.MaxAge = std::max(m_Settings.DeliveriesAge_sec, DuplicateWindow_sec) * second_ns;
    config.Duplicates = DuplicateWindow_sec * second_ns;
    return MakeStream(config);
}

Result_t Engine::MakeStreams() {
    const auto make = [this](const std::string& name, const std::string& subject, bool keys) {
        jsStreamConfig config;
        jsStreamConfig_Init(&config);
        const char* subjects[] = {subject.c_str()};
        const std::string identity = NewIdentity();
        config.Name = name.c_str();
        config.Description = identity.c_str();
        config.Subjects = subjects;
        config.SubjectsLen = 1;
        config.Storage = js_FileStorage;
        config.Replicas = m_Settings.Replicas;
        config.Duplicates = DuplicateWindow_sec * second_ns;
        if (keys) {
            KeyValueStream(config);
        } else {
            config.MaxAge = m_Settings.MaxAge_sec * second_ns;
            config.MaxBytes = m_Settings.MaxBytes;
            if (m_Settings.MaxAge_sec < DuplicateWindow_sec) config.Duplicates = config.MaxAge;
        }
        return MakeStream(config);
    };
    Result_t made = make(m_Names.Postings, m_Names.Events + ">", false);
    if (made.Success() && m_Settings.DeliveriesAge_sec > 0) made = MakeDeliveries();
    if (made.Success()) made = make(m_Names.Registry, m_Names.RegistryKeys + ">", true);
    if (made.Success()) made = make(m_Names.Timers, m_Names.TimersKey, true);
    if (made.Success()) made = make(m_Names.Nodes, m_Names.NodesKeys + ">", true);
    return made;
}

}  // namespace Cluster
