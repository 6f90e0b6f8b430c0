// What may be registered over REST, which is less than the queue itself takes.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config/Shape.h"

namespace Server {

/// Most bytes of an event's name: percent-encoded, and with a listener's id behind it, it fits into the
/// target of a request three times over.
inline constexpr std::size_t LongestEventName = 1024;

/// Takes the name of an event, which must be there: not empty, not too long, and nothing that clients take
/// out of a path ("." and "..").
std::optional<std::string> ReadEventName(Shape& shape);

/// Takes the callback, which must be there and hold no NUL.
std::optional<std::string> ReadCallback(Shape& shape);

/// Whether a callback can ever be called: an http or https URL, a path, "python://" and a module's name.
bool IsCallable(const std::string& callback);
inline constexpr const char* CallableForms =
    "must be an http or https URL, a path on this server or \"python://\" and a module's name";

/// Adds a fault for every event and listener of a document whose name or callback cannot be registered over
/// REST. What `existing`, the queue's own document, holds already is left alone: a document that a server has
/// answered can be given back to it, whoever registered what is in it.
void CheckRegistrations(const Velmora::PListDict& document, const Velmora::PListDict& existing,
                        std::vector<Fault>& faults);

}  // namespace Server
