// What runs in one function from its beginning to its end, and waits in between without a thread.
#pragma once

#include <coroutine>
#include <exception>
#include <utility>

#include "MR_log.h"

namespace Server {

/// A coroutine that nobody waits for. It does nothing before it is started; its frame, with all that is in
/// it, is destroyed when it has come to its end, also by an exception, which is logged. One that waits when
/// it is not wanted any longer is ended by destroying its frame. An awaitable that throws when it begins to
/// wait (there is no memory for the operation) throws inside the coroutine.
class Coroutine {
  public:
    struct promise_type {
        Coroutine get_return_object() noexcept {
            return Coroutine(std::coroutine_handle<promise_type>::from_promise(*this));
        }
        std::suspend_always initial_suspend() const noexcept { return {}; }
        std::suspend_never final_suspend() const noexcept { return {}; }
        void return_void() const noexcept {}
        void unhandled_exception() const noexcept {
            try {
                throw;
            } catch (const std::exception& failure) {
                Mirel::DefaultLogSink().Error("A connection is closed: %s\n", failure.what());
            }
        }
    };

    Coroutine(Coroutine&& from) noexcept : m_Frame(std::exchange(from.m_Frame, nullptr)) {}
    Coroutine& operator=(Coroutine&&) = delete;
    /// Destroys one that was not released.
    ~Coroutine() {
        if (m_Frame) m_Frame.destroy();
    }

    std::coroutine_handle<> Frame() const { return m_Frame; }
    /// From now on the coroutine belongs to itself. The caller resumes it.
    std::coroutine_handle<> Release() { return std::exchange(m_Frame, nullptr); }

  private:
    explicit Coroutine(std::coroutine_handle<> frame) : m_Frame(frame) {}

    std::coroutine_handle<> m_Frame;
};

}  // namespace Server
