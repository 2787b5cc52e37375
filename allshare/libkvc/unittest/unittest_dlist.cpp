/* Self-test of the intrusive list: ordering, index rules and link hygiene. */
#include "libkvc/dlist.h"
#include "libkvc/unittests.h"
#include "unittest/unittest.h"

#include <cstddef>
#include <cstdlib>

namespace {

struct Item {
    int key;
    Item* next;
    Item* prev;
};

int cmpItems(const void* a, const void* b)
{
    return static_cast<const Item*>(a)->key - static_cast<const Item*>(b)->key;
}

void makeList(DList* list)
{
    Item sample{};
    DList_makeDList(list, &sample, &sample.next, &sample.prev, cmpItems);
}

// True when walking forward and backward agrees with head, tail and count.
bool consistent(const DList* list)
{
    int n = 0;
    const Item* prev = nullptr;
    for (auto* p = static_cast<const Item*>(list->pHead); p; p = p->next, ++n) {
        if (p->prev != prev) {
            return false;
        }
        prev = p;
    }
    return prev == list->pTail && n == list->iElemCnt;
}

void testInsertRemove()
{
    unittest_context("insert and remove");
    DList list;
    Item sample{};
    unittest_assert(DList_makeDList(&list, &sample, &sample.next, &sample.prev, cmpItems) == &list);
    unittest_assert(list.iOffsetToNextPtr == offsetof(Item, next));
    unittest_assert(list.iOffsetToPrevPtr == offsetof(Item, prev));

    Item a{1, nullptr, nullptr}, b{2, nullptr, nullptr}, c{3, nullptr, nullptr};
    DList_insertLast(&list, &a);
    DList_insertLast(&list, &b);
    unittest_assert(DList_getFirst(&list) == &a && DList_getLast(&list) == &b);
    unittest_assert(DList_removeLast(&list) == &b);
    unittest_assert(DList_removeLast(&list) == &a);
    unittest_assert(DList_isEmpty(&list));

    DList_insertFirst(&list, &a);
    DList_insertFirst(&list, &b);
    unittest_assert(DList_getFirst(&list) == &b);
    unittest_assert(DList_removeFirst(&list) == &b && DList_removeFirst(&list) == &a);

    DList_insertLast(&list, &a);
    DList_insertAfter(&list, &a, &b);
    unittest_assert(DList_getLast(&list) == &b);
    DList_insertLast(&list, &c);
    unittest_assert(DList_remove(&list, &a) == &a && a.next == nullptr && a.prev == nullptr);
    unittest_assert(DList_remove(&list, &c) == &c && consistent(&list));
    unittest_assert(DList_remove(&list, &b) == &b && DList_getCount(&list) == 0);
    unittest_assert(list.pHead == nullptr && list.pTail == nullptr);
    unittest_assert(DList_remove(&list, nullptr) == nullptr);
}

void testIndices()
{
    unittest_context("indices");
    DList list;
    makeList(&list);
    unittest_assert(DList_getAt(&list, 0) == nullptr);
    unittest_assert(DList_getAt(&list, 1000) == nullptr);
    unittest_assert(DList_getAt(&list, DList_getIdxFromPtr(&list, nullptr)) == nullptr);

    Item items[4] = {{0, nullptr, nullptr}, {1, nullptr, nullptr}, {2, nullptr, nullptr}, {3, nullptr, nullptr}};
    unittest_assert(DList_insertAt(&list, &items[0], 0));
    unittest_assert(DList_insertAt(&list, &items[2], 1));
    unittest_assert(!DList_insertAt(&list, &items[3], 3));
    unittest_assert(DList_insertAt(&list, &items[3], 2));
    unittest_assert(DList_insertAt(&list, &items[1], -5)); // negative: after the head
    for (int i = 0; i < 4; ++i) {
        unittest_assert(DList_getAt(&list, i) == &items[i]);
        unittest_assert(DList_getIdxFromPtr(&list, &items[i]) == i);
    }
    unittest_assert(DList_getAt(&list, -1) == &items[0]);
    unittest_assert(DList_removeAt(&list, 4) == nullptr);
    unittest_assert(DList_removeAt(&list, -1) == &items[1]);
    unittest_assert(DList_removeAt(&list, 2) == &items[3]);
    unittest_assert(DList_removeAt(&list, 0) == &items[0]);
    unittest_assert(consistent(&list) && DList_getCount(&list) == 1);
}

void testSorting()
{
    unittest_context("sorting");
    DList list;
    makeList(&list);
    const int keys[] = {5, 3, 9, 1, 3, 7};
    Item items[6];
    for (int i = 0; i < 6; ++i) {
        items[i] = Item{keys[i], nullptr, nullptr};
        DList_insertLast(&list, &items[i]);
    }
    DList_sortDList(&list);
    int prevKey = -1;
    bool ordered = true;
    DList_startIterate(&list);
    while (DList_hasMoreElements(&list)) {
        auto* p = static_cast<Item*>(DList_getNext(&list));
        ordered = ordered && p->key >= prevKey;
        prevKey = p->key;
    }
    unittest_assert(ordered && consistent(&list));

    Item four{4, nullptr, nullptr};
    DList_insertSorted(&list, &four);
    unittest_assert(DList_getIdxFromPtr(&list, &four) == 3);

    DList other;
    makeList(&other);
    Item zero{0, nullptr, nullptr}, ten{10, nullptr, nullptr};
    DList_insertLast(&other, &ten);
    DList_insertLast(&other, &zero);
    DList_mergeDLists(&list, &other);
    unittest_assert(DList_isEmpty(&other));
    unittest_assert(DList_getFirst(&list) == &zero && DList_getLast(&list) == &ten);
    unittest_assert(consistent(&list) && DList_getCount(&list) == 9);
}

void testAppendAndFree()
{
    unittest_context("append and free");
    DList a, b;
    makeList(&a);
    makeList(&b);
    for (int i = 0; i < 3; ++i) {
        auto* pa = static_cast<Item*>(std::calloc(1, sizeof(Item)));
        auto* pb = static_cast<Item*>(std::calloc(1, sizeof(Item)));
        pa->key = i;
        pb->key = 10 + i;
        DList_insertLast(&a, pa);
        DList_insertLast(&b, pb);
    }
    void* bTail = DList_getLast(&b);
    DList_appendDList(&a, &b);
    unittest_assert(DList_getCount(&a) == 6 && DList_getLast(&a) == bTail);
    unittest_assert(DList_isEmpty(&b) && b.pHead == nullptr && b.pTail == nullptr);
    unittest_assert(consistent(&a));
    DList_freeElements(&a);
    unittest_assert(a.pHead == nullptr && a.pTail == nullptr && a.iElemCnt == 0);
}

} // namespace

void unittest_dlist(void)
{
    testInsertRemove();
    testIndices();
    testSorting();
    testAppendAndFree();
}
