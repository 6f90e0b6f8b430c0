#include "SocketPoll.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <exception>
#include <utility>

#include "MR_log.h"

namespace Server {

namespace asio = boost::asio;
using asio::posix::stream_descriptor;

namespace {

constexpr int EventsAtOnce = 64;

}  // namespace

class SocketPoll::Impl {
  public:
    Impl(asio::io_context& io, int epoll) : Epoll(epoll), Events(io, epoll) {}

    const int Epoll;
    stream_descriptor Events;  // readable while the kernel has events
};

SocketPoll::SocketPoll(asio::io_context& io) : m_Io(io) {}

SocketPoll::~SocketPoll() = default;

bool SocketPoll::Open() {
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    if (epoll < 0) return false;
    m_Impl = std::make_unique<Impl>(m_Io, epoll);
    Await();
    return true;
}

void SocketPoll::Close() {
    std::vector<std::unique_ptr<SocketWaiter>> waiters;
    {
        Mirel::AutoMutex held(m_Lock);
        for (Place& place : m_Places) {
            if (place.Waiter) waiters.push_back(std::move(place.Waiter));
        }
    }
    waiters.clear();  // each of them takes itself off
    m_Impl.reset();
}

bool SocketPoll::Add(int descriptor, std::size_t& place) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    Mirel::AutoMutex held(m_Lock);
    const bool reused = !m_Free.empty();
    place = reused ? m_Free.back() : m_Places.size();
    if (!reused) {
        m_Places.emplace_back();
        m_Free.reserve(m_Places.capacity());  // so that Remove() cannot fail
    }
    event.data.u64 = static_cast<Mirel::ui64_t>(m_Places[place].Round) << 32 | place;
    if (epoll_ctl(m_Impl->Epoll, EPOLL_CTL_ADD, descriptor, &event) != 0) {
        if (!reused) m_Places.pop_back();
        return false;
    }
    if (reused) m_Free.pop_back();
    return true;
}

void SocketPoll::Remove(int descriptor, std::size_t place) {
    // Not left to close(): a child process that has the socket too would keep it registered.
    if (m_Impl) epoll_ctl(m_Impl->Epoll, EPOLL_CTL_DEL, descriptor, nullptr);
    Mirel::AutoMutex held(m_Lock);
    m_Places[place] = Place{nullptr, m_Places[place].Round + 1, false, false};
    m_Free.push_back(place);
}

bool SocketPoll::Wait(std::size_t place, For what, std::unique_ptr<SocketWaiter>& waiter) {
    Mirel::AutoMutex held(m_Lock);
    Place& waited = m_Places[place];
    if (std::exchange(waited.Ready, false) || (what == For::Read && waited.Ended)) return false;
    waited.Waiter = std::move(waiter);
    return true;
}

// Hands a waiter to the loop instead of calling it: of several, one that stays inside its request must not
// keep the others from being served by another thread.
void SocketPoll::Resume(std::unique_ptr<SocketWaiter> waiter) {
    try {
        asio::post(m_Io, [waiter = std::move(waiter)]() mutable {
            SocketWaiter& ready = *waiter;
            ready.Ready(std::move(waiter));
        });
    } catch (const std::exception& failure) {
        Mirel::DefaultLogSink().Error("A connection is closed: %s\n", failure.what());
    }
}

void SocketPoll::Await() {
    m_Impl->Events.async_wait(stream_descriptor::wait_read, [this](boost::system::error_code error) {
        if (!error) Collect();
    });
}

void SocketPoll::Collect() {
    epoll_event events[EventsAtOnce];
    std::unique_ptr<SocketWaiter> waiters[EventsAtOnce];
    const int count = epoll_wait(m_Impl->Epoll, events, EventsAtOnce, 0);
    {
        Mirel::AutoMutex held(m_Lock);
        for (int i = 0; i < count; ++i) {
            Place& place = m_Places[static_cast<Mirel::ui32_t>(events[i].data.u64)];
            if (place.Round != static_cast<Mirel::ui32_t>(events[i].data.u64 >> 32)) continue;
            if (events[i].events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) place.Ended = true;
            waiters[i] = std::move(place.Waiter);
            place.Ready = !waiters[i];
        }
    }
    Await();
    if (count == 1 && waiters[0]) {  // keeps nobody waiting
        SocketWaiter& ready = *waiters[0];
        ready.Ready(std::move(waiters[0]));
        return;
    }
    for (int i = 0; i < count; ++i) {
        if (waiters[i]) Resume(std::move(waiters[i]));
    }
}

}  // namespace Server
