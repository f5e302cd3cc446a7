#include "lib/slib_hash.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <fstream>
#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "lib/slib_list.h"
#include "test_support.h"

namespace {

size_t BlockSize(const SLIBSZHASH* hash) {
  return 20 + 8 * static_cast<size_t>(hash->nSlot) + static_cast<size_t>(hash->cbPool);
}

std::string Key(int i) {
  char key[16];
  snprintf(key, sizeof(key), "k%02d", i);
  return key;
}

std::vector<std::string> KeysOf(const SLIBSZHASH* hash) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  std::vector<std::string> keys;
  if (SLIBSzHashEnumKey(hash, &list) >= 0) {
    for (int i = 0; i < list->nItem; ++i) keys.emplace_back(SzSLIBSzListGet(list, i));
  }
  SLIBSzListFree(list);
  return keys;
}

}  // namespace

TEST(SlibHash, AllocMakes31SlotsAndRoundsThePoolUpTo512) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(100);
  ASSERT_NE(hash, nullptr);
  EXPECT_EQ(hash->nSlot, 31);
  EXPECT_EQ(hash->cbPool, 512);
  EXPECT_EQ(hash->cbFree, 512);
  EXPECT_EQ(hash->nEntry, 0);
  EXPECT_EQ(hash->offNext, 20 + 31 * 8);
  SLIBSzHashFree(hash);

  hash = PshSLIBSzHashAlloc(4096);
  ASSERT_NE(hash, nullptr);
  EXPECT_EQ(hash->cbPool, 4096);
  SLIBSzHashFree(hash);
}

TEST(SlibHash, KeysLandOnTheirHomeSlot) {
  // Home slot: big-endian words summed modulo 2^32, a last partial word
  // padded with zero bytes after it, modulo the slot count.
  struct Case {
    const char* key;
    uint32_t sum;
  };
  const Case cases[] = {
      {"", 0},
      {"a", 0x61000000u},
      {"B", 0x42000000u},
      {"abcd", 0x61626364u},
      {"abcde", 0x61626364u + 0x65000000u},
      {"abcdefgh", 0x61626364u + 0x65666768u},
      {"wrap", 0x77726170u},
      {"hello world", 0x68656C6Cu + 0x6F20776Fu + 0x726C6400u},
      // 0xFFFFFFFF + 0xFF000000 wraps to 0xFEFFFFFF; bytes are unsigned.
      {"\xFF\xFF\xFF\xFF\xFF", 0xFEFFFFFFu},
  };
  for (const Case& c : cases) {
    SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
    EXPECT_EQ(SLIBSzHashSetValue(&hash, c.key, "v"), static_cast<int>(c.sum % 31u)) << c.key;
    EXPECT_STREQ(SzSLIBSzHashGetValue(hash, c.key), "v") << c.key;
    SLIBSzHashFree(hash);
  }
}

TEST(SlibHash, SetValueCopiesKeyAndValueIntoThePool) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  char key[] = "volume";
  char value[] = "/volume1";
  ASSERT_GE(SLIBSzHashSetValue(&hash, key, value), 0);
  key[0] = 'X';
  value[0] = 'X';
  EXPECT_STREQ(SzSLIBSzHashGetValue(hash, "volume"), "/volume1");
  EXPECT_EQ(SzSLIBSzHashGetValue(hash, "Volume"), nullptr);
  EXPECT_EQ(hash->nEntry, 1);
  EXPECT_EQ(hash->cbFree, 512 - (6 + 1) - (8 + 1));
  SLIBSzHashFree(hash);
}

TEST(SlibHash, CollidingKeysProbeTheNextSlotsWrappingToZero) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  // One-byte keys: c << 24 with 2^24 = 16 (mod 31), so the home slot is 16c mod 31.
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "<", "1"), (0x3C * 16) % 31);  // 30
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "[", "2"), 0);                 // home 30 too
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "z", "3"), 1);                 // home 30 too
  EXPECT_STREQ(SzSLIBSzHashGetValue(hash, "<"), "1");
  EXPECT_STREQ(SzSLIBSzHashGetValue(hash, "["), "2");
  EXPECT_STREQ(SzSLIBSzHashGetValue(hash, "z"), "3");
  EXPECT_EQ(SzSLIBSzHashGetValue(hash, "y"), nullptr);
  SLIBSzHashFree(hash);
}

