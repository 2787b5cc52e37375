#include "libkvc/dlist.h"

#include <gtest/gtest.h>

#include <climits>

#include <vector>

namespace {

struct Item {
    int key;
    int tag; // distinguishes equal keys
    Item* next;
    Item* prev;
};

int byKey(const void* a, const void* b)
{
    return static_cast<const Item*>(a)->key - static_cast<const Item*>(b)->key;
}

class DListTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        Item sample{};
        DList_makeDList(&list, &sample, &sample.next, &sample.prev, byKey);
    }

    // Fills the list with items keyed 0..n-1, in order.
    void fill(int n)
    {
        items.resize(static_cast<size_t>(n));
        for (int i = 0; i < n; ++i) {
            items[static_cast<size_t>(i)] = Item{i, 0, nullptr, nullptr};
            DList_insertLast(&list, &items[static_cast<size_t>(i)]);
        }
    }

    std::vector<int> keys() const
    {
        std::vector<int> out;
        for (auto* p = static_cast<const Item*>(list.pHead); p; p = p->next) {
            out.push_back(p->key);
        }
        return out;
    }

    // Walks both directions and checks every invariant of the header.
    void expectConsistent() const
    {
        int n = 0;
        const Item* prev = nullptr;
        for (auto* p = static_cast<const Item*>(list.pHead); p; p = p->next, ++n) {
            ASSERT_EQ(p->prev, prev);
            prev = p;
        }
        EXPECT_EQ(prev, list.pTail);
        EXPECT_EQ(n, list.iElemCnt);
    }

    DList list{};
    std::vector<Item> items;
};

TEST_F(DListTest, EmptyListAccessorsReturnNull)
{
    EXPECT_EQ(DList_getFirst(&list), nullptr);
    EXPECT_EQ(DList_getLast(&list), nullptr);
    EXPECT_EQ(DList_getAt(&list, 0), nullptr);
    EXPECT_EQ(DList_getAt(&list, 1000), nullptr);
    EXPECT_EQ(DList_getAt(&list, DList_getIdxFromPtr(&list, nullptr)), nullptr);
    EXPECT_EQ(DList_removeFirst(&list), nullptr);
    EXPECT_EQ(DList_removeLast(&list), nullptr);
    EXPECT_EQ(DList_removeAt(&list, 0), nullptr);
    EXPECT_EQ(DList_pop(&list), nullptr);
    EXPECT_TRUE(DList_isEmpty(&list));
}

// Removal by record and at the ends is the self-test unit's; these are the
// rules of removing after a record.
TEST_F(DListTest, RemoveAfter)
{
    fill(3);
    EXPECT_EQ(DList_removeAfter(&list, nullptr), &items[0]);
    EXPECT_EQ(DList_removeAfter(&list, &items[2]), nullptr);
    EXPECT_EQ(DList_removeAfter(&list, &items[1]), &items[2]);
    expectConsistent();
}

// Negative indices are deliberately not rejected; these rows pin what they do.
TEST_F(DListTest, GetAtIndexRules)
{
    fill(4);
    struct Row {
        int idx;
        int expectKey; // -1: null
    } rows[] = {{0, 0}, {3, 3}, {4, -1}, {1000, -1}, {-1, 0}, {-1000, 0}};
    for (const Row& r : rows) {
        auto* got = static_cast<Item*>(DList_getAt(&list, r.idx));
        if (r.expectKey < 0) {
            EXPECT_EQ(got, nullptr) << "index " << r.idx;
        } else {
            ASSERT_NE(got, nullptr) << "index " << r.idx;
            EXPECT_EQ(got->key, r.expectKey) << "index " << r.idx;
        }
    }
}

TEST_F(DListTest, InsertAtIndexRules)
{
    struct Row {
        int idx;
        bool ok;
        std::vector<int> after;
    } rows[] = {
        {0, true, {9, 0, 1, 2}},
        {1, true, {0, 9, 1, 2}},
        {3, true, {0, 1, 2, 9}},  // index == count appends
        {4, false, {0, 1, 2}},    // beyond the count
        {-1, true, {0, 9, 1, 2}}, // negative: after the head
        {-7, true, {0, 9, 1, 2}},
        {INT_MIN, true, {0, 9, 1, 2}}, // no overflow computing the position before it
    };
    for (const Row& r : rows) {
        SetUp();
        fill(3);
        Item n{9, 0, nullptr, nullptr};
        EXPECT_EQ(DList_insertAt(&list, &n, r.idx), r.ok) << "index " << r.idx;
        EXPECT_EQ(keys(), r.after) << "index " << r.idx;
        expectConsistent();
    }
    SetUp(); // negative on an empty list: at the head
    Item n{9, 0, nullptr, nullptr};
    EXPECT_TRUE(DList_insertAt(&list, &n, -1));
    EXPECT_EQ(keys(), std::vector<int>{9});
    EXPECT_EQ(DList_getLast(&list), &n);
}

