// Writing a tree as text, without recursion. Private to the library.
#pragma once

#include <boost/container/small_vector.hpp>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "plist/PListBody.h"

namespace Velmora {

/// Appends to a string in larger pieces.
class TextOutput {
  public:
    explicit TextOutput(std::string& out) : m_Out(out) {}

    void Put(char c) {
        if (m_Used == sizeof(m_Buffer)) Flush();
        m_Buffer[m_Used++] = c;
    }
    void Put(std::string_view text) {
        if (text.size() > sizeof(m_Buffer) - m_Used) {
            Flush();
            if (text.size() > sizeof(m_Buffer)) {
                m_Out.append(text);
                return;
            }
        }
        std::memcpy(m_Buffer + m_Used, text.data(), text.size());
        m_Used += text.size();
    }
    void Flush() {
        m_Out.append(m_Buffer, m_Used);
        m_Used = 0;
    }

  private:
    std::string& m_Out;
    std::size_t m_Used = 0;
    char m_Buffer[1024];
};

/// Whether `text` is a number as JSON writes it: -? int frac? exp?
bool IsJSONNumber(std::string_view text) noexcept;

inline constexpr std::string_view ReplacementCharacter = "\xEF\xBF\xBD";

/// Shows a tree to a writer, which has Open(type) and Close(type) for lists, Entry() in front of each item of
/// a list, Key(key) behind it in a dictionary, and Scalar(data).
template <class Writer>
class TreeWalk {
  public:
    explicit TreeWalk(Writer& writer) : m_Writer(writer) {}

    void Run(const PListItem& root) {
        Visit(root);
        while (!m_Lists.empty()) Step();
    }

  private:
    struct List {
        const PListBlock* Block;  // a dictionary's, null at its end
        PListArrayBody* Array;    // null for a dictionary
        ui64_t At;
    };

    void Visit(const PListItem& item) {
        const ItemType_t type = item.GetType();
        if (type != IT_DICT && type != IT_ARRAY) {
            m_Writer.Scalar(static_cast<const PListData&>(item));
            return;
        }
        m_Writer.Open(type);
        PListShared* body = PListInside::BodyOf(item);
        if (!body) {
            m_Writer.Close(type);
        } else if (type == IT_DICT) {
            m_Lists.push_back({&static_cast<PListDictBody*>(body)->First, nullptr, 0});
        } else {
            auto* array = static_cast<PListArrayBody*>(body);
            m_Lists.push_back({nullptr, array, array->Begin});
        }
    }

    void Step() {
        List& list = m_Lists.back();
        if (list.Array) {
            StepArray(list);
        } else {
            StepDict(list);
        }
    }

    void StepArray(List& list) {
        if (list.At == list.Array->End) return Leave(IT_ARRAY);
        m_Writer.Entry();
        Visit(*list.Array->SlotAt(list.At++).Get());
    }

    void StepDict(List& list) {
        while (list.Block && list.At == list.Block->Used) {
            list.Block = list.Block->Next;
            list.At = 0;
        }
        if (!list.Block) return Leave(IT_DICT);
        const PListEntry& entry = list.Block->Entries()[list.At++];
        const PListItem* item = entry.Slot.Get();
        if (!item) return;
        m_Writer.Entry();
        m_Writer.Key(entry.key.View());
        Visit(*item);
    }

    void Leave(ItemType_t type) {
        m_Lists.pop_back();
        m_Writer.Close(type);
    }

    Writer& m_Writer;
    boost::container::small_vector<List, 8> m_Lists;
};

}  // namespace Velmora