TEST(SlibHash, RemovedSlotIsReusedAndKeysCollidingPastItAreStillFound) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  // "a", "B" and "#" all have home slot 2.
  ASSERT_EQ(SLIBSzHashSetValue(&hash, "a", "first"), 2);
  ASSERT_EQ(SLIBSzHashSetValue(&hash, "B", "second"), 3);
  ASSERT_EQ(SLIBSzHashSetValue(&hash, "#", "third"), 4);

  EXPECT_STREQ(SzSLIBSzHashRemoveKey(hash, "B"), "second");
  EXPECT_EQ(hash->nEntry, 2);
  EXPECT_EQ(SzSLIBSzHashGetValue(hash, "B"), nullptr);
  EXPECT_EQ(SzSLIBSzHashRemoveKey(hash, "B"), nullptr);
  EXPECT_STREQ(SzSLIBSzHashGetValue(hash, "#"), "third");

  // An existing key past the deleted slot is updated where it is, not added again.
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "#", "3rd"), 4);
  EXPECT_EQ(hash->nEntry, 2);
  EXPECT_EQ(KeysOf(hash), (std::vector<std::string>{"a", "#"}));

  EXPECT_EQ(SLIBSzHashSetValue(&hash, "B", "again"), 3);
  EXPECT_STREQ(SzSLIBSzHashGetValue(hash, "B"), "again");
  EXPECT_EQ(hash->nEntry, 3);

  // A new colliding key takes the first deleted slot on its way.
  ASSERT_NE(SzSLIBSzHashRemoveKey(hash, "a"), nullptr);
  // "dd" = 0x64640000: 2^24 = 16 and 2^16 = 2 (mod 31), 16 x 100 + 2 x 100 = 2 (mod 31).
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "dd", "new"), 2);
  EXPECT_STREQ(SzSLIBSzHashGetValue(hash, "#"), "3rd");
  EXPECT_EQ(KeysOf(hash), (std::vector<std::string>{"dd", "B", "#"}));
  SLIBSzHashFree(hash);
}

TEST(SlibHash, ShorterValueIsOverwrittenInPlaceAndNeverReallocates) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  // With 28 entries fewer than a tenth of the 31 slots are free: any
  // insertion that needs room would rebuild the block.
  const std::string long_value(21, 'v');
  for (int i = 0; i < 28; ++i)
    ASSERT_GE(SLIBSzHashSetValue(&hash, Key(i).c_str(), long_value.c_str()), 0);
  SLIBSZHASH* const before = hash;
  const int32_t free_before = hash->cbFree;
  const char* old_value = SzSLIBSzHashGetValue(hash, "k07");

  const int slot = SLIBSzHashSetValue(&hash, "k07", "short");
  ASSERT_GE(slot, 0);
  EXPECT_EQ(hash, before);
  EXPECT_EQ(hash->cbFree, free_before);
  EXPECT_EQ(hash->nSlot, 31);
  EXPECT_EQ(SzSLIBSzHashGetValue(hash, "k07"), old_value);
  EXPECT_STREQ(old_value, "short");
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "k07", "SHORT"), slot);  // equal length: in place too
  EXPECT_EQ(hash, before);
  EXPECT_EQ(hash->cbFree, free_before);
  EXPECT_EQ(SzSLIBSzHashGetValue(hash, "k07"), old_value);
  EXPECT_STREQ(old_value, "SHORT");
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "k07", ""), slot);
  EXPECT_EQ(hash, before);
  EXPECT_STREQ(SzSLIBSzHashGetValue(hash, "k07"), "");
  SLIBSzHashFree(hash);
}

TEST(SlibHash, LongerValueTakesFreshPoolSpace) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  const int slot = SLIBSzHashSetValue(&hash, "name", "ab");
  const char* old_value = SzSLIBSzHashGetValue(hash, "name");
  const int32_t free_before = hash->cbFree;
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "name", "abcdef"), slot);
  EXPECT_EQ(hash->cbFree, free_before - 7);
  EXPECT_NE(SzSLIBSzHashGetValue(hash, "name"), old_value);
  EXPECT_STREQ(SzSLIBSzHashGetValue(hash, "name"), "abcdef");
  EXPECT_EQ(hash->nEntry, 1);
  SLIBSzHashFree(hash);
}

