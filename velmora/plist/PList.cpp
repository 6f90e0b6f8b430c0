// What all kinds of items have in common: they compare as trees, without recursion.
#include "VL_PList.h"

#include <utility>
#include <vector>

#include "plist/PListBody.h"

namespace Velmora {

PListItem::~PListItem() = default;

// What every kind but a scalar does.
void PListItem::ForceType(const ItemType_t&) {}

namespace {

// Compares level by level; the pairs below that are still to be compared wait in a list.
class Comparer {
  public:
    bool Run(const PListItem& lhs, const PListItem& rhs) {
        m_Pending.emplace_back(&lhs, &rhs);
        while (!m_Pending.empty()) {
            const auto [left, right] = m_Pending.back();
            m_Pending.pop_back();
            if (!LevelEqual(*left, *right)) return false;
        }
        return true;
    }

  private:
    bool LevelEqual(const PListItem& lhs, const PListItem& rhs) {
        if (lhs.GetType() != rhs.GetType()) return false;
        if (lhs.HasType(IT_DICT)) {
            return DictsEqual(static_cast<const PListDict&>(lhs), static_cast<const PListDict&>(rhs));
        }
        if (lhs.HasType(IT_ARRAY)) {
            return ArraysEqual(static_cast<const PListArray&>(lhs), static_cast<const PListArray&>(rhs));
        }
        return static_cast<const PListData&>(lhs).TextView() == static_cast<const PListData&>(rhs).TextView();
    }

    // Scalars are settled on the spot.
    bool ItemsMayBeEqual(const PListItem& lhs, const PListItem& rhs) {
        if (!lhs.HasType(IT_DICT) && !lhs.HasType(IT_ARRAY)) return LevelEqual(lhs, rhs);
        m_Pending.emplace_back(&lhs, &rhs);
        return lhs.GetType() == rhs.GetType();
    }

    bool DictsEqual(const PListDict& lhs, const PListDict& rhs) {
        if (PListInside::BodyOf(lhs) == PListInside::BodyOf(rhs)) return true;
        if (lhs.Size() != rhs.Size()) return false;
        for (const auto& [key, item] : lhs) {
            const PListItem* other = rhs.GetItem(key);
            if (!other || !ItemsMayBeEqual(item, *other)) return false;
        }
        return true;
    }

    bool ArraysEqual(const PListArray& lhs, const PListArray& rhs) {
        if (PListInside::BodyOf(lhs) == PListInside::BodyOf(rhs)) return true;
        if (lhs.Size() != rhs.Size()) return false;
        for (std::size_t i = 0; i < lhs.Size(); ++i) {
            if (!ItemsMayBeEqual(*lhs.GetItem(i), *rhs.GetItem(i))) return false;
        }
        return true;
    }

    std::vector<std::pair<const PListItem*, const PListItem*>> m_Pending;
};

}  // namespace

bool operator==(const PListItem& lhs, const PListItem& rhs) {
    return Comparer().Run(lhs, rhs);
}

}  // namespace Velmora
