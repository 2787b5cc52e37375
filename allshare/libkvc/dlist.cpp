/*
 * Intrusive doubly linked list.
 *
 * A record's link fields are reached through the byte offsets stored in the
 * list header, so the code below never knows the record type. link() and
 * unlink() are the only places that touch the links; everything else is
 * expressed through them, which keeps head, tail and count consistent.
 */
#include "libkvc/dlist.h"

#include <cassert>
#include <cstdio>
#include <cstdlib>

namespace {

void*& nextOf(const DList* l, void* e)
{
    return *reinterpret_cast<void**>(static_cast<char*>(e) + l->iOffsetToNextPtr);
}

void*& prevOf(const DList* l, void* e)
{
    return *reinterpret_cast<void**>(static_cast<char*>(e) + l->iOffsetToPrevPtr);
}

// Links pNew after pAfter, or at the head when pAfter is null.
void link(DList* l, void* pAfter, void* pNew)
{
    void* pNext = pAfter ? nextOf(l, pAfter) : l->pHead;
    prevOf(l, pNew) = pAfter;
    nextOf(l, pNew) = pNext;
    if (pAfter) {
        nextOf(l, pAfter) = pNew;
    } else {
        l->pHead = pNew;
    }
    if (pNext) {
        prevOf(l, pNext) = pNew;
    } else {
        l->pTail = pNew;
    }
    ++l->iElemCnt;
}

void unlink(DList* l, void* e)
{
    void* pPrev = prevOf(l, e);
    void* pNext = nextOf(l, e);
    if (pPrev) {
        nextOf(l, pPrev) = pNext;
    } else {
        l->pHead = pNext;
    }
    if (pNext) {
        prevOf(l, pNext) = pPrev;
    } else {
        l->pTail = pPrev;
    }
    // Keep an iteration in progress valid when its next record goes away.
    if (l->pCurrent == e) {
        l->pCurrent = pNext;
    }
    nextOf(l, e) = nullptr;
    prevOf(l, e) = nullptr;
    --l->iElemCnt;
}

// The index of the record before position iIdx (iIdx != 0). Every negative
// index means "after the head", and getAt(-1) is the head (or null when
// empty); computing iIdx - 1 directly would overflow for INT_MIN.
int positionBefore(int iIdx)
{
    return iIdx < 0 ? -1 : iIdx - 1;
}

} // namespace

DList* DList_makeDList(DList* pDList, void* pElem, void* pElemNextPtr, void* pElemPrevPtr,
                       DListCmpFunc pCompare)
{
    pDList->pHead = nullptr;
    pDList->pTail = nullptr;
    pDList->pCurrent = nullptr;
    pDList->iElemCnt = 0;
    pDList->pCmpFunc = pCompare;
    pDList->iOffsetToNextPtr = static_cast<char*>(pElemNextPtr) - static_cast<char*>(pElem);
    pDList->iOffsetToPrevPtr = static_cast<char*>(pElemPrevPtr) - static_cast<char*>(pElem);
    return pDList;
}

bool DList_insertAfter(DList* pDList, void* pAfter, void* pNew)
{
    link(pDList, pAfter, pNew);
    return true;
}

bool DList_insertFirst(DList* pDList, void* pNew)
{
    return DList_insertAfter(pDList, nullptr, pNew);
}

bool DList_insertLast(DList* pDList, void* pNew)
{
    link(pDList, pDList->pTail, pNew);
    return true;
}

bool DList_insertAt(DList* pDList, void* pNew, int iIdx)
{
    if (iIdx == 0) {
        return DList_insertAfter(pDList, nullptr, pNew);
    }
    if (iIdx > pDList->iElemCnt) {
        return false;
    }
    return DList_insertAfter(pDList, DList_getAt(pDList, positionBefore(iIdx)), pNew);
}

bool DList_insertSorted(DList* pDList, void* pNew)
{
    void* pAfter = nullptr;
    for (void* p = pDList->pHead; p && pDList->pCmpFunc(p, pNew) < 0; p = nextOf(pDList, p)) {
        pAfter = p;
    }
    link(pDList, pAfter, pNew);
    return true;
}

void* DList_remove(DList* pDList, void* pElem)
{
    if (pElem) {
        unlink(pDList, pElem);
    }
    return pElem;
}

void* DList_removeAfter(DList* pDList, void* pAfter)
{
    void* pVictim = pAfter ? nextOf(pDList, pAfter) : pDList->pHead;
    return DList_remove(pDList, pVictim);
}

