// Circular doubly linked lists with the kernel's LIST_ENTRY semantics: a head node that points to
// itself when empty. Nothing here takes a lock; the list's owner says which one guards it.
#pragma once

#include "platform/types.h"

inline void InitializeListHead(PLIST_ENTRY head) {
    head->Flink = head;
    head->Blink = head;
}

inline bool IsListEmpty(const LIST_ENTRY* head) {
    return head->Flink == head;
}

inline void RemoveEntryList(PLIST_ENTRY entry) {
    entry->Blink->Flink = entry->Flink;
    entry->Flink->Blink = entry->Blink;
}

inline void InsertTailList(PLIST_ENTRY head, PLIST_ENTRY entry) {
    entry->Flink = head;
    entry->Blink = head->Blink;
    head->Blink->Flink = entry;
    head->Blink = entry;
}

// Unlinks and returns the first entry. The list must not be empty.
inline PLIST_ENTRY RemoveHeadList(PLIST_ENTRY head) {
    PLIST_ENTRY entry = head->Flink;
    RemoveEntryList(entry);
    return entry;
}

// Unlinks and returns the last entry. The list must not be empty.
inline PLIST_ENTRY RemoveTailList(PLIST_ENTRY head) {
    PLIST_ENTRY entry = head->Blink;
    RemoveEntryList(entry);
    return entry;
}
