// Property lists: the typed tree in which configuration, documents, payloads and answers are held.
#pragma once

#include <cstddef>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "MR_error.h"
#include "MR_types.h"
#include "VL_PListText.h"

/// The framework library: property lists, URLs and the HTTP client, broadcasting, sockets.
namespace Velmora {

using Mirel::Result_t;

/// Types of items. A boolean is one of the two types IT_TRUE and IT_FALSE.
enum ItemType_t {
    IT_STRING = 0,  ///< text
    IT_TRUE = 1,    ///< true
    IT_FALSE = 2,   ///< false
    IT_INT = 3,     ///< an integer of 32 bits, signed
    IT_INT64 = 4,   ///< an integer of 64 bits, signed
    IT_REAL = 5,    ///< any other number
    IT_DATE = 6,    ///< a date, as text
    IT_DATA = 7,    ///< bytes, as base64 text
    IT_NULL = 8,    ///< nothing
    IT_DICT = 9,    ///< a PListDict
    IT_ARRAY = 10,  ///< a PListArray
};

class PListArray;
class PListDict;

// How lists are held; of no concern to their users.
struct PListArrayBody;
struct PListBlock;
struct PListDictBody;
struct PListInside;

/// Base of every item of a property list: a PListData (scalar), a PListDict or a PListArray.
///
/// Items are values: a copy is deep, as every observer sees it. Inside, lists are shared and copied on write,
/// so that a copy costs one reference count whatever the size of the tree, and takes no lock. The exception:
/// a list from which changeable items were handed out (SetItem and Append with a pointer, GetItem on a list
/// that is not const) is copied entry by entry, as those items may change behind its back; the copy itself
/// copies freely again.
///
/// Pointers and references to a stored item: what came from a const list is valid until that list is changed
/// or destroyed. What was stored by pointer, or came from GetItem on a list that is not const, stays valid
/// until that very item is replaced or removed or its list destroyed or assigned to.
///
/// Threads: an object (this handle) must not be changed by one thread while another uses it; copies that
/// share their content may be read, changed and destroyed by different threads at the same time.
///
/// Trees of any depth are copied, compared, written and destroyed without deep recursion.
///
/// A program may derive from the three (to follow an item's life, say) and store what it derived by pointer;
/// copies are plain items again.
///
/// Binary interface: the destructor and the virtual operations in this order are the first of every item.
/// None may be moved, added in front or between, or added behind, where those of programs stand.
class MR_EXPORT PListItem {
  public:
    virtual ~PListItem();

    /// Makes the item one of `type`, converting its value where that has a meaning: scalars convert to
    /// scalars through their text (text that does not read as the type becomes its zero value; IT_TRUE and
    /// IT_FALSE are their own value); a list converts to nothing but its own type. Where no conversion exists
    /// nothing changes.
    virtual void ForceType(const ItemType_t& type);

    /// The item as an element of an XML property list: `<string>`, `<true/>`, `<integer>`, `<real>`,
    /// `<date>`, `<data>` (base64), `<dict>`, `<array>`; null is an empty `<string>`. Text is escaped; what
    /// XML cannot hold (invalid UTF-8, control characters) is replaced by U+FFFD.
    virtual std::string CreateXMLElement() const = 0;

    /// A new deep copy, owned by the caller.
    virtual PListItem* Copy() const = 0;

    /// Appends nothing and replaces `out` by the item's JSON text (RFC 8259), always valid, which
    /// CreateFromJSON reads back with AnyDepth: different keys and texts stay different. Each byte that is
    /// not UTF-8 is written as an escape from `\udc80` to `\udcff`, half of a surrogate pair that stands for
    /// it and for nothing else (RFC 8259, section 8.2, has strings with such halves). Numbers keep their text
    /// where JSON has such a number; 64-bit integers are exact; an infinity, or what is no number, is written
    /// as null. Dates and data are written as their text. Keys are written in their order. Always RESULT_OK.
    virtual Result_t EncodeJSON(std::string& out) const = 0;

