// One publishing connection with a window of publications that are not answered yet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Protocol.h"

namespace Bench {

class Publisher {
  public:
    Publisher(const Protocol& protocol, std::uint16_t port);
    ~Publisher();
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    /// Publishes as much as fits into the window and is left of the budget; takes it off the budget.
    void Fill(std::size_t window, std::size_t& budget);
    /// Publishes once, with the time of now in it.
    void PublishNow();
    /// Reads what answers there are.
    void Receive();

    int Socket() const { return m_Socket; }
    std::size_t Unanswered() const { return m_Published - m_Answered; }
    std::size_t Answered() const { return m_Answered; }

  private:
    void Flush();
    void CountAnswers();

    const Protocol& m_Protocol;
    const int m_Socket;
    std::string m_Out;
    std::string m_In;
    std::size_t m_Published = 0;
    std::size_t m_Answered = 0;
};

}  // namespace Bench
