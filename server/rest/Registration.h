// What a document that comes over REST may register, which is less than the queue itself takes.
#pragma once

#include <vector>

#include "config/Shape.h"

namespace Server {

/// Adds a fault for every event and listener of a document whose name or callback cannot be registered over
/// REST. What `existing`, the queue's own document, holds already is left alone: a document that a server has
/// answered can be given back to it, whoever registered what is in it.
void CheckRegistrations(const Velmora::PListDict& document, const Velmora::PListDict& existing,
                        std::vector<Fault>& faults);

}  // namespace Server
