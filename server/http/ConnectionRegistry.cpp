// Counts connections, sweeps those over their deadline, ends all.
#include "http/ConnectionRegistry.h"

#include <sys/socket.h>

#include <ctime>

namespace Server {

using Phase = ConnectionLife::Phase;

Mirel::i64_t CoarseNow_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<Mirel::i64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

namespace {

void End(ConnectionLife& life) {
    const Phase phase = life.Now.load();
    life.Expired.store(true);
    if (phase == Phase::Reading) {
        shutdown(life.Descriptor, SHUT_RD);
        return;
    }
    if (phase == Phase::Writing) {
        // What the peer did not take in all that time is not kept for it any longer.
        const linger at_once{1, 0};
        setsockopt(life.Descriptor, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }
    shutdown(life.Descriptor, SHUT_RDWR);
}

}  // namespace

void ConnectionRegistry::Add(ConnectionLife& life) {
    Mirel::AutoMutex held(m_Lock);
    life.Index = m_Lives.size();
    m_Lives.push_back(&life);
    m_Size.store(m_Lives.size());
}

void ConnectionRegistry::Remove(ConnectionLife& life) {
    Mirel::AutoMutex held(m_Lock);
    m_Lives[life.Index] = m_Lives.back();
    m_Lives[life.Index]->Index = life.Index;
    m_Lives.pop_back();
    m_Size.store(m_Lives.size());
    if (m_Lives.empty()) m_Empty.NotifyAll();
}

void ConnectionRegistry::EndExpired() {
    const Mirel::i64_t now = CoarseNow_ms();
    Mirel::AutoMutex held(m_Lock);
    for (ConnectionLife* life : m_Lives) {
        const Mirel::i64_t deadline = life->Deadline_ms.load();
        if (deadline != 0 && deadline < now && !life->Expired.load()) End(*life);
    }
}

void ConnectionRegistry::EndIdle(bool everyone) {
    Mirel::AutoMutex held(m_Lock);
    for (ConnectionLife* life : m_Lives) {
        const Phase phase = life->Now.load();
        if (everyone || phase == Phase::Idle || phase == Phase::Handshake || phase == Phase::Draining) {
            life->Expired.store(true);
            shutdown(life->Descriptor, SHUT_RDWR);
        }
    }
}

void ConnectionRegistry::DestroyAll() {
    for (;;) {
        std::coroutine_handle<> frame;
        {
            Mirel::AutoMutex held(m_Lock);
            if (m_Lives.empty()) return;
            frame = m_Lives.back()->Frame;
        }
        frame.destroy();  // takes itself off the list
    }
}

bool ConnectionRegistry::WaitUntilEmpty(std::chrono::steady_clock::time_point deadline) {
    Mirel::AutoMutex held(m_Lock);
    while (!m_Lives.empty()) {
        if (!m_Empty.WaitUntil(m_Lock, deadline)) return m_Lives.empty();
    }
    return true;
}

}  // namespace Server
