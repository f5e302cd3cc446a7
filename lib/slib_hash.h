// String-to-string hash in one heap block, with open addressing.
//
// Block layout (native int32 fields; offsets from the start of the block):
//   pool size | pool free bytes | slot count | entry count | next free pool byte
//   slots: { key offset, value offset } x slot count
//   string pool: keys and values, each with its NUL
// An offset of 0 means null (offset 0 is the header, never a string). A slot
// with both offsets 0 is empty; a slot with no key but a value is a deleted
// slot (tombstone) that searches walk past and insertions reuse.
//
// The home slot of a key is the wrap-around sum of its bytes taken as
// big-endian 32-bit words (a last partial word padded with zero bytes after
// it) modulo the slot count; collisions probe the next slot, wrapping.
// A new hash has 31 slots. When an insertion needs more pool than is free,
// the pool grows; when fewer than a tenth of the slots are free, the slot
// count becomes 4 x slots - 5 (31, 119, 471, ...). Either growth rebuilds the
// block and updates the caller's pointer; a failed growth leaves the old hash
// intact. Returned strings point into the block and stay valid until the
// next call that may grow it.
#ifndef LIB_SLIB_HASH_H_
#define LIB_SLIB_HASH_H_

#include <stdint.h>

#include "lib/slib_list.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct SLIBSZHASH {
  int32_t cbPool;   // size of the string pool in bytes
  int32_t cbFree;   // free bytes left in the pool
  int32_t nSlot;    // number of slots
  int32_t nEntry;   // number of keys held
  int32_t offNext;  // offset of the next free pool byte
  // followed by nSlot { int32 key offset, int32 value offset } pairs, then the pool
} SLIBSZHASH;

// A new empty hash with 31 slots and a pool of `size` bytes (at least 512).
// Null with 0x200 on failure.
SLIBSZHASH* PshSLIBSzHashAlloc(int size);

// Sets the value of `key`, adding the key when absent. A value not longer
// than the old one is copied over it in place and never reallocates. Returns
// the slot index; -1 for a null argument (0xD00) or when growing fails (0x200).
int SLIBSzHashSetValue(SLIBSZHASH** hash, const char* key, const char* value);

// The value of `key`, or null when absent or when `hash` or `key` is null.
const char* SzSLIBSzHashGetValue(const SLIBSZHASH* hash, const char* key);

// Removes `key`, leaving a tombstone. Returns the removed value (its bytes
// stay in the pool), or null when absent.
const char* SzSLIBSzHashRemoveKey(SLIBSZHASH* hash, const char* key);

// Appends every key to `*list` with SLIBSzListPush, in slot order, and returns
// the number of keys (0 for an empty hash, list untouched); with a null `list`
// only counts. -1 for a null hash or when a push fails.
int SLIBSzHashEnumKey(const SLIBSZHASH* hash, SLIBSZLIST** list);

// Removes every entry and reclaims the whole pool. Returns 0; -1 with 0xD00
// for a null hash.
int SLIBSzHashClear(SLIBSZHASH* hash);

// Frees the block; null is allowed.
void SLIBSzHashFree(SLIBSZHASH* hash);

#ifdef __cplusplus
}
#endif

#endif  // LIB_SLIB_HASH_H_
