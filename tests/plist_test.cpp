// Scalars and dictionaries: kinds, values, sharing, comparing and texts.
#include "VL_PList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <deque>
#include <limits>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace Velmora;

std::string JSON(const PListItem& item) {
    std::string out = "replaced";
    EXPECT_TRUE(item.EncodeJSON(out).Success());
    return out;
}

PListDict Dict(const std::string& json) {
    const auto item = PListItem::CreateFromJSON(json);
    return item ? static_cast<const PListDict&>(*item) : PListDict();
}

// A copy stays what it was, whichever way what it was taken from is reached and changed, and the other way
// round.
TEST(PListCopy, IsDeepForItemsStoredByPointer) {
    PListDict a;
    auto* sub = new PListDict;
    auto* list = new PListArray;
    auto* leaf = new PListDict;
    a.SetItem("x", sub);
    sub->SetItem("list", list);
    list->Append(leaf);
    leaf->SetValue("n", 1);
    const PListDict b = a;
    const PListDict c = b;
    leaf->SetValue("n", 2);
    sub->SetValue("y", true);
    PListDict d = a;
    leaf->SetValue("n", 3);
    list->Append(PListData("end"));
    EXPECT_EQ(JSON(b), R"({"x":{"list":[{"n":1}]}})");
    EXPECT_EQ(JSON(c), JSON(b));
    EXPECT_EQ(JSON(d), R"({"x":{"list":[{"n":2}],"y":true}})");
    EXPECT_EQ(JSON(a), R"({"x":{"list":[{"n":3},"end"],"y":true}})");
    static_cast<PListDict*>(d.GetItem("x"))->DeleteItem("list");
    EXPECT_EQ(JSON(d), R"({"x":{"y":true}})");
    EXPECT_EQ(JSON(a), R"({"x":{"list":[{"n":3},"end"],"y":true}})");
}

TEST(PListCopy, IsDeepForItemsReachedInside) {
    PListDict a = Dict(R"({"d":{"e":{"v":1}},"l":[1,{"v":1}]})");
    const PListDict before = a;
    auto* e = static_cast<PListDict*>(static_cast<PListDict*>(a.GetItem("d"))->GetItem("e"));
    auto* in_list = static_cast<PListDict*>(static_cast<PListArray*>(a.GetItem("l"))->GetItem(1));
    const PListDict between = a;
    PListDict stored;
    stored.SetItem("copy", a);
    const std::unique_ptr<PListItem> copied(a.Copy());
    e->SetValue("v", 2);
    in_list->SetValue("v", 3);
    const std::string old = R"({"d":{"e":{"v":1}},"l":[1,{"v":1}]})";
    EXPECT_EQ(JSON(before), old);
    EXPECT_EQ(JSON(between), old);
    EXPECT_EQ(JSON(*copied), old);
    EXPECT_EQ(JSON(stored.GetDict("copy")), old);
    EXPECT_EQ(JSON(a), R"({"d":{"e":{"v":2}},"l":[1,{"v":3}]})");

    const PListDict moved = std::move(a);
    e->SetValue("v", 4);  // goes with its dictionary
    EXPECT_EQ(JSON(moved.GetDict("d")), R"({"e":{"v":4}})");
}

TEST(PListCopy, IsSparedWhereNobodyHoldsWhatIsMoved) {
    PListDict free = Dict(R"({"v":1})"), held, dict;
    auto* const inside = new PListDict;
    held.SetItem("inside", inside);
    dict.SetItem("free", std::move(free));
    dict.SetItem("held", std::move(held));
    inside->SetValue("v", 2);
    EXPECT_TRUE(free.Empty());
    dict.SetItem("self", std::move(dict));
    EXPECT_EQ(JSON(dict), R"({"self":{"free":{"v":1},"held":{"inside":{}}}})");
}

