// How secrets are printed: not at all.
#pragma once

#include <string>

namespace Server {

/// What stands in the place of a secret where one is printed. Where a secret is read it is refused, with
/// NeedsSecret for the fault: whoever copies what was printed would have a secret that everybody knows.
inline constexpr const char* HiddenSecret = "(hidden)";
inline constexpr const char* NeedsSecret =
    "holds \"(hidden)\", which --print-config prints in the place of a secret: put the secret itself there";

/// The URL with HiddenSecret in the place of its user and password, either of which can be a token. Text that
/// is no URL stays as it is.
std::string WithoutCredentials(const std::string& url);

/// Whether the URL is one that WithoutCredentials has answered with its credentials taken out.
bool LacksCredentials(const std::string& url);

}  // namespace Server
