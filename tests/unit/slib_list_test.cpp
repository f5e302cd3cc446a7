#include "lib/slib_list.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <fstream>
#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "test_support.h"

namespace {

struct ListDeleter {
  void operator()(SLIBSZLIST* list) const { SLIBSzListFree(list); }
};

std::vector<std::string> ItemsOf(const SLIBSZLIST* list) {
  std::vector<std::string> items;
  for (int i = 0; i < list->nItem; ++i) items.emplace_back(SzSLIBSzListGet(list, i));
  return items;
}

std::vector<std::string> Names(int count) {
  std::vector<std::string> names;
  char name[16];
  for (int i = 0; i < count; ++i) {
    snprintf(name, sizeof(name), "item-%03d", i);
    names.emplace_back(name);
  }
  return names;
}

}  // namespace

TEST(SlibList, AllocRoundsSmallSizesUpTo512AndReservesTheHeader) {
  std::unique_ptr<SLIBSZLIST, ListDeleter> small(PslSLIBSzListAlloc(100));
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(small->cbTotal, 512);
  EXPECT_EQ(small->cbFree, 512 - 24);
  EXPECT_EQ(small->nItem, 0);
  EXPECT_EQ(small->nSortMode, SLIB_LIST_UNSORTED);
  EXPECT_EQ(small->offEmpty, 511);
  EXPECT_EQ(reinterpret_cast<const char*>(small.get())[511], '\0');

  std::unique_ptr<SLIBSZLIST, ListDeleter> large(PslSLIBSzListAlloc(1024));
  ASSERT_NE(large, nullptr);
  EXPECT_EQ(large->cbTotal, 1024);
  EXPECT_EQ(large->cbFree, 1000);
}

TEST(SlibList, PushAppendsACopyAndChargesLengthPlusOnePlusPointer) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  char source[] = "volume1";
  EXPECT_EQ(SLIBSzListPush(&list, source), 0);
  source[0] = 'X';
  EXPECT_EQ(SLIBSzListPush(&list, ""), 1);
  EXPECT_EQ(SLIBSzListPush(&list, "share"), 2);
  EXPECT_EQ(ItemsOf(list), (std::vector<std::string>{"volume1", "", "share"}));
  EXPECT_EQ(list->cbFree, 488 - (8 + 4) - (1 + 4) - (6 + 4));
  SLIBSzListFree(list);
}

TEST(SlibList, PushRejectsNullArguments) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  SLIBSZLIST* none = nullptr;
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBSzListPush(&list, nullptr), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBSzListPush(&none, "a"), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBSzListPush(nullptr, "a"), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  EXPECT_EQ(list->nItem, 0);
  SLIBSzListFree(list);
}

TEST(SlibList, GrowthDoublesTheBlockKeepsEveryItemAndUpdatesThePointer) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  // Each "item-NNN" costs 13 bytes: 37 of them fit in 488 free bytes.
  const std::vector<std::string> names = Names(80);
  for (int i = 0; i < 37; ++i) ASSERT_EQ(SLIBSzListPush(&list, names[i].c_str()), i);
  EXPECT_EQ(list->cbTotal, 512);
  EXPECT_EQ(list->cbFree, 488 - 37 * 13);
  SLIBSZLIST* const before = list;

  ASSERT_EQ(SLIBSzListPush(&list, names[37].c_str()), 37);
  EXPECT_NE(list, before);
  EXPECT_EQ(list->cbTotal, 1024);
  EXPECT_EQ(list->cbFree, 1000 - 38 * 13);

  for (int i = 38; i < 80; ++i) ASSERT_EQ(SLIBSzListPush(&list, names[i].c_str()), i);
  EXPECT_EQ(list->cbTotal, 2048);
  EXPECT_EQ(list->cbFree, 2048 - 24 - 80 * 13);
  EXPECT_EQ(ItemsOf(list), names);
  SLIBSzListFree(list);
}

