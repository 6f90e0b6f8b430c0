// URLs, statuses and header names.
#include <gtest/gtest.h>

#include "VL_HTTP.h"

using namespace Velmora;

namespace {

TEST(URL, ReadsEveryPart) {
    URL url;
    ASSERT_TRUE(url.Parse("https://us%20er:p:w@[2001:db8::1]:8443/a/b;c?d=e?/f"));
    EXPECT_FALSE(url.Empty());
    EXPECT_EQ(url.Scheme, "https");
    EXPECT_EQ(url.Username, "us%20er");
    EXPECT_EQ(url.Password, "p:w");
    EXPECT_EQ(url.Hostname, "2001:db8::1");
    EXPECT_EQ(url.Port, 8443);
    EXPECT_EQ(url.Path, "/a/b;c");
    EXPECT_EQ(url.QueryString, "d=e?/f");
    EXPECT_EQ(url.ComposeSchemeAndHost(false), "https://[2001:db8::1]:8443");
    EXPECT_EQ(url.ComposeSchemeAndHost(true), "https://us%20er:p:w@[2001:db8::1]:8443");

    ASSERT_TRUE(url.ParsePath("/hook//x?"));
    EXPECT_TRUE(url.Scheme.empty() && url.Hostname.empty() && url.Username.empty());
    EXPECT_EQ(url.Path, "/hook//x");
    EXPECT_TRUE(url.HasQueryToken);
    EXPECT_EQ(url.ComposeAbsolute(), "/hook//x?");
}

TEST(URL, ComposesWhatItRead) {
    for (const char* text : {"http://h", "http://h/", "http://h?q", "http://h/?", "HTTP://Host.Example/%7Ex",
                             "ftp://h:80/", "x+y.z-1://h", "http://h:65535//double", "http://:pw@h/",
                             "https://h:80/", "http://[::ffff:1.2.3.4]/", "http://u@h/"}) {
        URL url;
        EXPECT_TRUE(url.Parse(text)) << text;
        EXPECT_EQ(url.ComposeAbsolute(), text);
    }
    // Other ways to say it; the port stays as it was given.
    const std::pair<const char*, int> others[] = {{"http://h:80/", 80},
                                                  {"http://h:/", 0},
                                                  {"http://h:00080/", 80},
                                                  {"http://@h/", 0},
                                                  {"http://h:0/", 0}};
    for (const auto& [text, port] : others) {
        URL url;
        EXPECT_TRUE(url.Parse(text)) << text;
        EXPECT_EQ(url.ComposeAbsolute(), "http://h/");
        EXPECT_EQ(url.ComposeSchemeAndHost(true), "http://h");
        EXPECT_EQ(url.Port, port);
    }
}

TEST(URL, RefusesAndIsLeftEmpty) {
    using namespace std::string_literals;
    for (const std::string& text : {""s,
                                    "h"s,
                                    "/path"s,
                                    "http:"s,
                                    "http:/h"s,
                                    "http://"s,
                                    "http:///x"s,
                                    "http://:80/"s,
                                    "http://u@/"s,
                                    "://h"s,
                                    "1x://h"s,
                                    "ht tp://h"s,
                                    " http://h"s,
                                    "http://h "s,
                                    "http://h/a b"s,
                                    "http://h/\n"s,
                                    "http://h/\0"s,
                                    "http://h/\x7f"s,
                                    "http://h/\xc3\xa4"s,
                                    "http://h\\x"s,
                                    "http://h:70000/"s,
                                    "http://h:8x/"s,
                                    "http://h:-1/"s,
                                    "http://h:1:2/"s,
                                    "http://a@b@c/"s,
                                    "http://h/%"s,
                                    "http://h/%4"s,
                                    "http://h/%zz"s,
                                    "http://h/%4g"s,
                                    "http://h?%"s,
                                    "http://h%/"s,
                                    "http://u%@h/"s,
                                    "http://h#f"s,
                                    "http://h/#"s,
                                    "http://[::1/"s,
                                    "http://[]/"s,
                                    "http://[1.2.3.4]/"s,
                                    "http://[::g]/"s,
                                    "http://[::1\0]/"s,
                                    "http://[fe80::1%25eth0]/"s,
                                    "http://[::1]x/"s,
                                    "http://::1/"s,
                                    "http://h/<x>"s,
                                    "http://h?a|b"s}) {
        URL url;
        url.Path = "/before";
        EXPECT_FALSE(url.Parse(text)) << text;
        EXPECT_TRUE(url.Empty()) << text;
    }
    for (const char* text : {"", "x", "?q", "//host/x", "//", "/a#b", "/a b", "/%0", "http://h/"}) {
        URL url;
        EXPECT_FALSE(url.ParsePath(text)) << text;
        EXPECT_TRUE(url.Empty()) << text;
    }
}

TEST(HTTPTypes, HeaderNamesDifferByMoreThanTheirCase) {
    const ci_comp less;
    EXPECT_FALSE(less("Content-Type", "CONTENT-TYPE") || less("content-type", "Content-Type"));
    EXPECT_TRUE(less("ab", "ABC"));  // a prefix first
    EXPECT_FALSE(less("abc", "AB"));
    EXPECT_TRUE(less("_", "a") && less("_", "A"));  // lowered, not raised: '_' stands between 'Z' and 'a'
    EXPECT_TRUE(less("z", "\xe4"));                 // as unsigned bytes
    HeaderSet headers{{"Content-Type", "a"}};
    EXPECT_FALSE(headers.insert({"content-TYPE", "b"}).second);
}

TEST(HTTPTypes, StatusTexts) {
    EXPECT_STREQ(StatusToString(STATUS_404_NOT_FOUND), "Not Found");
    EXPECT_STREQ(StatusToString(static_cast<Status_t>(511)), "Network Authentication Required");
    for (const int number : {0, -1, 99, 299, 306, 418, 512, 1000}) {
        EXPECT_STREQ(StatusToString(static_cast<Status_t>(number)), "Unknown Status") << number;
    }
    for (const int number : {199, 300, 404, 0}) EXPECT_FALSE(StatusIsSuccess(static_cast<Status_t>(number)));
    for (const int number : {200, 299}) EXPECT_TRUE(StatusIsSuccess(static_cast<Status_t>(number)));
}

}  // namespace
