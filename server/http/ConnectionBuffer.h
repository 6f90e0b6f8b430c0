// The bytes that came in on a connection and were not used yet.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

namespace Server {

/// A run of bytes in one piece of memory that grows at its end and shrinks at its front.
class ConnectionBuffer {
  public:
    /// What is in it. Valid until the next MakeRoom() or Release().
    std::string_view View() const { return {m_Memory.get() + m_Begin, m_End - m_Begin}; }
    bool Empty() const { return m_Begin == m_End; }

    /// Where the next bytes go, and how many fit.
    char* Free() { return m_Memory.get() + m_End; }
    std::size_t Room() const { return m_Capacity - m_End; }
    void Commit(std::size_t bytes) { m_End += bytes; }

    void Consume(std::size_t bytes) {
        m_Begin += bytes;
        if (m_Begin == m_End) m_Begin = m_End = 0;
    }
    /// Takes `bytes` out that stand behind the first `keep`.
    void Cut(std::size_t keep, std::size_t bytes) {
        char* const at = m_Memory.get() + m_Begin + keep;
        std::memmove(at, at + bytes, m_End - m_Begin - keep - bytes);
        m_End -= bytes;
    }

    /// Room for at least `bytes` more; what is in it may move.
    void MakeRoom(std::size_t bytes) {
        if (Room() >= bytes) return;
        const std::size_t used = m_End - m_Begin;
        if (m_Capacity >= used + bytes) {
            std::memmove(m_Memory.get(), m_Memory.get() + m_Begin, used);
        } else {
            const std::size_t capacity = used + bytes;
            std::unique_ptr<char[]> memory(new char[capacity]);
            if (used > 0) std::memcpy(memory.get(), m_Memory.get() + m_Begin, used);
            m_Memory = std::move(memory);
            m_Capacity = capacity;
        }
        m_Begin = 0;
        m_End = used;
    }

    std::size_t Capacity() const { return m_Capacity; }
    /// Gives the memory back; only while it is empty.
    void Release() {
        m_Memory.reset();
        m_Capacity = m_Begin = m_End = 0;
    }

  private:
    std::unique_ptr<char[]> m_Memory;
    std::size_t m_Capacity = 0;
    std::size_t m_Begin = 0;
    std::size_t m_End = 0;
};

}  // namespace Server