TEST(SlibHash, TwentyEightEntriesIn31SlotsGrowTo119OnTheNextInsertion) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(4096);
  for (int i = 0; i < 28; ++i) {
    ASSERT_GE(SLIBSzHashSetValue(&hash, Key(i).c_str(), "value"), 0);
    ASSERT_EQ(hash->nSlot, 31) << "after " << i + 1 << " entries";
  }
  // 3 of 31 slots free is below a tenth, but an update that needs no room
  // does not grow.
  SLIBSZHASH* const before = hash;
  ASSERT_GE(SLIBSzHashSetValue(&hash, "k05", "v"), 0);
  EXPECT_EQ(hash, before);
  EXPECT_EQ(hash->nSlot, 31);

  ASSERT_GE(SLIBSzHashSetValue(&hash, "k28", "value"), 0);
  EXPECT_EQ(hash->nSlot, 119);
  EXPECT_EQ(hash->nEntry, 29);
  EXPECT_EQ(hash->cbPool, 4096);  // the pool had room and keeps its size
  // The rebuilt pool holds only the live strings: 28 x 10 bytes, "k05"/"v" in 6.
  EXPECT_EQ(hash->cbFree, 4096 - 28 * 10 - 6);
  for (int i = 0; i < 29; ++i) {
    EXPECT_STREQ(SzSLIBSzHashGetValue(hash, Key(i).c_str()), i == 5 ? "v" : "value") << Key(i);
  }
  // Entries moved to their home slots for 119 slots.
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "k00", "value"), static_cast<int>(0x6B303000u % 119u));
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "k27", "value"), static_cast<int>(0x6B323700u % 119u));
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "a", "x"), static_cast<int>(0x61000000u % 119u));

  // 108 entries leave 11 of 119 free (below a tenth): the next one makes 471.
  for (int i = 30; i < 108; ++i) {
    ASSERT_GE(SLIBSzHashSetValue(&hash, Key(i).c_str(), "value"), 0);
    ASSERT_EQ(hash->nSlot, 119) << "after " << hash->nEntry << " entries";
  }
  ASSERT_EQ(hash->nEntry, 108);
  ASSERT_GE(SLIBSzHashSetValue(&hash, "last", "value"), 0);
  EXPECT_EQ(hash->nSlot, 471);
  EXPECT_EQ(KeysOf(hash).size(), 109u);
  SLIBSzHashFree(hash);
}

TEST(SlibHash, PoolGrowsByTheAverageEntrySizePerFreeSlot) {
  // 19 entries of 26 bytes leave 18 of 512 bytes free.
  const std::string value(21, 'v');
  auto filled = [&value]() {
    SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
    for (int i = 0; i < 19; ++i) SLIBSzHashSetValue(&hash, Key(i).c_str(), value.c_str());
    return hash;
  };

  // Needing exactly the free bytes already grows: 512 + 12 free slots x 26 + 18.
  SLIBSZHASH* hash = filled();
  ASSERT_EQ(hash->cbFree, 18);
  SLIBSZHASH* before = hash;
  ASSERT_GE(SLIBSzHashSetValue(&hash, "x", std::string(15, 'x').c_str()), 0);
  EXPECT_NE(hash, before);
  EXPECT_EQ(hash->cbPool, 512 + 12 * 26 + 18);
  EXPECT_EQ(hash->nSlot, 31);
  EXPECT_EQ(hash->cbFree, hash->cbPool - 19 * 26 - 18);
  SLIBSzHashFree(hash);

  // One byte less fits; the next insertion grows with the truncated
  // average 512 / 20 = 25: 512 + 11 x 25 + 3.
  hash = filled();
  before = hash;
  ASSERT_GE(SLIBSzHashSetValue(&hash, "x", std::string(14, 'x').c_str()), 0);
  EXPECT_EQ(hash, before);
  EXPECT_EQ(hash->cbFree, 1);
  ASSERT_GE(SLIBSzHashSetValue(&hash, "y", ""), 0);
  EXPECT_EQ(hash->cbPool, 512 + 11 * 25 + 3);
  EXPECT_EQ(hash->cbFree, hash->cbPool - 19 * 26 - 17 - 3);
  EXPECT_EQ(KeysOf(hash).size(), 21u);
  EXPECT_STREQ(SzSLIBSzHashGetValue(hash, "k18"), value.c_str());
  SLIBSzHashFree(hash);

  // With no entries the average is the bytes needed: 512 + 31 x 603 + 603.
  hash = PshSLIBSzHashAlloc(512);
  ASSERT_GE(SLIBSzHashSetValue(&hash, "k", std::string(600, 'x').c_str()), 0);
  EXPECT_EQ(hash->cbPool, 512 + 31 * 603 + 603);
  EXPECT_EQ(hash->cbFree, hash->cbPool - 603);
  SLIBSzHashFree(hash);
}