TEST(SlibList, GrowthRepacksLiveStringsAndPointsEmptyItemsAtTheNewEmptyString) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  ASSERT_EQ(SLIBSzListPush(&list, "first"), 0);
  ASSERT_EQ(SLIBSzListSet(&list, 3, "fourth"), 3);  // items 1 and 2 are empty
  ASSERT_EQ(SLIBSzListPush(&list, "removed soon"), 4);
  ASSERT_NE(SzSLIBSzListRemove(list, 4), nullptr);
  const std::string big(450, 'b');  // 455 bytes needed, 446 free
  ASSERT_EQ(SLIBSzListPush(&list, big.c_str()), 4);

  EXPECT_EQ(list->cbTotal, 1024);
  EXPECT_EQ(ItemsOf(list), (std::vector<std::string>{"first", "", "", "fourth", big}));
  // The removed string is gone and the empty items take no string bytes.
  EXPECT_EQ(list->cbFree, 1000 - 5 * 4 - 6 - 7 - 451);
  const char* empty = reinterpret_cast<const char*>(list) + list->offEmpty;
  EXPECT_EQ(list->offEmpty, 1023);
  EXPECT_EQ(SzSLIBSzListGet(list, 1), empty);
  EXPECT_EQ(SzSLIBSzListGet(list, 2), empty);
  SLIBSzListFree(list);
}

TEST(SlibList, GrowthBeyondTheSizeLimitFailsAndLeavesTheListIntact) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  ASSERT_EQ(SLIBSzListPush(&list, "kept"), 0);
  SLIBSZLIST* const before = list;
  SLIBCErrSet(0);
  // 600 million skipped positions need 2.4 GB: no int32-sized block holds them.
  EXPECT_EQ(SLIBSzListSet(&list, 600000000, "x"), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_OUT_OF_MEMORY);
  EXPECT_EQ(list, before);
  EXPECT_EQ(list->cbTotal, 512);
  EXPECT_EQ(list->cbFree, 488 - 9);
  EXPECT_EQ(ItemsOf(list), std::vector<std::string>{"kept"});
  SLIBSzListFree(list);
}

namespace {

// In a child process: a list whose growth cannot be allocated under an
// address-space limit must stay as it was. Exits 0 when it did.
void GrowListUnderAddressSpaceLimit() {
  const int size = 8 << 20;
  SLIBSZLIST* list = PslSLIBSzListAlloc(size);
  if (list == nullptr || SLIBSzListPush(&list, "kept") != 0) exit(2);
  if (!testing_support::LimitAddressSpace(4 << 20)) exit(3);
  SLIBSZLIST* const before = list;
  SLIBCErrSet(0);
  const bool failed = SLIBSzListSet(&list, size / 4, "x") == -1;
  const bool intact = list == before && list->cbTotal == size && list->nItem == 1 &&
                      strcmp(SzSLIBSzListGet(list, 0), "kept") == 0;
  exit(failed && SLIBCErrGet() == SLIB_ERR_OUT_OF_MEMORY && intact ? 0 : 1);
}

}  // namespace

TEST(SlibList, FailedAllocationLeavesTheListAndThePointerUnchanged) {
  const std::string unavailable = testing_support::AllocationFailureUnavailable();
  if (!unavailable.empty()) GTEST_SKIP() << unavailable;
  EXPECT_EXIT(GrowListUnderAddressSpaceLimit(), ::testing::ExitedWithCode(0), "");
}

TEST(SlibList, BytewiseSortedPushInsertsInFrontOfAnEqualItem) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  ASSERT_EQ(SLIBSzListSort(list, SLIB_LIST_SORT_BYTES), 0);
  EXPECT_EQ(SLIBSzListPush(&list, "delta"), 0);
  EXPECT_EQ(SLIBSzListPush(&list, "alpha"), 0);
  EXPECT_EQ(SLIBSzListPush(&list, "charlie"), 1);
  EXPECT_EQ(SLIBSzListPush(&list, "Zulu"), 0);
  EXPECT_EQ(SLIBSzListPush(&list, "echo"), 4);
  const char* old_charlie = SzSLIBSzListGet(list, 2);
  EXPECT_EQ(SLIBSzListPush(&list, "charlie"), 2);
  EXPECT_EQ(SzSLIBSzListGet(list, 3), old_charlie);
  EXPECT_EQ(ItemsOf(list),
            (std::vector<std::string>{"Zulu", "alpha", "charlie", "charlie", "delta", "echo"}));
  SLIBSzListFree(list);
}

