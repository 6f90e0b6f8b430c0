// Arrays: their changes at any place, sharing and size.
#include <gtest/gtest.h>

#include <deque>
#include <new>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

#include "NoMemory.h"
#include "VL_PList.h"

namespace {

using namespace Velmora;

int Number(const PListItem& item) {
    int value = -1;
    static_cast<const PListData&>(item).GetValue(value);
    return value;
}

std::deque<int> Numbers(const PListArray& array) {
    std::deque<int> numbers;
    for (const PListItem& item : array) numbers.push_back(Number(item));
    return numbers;
}

struct Modelled {
    PListArray array;
    std::deque<int> model;
};

class ArrayModel {
  public:
    explicit ArrayModel(unsigned seed) : m_Random(seed) {}

    void Step() {
        Modelled& one = Any();
        switch (m_Random() % 8) {
            case 0:
            case 1:
                return Append(one, m_Random() % 700);
            case 2:
                return DeleteFirst(one, m_Random() % 5);
            case 3:
                return DeleteFirst(one, m_Random() % 600);
            case 4:
            case 5:
                return TakeFirst(one);
            case 6:
                Any() = one;
                return;
            default:
                return Change(one);
        }
    }

    void Check() const {
        for (const Modelled& one : m_All) {
            ASSERT_EQ(Numbers(one.array), one.model);
            ASSERT_EQ(one.array.Size(), one.model.size());
            ASSERT_EQ(one.array.GetItem(one.model.size()), nullptr);
        }
    }

  private:
    Modelled& Any() { return m_All[m_Random() % m_All.size()]; }

    void Append(Modelled& to, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            to.model.push_back(m_Next);
            if (m_Random() % 512 == 0) {
                to.array.Append(new PListData(m_Next++));
            } else {
                to.array.Append(PListData(m_Next++));
            }
        }
    }

    void DeleteFirst(Modelled& from, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            from.array.DeleteFirst();
            if (!from.model.empty()) from.model.pop_front();
        }
    }

    void TakeFirst(Modelled& from) {
        const std::size_t count = m_Random() % (from.model.size() + 2);
        Modelled taken;
        taken.array = from.array.TakeFirst(count);
        while (taken.model.size() < count && !from.model.empty()) {
            taken.model.push_back(from.model.front());
            from.model.pop_front();
        }
        Any() = std::move(taken);
    }

    void Change(Modelled& one) {
        if (one.model.empty()) return;
        const std::size_t index = m_Random() % one.model.size();
        *static_cast<PListData*>(one.array.GetItem(index)) = PListData(m_Next);
        one.model[index] = m_Next++;
    }

    std::mt19937 m_Random;
    std::vector<Modelled> m_All{4};
    int m_Next = 0;
};

TEST(PListArray, DoesWhatADequeDoesWhileCopiesLive) {
    for (unsigned seed = 0; seed < 20; ++seed) {
        ArrayModel model(seed);
        for (int step = 0; step < 100; ++step) {
            model.Step();
            model.Check();
            if (HasFatalFailure()) FAIL() << "seed " << seed << ", step " << step;
        }
    }
}

// Each length and each cut around where chunks begin, alone and with a copy.
TEST(PListArray, SplitsAnywhere) {
    for (const int length : {1, 3, 4, 5, 8, 9, 511, 512, 513, 1024, 1537}) {
        for (const int cut : {0, 1, 3, 4, 5, 8, 511, 512, 513, 1023, 1024, 1536, 2000}) {
            PListArray array;
            for (int i = 0; i < length; ++i) array.Append(PListData(i));
            PListArray shared = array;
            PListArray rest = array;
            array.Clear();
            for (int round = 0; round < 2; ++round) {  // the second time nobody else owns anything
                PListArray taken = rest.TakeFirst(static_cast<std::size_t>(cut));
                taken.Append(PListData(-2));
                rest.Append(PListData(-3));
                std::deque<int> all = Numbers(taken);
                EXPECT_EQ(all.size(), static_cast<std::size_t>(std::min(cut, length)) + 1);
                all.pop_back();
                for (const PListItem& item : rest) all.push_back(Number(item));
                ASSERT_EQ(all.size(), static_cast<std::size_t>(length) + 1);
                for (int i = 0; i < length; ++i) ASSERT_EQ(all[static_cast<std::size_t>(i)], i);
                rest = std::move(shared);
            }
        }
    }
}

TEST(PListArray, IsWholeWhereMemoryRunsOutWhileItIsSplit) {
    for (const bool copied : {false, true}) {
        for (int before = 0, refused = 1; refused; ++before) {
            PListArray array;
            for (int i = 0; i < 1000; ++i) array.Append(PListData(i));
            const PListArray copy = copied ? array : PListArray();
            PListArray taken;
            try {
                const Testing::NoMemory none(before);
                taken = array.TakeFirst(700);
                refused = 0;
            } catch (const std::bad_alloc&) {
            }
            std::deque<int> rest(refused ? 1000 : 300);
            std::iota(rest.begin(), rest.end(), refused ? 0 : 700);
            ASSERT_EQ(Numbers(array), rest);
            ASSERT_EQ(taken.Size(), refused ? 0 : 700);
        }
    }
}

TEST(PListArray, ItemsStoredByPointerStayWhereTheyAre) {
    PListArray array;
    std::vector<PListData*> items;
    for (int i = 0; i < 1500; ++i) array.Append(items.emplace_back(new PListData(i)));
    const PListArray copy = array;
    PListArray taken = array.TakeFirst(700);
    array.DeleteFirst();
    const PListArray taken_copy = taken;
    const PListArray rest_copy = array;
    for (std::size_t i : {0U, 511U, 512U, 699U}) EXPECT_EQ(taken.GetItem(i), items[i]);
    for (std::size_t i : {701U, 1023U, 1024U, 1499U}) EXPECT_EQ(array.GetItem(i - 701), items[i]);
    for (const std::size_t i : {0U, 699U, 701U, 1499U}) *items[i] = PListData(-1);
    for (const std::size_t i : {0U, 699U}) EXPECT_EQ(Number(*taken_copy.GetItem(i)), static_cast<int>(i));
    for (const std::size_t i : {701U, 1499U})
        EXPECT_EQ(Number(*rest_copy.GetItem(i - 701)), static_cast<int>(i));
    EXPECT_EQ(Number(*taken.GetItem(699)), -1);
    EXPECT_EQ(Number(array.Front()), -1);
    EXPECT_EQ(Number(*copy.GetItem(699)), 699);
    EXPECT_EQ(Number(*copy.GetItem(701)), 701);
}

}  // namespace
