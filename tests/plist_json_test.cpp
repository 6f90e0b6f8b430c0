// JSON both ways: what is read, refused and written.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>

#include "VL_PList.h"

namespace {

using namespace Velmora;
using std::string_literals::operator""s;

std::string JSON(const PListItem& item) {
    std::string out = "replaced";
    EXPECT_TRUE(item.EncodeJSON(out).Success());
    return out;
}

std::string Reread(const std::string& json) {
    Result_t why;
    const auto item = PListItem::CreateFromJSON(json, &why);
    return item ? JSON(*item) : why.Message();
}

std::string Nested(std::size_t levels) {
    return std::string(levels, '[') + std::string(levels, ']');
}

TEST(PListJSON, WritesWhatItReads) {
    for (const std::string& text :
         {"{}"s, "[]"s, "null"s, "true"s, "\"\""s, "-12"s, R"({"z":[1,{"a":[]}],"a":{"":false}})"s,
          R"(["\"\\\b\f\n\r\t\u0000\u001f/"])"s, "[2147483648,-9223372036854775808,1.50,1E+40]"s,
          "123456789012345678901234567890"s, R"(["1e999\"9",1E400,-2.5e-999999999999,[0.5e+999]])"s,
          "{\"9\":" + std::string(400, '9') + ",\"-1e999\":[true,-1e999,0]}",
          R"({"\udc80\udcff":"\udcedx\udcb0\udc80","\udcc3":"a text with \udcbf that is not short"})"s,
          "[\"\x7F\u00e9\u20ac\U0001F600\"]"s, Nested(256)}) {
        EXPECT_EQ(Reread(text), text);
    }
    EXPECT_EQ(Reread(" { \"a\" : [ -0 , -0.0 , \"\\ud83d\\ude00\\/\\u0041\" ] } \n"),
              "{\"a\":[0,-0.0,\"\U0001F600/A\"]}");
}

TEST(PListJSON, GivesNumbersTheirTypes) {
    for (const auto& [text, type] : {std::pair("2147483647", IT_INT),
                                     {"-2147483648", IT_INT},
                                     {"2147483648", IT_INT64},
                                     {"-9223372036854775808", IT_INT64},
                                     {"9223372036854775808", IT_REAL},
                                     {"1.0", IT_REAL},
                                     {"1e2", IT_REAL}}) {
        const auto item = PListItem::CreateFromJSON(text);
        ASSERT_TRUE(item);
        EXPECT_EQ(item->GetType(), type) << text;
    }
}

TEST(PListJSON, RefusesWithReasonAndPosition) {
    for (const auto& [text, reason] : {
             std::pair(""s, "empty at byte 0."),
             {"\xEF\xBB\xBF{}"s, "Invalid value at byte 0."},
             {"{\"a\":1,}"s, "at byte 7."},
             {"[1 2]"s, "at byte 3."},
             {"{} x"s, "at byte 3."},
             {"[1]\0"s, "NUL byte at byte 3."},
             {"[1]\0[2]"s, "NUL byte at byte 3."},
             {"[\"a\0b\"]"s, "at byte 3."},
             {"[\"a\nb\"]"s, "at byte 3."},
             {"[\"ab"s, "at byte 4."},
             {"[nul"s, "at byte 4."},
             {"[01]"s, "at byte 2."},
             {"[1.]"s, "at byte 3."},
             {"[NaN]"s, "at byte 1."},
             {"[1e999,01]"s, "at byte 8."},
             {"[1e999e]"s, "at byte 1."},
             {"[\"a\xFF\"]"s, "at byte 3."},
             {"[\"\xED\xA0\x80\"]"s, "at byte 2."},
             {"\"long enough to stand on the heap\xF0"s, "at byte 33."},
             {R"(["\ud800x"])"s, "at byte 2."},
             {R"([1,"\udc00"])"s, "surrogate pair in string is invalid at byte 3."},
             {R"({"\udc00":1})"s, "surrogate pair in string is invalid at byte 1."},
             {R"(["\udcff\udd00"])"s, "surrogate pair in string is invalid at byte 1."},
             {R"({"\udcc3\udca9":1,"\u00e9":2})"s, "at byte 18."},
             {R"({"a\"":{"b":1}, "c":2, "a\"":3})"s, R"(Duplicate key "a\"" at byte 23.)"},
             {Nested(257), "nested deeper than 256 levels at byte 256."},
             {std::string(100000, '['), "nested deeper than 256 levels at byte 256."},
         }) {
        Result_t why;
        EXPECT_EQ(PListItem::CreateFromJSON(text, &why), nullptr) << text.substr(0, 40);
        EXPECT_TRUE(why == Mirel::RESULT_FORMAT);
        EXPECT_THAT(why.Message(), testing::EndsWith(reason)) << text.substr(0, 40);
    }
}

