// Text: hex, letters, UTF-8 whole and in pieces, and the machine's own names.
#include "MR_text.h"

#include <gtest/gtest.h>

#include <string>

using namespace Mirel;

namespace {

TEST(Text, HexReadsWhatItWrites) {
    for (int value = 0; value < 256; ++value) {
        std::string text;
        AppendHex(text, static_cast<byte_t>(value));
        ASSERT_EQ(text.size(), 2u);
        EXPECT_EQ(HexValue(text[0]) * 16 + HexValue(text[1]), value);
    }
    EXPECT_EQ(HexValue('F'), 15);
    for (const char other : {'/', ':', '@', 'G', '`', 'g', '\0', '\xE6'}) EXPECT_EQ(HexValue(other), -1);
}

TEST(Text, OnlyAsciiLettersHaveACase) {
    EXPECT_TRUE(EqualIgnoringCase("Content-TYPE", "content-type"));
    EXPECT_FALSE(EqualIgnoringCase("content-type", "content-typ"));
    EXPECT_FALSE(EqualIgnoringCase("@[`{", "`{@["));
    EXPECT_FALSE(EqualIgnoringCase("\xC3\x84", "\xC3\xA4"));
}

// Every text of up to four of these bytes, which stand at the edges of what may follow what.
TEST(Text, TheFrontOfATextIsWhatTheCheckTakes) {
    const std::string edges = "A\x7F\x80\x8F\x90\x9F\xA0\xBF\xC1\xC2\xDF\xE0\xE1\xED\xEF\xF0\xF1\xF4\xF5\xFF";
    const std::size_t n = edges.size();
    int characters = 0;
    for (std::size_t i = 0; i < n * n * n * n; ++i) {
        const std::string text{edges[i / n / n / n], edges[i / n / n % n], edges[i / n % n], edges[i % n]};
        const Utf8Lead lead = ReadUtf8(text);
        ASSERT_GE(lead.Size, 1u);
        ASSERT_EQ(lead.Valid, IsUtf8(text.substr(0, lead.Size)));
        for (std::size_t size = 1; size < lead.Size; ++size) ASSERT_FALSE(IsUtf8(text.substr(0, size)));
        characters += lead.Valid;
    }
    EXPECT_GT(characters, 0);
}

TEST(Text, Utf8IsWhatItsDefinitionSays) {
    for (const char* good : {"", "a", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
                             "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"})
        EXPECT_TRUE(IsUtf8(good)) << good;
    for (const char* bad : {"\x80", "\xC0\x80", "\xC1\xBF", "\xC2", "\xE0\x9F\xBF", "\xED\xA0\x80",
                            "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xE2\x82", "\xFF"})
        EXPECT_FALSE(IsUtf8(bad)) << bad;
}

TEST(Text, LoopbackHasManyNames) {
    for (const char* own :
         {"localhost", "LocalHost", "127.0.0.1", "127.255.255.254", "::1", "0:0:0:0:0:0:0:1"})
        EXPECT_TRUE(IsLoopbackName(own)) << own;
    for (const char* other : {"", "localhost.", "localhost.example", "128.0.0.1", "0.0.0.0", "127.1", "[::1]",
                              "::", "::ffff:127.0.0.1"})
        EXPECT_FALSE(IsLoopbackName(other)) << other;
}

}  // namespace
