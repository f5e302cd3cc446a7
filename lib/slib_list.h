// Growable list of strings in one heap block.
//
// Block layout (all fields native int32, so the header is 24 bytes on every
// machine):
//   total size | item count | free bytes | sort mode | lowest used byte | empty string
//   item[0] .. item[count-1]                       (int32 each, growing upward)
//   ... free ...
//   packed strings, each with its NUL              (growing downward from the end)
//   the block's last byte: a NUL, the shared empty string of empty items
// "lowest used byte", "empty string" and the items are byte offsets from the
// start of the block rather than pointers, so the block is position
// independent: copying it with memcpy gives a working copy, and one free()
// releases everything. A new list has size - 24 free bytes; each item costs
// its string length + 1 + 4 bytes.
//
// Calls that may grow the list take the address of the caller's pointer: the
// block can be replaced by one twice as large, and the old pointer is then
// invalid. A failed growth leaves the old list intact and the pointer as it
// was. Strings returned by the list point into the block and stay valid until
// the block is grown, reset or freed.
#ifndef LIB_SLIB_LIST_H_
#define LIB_SLIB_LIST_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct SLIBSZLIST {
  int32_t cbTotal;    // size of the whole block in bytes
  int32_t nItem;      // number of items
  int32_t cbFree;     // bytes between the item array and the lowest string
  int32_t nSortMode;  // 0 unsorted, SLIB_LIST_SORT_BYTES or SLIB_LIST_SORT_NOCASE
  int32_t offLowest;  // offset of the lowest used byte of the string area
  int32_t offEmpty;   // offset of the block's last byte, the shared empty string
  // followed by nItem int32 item offsets
} SLIBSZLIST;

enum {
  SLIB_LIST_UNSORTED = 0,
  SLIB_LIST_SORT_BYTES = 0x1,   // byte-wise ascending (strcmp)
  SLIB_LIST_SORT_NOCASE = 0x10  // Unicode case-insensitive ascending
};

// A new empty list of `size` bytes (at least 512). Null with 0x200 on failure.
SLIBSZLIST* PslSLIBSzListAlloc(int size);

// Appends `string` (in a sorted list: inserts it at its sorted place, in front
// of an equal item). Returns the index; -1 with 0xD00 for a null argument, -1
// with 0x200 when the list cannot grow.
int SLIBSzListPush(SLIBSZLIST** list, const char* string);

// Replaces the item at `index` with `string`; an index past the end extends
// the list with empty items up to it. The list's sort mode is not enforced.
// Returns the index; -1 with 0xD00 or 0x200 as SLIBSzListPush.
int SLIBSzListSet(SLIBSZLIST** list, int index, const char* string);

// The item at `index`, or null with 0xD00 when the index is outside 0..count-1.
const char* SzSLIBSzListGet(const SLIBSZLIST* list, int index);

// Removes the item at `index`, moving later items down by one. Returns the
// removed string (its bytes stay in the block until it is rebuilt), or null
// with 0xD00.
const char* SzSLIBSzListRemove(SLIBSZLIST* list, int index);

// Removes and returns the last item; null with 0xD00 when the list is empty.
const char* SzSLIBSzListPop(SLIBSZLIST* list);

// Index of the first item equal to `string` under the case-insensitive
// comparison, or -1. A list sorted case-insensitively is searched by
// bisection; a list sorted byte-wise is refused (-1 with 0xD00).
int SLIBSzListFind(const SLIBSZLIST* list, const char* string);

// On an unsorted list, SLIB_LIST_SORT_BYTES (or SLIB_LIST_SORT_NOCASE) drops
// the empty items and sorts byte-wise (or case-insensitively) ascending. Any
// other mode, or a list that already has a sort mode, only records `mode`.
// Returns 0; -1 with 0xD00 for a null list.
int SLIBSzListSort(SLIBSZLIST* list, int mode);

// Empties the list and reclaims all string space; the sort mode stays.
// Returns 0; -1 with 0xD00 for a null list.
int SLIBSzListReset(SLIBSZLIST* list);

// Frees the block; null is allowed.
void SLIBSzListFree(SLIBSZLIST* list);

#ifdef __cplusplus
}
#endif

#endif  // LIB_SLIB_LIST_H_
