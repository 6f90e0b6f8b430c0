// How fast publications reach many subscribers.
#include <memory>
#include <vector>

#include "Bench.h"
#include "Load.h"
#include "Publisher.h"

namespace Bench {

namespace {

constexpr std::int64_t Silence_ns = 20'000'000'000;

class FanOutRun {
  public:
    FanOutRun(const Protocol& protocol, const FanOut& plan)
        : m_Protocol(protocol), m_Plan(plan), m_Left(Budget()) {
        for (std::size_t i = 0; i < plan.Clients; ++i)
            m_Clients.Add(
                ConnectWith(plan.Ports[i % plan.Ports.size()], protocol.Subscribe, protocol.SubscribeEnd));
        for (std::size_t i = 0; i < plan.Publishers; ++i)
            m_Publishers.push_back(std::make_unique<Publisher>(protocol, plan.Ports.front()));
    }

    void Run() {
        const std::int64_t start = Now_ns();
        m_LastNews = start;
        while (!Done()) Turn();
        const auto seconds = static_cast<double>(Now_ns() - start) / 1e9;
        Print("deliveries_per_s", static_cast<double>(m_Plan.Clients * Budget()) / seconds);
        Print("postings_per_s", static_cast<double>(Budget()) / seconds);
    }

  private:
    // Whole batches only.
    std::size_t Budget() const { return m_Plan.Messages / m_Protocol.Batch * m_Protocol.Batch; }

    void Turn() {
        std::size_t answered = 0;
        for (const auto& publisher : m_Publishers) {
            publisher->Receive();
            publisher->Fill(m_Plan.InFlight / m_Plan.Publishers, m_Left);
            answered += publisher->Answered();
        }
        // What stands behind several servers shares the cores with the load.
        const std::size_t bytes = m_Clients.Read(m_Plan.Ports.size() > 1 ? 1 : 0);
        if (m_Expected == 0)
            m_Expected = m_Protocol.DeliverySize(m_Clients.First()) * Budget() * m_Plan.Clients;
        if (bytes > 0 || answered != m_Answered) m_LastNews = Now_ns();
        m_Answered = answered;
        errno = ETIMEDOUT;
        Check(Now_ns() - m_LastNews < Silence_ns, "waiting for deliveries");
    }

    bool Done() const { return m_Answered >= Budget() && m_Expected > 0 && m_Clients.Bytes() >= m_Expected; }

    const Protocol& m_Protocol;
    const FanOut m_Plan;
    std::size_t m_Left;
    std::size_t m_Expected = 0;
    std::size_t m_Answered = 0;
    std::int64_t m_LastNews = 0;
    Drain m_Clients;
    std::vector<std::unique_ptr<Publisher>> m_Publishers;
};

}  // namespace

void MeasureFanOut(const Protocol& protocol, const FanOut& plan) {
    FanOutRun(protocol, plan).Run();
}

}  // namespace Bench
