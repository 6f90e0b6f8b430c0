// The web console: one page with its styles and scripts, carried inside the program.
#pragma once

#include <optional>

#include "http/Http.h"

namespace Server {

/// Whether it is the path of one of the console's files.
bool IsConsolePath(std::string_view path);

/// The answer to a GET or HEAD for "/", "/console/FILE" or the client library that the console uses and
/// others may
/// ("/clients/velmora.mjs"), with an ETag (304 where the client has that one
/// already) and the policy that lets the page load nothing but these files and talk to nobody but this
/// server. Nothing for every other path. Both may be called from any thread.
std::optional<HttpResponse> ConsoleAsset(const HttpRequest& request);

}  // namespace Server