TEST(SlibHash, GrowthBeyondTheSizeLimitFailsAndLeavesTheHashIntact) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  ASSERT_EQ(SLIBSzHashSetValue(&hash, "a", "1"), 2);
  ASSERT_NE(SzSLIBSzHashRemoveKey(hash, "a"), nullptr);  // leaves a deleted slot, no entries
  const std::vector<char> image(reinterpret_cast<const char*>(hash),
                                reinterpret_cast<const char*>(hash) + BlockSize(hash));
  SLIBSZHASH* const before = hash;
  // With no entries the new pool is 512 + 32 x needed: past 2 GiB for 67.2 MB.
  const std::string huge(67200000, 'h');
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "b", huge.c_str()), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_OUT_OF_MEMORY);
  EXPECT_EQ(hash, before);
  EXPECT_EQ(std::vector<char>(reinterpret_cast<const char*>(hash),
                              reinterpret_cast<const char*>(hash) + BlockSize(hash)),
            image);
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "a", "2"), 2);
  SLIBSzHashFree(hash);
}

namespace {

// In a child process: a hash whose rebuild cannot be allocated under an
// address-space limit must stay as it was. Exits 0 when it did.
void GrowHashUnderAddressSpaceLimit() {
  const int pool = 8 << 20;
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(pool);
  if (hash == nullptr || SLIBSzHashSetValue(&hash, "a", "1") < 0 ||
      SLIBSzHashSetValue(&hash, "b", "2") < 0) {
    exit(2);
  }
  const std::string big(static_cast<size_t>(pool), 'x');
  if (!testing_support::LimitAddressSpace(4 << 20)) exit(3);
  SLIBSZHASH* const before = hash;
  SLIBCErrSet(0);
  const bool failed = SLIBSzHashSetValue(&hash, "c", big.c_str()) == -1;
  const bool intact = hash == before && hash->cbPool == pool && hash->nEntry == 2 &&
                      strcmp(SzSLIBSzHashGetValue(hash, "a"), "1") == 0 &&
                      strcmp(SzSLIBSzHashGetValue(hash, "b"), "2") == 0 &&
                      SzSLIBSzHashGetValue(hash, "c") == nullptr;
  exit(failed && SLIBCErrGet() == SLIB_ERR_OUT_OF_MEMORY && intact ? 0 : 1);
}

}  // namespace

TEST(SlibHash, FailedAllocationLeavesTheHashAndThePointerUnchanged) {
  const std::string unavailable = testing_support::AllocationFailureUnavailable();
  if (!unavailable.empty()) GTEST_SKIP() << unavailable;
  EXPECT_EXIT(GrowHashUnderAddressSpaceLimit(), ::testing::ExitedWithCode(0), "");
}

TEST(SlibHash, EnumKeyAppendsKeysInSlotOrder) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  SLIBSzHashSetValue(&hash, "<", "1");     // slot 30
  SLIBSzHashSetValue(&hash, "abcd", "2");  // slot 5
  SLIBSzHashSetValue(&hash, "a", "3");     // slot 2
  SLIBSzHashSetValue(&hash, "gone", "4");
  SzSLIBSzHashRemoveKey(hash, "gone");

  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  SLIBSzListPush(&list, "before");
  EXPECT_EQ(SLIBSzHashEnumKey(hash, &list), 3);
  ASSERT_EQ(list->nItem, 4);
  EXPECT_STREQ(SzSLIBSzListGet(list, 0), "before");
  EXPECT_STREQ(SzSLIBSzListGet(list, 1), "a");
  EXPECT_STREQ(SzSLIBSzListGet(list, 2), "abcd");
  EXPECT_STREQ(SzSLIBSzListGet(list, 3), "<");
  EXPECT_EQ(SLIBSzHashEnumKey(hash, nullptr), 3);
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBSzHashEnumKey(nullptr, &list), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  SLIBSzListFree(list);
  SLIBSzHashFree(hash);
}

