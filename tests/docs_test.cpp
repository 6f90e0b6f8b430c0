// What the pages say of the program, held against the program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "Testing.h"
#include "VL_PList.h"
#include "config/Config.h"
#include "config/Shape.h"

namespace Server {

using ::testing::IsEmpty;
using Velmora::PListDict;
using Velmora::PListItem;

namespace {

// Configuration keys by their pointers.
using Keys = std::set<std::string>;

// The cell "default" of each key in the table of configuration.md. A row that begins with "…" is a member of
// the row above it that has one "…" fewer.
std::map<std::string, std::string> DocumentedKeys() {
    std::map<std::string, std::string> keys;
    std::vector<std::string> parents;
    std::ifstream page(DOCS_DIR "/configuration.md");
    const std::regex row(R"re(\| ((?:… )*)"(\w+)" \| (.*?) \| .+ \|)re");
    for (std::string line; std::getline(page, line);) {
        std::smatch cells;
        if (!std::regex_match(line, cells, row)) continue;
        parents.resize(static_cast<std::size_t>(cells[1].length()) / std::string("… ").size());
        parents.push_back(cells[2]);
        std::string pointer;
        for (const std::string& step : parents) pointer += "/" + step;
        EXPECT_TRUE(keys.emplace(pointer, cells[3]).second) << pointer << " stands there twice";
    }
    return keys;
}

// The keys that reading a configuration looks for where `pointer` holds `value`.
Keys SoughtWith(const std::string& pointer, std::string value) {
    const std::vector<std::string> steps = [&] {
        std::vector<std::string> split;
        for (std::size_t at = 0; at < pointer.size(); at += split.back().size() + 1) {
            split.push_back(pointer.substr(at + 1, pointer.find('/', at + 1) - at - 1));
        }
        return split;
    }();
    for (std::size_t i = steps.size(); i-- > 0;) {
        value = steps[i] == "0" ? "[" + value + "]" : "{\"" + steps[i] + "\":" + value + "}";
    }
    const Testing::TemporaryFolder folder;
    Testing::WriteFile(folder / "config.json", value);
    const SoughtMembers sought;
    std::vector<ConfigFault> faults;
    LoadConfig(folder / "config.json", faults);
    return sought.Pointers();
}

// Every key that the program knows: each one found is made an object, and a list of one, to see what is
// looked for inside. The queue state document has a page of its own.
Keys KnownKeys() {
    Keys known, pending = {""};
    while (!pending.empty()) {
        const std::string pointer = pending.extract(pending.begin()).value();
        for (const std::string& place : {pointer, pointer + "/0"}) {
            for (const std::string& key : SoughtWith(place, "{}")) {
                if (!key.starts_with("/EventManager/") && known.insert(key).second) pending.insert(key);
            }
        }
    }
    return known;
}

std::string WithoutPlaces(const std::string& pointer) {
    return std::regex_replace(pointer, std::regex("/0(?=/)"), "");
}

Keys Without(const Keys& keys, const Keys& others) {
    Keys rest;
    std::set_difference(keys.begin(), keys.end(), others.begin(), others.end(),
                        std::inserter(rest, rest.end()));
    return rest;
}

TEST(DocsTest, EveryConfigurationKeyStandsInTheTableAndNoOther) {
    Keys documented, known;
    for (const auto& [pointer, value] : DocumentedKeys()) documented.insert(pointer);
    for (const std::string& pointer : KnownKeys()) known.insert(WithoutPlaces(pointer));
    EXPECT_GT(known.size(), 25u);
    EXPECT_THAT(Without(known, documented), IsEmpty()) << "are missing in docs/configuration.md";
    EXPECT_THAT(Without(documented, known), IsEmpty()) << "stand in docs/configuration.md, but are not known";
}

// Calls `check` with the pointer of each number, text and truth value inside.
template <class Check>
void EachValue(const PListDict& dict, const std::string& base, const Check& check) {
    for (const auto& [key, item] : dict) {
        const std::string pointer = PointerTo(base, key);
        if (const PListDict* inner = AsDict(&item)) {
            EachValue(*inner, pointer, check);
        } else if (AsArray(&item) == nullptr) {
            std::string json;
            ASSERT_TRUE(item.EncodeJSON(json).Success());
            check(pointer, json);
        }
    }
}

TEST(DocsTest, TheTablesDefaultsAreThoseInForce) {
    const std::map<std::string, std::string> documented = DocumentedKeys();
    const std::unique_ptr<PListItem> printed = PListItem::CreateFromJSON(PrintConfig(Config()));
    ASSERT_NE(AsDict(printed.get()), nullptr);
    EachValue(*AsDict(printed.get()), "", [&](const std::string& pointer, const std::string& value) {
        const auto row = documented.find(pointer);
        if (row == documented.end() || row->second.starts_with("by ")) return;
        EXPECT_TRUE(row->second == value || row->second.starts_with(value + ":"))
            << pointer << " is " << value << ", the table says " << row->second;
    });
}

}  // namespace

}  // namespace Server
