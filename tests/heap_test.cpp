// Tracked heaps: records, the heap tree, lookup by address, clearing,
// reallocation, failures and threads.
#include <gtest/gtest.h>


#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "heap.h"
#include "kvos/region_heap.h"
#include "sysman.h"
#include "test_support.h"

namespace {

const char* const kFile = "tests/heap";

// Reaches the heap's protected operations for inspection.
struct HeapAccess : heap {
  static heap* find_in(heap* h, const void* p) { return (h->*(&HeapAccess::find))(p); }
  static bool belongs_to(heap* h, const void* p) { return (h->*(&HeapAccess::belongs))(p); }
  static void* realloc_in(heap* h, void* p, size_t n) { return (h->*(&HeapAccess::reallocator))(p, n); }
};

const heap_record* record_of(const void* p) {
  return reinterpret_cast<const heap_record*>(static_cast<const char*>(p) - sizeof(heap_record));
}

// Busy blocks of a heap, by a walk of its underlying heap.
std::vector<void*> busy_blocks(const heap* h) {
  std::vector<void*> blocks;
  kvos::heap_entry e;
  while (kvos::region_heap_walk(static_cast<kvos::region_heap>(h->get_handle()), &e))
    if (e.flags & kvos::heap_entry_busy) blocks.push_back(e.data);
  return blocks;
}

using kvtest::abort_text;

class Heaps : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { heapman_mgr::initialize(); }
};

// Name, flags, maximum and region sizes and parent of a heap, in one line.
std::string describe(const heap* h) {
  char text[128];
  std::snprintf(text, sizeof text, "%s|%d|%zX|%zX|%s", h->get_name(), static_cast<int>(h->get_flags()),
                h->get_max_size(), h->get_region_size(), h->get_parent() ? h->get_parent()->get_name() : "-");
  return text;
}

TEST_F(Heaps, ConstructionRoundsSizesCutsNamesAndInherits) {
  heap* before = mainheap;
  heapman_mgr::initialize();
  EXPECT_EQ(mainheap, before) << "initialize runs once";
  heap a(nullptr, 0x9000000, heNONE), b(100), c("c", 0x30000000, heNONE), d("d", 0x12000000, heNONE);
  heap e("abcdefghijklmnopqrstuvwxyz"), plain("plain", heWINHEAP);
  // A heap outside every heap hangs under mainheap and inherits its own-heap flag.
  const std::pair<heap*, std::string> rows[] = {
      {mainheap, "main|8|12000000|12000000|-"}, {&a, "|8|12000000|12000000|main"},
      {&b, "|8|9000000|9000000|main"},           {&c, "c|8|30000000|30000000|main"},
      {&d, "d|8|24000000|24000000|main"},        {&e, "abcdefghijkl|8|12000000|12000000|main"},
      {&plain, "plain|12|12000000|0|main"},
  };
  for (const auto& [h, expected] : rows) EXPECT_EQ(describe(h), expected);
  EXPECT_EQ(plain.get_base(), nullptr);
  std::vector<heap*> order;  // children are appended in creation order
  for (heap* h = mainheap->get_first_child(); h != nullptr; h = h->get_next_sibling()) order.push_back(h);
  EXPECT_LT(std::find(order.begin(), order.end(), &a), std::find(order.begin(), order.end(), &e));
}

