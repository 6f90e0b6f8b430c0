// Checking dictionaries from outside against what is expected of them, fault by fault.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "MR_types.h"
#include "VL_PList.h"

namespace Server {

/// One fault of a document, at a JSON pointer (RFC 6901).
struct Fault {
    std::string Pointer;
    std::string What;
};

/// `base` with one more step, escaped as a JSON pointer wants it.
std::string PointerTo(const std::string& base, std::string_view key);
std::string PointerTo(const std::string& base, std::size_t index);

/// The dictionary or array that `item` is, or null (also for a null item).
const Velmora::PListDict* AsDict(const Velmora::PListItem* item);
const Velmora::PListArray* AsArray(const Velmora::PListItem* item);

/// Whether a member must be there.
enum class Need { Optional, Required };

/// While it lives, notes the pointer of every member that this thread's shapes look for: what a document may
/// hold, as far as its objects are there to be looked into. One at a time on a thread.
class SoughtMembers {
  public:
    SoughtMembers();
    ~SoughtMembers();
    SoughtMembers(const SoughtMembers&) = delete;
    SoughtMembers& operator=(const SoughtMembers&) = delete;

    const std::set<std::string>& Pointers() const { return m_Pointers; }

  private:
    friend class Shape;
    std::set<std::string> m_Pointers;
};

/// Takes the members of one dictionary, one call each, and adds a fault for whatever is not as it should be.
/// A member that is absent where it may be, or faulty, reads as nothing. Used by one thread.
class Shape {
  public:
    /// `dict` and `faults` must outlive the object; `base` is the pointer of the dictionary itself.
    Shape(const Velmora::PListDict& dict, std::string base, std::vector<Fault>& faults);

    std::optional<std::string> Text(const std::string& key, Need need = Need::Optional);
    /// The same, and an empty text is a fault.
    std::optional<std::string> NonEmptyText(const std::string& key, Need need = Need::Optional);
    std::optional<bool> Boolean(const std::string& key);
    /// A whole number from `min` to `max`.
    std::optional<Mirel::i64_t> Integer(const std::string& key, Mirel::i64_t min, Mirel::i64_t max);
    /// The same; decimal text is taken as well.
    std::optional<Mirel::i64_t> IntegerOrText(const std::string& key, Mirel::i64_t min, Mirel::i64_t max);
    /// Null where absent or faulty; otherwise the dictionary's own item.
    const Velmora::PListDict* Dict(const std::string& key);
    const Velmora::PListArray* Array(const std::string& key);
    /// A list of non-empty texts; empty where absent. A faulty one is an empty text, so that each keeps its
    /// place.
    std::vector<std::string> Texts(const std::string& key);

    /// Takes a member whatever it holds.
    void Any(const std::string& key);

    /// To be called last: every member that was not taken is a fault, with the name that may have been meant.
    void NothingElse();

    /// Adds a fault of the caller's own at a member, or (with an empty key) at the dictionary.
    void Blame(const std::string& key, const std::string& what);
    /// The same at one item of a list.
    void Blame(const std::string& key, std::size_t index, const std::string& what);

    /// How many faults there are so far, those of others included.
    std::size_t FaultCount() const { return m_Faults.size(); }

  private:
    const Velmora::PListItem* Take(const std::string& key, Need need);
    std::optional<Mirel::i64_t> Number(const std::string& key, const Velmora::PListItem& item,
                                       Mirel::i64_t min, Mirel::i64_t max);

    const Velmora::PListDict& m_Dict;
    const std::string m_Base;
    std::vector<Fault>& m_Faults;
    std::vector<std::string> m_Taken;
};

}  // namespace Server
