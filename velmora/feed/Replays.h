// What clients have missed, out of the history and as frames: built once for all who need it at the same
// time.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "VL_WebSocket.h"
#include "feed/FrameLog.h"

namespace Velmora::Feed {

/// One broadcaster's. Used by its thread only, but for the constructor.
class Replays {
  public:
    Replays(const PostingSource& source, FeedWish::Form form) : m_Source(source), m_Form(form) {}

    enum class Found {
        Frames,   // `segment` holds the next ones
        Nothing,  // there is nothing behind the number
        Gone,     // not all of it is there any more
    };
    /// The frames of the first postings behind `after`, which are of `epoch`.
    Found After(const std::string& epoch, std::uint64_t after, std::shared_ptr<LogSegment>& segment);

    /// A client needs it from now on, or no longer: where nobody does, nothing is kept.
    void Enter() { ++m_Users; }
    void Leave();

    const PostingSource& Source() const { return m_Source; }

  private:
    bool Build(const std::string& epoch, const std::vector<NumberedPosting>& postings,
               std::shared_ptr<LogSegment>& segment) const;
    void Keep(std::uint64_t after, const std::shared_ptr<LogSegment>& segment);

    const PostingSource& m_Source;
    const FeedWish::Form m_Form;
    std::size_t m_Users = 0;
    std::string m_Epoch;                                          // of what is kept
    std::map<std::uint64_t, std::shared_ptr<LogSegment>> m_Kept;  // by the number that they follow
    std::size_t m_KeptBytes = 0;
};

}  // namespace Velmora::Feed
