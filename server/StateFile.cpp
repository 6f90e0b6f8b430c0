#include "StateFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
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

Mirel::Result_t unusable(const std::string& path, std::string reason) {
    if (!reason.empty() && reason.back() == '.') reason.pop_back();
    return Mirel::RESULT_READFAIL.WithMessage("Cannot use the state file \"" + path + "\": " + reason +
                                              ". It was left as it is; move it away to start without it.");
}

// What is wrong with the document, or nothing. Entries inside the lists are the queue's to judge.
std::string fault_of(const Velmora::PListDict& document) {
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

Mirel::Result_t read_document(const std::string& path, std::optional<Velmora::PListDict>& document) {
    std::string text;
    const Mirel::Result_t read = Mirel::ReadFileIntoString(path, text, StateFileLimit);
    if (read.Failure()) return unusable(path, read.Message());

    Mirel::Result_t why;
    const std::unique_ptr<Velmora::PListItem> item =
        Velmora::PListItem::CreateFromJSON(text, &why, Velmora::PListItem::AnyDepth);
    if (!item) return unusable(path, why.Message());
    const auto* const dict = dynamic_cast<const Velmora::PListDict*>(item.get());
    if (!dict) return unusable(path, "it is not a queue state document");
    const std::string fault = fault_of(*dict);
    if (!fault.empty()) return unusable(path, fault);
    document = *dict;
    return Mirel::RESULT_OK;
}

}  // namespace

Mirel::Result_t LockStateFile(const std::string& path) {
    if (path.empty()) return Mirel::RESULT_OK;
    const std::string lock_path = Mirel::FollowLinks(path) + ".lock";
    // Open until the process ends, whatever threads are left then: the kernel drops the lock with the
    // process.
    const int lock = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lock >= 0 && flock(lock, LOCK_EX | LOCK_NB) == 0) {
        if (!WriteOwnId(lock)) {
            Mirel::DefaultLogSink().Warn("Cannot write into \"%s\": %s\n", lock_path.c_str(),
                                         std::strerror(errno));
        }
        return Mirel::RESULT_OK;
    }
    std::string why = "cannot lock \"" + lock_path + "\": " + std::strerror(errno);
    if (lock >= 0 && errno == EWOULDBLOCK) why = Holder(lock) + " is using it";
    if (lock >= 0) close(lock);
    return Mirel::RESULT_STATE.WithMessage("Cannot use the state file \"" + path + "\": " + why);
}

Mirel::Result_t ReadStateFile(const std::string& path, std::optional<Velmora::PListDict>& document) {
    document.reset();
    struct stat status {};
    if (path.empty() || (stat(path.c_str(), &status) != 0 && errno == ENOENT)) return Mirel::RESULT_OK;
    try {
        return read_document(path, document);
    } catch (const std::bad_alloc&) {
        return unusable(path, "there is not enough memory for it");
    }
}

}  // namespace Server
