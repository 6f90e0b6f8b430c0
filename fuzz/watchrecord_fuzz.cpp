// The decoder of the kernel's watch records stays within its bytes, and finds what a walk with every check
// finds.
#include "EventManager.cpp"

#include <cstdint>
#include <cstdlib>
#include <set>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<char> bytes(data, data + size);  // of exactly that size: a byte beyond it is caught
    const std::set<int> found = EventManager::event_stream_decode(bytes.data(), bytes.size());

    std::set<int> expected;
    for (std::size_t at = 0; at + sizeof(inotify_event) <= size;) {
        inotify_event record;
        std::memcpy(&record, bytes.data() + at, sizeof(record));
        expected.insert(record.wd);
        at += sizeof(record) + record.len;
    }
    if (found != expected) std::abort();
    return 0;
}
