// The registry that all nodes share: documents by key in a stream of the engine's, of which each node holds a
// copy. A change is stored where this node's copy was the newest, and decided anew where it was not.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "MR_mutex.h"
#include "Publisher.h"
#include "StreamReader.h"
#include "VL_PList.h"

namespace Cluster {

using Documents = std::map<std::string, PListDict>;

/// One key that a change writes; without a value it is deleted.
struct Put {
    std::string Key;
    std::optional<PListDict> Value;
};

/// What a change comes to, on the documents as they are.
struct Decision {
    Velmora::Status_t Status = Velmora::STATUS_201_CREATED;
    std::vector<Put> Puts;  // one after the other
};
using Decide = std::function<Decision(const Documents&)>;

/// Whoever applies the documents. Called on the reader's thread, under no lock of the registry's.
class IRegistryUser {
  public:
    virtual ~IRegistryUser() = default;
    /// `before` and `after` are null where there is no document.
    virtual void Apply(const std::string& key, const PListDict* before, const PListDict* after) = 0;
};

class Registry : private IStreamUser {
  public:
    Registry(Engine& engine, Publisher& publisher, IRegistryUser& user);

    Result_t Start() { return m_Reader.Start(); }
    void BeginStop() { m_Reader.BeginStop(); }
    void Stop();

    /// Makes a change, waiting for the engine until `deadline`. What the decision's status says is answered
    /// where it puts nothing, or all of it is stored and applied here; otherwise `sent` says why it is not.
    Velmora::Status_t Change(const Decide& decide, Publisher::Time deadline, Sent& sent);

    /// Puts one document whatever else has changed.
    void PutAnyway(const std::string& key, const PListDict& value, Publisher::Done done);

    /// Calls the function with the documents, under the lock.
    void Look(const std::function<void(const Documents&)>& look) const;

    ui64_t Revision() const { return m_Revision; }
    ui64_t RefusedChanges() const { return m_Refused; }
    /// Whether it was read to its end once.
    bool WasRead() const { return m_WasRead; }
    bool WaitUntilRead(Publisher::Time deadline);
    /// Until this node's copy is as new as that.
    bool WaitFor(ui64_t revision, Publisher::Time deadline);

  private:
    ui64_t Begin(const StreamFacts& facts) override;
    void Receive(const StreamMessage& message) override;
    void ReachedEnd(ui64_t last) override;

    void ApplyOne(const std::string& key, std::optional<PListDict> after);
    void Reached(ui64_t revision);
    bool IsNewest(ui64_t revision, Publisher::Time deadline);
    Sent Store(const std::vector<Put>& puts, ui64_t revision, const std::string& id,
               Publisher::Time deadline);
    Sending SendingOf(const Put& put) const;

    Engine& m_Engine;
    Publisher& m_Publisher;
    IRegistryUser& m_User;
    Mirel::Mutex m_ChangeLock ACQUIRED_BEFORE(m_Lock);  // one change of this node at a time
    mutable Mirel::Mutex m_Lock;
    Mirel::Condition m_Came;
    Documents m_Documents GUARDED_BY(m_Lock);
    bool m_Stopped GUARDED_BY(m_Lock) = false;
    std::string m_ChangeId GUARDED_BY(m_Lock);          // of this node's change that is being stored
    std::size_t m_ChangeStored GUARDED_BY(m_Lock) = 0;  // how much of it has come back
    std::atomic<ui64_t> m_Revision{0}, m_Refused{0};
    std::atomic<bool> m_WasRead{false};
    StreamReader m_Reader;  // the last: its thread uses what stands before it
};

}  // namespace Cluster