    /// What kind of item it is.
    ItemType_t GetType() const { return m_type; }
    /// Whether it is of that type.
    bool HasType(ItemType_t type) const { return m_type == type; }

    /// How deep a JSON text from outside may be nested. What it is stored in adds levels of its own: whatever
    /// this library has written is to be read with AnyDepth, which needs no more of the stack.
    static constexpr std::size_t UsualDepth = 256;
    /// No limit.
    static constexpr std::size_t AnyDepth = static_cast<std::size_t>(-1);

    /// Builds a tree from JSON text: any valid JSON value, nested at most `max_depth` levels, duplicate keys
    /// refused, and halves of surrogate pairs but those that EncodeJSON writes. Null when the text is
    /// refused, with the reason and the position (byte offset) in `why` where that is given. Integers of 32
    /// bits become IT_INT, of 64 bits IT_INT64; all other numbers become IT_REAL and keep the text they were
    /// written in, so that no digit is lost, also where no double can hold them.
    static std::unique_ptr<PListItem> CreateFromJSON(const std::string& json, Result_t* why = nullptr,
                                                     std::size_t max_depth = UsualDepth);

    /// Deep equality: types, texts, keys, and for dictionaries not the order.
    friend MR_EXPORT bool operator==(const PListItem& lhs, const PListItem& rhs);

  protected:
    /// An item of that type, which the derived class fills.
    explicit PListItem(ItemType_t type) : m_type(type) {}
    PListItem(const PListItem&) = default;             ///< for derived classes: copies the type
    PListItem& operator=(const PListItem&) = default;  ///< for derived classes: copies the type

    ItemType_t m_type;  ///< what GetType() tells
};

/// A scalar, held as text; the getters read that text as the type asked for. The text of IT_DATA is base64,
/// and that of IT_DATE is a date, as whoever made the item wrote it.
class MR_EXPORT PListData : public PListItem {
  public:
    /// Empty text.
    PListData();
    explicit PListData(std::string_view text);  ///< an IT_STRING
    /// An IT_STRING.
    explicit PListData(const std::string& text) : PListData(std::string_view(text)) {}
    /// An IT_STRING; `text` is not null.
    explicit PListData(const char* text) : PListData(std::string_view(text)) {}
    explicit PListData(int value);        ///< an IT_INT
    explicit PListData(long long value);  ///< an IT_INT64
    explicit PListData(double value);     ///< the shortest text that reads back as the same real, as "5.0"
    explicit PListData(bool value);       ///< an IT_TRUE or IT_FALSE
    /// The text as it stands, whether it reads as the type or not; a boolean's text is always "true" or
    /// "false", null's is empty. A type that is no scalar's makes an IT_STRING.
    PListData(ItemType_t type, std::string_view text);
    template <class T>
    requires(!std::is_same_v<std::remove_cv_t<T>, char>) explicit PListData(T*) =
        delete;  // no pointer becomes a boolean

    PListData(const PListData& other);                 ///< shares a longer text
    PListData(PListData&& other) noexcept;             ///< the other is left with an empty text
    PListData& operator=(const PListData& other);      ///< type and text become the other's
    PListData& operator=(PListData&& other) noexcept;  ///< the other is left with an empty text
    ~PListData() override;

    void ForceType(const ItemType_t& type) override;
    std::string CreateXMLElement() const override;
    PListItem* Copy() const override;
    Result_t EncodeJSON(std::string& out) const override;

    /// The value's text.
    std::string Text() const { return std::string(TextView()); }
    /// The same in place: valid as long as the item is unchanged.
    std::string_view TextView() const { return m_Text.View(); }

    /// Each reads the text as its type and answers whether it could; `value` is otherwise zero (false).
    ///
    /// A number is read from the whole text, an optional sign in front and nothing around it. Integers: a
    /// boolean reads as 1 or 0, a real is cut towards zero where the type can hold it, and a number out of
    /// the type's range does not read. Booleans: "true", "yes" and "false", "no" in any letter case, and
    /// numbers, of which all but 0 are true.
    ///@{
    bool GetValue(bool& value) const;
    bool GetValue(int& value) const;
    bool GetValue(long long& value) const;
    bool GetValue(double& value) const;
    ///@}
    /// The same with a default for empty text, which an absent key has; false is answered then, too.
    bool GetValue(int& value, const int& default_value) const;

