// Locks the state file, reads it, and keeps aside what cannot be read.
#include "config/StateFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>

#include "EventManager.h"
#include "MR_log.h"
#include "MR_util.h"

namespace Server {

namespace {

// Made by LockStateFile, and empty until then.
std::string Holder(int lock) {
    char pid[16] = {};
    const ssize_t size = pread(lock, pid, sizeof pid - 1, 0);
    const bool number = size > 0 && std::all_of(pid, pid + size, [](char c) { return c >= '0' && c <= '9'; });
    return number ? std::string("process ") + pid : "another process";
}

bool WriteOwnId(int lock) {
    const std::string pid = std::to_string(getpid());
    return ftruncate(lock, 0) == 0 &&
           pwrite(lock, pid.data(), pid.size(), 0) == static_cast<ssize_t>(pid.size());
}

std::string LockPath(const std::string& path) {
    return Mirel::FollowLinks(path) + ".lock";
}

std::string FolderOf(const std::string& path) {
    const std::string folder = std::filesystem::path(Mirel::FollowLinks(path)).parent_path().string();
    return folder.empty() ? "." : folder;
}

// Whether a file can be made in the folder, with the reason in errno. Nothing of it is seen where the file
// system has files without a name.
bool CanCreateIn(const std::string& folder) {
    int made = open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
    if (made < 0 && errno == EOPNOTSUPP) {
        std::string name = folder + "/.velmora-server-XXXXXX";
        made = mkostemp(name.data(), O_CLOEXEC);
        if (made >= 0) unlink(name.c_str());
    }
    if (made >= 0) close(made);
    return made >= 0;
}

Mirel::Result_t CannotUse(const Mirel::Result_t& result, const std::string& path, const std::string& reason) {
    return result.WithMessage("Cannot use the state file \"" + path + "\": " + reason);
}

// Opens and locks the file beside the state file; `lock` is its descriptor.
Mirel::Result_t Lock(const std::string& path, int flags, int& lock) {
    const std::string lock_path = LockPath(path);
    lock = open(lock_path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | flags, 0600);
    if (lock >= 0 && flock(lock, LOCK_EX | LOCK_NB) == 0) return Mirel::RESULT_OK;
    const int reason = errno;
    const bool taken = lock >= 0 && reason == EWOULDBLOCK;
    const std::string why =
        taken ? Holder(lock) + " is using it" : "cannot lock \"" + lock_path + "\": " + std::strerror(reason);
    if (lock >= 0) close(lock);
    return CannotUse(taken ? Mirel::RESULT_STATE : Mirel::RESULT_FILEOPEN, path, why);
}

Mirel::Result_t Unusable(const std::string& path, std::string reason) {
    if (!reason.empty() && reason.back() == '.') reason.pop_back();
    return CannotUse(Mirel::RESULT_READFAIL, path,
                     reason + ". It was left as it is; move it away to start without it.");
}

// What is wrong with the document, or nothing. Entries inside the lists are the queue's to judge.
std::string FaultOf(const Velmora::PListDict& document) {
    namespace Keys = EventManager::Strings;
    bool any = false;
    for (const std::string& key : {Keys::event_list, Keys::timer_list, Keys::watch_list}) {
        const Velmora::PListItem* const list = document.GetItem(key);
        if (!list) continue;
        if (!list->HasType(Velmora::IT_ARRAY)) return "its \"" + key + "\" is not a list";
        any = true;
    }
    return any ? "" : "it is not a queue state document";
}

Mirel::Result_t ReadDocument(const std::string& path, std::optional<Velmora::PListDict>& document) {
    std::string text;
    const Mirel::Result_t read = Mirel::ReadFileIntoString(path, text, StateFileLimit);
    if (read.Failure()) return Unusable(path, read.Message());

    Mirel::Result_t why;
    const std::unique_ptr<Velmora::PListItem> item =
        Velmora::PListItem::CreateFromJSON(text, &why, Velmora::PListItem::AnyDepth);
    if (!item) return Unusable(path, why.Message());
    const auto* const dict = dynamic_cast<const Velmora::PListDict*>(item.get());
    if (!dict) return Unusable(path, "it is not a queue state document");
    const std::string fault = FaultOf(*dict);
    if (!fault.empty()) return Unusable(path, fault);
    document = *dict;
    return Mirel::RESULT_OK;
}

}  // namespace

Mirel::Result_t LockStateFile(const std::string& path) {
    if (path.empty()) return Mirel::RESULT_OK;
    // Open until the process ends, whatever threads are left then: the kernel drops the lock with the
    // process.
    int lock = -1;
    const Mirel::Result_t locked = Lock(path, O_CREAT, lock);
    if (locked.Success() && !WriteOwnId(lock)) {
        Mirel::DefaultLogSink().Warn("Cannot write into \"%s\": %s\n", LockPath(path).c_str(),
                                     std::strerror(errno));
    }
    return locked;
}

Mirel::Result_t TryStateFile(const std::string& path) {
    if (path.empty()) return Mirel::RESULT_OK;
    const std::string folder = FolderOf(path);
    if (!CanCreateIn(folder)) {
        return CannotUse(Mirel::RESULT_FILEOPEN, path,
                         "cannot write into \"" + folder + "\": " + std::strerror(errno));
    }
    struct stat status {};
    if (lstat(LockPath(path).c_str(), &status) != 0 && errno == ENOENT) return Mirel::RESULT_OK;
    int lock = -1;
    const Mirel::Result_t locked = Lock(path, 0, lock);
    if (locked.Success()) close(lock);
    return locked;
}

Mirel::Result_t ReadStateFile(const std::string& path, std::optional<Velmora::PListDict>& document) {
    document.reset();
    struct stat status {};
    if (path.empty() || (stat(path.c_str(), &status) != 0 && errno == ENOENT)) return Mirel::RESULT_OK;
    try {
        return ReadDocument(path, document);
    } catch (const std::bad_alloc&) {
        return Unusable(path, "there is not enough memory for it");
    }
}

}  // namespace Server
