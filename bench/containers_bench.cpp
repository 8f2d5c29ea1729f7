// Containers: HashTab lookups of present string keys against
// std::unordered_map<std::string, T*>, and DLlist append plus removal at an
// iterator (with 1 and with 8 live iterators) against boost::intrusive::list.
#include <boost/intrusive/list.hpp>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "LIST.h"
#include "bench_support.h"

namespace {

constexpr int kKeys = 10000;

// Two kinds of key: parameter names as an instrument file has them
// ("Stage3.Axis12.Speed"), and random identifiers of 6 to 24 characters.
std::vector<std::string> make_keys(bool names) {
  std::mt19937 rng(4711);
  std::vector<std::string> keys;
  const char* const parts[] = {"Speed", "Offset", "Gain", "Limit", "Range", "Delay", "Mode", "Scale"};
  const std::string alphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
  while (int(keys.size()) < kKeys) {
    std::string k;
    if (names) {
      const int i = int(keys.size());
      k = "Stage" + std::to_string(i % 17) + ".Axis" + std::to_string(i / 17) + "." + parts[i % 8];
    } else {
      k.resize(6 + rng() % 19);
      for (char& c : k) c = alphabet[rng() % alphabet.size()];
    }
    keys.push_back(k);
  }
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  return keys;
}

struct HashFixture {
  std::vector<std::string> keys;
  std::vector<int> order;  // lookup order: a fixed shuffle
  HashTab* table = nullptr;
  std::vector<std::unique_ptr<HashString>> probes;
  std::unordered_map<std::string, HashString*> map;

  explicit HashFixture(bool names) : keys(make_keys(names)) {
    heapman_mgr::initialize();
    table = new (mainheap, "bench/containers", __LINE__) HashTab;
    for (const std::string& k : keys) {
      auto* stored = new (mainheap, "bench/containers", __LINE__) HashString(k.c_str());
      table->Insert(stored);
      map.emplace(k, stored);
      probes.emplace_back(new HashString(k.c_str()));
    }
    order.resize(keys.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = int(i);
    std::shuffle(order.begin(), order.end(), std::mt19937(99));
  }
};

HashFixture& fixture(bool names) {
  static HashFixture byName(true);
  static HashFixture random(false);
  return names ? byName : random;
}

void BM_HashTabLookup(benchmark::State& state) {
  HashFixture& f = fixture(state.range(0) != 0);
  for (auto _ : state)
    for (int i : f.order) benchmark::DoNotOptimize(f.table->Lookup(f.probes[i].get()));
  state.SetItemsProcessed(state.iterations() * int64_t(f.order.size()));
}

void BM_UnorderedMapLookup(benchmark::State& state) {
  HashFixture& f = fixture(state.range(0) != 0);
  for (auto _ : state)
    for (int i : f.order) benchmark::DoNotOptimize(f.map.find(f.keys[i])->second);
  state.SetItemsProcessed(state.iterations() * int64_t(f.order.size()));
}

constexpr int kElements = 1000;

struct Node : DLlistElt {
  int v = 0;
};

struct Walker : DLlistIter {
  explicit Walker(const DLlist* l) : DLlistIter(l) {}
  using DLlistIter::First;
};

// Appends kElements, then removes them all through one walking iterator
// while `others` further iterators stay registered with the list.
void BM_DLlistAppendRemove(benchmark::State& state) {
  const int others = int(state.range(0)) - 1;
  std::vector<Node> nodes(kElements);
  DLlist list(false);
  std::vector<std::unique_ptr<Walker>> parked;
  for (int i = 0; i < others; ++i) parked.push_back(std::make_unique<Walker>(&list));
  Walker walker(&list);
  for (auto _ : state) {
    for (Node& n : nodes) list.InsertEnd(&n);
    walker.First();
    while (!walker.EOL()) walker.Remove(true);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}

struct BoostNode : boost::intrusive::list_base_hook<> {
  int v = 0;
};

void BM_BoostIntrusiveAppendRemove(benchmark::State& state) {
  std::vector<BoostNode> nodes(kElements);
  boost::intrusive::list<BoostNode> list;
  for (auto _ : state) {
    for (BoostNode& n : nodes) list.push_back(n);
    for (auto it = list.begin(); it != list.end();) it = list.erase(it);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}

BENCHMARK(BM_HashTabLookup)->Arg(1)->Arg(0);
BENCHMARK(BM_UnorderedMapLookup)->Arg(1)->Arg(0);
BENCHMARK(BM_DLlistAppendRemove)->Arg(1)->Arg(8);
BENCHMARK(BM_BoostIntrusiveAppendRemove);

}  // namespace

int main(int argc, char** argv) {
  return kvbench::run_with_ratios(
      argc, argv,
      {{"HashTab / unordered_map lookup, parameter names", "BM_HashTabLookup/1", "BM_UnorderedMapLookup/1", 2.0},
       {"HashTab / unordered_map lookup, random identifiers", "BM_HashTabLookup/0", "BM_UnorderedMapLookup/0", 2.0},
       {"DLlist / boost::intrusive append+remove, 1 iterator", "BM_DLlistAppendRemove/1",
        "BM_BoostIntrusiveAppendRemove", 0.0},
       {"DLlist / boost::intrusive append+remove, 8 iterators", "BM_DLlistAppendRemove/8",
        "BM_BoostIntrusiveAppendRemove", 0.0}});
}
