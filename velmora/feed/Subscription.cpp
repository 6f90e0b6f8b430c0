// What sets subscribers apart from other clients: they are told where they stand, get what they have missed,
// and only what they want.
#include <algorithm>

#include "feed/FeedClient.h"
#include "feed/NumberedFrame.h"

namespace Velmora::Feed {

namespace {

// How finely the time without a word is kept.
constexpr int TicksInHeartbeat = 15;

}  // namespace

Subscription::Subscription(const FeedWish& wish, Replays& replays)
    : Form(wish.As),
      Filter(wish.Names),
      Place(replays.Source().PlaceAfter(wish.After ? &*wish.After : nullptr)),
      Source(replays) {}

Subscription::~Subscription() {
    EndReplay();
}

void Subscription::BeginReplay() {
    Source.Enter();
    m_Entered = true;
}

void Subscription::EndReplay() {
    Replaying = false;
    Replay = {};
    if (std::exchange(m_Entered, false)) Source.Leave();
}

void SocketClient::Subscribe(const FeedWish& wish, Replays& replays) {
    m_Wish = std::make_unique<Subscription>(wish, replays);
}

void SocketClient::Greet() {
    m_Wish->BeginReplay();
    AppendHello(m_Control, m_Wish->Form, m_Wish->Place);
}

// The end of what the current cursor is in: what was missed is whole.
LogEnd SocketClient::CurrentEnd(const LogEnd& end) const {
    if (!InReplay()) return end;
    return {0, 1, 0, 0};
}

// Has the current cursor stand at something that the client is to get, where there is such a thing. False
// where the client is at its end.
bool SocketClient::FindNext(const LogEnd& end, Time now) {
    const bool between = !Current().InsideFrame() && !m_FramesCommitted;
    if (between && Replaying() && m_Phase != Phase::Closing && !NextReplay(now)) return false;
    SkipUnwanted(end);
    return true;
}

// Goes on to what comes next of what was missed, or to the log. False where some of it is gone.
bool SocketClient::NextReplay(Time now) {
    Subscription& wish = *m_Wish;
    if (const LogSegment* segment = wish.Replay.Segment.get()) {
        if (wish.Replay.Offset < segment->Size) return true;
        wish.Place.After = segment->Notes[segment->Frames - 1].Number;
        wish.Replay = {};
    }
    LogCursor next;
    switch (wish.Source.After(wish.Place.Last.Epoch, wish.Place.After, next.Segment)) {
        case Replays::Found::Frames:
            wish.Replay = std::move(next);
            return true;
        case Replays::Found::Nothing:
            // Whatever comes now finds this client in the log.
            wish.EndReplay();
            return true;
        case Replays::Found::Gone:
            break;
    }
    FallBehind(now);
    return false;
}

bool SocketClient::Wanted(const FrameNote& note) const {
    if (!InReplay() && note.Number <= m_Wish->Place.After) return false;
    if (m_Wish->Filter.All()) return true;
    return m_Wish->Filter.Wants(Current().Segment->NameOf(note), note.Hash);
}

// The frames that are not for this client cost it a look at their notes.
void SocketClient::SkipUnwanted(const LogEnd& log_end) {
    LogCursor& cursor = Current();
    if (!HasPlace() || (Replaying() && !InReplay())) return;
    if (cursor.InsideFrame() || m_FramesCommitted || WantsAll()) return;
    const std::uint64_t limit = cursor.FrameLimit(CurrentEnd(log_end));
    const FrameNote* notes = cursor.Segment->Notes;
    std::uint64_t frame = cursor.Frames;
    while (frame < limit && !Wanted(notes[frame])) ++frame;
    if (frame > cursor.Frames) cursor.SkipTo(frame);
    if (frame < limit && !InReplay()) m_Wish->Live = true;
}

// Bytes from where the cursor stands that are for this client.
std::size_t SocketClient::WantedRun(const LogEnd& log_end) const {
    const LogCursor& cursor = Current();
    const LogEnd end = CurrentEnd(log_end);
    // Where it has come to the log anew, that may be further than the last look at it went.
    if ((Replaying() && !InReplay()) || cursor.Frames >= cursor.FrameLimit(end)) return 0;
    if (WantsAll()) return cursor.Limit(end) - cursor.Offset;
    const std::uint64_t limit = cursor.FrameLimit(end);
    const FrameNote* notes = cursor.Segment->Notes;
    std::uint64_t frame = cursor.Frames;
    while (frame < limit && Wanted(notes[frame])) ++frame;
    return frame == cursor.Frames ? 0 : notes[frame - 1].End - cursor.Offset;
}

Milliseconds SocketClient::Calm(const ClientLimits& limits) const {
    return TakesEvents() ? limits.Heartbeat / TicksInHeartbeat : FeedClient::Calm(limits);
}

// A tick too early rather than too late.
void SocketClient::Heartbeat(Time now) {
    if (m_Blocked || !m_Control.empty()) return;
    if (now - m_Progress >= m_Limits.Heartbeat - m_Limits.Heartbeat / TicksInHeartbeat)
        AppendHeartbeat(m_Control);
}

}  // namespace Velmora::Feed
