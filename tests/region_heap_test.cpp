// Region heaps: the allocator under the tracked heaps.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kvos/region_heap.h"
#include "test_support.h"

namespace {

using kvos::heap_entry;
using kvos::region_heap;

// What the test expects a heap to hold: every live block with its size and
// the byte it was filled with.
using Model = std::map<char*, std::pair<size_t, unsigned char>>;

struct WalkTotals {
  size_t regions = 0, busy = 0, freeBlocks = 0;
  bool accountsForCommitted = true;  // region overhead + blocks == committed size, per region
  bool busyMatchModel = true;
};

WalkTotals walk(region_heap h, const Model* model = nullptr) {
  WalkTotals t;
  heap_entry e;
  size_t committed = 0, accounted = 0;
  while (kvos::region_heap_walk(h, &e)) {
    if (e.flags & kvos::heap_entry_region) {
      if (t.regions++ > 0 && committed != accounted) t.accountsForCommitted = false;
      committed = e.region.committedSize;
      accounted = e.overhead;
    } else if (!(e.flags & kvos::heap_entry_uncommitted_range)) {
      accounted += e.size + e.overhead;
      const bool busy = (e.flags & kvos::heap_entry_busy) != 0;
      (busy ? t.busy : t.freeBlocks) += 1;
      if (busy && model != nullptr) {
        auto it = model->find(static_cast<char*>(e.data));
        if (it == model->end() || it->second.first != e.size) t.busyMatchModel = false;
      }
    }
  }
  if (t.regions > 0 && committed != accounted) t.accountsForCommitted = false;
  EXPECT_EQ(kvos::heap_last_error(), kvos::heap_error_no_more_items);
  return t;
}

bool filled_with(const char* p, size_t n, unsigned char c) {
  return std::string_view(p, n) == std::string(n, static_cast<char>(c));
}

// Runs a long random sequence of allocations, frees and reallocations
// against the model, validating after every step.
void random_sequence(region_heap h, unsigned steps, size_t maxSize, unsigned startValue) {
  std::mt19937_64 rng(startValue);
  Model model;
  unsigned char nextFill = 1;
  auto random_size = [&] {
    // Mostly small, sometimes large, now and then zero.
    const unsigned pick = rng() % 100;
    return size_t(pick < 3 ? 0 : pick < 80 ? rng() % 300 : rng() % maxSize);
  };
  auto fill = [&](char* p, size_t n) {
    ASSERT_EQ(model.count(p), 0u) << "a live block was handed out twice";
    std::memset(p, nextFill, n);
    model[p] = {n, nextFill};
    nextFill = static_cast<unsigned char>(nextFill % 250 + 1);
  };
  for (unsigned step = 0; step < steps; ++step) {
    const unsigned op = rng() % 10;
    if (op < 4 || model.empty()) {
      const size_t n = random_size();
      char* p = static_cast<char*>(kvos::region_heap_alloc(h, n));
      ASSERT_NE(p, nullptr) << "step " << step << " size " << n;
      ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
      ASSERT_TRUE(filled_with(p, n, 0)) << "a new block is zero-filled";
      fill(p, n);
    } else {
      auto it = std::next(model.begin(), static_cast<long>(rng() % model.size()));
      char* p = it->first;
      const auto [size, byte] = it->second;
      ASSERT_TRUE(filled_with(p, size, byte)) << "block contents survive other operations";
      ASSERT_EQ(kvos::region_heap_size(h, p), size);
      model.erase(it);
      if (op < 8) {
        ASSERT_TRUE(kvos::region_heap_free(h, p));
      } else {
        const size_t n = random_size();
        char* q = static_cast<char*>(kvos::region_heap_realloc(h, p, n));
        ASSERT_NE(q, nullptr);
        ASSERT_TRUE(filled_with(q, std::min(n, size), byte)) << "reallocation keeps the contents";
        ASSERT_TRUE(n <= size || filled_with(q + size, n - size, 0)) << "growth is zeroed";
        fill(q, n);
      }
    }
    ASSERT_TRUE(kvos::region_heap_validate(h)) << "step " << step;
    if (step % 97 == 0) {
      if (step % 3 == 0) kvos::region_heap_compact(h);
      const WalkTotals t = walk(h, &model);
      ASSERT_EQ(t.busy, model.size());
      ASSERT_TRUE(t.busyMatchModel);
      ASSERT_TRUE(t.accountsForCommitted);
    }
  }
  for (const auto& [p, live] : model) {
    ASSERT_TRUE(filled_with(p, live.first, live.second));
    ASSERT_TRUE(kvos::region_heap_free(h, p));
  }
  EXPECT_EQ(walk(h).busy, 0u);
  kvos::region_heap_compact(h);
  ASSERT_TRUE(kvos::region_heap_validate(h));
  const WalkTotals t = walk(h);
  EXPECT_EQ(t.busy, 0u);
  EXPECT_EQ(t.regions, 1u) << "empty extra segments are released";
  EXPECT_EQ(t.freeBlocks, 1u) << "after compacting, everything is one free block again";
}

char* alloc(region_heap h, size_t n) { return static_cast<char*>(kvos::region_heap_alloc(h, n)); }

// The committed size of a heap's first region.
size_t committed(region_heap h) {
  heap_entry e;
  return kvos::region_heap_walk(h, &e) ? e.region.committedSize : 0;
}

class RegionHeap : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(kvos::region_heap_destroy(fixed));
    EXPECT_TRUE(kvos::region_heap_destroy(growable));
  }
  region_heap fixed = kvos::region_heap_create(64 << 20);
  region_heap growable = kvos::region_heap_create(0);
};

