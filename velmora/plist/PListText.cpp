// Texts that do not fit inline: shared, with a count.
#include "VL_PListText.h"

#include <atomic>
#include <limits>
#include <new>
#include <stdexcept>

namespace Velmora {

namespace {

struct SharedText {
    std::atomic<Mirel::ui32_t> Refs{1};
    Mirel::ui32_t Size;  // the bytes follow

    explicit SharedText(std::size_t length) : Size(static_cast<Mirel::ui32_t>(length)) {}
    char* Bytes() noexcept { return reinterpret_cast<char*>(this + 1); }
};

}  // namespace

void* NewSharedText(std::string_view text) {
    if (text.size() > std::numeric_limits<Mirel::ui32_t>::max()) {
        throw std::length_error("A property list's text has 4 GiB or more.");
    }
    void* memory = ::operator new(sizeof(SharedText) + text.size());
    auto* shared = ::new (memory) SharedText(text.size());
    std::memcpy(shared->Bytes(), text.data(), text.size());
    return shared;
}

void RetainSharedText(void* text) noexcept {
    static_cast<SharedText*>(text)->Refs.fetch_add(1, std::memory_order_relaxed);
}

void ReleaseSharedText(void* text) noexcept {
    auto* shared = static_cast<SharedText*>(text);
    // The only owner needs no exchange between processors.
    if (shared->Refs.load(std::memory_order_acquire) != 1 &&
        shared->Refs.fetch_sub(1, std::memory_order_acq_rel) != 1) {
        return;
    }
    shared->~SharedText();
    ::operator delete(text);
}

std::string_view ViewSharedText(const void* text) noexcept {
    auto* shared = static_cast<SharedText*>(const_cast<void*>(text));
    return {shared->Bytes(), shared->Size};
}

}  // namespace Velmora
