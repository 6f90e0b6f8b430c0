// What handlers post, until it is made.
#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <string>

#include "MR_mutex.h"
#include "MR_thread.h"
#include "VL_Python.h"

namespace Velmora {

/// One posting that a handler has asked for.
struct HandlerPosting {
    std::string EventName;
    std::optional<PListDict> Data;
    std::size_t Bytes = 0;  // about what it takes
};

/// Takes postings from any thread and makes them on its own, one after the other. It waits for the queue's
/// lock as every poster does, so that what a handler posts is made when the posting that called it is over.
class HandlerPostings : public Mirel::Thread {
  public:
    enum class Taken { Yes, TooMany, Ending };

    Taken Take(HandlerPosting posting) EXCLUDES(m_Lock);
    void Poster(HandlerPoster post) EXCLUDES(m_Lock);
    /// Nothing is taken any more; returns when what waits is made, or `limit_ms` have passed.
    void End(Mirel::ui32_t limit_ms) EXCLUDES(m_Lock);

    /// Adds its own to the counters.
    void AddTo(HandlerCounters& counters) EXCLUDES(m_Lock);

    /// The process's one, which is never destroyed: threads of handlers may post at any time.
    static HandlerPostings& Instance();

  private:
    Mirel::Result_t ThreadInit() override { return Mirel::RESULT_OK; }
    Mirel::Result_t ThreadBody() override;
    Mirel::Result_t ThreadFini(Mirel::Result_t result) override { return result; }
    Mirel::Result_t ThreadStop() override { return Mirel::RESULT_OK; }

    bool Next(HandlerPosting& posting, HandlerPoster& post) EXCLUDES(m_Lock);
    void Make(const HandlerPosting& posting, const HandlerPoster& post) EXCLUDES(m_Lock);

    Mirel::Mutex m_Lock;
    Mirel::Condition m_Changed;
    std::deque<HandlerPosting> m_Waiting GUARDED_BY(m_Lock);
    std::size_t m_Bytes GUARDED_BY(m_Lock) = 0;
    bool m_Ending GUARDED_BY(m_Lock) = false;
    HandlerPoster m_Post GUARDED_BY(m_Lock);
    Mirel::ui64_t m_Posted GUARDED_BY(m_Lock) = 0;
    Mirel::ui64_t m_PostedNowhere GUARDED_BY(m_Lock) = 0;
    Mirel::ui64_t m_Refused GUARDED_BY(m_Lock) = 0;
};

}  // namespace Velmora
