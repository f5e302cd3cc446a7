// Case-insensitive list sort and find, and key/value reads, each next to the
// plain standard-library way of doing the same work. The library's figure
// should stay within a small factor of its plain neighbour.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "lib/slib_file.h"
#include "lib/slib_list.h"

namespace {

constexpr int kProbes = 1000;

// File-name-like items: mixed-case letters, digits, '_' and '.', 8 to 24
// characters, the same for every run.
std::vector<std::string> Names(int count) {
  static const char kAlphabet[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.";
  std::mt19937 random(12345);
  std::uniform_int_distribution<int> length(8, 24);
  std::uniform_int_distribution<int> letter(0, sizeof(kAlphabet) - 2);
  std::vector<std::string> names(static_cast<size_t>(count));
  for (std::string& name : names) {
    name.resize(static_cast<size_t>(length(random)));
    for (char& c : name) c = kAlphabet[letter(random)];
  }
  return names;
}

std::vector<const char*> Pointers(const std::vector<std::string>& names) {
  std::vector<const char*> pointers;
  for (const std::string& name : names) pointers.push_back(name.c_str());
  return pointers;
}

bool PlainLess(const char* a, const char* b) { return strcasecmp(a, b) < 0; }

struct ListFree {
  void operator()(SLIBSZLIST* list) const { SLIBSzListFree(list); }
};
using List = std::unique_ptr<SLIBSZLIST, ListFree>;

List MakeList(const std::vector<std::string>& names) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  for (const std::string& name : names) SLIBSzListPush(&list, name.c_str());
  return List(list);
}

// An unsorted copy of `list`'s block, to sort again.
void CopyBlock(const SLIBSZLIST* from, SLIBSZLIST* to) { memcpy(to, from, from->cbTotal); }

void BM_ListSortNoCase(benchmark::State& state) {
  const List unsorted = MakeList(Names(static_cast<int>(state.range(0))));
  List work(static_cast<SLIBSZLIST*>(malloc(unsorted->cbTotal)));
  for (auto _ : state) {
    CopyBlock(unsorted.get(), work.get());
    SLIBSzListSort(work.get(), SLIB_LIST_SORT_NOCASE);
    benchmark::DoNotOptimize(work.get());
  }
}

void BM_PlainSortNoCase(benchmark::State& state) {
  const std::vector<std::string> names = Names(static_cast<int>(state.range(0)));
  const std::vector<const char*> unsorted = Pointers(names);
  std::vector<const char*> work(unsorted.size());
  for (auto _ : state) {
    std::copy(unsorted.begin(), unsorted.end(), work.begin());
    std::sort(work.begin(), work.end(), PlainLess);
    benchmark::DoNotOptimize(work.data());
  }
}

// Probes: every item found, in an order unrelated to the list's.
std::vector<std::string> Probes(const std::vector<std::string>& names) {
  std::vector<std::string> probes;
  for (int i = 0; i < kProbes; ++i) probes.push_back(names[(i * 7919u) % names.size()]);
  return probes;
}

void BM_ListFindNoCase(benchmark::State& state) {
  const std::vector<std::string> names = Names(static_cast<int>(state.range(0)));
  const List list = MakeList(names);
  SLIBSzListSort(list.get(), SLIB_LIST_SORT_NOCASE);
  const std::vector<std::string> probes = Probes(names);
  for (auto _ : state) {
    for (const std::string& probe : probes) {
      benchmark::DoNotOptimize(SLIBSzListFind(list.get(), probe.c_str()));
    }
  }
  state.SetItemsProcessed(state.iterations() * kProbes);
}

void BM_PlainFindNoCase(benchmark::State& state) {
  const std::vector<std::string> names = Names(static_cast<int>(state.range(0)));
  std::vector<const char*> sorted = Pointers(names);
  std::sort(sorted.begin(), sorted.end(), PlainLess);
  const std::vector<std::string> probes = Probes(names);
  for (auto _ : state) {
    for (const std::string& probe : probes) {
      const auto at = std::lower_bound(sorted.begin(), sorted.end(), probe.c_str(), PlainLess);
      const bool found = at != sorted.end() && strcasecmp(*at, probe.c_str()) == 0;
      benchmark::DoNotOptimize(found ? at - sorted.begin() : -1);
    }
  }
  state.SetItemsProcessed(state.iterations() * kProbes);
}

// A settings file of 1,000 lines whose last line holds the key looked for.
class KeyValueFile {
 public:
  KeyValueFile() {
    char pattern[] = "/tmp/slib_bench_XXXXXX";
    const int fd = mkstemp(pattern);
    if (fd >= 0) close(fd);
    path_ = pattern;
    FILE* file = fopen(path_.c_str(), "w");
    if (file == nullptr) return;
    for (int i = 0; i < 999; ++i) fprintf(file, "setting_%04d=\"value number %d\"\n", i, i);
    fprintf(file, "wanted_key=\"the value\"\n");
    fclose(file);
  }
  ~KeyValueFile() { unlink(path_.c_str()); }
  const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
};

void BM_GetKeyValue(benchmark::State& state) {
  const KeyValueFile file;
  char value[128];
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        SLIBFileGetKeyValue(file.path(), "wanted_key", value, sizeof(value), 0));
  }
}

// The same search done with getline and a prefix comparison.
void BM_PlainGetlineScan(benchmark::State& state) {
  const KeyValueFile file;
  static const char kPrefix[] = "wanted_key=";
  for (auto _ : state) {
    FILE* in = fopen(file.path(), "r");
    char* line = nullptr;
    size_t capacity = 0;
    bool found = false;
    while (!found && getline(&line, &capacity, in) > 0) {
      found = strncmp(line, kPrefix, sizeof(kPrefix) - 1) == 0;
    }
    free(line);
    fclose(in);
    benchmark::DoNotOptimize(found);
  }
}

BENCHMARK(BM_ListSortNoCase)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(BM_PlainSortNoCase)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(BM_ListFindNoCase)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(BM_PlainFindNoCase)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(BM_GetKeyValue);
BENCHMARK(BM_PlainGetlineScan);

}  // namespace

BENCHMARK_MAIN();
