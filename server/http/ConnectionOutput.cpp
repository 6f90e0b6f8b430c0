// Gathers answers and writes them.
#include "http/ConnectionOutput.h"

#include <utility>

namespace Server {

using Velmora::StreamState;

namespace {

constexpr std::size_t CopiedBody = 16u << 10;

}  // namespace

void ConnectionOutput::Append(HttpResponse response, ReplyForm form) {
    const std::size_t before = m_Text.size();
    try {
        AppendReplyHead(m_Text, response, form);
        if (form.HeadOnly || StatusHasNoBody(response.Status)) return;
        if (ReplyBody(response).size() <= CopiedBody) {
            m_Text.append(ReplyBody(response));
        } else {
            m_Large = std::move(response);
        }
    } catch (...) {
        m_Text.resize(before);  // no answer goes out in part
        throw;
    }
}

bool ConnectionOutput::WrittenWhole() const {
    return m_Written == m_Text.size() + (m_Large ? ReplyBody(*m_Large).size() : 0);
}

void ConnectionOutput::Clear() {
    m_Text.clear();
    if (m_Text.capacity() > Batch) m_Text.shrink_to_fit();
    m_Large.reset();
    m_Written = m_Noted = 0;
}

StreamState ConnectionOutput::Write(Velmora::SocketStream& stream) {
    while (!WrittenWhole()) {
        iovec pieces[2];
        std::size_t count = 0;
        if (m_Written < m_Text.size())
            pieces[count++] = {m_Text.data() + m_Written, m_Text.size() - m_Written};
        if (m_Large) {
            const std::string_view body = ReplyBody(*m_Large);
            const std::size_t sent = m_Written > m_Text.size() ? m_Written - m_Text.size() : 0;
            pieces[count++] = {const_cast<char*>(body.data()) + sent, body.size() - sent};
        }
        std::size_t written = 0;
        const StreamState state = stream.Write(pieces, count, written);
        if (state != StreamState::Moved) return state;
        m_Written += written;
    }
    Clear();
    return StreamState::Moved;
}

bool ConnectionOutput::Progressed() {
    if (m_Written - m_Noted < Batch) return false;
    m_Noted = m_Written;
    return true;
}

}  // namespace Server
