#include "lib/slib_list.h"

#include <random>

#include "test_support.h"

namespace {

using Items = std::vector<std::string>;

Items ItemsOf(const SLIBSZLIST* list) {
  std::vector<std::string> items;
  for (int i = 0; i < list->nItem; ++i) items.emplace_back(SzSLIBSzListGet(list, i));
  return items;
}

SLIBSZLIST* ListOf(std::initializer_list<const char*> items, int mode = 0) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(100);
  if (mode != 0) SLIBSzListSort(list, mode);
  for (const char* item : items) SLIBSzListPush(&list, item);
  return list;
}

// Random pushes, sets (also past the end), removals and pops against a vector.
TEST(SlibList, BehavesLikeAVectorThroughGrowth) {
  std::mt19937 random(99);
  SLIBSZLIST* list = PslSLIBSzListAlloc(100);
  Items model;
  for (int step = 0; step < 3000; ++step) {
    const std::string item(random() % 30, static_cast<char>('a' + step % 26));
    const int index = static_cast<int>(random() % (model.size() + 4));
    const int op = random() % 10;
    if (op < 4) {
      ASSERT_EQ(static_cast<int>(model.size()), SLIBSzListPush(&list, item.c_str()));
      model.push_back(item);
    } else if (op < 6) {
      ASSERT_EQ(index, SLIBSzListSet(&list, index, item.c_str()));
      if (index >= static_cast<int>(model.size())) model.resize(index + 1);
      model[index] = item;
    } else if (op < 8 || model.empty()) {
      const char* removed = SzSLIBSzListRemove(list, index);
      const bool valid = index < static_cast<int>(model.size());
      ASSERT_EQ(valid ? model[index] : "(null)", removed ? removed : "(null)");
      if (valid) model.erase(model.begin() + index);
    } else {
      ASSERT_EQ(model.back(), SzSLIBSzListPop(list));
      model.pop_back();
    }
    ASSERT_EQ(model, ItemsOf(list)) << step;
    ASSERT_EQ(nullptr, SzSLIBSzListGet(list, static_cast<int>(model.size())));
    ASSERT_EQ(nullptr, SzSLIBSzListGet(list, -1));
  }
  SLIBSzListFree(list);
}

TEST(SlibList, GrowthDoublesTheBlockAndRepacksTheLiveStrings) {
  // Each item costs its length + 1 + 4 bytes, an empty one 4: they share one "" at the end.
  SLIBSZLIST* list = ListOf({"first"});
  ASSERT_EQ(3, SLIBSzListSet(&list, 3, "fourth"));
  ASSERT_EQ(4, SLIBSzListPush(&list, "removed soon"));
  ASSERT_NE(nullptr, SzSLIBSzListRemove(list, 4));
  SLIBSZLIST* const before = list;
  const std::string big(450, 'b');  // 455 bytes needed, 446 free
  ASSERT_EQ(4, SLIBSzListPush(&list, big.c_str()));
  EXPECT_NE(before, list);
  EXPECT_EQ(1024, list->cbTotal);
  EXPECT_EQ(Items({"first", "", "", "fourth", big}), ItemsOf(list));
  EXPECT_EQ(1000 - 5 * 4 - 6 - 7 - 451, list->cbFree);
  EXPECT_EQ(reinterpret_cast<const char*>(list) + 1023, SzSLIBSzListGet(list, 1));
  // A memcpy copy is a working list.
  auto* copy = static_cast<SLIBSZLIST*>(malloc(list->cbTotal));
  memcpy(copy, list, list->cbTotal);
  SLIBSzListFree(list);
  EXPECT_EQ(5, SLIBSzListPush(&copy, "more"));
  EXPECT_STREQ("fourth", SzSLIBSzListGet(copy, 3));
  EXPECT_EQ(0, SLIBSzListReset(copy));
  EXPECT_EQ(1000, copy->cbFree);
  // 600 million skipped positions need 2.4 GB: no block holds them.
  EXPECT_EQ(testing_support::Failure(SLIB_ERR_OUT_OF_MEMORY),
            testing_support::WithError(SLIBSzListSet(&copy, 600000000, "x")));
  SLIBSzListFree(copy);
}

TEST(SlibList, SortedListsInsertInFrontOfEqualsAndFindTheFirst) {
  SLIBSZLIST* bytes = ListOf({"delta", "alpha", "charlie", "Zulu", "echo"}, SLIB_LIST_SORT_BYTES);
  EXPECT_EQ(2, SLIBSzListPush(&bytes, "charlie"));
  EXPECT_EQ(Items({"Zulu", "alpha", "charlie", "charlie", "delta", "echo"}), ItemsOf(bytes));
  EXPECT_EQ(-1, SLIBSzListFind(bytes, "alpha"));  // refused
  SLIBSZLIST* list =
      ListOf({"Ωμέγα", "straße", "Zebra", "apple", "émile", "Mitte"}, SLIB_LIST_SORT_NOCASE);
  EXPECT_EQ(Items({"apple", "Mitte", "straße", "Zebra", "émile", "Ωμέγα"}), ItemsOf(list));
  for (const char* absent : {"strasse2", "0", "ωμεγα"}) EXPECT_EQ(-1, SLIBSzListFind(list, absent));
  EXPECT_EQ(5, SLIBSzListFind(list, "ωΜΈΓΑ"));
  EXPECT_EQ(2, SLIBSzListPush(&list, "STRASSE"));
  EXPECT_EQ(3, SLIBSzListPush(&list, "Strasse"));
  EXPECT_EQ(2, SLIBSzListFind(list, "straße"));
  SLIBSZLIST* unsorted = ListOf({"Photo", "STRASSE", "music", "straße"});
  EXPECT_EQ(1, SLIBSzListFind(unsorted, "straße"));
  for (SLIBSZLIST* done : {bytes, list, unsorted}) SLIBSzListFree(done);
}

TEST(SlibList, SortDropsEmptyItemsOnlyOnAnUnsortedList) {
  const std::pair<int, Items> cases[] = {
      {SLIB_LIST_SORT_BYTES, {"Apple", "banana", "cherry", "pear", "Émile"}},
      {SLIB_LIST_SORT_NOCASE, {"Apple", "banana", "cherry", "pear", "Émile"}},
      {0x2, {"pear", "", "Apple", "Émile", "banana", "", "", "cherry"}}};
  for (const auto& c : cases) {
    SLIBSZLIST* list = ListOf({"pear", "", "Apple", "Émile", "banana", ""});
    SLIBSzListSet(&list, 7, "cherry");
    const int32_t free_before = list->cbFree;
    ASSERT_EQ(0, SLIBSzListSort(list, c.first));
    EXPECT_EQ(c.second, ItemsOf(list));
    EXPECT_EQ(free_before + (c.first == 2 ? 0 : 3 * 4), list->cbFree);
    EXPECT_EQ(0, SLIBSzListSort(list, SLIB_LIST_SORT_BYTES));  // only records the mode
    EXPECT_EQ(c.second, ItemsOf(list));
    SLIBSzListFree(list);
  }
}

}  // namespace
