// The description of the REST interface.
#pragma once

#include <string_view>

namespace Server {

/// An OpenAPI 3.1 document as JSON text; lives as long as the program.
std::string_view OpenApiDocument();

}  // namespace Server
