/// @file ListEntry.h
/// Intrusive doubly linked lists, and the integer logarithm that the shifts of the library are made with.
/// A list head is an entry that points at itself while the list is empty; entries are embedded in the listed objects,
/// which the list does not own.

#ifndef FATLIB_LISTENTRY_H
#define FATLIB_LISTENTRY_H

struct _LST_ENTRY {
  _LST_ENTRY* Flink;  // next
  _LST_ENTRY* Blink;  // previous
};

inline void InitListHead(_LST_ENTRY* head) { head->Flink = head->Blink = head; }

inline bool IsListEmpty(const _LST_ENTRY* head) { return head->Flink == head; }

/// Links the entry in before the head, that is, last.
inline void InsertTailList(_LST_ENTRY* head, _LST_ENTRY* entry) {
  entry->Flink = head;
  entry->Blink = head->Blink;
  head->Blink->Flink = entry;
  head->Blink = entry;
}

/// Takes the entry out of its list; its own links stay as they were.
/// @return true when the list is now empty
inline bool RemoveEntryList(_LST_ENTRY* entry) {
  entry->Blink->Flink = entry->Flink;
  entry->Flink->Blink = entry->Blink;
  return entry->Flink == entry->Blink;
}

/// Moves the entry to the end of the list. For an entry that is last already, nothing is touched.
inline void MoveToTailList(_LST_ENTRY* head, _LST_ENTRY* entry) {
  if (head->Blink == entry) return;
  RemoveEntryList(entry);
  InsertTailList(head, entry);
}

/// The number of halvings while x is above 1: floor(log2 x), and 0 for x = 0.
constexpr unsigned int gGetLog2Of(unsigned int x) {
  unsigned int log2 = 0;
  while (x > 1) {
    x >>= 1;
    ++log2;
  }
  return log2;
}

constexpr bool IsPowerOfTwo(unsigned int x) { return x != 0 && (x & (x - 1)) == 0; }

/// The object that embeds `entry` as its member.
// NOLINTBEGIN(bugprone-macro-parentheses): a type cannot stand in parentheses
#define FATLIB_CONTAINER_OF(entry, type, member) \
  reinterpret_cast<type*>(reinterpret_cast<char*>(entry) - offsetof(type, member))
// NOLINTEND(bugprone-macro-parentheses)

#endif  // FATLIB_LISTENTRY_H