TEST_F(Heaps, TrackedBlocksCarryTheirRecordNearCopiesFollowTheObjectOthersAreTheRuntimeLibrarys) {
  const int line = __LINE__;
  char* p = static_cast<char*>(operator new(40, mainheap, kFile, line));
  const heap_record* r = record_of(p);
  EXPECT_EQ(r->file, kFile) << "the creator's string is kept by pointer";
  EXPECT_EQ(r->line, line);
  EXPECT_EQ(r->state, 0u);
  EXPECT_EQ(r->guard, 0xCCCCCCCCu);
  EXPECT_EQ(std::string(p, 40), std::string(40, '\0')) << "zero-filled";
  EXPECT_EQ(heapman_mgr::get_size(p), 40u);
  const std::vector<void*> before = busy_blocks(mainheap);
  EXPECT_NE(std::find(before.begin(), before.end(), static_cast<void*>(p - 24)), before.end())
      << "the heap's block starts at the record";
  KvOperatorDelete(p);
  EXPECT_EQ(busy_blocks(mainheap).size(), before.size() - 1);
  int* numbers = new (mainheap, kFile, __LINE__) int[10];
  EXPECT_EQ(heapman_mgr::find(numbers), mainheap);
  KvOperatorDeleteArray(numbers);

  // Copies and near allocations go to the heap holding the object.
  heap* h = new (mainheap, kFile, __LINE__) heap("near");
  int* object = new (h, kFile, __LINE__) int(5);
  double* nearby = new (reinterpret_cast<_FindHeap*>(object), kFile, 77) double(1.5);
  char* copy = strdup(object, "abc");
  char* mainCopy = sys_strdup("main text");
  int local = 0;
  char* untracked = strdup(&local, "xyz");  // near nothing tracked: the runtime library
  const std::tuple<void*, heap*, const char*, int> made[] = {
      {nearby, h, kFile, 77}, {copy, h, "System/heap", 310}, {mainCopy, mainheap, "System/heap", 289}};
  for (const auto& [block, where, file, at] : made) {
    EXPECT_EQ(heapman_mgr::find(block), where);
    EXPECT_STREQ(record_of(block)->file, file);
    EXPECT_EQ(record_of(block)->line, at);
  }
  EXPECT_STREQ(copy, "abc");
  EXPECT_STREQ(mainCopy, "main text");
  EXPECT_STREQ(untracked, "xyz");

  char* raw = static_cast<char*>(KvOperatorNew(100));
  void* unheaped = operator new(64, static_cast<heap*>(nullptr), kFile, 1);
  for (void* block : {static_cast<void*>(untracked), static_cast<void*>(raw), unheaped})
    EXPECT_EQ(heapman_mgr::find(block), nullptr);
  EXPECT_EQ(heapman_mgr::get_size(raw), kvtest::malloc_block_size(raw));
  // These reach free: a leak or a bad free shows under the sanitizers.
  KvOperatorDelete(raw);
  KvOperatorDelete(untracked);
  heapman_mgr::deallocator(unheaped);
  // Reallocation of nothing is a zeroed runtime block; of a runtime block, realloc.
  char* fresh = static_cast<char*>(heapman_mgr::reallocator(nullptr, 32));
  EXPECT_EQ(std::string(fresh, 32), std::string(32, '\0'));
  std::memcpy(fresh, "keep", 5);
  char* bigger = static_cast<char*>(heapman_mgr::reallocator(fresh, 4000));
  EXPECT_STREQ(bigger, "keep");
  EXPECT_EQ(heapman_mgr::find(bigger), nullptr);
  KvOperatorDelete(bigger);
  KvOperatorDelete(nullptr);
  KvOperatorDelete(mainCopy);
  delete h;
}

TEST_F(Heaps, LookupByAddressFollowsTheTreeAndASubtreeDiesWithItsRoot) {
  heap* parent = new (mainheap, kFile, __LINE__) heap("parent");
  heap* child = new (parent, kFile, __LINE__) heap("child");
  heap* grandchild = new (child, kFile, __LINE__) heap("grandchild");
  heap* plain = new (parent, kFile, __LINE__) heap("plain", heWINHEAP);
  heap* belowPlain = new (plain, kFile, __LINE__) heap("below");
  EXPECT_EQ(grandchild->get_parent(), child) << "a heap made in another heap's memory is its child";
  EXPECT_EQ(child->get_next_sibling(), plain);
  char* inParent = static_cast<char*>(operator new(100, parent, kFile, 1));
  char* inGrandchild = static_cast<char*>(operator new(100, grandchild, kFile, 2));
  char* inPlain = static_cast<char*>(operator new(100, plain, kFile, 3));
  char* inBelow = static_cast<char*>(operator new(64, belowPlain, kFile, 4));
  EXPECT_EQ(heapman_mgr::find(inParent), parent);
  EXPECT_EQ(heapman_mgr::find(inGrandchild + 50), grandchild) << "a fixed region answers by range";
  EXPECT_EQ(heapman_mgr::find(inPlain), plain);
  EXPECT_EQ(heapman_mgr::find(inPlain + 16), nullptr) << "a plain heap knows only its blocks' exact addresses";
  EXPECT_EQ(heapman_mgr::find(inBelow), nullptr) << "the children of a plain heap are not searched";
  EXPECT_FALSE(HeapAccess::belongs_to(grandchild, inParent));
  EXPECT_EQ(HeapAccess::find_in(child, inParent), nullptr) << "find looks at a heap and below only";
  EXPECT_EQ(heapman_mgr::get_size(inPlain), 100u) << "blocks of a plain heap have no record";
  KvOperatorDelete(inPlain);
  EXPECT_EQ(busy_blocks(plain).size(), 1u);
  const size_t belowBlocks = busy_blocks(belowPlain).size();
  KvOperatorDelete(inBelow);  // must not reach the runtime library's free
  EXPECT_EQ(busy_blocks(belowPlain).size(), belowBlocks - 1);

  // A copy of a heap object shares its heap but does not join the tree.
  alignas(heap) unsigned char storage[sizeof(heap)];
  heap* copy = new (storage) heap(*parent);  // never destroyed: it would destroy what it shares
  EXPECT_EQ(copy->get_handle(), parent->get_handle());
  void* grandchildBase = grandchild->get_base();
  EXPECT_TRUE(kvtest::page_mapped(grandchildBase));
  const size_t mainBlocks = busy_blocks(mainheap).size();
  delete parent;  // the library's deleting destructor: back to mainheap, not to the runtime library
  EXPECT_EQ(busy_blocks(mainheap).size(), mainBlocks - 1);
  EXPECT_FALSE(kvtest::page_mapped(grandchildBase));
  EXPECT_EQ(heapman_mgr::find(inGrandchild), nullptr);
  for (heap* c = mainheap->get_first_child(); c != nullptr; c = c->get_next_sibling()) {
    EXPECT_NE(c, parent);
    EXPECT_NE(c, copy);
  }
  heap* hosted = new heap("hosted");  // made with the host's new: back to the runtime library
  EXPECT_EQ(heapman_mgr::find(hosted), nullptr);
  delete hosted;
}

