// What stands behind a WebSocketBroadcastManager: the log, and the loop that is started for the first client.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MR_mutex.h"
#include "VL_Socket.h"
#include "VL_WebSocket.h"
#include "feed/FeedClient.h"
#include "feed/FeedLoop.h"
#include "feed/FrameLog.h"
#include "feed/Replays.h"

namespace Velmora::Feed {

/// What a TCPSession holds: a connection, or a reader.
struct Connection {
    SocketStream Socket;
    std::string Received;
    std::unique_ptr<BroadcastReader> Reader;         // null for a connection
    std::optional<FeedWish> Wish;                    // a subscriber's
    std::shared_ptr<const std::atomic<bool>> Ended;  // whether what lets it in was taken back; null: never
    std::string Name;
};

/// All operations may be called from any thread.
class Broadcaster {
  public:
    /// `form`: of frames that tell ids, whose clients find in `source` what they have missed.
    explicit Broadcaster(const BroadcastOptions& options, const PostingSource* source = nullptr,
                         std::optional<FeedWish::Form> form = std::nullopt);

    /// Makes a broadcaster that All() knows as long as it lives.
    static std::shared_ptr<Broadcaster> Make(const BroadcastOptions& options,
                                             const PostingSource* source = nullptr,
                                             std::optional<FeedWish::Form> form = std::nullopt);
    static std::vector<std::shared_ptr<Broadcaster>> All();

    bool HasClients() const { return m_Log.HasReaders(); }
    /// How long the client that is the furthest behind has not caught up.
    Milliseconds Lag();
    void Adopt(Connection& connection);
    void Send(std::string_view json);
    void Send(const PostedText& posted);  // where the frames tell ids
    /// For a posting that cannot be broadcast: nobody is passed over without noticing it.
    void LoseClients();

    /// Has clients leave at once whose right was taken back.
    void AskLook();
    /// Has all present clients leave; what AwaitClose() waits for, 0 where there was never a client.
    std::uint64_t AskClose();
    void AwaitClose(std::uint64_t ticket);

  private:
    template <class Frame>
    void Append(const Frame& frame);
    std::unique_ptr<FeedClient> MakeClient(Connection& connection);
    std::shared_ptr<FeedLoop> PresentLoop();
    std::shared_ptr<FeedLoop> ObtainLoop();

    const ClientLimits m_Limits;
    FrameLog m_Log;
    std::optional<Replays> m_Replays;  // where the frames tell ids; the loop's

    Mirel::Mutex m_Lock;
    std::shared_ptr<FeedLoop> m_Loop GUARDED_BY(m_Lock);
};

}  // namespace Velmora::Feed
