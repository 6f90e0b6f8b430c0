// What the queue's operations come to on the registry's documents. No function here waits or sends.
#pragma once

#include <string>

#include "Registry.h"

namespace Cluster {

/// Keys of the documents.
namespace Key {
std::string Event(const std::string& name);
std::string Timer(const std::string& id);
/// Where a timer's last due time stands that was fired.
std::string Fired(const std::string& id);
std::string Watch(const std::string& node, const std::string& path);
inline const std::string Events = "event.", Timers = "timer.", Fireds = "fired.", Watches = "watch.";
inline const std::string Limits = "limits", Seeded = "seeded";
}  // namespace Key

/// Calls the function with every document whose key begins with `prefix`.
void EachDocument(const Documents& documents, const std::string& prefix,
                  const std::function<void(const std::string&, const PListDict&)>& visit);

Mirel::i32_t LimitOf(const Documents& documents, const std::string& limit, Mirel::i32_t otherwise);

Decision CreateEvent(const Documents& documents, const std::string& name, const PListDict& data,
                     Mirel::i32_t max_listeners);
Decision CreateListener(const Documents& documents, const std::string& name, const std::string& callback,
                        const PListDict* data, const Mirel::UUID& id, Mirel::i32_t max_listeners);
Decision DeleteListener(const Documents& documents, const std::string& name, const Mirel::UUID& id);
Decision DeleteListeners(const Documents& documents, const std::string& name);
/// 404 where there is no such document.
Decision DeleteDocument(const Documents& documents, const std::string& key);
/// Every document whose key begins with one of these.
Decision DeleteDocuments(const Documents& documents, std::initializer_list<std::string> prefixes);
/// A timer and what is known of its firing.
Decision DeleteTimer(const Documents& documents, const std::string& id);
Decision CreateWatch(const Documents& documents, const std::string& node, const PListDict& entry,
                     Mirel::i32_t max_watches);
/// The node's own watch on the path in any letter case, or else another node's.
Decision DeleteWatch(const Documents& documents, const std::string& node, const std::string& path);

/// A timer's document. `interval_sec` of 0: it fires once.
PListDict TimerDocument(const std::string& id, const std::string& event_name, i64_t start_us,
                        i64_t interval_sec, const PListDict* data);

/// Everything that a queue state document adds. `now_us`: what intervals are counted from. Timers get ids of
/// `timer_id(index)`.
Decision ApplyDocument(const Documents& documents, const PListDict& state, const std::string& node,
                       i64_t now_us, const std::function<std::string(std::size_t)>& timer_id,
                       Mirel::i32_t max_listeners, Mirel::i32_t max_watches);

}  // namespace Cluster
