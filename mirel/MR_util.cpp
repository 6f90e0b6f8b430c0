// Identifiers, random bytes, and files that are written whole or not at all.
#include "MR_util.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "MR_log.h"
#include "MR_text.h"

namespace Mirel {
namespace {

// A descriptor that is closed when nobody has closed it before.
class File {
  public:
    // Check IsOpen(); errno is the reason where it is not. A file that is created has `mode`.
    File(const std::string& path, int flags, mode_t mode = 0644) {
        if (path.find('\0') != std::string::npos) {  // the system would take what stands before it
            errno = EINVAL;
            return;
        }
        do {
            m_Descriptor = open(path.c_str(), flags | O_CLOEXEC, mode);
        } while (m_Descriptor < 0 && errno == EINTR);
    }
    ~File() {
        const int reason = errno;  // of the failure that kept it open
        if (IsOpen()) close(m_Descriptor);
        errno = reason;
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    bool IsOpen() const { return m_Descriptor >= 0; }

    // These answer false with the reason in errno.
    bool WriteAll(std::string_view text);
    bool BeLike(const std::string& path);
    bool Sync();
    bool ReadAll(std::string& text, std::size_t limit);
    bool Close();

  private:
    int m_Descriptor = -1;
};

bool File::WriteAll(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(m_Descriptor, text.data(), text.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

// Takes over mode, owner and group of the file at `path`, where there is one.
bool File::BeLike(const std::string& path) {
    struct stat like {};
    struct stat own {};
    if (lstat(path.c_str(), &like) != 0) return errno == ENOENT;
    if (fstat(m_Descriptor, &own) != 0) return false;
    if (!S_ISREG(like.st_mode)) return true;
    mode_t mode = like.st_mode & 0777;
    if ((like.st_uid != own.st_uid || like.st_gid != own.st_gid) &&
        fchown(m_Descriptor, like.st_uid, like.st_gid) != 0) {
        // Who may give nothing away becomes the owner. What was for another group is then for no other.
        const bool same_group =
            like.st_gid == own.st_gid || fchown(m_Descriptor, own.st_uid, like.st_gid) == 0;
        if (!same_group) mode &= ~static_cast<mode_t>(0070);
        DefaultLogSink().Warn("\"%s\" belonged to user %u and group %u, and will not any longer\n",
                              path.c_str(), like.st_uid, like.st_gid);
    }
    return fchmod(m_Descriptor, mode) == 0;
}

bool File::Sync() {
    int result;
    do {
        result = fsync(m_Descriptor);
    } while (result < 0 && errno == EINTR);
    // Pipes and devices have nothing to bring to a disk and say so with one of these.
    return result == 0 || errno == EINVAL || errno == EROFS;
}

bool File::ReadAll(std::string& text, std::size_t limit) {
    char chunk[16384];
    for (;;) {
        const ssize_t count = read(m_Descriptor, chunk, sizeof chunk);
        if (count == 0) return true;
        if (count < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (static_cast<std::size_t>(count) > limit - text.size()) {
            errno = EFBIG;
            return false;
        }
        text.append(chunk, static_cast<std::size_t>(count));
    }
}

bool File::Close() {
    const int result = close(m_Descriptor);
    m_Descriptor = -1;  // gone whatever the answer
    return result == 0 || errno == EINTR;
}

// `code` with the path and the reason that errno holds, which stays in errno.
Result_t FileFailure(const Result_t& code, const std::string& path) {
    const int reason = errno;
    const Result_t result =
        code.WithMessage("\"" + path + "\": " + std::generic_category().message(reason) + ".");
    errno = reason;
    return result;
}

// Whether a hyphen stands before this byte of a UUID's text.
bool BeginsGroup(std::size_t byte) {
    return byte == 4 || byte == 6 || byte == 8 || byte == 10;
}

}  // namespace

void GenRandomBytes(byte_t* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t count = getrandom(bytes, size, 0);
        if (count < 0) {
            if (errno == EINTR) continue;
            DefaultLogSink().Crit("The kernel's random source failed: %s\n", strerror(errno));
            std::abort();
        }
        bytes += count;
        size -= static_cast<std::size_t>(count);
    }
}

void GenRandomValue(UUID& id) {
    GenRandomBytes(id.m_Value, UUID::Size);
    id.m_HasValue = true;
}

char* bin2UUIDhex(const byte_t* bytes, ui32_t count, char* buf, ui32_t len) {
    if (count != UUID::Size || len <= UUIDLen) return nullptr;
    char* at = buf;
    for (ui32_t i = 0; i < count; ++i) {
        if (BeginsGroup(i)) *at++ = '-';
        *at++ = HexDigits[bytes[i] >> 4];
        *at++ = HexDigits[bytes[i] & 15];
    }
    *at = '\0';
    return buf;
}

std::string UUIDText(const UUID& id) {
    char text[UUIDLen + 1];
    return bin2UUIDhex(id.Value(), UUID::Size, text, sizeof text);
}

bool UUIDFromText(const std::string& text, UUID& id) {
    if (text.size() != UUIDLen) return false;
    byte_t bytes[UUID::Size];
    const char* at = text.data();
    for (std::size_t i = 0; i < UUID::Size; ++i) {
        if (BeginsGroup(i) && *at++ != '-') return false;
        const int high = HexValue(*at++);
        const int low = HexValue(*at++);
        if (high < 0 || low < 0) return false;
        bytes[i] = static_cast<byte_t>(high << 4 | low);
    }
    id.Set(bytes);
    return true;
}

Result_t WriteStringIntoFile(const std::string& path, const std::string& text) {
    File file(path, O_WRONLY | O_CREAT | O_TRUNC);
    if (!file.IsOpen()) return FileFailure(RESULT_FILEOPEN, path);
    if (!file.WriteAll(text) || !file.Sync() || !file.Close()) return FileFailure(RESULT_WRITEFAIL, path);
    return RESULT_OK;
}

Result_t WriteStringIntoNewFile(const std::string& path, const std::string& text, const std::string& like) {
    if (path.find('\0') == std::string::npos && unlink(path.c_str()) != 0 && errno != ENOENT) {
        return FileFailure(RESULT_FILEOPEN, path);
    }
    File file(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    if (!file.IsOpen()) return FileFailure(RESULT_FILEOPEN, path);
    if (!file.BeLike(like) || !file.WriteAll(text) || !file.Sync() || !file.Close()) {
        return FileFailure(RESULT_WRITEFAIL, path);
    }
    return RESULT_OK;
}

Result_t SyncFolderOf(const std::string& path) {
    const std::string folder = std::filesystem::path(path).parent_path().string();
    File file(folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY);
    if (!file.IsOpen()) return FileFailure(RESULT_FILEOPEN, folder);
    return file.Sync() ? RESULT_OK : FileFailure(RESULT_WRITEFAIL, folder);
}

std::string FollowLinks(const std::string& path) {
    constexpr int Most = 40;  // as many as the kernel follows, path_resolution(7)
    std::string target = path;
    for (int i = 0; i < Most && path.find('\0') == std::string::npos; ++i) {
        std::error_code no_link;
        const std::filesystem::path next = std::filesystem::read_symlink(target, no_link);
        if (no_link) return target;
        target = (std::filesystem::path(target).parent_path() / next).string();
    }
    return path;
}

Result_t ReadFileIntoString(const std::string& path, std::string& text, std::size_t limit) {
    text.clear();
    File file(path, O_RDONLY);
    if (!file.IsOpen()) return FileFailure(RESULT_FILEOPEN, path);
    if (file.ReadAll(text, limit)) return RESULT_OK;
    text.clear();
    return FileFailure(RESULT_READFAIL, path);
}

bool PathIsDirectory(const std::string& path) {
    struct stat status;
    return path.find('\0') == std::string::npos && stat(path.c_str(), &status) == 0 &&
           S_ISDIR(status.st_mode);
}

}  // namespace Mirel
