// The broadcasters for clients that are told ids, one for each form, each made with its first client.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <vector>

#include "MR_mutex.h"
#include "VL_WebSocket.h"
#include "feed/Broadcaster.h"

namespace Velmora::Feed {

/// All operations may be called from any thread.
class NumberedFeeds {
  public:
    explicit NumberedFeeds(const BroadcastOptions& options) : m_Options(options) {}

    void From(const PostingSource& source) { m_Source.store(&source); }
    /// Null where nothing is known to find in it what was missed.
    std::shared_ptr<Broadcaster> Obtain(FeedWish::Form form);
    std::vector<std::shared_ptr<Broadcaster>> Present();

    bool HasClients() const;
    void Send(const PostedText& posted);
    /// For a posting that cannot be broadcast.
    void LoseClients();

  private:
    static constexpr std::size_t Forms = 2;

    const BroadcastOptions m_Options;
    std::atomic<const PostingSource*> m_Source{nullptr};
    std::array<std::atomic<Broadcaster*>, Forms> m_Quick{};  // what m_Made owns

    Mirel::Mutex m_Lock;
    std::array<std::shared_ptr<Broadcaster>, Forms> m_Made GUARDED_BY(m_Lock);
};

}  // namespace Velmora::Feed
