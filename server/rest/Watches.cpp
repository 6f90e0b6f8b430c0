// Filesystem watches: /api/v1/watches.
#include <linux/magic.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "EventManager.h"
#include "config/QueueShape.h"
#include "rest/Rest.h"

namespace Server {

namespace Keys = EventManager::Strings;
using EventManager::GlobalEventQueue;

namespace {

// File systems whose other machines' changes the kernel here never hears of. Those that linux/magic.h leaves
// out are given by number (their kernel sources).
constexpr unsigned long NetworkFilesystems[] = {
    NFS_SUPER_MAGIC,  SMB_SUPER_MAGIC, SMB2_SUPER_MAGIC, CIFS_SUPER_MAGIC,
    FUSE_SUPER_MAGIC, AFS_SUPER_MAGIC, AFS_FS_MAGIC,     CODA_SUPER_MAGIC,
    NCP_SUPER_MAGIC,  V9FS_MAGIC,      CEPH_SUPER_MAGIC, OCFS2_SUPER_MAGIC,
    0x01161970,  // GFS2
    0x0bd00bd0,  // Lustre
};

bool IsNetworkFilesystem(unsigned long type) {
    return std::find(std::begin(NetworkFilesystems), std::end(NetworkFilesystems), type) !=
           std::end(NetworkFilesystems);
}

// What may keep the watch from firing although it was registered.
Velmora::PListArray WatchWarnings(const std::string& path) {
    Velmora::PListArray warnings;
    if (path.front() != '/')
        warnings.Append(Velmora::PListData("The path is relative to the server's working directory."));
    struct statfs filesystem {};
    if (::statfs(path.c_str(), &filesystem) != 0) {
        warnings.Append(Velmora::PListData("The path cannot be watched now (" +
                                           std::string(std::strerror(errno)) +
                                           "): the watch is dropped at the worker's next pass."));
    } else if (IsNetworkFilesystem(static_cast<unsigned long>(filesystem.f_type))) {
        warnings.Append(Velmora::PListData(
            "The path lies on a network or FUSE file system: changes that other machines make there "
            "are not seen."));
    }
    return warnings;
}

// The state's entry for the path, in any letter case; null where there is none.
const Velmora::PListDict* FindWatch(const Velmora::PListDict& state, const std::string& path) {
    const Velmora::ci_comp less;
    for (const Velmora::PListItem& item : state.GetArray(Keys::watch_list)) {
        const Velmora::PListDict* entry = AsDict(&item);
        if (entry == nullptr) continue;
        const std::string watched = entry->GetData(Keys::path).Text();
        if (!less(watched, path) && !less(path, watched)) return entry;
    }
    return nullptr;
}

std::string NoSuchWatch(const std::string& path) {
    return "There is no watch on \"" + path + "\".";
}

HttpResponse WatchRefused(const std::string& path) {
    Velmora::PListDict state;
    GlobalEventQueue().GetWatchState(state);
    const Velmora::PListDict* watch = FindWatch(state, path);
    if (watch == nullptr) {
        return Problem(Velmora::STATUS_409_CONFLICT, "There are more watches than \"max_watches\" allows.");
    }
    return Problem(Velmora::STATUS_409_CONFLICT,
                   "The path is watched already, as \"" + watch->GetData(Keys::path).Text() +
                       "\" (letter case does not count; a watch that was just deleted goes with "
                       "the worker's next passes).");
}

}  // namespace

HttpResponse GetWatches(RestCall& call) {
    Velmora::PListDict state;
    GlobalEventQueue().GetWatchState(state);
    const std::string* path = call.Parameter(Keys::path);
    if (path == nullptr) return AnswerList(call, state, {Keys::watch_list, Keys::path, Keys::path});
    const Velmora::PListDict* watch = FindWatch(state, *path);
    if (watch == nullptr || !call.MaySee(watch->GetData(Keys::event_name).TextView()))
        return Problem(Velmora::STATUS_404_NOT_FOUND, NoSuchWatch(*path));
    Velmora::PListArray found;
    found.Append(*watch);
    Velmora::PListDict answer;
    answer.SetItem(Keys::watch_list, std::move(found));
    return Json(Velmora::STATUS_200_OK, answer);
}

HttpResponse PostWatches(RestCall& call) {
    Velmora::PListDict body;
    if (auto refused = ReadBody(call, body)) return std::move(*refused);
    std::vector<Fault> faults;
    Shape shape(body, "", faults);
    const WatchEntry watch = ReadWatch(shape);
    if (!faults.empty())
        return Problem(Velmora::STATUS_422_UNPROCESSABLE, "The watch cannot be created as given.", faults);

    if (!GlobalEventQueue().CreateWatch(*watch.Path, *watch.EventName, watch.Data, watch.Once))
        return WatchRefused(*watch.Path);
    Velmora::PListDict entry;
    entry.SetValue(Keys::path, *watch.Path);
    entry.SetValue(Keys::event_name, *watch.EventName);
    entry.SetValue(Keys::once, watch.Once);
    if (watch.Data != nullptr && !watch.Data->Empty()) entry.SetItem(Keys::watch_data, *watch.Data);
    entry.SetItem("warnings", WatchWarnings(*watch.Path));
    return Created(ApiPath({Keys::watches}) + "?path=" + PercentEncode(*watch.Path), entry);
}

HttpResponse DeleteWatches(RestCall& call) {
    const std::string* path = call.Parameter(Keys::path);
    if (path != nullptr) {
        return Removed(GlobalEventQueue().DeleteWatch(*path), NoSuchWatch(*path));
    }
    GlobalEventQueue().DeleteAllWatches();
    return NoContent();
}

}  // namespace Server
