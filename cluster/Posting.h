// A posting as the stream holds it: the data is the message's body, the rest stands in headers.
#pragma once

#include <optional>
#include <string>

#include "Engine.h"
#include "Publisher.h"
#include "VL_PList.h"

namespace Cluster {

/// One posting, read from the stream.
struct StoredPosting {
    std::string EventName;
    PListDict Payload;    // as history, feed and listeners get it
    ui64_t Revision = 0;  // of the registry at the node that accepted it
};

/// The message that posts `json` (empty: without data). `event_data` is the event's own.
Sending PostingMessage(const Engine& engine, const std::string& event_name, std::string json,
                       const PListDict& event_data, ui64_t revision);

/// Reads a message of the postings' stream. Nothing, and the reason, for what others wrote and posts nothing.
std::optional<StoredPosting> ReadPosting(const Engine& engine, natsMsg* message, i64_t time_ns,
                                         std::string& why);

}  // namespace Cluster
