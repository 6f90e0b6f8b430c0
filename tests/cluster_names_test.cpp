// Names as tokens of the engine's subjects.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "Cluster.h"
#include "Names.h"

namespace Cluster {

namespace {

TEST(ClusterNamesTest, EveryNameComesBackAndNoTwoMeet) {
    std::set<std::string> encoded;
    std::string all_bytes;
    for (int c = 0; c < 256; ++c) all_bytes += static_cast<char>(c);
    const std::string names[] = {"a",    ".",   "..",    "a.b",  "a..b", ".a",      "a.",
                                 "a b",  "=20", "a=20b", "a*b>", "ä",    all_bytes, "a/b",
                                 "%41",  "A",   "$KV.",  "-_",   "a=2E", "a\n",     std::string(1, '\0'),
                                 "a.b.c"};
    for (const std::string& name : names) {
        const std::string text = EncodeName(name);
        EXPECT_EQ(DecodeName(text), name);
        EXPECT_TRUE(encoded.insert(text).second) << name;
        EXPECT_EQ(
            text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_=."),
            std::string::npos);
        EXPECT_NE(text.front(), '.');
        EXPECT_NE(text.back(), '.');
        EXPECT_EQ(text.find(".."), std::string::npos);
    }
}

TEST(ClusterNamesTest, WhatOthersWriteIsReadAsItStandsOrRefused) {
    EXPECT_EQ(DecodeName("a:b"), "a:b");
    for (const char* wrong : {"", "=", "a=", "a=4", "a=4g", "==41"}) EXPECT_FALSE(DecodeName(wrong)) << wrong;
}

}  // namespace

}  // namespace Cluster
