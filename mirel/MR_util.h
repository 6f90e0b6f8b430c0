// Time, identifiers and files.
#pragma once

#include <compare>
#include <cstddef>
#include <cstring>
#include <string>

#include "MR_error.h"
#include "MR_types.h"

namespace Mirel {

/// Where the current time comes from. Tests put their own in place; the process otherwise uses the system's.
class MR_EXPORT Clock {
  public:
    virtual ~Clock() = default;
    /// Microseconds since 1970-01-01T00:00:00Z. Called from any thread.
    virtual i64_t Now_us() = 0;
};

/// Makes `clock` the source of the current time (null: the system's clock again). The caller keeps ownership
/// and must keep the clock alive as long as any thread may read the time.
MR_EXPORT void SetClock(Clock* clock);

/// Length of a timestamp's text, "YYYY-MM-DDThh:mm:ss+00:00" (RFC 3339).
inline constexpr ui32_t DateTimeLen = 25;

/// A point in time, to the microsecond inside and to the second as text. A plain value.
class MR_EXPORT Timestamp {
  public:
    /// Now.
    Timestamp();
    /// The time so many microseconds after 1970-01-01T00:00:00Z (before it, where negative).
    static Timestamp FromMicroseconds(i64_t since_epoch) { return Timestamp(since_epoch); }

    /// Microseconds since 1970-01-01T00:00:00Z.
    i64_t Microseconds() const { return m_Microseconds; }

    /// Forward, or back where `seconds` is negative; stays at the last time there is rather than wrap.
    void AddSeconds(i32_t seconds);

    /// Writes the 25 characters of the text form, in UTC, and a NUL into `buf` of `len` bytes, and returns
    /// `buf`. Where `len` is below 26 the text is empty (nothing is written where it is 0). Years outside
    /// 0001 to 9999 are written as the nearest time inside.
    char* EncodeString(char* buf, ui32_t len) const;
    /// The text form, as EncodeString() writes it.
    std::string Text() const;

    /// Reads a text form with any offset ("…Z" and "…+hh:mm"; a fraction of a second is taken to the
    /// microsecond, further digits are dropped). False for everything else: a date that is not in the
    /// calendar, second 60 and above, an offset beyond 23:59, a time that in UTC lies outside the years 0001
    /// to 9999, text before or behind, null. The timestamp is then left as it was.
    bool DecodeString(const char* text);

    /// The later time is the greater, to the microsecond.
    friend auto operator<=>(const Timestamp&, const Timestamp&) = default;

  private:
    explicit Timestamp(i64_t since_epoch) : m_Microseconds(since_epoch) {}

    i64_t m_Microseconds;
};

/// A fixed number of bytes that name something, or no value yet.
template <std::size_t SIZE>
class Identifier {
  public:
    /// Number of bytes.
    static constexpr ui32_t Size = SIZE;

    /// False until a value was given.
    bool HasValue() const { return m_HasValue; }
    /// The `Size` bytes, all 0 where there is no value.
    const byte_t* Value() const { return m_Value; }
    /// Copies `Size` bytes from `value`.
    void Set(const byte_t* value) {
        std::memmove(m_Value, value, SIZE);
        m_HasValue = true;
    }

    bool m_HasValue = false;    ///< whether m_Value is one
    byte_t m_Value[SIZE] = {};  ///< the bytes
};

/// A 16-byte identifier; no value when constructed. Equal when the 16 bytes are.
class UUID : public Identifier<16> {
  public:
    /// Compares the bytes only; two without a value are equal.
    friend bool operator==(const UUID& lhs, const UUID& rhs) {
        return std::memcmp(lhs.m_Value, rhs.m_Value, Size) == 0;
    }
};

/// Length of a UUID's text, 8-4-4-4-12 hexadecimal digits.
inline constexpr ui32_t UUIDLen = 36;

/// Gives `id` 16 bytes from the kernel's random source and sets its flag. There is no weaker source to fall
/// back to: where the kernel's fails the process ends.
MR_EXPORT void GenRandomValue(UUID& id);

/// Fills `size` bytes from the kernel's random source (see above).
MR_EXPORT void GenRandomBytes(byte_t* bytes, std::size_t size);

/// Writes the text of `count` bytes (16 for a UUID: 36 characters in lower case) and a NUL into `buf` of
/// `len` bytes, and returns `buf`; null, and nothing written, when `count` is not 16 or `len` below 37.
MR_EXPORT char* bin2UUIDhex(const byte_t* bytes, ui32_t count, char* buf, ui32_t len);
/// The same 36 characters as a string.
MR_EXPORT std::string UUIDText(const UUID& id);

/// Reads the 36 characters back (either letter case). False for everything else; `id` is then left as it was.
MR_EXPORT bool UUIDFromText(const std::string& text, UUID& id);

/// Creates (mode 0644, less the umask) or truncates the file at `path`, writes all of `text`, and returns
/// once the text is on the disk (fsync). RESULT_FILEOPEN or RESULT_WRITEFAIL with path and the system's
/// reason on failure; errno is that reason. A failed write leaves a file with part of the text.
MR_EXPORT Result_t WriteStringIntoFile(const std::string& path, const std::string& text);

/// The same into a file that is created for it, so that nobody else can have prepared it: whatever stands at
/// `path` is removed first, a link and not what it points to. The file has mode, owner and group of the one
/// at `like`, as far as the system lets this process give them (else a Warn line says so), and mode 0600
/// where there is none.
MR_EXPORT Result_t WriteStringIntoNewFile(const std::string& path, const std::string& text,
                                          const std::string& like);

/// Returns once the folder of `path`, and with it what was created or renamed there, is on the disk.
/// RESULT_FILEOPEN or RESULT_WRITEFAIL with folder and reason on failure; errno is that reason.
MR_EXPORT Result_t SyncFolderOf(const std::string& path);

/// The path that a symbolic link at `path` leads to in the end, whether there is a file or not; `path` itself
/// where it is no link, or the links lead nowhere.
MR_EXPORT std::string FollowLinks(const std::string& path);

/// Reads a whole file of at most `limit` bytes. RESULT_FILEOPEN or RESULT_READFAIL with path and reason on
/// failure (EFBIG: more than `limit` bytes); errno is that reason and `text` then empty.
MR_EXPORT Result_t ReadFileIntoString(const std::string& path, std::string& text, std::size_t limit);

/// True for an existing directory (symbolic links are followed).
MR_EXPORT bool PathIsDirectory(const std::string& path);

}  // namespace Mirel
