// Lists for people.
#pragma once

#include <string>
#include <vector>

namespace Terminal {

/// Columns under their titles, as wide as what is in them; the last may be as long as it likes.
class Table {
  public:
    explicit Table(std::vector<std::string> titles) : m_Rows{std::move(titles)} {}
    void Add(std::vector<std::string> row) { m_Rows.push_back(std::move(row)); }
    /// Control characters are shown as escapes: what others have registered must not move the cursor.
    void Print() const;

  private:
    std::vector<std::vector<std::string>> m_Rows;
};

/// The text with control characters as escapes, and what is beyond `limit` characters (0: nothing) as "…".
std::string Shown(const std::string& text, std::size_t limit = 0);

}  // namespace Terminal
