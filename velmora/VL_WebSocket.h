// Broadcasting to many WebSocket clients from one shared log of ready-made frames.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MR_histogram.h"
#include "MR_types.h"
#include "VL_PList.h"
#include "VL_Socket.h"

namespace Velmora {

namespace Feed {
class Broadcaster;
class NumberedFeeds;
struct Connection;
}  // namespace Feed

using Mirel::ui32_t;
using Mirel::ui64_t;

/// Which posting it is: 1, 2, 3… in the order of the history, within an epoch (a text that is new with each
/// start).
struct MR_EXPORT PostingId {
    std::string Epoch;  ///< not empty; neither quotes nor backslashes nor control characters
    ui64_t Number = 0;  ///< 0: before the first
    /// "EPOCH-NUMBER".
    std::string Text() const;
    /// Reads such a text; nothing where it is none.
    static std::optional<PostingId> FromText(std::string_view text);
    /// Whether both name the same posting.
    friend bool operator==(const PostingId&, const PostingId&) = default;
};

/// What a client of the feed asks for that is told the postings' ids.
struct FeedWish {
    /// How it is written to.
    enum class Form {
        Numbered,     ///< WebSocket: {"id", "posting"}
        EventStream,  ///< server-sent events, behind a head that is sent already
    };
    Form As = Form::Numbered;  ///< the form that it is written to in
    /// Only the events of these names; one that ends in "*" stands for all that begin so. Empty: all.
    std::vector<std::string> Names;
    /// The last posting that it has; nothing: it wants none of those before.
    std::optional<PostingId> After;
};

/// A posting out of the history.
struct NumberedPosting {
    ui64_t Number = 0;  ///< within its epoch
    PListDict Posting;  ///< as the history holds it
};

/// Where a broadcaster finds what its clients have missed. Called on any thread; nothing may be waited for.
class MR_EXPORT PostingSource {
  public:
    /// Where a client begins.
    struct Place {
        PostingId Last;    ///< the last posting that there was
        ui64_t After = 0;  ///< what it gets are those behind this number
        bool Gap = false;  ///< there were others behind the one that it asked for
    };
    virtual ~PostingSource() = default;
    /// The place of a client whose last posting was `after`; null: of one that wants none of those before.
    virtual Place PlaceAfter(const PostingId* after) const = 0;
    /// Adds the first postings behind the number, at most so many. False where there are no longer all of
    /// them.
    virtual bool Read(ui64_t after, std::size_t most, std::vector<NumberedPosting>& postings) const = 0;
};

/// Reads a broadcaster's postings inside the process (a counter, a bridge to elsewhere).
class MR_EXPORT BroadcastReader {
  public:
    virtual ~BroadcastReader() = default;
    /// One posting's JSON text, every posting since the adoption once and in order. Called on the
    /// broadcaster's thread without a lock; every other client waits for it, so it must be quick. It may post
    /// and use the queue. `json` is good until it returns. A reader that throws, or is left behind by the
    /// log (BroadcastOptions::LogLimit), is let go with a line in the log.
    virtual void OnPosting(std::string_view json) = 0;
    /// The broadcaster lets go of the reader, which it then destroys. Called once.
    virtual void OnClose() {}
};

/// The server's end of one connection, as a handle that can be handed over. Moved, not copied; what it still
/// holds when it is destroyed is closed.
class MR_EXPORT TCPSession {
  public:
    /// Holds nothing.
    TCPSession();
    /// The other is empty afterwards.
    TCPSession(TCPSession&&) noexcept;
    /// Closes what it held; the other is empty afterwards.
    TCPSession& operator=(TCPSession&&) noexcept;
    ~TCPSession();

    /// A WebSocket connection (RFC 6455, no extensions) whose handshake is done, in plain or over TLS. `peer`
    /// names the client in the log; `received` is what was already read behind the handshake.
    static TCPSession WebSocket(SocketStream stream, const std::string& peer, std::string_view received = {});
    /// The same on a connected stream socket that the session takes over.
    static TCPSession WebSocket(int descriptor, const std::string& peer, std::string_view received = {});
    /// A client that is told the postings' ids: a WebSocket connection, or one that takes server-sent events.
    static TCPSession Subscriber(SocketStream stream, const std::string& peer, std::string_view received,
                                 FeedWish wish);
    /// A reader inside the process, which the log calls `name`. Without a reader the session is empty.
    static TCPSession Reader(std::unique_ptr<BroadcastReader> reader, const std::string& name);

    /// Ties a connection to a right that may be taken back: once `*ended` is true it gets no further posting,
    /// and is closed with code 1008. Who sets it calls DismissWebSocketClients(). Not for readers.
    void LeaveWhen(std::shared_ptr<const std::atomic<bool>> ended);

    /// Whether it holds nothing.
    bool Empty() const;

