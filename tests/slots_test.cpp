// The order of virtual operations, which is part of the binary interface of the classes that programs were
// compiled with.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "EventManager.h"
#include "MR_thread.h"
#include "VL_PList.h"

namespace {

using Mirel::Result_t;
using ::testing::ElementsAreArray;
using Velmora::PListItem;

// Places in the table of virtual operations, read from pointers to members (Itanium C++ ABI, 2.3), in which
// the first word is the offset. A virtual destructor takes two places.
template <class... Operations>
std::vector<std::size_t> SlotsOf(Operations... operations) {
    const auto slot = [](auto operation) {
        std::uintptr_t words[2];
        static_assert(sizeof words == sizeof operation);
        std::memcpy(words, &operation, sizeof words);
        return words[0] / sizeof(void*);  // the 1 that some machines add is gone then
    };
    return {slot(operations)...};
}

// `count` places that follow each other.
std::vector<std::size_t> From(std::size_t first, std::size_t count) {
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < count; ++i) places.push_back(first + i);
    return places;
}

template <class Queue>
std::vector<std::size_t> QueueSlots() {
    return SlotsOf(&Queue::GetQueueState, &Queue::SetQueueState, &Queue::GetMaxListeners,
                   &Queue::SetMaxListeners, &Queue::GetEventState, &Queue::SetEventState,
                   &Queue::GetEventHistory, &Queue::AdoptWsClient, &Queue::CreateEvent,
                   &Queue::DeleteAllEvents, &Queue::PostEvent, &Queue::DeleteEvent,
                   &Queue::CreateEventListener, &Queue::DeleteListenersForEvent, &Queue::DeleteEventListener,
                   &Queue::GetTimerState, &Queue::SetTimerState, &Queue::CreateTimer, &Queue::DeleteAllTimers,
                   &Queue::DeleteTimer, &Queue::GetMaxWatches, &Queue::SetMaxWatches, &Queue::GetWatchState,
                   &Queue::SetWatchState, &Queue::CreateWatch, &Queue::DeleteAllWatches, &Queue::DeleteWatch);
}

// Shows the hooks, which are private: an operation that overrides another stands in its place.
struct Hooks : Mirel::Thread {
    Result_t ThreadInit() override { return Mirel::RESULT_OK; }
    Result_t ThreadBody() override { return Mirel::RESULT_OK; }
    Result_t ThreadFini(Result_t result) override { return result; }
    Result_t ThreadStop() override { return Mirel::RESULT_OK; }
    virtual void Behind() {}
};

struct Item : PListItem {
    virtual void Behind() {}
};
struct Queue : EventManager::IEventQueue {
    virtual void Behind() {}
};

// What a program's own class adds stands behind them, so nothing was added either.
TEST(SlotsTest, VirtualOperationsStandWhereProgramsExpectThem) {
    EXPECT_THAT(SlotsOf(&PListItem::ForceType, &PListItem::CreateXMLElement, &PListItem::Copy,
                        &PListItem::EncodeJSON, &Item::Behind),
                ElementsAreArray(From(2, 5)));  // the destructor is the first
    EXPECT_THAT(SlotsOf(&Hooks::ThreadInit, &Hooks::ThreadBody, &Hooks::ThreadFini, &Hooks::ThreadStop),
                ElementsAreArray(From(0, 4)));
    EXPECT_THAT(SlotsOf(&Hooks::Behind), ElementsAreArray(From(6, 1)));  // the destructor is the last
    EXPECT_THAT(QueueSlots<EventManager::IEventQueue>(), ElementsAreArray(From(2, 27)));
    EXPECT_THAT(SlotsOf(&Queue::Behind), ElementsAreArray(From(29, 1)));
    EXPECT_THAT(QueueSlots<EventManager::EventQueue>(), ElementsAreArray(From(6, 27)));
}

}  // namespace
