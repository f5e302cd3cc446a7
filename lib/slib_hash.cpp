#include "lib/slib_hash.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>

#include "lib/slib_error.h"

static_assert(sizeof(SLIBSZHASH) == 20, "the hash header is five native int32 fields");

namespace {

struct Slot {
  int32_t key;    // offset of the key, 0 when the slot is empty or deleted
  int32_t value;  // offset of the value; non-zero with a zero key marks a deleted slot
};
static_assert(sizeof(Slot) == 8, "a slot is two native int32 offsets");

constexpr int64_t kHeaderSize = sizeof(SLIBSZHASH);
constexpr int32_t kInitialSlots = 31;
constexpr int kMinimumPool = 512;
constexpr int64_t kMaximumBlock = std::numeric_limits<int32_t>::max();
// Fewer free slots than this fraction make the slot count grow.
constexpr double kMinimumFreeSlotRatio = 0.1;

struct FreeDeleter {
  void operator()(SLIBSZHASH* hash) const { free(hash); }
};
using HashPtr = std::unique_ptr<SLIBSZHASH, FreeDeleter>;

char* Bytes(SLIBSZHASH* hash) { return reinterpret_cast<char*>(hash); }
const char* Bytes(const SLIBSZHASH* hash) { return reinterpret_cast<const char*>(hash); }
Slot* Slots(SLIBSZHASH* hash) { return reinterpret_cast<Slot*>(Bytes(hash) + kHeaderSize); }
const Slot* Slots(const SLIBSZHASH* hash) {
  return reinterpret_cast<const Slot*>(Bytes(hash) + kHeaderSize);
}
int64_t PoolStart(int64_t slots) {
  return kHeaderSize + slots * static_cast<int64_t>(sizeof(Slot));
}

bool IsEmpty(const Slot& slot) { return slot.key == 0 && slot.value == 0; }
bool IsDeleted(const Slot& slot) { return slot.key == 0 && slot.value != 0; }

HashPtr NewHash(int64_t slots, int64_t pool) {
  const int64_t size = PoolStart(slots) + pool;
  if (size > kMaximumBlock) return nullptr;
  HashPtr hash(static_cast<SLIBSZHASH*>(calloc(1, static_cast<size_t>(size))));
  if (hash == nullptr) return nullptr;
  hash->cbPool = static_cast<int32_t>(pool);
  hash->cbFree = static_cast<int32_t>(pool);
  hash->nSlot = static_cast<int32_t>(slots);
  hash->nEntry = 0;
  hash->offNext = static_cast<int32_t>(PoolStart(slots));
  return hash;
}

// The wrap-around sum of the key's bytes read as big-endian 32-bit words, a
// last partial word padded with zero bytes in its low-order places.
int HomeSlot(const char* key, int32_t slots) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(key);
  const size_t length = strlen(key);
  uint32_t sum = 0;
  for (size_t i = 0; i < length; i += 4) {
    uint32_t word = 0;
    for (size_t j = 0; j < 4; ++j) {
      word <<= 8;
      if (i + j < length) word |= bytes[i + j];
    }
    sum += word;
  }
  return static_cast<int>(sum % static_cast<uint32_t>(slots));
}

bool HoldsKey(const SLIBSZHASH* hash, const Slot& slot, const char* key) {
  return slot.key != 0 && strcmp(Bytes(hash) + slot.key, key) == 0;
}

int NextSlot(const SLIBSZHASH* hash, int slot) { return slot + 1 == hash->nSlot ? 0 : slot + 1; }

// The slot holding `key`, or -1.
int FindKey(const SLIBSZHASH* hash, const char* key) {
  const int home = HomeSlot(key, hash->nSlot);
  int slot = home;
  do {
    const Slot& current = Slots(hash)[slot];
    if (IsEmpty(current)) return -1;
    if (HoldsKey(hash, current, key)) return slot;
    slot = NextSlot(hash, slot);
  } while (slot != home);
  return -1;
}

// The slot holding `key`; when absent, the first deleted slot on its probe
// path, or else the empty slot that ends it. -1 when there is none.
int FindInsertSlot(const SLIBSZHASH* hash, const char* key) {
  const int home = HomeSlot(key, hash->nSlot);
  int first_deleted = -1;
  int slot = home;
  do {
    const Slot& current = Slots(hash)[slot];
    if (IsEmpty(current)) return first_deleted >= 0 ? first_deleted : slot;
    if (HoldsKey(hash, current, key)) return slot;
    if (IsDeleted(current) && first_deleted < 0) first_deleted = slot;
    slot = NextSlot(hash, slot);
  } while (slot != home);
  return first_deleted;
}

int32_t StoreString(SLIBSZHASH* hash, const char* string, size_t length) {
  const int32_t offset = hash->offNext;
  memcpy(Bytes(hash) + offset, string, length + 1);
  hash->offNext += static_cast<int32_t>(length + 1);
  hash->cbFree -= static_cast<int32_t>(length + 1);
  return offset;
}