TEST(PListCopy, EqualsOnlyWhatIsTheSameInTypeTextAndNumber) {
    const PListDict whole = Dict(R"({"a":[1,[2]],"d":{}})");
    EXPECT_TRUE(whole == Dict(R"({"d":{},"a":[1,[2]]})"));
    for (const char* other :
         {R"({"a":[1,[2]]})", R"({"a":[1,[2]],"d":{},"x":1})", R"({"a":[1,[2]],"e":{}})",
          R"({"a":["1",[2]],"d":{}})", R"({"a":[1,[2]],"d":[]})", R"({"a":[1],"d":{}})",
          R"({"a":[1,[2],3],"d":{}})", R"({"a":[1,[]],"d":{}})", R"({"a":[1,2],"d":{}})"}) {
        EXPECT_FALSE(whole == Dict(other) || Dict(other) == whole) << other;
    }
    EXPECT_FALSE(PListData(1) == PListData("1") || PListDict() == PListArray() || PListDict() == PListData());
}

TEST(PListDict, PointersToItemsStayWhileOthersComeAndGo) {
    PListDict dict;
    auto* first = new PListData(0);
    dict.SetItem("first", first);
    dict.SetValue("inside", 1);
    PListItem* inside = dict.GetItem("inside");
    for (int i = 0; i < 5000; ++i) dict.SetValue("k" + std::to_string(i), i);
    for (int i = 0; i < 5000; i += 2) dict.DeleteItem("k" + std::to_string(i));
    EXPECT_EQ(dict.GetItem("first"), first);
    EXPECT_EQ(dict.GetItem("inside"), inside);
    inside->ForceType(IT_TRUE);
    bool value = false;
    EXPECT_TRUE(dict.GetData("inside").GetValue(value) && value);
    dict.SetItem("first", first);  // the item that is there already
    EXPECT_EQ(dict.GetItem("first"), first);
    dict.SetItem("first", static_cast<PListItem*>(nullptr));
    EXPECT_FALSE(dict.HasItem("first"));
}

// A list of the program's own that counts what has been destroyed.
struct Counted : PListDict {
    explicit Counted(int& count) : m_Count(count) {}
    ~Counted() override { ++m_Count; }
    int& m_Count;
};

TEST(PListDict, DestroysWhatItOwnsOnce) {
    int gone = 0;
    {
        PListDict dict;
        dict.SetItem("k", new Counted(gone));
        dict.SetItem("k", new Counted(gone));
        EXPECT_EQ(gone, 1);
        dict.SetValue("k", "text");
        EXPECT_EQ(gone, 2);
        dict.SetItem("k", new Counted(gone));
        dict.DeleteItem("k");
        EXPECT_EQ(gone, 3);
        auto* list = new PListArray;
        dict.SetItem("list", list);
        list->Append(new Counted(gone));
        list->Append(new Counted(gone));
        const PListDict copy = dict;
        list->DeleteFirst();
        EXPECT_EQ(gone, 4);
        EXPECT_EQ(copy.GetArray("list").Size(), 2U);
    }
    EXPECT_EQ(gone, 5);
}

TEST(PListDict, MayStoreItselfAndPartsOfItself) {
    PListDict dict = Dict(R"({"k":{"j":"a text that is too long to stand inside its item"}})");
    dict.SetItem("self", dict);
    dict.SetItem("k", dict);
    EXPECT_EQ(dict.GetDict("k").GetDict("self").Size(), 1U);
    dict = dict.GetDict("k").GetDict("k");
    const PListDict shared = dict;
    dict.SetValue("j", dict.GetData("j").TextView());
    dict.SetValue(dict.GetData("j").TextView(), dict.GetData("j").TextView());
    dict.SetItem("j", dict.GetData("j"));
    EXPECT_EQ(dict.Size(), 2U);
    EXPECT_EQ(dict.GetData("j").TextView(), dict.GetData(dict.GetData("j").TextView()).TextView());
    for (const std::string key : {"j", "b"}) {  // a key's own text names what is removed
        for (const auto& entry : PListDict(dict)) dict.DeleteItem(entry.key);
        EXPECT_TRUE(dict.Empty());
        dict.SetValue(key, "x");
        dict.DeleteItem((*dict.begin()).key);
        dict = shared;
    }
    dict.SetItem("inner", new PListDict(Dict(R"({"x":1})")));
    dict = std::move(*static_cast<PListDict*>(dict.GetItem("inner")));
    EXPECT_EQ(JSON(dict), R"({"x":1})");
    dict = *&dict;
    EXPECT_EQ(dict.Size(), 1U);

    PListArray array;
    array.Append(array);
    array.Append(array);
    array.Append(*array.GetItem(1));
    EXPECT_EQ(JSON(array), "[[],[[]],[[]]]");
}

