// The log: levels, the sink interface, the process's default sink, and sinks for text and JSON lines.
#pragma once

#include <atomic>
#include <cstdarg>
#include <string>
#include <string_view>

#include "MR_mutex.h"
#include "MR_types.h"

namespace Mirel {

/// What kind of entry it is. How severe one is, is another order: see ILogSink.
enum LogType_t {
    LOG_DEBUG = 0,   ///< for finding faults: each posting, call and firing
    LOG_INFO = 1,    ///< nothing to do
    LOG_WARN = 2,    ///< goes on as it should, but somebody should look
    LOG_ERROR = 3,   ///< something was not done
    LOG_NOTICE = 4,  ///< of interest in ordinary operation: starts, ends, what was let go
    LOG_ALERT = 5,   ///< must be acted on at once
    LOG_CRIT = 6,    ///< the process cannot go on
};

/// The level's name: "debug", "info", "warn", "error", "notice", "alert" or "crit".
MR_EXPORT const char* LogTypeName(LogType_t type);

/// Reads such a name (any letter case); false when `name` is none, `type` is then left alone.
MR_EXPORT bool LogTypeFromName(std::string_view name, LogType_t& type);

/// Takes log entries from any thread. An entry is one printf-style message that ends in a newline.
///
/// The sink's level is compared by severity: debug < info < notice < warn < error < crit < alert (as in
/// syslog, RFC 5424; not by the enumerators' numbers). Below the level an operation costs one comparison:
/// nothing is formatted. A newline at the end of the format is optional; control characters anywhere else are
/// escaped, so that an entry is always one line. Logging leaves errno as it was.
class MR_EXPORT ILogSink {
  public:
    virtual ~ILogSink() = default;

    /// Each makes one entry of its type where the level lets it, from a printf format and its arguments. What
    /// no descriptor takes is counted (LostLogEntries). Throws std::bad_alloc at most.
    ///@{
    void Debug(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Info(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Notice(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Warn(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Error(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Crit(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Alert(const char* format, ...) __attribute__((format(printf, 2, 3)));
    ///@}

    /// The least severe entries that are still written. May be changed at any time.
    void Level(LogType_t level) { m_Level.store(level, std::memory_order_relaxed); }
    /// The level; LOG_INFO at first.
    LogType_t Level() const { return m_Level.load(std::memory_order_relaxed); }
    /// Whether entries of this type are written: for callers whose arguments cost something to make.
    bool Logs(LogType_t type) const { return Severity(type) >= Severity(Level()); }

  protected:
    ILogSink() = default;

    /// One entry at or above the level: its message as formatted, its final newline included where the format
    /// had one, not yet escaped. Called from any thread, at the same time from several.
    virtual void WriteEntry(LogType_t type, std::string_view message) = 0;

  private:
    static constexpr int Severity(LogType_t type) {
        constexpr int Severities[] = {0, 1, 3, 4, 2, 6, 5};  // by enumerator, debug first
        return Severities[type];
    }
    MR_HIDDEN void Format(LogType_t type, const char* format, va_list arguments)
        __attribute__((format(printf, 3, 0)));

    std::atomic<LogType_t> m_Level{LOG_INFO};
};

/// The process's log sink: at first a text sink on standard error at level LOG_INFO.
MR_EXPORT ILogSink& DefaultLogSink();

/// Puts `sink` (null: the first one again) in the place of the default sink and returns the one before. The
/// caller keeps ownership and must keep the sink alive as long as any thread may still log.
MR_EXPORT ILogSink* SetDefaultLogSink(ILogSink* sink);

/// Entries that no descriptor took since the process began (say, on a full disk): a failing log has nowhere
/// to report itself.
MR_EXPORT ui64_t LostLogEntries();

/// What the two sinks below write with, and not for others: writes whole lines to a descriptor that it does
/// not own, from any thread. A line is one write, so lines of other processes do not tear it either, where
/// the kernel keeps a write whole (on a pipe up to 4096 bytes).
class LineWriter {
  public:
    /// `descriptor` must stay open as long as the writer lives.
    explicit LineWriter(int descriptor) : m_Descriptor(descriptor) {}

    /// `line` ends in its newline. Waits where the descriptor cannot take it now; counts it as lost where it
    /// fails. The process is expected to ignore SIGPIPE.
    void Write(std::string_view line);

  private:
    const int m_Descriptor;
    Mutex m_Lock;  // a line that takes several writes stays whole among this process's threads
};

/// Who reads what a sink writes. systemd's journal wants each line to begin with its priority ("<3>", see
/// sd-daemon(3)), and has a time of its own.
enum class LogReader { Anybody, Journal };

/// LogReader::Journal where systemd has connected the descriptor with its journal (JOURNAL_STREAM).
MR_EXPORT LogReader LogReaderOf(int descriptor);

/// Writes lines "2026-01-31T12:00:00.123Z ERROR [EventQueue::Main] message" to a descriptor it does not own.
/// The text is UTF-8: bytes that are not become `\xHH`, as control characters do.
class MR_EXPORT TextLogSink : public ILogSink {
  public:
    /// `descriptor` must stay open as long as the sink lives.
    explicit TextLogSink(int descriptor, LogReader reader = LogReader::Anybody)
        : m_Reader(reader), m_Writer(descriptor) {}

  private:
    void WriteEntry(LogType_t type, std::string_view message) override;
    const LogReader m_Reader;
    LineWriter m_Writer;
};

/// The same as one JSON object a line: {"time":…,"level":…,"thread":…,"message":…}. Bytes that are no UTF-8
/// become U+FFFD.
class MR_EXPORT JSONLogSink : public ILogSink {
  public:
    /// `descriptor` must stay open as long as the sink lives.
    explicit JSONLogSink(int descriptor, LogReader reader = LogReader::Anybody)
        : m_Reader(reader), m_Writer(descriptor) {}

  private:
    void WriteEntry(LogType_t type, std::string_view message) override;
    const LogReader m_Reader;
    LineWriter m_Writer;
};

/// Text from outside made safe for one line of a log: control characters and bytes that are no UTF-8 become
/// `\n`, `\t`, `\xHH`. The sinks do this to every message; it is for lines that go elsewhere.
MR_EXPORT std::string EscapeForLog(std::string_view text);

}  // namespace Mirel
