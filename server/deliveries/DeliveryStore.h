// Where deliveries that must not be lost are kept outside of the process.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "deliveries/Delivery.h"

namespace Server {

/// An event's name and a callback: what names a listener over restarts.
using ListenerKey = std::pair<std::string, std::string>;

/// Learns from a store that several servers share what is due and what became of the others' deliveries. All
/// functions may be called on any thread, and do not wait.
class IDeliveryTaker {
  public:
    virtual ~IDeliveryTaker() = default;
    /// The delivery is now as another server says: waiting or dead, or ended, with nothing but its id and
    /// what became of it.
    virtual void Learn(Delivery delivery) = 0;
    /// It is not there any more.
    virtual void Forget(Mirel::ui64_t id) = 0;
    /// Of what the store had, these ids are all that there is.
    virtual void ForgetAllBut(const std::set<Mirel::ui64_t>& ids) = 0;
    /// This server is to make the next attempt, and says with the token when that has come to something.
    /// False: there is no room for it now.
    virtual bool TakeOver(Delivery delivery) = 0;
    /// The store cannot have it: it is for this server alone.
    virtual void KeepAlone(Mirel::ui64_t id) = 0;
};

/// Keeps waiting and dead deliveries, and the listeners' status. Nothing is kept by this one: where retries
/// belong to nobody but this process. A journal on the disk is one kind, a cluster's stream another. All
/// functions may be called from any thread.
class DeliveryStore {
  public:
    virtual ~DeliveryStore() = default;

    /// Whether Put() keeps anything.
    virtual bool Keeps() const { return false; }
    /// Whether what waits belongs to several servers: it is the store that says when one of them goes on.
    virtual bool Shared() const { return false; }
    /// Whom a shared store tells, from now on.
    virtual void Tell(IDeliveryTaker&) {}
    /// Notes that the delivery is as it is now; kept with the next Commit(). Its token is held until then.
    virtual void Put(const Delivery&) {}
    /// Notes that it needs no further attempt: nothing of it is kept here.
    virtual void PutEnd(const Delivery& delivery) { Remove(delivery.Id); }
    /// The same for one that is gone.
    virtual void Remove(Mirel::ui64_t) {}
    virtual void PutStatus(const ListenerKey&, const ListenerStatus&) {}
    virtual void RemoveStatus(const ListenerKey&) {}
    /// Keeps all that was noted before the call, for good, before it returns. False where that failed; what
    /// could not be kept is tried again with the next one.
    virtual bool Commit() { return true; }
    /// The same, without waiting for others.
    virtual void CommitSoon() { Commit(); }
    /// Why what was noted is not kept, for people; empty where it is.
    virtual std::string Trouble() const { return {}; }
    /// How often a Commit() failed.
    virtual Mirel::ui64_t Failures() const { return 0; }
    /// What was kept, in order of the ids.
    virtual void Load(std::vector<Delivery>&, std::map<ListenerKey, ListenerStatus>&) {}
};

}  // namespace Server