// A new block with the given counts holding every entry of `hash` at its new
// home slot; deleted slots and overwritten values are left behind.
HashPtr Rebuild(const SLIBSZHASH* hash, int64_t slots, int64_t pool) {
  HashPtr rebuilt = NewHash(slots, pool);
  if (rebuilt == nullptr) return nullptr;
  for (int i = 0; i < hash->nSlot; ++i) {
    const Slot& old = Slots(hash)[i];
    if (old.key == 0) continue;
    const char* key = Bytes(hash) + old.key;
    const char* value = Bytes(hash) + old.value;
    int slot = HomeSlot(key, rebuilt->nSlot);
    while (!IsEmpty(Slots(rebuilt.get())[slot])) slot = NextSlot(rebuilt.get(), slot);
    Slot& target = Slots(rebuilt.get())[slot];
    target.key = StoreString(rebuilt.get(), key, strlen(key));
    target.value = StoreString(rebuilt.get(), value, strlen(value));
    ++rebuilt->nEntry;
  }
  return rebuilt;
}

// The hash that will take `needed` more pool bytes: `hash` itself, or a
// rebuilt copy handed over in `rebuilt` when the pool is too full or too few
// slots are free (the caller frees the old block after copying its strings,
// which may lie in the old pool). Null when the copy cannot be made.
SLIBSZHASH* RoomFor(SLIBSZHASH* hash, int64_t needed, HashPtr* rebuilt) {
  const int64_t free_slots = hash->nSlot - hash->nEntry;
  const double free_ratio = static_cast<double>(free_slots) / hash->nSlot;
  const bool pool_grows = hash->cbFree <= needed;
  const bool slots_grow = free_ratio < kMinimumFreeSlotRatio;
  if (!pool_grows && !slots_grow) return hash;

  int64_t pool = hash->cbPool;
  if (pool_grows) {
    const int64_t average = hash->nEntry > 0 ? hash->cbPool / hash->nEntry : needed;
    pool += free_slots * average + needed;
  }
  const int64_t slots = slots_grow ? 4 * static_cast<int64_t>(hash->nSlot) - 5 : hash->nSlot;
  *rebuilt = Rebuild(hash, slots, pool);
  if (*rebuilt == nullptr) {
    SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  return rebuilt->get();
}

}  // namespace

SLIBSZHASH* PshSLIBSzHashAlloc(int size) {
  HashPtr hash = NewHash(kInitialSlots, std::max(size, kMinimumPool));
  if (hash == nullptr) SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
  return hash.release();
}

int SLIBSzHashSetValue(SLIBSZHASH** hash, const char* key, const char* value) {
  if (hash == nullptr || *hash == nullptr || key == nullptr || value == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  const size_t key_length = strlen(key);
  const size_t value_length = strlen(value);
  int slot = FindInsertSlot(*hash, key);
  const bool present = slot >= 0 && Slots(*hash)[slot].key != 0;
  if (present) {
    char* old_value = Bytes(*hash) + Slots(*hash)[slot].value;
    if (value_length <= strlen(old_value)) {
      memmove(old_value, value, value_length + 1);
      return slot;
    }
  }

  const int64_t needed =
      static_cast<int64_t>(value_length) + 1 + (present ? 0 : static_cast<int64_t>(key_length) + 1);
  HashPtr rebuilt;
  SLIBSZHASH* target = RoomFor(*hash, needed, &rebuilt);
  if (target == nullptr) return -1;
  if (rebuilt != nullptr) slot = FindInsertSlot(target, key);
  if (slot < 0) {
    // Cannot happen while the slot count grows ahead of the entries.
    SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  Slot& entry = Slots(target)[slot];
  if (!present) {
    entry.key = StoreString(target, key, key_length);
    ++target->nEntry;
  }
  entry.value = StoreString(target, value, value_length);
  if (rebuilt != nullptr) {
    free(*hash);
    *hash = rebuilt.release();
  }
  return slot;
}

const char* SzSLIBSzHashGetValue(const SLIBSZHASH* hash, const char* key) {
  if (hash == nullptr || key == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return nullptr;
  }
  const int slot = FindKey(hash, key);
  return slot < 0 ? nullptr : Bytes(hash) + Slots(hash)[slot].value;
}

const char* SzSLIBSzHashRemoveKey(SLIBSZHASH* hash, const char* key) {
  if (hash == nullptr || key == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return nullptr;
  }
  const int slot = FindKey(hash, key);
  if (slot < 0) return nullptr;
  // Keeping the value offset turns the slot into a tombstone.
  Slots(hash)[slot].key = 0;
  --hash->nEntry;
  return Bytes(hash) + Slots(hash)[slot].value;
}

int SLIBSzHashEnumKey(const SLIBSZHASH* hash, SLIBSZLIST** list) {
  if (hash == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  int count = 0;
  for (int i = 0; i < hash->nSlot; ++i) {
    const Slot& slot = Slots(hash)[i];
    if (slot.key == 0) continue;
    if (list != nullptr && SLIBSzListPush(list, Bytes(hash) + slot.key) < 0) return -1;
    ++count;
  }
  return count;
}

int SLIBSzHashClear(SLIBSZHASH* hash) {
  if (hash == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  memset(Slots(hash), 0, static_cast<size_t>(hash->nSlot) * sizeof(Slot));
  hash->nEntry = 0;
  hash->offNext = static_cast<int32_t>(PoolStart(hash->nSlot));
  hash->cbFree = hash->cbPool;
  return 0;
}

void SLIBSzHashFree(SLIBSZHASH* hash) { free(hash); }
