// The credential with which the process calls itself.
#include "LocalAccessManager.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "HttpTestServer.h"

using LocalAccessManager::IsSelfAuthorized;
using LocalAccessManager::SelfAuthRestCallback;
using Testing::HttpTestServer;

class LocalAccessTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(LocalAccessManager::ServerListens(server.Listener()).Success()); }

    HttpTestServer server{HttpTestServer::Answers("200 OK")};
};

TEST_F(LocalAccessTest, WithoutAServerThereIsNothingToTell) {
    EXPECT_EQ(LocalAccessManager::ServerListens(STDIN_FILENO), Mirel::RESULT_PARAM);
    LocalAccessManager::ServerEnded();
    Velmora::BasicRestEntryCall call;
    call.RequestHeaders["Authorization"] = "as given";
    EXPECT_EQ(SelfAuthRestCallback().Call(call), Mirel::RESULT_STATE);
    EXPECT_EQ(call.RequestHeaders["Authorization"], "as given");
}

TEST_F(LocalAccessTest, OnlyTheWholeCredentialLetsIn) {
    Velmora::BasicRestEntryCall call;
    call.RequestHeaders["authorization"] = "Bearer of another";
    ASSERT_TRUE(SelfAuthRestCallback().Call(call).Success());
    ASSERT_EQ(call.RequestHeaders.size(), 1U);
    const std::string credential = call.RequestHeaders["Authorization"];
    ASSERT_EQ(credential.size(), 13U + 64U);
    EXPECT_EQ(credential.substr(0, 13), "Velmora-Self ");
    EXPECT_EQ(credential.find_first_not_of("0123456789abcdef", 13), std::string::npos);
    EXPECT_TRUE(IsSelfAuthorized(credential));

    EXPECT_FALSE(IsSelfAuthorized(""));
    EXPECT_FALSE(IsSelfAuthorized(credential + " "));
    for (std::size_t at = 0; at < credential.size(); ++at) {
        std::string wrong = credential;
        wrong[at] = static_cast<char>(wrong[at] ^ 1);
        EXPECT_FALSE(IsSelfAuthorized(wrong)) << at;
        EXPECT_FALSE(IsSelfAuthorized(credential.substr(0, at))) << at;
    }
}

TEST_F(LocalAccessTest, EveryThreadHasTheSameCredential) {
    std::vector<std::string> credentials(8);
    std::vector<std::thread> threads;
    for (std::string& credential : credentials) {
        threads.emplace_back([&credential] {
            Velmora::BasicRestEntryCall call;
            if (SelfAuthRestCallback().Call(call).Success())
                credential = call.RequestHeaders["Authorization"];
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const std::string& credential : credentials) EXPECT_TRUE(IsSelfAuthorized(credential));
}
