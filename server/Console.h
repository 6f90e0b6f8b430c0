// The web console: one page with its styles and scripts, carried inside the program.
#pragma once

#include <optional>

#include "Http.h"

namespace Server {

/// The answer to a GET or HEAD for "/" or "/console/FILE", with an ETag (304 where the client has that one
/// already) and the policy that lets the page load nothing but these files and talk to nobody but this
/// server. Nothing for every other path. May be called from any thread.
std::optional<HttpResponse> ConsoleAsset(const HttpRequest& request);

}  // namespace Server
