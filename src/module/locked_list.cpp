#include "module/locked_list.h"

#include "platform/atomics.h"
#include "platform/list.h"

void InitializeLockedList(LOCKED_LIST* list) {
    if (list == nullptr) {
        return;
    }
    InitializeListHead(&list->Head);
    InitializeDriverSpinLock(&list->Lock);
    list->Count = 0;
}

void LockedListInsertTail(LOCKED_LIST* list, PLIST_ENTRY entry) {
    if (list == nullptr || entry == nullptr) {
        return;
    }
    {
        SpinLockGuard guard(&list->Lock);
        InsertTailList(&list->Head, entry);
    }
    InterlockedIncrement(&list->Count);
}

PLIST_ENTRY LockedListRemoveEntry(LOCKED_LIST* list, PLIST_ENTRY entry) {
    if (list == nullptr || entry == nullptr) {
        return nullptr;
    }
    SpinLockGuard guard(&list->Lock);
    for (PLIST_ENTRY at = list->Head.Flink; at != &list->Head; at = at->Flink) {
        if (at == entry) {
            RemoveEntryList(entry);
            InterlockedDecrement(&list->Count);
            return entry;
        }
    }
    return nullptr;
}

PLIST_ENTRY LockedListRemoveHead(LOCKED_LIST* list) {
    if (list == nullptr) {
        return nullptr;
    }
    SpinLockGuard guard(&list->Lock);
    if (IsListEmpty(&list->Head)) {
        return nullptr;
    }
    PLIST_ENTRY entry = RemoveHeadList(&list->Head);
    InterlockedDecrement(&list->Count);
    return entry;
}

PLIST_ENTRY LockedListFind(LOCKED_LIST* list, LOCKED_LIST_ROUTINE predicate, PVOID argument) {
    if (list == nullptr || predicate == nullptr) {
        return nullptr;
    }
    SpinLockGuard guard(&list->Lock);
    PLIST_ENTRY next = nullptr;
    for (PLIST_ENTRY at = list->Head.Flink; at != &list->Head; at = next) {
        next = at->Flink;
        if (predicate(list, at, argument) == TRUE) {
            return at;
        }
    }
    return nullptr;
}

void LockedListFlush(LOCKED_LIST* list, LOCKED_LIST_ROUTINE callback, PVOID argument) {
    if (list == nullptr) {
        return;
    }
    SpinLockGuard guard(&list->Lock);
    while (!IsListEmpty(&list->Head)) {
        PLIST_ENTRY entry = RemoveHeadList(&list->Head);
        InterlockedDecrement(&list->Count);
        if (callback != nullptr && callback(list, entry, argument) == TRUE) {
            return;
        }
    }
}
