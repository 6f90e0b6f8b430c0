// Levels, the default sink, and the two kinds of log lines.
#include "MR_log.h"

#include <errno.h>
#include <poll.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory_resource>

#include "MR_text.h"
#include "MR_thread.h"
#include "MR_util.h"

namespace Mirel {
namespace {

constexpr const char* LevelNames[] = {"debug", "info", "warn", "error", "notice", "alert", "crit"};
constexpr const char* LevelTags[] = {"DEBUG", "INFO", "WARN", "ERROR", "NOTICE", "ALERT", "CRIT"};

constinit std::atomic<ILogSink*> g_Sink{nullptr};
constinit std::atomic<ui64_t> g_LostEntries{0};

// Never destroyed: threads may still log while the process ends.
ILogSink& FirstSink() {
    static ILogSink* const sink = new TextLogSink(STDERR_FILENO);
    return *sink;
}

// A line under construction, on the stack as long as it is short.
class Line {
  public:
    Line() { m_Text.reserve(m_Room.size() - 1); }
    std::pmr::string& Text() { return m_Text; }

  private:
    std::array<char, 1536> m_Room;
    std::pmr::monotonic_buffer_resource m_Memory{m_Room.data(), m_Room.size()};
    std::pmr::string m_Text{&m_Memory};
};

byte_t ByteAt(std::string_view text, std::size_t index) {
    return static_cast<byte_t>(text[index]);
}

// Bytes of the well-formed UTF-8 character that `text` begins with; 0 where there is none.
std::size_t CharacterLength(std::string_view text) {
    const Utf8Lead lead = ReadUtf8(text);
    return lead.Valid ? lead.Size : 0;
}

// Terminals obey these: C0, delete, and C1 (as UTF-8).
bool IsControl(std::string_view character) {
    const byte_t lead = ByteAt(character, 0);
    return lead < 0x20 || lead == 0x7F || (lead == 0xC2 && ByteAt(character, 1) < 0xA0);
}

// How a character that cannot stand as it is looks in a line of text.
struct TextEscapes {
    static bool IsPlain(char c) { return c >= ' ' && c < 0x7F; }

    template <class String>
    static void Control(String& out, std::string_view character) {
        switch (character[0]) {
            case '\n':
                out += "\\n";
                return;
            case '\r':
                out += "\\r";
                return;
            case '\t':
                out += "\\t";
                return;
            default:
                Invalid(out, character);
        }
    }

    template <class String>
    static void Invalid(String& out, std::string_view bytes) {
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            out += "\\x";
            AppendHex(out, ByteAt(bytes, i));
        }
    }
};

// The same in a JSON string.
struct JSONEscapes {
    static bool IsPlain(char c) { return c >= ' ' && c < 0x7F && c != '"' && c != '\\'; }

    template <class String>
    static void Control(String& out, std::string_view character) {
        switch (character[0]) {
            case '\n':
                out += "\\n";
                return;
            case '\r':
                out += "\\r";
                return;
            case '\t':
                out += "\\t";
                return;
            default:
                out += "\\u00";  // all of them are below U+0100, with the last byte's value
                AppendHex(out, ByteAt(character, character.size() - 1));
        }
    }

    template <class String>
    static void Invalid(String& out, std::string_view) {
        out += "\\ufffd";
    }
};

template <class Escapes, class String>
void AppendEscaped(String& out, std::string_view text) {
    while (!text.empty()) {
        const auto special = std::find_if_not(text.begin(), text.end(), Escapes::IsPlain);
        const auto plain = static_cast<std::size_t>(special - text.begin());
        out.append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) return;

        const std::size_t length = CharacterLength(text);
        const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
        if (length == 0) {
            Escapes::Invalid(out, character);
        } else if (IsControl(character)) {
            Escapes::Control(out, character);
        } else {
            if (length == 1) out += '\\';  // the quote and the backslash of JSON
            out.append(character);
        }
        text.remove_prefix(character.size());
    }
}

// "2026-01-31T12:00:00.123Z"
void AppendTime(std::pmr::string& out) {
    const Timestamp now;
    char text[DateTimeLen + 1];
    now.EncodeString(text, sizeof text);
    out.append(text, sizeof "YYYY-MM-DDThh:mm:ss" - 1);
    const i64_t within_second = (now.Microseconds() % 1000000 + 1000000) % 1000000;
    const auto milliseconds = static_cast<int>(within_second / 1000);
    out += '.';
    for (const int weight : {100, 10, 1}) out += static_cast<char>('0' + milliseconds / weight % 10);
    out += 'Z';
}

// "<3>": syslog's severities (RFC 5424).
void AppendPriority(std::pmr::string& out, LogType_t type) {
    constexpr char Severities[] = {'7', '6', '4', '3', '5', '1', '2'};  // by enumerator, debug first
    out += {'<', Severities[type], '>'};
}

std::string_view WithoutFinalNewline(std::string_view message) {
    if (message.ends_with('\n')) message.remove_suffix(1);
    return message;
}

