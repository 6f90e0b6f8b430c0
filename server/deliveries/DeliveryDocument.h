// A delivery as text that another server, and a person, can read.
#pragma once

#include <optional>
#include <string>

#include "deliveries/Delivery.h"

namespace Server {

/// What another has said is shown as text, whatever its bytes are.
std::string AsText(const std::string& bytes);

/// JSON: all of it while it waits or is dead, and what became of it where it has ended. Empty where a name is
/// no text.
std::string DocumentOf(const Delivery& delivery);

/// Nothing where the text is no such document.
std::optional<Delivery> DeliveryFrom(const std::string& document, Mirel::ui64_t id);

}  // namespace Server