TEST_F(RegionHeap, RandomSequencesAgreeWithTheModel) {
  ASSERT_NE(fixed, nullptr);
  ASSERT_NE(growable, nullptr);
  random_sequence(fixed, 6000, 200000, 11);
  random_sequence(growable, 6000, 600000, 12);
}

TEST_F(RegionHeap, FixedHeapIsOneReservedRange) {
  heap_entry e;
  ASSERT_TRUE(kvos::region_heap_walk(fixed, &e));
  char* const base = static_cast<char*>(e.data);  // the first address of the reservation
  EXPECT_EQ(e.region.committedSize + e.region.uncommittedSize, size_t(64) << 20);
  const size_t committed = e.region.committedSize;
  EXPECT_LT(committed, size_t(1) << 20) << "pages are committed as needed, not up front";
  // A fresh heap: one free block over the committed part, then the uncommitted rest.
  ASSERT_TRUE(kvos::region_heap_walk(fixed, &e));
  EXPECT_EQ(static_cast<char*>(e.data) + e.size - committed, base) << "the free block ends where the committed part does";
  ASSERT_TRUE(kvos::region_heap_walk(fixed, &e));
  EXPECT_EQ(e.flags, kvos::heap_entry_uncommitted_range);
  EXPECT_EQ(static_cast<char*>(e.data), base + committed);
  EXPECT_FALSE(kvos::region_heap_walk(fixed, &e));

  // Blocks stay inside the range until it is full; then allocation fails.
  std::vector<void*> blocks;
  for (void* p; (p = kvos::region_heap_alloc(fixed, 1 << 20)) != nullptr;) {
    ASSERT_GE(static_cast<char*>(p), base);
    ASSERT_LE(static_cast<char*>(p) + (1 << 20), base + (64 << 20));
    blocks.push_back(p);
  }
  EXPECT_EQ(kvos::heap_last_error(), kvos::heap_error_not_enough_memory);
  EXPECT_GE(blocks.size(), 62u) << "nearly the whole reservation is usable";
  EXPECT_NE(alloc(fixed, 1000), nullptr) << "the space left after the last megabyte still serves small blocks";
}

