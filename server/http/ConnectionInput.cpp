// Feeds a connection's bytes to the parser, request by request.
#include "http/ConnectionInput.h"

namespace Server {

namespace {

constexpr std::size_t FirstRoom = 8u << 10;  // at first; nearly every request fits
constexpr std::size_t BodyRoom = 32u << 10;  // while a long body comes in

}  // namespace

void ConnectionInput::MakeRoom() {
    const char* const before = m_Buffer.View().data();
    if (m_HeadSize == 0) {
        if (m_Buffer.Room() == 0) m_Buffer.MakeRoom(FirstRoom);
    } else if (m_Buffer.Room() < ChunkLineLimit) {
        m_Buffer.MakeRoom(BodyRoom);
        m_Parser.Head().Rebase(before, m_Buffer.View().data());
    }
}

bool ConnectionInput::SkipEmptyLines() {
    while (m_Buffer.View().substr(0, 2) == "\r\n") m_Buffer.Consume(2);
    return !m_Buffer.Empty() && m_Buffer.View() != "\r";
}

ConnectionInput::Progress ConnectionInput::Parse() {
    std::size_t consumed = 0;
    const Progress progress = m_Parser.Parse(m_Buffer.View().substr(m_Parsed), consumed);
    m_Parsed += consumed;
    if (progress == Progress::HeadComplete) m_HeadSize = m_Parsed;
    if (progress == Progress::NeedMore && m_HeadSize > 0 && m_Parsed > m_HeadSize) {
        // What came of the body is the parser's now; its place is used again.
        m_Buffer.Cut(m_HeadSize, m_Parsed - m_HeadSize);
        m_Parsed = m_HeadSize;
    }
    return progress;
}

void ConnectionInput::FinishRequest() {
    m_Buffer.Consume(m_Parsed);
    m_Parsed = m_HeadSize = 0;
    m_Parser.Reset();
}

void ConnectionInput::Discard() {
    m_Buffer.Release();
    m_Parsed = m_HeadSize = 0;
    m_Parser.Reset();
}

void ConnectionInput::Shrink() {
    if (m_Buffer.Capacity() > FirstRoom) m_Buffer.Release();
}

}  // namespace Server
