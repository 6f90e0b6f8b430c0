// Makes the broadcasters of subscribers and sends to those that have any.
#include "feed/NumberedFeeds.h"

#include <algorithm>

namespace Velmora::Feed {

std::shared_ptr<Broadcaster> NumberedFeeds::Obtain(FeedWish::Form form) {
    const auto index = static_cast<std::size_t>(form);
    const PostingSource* source = m_Source.load();
    if (source == nullptr) return nullptr;
    Mirel::AutoMutex lock(m_Lock);
    if (!m_Made[index]) {
        m_Made[index] = Broadcaster::Make(m_Options, source, form);
        m_Quick[index].store(m_Made[index].get());
    }
    return m_Made[index];
}

std::vector<std::shared_ptr<Broadcaster>> NumberedFeeds::Present() {
    std::vector<std::shared_ptr<Broadcaster>> present;
    Mirel::AutoMutex lock(m_Lock);
    for (const auto& made : m_Made)
        if (made) present.push_back(made);
    return present;
}

bool NumberedFeeds::HasClients() const {
    return std::any_of(m_Quick.begin(), m_Quick.end(), [](const std::atomic<Broadcaster*>& quick) {
        const Broadcaster* broadcaster = quick.load(std::memory_order_acquire);
        return broadcaster != nullptr && broadcaster->HasClients();
    });
}

void NumberedFeeds::Send(const PostedText& posted) {
    for (const std::atomic<Broadcaster*>& quick : m_Quick) {
        Broadcaster* broadcaster = quick.load(std::memory_order_acquire);
        if (broadcaster != nullptr && broadcaster->HasClients()) broadcaster->Send(posted);
    }
}

void NumberedFeeds::LoseClients() {
    for (const auto& broadcaster : Present())
        if (broadcaster->HasClients()) broadcaster->LoseClients();
}

}  // namespace Velmora::Feed
