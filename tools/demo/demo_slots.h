/* Fixed tables of records for the hosts' models: people and streams are kept in arrays of records
 * that each hold an int "present" flag and a NUL-terminated key (uuid or stream id). */
#ifndef CONVOKE_TOOLS_DEMO_SLOTS_H
#define CONVOKE_TOOLS_DEMO_SLOTS_H

#include <stddef.h>
#include <string.h>

/* The index of the present record whose key is `key` among `count` records of `size` bytes, or -1.
 * *freeSlot receives the index of the first record that is not present, or -1 when all are. */
static inline int demo_find_slot(const void* records, size_t size, int count, size_t presentAt,
                                 size_t keyAt, const char* key, int* freeSlot) {
  int i;
  *freeSlot = -1;
  for (i = 0; i < count; ++i) {
    const char* record = (const char*)records + (size_t)i * size;
    const int present = *(const int*)(const void*)(record + presentAt);
    if (present && strcmp(record + keyAt, key) == 0) return i;
    if (!present && *freeSlot < 0) *freeSlot = i;
  }
  return -1;
}

/* demo_find_slot over an array `table` of `Type` records with fields `present` and `keyField`. */
#define DEMO_FIND_SLOT(Type, table, count, keyField, key, freeSlot)       \
  demo_find_slot((table), sizeof(Type), (count), offsetof(Type, present), \
                 offsetof(Type, keyField), (key), (freeSlot))

#endif /* CONVOKE_TOOLS_DEMO_SLOTS_H */
