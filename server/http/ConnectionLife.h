// What others may see of a connection, and the clock that its deadlines are on.
#pragma once

#include <atomic>
#include <coroutine>
#include <cstddef>

#include "MR_types.h"

namespace Server {

/// Milliseconds on a clock that never jumps and costs next to nothing to read; exact to a few milliseconds.
Mirel::i64_t CoarseNow_ms();

/// What others than the thread that serves a connection may see of it.
struct ConnectionLife {
    enum class Phase {
        Handshake,
        Idle,      // between requests
        Reading,   // some of a request is there
        Handling,  // being answered, or waiting to be
        Writing,   // the peer does not take the answer as fast as it is written
        Draining,  // everything is written; the peer is to close
    };

    explicit ConnectionLife(int descriptor) : Descriptor(descriptor) {}

    const int Descriptor;
    std::atomic<Phase> Now{Phase::Handshake};
    std::atomic<Mirel::i64_t> Deadline_ms{0};  // 0: none
    std::atomic<bool> Expired{false};

    /// From now on in `phase`, for at most `limit_ms` (0: without a limit). Whoever looks from outside may
    /// see it a little later, and looks again.
    void Enter(Phase phase, Mirel::i64_t limit_ms) {
        Deadline_ms.store(limit_ms == 0 ? 0 : CoarseNow_ms() + limit_ms, std::memory_order_release);
        Now.store(phase, std::memory_order_release);
    }

    std::coroutine_handle<> Frame;  // of what serves the connection; immutable once that is registered
    std::size_t Index = 0;          // the registry's
};

}  // namespace Server
