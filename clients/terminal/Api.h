// Requests to the server's REST interface.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "VL_PList.h"
#include "terminal/Settings.h"

namespace Terminal {

/// A name as a segment of a path.
std::string Encode(const std::string& name);

/// Pretty as it stands or not, whole: the text of an answer, read.
Velmora::PListDict ReadAnswer(const std::string& text);

/// One server. Every operation throws Failure where the server refuses or does not answer.
class Api {
  public:
    explicit Api(const Settings& settings);
    ~Api();
    Api(const Api&) = delete;
    Api& operator=(const Api&) = delete;

    /// The text of the answer. `path` begins behind "/api/v1"; one that begins with "//" is below the
    /// server's root.
    std::string Ask(const char* method, const std::string& path, const std::string& body = "");
    /// The same, read.
    Velmora::PListDict Get(const std::string& path) { return ReadAnswer(Ask("GET", path)); }

    /// Reads the feed's events until the connection ends, of which it tells why by throwing Failure
    /// (ExitUnreachable), or until `take` answers false. `last_id` is sent as the last event's id where it is
    /// not empty.
    struct Event {
        std::string Id;
        std::string Type;  // empty: a plain message
        std::string Data;
    };
    void Follow(const std::string& query, const std::string& last_id,
                const std::function<bool(const Event&)>& take);

  private:
    class Transfer;
    const Settings& m_Settings;
    std::unique_ptr<Transfer> m_Transfer;
};

}  // namespace Terminal
