#include "deliveries/DeliveryJournal.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "MR_log.h"

namespace Server {

using Mirel::AutoMutex;
using Mirel::i64_t;
using Mirel::Result_t;
using Mirel::ui32_t;
using Mirel::ui64_t;

namespace {

constexpr i64_t NewestVersion = 1;

// Everything about the file is known before it is changed: it is another's where it cannot be had alone.
constexpr const char* Alone = R"(
PRAGMA locking_mode = EXCLUSIVE;
BEGIN IMMEDIATE;
COMMIT;
)";

constexpr const char* Schema = R"(
PRAGMA journal_mode = WAL;
PRAGMA synchronous = FULL;
PRAGMA journal_size_limit = 16777216;
BEGIN IMMEDIATE;
CREATE TABLE IF NOT EXISTS delivery (id INTEGER PRIMARY KEY, posting, event, listener, callback, method, body,
    attempt, attempts, made, time, next, duration, timeout, status, state, reason, answer);
CREATE TABLE IF NOT EXISTS status (event, callback, last, reason, time, success, in_row, calls, failures,
    durations, PRIMARY KEY (event, callback)) WITHOUT ROWID;
PRAGMA user_version = 1;
COMMIT;
)";

/// One statement; its columns and parameters are taken in order.
class Statement {
  public:
    Statement(sqlite3* database, const char* sql) {
        sqlite3_prepare_v2(database, sql, -1, &m_Statement, nullptr);
    }
    ~Statement() { sqlite3_finalize(m_Statement); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // Texts are bytes: an event's name may be any. What they refer to outlives the statement's run.
    Statement& Bind(const std::string& bytes) {
        sqlite3_bind_blob64(m_Statement, ++m_Bound, bytes.data(), bytes.size(), SQLITE_STATIC);
        return *this;
    }
    Statement& Bind(i64_t number) {
        sqlite3_bind_int64(m_Statement, ++m_Bound, number);
        return *this;
    }
    /// Runs to the end. False where that fails; to be bound anew afterwards.
    bool Run() {
        const bool done = m_Statement != nullptr && sqlite3_step(m_Statement) == SQLITE_DONE;
        sqlite3_reset(m_Statement);
        m_Bound = 0;
        return done;
    }
    bool Next() {
        m_Column = 0;
        return m_Statement != nullptr && sqlite3_step(m_Statement) == SQLITE_ROW;
    }
    i64_t Number() { return sqlite3_column_int64(m_Statement, m_Column++); }
    std::string Bytes() {
        const void* const bytes = sqlite3_column_blob(m_Statement, m_Column);
        const int size = sqlite3_column_bytes(m_Statement, m_Column++);
        return bytes == nullptr
                   ? std::string()
                   : std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
    }

  private:
    sqlite3_stmt* m_Statement = nullptr;
    int m_Bound = 0, m_Column = 0;
};

bool Insert(Statement& statement, const Delivery& delivery) {
    return statement.Bind(static_cast<i64_t>(delivery.Id))
        .Bind(delivery.PostingId)
        .Bind(delivery.EventName)
        .Bind(delivery.ListenerId)
        .Bind(delivery.Callback)
        .Bind(i64_t{delivery.Method})
        .Bind(*delivery.Body)
        .Bind(i64_t{delivery.Attempt})
        .Bind(i64_t{delivery.Attempts})
        .Bind(delivery.Made_us)
        .Bind(delivery.Time_us)
        .Bind(delivery.Next_us)
        .Bind(i64_t{delivery.Duration_ms})
        .Bind(i64_t{delivery.Timeout_ms})
        .Bind(i64_t{delivery.Status})
        .Bind(static_cast<i64_t>(delivery.State))
        .Bind(delivery.Reason)
        .Bind(delivery.Answer)
        .Run();
}

Delivery ReadDelivery(Statement& row) {
    Delivery delivery;
    delivery.Id = static_cast<ui64_t>(row.Number());
    delivery.PostingId = row.Bytes();
    delivery.EventName = row.Bytes();
    delivery.ListenerId = row.Bytes();
    delivery.Callback = row.Bytes();
    delivery.Method = static_cast<Velmora::Method_t>(row.Number());
    delivery.Body = std::make_shared<const std::string>(row.Bytes());
    delivery.Attempt = static_cast<ui32_t>(row.Number());
    delivery.Attempts = static_cast<ui32_t>(row.Number());
    delivery.Made_us = row.Number();
    delivery.Time_us = row.Number();
    delivery.Next_us = row.Number();
    delivery.Duration_ms = static_cast<ui32_t>(row.Number());
    delivery.Timeout_ms = static_cast<ui32_t>(row.Number());
    delivery.Status = static_cast<int>(row.Number());
    delivery.State = row.Number() == static_cast<i64_t>(DeliveryState::Dead) ? DeliveryState::Dead
                                                                             : DeliveryState::Waiting;
    delivery.Reason = row.Bytes();
    delivery.Answer = row.Bytes();
    return delivery;
}

bool Insert(Statement& statement, const ListenerKey& key, const ListenerStatus& status) {
    const std::vector<ui32_t> durations(status.Durations_ms.begin(), status.Durations_ms.end());
    const std::string bytes(reinterpret_cast<const char*>(durations.data()),
                            durations.size() * sizeof(ui32_t));
    return statement.Bind(key.first)
        .Bind(key.second)
        .Bind(static_cast<i64_t>(status.Last))
        .Bind(status.Reason)
        .Bind(status.Time_us)
        .Bind(status.Success_us)
        .Bind(static_cast<i64_t>(status.FailuresInRow))
        .Bind(static_cast<i64_t>(status.Calls))
        .Bind(static_cast<i64_t>(status.Failures))
        .Bind(bytes)
        .Run();
}

std::pair<ListenerKey, ListenerStatus> ReadStatus(Statement& row) {
    std::pair<ListenerKey, ListenerStatus> read;
    auto& [key, status] = read;
    key.first = row.Bytes();
    key.second = row.Bytes();
    status.Last =
        row.Number() == static_cast<i64_t>(DeliveryState::Ok) ? DeliveryState::Ok : DeliveryState::Failed;
    status.Reason = row.Bytes();
    status.Time_us = row.Number();
    status.Success_us = row.Number();
    status.FailuresInRow = static_cast<ui64_t>(row.Number());
    status.Calls = static_cast<ui64_t>(row.Number());
    status.Failures = static_cast<ui64_t>(row.Number());
    const std::string bytes = row.Bytes();
    for (std::size_t at = 0; at + sizeof(ui32_t) <= bytes.size(); at += sizeof(ui32_t)) {
        ui32_t duration = 0;
        std::memcpy(&duration, bytes.data() + at, sizeof duration);
        status.Durations_ms.push_back(duration);
    }
    return read;
}

// For its owner alone: bodies can hold what is secret.
bool CreateForOwner(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor >= 0) close(descriptor);
    return descriptor >= 0;
}

}  // namespace