TEST(SlibList, CaseInsensitiveSortedPushAndFindHandleGermanAndGreek) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  ASSERT_EQ(SLIBSzListSort(list, SLIB_LIST_SORT_NOCASE), 0);
  for (const char* item : {"Ωμέγα", "straße", "Zebra", "apple", "émile", "Mitte"}) {
    ASSERT_GE(SLIBSzListPush(&list, item), 0) << item;
  }
  // Folded code point order: a < m < s < z < é (U+00E9) < ω (U+03C9).
  EXPECT_EQ(ItemsOf(list),
            (std::vector<std::string>{"apple", "Mitte", "straße", "Zebra", "émile", "Ωμέγα"}));
  EXPECT_EQ(SLIBSzListFind(list, "STRASSE"), 2);
  EXPECT_EQ(SLIBSzListFind(list, "ωΜΈΓΑ"), 5);
  EXPECT_EQ(SLIBSzListFind(list, "ÉMILE"), 4);
  EXPECT_EQ(SLIBSzListFind(list, "APPLE"), 0);
  EXPECT_EQ(SLIBSzListFind(list, "zebra"), 3);
  EXPECT_EQ(SLIBSzListFind(list, "strasse2"), -1);
  EXPECT_EQ(SLIBSzListFind(list, "0"), -1);
  EXPECT_EQ(SLIBSzListFind(list, "ωμεγα"), -1);  // no accent: a different word

  // An equal item goes in front, and find returns the first of the equals.
  EXPECT_EQ(SLIBSzListPush(&list, "STRASSE"), 2);
  EXPECT_STREQ(SzSLIBSzListGet(list, 3), "straße");
  // Bisection meets the equal item at 3 and inserts there; find still
  // reports the first of the three equal items.
  EXPECT_EQ(SLIBSzListPush(&list, "Strasse"), 3);
  EXPECT_EQ(ItemsOf(list)[4], "straße");
  EXPECT_EQ(SLIBSzListFind(list, "straße"), 2);
  SLIBSzListFree(list);
}

TEST(SlibList, FindOnAnUnsortedListReturnsTheFirstCaseInsensitiveMatch) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  for (const char* item : {"Photo", "STRASSE", "music", "straße"}) SLIBSzListPush(&list, item);
  EXPECT_EQ(SLIBSzListFind(list, "straße"), 1);
  EXPECT_EQ(SLIBSzListFind(list, "MUSIC"), 2);
  EXPECT_EQ(SLIBSzListFind(list, "video"), -1);
  SLIBSzListFree(list);
}

TEST(SlibList, FindOnABytewiseSortedListIsRefused) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  SLIBSzListPush(&list, "a");
  SLIBSzListSort(list, SLIB_LIST_SORT_BYTES);
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBSzListFind(list, "a"), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBSzListFind(nullptr, "a"), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  SLIBSzListFree(list);
}

TEST(SlibList, SortDropsEmptyItemsThenSortsBytewise) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  for (const char* item : {"pear", "", "Apple", "banana", ""}) SLIBSzListPush(&list, item);
  SLIBSzListSet(&list, 6, "cherry");  // item 5 is an empty item
  const int32_t free_before = list->cbFree;
  ASSERT_EQ(SLIBSzListSort(list, SLIB_LIST_SORT_BYTES), 0);
  EXPECT_EQ(list->nSortMode, SLIB_LIST_SORT_BYTES);
  EXPECT_EQ(ItemsOf(list), (std::vector<std::string>{"Apple", "banana", "cherry", "pear"}));
  EXPECT_EQ(list->cbFree, free_before + 3 * 4);
  SLIBSzListFree(list);
}

TEST(SlibList, SortDropsEmptyItemsThenSortsCaseInsensitively) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  for (const char* item : {"pear", "", "Apple", "banana", "Émile", "zoo"}) {
    SLIBSzListPush(&list, item);
  }
  ASSERT_EQ(SLIBSzListSort(list, SLIB_LIST_SORT_NOCASE), 0);
  EXPECT_EQ(list->nSortMode, SLIB_LIST_SORT_NOCASE);
  EXPECT_EQ(ItemsOf(list), (std::vector<std::string>{"Apple", "banana", "pear", "zoo", "Émile"}));
  EXPECT_EQ(SLIBSzListFind(list, "PEAR"), 2);
  SLIBSzListFree(list);
}