TEST_F(Heaps, ClearEmptiesFixedAndPlainHeaps) {
  heap* fixed = new (mainheap, kFile, __LINE__) heap("fixed");
  void* handle = fixed->get_handle();
  void* base = fixed->get_base();
  for (int i = 0; i < 12000; ++i) operator new(8 + i % 64, fixed, kFile, i);
  heap* inner = new (fixed, kFile, __LINE__) heap("inner");
  operator new(10, inner, kFile, 1);
  ASSERT_EQ(fixed->get_first_child(), inner);
  EXPECT_EQ(busy_blocks(fixed).size(), 12001u);
  fixed->clear();
  EXPECT_EQ(busy_blocks(fixed).size(), 0u) << "more blocks than one chunk of the helper list";
  EXPECT_EQ(fixed->get_first_child(), nullptr);
  EXPECT_EQ(fixed->get_handle(), handle) << "a fixed heap keeps its handle and region";
  EXPECT_EQ(fixed->get_base(), base);
  operator new(16, fixed, kFile, 1);
  fixed->clear();
  EXPECT_TRUE(busy_blocks(fixed).empty()) << "a second, smaller clear";

  heap* plain = new (mainheap, kFile, __LINE__) heap("plain", heWINHEAP);
  void* oldHandle = plain->get_handle();
  char* inPlain = static_cast<char*>(operator new(50, plain, kFile, 1));
  plain->clear();
  EXPECT_NE(plain->get_handle(), oldHandle) << "a plain heap gets a new handle";
  EXPECT_EQ(heapman_mgr::find(inPlain), nullptr);
  EXPECT_NE(operator new(50, plain, kFile, 2), nullptr);
  delete plain;
  delete fixed;
}

