// Which server is asked, and with what token.
#pragma once

#include <optional>
#include <string>

namespace Terminal {

/// Each is taken from the options, else from the environment (VELMORA_URL, VELMORA_TOKEN, VELMORA_CA_FILE),
/// else from the file; empty where none says it.
struct Settings {
    std::string Address;    ///< the server's URL, with its base path where it has one
    std::string Token;      ///< empty: none
    std::string CaFile;     ///< certificates that an https server is checked against; empty: the system's
    bool Insecure = false;  ///< takes any certificate
    bool Json = false;      ///< the server's own answers instead of tables
    std::string
        SettingsFile;  ///< empty: VELMORA_CONFIG, else velmora/client.json in the user's configuration folder
};

inline constexpr const char* DefaultAddress = "http://127.0.0.1:8080";

/// Fills what is empty from environment and file. The file is a JSON object with "Address", "Token" and
/// "CAFile"; one with a token that others can read is refused. Throws Failure.
void CompleteSettings(Settings& settings);

}  // namespace Terminal
