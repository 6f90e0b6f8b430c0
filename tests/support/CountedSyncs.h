// Stands in for fsync(2) in the program that includes it: what was brought to the disk, one after the other.
#pragma once

#include <dlfcn.h>
#include <sys/stat.h>

#include <functional>
#include <mutex>
#include <string>

#include "MR_types.h"

namespace Testing {

/// 'f' for each file and 'd' for each directory that was synced while the object lives, with `mark` called
/// before each and its character put behind where it is not 0. One at a time.
class CountedSyncs {
  public:
    explicit CountedSyncs(std::function<char()> mark = [] { return '\0'; }) : m_Mark(std::move(mark)) {
        Current() = this;
    }
    ~CountedSyncs() { Current() = nullptr; }
    CountedSyncs(const CountedSyncs&) = delete;
    CountedSyncs& operator=(const CountedSyncs&) = delete;

    std::string Seen;

    static CountedSyncs*& Current() {
        static CountedSyncs* current = nullptr;
        return current;
    }
    void Count(int descriptor) {
        struct stat status {};
        fstat(descriptor, &status);
        Seen += S_ISDIR(status.st_mode) ? 'd' : 'f';
        if (const char mark = m_Mark()) Seen += mark;
    }

  private:
    const std::function<char()> m_Mark;
};

}  // namespace Testing

extern "C" MR_EXPORT int fsync(int descriptor) {
    using fsync_t = int (*)(int);
    static const auto sync = reinterpret_cast<fsync_t>(dlsym(RTLD_NEXT, "fsync"));
    if (Testing::CountedSyncs* const current = Testing::CountedSyncs::Current()) current->Count(descriptor);
    return sync(descriptor);
}

extern "C" MR_EXPORT int fdatasync(int descriptor) {
    using fsync_t = int (*)(int);
    static const auto sync = reinterpret_cast<fsync_t>(dlsym(RTLD_NEXT, "fdatasync"));
    if (Testing::CountedSyncs* const current = Testing::CountedSyncs::Current()) current->Count(descriptor);
    return sync(descriptor);
}
