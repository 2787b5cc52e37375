/**
 * @file
 * DList: an intrusive doubly linked list of caller-owned records.
 *
 * The list never allocates. Each record carries a "next" and a "prev" pointer
 * field somewhere inside it; DList_makeDList learns their byte offsets once
 * from a sample record. One record type can therefore sit in several lists at
 * the same time through different pointer pairs.
 *
 * Contracts common to every function:
 *  - The list pointer must be valid; a null list is a programming fault.
 *  - A record is in at most one list per pointer pair. Removing a record
 *    clears both of its pointer fields.
 *  - Indices are zero-based from the head. Negative indices are not rejected:
 *    DList_getAt treats them as 0, DList_insertAt and DList_removeAt as 1
 *    (see each function). Callers rely on this, so it stays.
 *  - Not thread-safe: callers lock around a list.
 */
#ifndef LIBKVC_DLIST_H
#define LIBKVC_DLIST_H

#include <stdbool.h>
#include <stdint.h>

#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

/** Orders two records like strcmp: negative, zero or positive. */
typedef int (*DListCmpFunc)(const void* pElem1, const void* pElem2);

/** A list header. Its records stay the caller's: the list only links them. Set it up with
 * DList_makeDList. */
typedef struct DList {
    void* pHead;
    void* pTail;
    void* pCurrent;          /**< the record DList_getNext returns next */
    int32_t iElemCnt;
    DListCmpFunc pCmpFunc;   /**< may be null unless a sorted operation is used */
    intptr_t iOffsetToNextPtr;
    intptr_t iOffsetToPrevPtr;
} DList;

/** Empties the list and records the comparison function and the offsets of
 * pElem's two link fields (given by address). Returns pDList. */
DList* DList_makeDList(DList* pDList, void* pElem, void* pElemNextPtr, void* pElemPrevPtr,
                       DListCmpFunc pCompare);

/** Links pNew after pAfter, or at the head when pAfter is null. Returns true. */
bool DList_insertAfter(DList* pDList, void* pAfter, void* pNew);
/** Links pNew at the head. Returns true. */
bool DList_insertFirst(DList* pDList, void* pNew);
/** Links pNew at the tail. Returns true. */
bool DList_insertLast(DList* pDList, void* pNew);
/** 0 inserts at the head, 1..count after record iIdx-1 (count appends),
 * negative after the head. False, and nothing changes, when iIdx > count. */
bool DList_insertAt(DList* pDList, void* pNew, int iIdx);
/** Inserts before the first record that does not compare below pNew, so a new
 * record goes in front of its equals. Returns true. */
bool DList_insertSorted(DList* pDList, void* pNew);

/** Unlinks pElem and returns it; a null pElem is returned and nothing happens. */
void* DList_remove(DList* pDList, void* pElem);
/** Removes the record after pAfter (the head when pAfter is null); null if none. */
void* DList_removeAfter(DList* pDList, void* pAfter);
/** Unlinks and returns the head; null when the list is empty. */
void* DList_removeFirst(DList* pDList);
/** Unlinks and returns the tail; null when the list is empty. */
void* DList_removeLast(DList* pDList);
/** Null when iIdx >= count; 0 removes the head, negative the record after it. */
void* DList_removeAt(DList* pDList, int iIdx);

/** The head, or null when the list is empty; nothing is unlinked. */
void* DList_getFirst(const DList* pDList);
/** The tail, or null when the list is empty. */
void* DList_getLast(const DList* pDList);
/** Null when iIdx >= count; iIdx <= 0 gives the head. */
void* DList_getAt(const DList* pDList, int iIdx);
/** Zero-based position of pElem, -1 when it is not in the list or null. */
int DList_getIdxFromPtr(const DList* pDList, const void* pElem);

/** Puts the cursor on the head, for DList_getNext. */
void DList_startIterate(DList* pDList);
/** Returns the cursor's record and advances; null at the end. */
void* DList_getNext(DList* pDList);
/** True while the cursor is on a record (DList_getNext would return one). */
bool DList_hasMoreElements(const DList* pDList);

/** Removes every record and releases each with free(): records must come from
 * malloc. */
void DList_freeElements(DList* pDList);

/* Stack view over the head. */
/** Links pElem at the head. Returns true. */
bool DList_push(DList* pDList, void* pElem);
/** Unlinks and returns the head; null when the list is empty. */
void* DList_pop(DList* pDList);
/** The head without unlinking it; null when the list is empty. */
void* DList_peek(const DList* pDList);

/** Prints the count and each record's address to stdout; resets the cursor. */
void DList_printAddresses(DList* pDList);

/** Records in the list. */
int DList_getCount(const DList* pDList);
/** True when the list holds no record. */
bool DList_isEmpty(const DList* pDList);

/** Insertion sort with pCmpFunc. */
void DList_sortDList(DList* pDList);
/** Moves every record of pSrc, head first, into pDest with DList_insertSorted. */
void DList_mergeDLists(DList* pDest, DList* pSrc);
/** Links pSrc's records behind pDest's tail and empties pSrc. pDest must not be
 * empty: use DList_mergeDLists or the insert calls for that case. */
void DList_appendDList(DList* pDest, DList* pSrc);
/** pCmpFunc(pElem1, pElem2): negative, zero or positive. pCmpFunc must be set. */
int DList_compareItems(const DList* pDList, const void* pElem1, const void* pElem2);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop
#endif