  private:
    // Stands in the padding behind the type: an item has 32 bytes, and 19 characters need no memory of their
    // own.
    CompactText<20> m_Text;
};

/// A sequence, appended at the end and removed from the front. Items are held in chunks which copies share: a
/// change to an array of which there are copies costs one pointer per chunk and at most one chunk of items.
class MR_EXPORT PListArray : public PListItem {
  public:
    PListArray();                                        ///< an empty array
    PListArray(const PListArray& other);                 ///< a deep copy
    PListArray(PListArray&& other) noexcept;             ///< the other is left empty
    PListArray& operator=(const PListArray& other);      ///< a deep copy; what was in it is destroyed
    PListArray& operator=(PListArray&& other) noexcept;  ///< the other is left empty
    ~PListArray() override;

    std::string CreateXMLElement() const override;
    PListItem* Copy() const override;
    Result_t EncodeJSON(std::string& out) const override;

    /// Takes ownership of `item`, made with new and owned by nobody else, which stays where it is and may be
    /// changed through the pointer later. Null appends nothing.
    void Append(PListItem* item);
    /// Stores a copy, which may be of the array itself or of an item in it.
    void Append(const PListItem& item);
    /// As above, but takes a list's content over where nobody may hold any of it to change.
    void Append(PListItem&& item);

    /// Number of items.
    std::size_t Size() const;
    /// Whether there is none.
    bool Empty() const { return Size() == 0; }

    /// The item at `index`, counted from 0. Null beyond the end.
    const PListItem* GetItem(std::size_t index) const;
    /// As above, to be changed. Costs an own copy of the item's chunk where copies share it.
    PListItem* GetItem(std::size_t index);
    /// The first item; the array must not be empty.
    const PListItem& Front() const { return *GetItem(0); }

    /// Removes and destroys the first item, if there is one.
    void DeleteFirst();
    /// Splits the first `count` items (all, if there are fewer) off into an array of their own. Costs a
    /// pointer per chunk and no more than one chunk of items, and destroys nothing, so that items may leave
    /// under a lock and be destroyed after it. Pointers got from GetItem end; items stored by pointer stay
    /// where they are.
    PListArray TakeFirst(std::size_t count);
    /// Removes and destroys all items.
    void Clear();

    /// Walks the items; any change of the array ends the walk. A forward iterator of the standard library.
    class MR_EXPORT const_iterator {
      public:
        /// @cond the standard library's names
        using iterator_category = std::forward_iterator_tag;
        using value_type = PListItem;
        using difference_type = std::ptrdiff_t;
        using pointer = const PListItem*;
        using reference = const PListItem&;

        const_iterator() = default;
        reference operator*() const { return *m_Array->GetItem(m_Index); }
        pointer operator->() const { return m_Array->GetItem(m_Index); }
        const_iterator& operator++() {
            ++m_Index;
            return *this;
        }
        const_iterator operator++(int) {
            const_iterator before(*this);
            ++m_Index;
            return before;
        }
        bool operator==(const const_iterator&) const = default;
        /// @endcond

      private:
        friend class PListArray;
        const_iterator(const PListArray* array, std::size_t index) : m_Array(array), m_Index(index) {}
        const PListArray* m_Array = nullptr;
        std::size_t m_Index = 0;
    };
    /// At the first item.
    const_iterator begin() const { return {this, 0}; }
    /// Behind the last item.
    const_iterator end() const { return {this, Size()}; }

  private:
    friend struct PListInside;
    PListArrayBody* m_Body = nullptr;  // null: empty
};

/// A dictionary. Keys keep the order in which they were added; a replaced item keeps its key's place. Look-up
/// and removal cost the same in large dictionaries as in small ones, whoever chose the keys.
class MR_EXPORT PListDict : public PListItem {
  public:
    PListDict();                                       ///< an empty dictionary
    PListDict(const PListDict& other);                 ///< a deep copy
    PListDict(PListDict&& other) noexcept;             ///< the other is left empty
    PListDict& operator=(const PListDict& other);      ///< a deep copy; what was in it is destroyed
    PListDict& operator=(PListDict&& other) noexcept;  ///< the other is left empty
    ~PListDict() override;

