// Look-up by key in larger dictionaries. Private to the library.
#pragma once

#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <string_view>

#include "VL_PListBody.h"

namespace Velmora {

/// A hash with a secret of this process, so that nobody outside can choose keys that collide.
std::size_t HashKey(std::string_view key) noexcept;

struct PListPlaceHash {
    using is_transparent = void;
    using is_avalanching = void;
    std::size_t operator()(std::string_view key) const noexcept { return HashKey(key); }
    std::size_t operator()(const PListDictBody::Place& place) const noexcept {
        return HashKey(place.entry->key.View());
    }
};

struct PListPlaceEqual {
    using is_transparent = void;
    bool operator()(const PListDictBody::Place& lhs, const PListDictBody::Place& rhs) const noexcept {
        return lhs.entry->key.View() == rhs.entry->key.View();
    }
    bool operator()(std::string_view key, const PListDictBody::Place& place) const noexcept {
        return key == place.entry->key.View();
    }
    bool operator()(const PListDictBody::Place& place, std::string_view key) const noexcept {
        return key == place.entry->key.View();
    }
};

/// What a dictionary has beyond its first block.
struct PListExtra {
    explicit PListExtra(PListBlock* first) : last(first), live(first->live) {}

    PListBlock* last;
    std::size_t live;
    bool indexed = false;  // stays true once set
    boost::unordered_flat_set<PListDictBody::Place, PListPlaceHash, PListPlaceEqual> index;
};

}  // namespace Velmora