TEST(PListJSON, FindsDuplicatesAmongManyKeys) {
    std::string text = "{";
    for (int i = 0; i < 3000; ++i) text += "\"key" + std::to_string(i) + "\":" + std::to_string(i) + ",";
    EXPECT_EQ(Reread(text + "\"last\":0}"), text + "\"last\":0}");
    EXPECT_EQ(Reread(text + "\"key1500\":0}"),
              "Duplicate key \"key1500\" at byte " + std::to_string(text.size()) + ".");
}

TEST(PListJSON, WritesValidTextWhateverIsStored) {
    PListArray array;
    array.Append(
        PListData("\x80 \xE2\x82 \xF0\x9F\x98 \xED\xA0\x80 \xC0\xAF \xF4\x90\x80\x80 \xF5\x80\x80\x80 "
                  "\xE2\x82\xAC \xC3"));
    array.Append(PListData(std::string(3000, 'x') + "\n"));
    EXPECT_EQ(
        JSON(array),
        R"(["\udc80 \udce2\udc82 \udcf0\udc9f\udc98 \udced\udca0\udc80 \udcc0\udcaf \udcf4\udc90\udc80\udc80 \udcf5\udc80\udc80\udc80 )"
        "\u20ac \\udcc3\",\"" +
            std::string(3000, 'x') + "\\n\"]");
    EXPECT_EQ(Reread(JSON(array)), JSON(array));
    const double inf = std::numeric_limits<double>::infinity();
    for (const auto& [data, text] : {std::pair(PListData(std::nan("")), "null"),
                                     {PListData(-inf), "null"},
                                     {PListData(0.1), "0.1"},
                                     {PListData(1e300), "1e+300"},
                                     {PListData(LLONG_MIN), "-9223372036854775808"},
                                     {PListData(IT_INT, "+007"), "7"},
                                     {PListData(IT_INT, "007"), "7"},
                                     {PListData(IT_REAL, "-01.50"), "-1.5"},
                                     {PListData(IT_REAL, ".5"), "0.5"},
                                     {PListData(IT_REAL, "1.e1"), "10.0"},
                                     {PListData(IT_REAL, "infinity"), "null"},
                                     {PListData(IT_INT, "x"), "null"},
                                     {PListData(IT_REAL, "1e"), "null"},
                                     {PListData(IT_REAL, "-"), "null"},
                                     {PListData(IT_INT64, ""), "null"},
                                     {PListData(IT_DATE, "2026"), "\"2026\""},
                                     {PListData(IT_DATA, "AAE="), "\"AAE=\""}}) {
        EXPECT_EQ(JSON(data), text);
    }
}