TEST(SlibList, SortOnASortedListOrWithAnotherModeOnlyRecordsTheMode) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  for (const char* item : {"b", "", "A"}) SLIBSzListPush(&list, item);
  ASSERT_EQ(SLIBSzListSort(list, 0x2), 0);
  EXPECT_EQ(list->nSortMode, 0x2);
  EXPECT_EQ(ItemsOf(list), (std::vector<std::string>{"b", "", "A"}));
  EXPECT_EQ(SLIBSzListPush(&list, "a"), 3);  // not a sorted mode: appends

  SLIBSZLIST* sorted = PslSLIBSzListAlloc(512);
  for (const char* item : {"b", "C", "a"}) SLIBSzListPush(&sorted, item);
  SLIBSzListSort(sorted, SLIB_LIST_SORT_BYTES);
  ASSERT_EQ(ItemsOf(sorted), (std::vector<std::string>{"C", "a", "b"}));
  ASSERT_EQ(SLIBSzListSort(sorted, SLIB_LIST_SORT_NOCASE), 0);
  EXPECT_EQ(sorted->nSortMode, SLIB_LIST_SORT_NOCASE);
  EXPECT_EQ(ItemsOf(sorted), (std::vector<std::string>{"C", "a", "b"}));
  EXPECT_EQ(SLIBSzListSort(nullptr, SLIB_LIST_SORT_BYTES), -1);
  SLIBSzListFree(sorted);
  SLIBSzListFree(list);
}

TEST(SlibList, RemoveMovesLaterItemsDownAndReturnsTheRemovedString) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  for (const char* item : {"a", "bb", "ccc", "dddd"}) SLIBSzListPush(&list, item);
  const int32_t free_before = list->cbFree;
  EXPECT_STREQ(SzSLIBSzListRemove(list, 1), "bb");
  EXPECT_EQ(ItemsOf(list), (std::vector<std::string>{"a", "ccc", "dddd"}));
  // Only the pointer comes back; the string bytes stay until a rebuild.
  EXPECT_EQ(list->cbFree, free_before + 4);
  EXPECT_STREQ(SzSLIBSzListPop(list), "dddd");
  EXPECT_STREQ(SzSLIBSzListPop(list), "ccc");
  EXPECT_EQ(ItemsOf(list), std::vector<std::string>{"a"});
  SLIBSzListFree(list);
}

TEST(SlibList, IndexErrorsOfGetRemoveAndPopReportBadArgument) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  SLIBSzListPush(&list, "only");
  struct Case {
    const char* what;
    const char* (*call)(SLIBSZLIST*);
  };
  const Case cases[] = {
      {"get -1", [](SLIBSZLIST* l) { return SzSLIBSzListGet(l, -1); }},
      {"get count", [](SLIBSZLIST* l) { return SzSLIBSzListGet(l, 1); }},
      {"get null", [](SLIBSZLIST*) { return SzSLIBSzListGet(nullptr, 0); }},
      {"remove -1", [](SLIBSZLIST* l) { return SzSLIBSzListRemove(l, -1); }},
      {"remove count", [](SLIBSZLIST* l) { return SzSLIBSzListRemove(l, 1); }},
      {"remove null", [](SLIBSZLIST*) { return SzSLIBSzListRemove(nullptr, 0); }},
      {"pop null", [](SLIBSZLIST*) { return SzSLIBSzListPop(nullptr); }},
  };
  for (const Case& c : cases) {
    SLIBCErrSet(0);
    EXPECT_EQ(c.call(list), nullptr) << c.what;
    EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT) << c.what;
  }
  EXPECT_EQ(ItemsOf(list), std::vector<std::string>{"only"});

  ASSERT_STREQ(SzSLIBSzListPop(list), "only");
  SLIBCErrSet(0);
  EXPECT_EQ(SzSLIBSzListPop(list), nullptr);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  SLIBSzListFree(list);
}

TEST(SlibList, SetReplacesInPlaceWhenNotLongerAndTakesNewSpaceOtherwise) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  for (const char* item : {"share", "volume"}) SLIBSzListPush(&list, item);
  const int32_t free_before = list->cbFree;
  const char* old = SzSLIBSzListGet(list, 0);
  EXPECT_EQ(SLIBSzListSet(&list, 0, "usb"), 0);
  EXPECT_EQ(SzSLIBSzListGet(list, 0), old);
  EXPECT_EQ(list->cbFree, free_before);
  EXPECT_EQ(SLIBSzListSet(&list, 1, "volume_long"), 1);
  EXPECT_EQ(list->cbFree, free_before - 12);
  EXPECT_EQ(ItemsOf(list), (std::vector<std::string>{"usb", "volume_long"}));
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBSzListSet(&list, -1, "x"), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  SLIBSzListFree(list);
}

