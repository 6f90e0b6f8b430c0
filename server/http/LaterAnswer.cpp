#include "http/LaterAnswer.h"

#include <utility>

namespace Server {

using Mirel::AutoMutex;

// Called under the lock: who forgets waits until it is done.
void LaterAnswer::Give(HttpResponse response) {
    AutoMutex lock(m_Lock);
    m_Response = std::move(response);
    if (const auto resume = std::exchange(m_Resume, nullptr)) resume();
}

bool LaterAnswer::Wait(std::function<void()> resume) {
    AutoMutex lock(m_Lock);
    if (m_Response) return false;
    m_Resume = std::move(resume);
    return true;
}

void LaterAnswer::Forget() {
    AutoMutex lock(m_Lock);
    m_Resume = nullptr;
}

HttpResponse LaterAnswer::Take() {
    AutoMutex lock(m_Lock);
    return std::move(*m_Response);
}

}  // namespace Server
