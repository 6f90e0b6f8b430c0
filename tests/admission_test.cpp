// Who is let in when, and who is turned away.
#include "http/Admission.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>

namespace Server {

namespace {

class Waiter final : public AdmissionWaiter {
  public:
    Waiter(std::string& seen, char name) : m_Seen(seen), m_Name(name) {}
    void Resume(bool admitted) override {
        m_Seen += m_Name;
        m_Seen += admitted ? '+' : '-';
    }

  private:
    std::string& m_Seen;
    const char m_Name;
};

}  // namespace

class AdmissionTest : public ::testing::Test {
  protected:
    bool Wait(char name) { return admission.Wait(waiters.emplace_back(seen, name)); }
    std::deque<Waiter> waiters;
    std::string seen;  // who was resumed, and how
    Admission admission{2};
};

TEST_F(AdmissionTest, LetsThoseWhoWaitInAsOthersLeave) {
    EXPECT_TRUE(admission.TryEnter() && admission.TryEnter());
    EXPECT_FALSE(admission.TryEnter());
    EXPECT_TRUE(Wait('a') && Wait('b') && Wait('c'));
    EXPECT_EQ(seen, "");
    admission.Leave();
    EXPECT_EQ(seen, "a+");
    EXPECT_FALSE(admission.TryEnter());  // the place is taken
    admission.Leave();
    admission.Leave();
    EXPECT_EQ(seen, "a+b+c+");
    EXPECT_FALSE(admission.HasWaiters());
    admission.Leave();
    EXPECT_TRUE(Wait('d'));  // a place that became free meanwhile is seen
    EXPECT_EQ(seen, "a+b+c+d+");
}

TEST_F(AdmissionTest, TurnsAwayWhoWaitsTooLongAndNobodyBefore) {
    EXPECT_TRUE(admission.TryEnter() && admission.TryEnter());
    const auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(Wait('a') && Wait('b'));
    const auto after = std::chrono::steady_clock::now();
    admission.Expire(before + Admission::WaitLimit - std::chrono::milliseconds(1));
    EXPECT_EQ(seen, "");
    admission.Expire(after + Admission::WaitLimit);
    EXPECT_EQ(seen, "a-b-");
    EXPECT_FALSE(admission.HasWaiters());
    EXPECT_TRUE(Wait('c'));
    admission.Expire(before, true);
    EXPECT_EQ(seen, "a-b-c-");
    admission.Leave();  // those who were turned away hold no place
    EXPECT_TRUE(admission.TryEnter());
}

TEST_F(AdmissionTest, KeepsNoMoreThanItsLimit) {
    EXPECT_TRUE(admission.TryEnter() && admission.TryEnter());
    for (std::size_t i = 0; i < Admission::WaitersLimit; ++i) EXPECT_TRUE(Wait('w'));
    EXPECT_FALSE(Wait('x'));
    admission.Expire(std::chrono::steady_clock::now(), true);
    EXPECT_EQ(seen.size(), 2 * Admission::WaitersLimit);
}

}  // namespace Server