  private:
    friend class WebSocketBroadcastManager;
    std::unique_ptr<Feed::Connection> m_Connection;
};

/// How a broadcaster treats its clients.
struct BroadcastOptions {
    /// How long a write may make no progress before its client is disconnected, and how long a close may
    /// take.
    ui32_t Timeout_ms = 500;
    /// How long a client may send nothing before it is pinged, and then before it is given up.
    ui32_t PingInterval_ms = 30000;
    /// Bytes of frames that are kept for clients that have not taken them yet; in each form for itself.
    std::size_t LogLimit = 64u << 20;
    /// How long nothing may be sent to a client that takes server-sent events before it is sent a comment.
    ui32_t HeartbeatInterval_ms = 15000;
};

/// Sends every posting to every adopted client, without the poster ever meeting a socket.
///
/// SendToListeners() appends one frame to a log in memory and returns: what it costs does not depend on the
/// number of clients or on how slow they are. A thread of the broadcaster's own writes all that is pending to
/// each client from that one log. A client gets every posting since it was adopted exactly once and in order,
/// or it is disconnected with one Notice line: with close code 1013 where it still reads once the log has no
/// room for what it has not taken, or without one when a write made no progress for the time-out. Idle
/// clients are pinged; pings are answered; a client that breaks the protocol is closed with 1002 (1007 where
/// its text is not UTF-8, 1009 where its message is too long).
///
/// Subscribers (TCPSession::Subscriber) are told the postings' ids, may have missed some and may want only
/// some. First each is told where it stands ({"id", "gap"}), then it gets what it has missed from the source,
/// then what comes, each posting once and in order. They have a log and a thread for each form, so that
/// nobody else pays for them; all that is said above holds for them as well. One that takes server-sent
/// events gets a comment in place of a close frame.
///
/// All operations may be called from any thread.
class MR_EXPORT WebSocketBroadcastManager {
  public:
    /// The usual options with this time-out. The thread is started with the first client.
    explicit WebSocketBroadcastManager(ui32_t timeout_ms);
    /// With these options; times below 1 ms count as 1 ms.
    explicit WebSocketBroadcastManager(const BroadcastOptions& options);
    /// Closes all clients as CloseAll() does and ends the thread.
    ~WebSocketBroadcastManager();
    WebSocketBroadcastManager(const WebSocketBroadcastManager&) = delete;
    WebSocketBroadcastManager& operator=(const WebSocketBroadcastManager&) = delete;

    /// Takes the session over; `session` is empty afterwards. An empty session is ignored. What can't be
    /// served (a descriptor that is no stream socket, or no thread to be had) is closed with one Error line.
    void AdoptWsClient(TCPSession& session);

    /// Sends the dictionary's JSON text as one text message to every client; not even encoded where there is
    /// none.
    void SendToListeners(const PListDict& dict);

    /// The same for a posting with its id, which subscribers are told; `name` is its event's.
    void SendToListeners(const PListDict& dict, const PostingId& id, std::string_view name);

    /// Where subscribers find what they have missed; must outlive them. To be called before the first is
    /// adopted.
    void SubscribersFrom(const PostingSource& source);

    /// The same for JSON text that is ready.
    void SendText(std::string_view json);

    /// Gives every client what is pending for it and a close frame with code 1001 (within the time-out),
    /// closes the connections and returns when that is done. The broadcaster can be used on. Not to be called
    /// by a BroadcastReader.
    void CloseAll();

  private:
    const std::shared_ptr<Feed::Broadcaster> m_Broadcaster;
    const std::unique_ptr<Feed::NumberedFeeds> m_Numbered;
};

/// What all broadcasters of the process have done so far.
struct BroadcastCounters {
    ui64_t Clients = 0;          ///< clients and readers now
    ui64_t Adopted = 0;          ///< clients and readers so far
    ui64_t Postings = 0;         ///< encoded and put into the log
    ui64_t FramesDelivered = 0;  ///< handed to the kernel whole, added up over clients
    ui64_t BytesDelivered = 0;   ///< of those frames
    /// Clients left behind by the log, without progress within the time-out, or without an answer to a ping.
    ui64_t SlowDisconnects = 0;
    ui64_t ProtocolErrors = 0;  ///< clients that broke the protocol
    ui64_t LogBytes = 0;        ///< now: the memory of all logs
    /// Of each batch that the broadcasters' threads have found in their logs: from the posting of its first
    /// to when all of it was handed to the kernel for every client that takes it.
    Mirel::HistogramCounts Times;
    /// Now: how long the client that is the furthest behind has not caught up with the log; renewed four
    /// times a second at least.
    ui64_t Lag_ms = 0;
};
/// The counters as they are now, each for itself. May be called from any thread.
MR_EXPORT BroadcastCounters GetBroadcastCounters();

/// Has every broadcaster of the process look at once whose right has been taken back (TCPSession::LeaveWhen).
/// Does not wait for it.
MR_EXPORT void DismissWebSocketClients();

/// CloseAll() on every broadcaster of the process, for the end of a server.
MR_EXPORT void CloseAllWebSocketClients();

}  // namespace Velmora
