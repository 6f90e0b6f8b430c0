// Which events a client of the feed wants.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Velmora::Feed {

/// The number by which a name is found quickly; whoever finds it compares the name.
std::uint64_t NameHash(std::string_view name);

/// Immutable.
class FeedFilter {
  public:
    /// `names` as FeedWish::Names has them.
    explicit FeedFilter(const std::vector<std::string>& names);

    /// Everything is wanted.
    bool All() const { return m_All; }
    /// The hashes of the names where only whole names are wanted; empty otherwise.
    std::vector<std::uint64_t> OnlyNames() const;
    bool Wants(std::string_view name, std::uint64_t hash) const;

  private:
    bool m_All;
    std::vector<std::pair<std::uint64_t, std::string>> m_Names;  // in order
    std::vector<std::string> m_Beginnings;
};

}  // namespace Velmora::Feed
