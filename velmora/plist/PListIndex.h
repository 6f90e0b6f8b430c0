// Look-up by key in larger dictionaries. Private to the library.
#pragma once

#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <string_view>

#include "plist/PListBody.h"

namespace Velmora {

/// A hash with a secret of this process, so that nobody outside can choose keys that collide.
std::size_t HashKey(std::string_view key) noexcept;

/// An entry with its hash, so that a growing index need not visit the keys.
struct PListIndexed {
    std::size_t Hash;
    PListDictBody::Place Place;
};

struct PListIndexHash {
    using is_transparent = void;
    using is_avalanching = void;
    std::size_t operator()(std::string_view key) const noexcept { return HashKey(key); }
    std::size_t operator()(const PListIndexed& indexed) const noexcept { return indexed.Hash; }
};

struct PListIndexEqual {
    using is_transparent = void;
    bool operator()(const PListIndexed& lhs, const PListIndexed& rhs) const noexcept {
        return lhs.Place.Entry == rhs.Place.Entry;
    }
    bool operator()(std::string_view key, const PListIndexed& indexed) const noexcept {
        return key == indexed.Place.Entry->key.View();
    }
    bool operator()(const PListIndexed& indexed, std::string_view key) const noexcept {
        return key == indexed.Place.Entry->key.View();
    }
};

/// What a dictionary has beyond its first block.
struct PListExtra {
    explicit PListExtra(PListBlock* first) : Last(first), Live(first->Live) {}

    PListBlock* Last;
    std::size_t Live;
    bool Indexed = false;  // stays true once set
    boost::unordered_flat_set<PListIndexed, PListIndexHash, PListIndexEqual> Index;

    void Insert(PListBlock* block, PListEntry* entry) {
        Index.insert({HashKey(entry->key.View()), {block, entry}});
    }
};

}  // namespace Velmora
