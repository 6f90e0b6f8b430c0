// Finds out whether an event is wanted by its name.
#include "feed/FeedFilter.h"

#include <algorithm>
#include <functional>

namespace Velmora::Feed {

std::uint64_t NameHash(std::string_view name) {
    return std::hash<std::string_view>()(name);
}

FeedFilter::FeedFilter(const std::vector<std::string>& names) : m_All(names.empty()) {
    for (const std::string& name : names) {
        if (!name.ends_with('*')) {
            m_Names.emplace_back(NameHash(name), name);
            continue;
        }
        m_All = m_All || name.size() == 1;
        m_Beginnings.push_back(name.substr(0, name.size() - 1));
    }
    std::sort(m_Names.begin(), m_Names.end());
}

std::vector<std::uint64_t> FeedFilter::OnlyNames() const {
    std::vector<std::uint64_t> hashes;
    if (m_All || !m_Beginnings.empty()) return hashes;
    for (const auto& [hash, name] : m_Names) {
        if (hashes.empty() || hashes.back() != hash) hashes.push_back(hash);
    }
    return hashes;
}

bool FeedFilter::Wants(std::string_view name, std::uint64_t hash) const {
    if (m_All) return true;
    auto found = m_Names.begin();
    if (m_Names.size() > 4)
        found =
            std::lower_bound(m_Names.begin(), m_Names.end(), hash,
                             [](const auto& entry, std::uint64_t wanted) { return entry.first < wanted; });
    for (; found != m_Names.end() && (m_Names.size() <= 4 || found->first == hash); ++found)
        if (found->first == hash && found->second == name) return true;
    return std::any_of(m_Beginnings.begin(), m_Beginnings.end(),
                       [name](const std::string& beginning) { return name.starts_with(beginning); });
}

}  // namespace Velmora::Feed
