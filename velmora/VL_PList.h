// Property lists: the typed tree in which configuration, documents, payloads and answers are held.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "MR_error.h"
#include "MR_types.h"

namespace Velmora {

using Mirel::Result_t;

/// A boolean is one of the two types IT_TRUE and IT_FALSE.
enum ItemType_t {
    IT_STRING = 0,
    IT_TRUE = 1,
    IT_FALSE = 2,
    IT_INT = 3,
    IT_INT64 = 4,
    IT_REAL = 5,
    IT_DATE = 6,
    IT_DATA = 7,
    IT_NULL = 8,
    IT_DICT = 9,
    IT_ARRAY = 10,
};

/// Base of every item of a property list.
///
/// Items are values: a copy is deep, as every observer sees it. Inside, lists are shared and copied on write,
/// so that a copy costs one reference count whatever the size of the tree, and takes no lock.
///
/// Threads: an object (this handle) must not be changed by one thread while another uses it; copies that share
/// their content may be read, changed and destroyed by different threads at the same time.
class MR_EXPORT PListItem {
 public:
    virtual ~PListItem();

    /// Makes the item one of `type`, converting its value where that has a meaning: scalars convert to scalars
    /// through their text (text that does not read as the type becomes its zero value); a list converts to
    /// nothing but its own type. Where no conversion exists nothing changes.
    virtual void ForceType(const ItemType_t& type);

    /// The item as an element of an XML property list: <string>, <true/>, <integer>, <real>, <date>, <data>
    /// (base64), <dict>, <array>; null is an empty <string>. Text is escaped.
    virtual std::string CreateXMLElement() const = 0;

    /// A new deep copy, owned by the caller.
    virtual PListItem* Copy() const = 0;

    /// Appends nothing and replaces `out` by the item's JSON text (RFC 8259), always valid: invalid UTF-8 is
    /// replaced by U+FFFD, 64-bit integers are exact, a real that JSON cannot hold is written as null. Any
    /// depth is written without deep recursion.
    virtual Result_t EncodeJSON(std::string& out) const = 0;

    ItemType_t GetType() const { return m_type; }
    bool HasType(ItemType_t type) const { return m_type == type; }

    /// Builds a tree from JSON text: any valid JSON value, nested at most 256 levels, duplicate keys refused.
    /// Null when the text is refused, with the reason and the position (byte offset) in `why` where that is
    /// given. Integers beyond 64 bits are read as reals.
    static std::unique_ptr<PListItem> CreateFromJSON(const std::string& json, Result_t* why = nullptr);

    /// Deep equality: types, texts, keys, and for dictionaries not the order.
    friend MR_EXPORT bool operator==(const PListItem& lhs, const PListItem& rhs);

 protected:
    explicit PListItem(ItemType_t type) : m_type(type) {}
    PListItem(const PListItem&) = default;
    PListItem& operator=(const PListItem&) = default;

    ItemType_t m_type;
};

}  // namespace Velmora

// The representation is still being worked on; the operations below are settled.
namespace Velmora {

/// A scalar, held as text; the getters read that text as the type asked for.
class MR_EXPORT PListData : public PListItem {
 public:
    /// Empty text.
    PListData();
    explicit PListData(std::string_view text);
    PListData(ItemType_t type, std::string_view text);
    // explicit for int, long long, double, bool as well

    std::string Text() const;
    std::string_view TextView() const;  // valid as long as the item is unchanged

    /// Each reads the text as its type and answers whether it could; `value` is otherwise zero (false).
    bool GetValue(bool& value) const;                        // "true"/"1"… as documented
    bool GetValue(int& value) const;
    bool GetValue(int& value, const int& default_value) const;  // the default when absent or empty
    bool GetValue(long long& value) const;
    bool GetValue(double& value) const;
};
}  // namespace Velmora