TEST_F(DListTest, RemoveAtIndexRules)
{
    struct Row {
        int idx;
        int removedKey; // -1: null
        std::vector<int> after;
    } rows[] = {
        {0, 0, {1, 2, 3}}, {2, 2, {0, 1, 3}}, {3, 3, {0, 1, 2}}, {4, -1, {0, 1, 2, 3}},
        {-1, 1, {0, 2, 3}}, // negative: the record after the head
        {INT_MIN, 1, {0, 2, 3}},
    };
    for (const Row& r : rows) {
        SetUp();
        fill(4);
        auto* got = static_cast<Item*>(DList_removeAt(&list, r.idx));
        if (r.removedKey < 0) {
            EXPECT_EQ(got, nullptr);
        } else {
            ASSERT_NE(got, nullptr);
            EXPECT_EQ(got->key, r.removedKey);
        }
        EXPECT_EQ(keys(), r.after) << "index " << r.idx;
        expectConsistent();
    }
}

TEST_F(DListTest, InsertSortedGoesBeforeEquals)
{
    Item a{5, 1, nullptr, nullptr}, b{5, 2, nullptr, nullptr}, c{1, 0, nullptr, nullptr}, d{7, 0, nullptr, nullptr};
    DList_insertSorted(&list, &a);
    DList_insertSorted(&list, &b);
    DList_insertSorted(&list, &c);
    DList_insertSorted(&list, &d);
    EXPECT_EQ(keys(), (std::vector<int>{1, 5, 5, 7}));
    EXPECT_EQ(DList_getAt(&list, 1), &b);
    EXPECT_EQ(DList_getAt(&list, 2), &a);
}

TEST_F(DListTest, SortOrdersAndMovesRecordsBeforeTheirEquals)
{
    // keys 3a 1 3b 2: 1 moves to the head, 2 moves back before 3a; 3a and 3b
    // never compare out of order, so they keep their relative order.
    Item r[] = {{3, 1, nullptr, nullptr}, {1, 0, nullptr, nullptr}, {3, 2, nullptr, nullptr}, {2, 0, nullptr, nullptr}};
    for (Item& it : r) {
        DList_insertLast(&list, &it);
    }
    DList_sortDList(&list);
    EXPECT_EQ(keys(), (std::vector<int>{1, 2, 3, 3}));
    EXPECT_EQ(DList_getAt(&list, 2), &r[0]);
    expectConsistent();

    // A record moved back lands in front of its equals.
    SetUp();
    Item s[] = {{2, 1, nullptr, nullptr}, {5, 0, nullptr, nullptr}, {2, 2, nullptr, nullptr}};
    for (Item& it : s) {
        DList_insertLast(&list, &it);
    }
    DList_sortDList(&list);
    EXPECT_EQ(DList_getAt(&list, 0), &s[2]);
    EXPECT_EQ(DList_getAt(&list, 1), &s[0]);
}

TEST_F(DListTest, AppendLinksSourceBehindTailAndClearsIt)
{
    fill(2);
    DList src;
    Item sample{};
    DList_makeDList(&src, &sample, &sample.next, &sample.prev, byKey);
    DList_appendDList(&list, &src); // empty source: nothing happens
    EXPECT_EQ(DList_getCount(&list), 2);

    Item x{7, 0, nullptr, nullptr}, y{8, 0, nullptr, nullptr};
    DList_insertLast(&src, &x);
    DList_insertLast(&src, &y);
    DList_startIterate(&src);
    DList_appendDList(&list, &src);
    EXPECT_EQ(keys(), (std::vector<int>{0, 1, 7, 8}));
    EXPECT_EQ(src.pHead, nullptr);
    EXPECT_EQ(src.pTail, nullptr);
    EXPECT_EQ(src.pCurrent, nullptr);
    EXPECT_EQ(src.iElemCnt, 0);
    EXPECT_EQ(src.pCmpFunc, byKey); // comparison and offsets stay
    expectConsistent();
}

TEST_F(DListTest, IterationSurvivesRemovalOfTheRecordItWouldReturnNext)
{
    fill(3);
    DList_startIterate(&list);
    EXPECT_EQ(DList_getNext(&list), &items[0]);
    DList_remove(&list, &items[1]); // the cursor's record
    EXPECT_TRUE(DList_hasMoreElements(&list));
    EXPECT_EQ(DList_getNext(&list), &items[2]);
    EXPECT_FALSE(DList_hasMoreElements(&list));
    EXPECT_EQ(DList_getNext(&list), nullptr);
}

TEST_F(DListTest, PrintAddressesListsEveryRecord)
{
    fill(2);
    testing::internal::CaptureStdout();
    DList_printAddresses(&list);
    std::string out = testing::internal::GetCapturedStdout();
    char expect[256];
    std::snprintf(expect, sizeof expect, "DList contains 2 elements\nElement 0 has address: %p\nElement 1 has address: %p\n",
                  static_cast<void*>(&items[0]), static_cast<void*>(&items[1]));
    EXPECT_EQ(out, expect);
}

using DListDeathTest = DListTest;

TEST_F(DListDeathTest, NullListAndAppendToAnEmptyDestination)
{
    EXPECT_DEATH(DList_getIdxFromPtr(nullptr, &list), "pDList");
    DList src;
    Item sample{};
    DList_makeDList(&src, &sample, &sample.next, &sample.prev, byKey);
    Item x{7, 0, nullptr, nullptr};
    DList_insertLast(&src, &x);
    EXPECT_DEATH(DList_appendDList(&list, &src), "pTail");
}

} // namespace
