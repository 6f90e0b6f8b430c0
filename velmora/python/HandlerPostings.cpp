#include "python/HandlerPostings.h"

#include <new>
#include <utility>

#include "MR_log.h"

namespace Velmora {

using Mirel::AutoMutex;
using Mirel::DefaultLogSink;

namespace {

constexpr std::size_t MostWaiting = 10000;
constexpr std::size_t MostBytesWaiting = 64u << 20;

}  // namespace

HandlerPostings& HandlerPostings::Instance() {
    static auto* const postings = new HandlerPostings;
    return *postings;
}

HandlerPostings::Taken HandlerPostings::Take(HandlerPosting posting) {
    AutoMutex lock(m_Lock);
    if (m_Ending || !m_Post) return Taken::Ending;
    if (m_Waiting.size() >= MostWaiting || m_Bytes > MostBytesWaiting) {
        ++m_Refused;
        return Taken::TooMany;
    }
    const std::size_t bytes = posting.Bytes;
    m_Waiting.push_back(std::move(posting));
    m_Bytes += bytes;
    m_Changed.NotifyAll();
    return Taken::Yes;
}

void HandlerPostings::Poster(HandlerPoster post) {
    AutoMutex lock(m_Lock);
    m_Post = std::move(post);
}

void HandlerPostings::End(Mirel::ui32_t limit_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
    AutoMutex lock(m_Lock);
    m_Ending = true;
    m_Changed.NotifyAll();
    while (!m_Waiting.empty() && m_Changed.WaitUntil(m_Lock, deadline)) {
    }
    if (m_Waiting.empty()) return;
    m_Refused += m_Waiting.size();
    DefaultLogSink().Error("%zu postings of handlers were not made before the end.\n", m_Waiting.size());
    m_Waiting.clear();
}

void HandlerPostings::AddTo(HandlerCounters& counters) {
    AutoMutex lock(m_Lock);
    counters.Posted = m_Posted;
    counters.PostedNowhere = m_PostedNowhere;
    counters.PostingsRefused = m_Refused;
    counters.PostingsWaiting = m_Waiting.size();
}

/// False when there will be none any more. What is being made still counts among those that wait, so that the
/// end waits for it.
bool HandlerPostings::Next(HandlerPosting& posting, HandlerPoster& post) {
    AutoMutex lock(m_Lock);
    while (m_Waiting.empty() && !m_Ending) m_Changed.Wait(m_Lock);
    if (m_Waiting.empty()) return false;
    posting = m_Waiting.front();
    post = m_Post;
    return true;
}

void HandlerPostings::Make(const HandlerPosting& posting, const HandlerPoster& post) {
    bool known = true;
    try {
        known = post(posting.EventName, posting.Data ? &*posting.Data : nullptr);
    } catch (const std::bad_alloc&) {
        DefaultLogSink().Error("Out of memory posting \"%s\" for a handler.\n", posting.EventName.c_str());
    }
    if (!known)
        DefaultLogSink().Warn("A handler posted \"%s\", which is no event.\n", posting.EventName.c_str());
    AutoMutex lock(m_Lock);
    ++(known ? m_Posted : m_PostedNowhere);
    if (m_Waiting.empty()) return;  // the end did not wait
    m_Bytes -= m_Waiting.front().Bytes;
    m_Waiting.pop_front();
    m_Changed.NotifyAll();
}

Mirel::Result_t HandlerPostings::ThreadBody() {
    HandlerPosting posting;
    HandlerPoster post;
    while (Next(posting, post)) Make(posting, post);
    return Mirel::RESULT_OK;
}

}  // namespace Velmora
