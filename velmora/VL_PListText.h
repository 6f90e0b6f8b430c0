// The text of a scalar or a key in as few bytes as possible.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>
#include <utility>

#include "MR_types.h"

namespace Velmora {

/// Makes an immutable text on the heap with one reference. Throws std::length_error from 4 GiB on.
MR_EXPORT void* NewSharedText(std::string_view text);
/// Adds a reference.
MR_EXPORT void RetainSharedText(void* text) noexcept;
/// Takes one reference back and frees the text with the last one.
MR_EXPORT void ReleaseSharedText(void* text) noexcept;
/// The text, as long as there is a reference.
MR_EXPORT std::string_view ViewSharedText(const void* text) noexcept;

/// A text in an object of SIZE bytes: up to SIZE - 1 bytes stand in place, a longer text stands on the heap
/// and is shared by its copies. The text itself never changes, so copies may be used by different threads.
///
/// The object needs no alignment of its own, which lets it fill the padding behind a smaller member, as long
/// as it ends on an address divisible by 8: the pointer is kept where it is then aligned.
template <std::size_t SIZE>
class CompactText {
    static_assert(SIZE >= sizeof(void*) + 1 && SIZE < 0xFF);

  public:
    /// The longest text that needs no memory of its own.
    static constexpr std::size_t Inline = SIZE - 1;

    /// An empty text.
    CompactText() noexcept { SetEmpty(); }
    /// A copy of `text`. Throws std::length_error from 4 GiB on.
    explicit CompactText(std::string_view text) {
        if (text.size() > Inline) {
            SetShared(NewSharedText(text));
            return;
        }
        if (!text.empty()) std::memcpy(m_Bytes, text.data(), text.size());
        m_Bytes[SIZE - 1] = static_cast<Mirel::byte_t>(text.size());
    }
    /// Shares a text that stands on the heap.
    CompactText(const CompactText& other) noexcept {
        std::memcpy(m_Bytes, other.m_Bytes, SIZE);
        if (IsShared()) RetainSharedText(Shared());
    }
    /// The other is left empty.
    CompactText(CompactText&& other) noexcept {
        std::memcpy(m_Bytes, other.m_Bytes, SIZE);
        other.SetEmpty();
    }
    /// Lets its own text go and takes the other's.
    CompactText& operator=(CompactText other) noexcept {
        Swap(other);
        return *this;
    }
    ~CompactText() {
        if (IsShared()) ReleaseSharedText(Shared());
    }

    /// Exchanges the texts.
    void Swap(CompactText& other) noexcept {
        Mirel::byte_t bytes[SIZE];
        std::memcpy(bytes, m_Bytes, SIZE);
        std::memcpy(m_Bytes, other.m_Bytes, SIZE);
        std::memcpy(other.m_Bytes, bytes, SIZE);
    }

    /// Valid as long as this object is neither changed nor destroyed.
    std::string_view View() const noexcept {
        if (IsShared()) return ViewSharedText(Shared());
        return {reinterpret_cast<const char*>(m_Bytes), m_Bytes[SIZE - 1]};
    }

  private:
    static constexpr Mirel::byte_t SharedMark = 0xFF;  // in the last byte, which otherwise holds the length
    static constexpr std::size_t PointerAt = SIZE % sizeof(void*);

    bool IsShared() const noexcept { return m_Bytes[SIZE - 1] == SharedMark; }
    void SetEmpty() noexcept { m_Bytes[SIZE - 1] = 0; }
    void* Shared() const noexcept {
        void* text;
        std::memcpy(&text, m_Bytes + PointerAt, sizeof(text));
        return text;
    }
    void SetShared(void* text) noexcept {
        std::memcpy(m_Bytes + PointerAt, &text, sizeof(text));
        m_Bytes[SIZE - 1] = SharedMark;
    }

    Mirel::byte_t m_Bytes[SIZE];
};

}  // namespace Velmora