TEST(SlibList, SetBeyondTheEndFillsSkippedPositionsWithEmptyItems) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  SLIBSzListPush(&list, "zero");
  const int32_t free_before = list->cbFree;
  EXPECT_EQ(SLIBSzListSet(&list, 4, "four"), 4);
  EXPECT_EQ(ItemsOf(list), (std::vector<std::string>{"zero", "", "", "", "four"}));
  EXPECT_EQ(list->cbFree, free_before - (5 + 4) - 3 * 4);
  EXPECT_EQ(SzSLIBSzListGet(list, 2), reinterpret_cast<const char*>(list) + list->offEmpty);
  // An empty item given a string takes fresh space; the shared empty string stays empty.
  EXPECT_EQ(SLIBSzListSet(&list, 2, "two"), 2);
  EXPECT_EQ(ItemsOf(list), (std::vector<std::string>{"zero", "", "two", "", "four"}));

  // Far beyond the end: the list grows to hold the empty items.
  EXPECT_EQ(SLIBSzListSet(&list, 300, "end"), 300);
  EXPECT_EQ(list->cbTotal, 2048);
  EXPECT_EQ(list->nItem, 301);
  EXPECT_STREQ(SzSLIBSzListGet(list, 299), "");
  EXPECT_STREQ(SzSLIBSzListGet(list, 300), "end");
  EXPECT_STREQ(SzSLIBSzListGet(list, 4), "four");
  SLIBSzListFree(list);
}

TEST(SlibList, ResetReclaimsAllSpaceAndKeepsTheSortMode) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  SLIBSzListSort(list, SLIB_LIST_SORT_NOCASE);
  for (const std::string& name : Names(60)) SLIBSzListPush(&list, name.c_str());
  ASSERT_EQ(list->cbTotal, 1024);
  ASSERT_EQ(SLIBSzListReset(list), 0);
  EXPECT_EQ(list->nItem, 0);
  EXPECT_EQ(list->cbFree, 1000);
  EXPECT_EQ(list->nSortMode, SLIB_LIST_SORT_NOCASE);
  EXPECT_EQ(SLIBSzListPush(&list, "b"), 0);
  EXPECT_EQ(SLIBSzListPush(&list, "A"), 0);
  EXPECT_EQ(list->cbFree, 1000 - 2 * 6);
  EXPECT_EQ(SLIBSzListReset(nullptr), -1);
  SLIBSzListFree(list);
}

TEST(SlibList, AMemcpyCopyOfTheBlockIsAWorkingList) {
  SLIBSZLIST* original = PslSLIBSzListAlloc(512);
  const std::vector<std::string> names = Names(30);
  for (const std::string& name : names) SLIBSzListPush(&original, name.c_str());
  SLIBSzListSet(&original, 32, "ZZZ");

  auto* copy = static_cast<SLIBSZLIST*>(malloc(static_cast<size_t>(original->cbTotal)));
  memcpy(copy, original, static_cast<size_t>(original->cbTotal));
  memset(original, 0xA5, static_cast<size_t>(original->cbTotal));
  SLIBSzListFree(original);

  std::vector<std::string> expected = names;
  expected.insert(expected.end(), {"", "", "ZZZ"});
  EXPECT_EQ(ItemsOf(copy), expected);
  EXPECT_EQ(SLIBSzListFind(copy, "ITEM-017"), 17);
  // Pushing into the copy grows it like any list.
  for (int i = 0; i < 40; ++i) ASSERT_GE(SLIBSzListPush(&copy, "item-000"), 0);
  EXPECT_GT(copy->cbTotal, 512);
  EXPECT_EQ(copy->nItem, 73);
  EXPECT_STREQ(SzSLIBSzListGet(copy, 32), "ZZZ");
  EXPECT_STREQ(SzSLIBSzListGet(copy, 72), "item-000");
  EXPECT_STREQ(SzSLIBSzListGet(copy, 17), "item-017");
  SLIBSzListFree(copy);
}

TEST(SlibList, FreeAcceptsNull) { SLIBSzListFree(nullptr); }