TEST_F(Heaps, ReallocationKeepsTheOddSizeFailuresRaiseAndBadFreesAreCaught) {
  heap* h = new (mainheap, kFile, __LINE__) heap("realloc");
  heap* small = new (mainheap, kFile, __LINE__) heap("small", 100, heNONE);
  heap* plain = new (mainheap, kFile, __LINE__) heap("plainre", heWINHEAP);
  char* p = static_cast<char*>(operator new(50, h, kFile, 9));
  std::memset(p, 'x', 50);
  char* q = static_cast<char*>(heapman_mgr::reallocator(p, 200));
  EXPECT_EQ(heapman_mgr::get_size(q), 200u - 24) << "the requested size is passed on unchanged";
  EXPECT_EQ(std::string(q, 176), std::string(50, 'x') + std::string(126, '\0')) << "growth is zeroed";
  EXPECT_EQ(record_of(q)->line, 9) << "the record moves with the block";
  EXPECT_EQ(heapman_mgr::reallocator(q, size_t(0x20000000)), reinterpret_cast<void*>(24))
      << "a failed reallocation is not tested for";
  EXPECT_EQ(heapman_mgr::get_size(q), 176u) << "the block is left as it was";
  char* w = static_cast<char*>(HeapAccess::realloc_in(plain, operator new(10, plain, kFile, 1), 300));
  EXPECT_EQ(heapman_mgr::get_size(w), 300u) << "no record in a plain heap";

  EXPECT_EQ(kvtest::raised([&] { operator new(0x10000000, small, kFile, 12); }),
            "Memory allocation error: 8 @ 143 | void *__cdecl kvHeapAlloc(void *,unsigned __int64)");
  EXPECT_EQ(kvtest::raised([&] { operator new(size_t(1) << 52, plain, kFile, 77); }),
            "Heap new failure. File: tests/heap Line: 77 @ 215 | "
            "void *__cdecl operator new(unsigned __int64,class heap *,char *,int)");
  try {
    operator new(0x10000000, small, kFile, 12);
  } catch (const CSL::Heap::HeapError& e) {
    EXPECT_EQ(e.GetCategory(), "CSL Heap Error");
    EXPECT_EQ(e.GetCodeContext().GetBuildDate(), KvBuildDate());
    EXPECT_THROW(e.Copy()->Throw(), CSL::Heap::HeapError) << "copies throw their own type";
  }
  EXPECT_NE(operator new(100, small, kFile, 1), nullptr) << "the heap works on after a failure";

  char* keep = static_cast<char*>(operator new(64, h, kFile, 2));
  const std::string expected = "heap::deallocator - not on winHeap";
  EXPECT_EQ(abort_text([&] { KvOperatorDelete(q + 8); }), expected) << "interior pointer";
  KvOperatorDelete(q);
  EXPECT_EQ(abort_text([&] { KvOperatorDelete(q); }), expected) << "second free";
  EXPECT_EQ(abort_text([&] { heapman_mgr::deallocator(q); }), expected);
  KvOperatorDelete(w);
  EXPECT_EQ(abort_text([&] { KvOperatorDelete(w); }), expected) << "a second free in a plain heap";
  EXPECT_TRUE(kvos::region_heap_validate(static_cast<kvos::region_heap>(h->get_handle())));
  EXPECT_EQ(heapman_mgr::get_size(keep), 64u) << "the heap is unharmed";
  delete plain;
  delete small;
  delete h;
}

int stress_milliseconds() {
  const char* text = std::getenv("KV_HEAP_STRESS_MS");
  return text != nullptr ? std::atoi(text) : 2000;
}

TEST_F(Heaps, ThreadsShareHeapsSafely) {
  heap* fixed = new (mainheap, kFile, __LINE__) heap("shared");
  heap* plain = new (mainheap, kFile, __LINE__) heap("sharedplain", heWINHEAP);
  std::atomic<bool> stop{false};
  std::atomic<long> operations{0};
  // Blocks handed from one thread to the next are freed by another thread.
  std::vector<std::atomic<void*>> mailbox(64);
  auto worker = [&](unsigned id) {
    std::mt19937 rng(id * 7919u + 1);
    std::vector<char*> mine;
    while (!stop.load(std::memory_order_relaxed)) {
      heap* target = rng() % 8 == 0 ? plain : fixed;
      const size_t n = 1 + rng() % 512;
      char* p = static_cast<char*>(operator new(n, target, kFile, static_cast<int>(id)));
      p[0] = static_cast<char>(id);
      p[n - 1] = static_cast<char>(id);
      mine.push_back(p);
      if (mine.size() > 200 || rng() % 3 == 0) {
        const size_t i = rng() % mine.size();
        void* handed = mailbox[rng() % mailbox.size()].exchange(mine[i]);
        mine[i] = mine.back();
        mine.pop_back();
        if (handed != nullptr) KvOperatorDelete(handed);
      }
      if (rng() % 64 == 0 && !mine.empty()) {
        char* grown = static_cast<char*>(heapman_mgr::reallocator(mine.back(), 600));
        mine.back() = grown;
      }
      operations.fetch_add(1, std::memory_order_relaxed);
    }
    for (char* p : mine) KvOperatorDelete(p);
  };
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 4; ++i) threads.emplace_back(worker, i);
  std::this_thread::sleep_for(std::chrono::milliseconds(stress_milliseconds()));
  stop = true;
  for (std::thread& t : threads) t.join();
  for (auto& slot : mailbox) KvOperatorDelete(slot.exchange(nullptr));
  EXPECT_GT(operations.load(), 1000);
  EXPECT_NO_THROW(heapman_mgr::check());
  EXPECT_TRUE(kvos::region_heap_validate(static_cast<kvos::region_heap>(fixed->get_handle())));
  EXPECT_TRUE(kvos::region_heap_validate(static_cast<kvos::region_heap>(plain->get_handle())));
  EXPECT_TRUE(busy_blocks(fixed).empty());
  EXPECT_TRUE(busy_blocks(plain).empty());
  delete plain;
  delete fixed;
}

}  // namespace