TEST(SlibHash, EnumKeyOfAnEmptyHashReturnsZeroAndLeavesTheListUnchanged) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  SLIBSzListPush(&list, "kept");
  const std::vector<char> image(reinterpret_cast<const char*>(list),
                                reinterpret_cast<const char*>(list) + list->cbTotal);
  SLIBSZLIST* const before = list;
  EXPECT_EQ(SLIBSzHashEnumKey(hash, &list), 0);
  EXPECT_EQ(list, before);
  EXPECT_EQ(std::vector<char>(reinterpret_cast<const char*>(list),
                              reinterpret_cast<const char*>(list) + list->cbTotal),
            image);
  // Unchanged even when the list pointer is null: nothing is pushed.
  SLIBSZLIST* none = nullptr;
  EXPECT_EQ(SLIBSzHashEnumKey(hash, &none), 0);
  SLIBSzListFree(list);
  SLIBSzHashFree(hash);
}

TEST(SlibHash, EnumKeyFailsWhenAPushFails) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  SLIBSzHashSetValue(&hash, "a", "1");
  SLIBSZLIST* none = nullptr;
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBSzHashEnumKey(hash, &none), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  SLIBSzHashFree(hash);
}

TEST(SlibHash, ClearRemovesEveryEntryAndReclaimsThePool) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  for (int i = 0; i < 10; ++i) SLIBSzHashSetValue(&hash, Key(i).c_str(), "value");
  ASSERT_EQ(SLIBSzHashSetValue(&hash, "a", "value"), 2);
  SzSLIBSzHashRemoveKey(hash, "k03");
  ASSERT_EQ(SLIBSzHashClear(hash), 0);
  EXPECT_EQ(hash->nEntry, 0);
  EXPECT_EQ(hash->cbFree, hash->cbPool);
  EXPECT_EQ(hash->offNext, 20 + 8 * hash->nSlot);
  EXPECT_EQ(SzSLIBSzHashGetValue(hash, "k01"), nullptr);
  EXPECT_EQ(SLIBSzHashEnumKey(hash, nullptr), 0);
  // "a" no longer holds slot 2, so "B" (same home slot) lands there.
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "B", "b"), 2);
  EXPECT_EQ(SLIBSzHashClear(nullptr), -1);
  SLIBSzHashFree(hash);
}

TEST(SlibHash, AMemcpyCopyOfTheBlockIsAWorkingHash) {
  SLIBSZHASH* original = PshSLIBSzHashAlloc(512);
  for (int i = 0; i < 40; ++i) SLIBSzHashSetValue(&original, Key(i).c_str(), Key(i + 100).c_str());
  SzSLIBSzHashRemoveKey(original, "k10");
  const size_t size = BlockSize(original);
  auto* copy = static_cast<SLIBSZHASH*>(malloc(size));
  memcpy(copy, original, size);
  memset(original, 0xA5, size);
  SLIBSzHashFree(original);

  EXPECT_EQ(copy->nEntry, 39);
  EXPECT_STREQ(SzSLIBSzHashGetValue(copy, "k07"), "k107");
  EXPECT_EQ(SzSLIBSzHashGetValue(copy, "k10"), nullptr);
  EXPECT_STREQ(SzSLIBSzHashRemoveKey(copy, "k39"), "k139");
  for (int i = 40; i < 200; ++i) ASSERT_GE(SLIBSzHashSetValue(&copy, Key(i).c_str(), "x"), 0);
  EXPECT_EQ(copy->nEntry, 198);
  EXPECT_STREQ(SzSLIBSzHashGetValue(copy, "k00"), "k100");
  EXPECT_STREQ(SzSLIBSzHashGetValue(copy, "k199"), "x");
  SLIBSzHashFree(copy);
}

TEST(SlibHash, NullArgumentsAreRejected) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  SLIBSZHASH* none = nullptr;
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBSzHashSetValue(&hash, nullptr, "v"), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  EXPECT_EQ(SLIBSzHashSetValue(&hash, "k", nullptr), -1);
  EXPECT_EQ(SLIBSzHashSetValue(&none, "k", "v"), -1);
  EXPECT_EQ(SLIBSzHashSetValue(nullptr, "k", "v"), -1);
  EXPECT_EQ(SzSLIBSzHashGetValue(nullptr, "k"), nullptr);
  EXPECT_EQ(SzSLIBSzHashGetValue(hash, nullptr), nullptr);
  EXPECT_EQ(SzSLIBSzHashRemoveKey(nullptr, "k"), nullptr);
  EXPECT_EQ(SzSLIBSzHashRemoveKey(hash, nullptr), nullptr);
  EXPECT_EQ(hash->nEntry, 0);
  SLIBSzHashFree(hash);
  SLIBSzHashFree(nullptr);
}
