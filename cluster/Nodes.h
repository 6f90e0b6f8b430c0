// Who takes part: each node writes a record of itself every second, which also tells it the engine's time.
#pragma once

#include <atomic>
#include <map>
#include <optional>
#include <string>

#include "MR_mutex.h"
#include "Publisher.h"
#include "StreamReader.h"

namespace Cluster {

class Nodes : private IStreamUser {
  public:
    Nodes(Engine& engine, Publisher& publisher);

    Result_t Start() { return m_Reader.Start(); }
    void BeginStop() { m_Reader.BeginStop(); }
    void Stop() { m_Reader.Stop(); }

    /// Writes this node's record.
    void Announce(PListDict record);

    /// One entry for each node that has written in the last minutes: its record, "node", and how long ago.
    Velmora::PListArray List() const;

    /// The highest "called" of all records with this "epoch", however old they are. Nothing where there are
    /// none.
    std::optional<ui64_t> CalledUpTo(const std::string& epoch) const;

    /// Asks the engine for its time, where that is not known yet: clocks may be minutes apart.
    void LearnTime();
    bool KnowsTime() const { return m_KnowsTime; }
    /// The engine's time, in microseconds, as this machine's clock and the last records have it.
    i64_t EngineTime_us() const;

  private:
    struct Record {
        PListDict Content;
        i64_t Time_us = 0;  // the engine's
    };

    ui64_t Begin(const StreamFacts& facts) override;
    void Receive(const StreamMessage& message) override;
    void ReachedEnd(ui64_t) override {}

    Engine& m_Engine;
    Publisher& m_Publisher;
    mutable Mirel::Mutex m_Lock;
    std::map<std::string, Record> m_Records GUARDED_BY(m_Lock);
    std::atomic<i64_t> m_Offset_us{0};
    std::atomic<bool> m_KnowsTime{false};
    StreamReader m_Reader;
};

}  // namespace Cluster
