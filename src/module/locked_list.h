// A doubly linked list that carries its own lock and count, so that nobody locks it from outside.
#pragma once

#include "module/spin_lock.h"

// The list does not own its entries: removing one neither frees it nor clears its links.
struct LOCKED_LIST {
    LIST_ENTRY Head GUARDED_BY(Lock);  // of entries that begin with their LIST_ENTRY
    // Changed atomically: raised after an insertion has released Lock, lowered before a removal
    // does. A reader without the lock may see it briefly ahead of or behind the list, even below 0.
    ULONG Count;
    // Guards Head and every link of the entries. What a predicate or callback may take inside it is
    // up to the list's owner.
    DRIVER_SPIN_LOCK Lock;
};

// Runs at DISPATCH_LEVEL with the list's lock held: it must not call an operation on the same list
// and must not wait.
using LOCKED_LIST_ROUTINE = BOOLEAN (*)(LOCKED_LIST* list, PLIST_ENTRY entry, PVOID argument);

// The operations below run at IRQL <= DISPATCH_LEVEL. A missing list, entry or predicate makes them
// do nothing and return NULL.

// Makes `list` empty and its lock free.
void InitializeLockedList(LOCKED_LIST* list);

void LockedListInsertTail(LOCKED_LIST* list, PLIST_ENTRY entry);

// Unlinks `entry` and returns it, or NULL when it is not in the list.
PLIST_ENTRY LockedListRemoveEntry(LOCKED_LIST* list, PLIST_ENTRY entry);

// Unlinks and returns the first entry, or NULL when the list is empty.
PLIST_ENTRY LockedListRemoveHead(LOCKED_LIST* list);

// The first entry for which `predicate` is TRUE, or NULL. Nothing keeps the entry on the list once
// the lock is released again: work that needs it there belongs into the predicate.
PLIST_ENTRY LockedListFind(LOCKED_LIST* list, LOCKED_LIST_ROUTINE predicate, PVOID argument);

// Unlinks every entry from the head and hands it to `callback` (which may be NULL). A callback that
// yields TRUE ends the flush behind its entry.
void LockedListFlush(LOCKED_LIST* list, LOCKED_LIST_ROUTINE callback, PVOID argument);