// Random sets, replacements, removals and copies against a plain list of pairs.
TEST(PListDict, KeepsOrderLikeItsModel) {
    std::mt19937 random(7);
    for (const unsigned keys : {3U, 12U, 40U, 5000U}) {
        PListDict dict;
        PListDict old;
        std::deque<std::pair<std::string, int>> model;
        std::deque<std::pair<std::string, int>> old_model;
        for (int step = 0; step < 3000; ++step) {
            const std::string key = "key" + std::to_string(random() % keys);
            const auto at = std::find_if(model.begin(), model.end(), [&](auto& e) { return e.first == key; });
            if (random() % 3 == 0) {
                dict.DeleteItem(key);
                if (at != model.end()) model.erase(at);
            } else {
                dict.SetValue(key, step);
                if (at != model.end()) at->second = step;
                if (at == model.end()) model.emplace_back(key, step);
            }
            if (random() % 64 == 0) old = dict, old_model = model;
            if (random() % 256 == 0) dict = old, model = old_model;
            if (random() % 256 == 0 && !model.empty()) dict.GetItem(model.back().first);
        }
        for (auto& [list, expected] : {std::pair(&dict, &model), std::pair(&old, &old_model)}) {
            std::deque<std::pair<std::string, int>> found;
            for (const auto& [key, item] : *list) {
                int value = -1;
                EXPECT_TRUE(static_cast<const PListData&>(item).GetValue(value));
                found.emplace_back(key, value);
                EXPECT_EQ(list->GetData(key).Text(), std::to_string(value));
            }
            EXPECT_EQ(found, *expected);
            EXPECT_EQ(list->Size(), expected->size());
        }
    }
}

TEST(PListDict, AbsentItemsReadAsEmpty) {
    const PListDict dict = Dict(R"({"d":{},"a":[],"s":"","t":"x"})");
    EXPECT_EQ(dict.GetItem("absent"), nullptr);
    for (const char* key : {"absent", "d", "a", "s"}) {
        int value = 5;
        long long value64 = 5;
        bool flag = true;
        EXPECT_EQ(dict.GetData(key).TextView(), "");
        EXPECT_FALSE(dict.GetData(key).GetValue(value) || dict.GetData(key).GetValue(value64));
        EXPECT_FALSE(dict.GetData(key).GetValue(flag));
        EXPECT_TRUE(value == 0 && value64 == 0 && !flag);
        EXPECT_FALSE(dict.GetData(key).GetValue(value, 7));
        EXPECT_EQ(value, 7);
    }
    int value = 5;
    EXPECT_FALSE(dict.GetData("t").GetValue(value, 7));
    EXPECT_EQ(value, 0);
    EXPECT_TRUE(dict.GetDict("a").Empty() && dict.GetArray("d").Empty() && dict.GetDict("absent").Empty());
}

TEST(PListData, ReadsItsText) {
    struct {
        PListData data;
        bool int_ok;
        int int_value;
        bool int64_ok;
        long long int64_value;
        bool bool_ok;
        bool bool_value;
    } const table[] = {
        {PListData("12"), true, 12, true, 12, true, true},
        {PListData("-0"), true, 0, true, 0, true, false},
        {PListData("+7"), true, 7, true, 7, true, true},
        {PListData("+-7"), false, 0, false, 0, false, false},
        {PListData(" 7"), false, 0, false, 0, false, false},
        {PListData("7x"), false, 0, false, 0, false, false},
        {PListData("3.9"), false, 0, false, 0, true, true},
        {PListData(-3.9), true, -3, true, -3, true, true},
        {PListData(2147483647.9), true, INT_MAX, true, INT_MAX, true, true},
        {PListData(2147483648.0), false, 0, true, 2147483648LL, true, true},
        {PListData(9223372036854775808.0), false, 0, false, 0, true, true},
        {PListData(std::nan("")), false, 0, false, 0, false, false},
        {PListData(LLONG_MIN), false, 0, true, LLONG_MIN, true, true},
        {PListData("9223372036854775808"), false, 0, false, 0, true, true},
        {PListData(true), true, 1, true, 1, true, true},
        {PListData(false), true, 0, true, 0, true, false},
        {PListData("YES"), false, 0, false, 0, true, true},
        {PListData("no"), false, 0, false, 0, true, false},
        {PListData("infinity"), false, 0, false, 0, false, false},
        {PListData(IT_NULL, "x"), false, 0, false, 0, false, false},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.data.Text());
        int value = 99;
        long long value64 = 99;
        bool flag = !row.bool_value;
        EXPECT_EQ(row.data.GetValue(value), row.int_ok);
        EXPECT_EQ(row.data.GetValue(value64), row.int64_ok);
        EXPECT_EQ(row.data.GetValue(flag), row.bool_ok);
        EXPECT_EQ(value, row.int_value);
        EXPECT_EQ(value64, row.int64_value);
        EXPECT_EQ(flag, row.bool_value);
    }
    PListDict dict;
    dict.SetValue("literal", "false");  // a text, not a boolean
    EXPECT_TRUE(dict.GetData("literal").HasType(IT_STRING));
}

