// The console's files as the build put them into the program.
#pragma once

#include <string_view>

namespace Server {

struct ConsoleFile {
    std::string_view Name;  // "app.js"
    std::string_view ETag;  // with its quotes
    std::string_view Content;
};

/// All of them, ended by one without a name. Generated.
extern const ConsoleFile ConsoleFiles[];

}  // namespace Server
