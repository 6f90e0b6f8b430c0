#include "MR_util.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "Testing.h"

using namespace Mirel;

namespace {

constexpr std::size_t Unlimited = std::numeric_limits<std::size_t>::max();

void expect_failure(const Result_t& result, const Result_t& code, const std::string& path, int reason) {
    EXPECT_EQ(errno, reason) << path;
    EXPECT_EQ(result, code) << path;
    EXPECT_NE(std::string(result.Message()).find(path), std::string::npos) << result.Message();
    EXPECT_NE(std::string(result.Message()).find(strerror(reason)), std::string::npos) << result.Message();
}

}  // namespace

TEST(Files, ComeBackAsTheyWereWritten) {
    const Testing::TemporaryFolder folder;
    std::string long_text(1000000, 'x'), back;
    long_text[500000] = '\0';
    for (const std::string& text : {long_text, std::string(), std::string("short\n")}) {
        ASSERT_TRUE(WriteStringIntoFile(folder / "file", text).Success());
        ASSERT_TRUE(ReadFileIntoString(folder / "file", back, text.size()).Success());
        EXPECT_TRUE(back == text);
    }
    EXPECT_TRUE(WriteStringIntoFile("/dev/null", "nothing to bring to a disk").Success());
    EXPECT_TRUE(ReadFileIntoString("/proc/self/status", back, Unlimited).Success());  // says it has no size
    EXPECT_FALSE(back.empty());
    expect_failure(ReadFileIntoString(folder / "file", back, 5), RESULT_READFAIL, folder / "file", EFBIG);
    EXPECT_EQ(back, "");
}

TEST(Files, FailWithPathAndReason) {
    const Testing::TemporaryFolder folder;
    const std::string missing = folder / "missing/file";
    std::string text = "old";
    expect_failure(WriteStringIntoFile("/dev/full", "text"), RESULT_WRITEFAIL, "/dev/full", ENOSPC);
    expect_failure(WriteStringIntoFile(missing, "text"), RESULT_FILEOPEN, missing, ENOENT);
    expect_failure(WriteStringIntoFile(folder.Path(), "text"), RESULT_FILEOPEN, folder.Path(), EISDIR);
    expect_failure(ReadFileIntoString(missing, text, 100), RESULT_FILEOPEN, missing, ENOENT);
    expect_failure(ReadFileIntoString(folder.Path(), text, 100), RESULT_READFAIL, folder.Path(), EISDIR);
    EXPECT_EQ(text, "");
}

TEST(Files, APathEndsNowhereButAtItsEnd) {
    const Testing::TemporaryFolder folder;
    const std::string file = folder / "file";
    const std::string longer = file + std::string(1, '\0') + "more";
    EXPECT_EQ(WriteStringIntoFile(longer, "text"), RESULT_FILEOPEN);
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_FALSE(PathIsDirectory(folder.Path() + std::string(1, '\0') + "more"));

    Testing::WriteFile(file, "");
    std::filesystem::create_symlink(folder.Path(), folder / "link");
    EXPECT_TRUE(PathIsDirectory(folder.Path()));
    EXPECT_TRUE(PathIsDirectory(folder / "link"));
    EXPECT_FALSE(PathIsDirectory(file));
    EXPECT_FALSE(PathIsDirectory(""));
}

TEST(UUID, IsRandomAndKeepsItsValueThroughItsText) {
    UUID first, second, back;
    EXPECT_FALSE(first.HasValue());
    GenRandomValue(first);
    GenRandomValue(second);
    EXPECT_TRUE(first.HasValue());
    EXPECT_FALSE(first == second);
    EXPECT_TRUE(UUIDFromText(UUIDText(first), back));
    EXPECT_TRUE(back == first);
    char text_of_first[64];
    EXPECT_EQ(bin2UUIDhex(first.m_Value, sizeof first.m_Value, text_of_first, 64), UUIDText(back));

    EXPECT_TRUE(UUIDFromText("01234567-89ab-cdef-FEDC-ba9876543210", back));
    EXPECT_EQ(UUIDText(back), "01234567-89ab-cdef-fedc-ba9876543210");
    for (const char* text :
         {"", "0123456789abcdeffedcba9876543210", "01234567-89ab-cdef-fedc-ba98765432100",
          "0123456-789ab-cdef-fedc-ba9876543210", "{1234567-89ab-cdef-fedc-ba987654321}"}) {
        EXPECT_FALSE(UUIDFromText(text, first)) << text;
    }

    const byte_t bytes[17] = {0xFF};
    char buf[64] = "unchanged";
    EXPECT_EQ(bin2UUIDhex(bytes, 16, buf, 36), nullptr);
    EXPECT_EQ(bin2UUIDhex(bytes, 15, buf, sizeof buf), nullptr);
    EXPECT_EQ(bin2UUIDhex(bytes, 17, buf, sizeof buf), nullptr);
    EXPECT_STREQ(buf, "unchanged");
    EXPECT_STREQ(bin2UUIDhex(bytes, 16, buf, 37), "ff000000-0000-0000-0000-000000000000");
}