DeliveryJournal::~DeliveryJournal() {
    AutoMutex writing(m_Writing);
    sqlite3_close(m_Database);
}

bool DeliveryJournal::Execute(const char* sql) {
    return sqlite3_exec(m_Database, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

i64_t DeliveryJournal::Version() {
    Statement row(m_Database, "PRAGMA user_version");
    return row.Next() ? row.Number() : 0;
}

Result_t DeliveryJournal::Open(const std::string& path) {
    const std::string what = "Cannot use the journal " + path + ": ";
    m_Path = path;
    AutoMutex writing(m_Writing);
    if (!CreateForOwner(path)) return Mirel::RESULT_FILEOPEN.WithMessage(what + std::strerror(errno));
    const bool opened = sqlite3_open_v2(path.c_str(), &m_Database,
                                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) == SQLITE_OK;
    if (opened && Execute(Alone)) {
        if (Version() > NewestVersion) {
            return Mirel::RESULT_FILEOPEN.WithMessage(what +
                                                      "a newer version of this program has written it");
        }
        if (Execute(Schema)) return Mirel::RESULT_OK;
    }
    const bool busy = sqlite3_errcode(m_Database) == SQLITE_BUSY;
    return Mirel::RESULT_FILEOPEN.WithMessage(
        what + (busy ? "another process uses it" : sqlite3_errmsg(m_Database)));
}

void DeliveryJournal::Put(const Delivery& delivery) {
    AutoMutex noting(m_Noting);
    m_Noted.Deliveries[delivery.Id] = delivery;
}

void DeliveryJournal::Remove(ui64_t id) {
    AutoMutex noting(m_Noting);
    m_Noted.Deliveries[id] = std::nullopt;
}

void DeliveryJournal::PutStatus(const ListenerKey& key, const ListenerStatus& status) {
    AutoMutex noting(m_Noting);
    m_Noted.Statuses[key] = status;
}

void DeliveryJournal::RemoveStatus(const ListenerKey& key) {
    AutoMutex noting(m_Noting);
    m_Noted.Statuses[key] = std::nullopt;
}

bool DeliveryJournal::Commit() {
    AutoMutex writing(m_Writing);
    Changes changes;
    {
        AutoMutex noting(m_Noting);
        std::swap(changes, m_Noted);
    }
    if (changes.Empty()) return true;
    const bool written = Execute("BEGIN IMMEDIATE") && Write(changes) && Execute("COMMIT");
    if (written) {
        AutoMutex noting(m_Noting);
        m_Trouble.clear();
        return true;
    }
    Failed();
    Execute("ROLLBACK");
    GiveBack(std::move(changes));
    return false;
}

bool DeliveryJournal::Write(const Changes& changes) {
    Statement put(m_Database, "REPLACE INTO delivery VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
    Statement remove(m_Database, "DELETE FROM delivery WHERE id = ?");
    for (const auto& [id, delivery] : changes.Deliveries) {
        if (!(delivery ? Insert(put, *delivery) : remove.Bind(static_cast<i64_t>(id)).Run())) return false;
    }
    Statement put_status(m_Database, "REPLACE INTO status VALUES (?,?,?,?,?,?,?,?,?,?)");
    Statement remove_status(m_Database, "DELETE FROM status WHERE event = ? AND callback = ?");
    for (const auto& [key, status] : changes.Statuses) {
        const bool done =
            status ? Insert(put_status, key, *status) : remove_status.Bind(key.first).Bind(key.second).Run();
        if (!done) return false;
    }
    return true;
}

// What was noted meanwhile is newer.
void DeliveryJournal::GiveBack(Changes changes) {
    AutoMutex noting(m_Noting);
    m_Noted.Deliveries.merge(changes.Deliveries);
    m_Noted.Statuses.merge(changes.Statuses);
}

// One line for a row of failures. Others than the log are told the file's name alone.
void DeliveryJournal::Failed() {
    ++m_Failures;
    const int error = sqlite3_system_errno(m_Database);
    const std::string why = error == 0 ? "" : std::string(" (") + std::strerror(error) + ")";
    const std::string reason = sqlite3_errmsg(m_Database) + why;
    const std::string name = m_Path.substr(m_Path.rfind('/') + 1);
    AutoMutex noting(m_Noting);
    const bool first = m_Trouble.empty();
    m_Trouble = "the journal " + name + " cannot be written: " + reason;
    if (first)
        Mirel::DefaultLogSink().Error("Cannot write the journal %s: %s\n", m_Path.c_str(), reason.c_str());
}

std::string DeliveryJournal::Trouble() const {
    AutoMutex noting(m_Noting);
    return m_Trouble;
}

void DeliveryJournal::Load(std::vector<Delivery>& deliveries,
                           std::map<ListenerKey, ListenerStatus>& statuses) {
    AutoMutex writing(m_Writing);
    Statement rows(m_Database, "SELECT * FROM delivery ORDER BY id");
    while (rows.Next()) deliveries.push_back(ReadDelivery(rows));
    Statement status_rows(m_Database, "SELECT * FROM status");
    while (status_rows.Next()) statuses.insert(ReadStatus(status_rows));
}

}  // namespace Server