// What is plain and what is not, at every distance from the end and from the last special character.
TEST(PListJSON, FindsSpecialCharactersAtAnyPlace) {
    for (std::size_t size = 1; size < 20; ++size) {
        for (std::size_t at = 0; at < size; ++at) {
            for (const char special : {'"', '\\', '\x1F', '\x01', '\x80', '\xFF'}) {
                std::string text(size, '\x7F');
                text[at] = special;
                std::string expected = special == '"'      ? "\\\""
                                       : special == '\\'   ? "\\\\"
                                       : special == '\x1F' ? "\\u001f"
                                       : special == '\x01' ? "\\u0001"
                                       : special == '\x80' ? "\\udc80"
                                                           : "\\udcff";
                EXPECT_EQ(JSON(PListData(text)), '"' + std::string(at, '\x7F') + expected +
                                                     std::string(size - at - 1, '\x7F') + '"');
            }
        }
    }
}

class RandomTree {
  public:
    explicit RandomTree(unsigned seed) : m_Random(seed) {}

    std::unique_ptr<PListItem> Item(int depth) {
        const auto kind = m_Random() % (depth > 0 ? 9 : 7);
        if (kind == 8) return List(depth);
        if (kind == 7) return Dict(depth);
        return std::make_unique<PListData>(Scalar(kind));
    }

  private:
    PListData Scalar(std::uint64_t kind) {
        const auto bits = static_cast<long long>(m_Random());
        switch (kind) {
            case 0:
                return PListData(bits % 2 == 0);
            case 1:
                return PListData(static_cast<int>(bits));
            case 2:
                return PListData(bits | LLONG_MIN);
            case 3:
                return PListData(
                    std::ldexp(static_cast<double>(bits), static_cast<int>(m_Random() % 600) - 300) + 0.5);
            case 4:
                return PListData(IT_NULL, {});
            default:
                return PListData(Text());
        }
    }
    std::string Text() {
        static constexpr std::string_view Pieces[] = {"a",      "\"",         "\\",          "\n",
                                                      "\u00e9", "\U0001F600", "longer text", "\x01",
                                                      "\xED",   "\xB3\xBF",   "\xF0\x9F"};
        std::string text;
        for (auto i = m_Random() % 6; i > 0; --i) text += Pieces[m_Random() % std::size(Pieces)];
        return text;
    }
    std::unique_ptr<PListItem> Dict(int depth) {
        auto dict = std::make_unique<PListDict>();
        for (auto i = m_Random() % 30; i > 0; --i)
            dict->SetItem(Text() + std::to_string(i), Item(depth - 1).release());
        return dict;
    }
    std::unique_ptr<PListItem> List(int depth) {
        auto list = std::make_unique<PListArray>();
        for (auto i = m_Random() % 20; i > 0; --i) list->Append(*Item(depth - 1));
        return list;
    }

    std::mt19937_64 m_Random;
};

TEST(PListJSON, RandomTreesComeBackEqual) {
    for (unsigned seed = 0; seed < 200; ++seed) {
        const auto tree = RandomTree(seed).Item(3);
        Result_t why;
        const auto read = PListItem::CreateFromJSON(JSON(*tree), &why);
        ASSERT_TRUE(read) << why.Message();
        ASSERT_EQ(JSON(*read), JSON(*tree));
        ASSERT_TRUE(*read == *tree) << "seed " << seed;
    }
}

TEST(PListXML, EscapesAndNamesTypes) {
    PListDict dict;
    dict.SetValue("<&>", "a<b>&\r\x01\xFF\uFFFE]]>");
    dict.SetValue("n", 5);
    dict.SetValue("r", 0.5);
    dict.SetValue("t", true);
    dict.SetItem("d", PListData(IT_DATA, "AAE="));
    dict.SetItem("null", PListData(IT_NULL, {}));
    dict.SetItem("l", PListArray());
    EXPECT_EQ(
        dict.CreateXMLElement(),
        "<dict><key>&lt;&amp;&gt;</key><string>a&lt;b&gt;&amp;&#13;\uFFFD\uFFFD\uFFFD]]&gt;</string>"
        "<key>n</key><integer>5</integer><key>r</key><real>0.5</real><key>t</key><true/>"
        "<key>d</key><data>AAE=</data><key>null</key><string></string><key>l</key><array></array></dict>");
}

}  // namespace
