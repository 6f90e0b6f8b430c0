// Builds frames out of the history, and keeps them while clients need them.
#include "feed/Replays.h"

#include <vector>

#include "feed/FeedFilter.h"

namespace Velmora::Feed {

namespace {

// Postings in one segment at most. Segments end at its multiples: clients that begin anywhere share all but
// their first.
constexpr std::size_t PostingsAtOnce = 256;
// Bytes after which a segment is full.
constexpr std::size_t FullSegment = 128u << 10;
constexpr std::size_t MostKept = 16u << 20;

}  // namespace

Replays::Found Replays::After(const std::string& epoch, std::uint64_t after,
                              std::shared_ptr<LogSegment>& segment) {
    if (const auto kept = m_Kept.find(after); kept != m_Kept.end() && m_Epoch == epoch) {
        segment = kept->second;
        return Found::Frames;
    }
    const std::size_t most = PostingsAtOnce - after % PostingsAtOnce;
    std::vector<NumberedPosting> postings;
    if (!m_Source.Read(after, most, postings)) return Found::Gone;
    if (postings.empty()) return Found::Nothing;
    const bool all = Build(epoch, postings, segment);
    if (!all || postings.size() == most) {  // what is added to the history does not change it
        if (m_Epoch != epoch) m_Kept.clear(), m_KeptBytes = 0, m_Epoch = epoch;
        Keep(after, segment);
    }
    return Found::Frames;
}

// False where the segment is full before all are in it.
bool Replays::Build(const std::string& epoch, const std::vector<NumberedPosting>& postings,
                    std::shared_ptr<LogSegment>& segment) const {
    std::string frames, json;
    std::vector<std::size_t> ends;
    std::size_t names = 0;
    const auto name_of = [](const NumberedPosting& posting) {
        return posting.Posting.GetData("event_name").TextView();
    };
    for (const NumberedPosting& posting : postings) {
        if (frames.size() >= FullSegment) break;
        static_cast<void>(posting.Posting.EncodeJSON(json));  // succeeds where there is memory
        AppendFrame(frames, m_Form, {epoch, posting.Number, name_of(posting), json});
        ends.push_back(frames.size());
        names += name_of(posting).size();
    }
    segment = FrameLog::LooseSegment(frames.size(), ends.size(), names);
    for (std::size_t i = 0, begin = 0; i < ends.size(); begin = ends[i++]) {
        const std::string_view name = name_of(postings[i]);
        segment->Put(std::string_view(frames).substr(begin, ends[i] - begin), postings[i].Number, name,
                     NameHash(name));
    }
    return ends.size() == postings.size();
}

void Replays::Keep(std::uint64_t after, const std::shared_ptr<LogSegment>& segment) {
    m_Kept.emplace(after, segment);
    m_KeptBytes += segment->Capacity;
    while (m_KeptBytes > MostKept && m_Kept.size() > 1) {
        m_KeptBytes -= m_Kept.begin()->second->Capacity;
        m_Kept.erase(m_Kept.begin());
    }
}

void Replays::Leave() {
    if (--m_Users > 0) return;
    m_Kept.clear();
    m_KeptBytes = 0;
}

}  // namespace Velmora::Feed
