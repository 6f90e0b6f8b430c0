// Lays columns out.
#include "terminal/Table.h"

#include <algorithm>
#include <cstdio>

namespace Terminal {

namespace {

bool StartsCharacter(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
}

// In characters, which is close enough to what a terminal shows.
std::size_t Width(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), StartsCharacter));
}

}  // namespace

std::string Shown(const std::string& text, std::size_t limit) {
    std::string shown;
    std::size_t width = 0;
    for (const char c : text) {
        if (limit != 0 && StartsCharacter(c) && ++width > limit) return shown + "…";
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7F) {
            shown += c;
        } else {
            char escape[5];
            std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned>(byte));
            shown += escape;
        }
    }
    return shown;
}

void Table::Print() const {
    std::vector<std::vector<std::string>> rows = m_Rows;
    std::vector<std::size_t> widths(rows.front().size(), 0);
    for (auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            row[i] = Shown(row[i]);
            widths[i] = std::max(widths[i], Width(row[i]));
        }
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line.append(widths[i] - Width(row[i]) + 2, ' ');
        }
        std::printf("%s\n", line.c_str());
    }
}

}  // namespace Terminal
