// The thread base: one run of four hooks on a thread of its own.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "MR_error.h"
#include "MR_types.h"

namespace Mirel {

/// Base of objects that do their work on a thread of their own, once.
///
/// Start() runs ThreadInit, ThreadBody and ThreadFini (handed the body's result) on a new thread. When
/// ThreadInit fails the body is left out and ThreadFini is handed that failure. An exception that leaves a
/// hook is logged and counts as its answering RESULT_FAIL, with the exception's text in the message.
///
/// The thread is detached: its stack is freed the moment it ends, and only the outcome stays. A derived class
/// whose thread may still run when it is destroyed must call WaitUntilFinished() first thing in its own
/// destructor (the hooks are gone by the time the base's destructor waits).
///
/// All public operations may be called from any thread; Start() at most once.
///
/// Binary interface: the hooks in this order and then the destructor are the first virtual operations of
/// every class that is derived first from this one. Nothing may be moved, or put in front or between.
class MR_EXPORT Thread {
  public:
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// Runs the hooks on a new thread named `name`. The kernel's name for the thread is cut to the 15
    /// characters that it takes; Name() and the log keep the whole one.
    /// A second call is refused with RESULT_STATE. When no thread can be had the answer is RESULT_THREAD with
    /// the system's reason; IsFinished() is then true and Result() is that failure.
    Result_t Start(const std::string& name);

    /// Asks the thread to end (ThreadStop, on the calling thread, possibly at the same time as the other
    /// hooks and more than once) and, where `wait` is true, waits at most `limit_ms` milliseconds for its
    /// hooks to return. RESULT_TIMEOUT when they had not in time, else what ThreadStop answered. Before
    /// Start() and after the run it asks and does not wait. A thread that waits for itself is answered
    /// RESULT_STATE, after it was asked.
    Result_t Stop(ui32_t limit_ms, bool wait);

    /// True once the hooks have returned, or the start failed. False before Start().
    bool IsFinished() const;

    /// What ThreadFini answered; meaningful once IsFinished() is true (RESULT_OK before).
    Result_t Result() const;

    /// The name given to Start(), whole; empty before.
    std::string Name() const;

    /// Size of the thread's stack in bytes, before Start(); 0 (the start value) takes the system's default.
    /// Raised to the system's minimum where it is smaller.
    void StackSize(std::size_t bytes);

    /// The whole name of the calling thread: that given to Start(), or the kernel's for other threads.
    static std::string CurrentName();

    /// The same without a copy. Good until the calling thread asks again or ends.
    static std::string_view CurrentNameView();

  private:
    // The hooks (see above); their order is part of the binary interface.
    virtual Result_t ThreadInit() = 0;
    virtual Result_t ThreadBody() = 0;
    virtual Result_t ThreadFini(Result_t result) = 0;
    virtual Result_t ThreadStop() = 0;

  public:
    /// Waits for a running thread, which must not be the calling one.
    virtual ~Thread();

  protected:
    Thread();

    /// Returns when the hooks have returned; at once where no thread was started. Not for the thread itself.
    void WaitUntilFinished();

  private:
    struct MR_HIDDEN Run;  // outlives the Thread object where need be: shared with the thread itself
    std::shared_ptr<Run> m_Run;
};

}  // namespace Mirel