bool WaitUntilWritable(int descriptor) {
    pollfd wanted{descriptor, POLLOUT, 0};
    return poll(&wanted, 1, -1) >= 0 || errno == EINTR;
}

// False with the reason in errno.
bool WriteAll(int descriptor, std::string_view line) {
    while (!line.empty()) {
        const ssize_t written = write(descriptor, line.data(), line.size());
        if (written >= 0) {
            line.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            if (!WaitUntilWritable(descriptor)) return false;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace

const char* LogTypeName(LogType_t type) {
    return LevelNames[type];
}

bool LogTypeFromName(std::string_view name, LogType_t& type) {
    const auto same = [name](const char* level_name) {
        return name.size() == std::string_view(level_name).size() &&
               strncasecmp(name.data(), level_name, name.size()) == 0;
    };
    const auto found = std::find_if(std::begin(LevelNames), std::end(LevelNames), same);
    if (found == std::end(LevelNames)) return false;
    type = static_cast<LogType_t>(found - std::begin(LevelNames));
    return true;
}

void ILogSink::Format(LogType_t type, const char* format, va_list arguments) {
    const int callers_errno = errno;
    va_list again;
    va_copy(again, arguments);
    std::array<char, 1024> room;
    const int length = std::vsnprintf(room.data(), room.size(), format, arguments);
    if (length < 0) {
        WriteEntry(type, std::string("Unprintable: ") + format);
    } else if (const auto size = static_cast<std::size_t>(length); size < room.size()) {
        WriteEntry(type, std::string_view(room.data(), size));
    } else {
        std::string text(size, '\0');
        errno = callers_errno;  // for %m
        std::vsnprintf(text.data(), size + 1, format, again);
        WriteEntry(type, text);
    }
    va_end(again);
    errno = callers_errno;
}

#define MR_LOG_OPERATION(NAME, TYPE)               \
    void ILogSink::NAME(const char* format, ...) { \
        if (!Logs(TYPE)) return;                   \
        va_list arguments;                         \
        va_start(arguments, format);               \
        Format(TYPE, format, arguments);           \
        va_end(arguments);                         \
    }
MR_LOG_OPERATION(Debug, LOG_DEBUG)
MR_LOG_OPERATION(Info, LOG_INFO)
MR_LOG_OPERATION(Notice, LOG_NOTICE)
MR_LOG_OPERATION(Warn, LOG_WARN)
MR_LOG_OPERATION(Error, LOG_ERROR)
MR_LOG_OPERATION(Crit, LOG_CRIT)
MR_LOG_OPERATION(Alert, LOG_ALERT)
#undef MR_LOG_OPERATION

ILogSink& DefaultLogSink() {
    ILogSink* const sink = g_Sink.load(std::memory_order_acquire);
    return sink != nullptr ? *sink : FirstSink();
}

ILogSink* SetDefaultLogSink(ILogSink* sink) {
    ILogSink* const before = g_Sink.exchange(sink, std::memory_order_acq_rel);
    return before != nullptr ? before : &FirstSink();
}

ui64_t LostLogEntries() {
    return g_LostEntries.load(std::memory_order_relaxed);
}

LogReader LogReaderOf(int descriptor) {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat file {};
    if (stream == nullptr || fstat(descriptor, &file) != 0) return LogReader::Anybody;
    const std::string own = std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino);
    return own == stream ? LogReader::Journal : LogReader::Anybody;
}

void LineWriter::Write(std::string_view line) {
    AutoMutex lock(m_Lock);
    if (!WriteAll(m_Descriptor, line)) g_LostEntries.fetch_add(1, std::memory_order_relaxed);
}

void TextLogSink::WriteEntry(LogType_t type, std::string_view message) {
    Line line;
    std::pmr::string& text = line.Text();
    if (m_Reader == LogReader::Journal) {
        AppendPriority(text, type);
    } else {
        AppendTime(text);
        text += ' ';
    }
    text.append(LevelTags[type]).append(" [");
    AppendEscaped<TextEscapes>(text, Thread::CurrentNameView());
    text.append("] ");
    AppendEscaped<TextEscapes>(text, WithoutFinalNewline(message));
    text += '\n';
    m_Writer.Write(text);
}

void JSONLogSink::WriteEntry(LogType_t type, std::string_view message) {
    Line line;
    std::pmr::string& text = line.Text();
    if (m_Reader == LogReader::Journal) AppendPriority(text, type);
    text.append(R"({"time":")");
    AppendTime(text);
    text.append(R"(","level":")").append(LevelNames[type]).append(R"(","thread":")");
    AppendEscaped<JSONEscapes>(text, Thread::CurrentNameView());
    text.append(R"(","message":")");
    AppendEscaped<JSONEscapes>(text, WithoutFinalNewline(message));
    text.append("\"}\n");
    m_Writer.Write(text);
}

std::string EscapeForLog(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    AppendEscaped<TextEscapes>(out, text);
    return out;
}

}  // namespace Mirel
