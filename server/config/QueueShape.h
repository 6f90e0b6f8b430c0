// The entries of queues (listeners, timers, watches), read alike from requests and from documents.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>

#include "MR_types.h"
#include "MR_util.h"
#include "VL_HTTP.h"
#include "config/Shape.h"

namespace Server {

/// Most bytes of an event's name in a request: percent-encoded, and with a listener's id behind it, it fits
/// into the target of a request three times over.
inline constexpr std::size_t LongestEventName = 1024;

/// What a document held in front of the entry that is read, of what may stand there once.
struct DocumentSoFar {
    std::set<std::string> Callbacks;                // of the event
    std::set<std::string, Velmora::ci_comp> Paths;  // of watches
};

// Each of the readers below takes all members of an entry, and whatever else or amiss there is becomes a
// fault. Where `document` is null the entry is the body of a request, which is held to a little more than
// what a queue may have written; otherwise the entry may have an id, and must not repeat what the document
// holds.

struct ListenerEntry {
    std::optional<std::string> Callback;
    const Velmora::PListDict* Data = nullptr;
};
/// Takes the callback, which must be there. Of a request it must hold no NUL, and whether it can be called is
/// left to IsCallable(); of a document it must be callable in the queue's eyes.
ListenerEntry ReadListener(Shape& shape, DocumentSoFar* document = nullptr);

/// When a timer fires: first at `Start`, or where there is an interval (not 0) that long after its creation.
struct TimerTimes {
    Mirel::Timestamp Start;
    Mirel::i64_t Interval_sec = 0;
};
struct TimerEntry {
    std::optional<std::string> EventName;
    TimerTimes Times;
    const Velmora::PListDict* Data = nullptr;
};
/// An interval fits into 32 bits, since of a longer one the queue would apply these bits only, and a start
/// time is read also where the interval makes it unused. That neither is there is a fault.
TimerEntry ReadTimer(Shape& shape, DocumentSoFar* document = nullptr);

struct WatchEntry {
    std::optional<std::string> Path;
    std::optional<std::string> EventName;
    bool Once = false;
    const Velmora::PListDict* Data = nullptr;
};
/// The path must be there and hold no NUL: the kernel would watch what stands before it.
WatchEntry ReadWatch(Shape& shape, DocumentSoFar* document = nullptr);

/// Takes the name of an event alone, which must be there and not be empty; of a request it must have no
/// NameFault().
std::optional<std::string> ReadEventName(Shape& shape, const DocumentSoFar* document = nullptr);

/// Why no event can be given this name over REST: too long, or what clients take out of a path ("." and
/// ".."); empty where it can.
std::string NameFault(std::string_view name);

/// Whether a callback can ever be called: an http or https URL, a path, "python://" and a module's name.
bool IsCallable(const std::string& callback);
inline constexpr const char* CallableForms =
    "must be an http or https URL, a path on this server or \"python://\" and a module's name";

}  // namespace Server
