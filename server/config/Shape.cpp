// Finds the faults of a dictionary, each with the pointer to its place.
#include "config/Shape.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace Server {

using Mirel::i64_t;
using Velmora::PListArray;
using Velmora::PListData;
using Velmora::PListDict;
using Velmora::PListItem;

std::string PointerTo(const std::string& base, std::string_view key) {
    std::string pointer = base + '/';
    for (const char c : key) {
        if (c == '~') {
            pointer += "~0";
        } else if (c == '/') {
            pointer += "~1";
        } else {
            pointer += c;
        }
    }
    return pointer;
}

std::string PointerTo(const std::string& base, std::size_t index) {
    return base + '/' + std::to_string(index);
}

const PListDict* AsDict(const PListItem* item) {
    return item != nullptr && item->HasType(Velmora::IT_DICT) ? static_cast<const PListDict*>(item) : nullptr;
}

const PListArray* AsArray(const PListItem* item) {
    return item != nullptr && item->HasType(Velmora::IT_ARRAY) ? static_cast<const PListArray*>(item)
                                                               : nullptr;
}

namespace {

std::string_view TextOf(const PListItem& item) {
    return static_cast<const PListData&>(item).TextView();
}

bool IsWholeNumber(const PListItem& item) {
    return item.HasType(Velmora::IT_INT) || item.HasType(Velmora::IT_INT64);
}

// Insertions, deletions and replacements that turn one into the other.
std::size_t Distance(std::string_view from, std::string_view to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0u);
    for (std::size_t i = 1; i <= from.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i - 1] == to[j - 1] ? 0 : 1);
            diagonal = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1, replaced}));
        }
    }
    return row[to.size()];
}

// A known key so close to `key` that a slip of the hand explains it; otherwise empty.
std::string Meant(std::string_view key, const std::vector<std::string>& known) {
    constexpr std::size_t LongestKey = 64, Slips = 3;
    std::string best;
    if (key.size() > LongestKey) return best;
    std::size_t closest = std::min(Slips, key.size() / 2) + 1;
    for (const std::string& candidate : known) {
        const std::size_t distance = Distance(key, candidate);
        if (distance < closest) {
            closest = distance;
            best = candidate;
        }
    }
    return best;
}

thread_local SoughtMembers* t_Sought = nullptr;

}  // namespace

SoughtMembers::SoughtMembers() {
    t_Sought = this;
}

SoughtMembers::~SoughtMembers() {
    t_Sought = nullptr;
}

Shape::Shape(const PListDict& dict, std::string base, std::vector<Fault>& faults)
    : m_Dict(dict), m_Base(std::move(base)), m_Faults(faults) {}

void Shape::Blame(const std::string& key, const std::string& what) {
    m_Faults.push_back({key.empty() ? m_Base : PointerTo(m_Base, key), what});
}

void Shape::Blame(const std::string& key, std::size_t index, const std::string& what) {
    m_Faults.push_back({PointerTo(PointerTo(m_Base, key), index), what});
}

const PListItem* Shape::Take(const std::string& key, Need need) {
    m_Taken.push_back(key);
    if (t_Sought != nullptr) t_Sought->m_Pointers.insert(PointerTo(m_Base, key));
    const PListItem* item = m_Dict.GetItem(key);
    if (item == nullptr && need == Need::Required) Blame("", "\"" + key + "\" is missing");
    return item;
}

void Shape::Any(const std::string& key) {
    Take(key, Need::Optional);
}

std::optional<std::string> Shape::Text(const std::string& key, Need need) {
    const PListItem* item = Take(key, need);
    if (item == nullptr) return std::nullopt;
    if (!item->HasType(Velmora::IT_STRING)) {
        Blame(key, "must be a string");
        return std::nullopt;
    }
    return std::string(TextOf(*item));
}

std::optional<std::string> Shape::NonEmptyText(const std::string& key, Need need) {
    std::optional<std::string> text = Text(key, need);
    if (!text || !text->empty()) return text;
    Blame(key, "must not be empty");
    return std::nullopt;
}

std::optional<bool> Shape::Boolean(const std::string& key) {
    const PListItem* item = Take(key, Need::Optional);
    if (item == nullptr) return std::nullopt;
    if (item->HasType(Velmora::IT_TRUE)) return true;
    if (item->HasType(Velmora::IT_FALSE)) return false;
    Blame(key, "must be true or false");
    return std::nullopt;
}

std::optional<i64_t> Shape::Number(const std::string& key, const PListItem& item, i64_t min, i64_t max) {
    long long value = 0;
    const bool read = static_cast<const PListData&>(item).GetValue(value);
    if (read && value >= min && value <= max) return value;
    Blame(key, "must be a whole number from " + std::to_string(min) + " to " + std::to_string(max));
    return std::nullopt;
}

std::optional<i64_t> Shape::Integer(const std::string& key, i64_t min, i64_t max) {
    const PListItem* item = Take(key, Need::Optional);
    if (item == nullptr) return std::nullopt;
    if (IsWholeNumber(*item)) return Number(key, *item, min, max);
    Blame(key, item->HasType(Velmora::IT_REAL) ? "must be a whole number" : "must be a number");
    return std::nullopt;
}

std::optional<i64_t> Shape::IntegerOrText(const std::string& key, i64_t min, i64_t max) {
    const PListItem* item = Take(key, Need::Optional);
    if (item == nullptr) return std::nullopt;
    if (IsWholeNumber(*item) || item->HasType(Velmora::IT_STRING)) return Number(key, *item, min, max);
    Blame(key, "must be a whole number, or one as text");
    return std::nullopt;
}

const PListDict* Shape::Dict(const std::string& key) {
    const PListItem* item = Take(key, Need::Optional);
    const PListDict* dict = AsDict(item);
    if (item != nullptr && dict == nullptr) Blame(key, "must be an object");
    return dict;
}

const PListArray* Shape::Array(const std::string& key) {
    const PListItem* item = Take(key, Need::Optional);
    const PListArray* array = AsArray(item);
    if (item != nullptr && array == nullptr) Blame(key, "must be an array");
    return array;
}

std::vector<std::string> Shape::Texts(const std::string& key) {
    std::vector<std::string> texts;
    const PListArray* array = Array(key);
    if (array == nullptr) return texts;
    for (const PListItem& item : *array) {
        texts.emplace_back(item.HasType(Velmora::IT_STRING) ? TextOf(item) : std::string_view());
        if (texts.back().empty()) Blame(key, texts.size() - 1, "must be a string that is not empty");
    }
    return texts;
}

void Shape::NothingElse() {
    for (const auto& [key, item] : m_Dict) {
        if (std::find(m_Taken.begin(), m_Taken.end(), key) != m_Taken.end()) continue;
        const std::string meant = Meant(key, m_Taken);
        Blame(std::string(key),
              meant.empty() ? "is not known" : "is not known; did you mean \"" + meant + "\"?");
    }
}

}  // namespace Server
