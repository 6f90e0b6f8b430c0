// A Redis stream with a group of consumers: what is added is on a replica before it counts, and each entry
// goes to one consumer, which acknowledges it.
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Bench.h"
#include "Beside.h"
#include "Measures.h"

namespace Bench {

namespace {

/// One connection that sends a command and reads its answer.
class Redis {
  public:
    explicit Redis(std::uint16_t port) : m_Socket(Connect(port)) {}
    ~Redis() { close(m_Socket); }
    Redis(const Redis&) = delete;
    Redis& operator=(const Redis&) = delete;

    void Send(const std::vector<std::string>& words) {
        m_Out += "*" + std::to_string(words.size()) + "\r\n";
        for (const std::string& word : words)
            m_Out += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
    }
    /// All texts of one answer, one behind the other, however they are nested.
    std::vector<std::string> Answer() {
        SendAll(m_Socket, m_Out.data(), m_Out.size());
        m_Out.clear();
        std::vector<std::string> texts;
        ReadItem(texts);
        return texts;
    }

  private:
    void ReadItem(std::vector<std::string>& texts) {
        const std::string line = Line();
        const long number = std::strtol(line.c_str() + 1, nullptr, 10);
        Check(line[0] != '-', line);
        if (line[0] == '*') {
            for (long i = 0; i < number; ++i) ReadItem(texts);
        } else if (line[0] == '$' && number >= 0) {
            const auto size = static_cast<std::size_t>(number);
            while (m_In.size() < m_At + size + 2) More();
            texts.push_back(m_In.substr(m_At, size));
            m_At += size + 2;
        } else {
            texts.push_back(line.substr(1));
        }
    }
    std::string Line() {
        std::size_t end = 0;
        while ((end = m_In.find("\r\n", m_At)) == m_In.npos) More();
        const std::string line = m_In.substr(m_At, end - m_At);
        m_At = end + 2;
        return line;
    }
    void More() {
        m_In.erase(0, std::exchange(m_At, 0));
        char room[64 << 10];
        const ssize_t got = recv(m_Socket, room, sizeof room, 0);
        Check(got > 0, "Redis hung up");
        m_In.append(room, static_cast<std::size_t>(got));
    }

    const int m_Socket;
    std::string m_Out, m_In;
    std::size_t m_At = 0;
};

void Post(std::uint16_t port, std::size_t messages) {
    Redis redis(port);
    for (std::size_t i = 0; i < messages; ++i) {
        redis.Send({"XADD", "ev", "MAXLEN", "~", "1000000", "*", "d", Body});
        redis.Send({"WAIT", "1", "5000"});
        (void)redis.Answer();
        (void)redis.Answer();
    }
}

void Consume(std::uint16_t port, const std::string& name, std::atomic<std::size_t>& left) {
    Redis redis(port);
    while (left > 0) {
        redis.Send({"XREADGROUP", "GROUP", "g", name, "COUNT", "128", "BLOCK", "50", "STREAMS", "ev", ">"});
        const std::vector<std::string> answer = redis.Answer();
        std::vector<std::string> acknowledge{"XACK", "ev", "g"};
        for (std::size_t i = 1; i + 2 < answer.size(); i += 3) acknowledge.push_back(answer[i]);
        if (acknowledge.size() == 3) continue;
        redis.Send(acknowledge);
        (void)redis.Answer();
        left -= acknowledge.size() - 3;
    }
}

}  // namespace

void MeasureStream(std::uint16_t port, std::size_t messages, std::size_t posters) {
    Redis setup(port);
    setup.Send({"XGROUP", "CREATE", "ev", "g", "$", "MKSTREAM"});
    (void)setup.Answer();
    std::atomic<std::size_t> left = messages / posters * posters;
    const auto posted = static_cast<double>(left);
    const std::int64_t begin = Now_ns();
    std::vector<std::thread> threads;
    for (const char* name : {"a", "b", "c"}) threads.emplace_back([&, name] { Consume(port, name, left); });
    for (std::size_t i = 0; i < posters; ++i) threads.emplace_back([&] { Post(port, messages / posters); });
    for (std::thread& thread : threads) thread.join();
    Print("postings_per_s", posted / (static_cast<double>(Now_ns() - begin) / 1e9));
}

}  // namespace Bench
