// One call of one listener for one posting, with all its attempts.
#pragma once

#include <deque>
#include <memory>
#include <string>

#include "MR_util.h"
#include "VL_HTTP.h"

namespace Server {

/// Where a delivery stands.
enum class DeliveryState {
    Waiting,  ///< for an attempt, the first or another, or for its end
    Ok,       ///< taken
    Failed,   ///< not taken, after its only attempt or for good
    Dead,     ///< not taken after several attempts; listed until it is sent again or dismissed
};

/// "waiting", "ok", "failed" or "dead".
const char* DeliveryStateName(DeliveryState state);

struct Delivery {
    Mirel::ui64_t Id = 0;  ///< ascending, over restarts as well
    std::string PostingId;
    std::string EventName;
    std::string ListenerId;
    std::string Callback;
    Velmora::Method_t Method = Velmora::METH_GET;
    std::shared_ptr<const std::string> Body;  ///< of a request; of a Python handler its payload. Never null
    std::size_t Lane = 0;                     ///< that of its destination

    Mirel::ui32_t Attempt = 0;  ///< made so far
    Mirel::ui32_t Attempts = 1;
    Mirel::i64_t Made_us = 0;  ///< when the posting was made
    Mirel::i64_t Time_us = 0;  ///< the end of the last attempt
    Mirel::i64_t Next_us = 0;  ///< when the next attempt is due
    Mirel::ui32_t Duration_ms = 0;
    Mirel::ui32_t Timeout_ms = 0;
    int Status = 0;
    DeliveryState State = DeliveryState::Waiting;
    std::string Reason;
    std::string Answer;     ///< its first KiB
    std::string Traceback;  ///< of a Python handler: the last lines

    bool Stored = false;          ///< the store has it
    bool Running = false;         ///< an attempt is under way
    bool LastTry = false;         ///< there is no further attempt, whatever comes of this one
    bool Dismissed = false;       ///< it leaves the list when its attempt has ended
    std::shared_ptr<void> Token;  ///< of whoever has somebody else make the call if it is not made here

    bool IsPython() const { return Callback.starts_with("python://"); }
    bool Slow() const { return Duration_ms >= (Timeout_ms + 1) / 2; }
    /// In memory and in the journal, about; an answer that may come included. The same for all its life.
    std::size_t Bytes() const { return Body->size() + Callback.size() + EventName.size() + 2048; }
};

/// How the calls of one listener went so far; without any while its first one is under way.
struct ListenerStatus {
    std::string ListenerId;                       ///< which of those that had this event and callback
    DeliveryState Last = DeliveryState::Waiting;  ///< Waiting: it was not called yet
    std::string Reason;                           ///< of the last call
    Mirel::i64_t Time_us = 0;                     ///< of the last call
    Mirel::i64_t Success_us = 0;                  ///< of the last that succeeded; 0: none did
    Mirel::ui64_t FailuresInRow = 0;
    Mirel::ui64_t Calls = 0;
    Mirel::ui64_t Failures = 0;
    std::deque<Mirel::ui32_t> Durations_ms;  ///< of the last hundred calls
    bool Changed = false;                    ///< since it was last journalled
};

}  // namespace Server