TEST_F(RegionHeap, BadFreesFailCleanly) {
  char *a = alloc(fixed, 100), *b = alloc(fixed, 100), *c = alloc(fixed, 100);
  std::memset(b, 0x5A, 100);
  std::memcpy(b + 32, b - 16, 16);  // a forged header inside a block's data is not taken for a block
  int local = 0;
  for (void* bad : {static_cast<void*>(b + 16), static_cast<void*>(b + 1), static_cast<void*>(nullptr),
                    static_cast<void*>(&local), static_cast<void*>(b + 48)}) {
    kvos::set_heap_last_error(0);
    EXPECT_FALSE(kvos::region_heap_free(fixed, bad)) << bad;
    EXPECT_EQ(kvos::heap_last_error(), kvos::heap_error_invalid_parameter);
  }
  EXPECT_FALSE(kvos::region_heap_free(growable, a)) << "a block of another heap";
  EXPECT_EQ(kvos::region_heap_size(fixed, b + 16), SIZE_MAX);
  EXPECT_EQ(kvos::region_heap_realloc(fixed, b + 32, 10), nullptr);
  ASSERT_TRUE(kvos::region_heap_free(fixed, b));
  EXPECT_FALSE(kvos::region_heap_free(fixed, b)) << "second free";
  ASSERT_TRUE(kvos::region_heap_free(fixed, a));  // merges with b's space
  EXPECT_FALSE(kvos::region_heap_free(fixed, b)) << "second free of a merged block";
  EXPECT_FALSE(kvos::region_heap_free(fixed, a));
  EXPECT_EQ(kvos::region_heap_size(fixed, a), SIZE_MAX);
  EXPECT_TRUE(kvos::region_heap_validate(fixed));
  EXPECT_EQ(walk(fixed).busy, 1u);
  EXPECT_TRUE(kvos::region_heap_free(fixed, c));
}

// Flips each of count bytes from first in turn: validation must notice every one.
void expect_damage_found(region_heap h, char* first, int count) {
  for (int offset = 0; offset < count; ++offset) {
    const char saved = first[offset];
    first[offset] = static_cast<char>(saved ^ 0x40);
    const bool caught = !kvos::region_heap_validate(h);
    first[offset] = saved;
    EXPECT_TRUE(caught) << "damage at offset " << offset;
  }
  EXPECT_TRUE(kvos::region_heap_validate(h));
}

TEST_F(RegionHeap, ValidateFindsDamagedHeadersAndLinks) {
  // Blocks too large for the lookaside lists: a free goes to the free lists.
  char *a = alloc(fixed, 2000), *b = alloc(fixed, 2000), *c = alloc(fixed, 2000);
  ASSERT_TRUE(kvos::region_heap_free(fixed, b));
  expect_damage_found(fixed, b - 16, 32);  // the header after a, and the free links in b's data

  // A damaged neighbour stops a free instead of spreading the damage.
  char saved[8];
  std::memcpy(saved, c - 16, sizeof saved);
  std::memset(c - 16, 0x11, 8);
  EXPECT_FALSE(kvos::region_heap_free(fixed, a)) << "a's successor is b (free), whose successor c is damaged";
  EXPECT_EQ(kvos::heap_last_error(), kvos::heap_error_invalid_data);
  std::memcpy(c - 16, saved, sizeof saved);
  EXPECT_TRUE(kvos::region_heap_free(fixed, a));

  // A small block on its lookaside list: its header and its link are checked too.
  char* small = alloc(fixed, 40);
  alloc(fixed, 40);
  ASSERT_TRUE(kvos::region_heap_free(fixed, small));
  expect_damage_found(fixed, small - 16, 24);
}

TEST_F(RegionHeap, SmallBlocksComeBackFromTheLookasideLists) {
  char *a = alloc(fixed, 100), *fence = alloc(fixed, 100);
  std::memset(a, 0x33, 100);
  ASSERT_TRUE(kvos::region_heap_free(fixed, a));
  EXPECT_FALSE(kvos::region_heap_free(fixed, a)) << "a second free of a cached block";
  EXPECT_EQ(walk(fixed).busy, 1u) << "a cached block walks as free";
  char* again = alloc(fixed, 98);
  EXPECT_EQ(again, a) << "a request of the same block size reuses it";
  EXPECT_TRUE(filled_with(again, 98, 0)) << "and gets it zeroed";
  ASSERT_TRUE(kvos::region_heap_free(fixed, again));
  ASSERT_TRUE(kvos::region_heap_free(fixed, fence));
  kvos::region_heap_compact(fixed);
  EXPECT_EQ(walk(fixed).freeBlocks, 1u) << "compacting merges the cached blocks";

  // Space held on the lookaside lists is not lost to large requests.
  region_heap tight = kvos::region_heap_create(1 << 20);
  std::vector<void*> blocks;
  for (void* p; (p = kvos::region_heap_alloc(tight, 200)) != nullptr;) blocks.push_back(p);
  ASSERT_GT(blocks.size(), 1000u);
  for (size_t i = 0; i < blocks.size(); i += 2) ASSERT_TRUE(kvos::region_heap_free(tight, blocks[i]));
  for (size_t i = 1; i < blocks.size(); i += 2) ASSERT_TRUE(kvos::region_heap_free(tight, blocks[i]));
  EXPECT_NE(kvos::region_heap_alloc(tight, 900 << 10), nullptr);
  EXPECT_TRUE(kvos::region_heap_destroy(tight));
}