TEST(PListData, IsForcedIntoOtherTypes) {
    PListData data("41.7");
    for (const auto& [type, text] : {std::pair(IT_REAL, "41.7"),
                                     {IT_INT, "41"},
                                     {IT_DICT, "41"},
                                     {IT_STRING, "41"},
                                     {IT_INT64, "41"},
                                     {IT_TRUE, "true"},
                                     {IT_REAL, "1.0"},
                                     {IT_FALSE, "false"},
                                     {IT_INT, "0"},
                                     {IT_NULL, ""}}) {
        data.ForceType(type);
        EXPECT_EQ(data.TextView(), text);
        EXPECT_EQ(data.HasType(type), type != IT_DICT);
    }
}

// Recursion would not survive as many levels.
constexpr int Levels = 100000;

template <class Wrap>
PListDict DeepTree(Wrap wrap) {
    PListDict tree;
    for (int i = 0; i < Levels; ++i) tree = wrap(std::move(tree));
    return tree;
}

TEST(PListDeep, IsNoDangerToTheStack) {
    const PListDict shared = DeepTree([](PListDict&& inner) {
        PListDict outer;
        PListArray array;
        array.Append(inner);
        outer.SetItem("k", array);
        return outer;
    });
    PListDict marked = DeepTree([](PListDict&& inner) {
        PListDict outer;
        auto* array = new PListArray;
        outer.SetItem("k", array);
        array->Append(new PListDict(std::move(inner)));
        return outer;
    });
    const PListDict copy = marked;
    EXPECT_TRUE(copy == shared);
    marked.SetValue("other", 1);
    EXPECT_FALSE(copy == marked);
    EXPECT_EQ(JSON(copy).size(), Levels * 8U + 2);
    EXPECT_EQ(copy.CreateXMLElement(), shared.CreateXMLElement());
    const auto read = PListItem::CreateFromJSON(JSON(copy), nullptr, PListItem::AnyDepth);
    EXPECT_TRUE(read && *read == shared);
}

TEST(PListThreads, SharedListsAreReadChangedAndDestroyedAnywhere) {
    PListDict origin =
        Dict(R"({"name":"a name that does not stand inside","sub":{"n":0},"list":[1,2,3,4,5]})");
    auto* own = new PListDict;
    origin.SetItem("own", own);
    own->SetItem("deep", new PListDict);
    const std::string text = JSON(origin);
    const PListDict plain = origin;
    std::vector<std::jthread> threads;
    for (int id = 0; id < 4; ++id) {
        threads.emplace_back([&origin, plain, &text, id] {
            std::deque<PListDict> kept;
            for (int i = 0; i < 3000; ++i) {
                PListDict copy = i % 2 ? origin : plain;
                EXPECT_TRUE(copy == origin);
                kept.push_back(copy);
                copy.SetValue("name", id);
                static_cast<PListDict*>(copy.GetItem("sub"))->SetValue("n", i);
                static_cast<PListArray*>(copy.GetItem("list"))->DeleteFirst();
                EXPECT_EQ(copy.GetDict("sub").GetData("n").Text(), std::to_string(i));
                if (kept.size() > 20) kept.pop_front();
            }
            EXPECT_EQ(JSON(kept.back()), text);
        });
    }
    threads.clear();
    EXPECT_EQ(JSON(origin), text);
}

}  // namespace
