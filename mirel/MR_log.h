// The log: levels, the sink interface, the process's default sink, and sinks for text and JSON lines.
#pragma once

#include <atomic>
#include <string>
#include <string_view>

#include "MR_types.h"

namespace Mirel {

enum LogType_t {
    LOG_DEBUG = 0,
    LOG_INFO = 1,
    LOG_WARN = 2,
    LOG_ERROR = 3,
    LOG_NOTICE = 4,
    LOG_ALERT = 5,
    LOG_CRIT = 6,
};

/// "debug", "info", "warn", "error", "notice", "alert" or "crit".
MR_EXPORT const char* LogTypeName(LogType_t type);

/// Reads such a name (any letter case); false when `name` is none, `type` is then left alone.
MR_EXPORT bool LogTypeFromName(std::string_view name, LogType_t& type);

/// Takes log entries from any thread. An entry is one printf-style message that ends in a newline.
///
/// The sink's level is compared by severity: debug < info < notice < warn < error < crit < alert (as in
/// syslog, RFC 5424; not by the enumerators' numbers). Below the level an operation costs one comparison:
/// nothing is formatted. A newline at the end of the format is optional; control characters anywhere else are
/// escaped, so that an entry is always one line.
class MR_EXPORT ILogSink {
 public:
    virtual ~ILogSink() = default;

    void Debug(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Info(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Notice(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Warn(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Error(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Crit(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Alert(const char* format, ...) __attribute__((format(printf, 2, 3)));

    void Level(LogType_t level);
    LogType_t Level() const;
    bool Logs(LogType_t type) const;

 protected:
    ILogSink() = default;

    /// One entry at or above the level: its message as formatted, its final newline included where the format
    /// had one, not yet escaped. Called from any thread, at the same time from several.
    virtual void WriteEntry(LogType_t type, std::string_view message) = 0;

 private:
    std::atomic<LogType_t> m_Level{LOG_INFO};
};

/// The process's log sink: at first a text sink on standard error at level LOG_INFO.
MR_EXPORT ILogSink& DefaultLogSink();

/// Puts `sink` (null: the first one again) in the place of the default sink and returns the one before. The
/// caller keeps ownership and must keep the sink alive as long as any thread may still log.
MR_EXPORT ILogSink* SetDefaultLogSink(ILogSink* sink);

/// Writes lines "2026-01-31T12:00:00.123Z ERROR [EventQueue::Main] message" to a descriptor it does not own.
/// A line is one write, so that lines of several threads or processes are never torn.
class MR_EXPORT TextLogSink : public ILogSink {
 public:
    explicit TextLogSink(int descriptor) : m_Descriptor(descriptor) {}

 private:
    void WriteEntry(LogType_t type, std::string_view message) override;
    const int m_Descriptor;
};

/// The same as one JSON object a line: {"time":…,"level":…,"thread":…,"message":…}.
class MR_EXPORT JSONLogSink : public ILogSink {
 public:
    explicit JSONLogSink(int descriptor) : m_Descriptor(descriptor) {}

 private:
    void WriteEntry(LogType_t type, std::string_view message) override;
    const int m_Descriptor;
};

/// Text from outside made safe for one line of a log: control characters become \n, \t, \xHH.
MR_EXPORT std::string EscapeForLog(std::string_view text);

}  // namespace Mirel