// Contents kept and growth zeroed are checked by the model run; these are the placements.
TEST_F(RegionHeap, ReallocationGrowsInPlaceWhenItCanAndFailsWithoutLoss) {
  char* a = alloc(fixed, 100);
  std::memset(a, 7, 100);
  EXPECT_EQ(kvos::region_heap_realloc(fixed, a, 5000), a) << "the free space after a is taken in place";
  EXPECT_EQ(kvos::region_heap_realloc(fixed, a, 10), a);
  EXPECT_EQ(kvos::region_heap_realloc(fixed, a, 60), a);
  EXPECT_TRUE(filled_with(a + 10, 50, 0)) << "bytes past the shrunk size come back as zero";
  alloc(fixed, 16);  // a's space can no longer grow
  char* moved = static_cast<char*>(kvos::region_heap_realloc(fixed, a, 100000));
  ASSERT_NE(moved, nullptr);
  EXPECT_TRUE(filled_with(moved, 10, 7));
  EXPECT_EQ(kvos::region_heap_realloc(fixed, moved, size_t(100) << 20), nullptr) << "larger than the heap";
  EXPECT_EQ(kvos::heap_last_error(), kvos::heap_error_not_enough_memory);
  EXPECT_EQ(kvos::region_heap_size(fixed, moved), 100000u) << "the block is left as it was";
}

TEST_F(RegionHeap, CompactGivesPagesBackAndGrowableHeapsShrink) {
  const size_t big = 8 << 20;
  alloc(fixed, 64);
  char *large = alloc(fixed, big), *keepBack = alloc(fixed, 64);
  std::memset(large, 1, big);
  char* probe = large + big / 2;
  EXPECT_TRUE(kvtest::page_resident(probe));
  ASSERT_TRUE(kvos::region_heap_free(fixed, large));
  EXPECT_GE(kvos::region_heap_compact(fixed), big) << "the largest free block";
  EXPECT_FALSE(kvtest::page_resident(probe)) << "pages of a large free block are given back";

  // Freeing the tail lets the committed size fall back.
  const size_t committedBefore = committed(fixed);
  ASSERT_TRUE(kvos::region_heap_free(fixed, keepBack));
  kvos::region_heap_compact(fixed);
  EXPECT_LT(committed(fixed), committedBefore / 2);
  char* reuse = alloc(fixed, big);
  ASSERT_NE(reuse, nullptr);
  EXPECT_TRUE(filled_with(reuse, big, 0)) << "recommitted and released pages read as zero";

  // A growable heap chains segments and drops the empty ones when compacted.
  std::vector<void*> blocks;
  for (int i = 0; i < 40; ++i) blocks.push_back(kvos::region_heap_alloc(growable, 256 << 10));
  EXPECT_GT(walk(growable).regions, 1u);
  for (void* p : blocks) EXPECT_TRUE(kvos::region_heap_free(growable, p));
  kvos::region_heap_compact(growable);
  EXPECT_EQ(walk(growable).regions, 1u);
  void* huge = alloc(growable, 50 << 20);
  EXPECT_NE(huge, nullptr) << "a block larger than any segment gets a segment of its own";
  EXPECT_TRUE(kvos::region_heap_free(growable, huge));
}

TEST_F(RegionHeap, LastErrorBelongsToTheThread) {
  kvos::set_heap_last_error(0);
  std::thread other([this] {
    EXPECT_FALSE(kvos::region_heap_free(fixed, reinterpret_cast<void*>(16)));
    EXPECT_EQ(kvos::heap_last_error(), kvos::heap_error_invalid_parameter);
  });
  other.join();
  EXPECT_EQ(kvos::heap_last_error(), 0);
  EXPECT_EQ(kvos::region_heap_create(1000), nullptr) << "too small to hold its own bookkeeping";
  EXPECT_EQ(kvos::heap_last_error(), kvos::heap_error_invalid_parameter);
}

}  // namespace
