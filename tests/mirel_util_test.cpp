// Identifiers, and files under failures.
#include "MR_util.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>
#include <string>

#include "CountedSyncs.h"
#include "Testing.h"

using namespace Mirel;

namespace {

constexpr std::size_t Unlimited = std::numeric_limits<std::size_t>::max();

void ExpectFailure(const Result_t& result, const Result_t& code, const std::string& path, int reason) {
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
    const Testing::CountedSyncs syncs;
    for (const std::string& text : {long_text, std::string(), std::string("short\n")}) {
        ASSERT_TRUE(WriteStringIntoFile(folder / "file", text).Success());
        ASSERT_TRUE(ReadFileIntoString(folder / "file", back, text.size()).Success());
        EXPECT_TRUE(back == text);
    }
    EXPECT_EQ(syncs.Seen, "fff");
    EXPECT_TRUE(WriteStringIntoFile("/dev/null", "nothing to bring to a disk").Success());
    EXPECT_TRUE(ReadFileIntoString("/proc/self/status", back, Unlimited).Success());  // says it has no size
    EXPECT_FALSE(back.empty());
    ExpectFailure(ReadFileIntoString(folder / "file", back, 5), RESULT_READFAIL, folder / "file", EFBIG);
    EXPECT_EQ(back, "");
}

TEST(Files, FailWithPathAndReason) {
    const Testing::TemporaryFolder folder;
    const std::string missing = folder / "missing/file";
    std::string text = "old";
    ExpectFailure(WriteStringIntoFile("/dev/full", "text"), RESULT_WRITEFAIL, "/dev/full", ENOSPC);
    ExpectFailure(WriteStringIntoFile(missing, "text"), RESULT_FILEOPEN, missing, ENOENT);
    ExpectFailure(WriteStringIntoFile(folder.Path(), "text"), RESULT_FILEOPEN, folder.Path(), EISDIR);
    ExpectFailure(ReadFileIntoString(missing, text, 100), RESULT_FILEOPEN, missing, ENOENT);
    ExpectFailure(ReadFileIntoString(folder.Path(), text, 100), RESULT_READFAIL, folder.Path(), EISDIR);
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

// Whoever may write into the folder has put something in the file's place: nothing is written through it.
TEST(Files, ANewFileIsNobodyElses) {
    const Testing::TemporaryFolder folder;
    const std::string file = folder / "file", other = folder / "other", like = folder / "like";
    struct stat status {};
    Testing::WriteFile(other, "other");
    const std::function<void()> prepared[] = {[] {}, [&] { std::filesystem::create_symlink(other, file); },
                                              [&] { std::filesystem::create_symlink("nothing", file); },
                                              [&] { std::filesystem::create_hard_link(other, file); },
                                              [&] { ASSERT_EQ(mkfifo(file.c_str(), 0666), 0); }};
    for (const auto& prepare : prepared) {
        prepare();
        const Testing::CountedSyncs syncs;
        ASSERT_TRUE(WriteStringIntoNewFile(file, "text", like).Success());
        EXPECT_EQ(syncs.Seen, "f");
        ASSERT_EQ(lstat(file.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | mode_t{0600});
        EXPECT_EQ(Testing::ReadFile(file), "text");
        std::filesystem::remove(file);
    }
    EXPECT_EQ(Testing::ReadFile(other), "other");
    EXPECT_FALSE(std::filesystem::exists(folder / "nothing"));
    std::filesystem::create_directory(file);
    ExpectFailure(WriteStringIntoNewFile(file, "text", like), RESULT_FILEOPEN, file, EISDIR);
    EXPECT_EQ(WriteStringIntoNewFile(other + std::string(1, '\0'), "", like), RESULT_FILEOPEN);
    EXPECT_EQ(Testing::ReadFile(other), "other");
}

TEST(Files, ANewFileIsLikeTheOneThatItReplaces) {
    const Testing::TemporaryFolder folder;
    const Testing::CapturedLog log;
    const std::string like = folder / "like", file = folder / "file";
    struct stat status {};
    Testing::WriteFile(like, "");
    chmod(like.c_str(), 0640);
    const bool root = chown(like.c_str(), 12345, 54321) == 0;
    ASSERT_TRUE(WriteStringIntoNewFile(file, "text", like).Success());
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(status.st_uid, root ? 12345 : getuid());
    EXPECT_EQ(status.st_gid, root ? 54321 : getgid());
    EXPECT_TRUE(log.Entries().empty());
    if (!root || setresuid(static_cast<uid_t>(-1), 65534, static_cast<uid_t>(-1)) != 0) return;
    // Who may give nothing away keeps the file, and from the group that it is not for.
    const std::string folder_of_nobody = folder / "sub";
    EXPECT_EQ(setresuid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1)), 0);
    std::filesystem::create_directory(folder_of_nobody);
    chmod(folder.Path().c_str(), 0755);
    chmod(folder_of_nobody.c_str(), 0777);
    EXPECT_EQ(setresuid(static_cast<uid_t>(-1), 65534, static_cast<uid_t>(-1)), 0);
    const Result_t written = WriteStringIntoNewFile(folder_of_nobody + "/file", "text", like);
    EXPECT_EQ(setresuid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1)), 0);
    ASSERT_TRUE(written.Success()) << written.Message();
    ASSERT_EQ(stat((folder_of_nobody + "/file").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(status.st_uid, 65534u);
    EXPECT_TRUE(log.Has("belonged to user 12345 and group 54321"));
}

TEST(Files, LinksAreFollowedToWhereAFileIsOrWouldBe) {
    const Testing::TemporaryFolder folder;
    std::filesystem::create_directory(folder / "sub");
    std::filesystem::create_symlink("sub/second", folder / "first");
    std::filesystem::create_symlink(folder / "end", folder / "sub/second");
    std::filesystem::create_symlink("round", folder / "round");
    EXPECT_EQ(FollowLinks(folder / "first"), folder / "end");
    for (const std::string& path : {std::string(), std::string("none"), folder.Path(), folder / "round"}) {
        EXPECT_EQ(FollowLinks(path), path);
    }
    const Testing::CountedSyncs syncs;
    EXPECT_TRUE(SyncFolderOf(folder / "file").Success() && SyncFolderOf("file").Success());
    EXPECT_EQ(syncs.Seen, "dd");
    ExpectFailure(SyncFolderOf(folder / "none/file"), RESULT_FILEOPEN, folder / "none", ENOENT);
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
