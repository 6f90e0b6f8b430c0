// Where deliveries that must not be lost are kept outside of the process.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "deliveries/Delivery.h"

namespace Server {

/// An event's name and a callback: what names a listener over restarts.
using ListenerKey = std::pair<std::string, std::string>;

/// Keeps waiting and dead deliveries, and the listeners' status. Nothing is kept by this one: where retries
/// belong to nobody but this process. A journal on the disk is one kind, a cluster's stream can be another.
/// All functions may be called from any thread.
class DeliveryStore {
  public:
    virtual ~DeliveryStore() = default;

    /// Whether Put() keeps anything.
    virtual bool Keeps() const { return false; }
    /// Notes that the delivery is as it is now; kept with the next Commit().
    virtual void Put(const Delivery&) {}
    /// The same for one that is not needed any more.
    virtual void Remove(Mirel::ui64_t) {}
    virtual void PutStatus(const ListenerKey&, const ListenerStatus&) {}
    virtual void RemoveStatus(const ListenerKey&) {}
    /// Keeps all that was noted before the call, for good, before it returns. False where that failed; what
    /// could not be kept is tried again with the next one.
    virtual bool Commit() { return true; }
    /// How often a Commit() failed.
    virtual Mirel::ui64_t Failures() const { return 0; }
    /// What was kept, in order of the ids.
    virtual void Load(std::vector<Delivery>&, std::map<ListenerKey, ListenerStatus>&) {}
};

}  // namespace Server
