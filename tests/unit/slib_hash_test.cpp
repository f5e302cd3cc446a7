#include "lib/slib_hash.h"

#include <map>
#include <random>

#include "lib/slib_list.h"
#include "test_support.h"

namespace {

std::string Key(int i) { return "k" + std::to_string(100 + i).substr(1); }

// Home slot: the key's big-endian words summed modulo 2^32, modulo the slots.
TEST(SlibHash, SlotsAndPoolGrowByTheirRules) {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(4096);
  for (int i = 0; i < 28; ++i) SLIBSzHashSetValue(&hash, Key(i).c_str(), "value");
  ASSERT_GE(SLIBSzHashSetValue(&hash, "k05", "v"), 0);  // needs no room: no growth
  EXPECT_EQ(31, hash->nSlot);
  ASSERT_GE(SLIBSzHashSetValue(&hash, "k28", "value"), 0);  // 3 of 31 free: too few
  EXPECT_EQ(std::make_pair(119, 4096 - 28 * 10 - 6), std::make_pair(hash->nSlot, hash->cbFree));
  EXPECT_EQ(static_cast<int>(0x6B323700u % 119u), SLIBSzHashSetValue(&hash, "k27", "value"));
  SLIBSzHashFree(hash);
  // Past 2 GiB the growth fails and leaves the hash as it was.
  hash = PshSLIBSzHashAlloc(512);
  const SLIBSZHASH* const before = hash;
  EXPECT_EQ(testing_support::Failure(SLIB_ERR_OUT_OF_MEMORY),
            testing_support::WithError(
                SLIBSzHashSetValue(&hash, "b", std::string(67200000, 'h').c_str())));
  EXPECT_EQ(std::make_pair(before, 512),
            std::make_pair(static_cast<const SLIBSZHASH*>(hash), hash->cbFree));
  SLIBSzHashFree(hash);
}

// Random sets, removals and clears against a map; the last state is also
// checked in a memcpy copy of the block, which must work on its own.
TEST(SlibHash, BehavesLikeAMapThroughGrowthAndDeletion) {
  std::mt19937 random(4242);
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  std::map<std::string, std::string> model;
  for (int step = 0; step < 4000; ++step) {
    const std::string key = Key(random() % 200), value(random() % 40, 'a' + step % 26);
    const int op = random() % 100;
    if (op < 60) {
      ASSERT_GE(SLIBSzHashSetValue(&hash, key.c_str(), value.c_str()), 0);
      model[key] = value;
    } else if (op < 99) {
      const char* removed = SzSLIBSzHashRemoveKey(hash, key.c_str());
      ASSERT_EQ(model.count(key) != 0 ? model[key] : "(none)", removed ? removed : "(none)");
      model.erase(key);
    } else if (step < 3000) {
      ASSERT_EQ(0, SLIBSzHashClear(hash));
      model.clear();
    }
    ASSERT_EQ(static_cast<int>(model.size()), hash->nEntry);
  }
  const size_t size = 20 + 8 * static_cast<size_t>(hash->nSlot) + hash->cbPool;
  auto* copy = static_cast<SLIBSZHASH*>(malloc(size));
  memcpy(copy, hash, size);
  SLIBSzHashFree(hash);
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  std::map<std::string, std::string> found;  // every key listed, with the value found for it
  for (int i = 0, n = SLIBSzHashEnumKey(copy, &list); i < n; ++i) {
    const char* key = SzSLIBSzListGet(list, i);
    found[key] = SzSLIBSzHashGetValue(copy, key) ?: "(none)";
  }
  EXPECT_EQ(model, found);
  EXPECT_EQ(nullptr, SzSLIBSzHashGetValue(copy, "absent"));
  SLIBSzListFree(list);
  SLIBSzHashFree(copy);
}

}  // namespace
