#include "lib/slib_list.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>

#include "lib/slib_error.h"
#include "lib/slib_unicode.h"

static_assert(sizeof(SLIBSZLIST) == 24, "the list header is six native int32 fields");

namespace {

constexpr int64_t kHeaderSize = sizeof(SLIBSZLIST);
constexpr int64_t kItemSize = sizeof(int32_t);
constexpr int kMinimumSize = 512;
constexpr int64_t kMaximumSize = std::numeric_limits<int32_t>::max();

using Compare = int (*)(const char*, const char*);

struct FreeDeleter {
  void operator()(SLIBSZLIST* list) const { free(list); }
};
using ListPtr = std::unique_ptr<SLIBSZLIST, FreeDeleter>;

char* Bytes(SLIBSZLIST* list) { return reinterpret_cast<char*>(list); }
const char* Bytes(const SLIBSZLIST* list) { return reinterpret_cast<const char*>(list); }
int32_t* Items(SLIBSZLIST* list) { return reinterpret_cast<int32_t*>(Bytes(list) + kHeaderSize); }
const int32_t* Items(const SLIBSZLIST* list) {
  return reinterpret_cast<const int32_t*>(Bytes(list) + kHeaderSize);
}
const char* ItemString(const SLIBSZLIST* list, int index) {
  return Bytes(list) + Items(list)[index];
}

int BytewiseCompare(const char* a, const char* b) { return strcmp(a, b); }

Compare ComparisonOf(int sort_mode) {
  if (sort_mode == SLIB_LIST_SORT_BYTES) return BytewiseCompare;
  if (sort_mode == SLIB_LIST_SORT_NOCASE) return SLIBCUtf8StrCaseCmp;
  return nullptr;
}

void UpdateFree(SLIBSZLIST* list) {
  list->cbFree = static_cast<int32_t>(list->offLowest - kHeaderSize - kItemSize * list->nItem);
}

// Strings are packed downward from offLowest. The first string ends on the
// block's last byte, so its NUL doubles as the shared empty string: an empty
// list has offLowest == cbTotal and cbTotal - 24 free bytes.
void MakeEmpty(SLIBSZLIST* list) {
  list->nItem = 0;
  list->offEmpty = list->cbTotal - 1;
  list->offLowest = list->cbTotal;
  Bytes(list)[list->offEmpty] = '\0';
  UpdateFree(list);
}

ListPtr NewBlock(int64_t size) {
  ListPtr list(static_cast<SLIBSZLIST*>(malloc(static_cast<size_t>(size))));
  if (list == nullptr) return nullptr;
  list->cbTotal = static_cast<int32_t>(size);
  list->nSortMode = SLIB_LIST_UNSORTED;
  MakeEmpty(list.get());
  return list;
}

int32_t StoreString(SLIBSZLIST* list, const char* string, size_t length) {
  list->offLowest -= static_cast<int32_t>(length + 1);
  memcpy(Bytes(list) + list->offLowest, string, length + 1);
  return list->offLowest;
}

// A copy of `list` in a block doubled until `needed` more bytes fit, strings
// repacked from its end and removed strings dropped; null when the block
// would pass the int32 size limit or cannot be allocated.
ListPtr Grown(const SLIBSZLIST* list, int64_t needed) {
  int64_t packed = 0;
  for (int i = 0; i < list->nItem; ++i) {
    const size_t length = strlen(ItemString(list, i));
    if (length > 0) packed += static_cast<int64_t>(length) + 1;
  }
  int64_t size = list->cbTotal;
  do {
    size *= 2;
    if (size > kMaximumSize) return nullptr;
  } while (needed > size - kHeaderSize - kItemSize * list->nItem - packed);

  ListPtr grown = NewBlock(size);
  if (grown == nullptr) return nullptr;
  grown->nSortMode = list->nSortMode;
  int32_t* items = Items(grown.get());
  for (int i = 0; i < list->nItem; ++i) {
    const char* string = ItemString(list, i);
    const size_t length = strlen(string);
    items[i] = length == 0 ? grown->offEmpty : StoreString(grown.get(), string, length);
  }
  grown->nItem = list->nItem;
  UpdateFree(grown.get());
  return grown;
}

// The list that will take `needed` more bytes: `*list` itself when they fit,
// otherwise a grown copy handed over in `grown` (the caller frees the old
// block only after it has copied its string, which may lie in the old block).
SLIBSZLIST* RoomFor(SLIBSZLIST* list, int64_t needed, ListPtr* grown) {
  if (needed <= list->cbFree) return list;
  *grown = Grown(list, needed);
  if (*grown == nullptr) {
    SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  return grown->get();
}

void Adopt(SLIBSZLIST** list, ListPtr grown) {
  if (grown == nullptr) return;
  free(*list);
  *list = grown.release();
}

// Inserts `string` at `position`; a position past the end first fills the
// skipped positions with empty items.
int InsertAt(SLIBSZLIST** list, int position, const char* string) {
  const size_t length = strlen(string);
  const int64_t skipped = std::max(0, position - (*list)->nItem);
  const int64_t needed = static_cast<int64_t>(length) + 1 + kItemSize * (1 + skipped);
  ListPtr grown;
  SLIBSZLIST* target = RoomFor(*list, needed, &grown);
  if (target == nullptr) return -1;

  int32_t* items = Items(target);
  for (int i = target->nItem; i < position; ++i) items[i] = target->offEmpty;
  target->nItem = std::max(target->nItem, position);
  const int32_t offset = StoreString(target, string, length);
  memmove(items + position + 1, items + position,
          static_cast<size_t>(target->nItem - position) * kItemSize);
  items[position] = offset;
  ++target->nItem;
  UpdateFree(target);
  Adopt(list, std::move(grown));
  return position;
}

int ReplaceAt(SLIBSZLIST** list, int index, const char* string) {
  SLIBSZLIST* current = *list;
  const size_t length = strlen(string);
  const int32_t old_offset = Items(current)[index];
  // The shared empty string must stay empty; any other old string can take
  // a string that is not longer in place.
  if (old_offset != current->offEmpty && length <= strlen(Bytes(current) + old_offset)) {
    memmove(Bytes(current) + old_offset, string, length + 1);
    return index;
  }
  if (length == 0) {
    Items(current)[index] = current->offEmpty;
    return index;
  }
  ListPtr grown;
  SLIBSZLIST* target = RoomFor(current, static_cast<int64_t>(length) + 1, &grown);
  if (target == nullptr) return -1;
  Items(target)[index] = StoreString(target, string, length);
  UpdateFree(target);
  Adopt(list, std::move(grown));
  return index;
}

// In a sorted list: the position of an item equal to `string`, or else of
// the first item greater than it.
int SortedPosition(const SLIBSZLIST* list, const char* string, Compare compare) {
  int low = 0;
  int high = list->nItem;
  while (low < high) {
    const int middle = low + (high - low) / 2;
    const int order = compare(string, ItemString(list, middle));
    if (order == 0) return middle;
    if (order < 0) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  return low;
}

// The first position whose item is not less than `string`.
int LowerBound(const SLIBSZLIST* list, const char* string, Compare compare) {
  int low = 0;
  int high = list->nItem;
  while (low < high) {
    const int middle = low + (high - low) / 2;
    if (compare(ItemString(list, middle), string) < 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

void DropEmptyItems(SLIBSZLIST* list) {
  int32_t* items = Items(list);
  int kept = 0;
  for (int i = 0; i < list->nItem; ++i) {
    if (ItemString(list, i)[0] != '\0') items[kept++] = items[i];
  }
  list->nItem = kept;
  UpdateFree(list);
}

void SortItems(SLIBSZLIST* list, Compare compare) {
  int32_t* items = Items(list);
  const char* bytes = Bytes(list);
  std::stable_sort(items, items + list->nItem, [bytes, compare](int32_t a, int32_t b) {
    return compare(bytes + a, bytes + b) < 0;
  });
}

bool ValidIndex(const SLIBSZLIST* list, int index) {
  if (list != nullptr && index >= 0 && index < list->nItem) return true;
  SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
  return false;
}

}  // namespace

SLIBSZLIST* PslSLIBSzListAlloc(int size) {
  ListPtr list = NewBlock(std::max(size, kMinimumSize));
  if (list == nullptr) SLIBCErrSet(SLIB_ERR_OUT_OF_MEMORY);
  return list.release();
}

int SLIBSzListPush(SLIBSZLIST** list, const char* string) {
  if (list == nullptr || *list == nullptr || string == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  const Compare compare = ComparisonOf((*list)->nSortMode);
  const int position = compare != nullptr ? SortedPosition(*list, string, compare) : (*list)->nItem;
  return InsertAt(list, position, string);
}

int SLIBSzListSet(SLIBSZLIST** list, int index, const char* string) {
  if (list == nullptr || *list == nullptr || string == nullptr || index < 0) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  if (index < (*list)->nItem) return ReplaceAt(list, index, string);
  return InsertAt(list, index, string);
}

const char* SzSLIBSzListGet(const SLIBSZLIST* list, int index) {
  if (!ValidIndex(list, index)) return nullptr;
  return ItemString(list, index);
}

const char* SzSLIBSzListRemove(SLIBSZLIST* list, int index) {
  if (!ValidIndex(list, index)) return nullptr;
  const char* removed = ItemString(list, index);
  int32_t* items = Items(list);
  memmove(items + index, items + index + 1,
          static_cast<size_t>(list->nItem - index - 1) * kItemSize);
  --list->nItem;
  UpdateFree(list);
  return removed;
}

const char* SzSLIBSzListPop(SLIBSZLIST* list) {
  if (list == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return nullptr;
  }
  return SzSLIBSzListRemove(list, list->nItem - 1);
}

int SLIBSzListFind(const SLIBSZLIST* list, const char* string) {
  if (list == nullptr || string == nullptr || list->nSortMode == SLIB_LIST_SORT_BYTES) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  if (list->nSortMode == SLIB_LIST_SORT_NOCASE) {
    const int position = LowerBound(list, string, SLIBCUtf8StrCaseCmp);
    if (position < list->nItem && SLIBCUtf8StrCaseCmp(ItemString(list, position), string) == 0) {
      return position;
    }
    return -1;
  }
  for (int i = 0; i < list->nItem; ++i) {
    if (SLIBCUtf8StrCaseCmp(ItemString(list, i), string) == 0) return i;
  }
  return -1;
}

int SLIBSzListSort(SLIBSZLIST* list, int mode) {
  if (list == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  if (list->nSortMode == SLIB_LIST_UNSORTED) {
    Compare compare = nullptr;
    if (mode & SLIB_LIST_SORT_NOCASE) {
      compare = SLIBCUtf8StrCaseCmp;
    } else if (mode & SLIB_LIST_SORT_BYTES) {
      compare = BytewiseCompare;
    }
    if (compare != nullptr) {
      DropEmptyItems(list);
      SortItems(list, compare);
    }
  }
  list->nSortMode = mode;
  return 0;
}

int SLIBSzListReset(SLIBSZLIST* list) {
  if (list == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  MakeEmpty(list);
  return 0;
}

void SLIBSzListFree(SLIBSZLIST* list) { free(list); }