    std::string CreateXMLElement() const override;
    PListItem* Copy() const override;
    /// Replaces the content by a deep copy of the other's.
    void Copy(const PListDict& other);
    Result_t EncodeJSON(std::string& out) const override;

    /// The item under `key`. Null when there is none.
    const PListItem* GetItem(std::string_view key) const;
    /// As above, to be changed. Prefer HasItem, GetData, GetDict and GetArray for reading: this one makes
    /// later copies of the dictionary cost its size.
    PListItem* GetItem(std::string_view key);

    /// The scalar, dictionary or array under `key`; an empty one, which lives as long as the program, when
    /// there is nothing of that kind.
    ///@{
    const PListData& GetData(std::string_view key) const;
    const PListDict& GetDict(std::string_view key) const;
    const PListArray& GetArray(std::string_view key) const;
    ///@}

    /// Stores `item`, made with new and owned by nobody else, and takes ownership. The item stays where it is
    /// and may be changed through the pointer later. The item that is already there may be stored again,
    /// which changes nothing; null removes the key.
    void SetItem(std::string_view key, PListItem* item);
    /// Stores a copy, which may be of the dictionary itself or of an item in it.
    void SetItem(std::string_view key, const PListItem& item);
    /// As above, but takes a list's content over where nobody may hold any of it to change.
    void SetItem(std::string_view key, PListItem&& item);

    /// Stores a scalar of the value's type. Keys and texts may be views into what is being replaced.
    ///@{
    void SetValue(std::string_view key, std::string_view text);
    void SetValue(std::string_view key, const std::string& text) { SetValue(key, std::string_view(text)); }
    void SetValue(std::string_view key, const char* text) { SetValue(key, std::string_view(text)); }
    void SetValue(std::string_view key, const int& value);
    void SetValue(std::string_view key, const long long& value);
    void SetValue(std::string_view key, const double& value);
    void SetValue(std::string_view key, const bool& value);
    ///@}
    template <class T>
    requires(!std::is_same_v<std::remove_cv_t<T>, char>) void SetValue(std::string_view key, T* value) =
        delete;  // no pointer becomes a boolean

    /// Removes and destroys the item under `key`, if there is one.
    void DeleteItem(std::string_view key);

    /// Whether there is an item under `key`.
    bool HasItem(std::string_view key) const;
    /// Number of entries.
    std::size_t Size() const;
    /// Whether there is none.
    bool Empty() const { return Size() == 0; }
    /// Removes and destroys all items.
    void Clear();

    /// What the iterator gives: valid as long as the dictionary is unchanged.
    struct Entry {
        std::string_view key;   ///< the entry's key
        const PListItem& item;  ///< what stands under it
    };

    /// Walks the entries in their order; any change of the dictionary ends the walk. An input iterator of the
    /// standard library.
    class MR_EXPORT const_iterator {
      public:
        /// @cond the standard library's names
        using iterator_category = std::input_iterator_tag;
        using value_type = Entry;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = Entry;

        const_iterator() = default;
        Entry operator*() const;
        const_iterator& operator++();
        void operator++(int) { ++*this; }
        bool operator==(const const_iterator&) const = default;
        /// @endcond

      private:
        friend class PListDict;
        const_iterator(const PListBlock* block, Mirel::ui32_t index);
        void SkipRemoved();
        const PListBlock* m_Block = nullptr;  // null: at the end
        Mirel::ui32_t m_Index = 0;
    };
    /// At the first entry.
    const_iterator begin() const;
    /// Behind the last entry.
    const_iterator end() const { return {}; }

  private:
    friend struct PListInside;
    PListDictBody* m_Body = nullptr;  // null: empty
};

}  // namespace Velmora
