// Stands in for operator new in the program that includes it: memory is refused where the test chooses.
#pragma once

#include <cstdlib>
#include <new>

namespace Testing {

/// While the object lives, one allocation of its thread fails: the one behind `before` others, of those for
/// `least` bytes and more. To be tried with 0, 1, 2 … until none has been refused any more.
class NoMemory {
  public:
    explicit NoMemory(int before, std::size_t least = 0) {
        Countdown() = before + 1;
        Least() = least;
    }
    ~NoMemory() { Countdown() = 0; }
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;

    bool Refused() const { return Countdown() == 0; }

    /// Counts an allocation; whether it is the one.
    static bool Refuses(std::size_t size) { return Countdown() > 0 && size >= Least() && --Countdown() == 0; }

  private:
    static int& Countdown() {
        constinit static thread_local int countdown = 0;
        return countdown;
    }
    static std::size_t& Least() {
        constinit static thread_local std::size_t least = 0;
        return least;
    }
};

}  // namespace Testing

// Not inlined: the compiler would see free() where it expects a delete.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = Testing::NoMemory::Refuses(size) ? nullptr : std::malloc(size);
    if (!memory) throw std::bad_alloc();
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