void* DList_removeFirst(DList* pDList)
{
    return DList_remove(pDList, pDList->pHead);
}

void* DList_removeLast(DList* pDList)
{
    return DList_remove(pDList, pDList->pTail);
}

void* DList_removeAt(DList* pDList, int iIdx)
{
    if (iIdx >= pDList->iElemCnt) {
        return nullptr;
    }
    if (iIdx == 0) {
        return DList_removeAfter(pDList, nullptr);
    }
    return DList_removeAfter(pDList, DList_getAt(pDList, positionBefore(iIdx)));
}

void* DList_getFirst(const DList* pDList)
{
    return pDList->pHead;
}

void* DList_getLast(const DList* pDList)
{
    return pDList->pTail;
}

void* DList_getAt(const DList* pDList, int iIdx)
{
    if (iIdx >= pDList->iElemCnt) {
        return nullptr;
    }
    void* p = pDList->pHead;
    for (int i = 0; i < iIdx; ++i) {
        p = nextOf(pDList, p);
    }
    return p;
}

int DList_getIdxFromPtr(const DList* pDList, const void* pElem)
{
    assert(pDList);
    if (!pElem) {
        return -1;
    }
    int idx = 0;
    for (void* p = pDList->pHead; p; p = nextOf(pDList, p), ++idx) {
        if (p == pElem) {
            return idx;
        }
    }
    return -1;
}

void DList_startIterate(DList* pDList)
{
    pDList->pCurrent = pDList->pHead;
}

void* DList_getNext(DList* pDList)
{
    void* p = pDList->pCurrent;
    if (p) {
        pDList->pCurrent = nextOf(pDList, p);
    }
    return p;
}

bool DList_hasMoreElements(const DList* pDList)
{
    return pDList->pCurrent != nullptr;
}

void DList_freeElements(DList* pDList)
{
    while (void* p = DList_removeFirst(pDList)) {
        std::free(p);
    }
    pDList->pCurrent = nullptr;
}

bool DList_push(DList* pDList, void* pElem)
{
    return DList_insertFirst(pDList, pElem);
}

void* DList_pop(DList* pDList)
{
    return DList_removeFirst(pDList);
}

void* DList_peek(const DList* pDList)
{
    return DList_getFirst(pDList);
}

void DList_printAddresses(DList* pDList)
{
    std::printf("DList contains %d elements\n", pDList->iElemCnt);
    int idx = 0;
    DList_startIterate(pDList);
    while (DList_hasMoreElements(pDList)) {
        std::printf("Element %d has address: %p\n", idx++, DList_getNext(pDList));
    }
}

int DList_getCount(const DList* pDList)
{
    return pDList->iElemCnt;
}

bool DList_isEmpty(const DList* pDList)
{
    return pDList->iElemCnt == 0;
}

void DList_sortDList(DList* pDList)
{
    if (pDList->iElemCnt < 2) {
        return;
    }
    void* pPrev = pDList->pHead;
    void* pCur = nextOf(pDList, pPrev);
    while (pCur) {
        if (pDList->pCmpFunc(pPrev, pCur) <= 0) {
            pPrev = pCur;
            pCur = nextOf(pDList, pCur);
        } else {
            DList_remove(pDList, pCur);
            DList_insertSorted(pDList, pCur);
            pCur = nextOf(pDList, pPrev);
        }
    }
}

void DList_mergeDLists(DList* pDest, DList* pSrc)
{
    while (void* p = DList_removeFirst(pSrc)) {
        DList_insertSorted(pDest, p);
    }
}

void DList_appendDList(DList* pDest, DList* pSrc)
{
    if (pSrc->iElemCnt == 0) {
        return;
    }
    // Appending to an empty list would leave its head unset.
    assert(pDest->pTail != nullptr);
    nextOf(pDest, pDest->pTail) = pSrc->pHead;
    prevOf(pDest, pSrc->pHead) = pDest->pTail;
    pDest->pTail = pSrc->pTail;
    pDest->iElemCnt += pSrc->iElemCnt;
    pSrc->pHead = nullptr;
    pSrc->pTail = nullptr;
    pSrc->pCurrent = nullptr;
    pSrc->iElemCnt = 0;
}

int DList_compareItems(const DList* pDList, const void* pElem1, const void* pElem2)
{
    return pDList->pCmpFunc(pElem1, pElem2);
}
