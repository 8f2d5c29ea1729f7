// Region heaps: reserved address ranges committed as they fill (common/vm.h),
// managed by a two-level segregated-fit allocator.
//
// Layout of a segment: the segment header (the first segment also holds the
// heap's control block), then blocks back to back up to the segment's end.
// Every block starts with a 16-byte header: the address of the previous block
// and a word holding the size, the padding beyond the requested size, a tag
// byte and the flags. A free block keeps its free-list links in its first 16
// data bytes. The last block of a segment reaches the segment's end; only it
// can extend into uncommitted space. Each segment has a map with one bit per
// 16 bytes, set exactly at block starts, so that a pointer that is not the
// start of a block is refused without trusting the bytes in front of it.
//
// Small blocks freed recently are kept, up to a byte budget per heap, on
// lookaside lists of one exact size each, so that the next request of that
// size is a pop instead of a split (and the free a push instead of a merge).
// They are free blocks to the walk; they are merged into the free lists when
// space runs out.
#include "kvos/region_heap.h"

#include <algorithm>
#include <cstring>

#include "vm.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#define KVOS_LSAN_ROOTS 1
#endif

namespace kvos {

namespace {

constexpr size_t kAlign = 16;
constexpr size_t kHeaderSize = 16;
constexpr size_t kLinkEnd = 32;    // header and free-list links: what a free block needs committed
constexpr size_t kMinBlock = 48;   // a block's data always holds at least 32 bytes
constexpr size_t kCommitUnit = 64 * 1024;
constexpr size_t kDecommitSlack = 1024 * 1024;  // committed free tail kept by compact
constexpr size_t kReleaseMin = 64 * 1024;       // free blocks from this size give pages back
constexpr size_t kGrowableFirst = 1024 * 1024;
constexpr size_t kGrowableMaxStep = size_t(1) << 30;
constexpr size_t kMaxBlock = size_t(1) << 46;
constexpr size_t kMaxRequest = kMaxBlock - 4096;

constexpr uint64_t kBusy = 1;
constexpr uint64_t kLast = 2;
constexpr uint64_t kReleased = 4;
constexpr uint64_t kCached = 8;  // on a lookaside list
constexpr uint64_t kSizeMask = 0x0000FFFFFFFFFFF0ull;
constexpr unsigned kPadShift = 48;
constexpr uint64_t kTagMask = 0xFF00000000000000ull;
constexpr uint64_t kTag = 0xB700000000000000ull;

constexpr unsigned kSlLog2 = 5;
constexpr unsigned kSlCount = 1u << kSlLog2;
constexpr size_t kSmallLimit = kSlCount * kAlign;  // below: one list per 16 bytes
constexpr unsigned kFlShift = 9;                   // log2(kSmallLimit)
constexpr unsigned kFlCount = 40;

constexpr size_t kQuickMax = 1024;             // largest block size kept on a lookaside list
constexpr size_t kQuickLists = kQuickMax / kAlign + 1;
constexpr size_t kQuickBudget = 128 * 1024;    // bytes a heap keeps on its lookaside lists

constexpr uint64_t kControlMagic = 0x5245474E48454150ull;  // "REGNHEAP"
constexpr uint64_t kSegmentMagic = 0x5345474D454E5431ull;

// The paths of every allocation and free are kept in one piece.
#define KVOS_HOT inline __attribute__((always_inline))

void* const kWalkUncommitted = reinterpret_cast<void*>(1);
void* const kWalkSegmentDone = reinterpret_cast<void*>(2);

thread_local int t_lastError = 0;

struct Block {
  Block* prev;    // previous block in the segment; null for the first
  uint64_t word;  // size | pad << 48 | tag | flags
  Block* nextFree;
  Block* prevFree;
};

struct Segment {
  uint64_t magic;
  Segment* next;
  char* base;
  char* end;
  char* commitEnd;
  char* freshFrom;  // every byte from here to the end is zero and untouched
  Block* first;
  Block* last;
  uint64_t* starts;  // one bit per 16 bytes, set at each block start
  size_t startsBytes;
  size_t startsCommitted;  // the map is committed along with the segment
  unsigned index;
};

}  // namespace

struct region_heap_control {
  uint64_t magic;
  bool growable;
  Segment* only;  // a fixed heap's one segment; null for a growable heap
  Segment* segments;
  unsigned segmentCount;
  size_t nextReserve;
  uint64_t flBitmap;
  uint32_t slBitmap[kFlCount];
  Block* heads[kFlCount][kSlCount];
  size_t cachedBytes;
  Block* quick[kQuickLists];  // by block size / 16, linked through nextFree
};

namespace {

size_t page_size() {
  static const size_t size = vm::page_size();
  return size;
}

constexpr size_t round_up(size_t n, size_t unit) { return (n + unit - 1) / unit * unit; }
inline char* cp(const void* p) { return static_cast<char*>(const_cast<void*>(p)); }
inline uintptr_t addr(const void* p) { return reinterpret_cast<uintptr_t>(p); }

template <typename T>
inline T fail(int code, T result) {
  t_lastError = code;
  return result;
}

// Block words.
inline size_t bsize(const Block* b) { return b->word & kSizeMask; }
inline size_t bpad(const Block* b) { return (b->word >> kPadShift) & 0xFF; }
inline bool busy(const Block* b) { return (b->word & kBusy) != 0; }
inline bool cached(const Block* b) { return (b->word & kCached) != 0; }
// A block that the free lists own (not busy, not on a lookaside list).
inline bool mergeable(const Block* b) { return (b->word & (kBusy | kCached)) == 0; }
inline bool last(const Block* b) { return (b->word & kLast) != 0; }
inline bool tagged(const Block* b) { return (b->word & kTagMask) == kTag; }
inline char* data(Block* b) { return cp(b) + kHeaderSize; }
inline Block* after(Block* b) { return reinterpret_cast<Block*>(cp(b) + bsize(b)); }
inline uint64_t word(size_t size, uint64_t flags, size_t pad = 0) {
  return size | kTag | flags | (static_cast<uint64_t>(pad) << kPadShift);
}

// A block of this size serves a request of n bytes.
inline size_t block_size_for(size_t n) { return std::max(kMinBlock, round_up(n + kHeaderSize, kAlign)); }

// Block-start map.
inline size_t bit_of(const Segment* s, const void* p) { return static_cast<size_t>(cp(p) - s->base) >> 4; }
inline void set_start(Segment* s, const Block* b) {
  const size_t i = bit_of(s, b);
  s->starts[i >> 6] |= 1ull << (i & 63);
}
inline void clear_start(Segment* s, const Block* b) {
  const size_t i = bit_of(s, b);
  s->starts[i >> 6] &= ~(1ull << (i & 63));
}
inline bool is_start(const Segment* s, const void* p) {
  const size_t i = bit_of(s, p);
  return (s->starts[i >> 6] >> (i & 63)) & 1;
}

// True when any start bit in [from, to) is set.
bool any_start(const Segment* s, size_t from, size_t to) {
  while (from < to && (from & 63) != 0) {
    if ((s->starts[from >> 6] >> (from & 63)) & 1) return true;
    ++from;
  }
  while (from + 64 <= to) {
    if (s->starts[from >> 6] != 0) return true;
    from += 64;
  }
  while (from < to) {
    if ((s->starts[from >> 6] >> (from & 63)) & 1) return true;
    ++from;
  }
  return false;
}

// Two-level mapping of block sizes to free lists.
inline void mapping(size_t size, unsigned& fl, unsigned& sl) {
  if (size < kSmallLimit) {
    fl = 0;
    sl = static_cast<unsigned>(size >> 4);
  } else {
    const unsigned msb = 63u - static_cast<unsigned>(__builtin_clzll(size));
    fl = msb - kFlShift + 1;
    sl = static_cast<unsigned>(size >> (msb - kSlLog2)) ^ kSlCount;
  }
}

KVOS_HOT void insert_free(region_heap h, Block* b) {
  unsigned fl, sl;
  mapping(bsize(b), fl, sl);
  Block* head = h->heads[fl][sl];
  b->word &= ~(kBusy | kReleased | kCached | (0xFFull << kPadShift));
  b->nextFree = head;
  b->prevFree = nullptr;
  if (head != nullptr) head->prevFree = b;
  h->heads[fl][sl] = b;
  h->flBitmap |= 1ull << fl;
  h->slBitmap[fl] |= 1u << sl;
}

KVOS_HOT void remove_free(region_heap h, Block* b) {
  unsigned fl, sl;
  mapping(bsize(b), fl, sl);
  if (b->prevFree != nullptr)
    b->prevFree->nextFree = b->nextFree;
  else
    h->heads[fl][sl] = b->nextFree;
  if (b->nextFree != nullptr) b->nextFree->prevFree = b->prevFree;
  if (h->heads[fl][sl] == nullptr) {
    h->slBitmap[fl] &= ~(1u << sl);
    if (h->slBitmap[fl] == 0) h->flBitmap &= ~(1ull << fl);
  }
}

// The request size rounded up to the next list boundary: any block of a list
// at or above its list is large enough.
inline size_t search_size(size_t size) {
  if (size >= kSmallLimit) size += (size_t(1) << (63u - static_cast<unsigned>(__builtin_clzll(size)) - kSlLog2)) - 1;
  return size;
}

// Smallest block size of a list.
inline size_t list_floor(unsigned fl, unsigned sl) {
  if (fl == 0) return size_t(sl) * kAlign;
  return size_t(kSlCount + sl) << (fl + kFlShift - 1 - kSlLog2);
}

// Smallest block size beyond a list.
inline size_t list_ceiling(unsigned fl, unsigned sl) {
  return sl + 1 < kSlCount ? list_floor(fl, sl + 1) : list_floor(fl + 1, 0);
}

// A free block of at least size bytes, or null: the first block of the first
// non-empty list whose every block fits (good fit); failing that, a fitting
// block of the request's own list.
KVOS_HOT Block* find_free(region_heap h, size_t size) {
  unsigned fl, sl;
  mapping(search_size(size), fl, sl);
  if (fl < kFlCount) {
    uint32_t slMap = h->slBitmap[fl] & (~0u << sl);
    if (slMap == 0) {
      const uint64_t flMap = h->flBitmap & (~0ull << (fl + 1));
      if (flMap != 0) {
        fl = static_cast<unsigned>(__builtin_ctzll(flMap));
        slMap = h->slBitmap[fl];
      }
    }
    if (slMap != 0) return h->heads[fl][static_cast<unsigned>(__builtin_ctz(slMap))];
  }
  mapping(size, fl, sl);
  if (fl >= kFlCount) return nullptr;
  for (Block* b = h->heads[fl][sl]; b != nullptr; b = b->nextFree)
    if (bsize(b) >= size) return b;
  return nullptr;
}

KVOS_HOT Segment* segment_of(region_heap h, const void* p) {
  if (Segment* s = h->only) return cp(p) >= s->base && cp(p) < s->end ? s : nullptr;
  for (Segment* s = h->segments; s != nullptr; s = s->next)
    if (cp(p) >= s->base && cp(p) < s->end) return s;
  return nullptr;
}

// Commits the block-start map for the segment's bytes up to `to`.
bool commit_starts(Segment* s, const char* to) {
  const size_t bits = round_up(static_cast<size_t>(to - s->base) / kAlign, 64);
  const size_t wanted = std::min(round_up(bits / 8, page_size()), s->startsBytes);
  if (wanted <= s->startsCommitted) return true;
  if (!vm::commit(cp(s->starts) + s->startsCommitted, wanted - s->startsCommitted)) return false;
  s->startsCommitted = wanted;
  return true;
}

// Makes [.., to) readable and writable, committing generously ahead.
bool commit(Segment* s, char* to) {
  if (to <= s->commitEnd) return true;
  if (to > s->end) return false;
  const size_t used = static_cast<size_t>(s->commitEnd - s->base);
  const size_t wanted = std::max(static_cast<size_t>(to - s->base), used + std::max(kCommitUnit, used / 8));
  char* target = s->base + std::min(round_up(wanted, kCommitUnit), static_cast<size_t>(s->end - s->base));
  if (!commit_starts(s, target) || !vm::commit(s->commitEnd, static_cast<size_t>(target - s->commitEnd))) {
    target = s->base + round_up(static_cast<size_t>(to - s->base), page_size());
    if (!commit_starts(s, target) || !vm::commit(s->commitEnd, static_cast<size_t>(target - s->commitEnd)))
      return false;
  }
  s->commitEnd = target;
  return true;
}

// Zeroes [from, to), skipping what is known to be untouched.
inline void zero(const Segment* s, char* from, char* to) {
  if (to > s->freshFrom) to = s->freshFrom;
  if (to > from) std::memset(from, 0, static_cast<size_t>(to - from));
}

inline void touched_up_to(Segment* s, char* to) {
  if (to > s->freshFrom) s->freshFrom = to;
}

// Whether p may be read as a block header with its links.
KVOS_HOT bool readable(region_heap h, const void* p) {
  const Segment* s = segment_of(h, p);
  return s != nullptr && cp(p) >= cp(s->first) && cp(p) + kLinkEnd <= s->commitEnd && (addr(p) & (kAlign - 1)) == 0;
}

// Whether a free block's list links agree with its neighbours in the list, so
// that unlinking it writes only into the heap's own blocks.
KVOS_HOT bool links_ok(region_heap h, const Block* b) {
  unsigned fl, sl;
  mapping(bsize(b), fl, sl);
  if (fl >= kFlCount) return false;
  if (b->prevFree == nullptr ? h->heads[fl][sl] != b : !readable(h, b->prevFree) || b->prevFree->nextFree != b)
    return false;
  return b->nextFree == nullptr || (readable(h, b->nextFree) && b->nextFree->prevFree == b);
}

// A neighbour header that may be trusted: inside the committed part of the
// segment, tagged, of sane size, linked back to the expected previous block.
KVOS_HOT bool sane(const Segment* s, const Block* b, const Block* expectedPrev) {
  if (cp(b) < cp(s->first) || cp(b) + kLinkEnd > s->commitEnd || (addr(b) & (kAlign - 1)) != 0) return false;
  if (!tagged(b) || b->prev != expectedPrev) return false;
  const size_t size = bsize(b);
  if (size < kMinBlock || size > static_cast<size_t>(s->end - cp(b))) return false;
  if (last(b) ? cp(b) + size != s->end : cp(b) + size + kLinkEnd > s->commitEnd) return false;
  return busy(b) ? cp(b) + size <= s->commitEnd : true;
}

// The busy block whose data starts at p, or null (error code set).
KVOS_HOT Block* busy_block(region_heap h, const void* p, Segment** segment) {
  if (p == nullptr || (addr(p) & (kAlign - 1)) != 0) return fail(heap_error_invalid_parameter, nullptr);
  Segment* s = segment_of(h, p);
  if (s == nullptr) return fail(heap_error_invalid_parameter, nullptr);
  Block* b = reinterpret_cast<Block*>(cp(p) - kHeaderSize);
  if (cp(b) < cp(s->first) || cp(p) + (kLinkEnd - kHeaderSize) > s->commitEnd)
    return fail(heap_error_invalid_parameter, nullptr);
  if (!is_start(s, b)) return fail(heap_error_invalid_parameter, nullptr);
  if (!tagged(b)) return fail(heap_error_invalid_data, nullptr);
  if (!busy(b)) return fail(heap_error_invalid_parameter, nullptr);
  if (!sane(s, b, b->prev)) return fail(heap_error_invalid_data, nullptr);
  *segment = s;
  return b;
}

// The previous block, when it can be trusted to merge with b.
KVOS_HOT bool sane_prev(const Segment* s, const Block* prev, const Block* b) {
  if (cp(prev) < cp(s->first) || cp(prev) >= cp(b) || (addr(prev) & (kAlign - 1)) != 0) return false;
  return tagged(prev) && cp(prev) + bsize(prev) == cp(b);
}

void lsan_register(Segment* s) {
#if defined(KVOS_LSAN_ROOTS)
  __lsan_register_root_region(s->base, static_cast<size_t>(s->end - s->base));
#else
  (void)s;
#endif
}

void lsan_unregister(Segment* s) {
#if defined(KVOS_LSAN_ROOTS)
  __lsan_unregister_root_region(s->base, static_cast<size_t>(s->end - s->base));
#else
  (void)s;
#endif
}

// Reserves a segment of reserve bytes and commits its headers. header is the
// space kept at the start for the segment header (and the control block).
Segment* map_segment(size_t reserve, size_t header) {
  void* base = vm::reserve(reserve);
  if (base == nullptr) return nullptr;
  const size_t startsBytes = round_up(round_up(reserve / kAlign, 64) / 8, page_size());
  void* starts = vm::reserve(startsBytes);
  if (starts == nullptr) {
    vm::release(base, reserve);
    return nullptr;
  }
  const size_t firstCommit = std::min(reserve, round_up(header + kLinkEnd, kCommitUnit));
  Segment probe{};
  probe.base = static_cast<char*>(base);
  probe.starts = static_cast<uint64_t*>(starts);
  probe.startsBytes = startsBytes;
  if (!vm::commit(base, firstCommit) || !commit_starts(&probe, probe.base + firstCommit)) {
    vm::release(starts, startsBytes);
    vm::release(base, reserve);
    return nullptr;
  }
  Segment* s = static_cast<Segment*>(base);
  s->magic = kSegmentMagic;
  s->next = nullptr;
  s->base = static_cast<char*>(base);
  s->end = s->base + reserve;
  s->commitEnd = s->base + firstCommit;
  s->starts = static_cast<uint64_t*>(starts);
  s->startsBytes = startsBytes;
  s->startsCommitted = probe.startsCommitted;
  s->index = 0;
  // One free block spans the rest of the segment.
  Block* b = reinterpret_cast<Block*>(s->base + header);
  b->prev = nullptr;
  b->word = word(reserve - header, kLast);
  s->first = b;
  s->last = b;
  s->freshFrom = cp(b) + kLinkEnd;
  set_start(s, b);
  lsan_register(s);
  return s;
}

void unmap_segment(Segment* s) {
  lsan_unregister(s);
  uint64_t* starts = s->starts;
  const size_t startsBytes = s->startsBytes;
  vm::release(s->base, static_cast<size_t>(s->end - s->base));
  vm::release(starts, startsBytes);
}

constexpr size_t segment_header() { return round_up(sizeof(Segment), kAlign); }
constexpr size_t control_header() { return round_up(sizeof(Segment) + sizeof(region_heap_control), kAlign); }

bool add_segment(region_heap h, size_t need) {
  if (h->segmentCount >= 255) return false;
  const size_t reserve = std::max(h->nextReserve, round_up(search_size(need) + segment_header() + kLinkEnd, kCommitUnit));
  Segment* s = map_segment(reserve, segment_header());
  if (s == nullptr) return false;
  s->index = h->segmentCount++;
  Segment** link = &h->segments;
  while (*link != nullptr) link = &(*link)->next;
  *link = s;
  h->nextReserve = std::min(reserve * 2, kGrowableMaxStep);
  insert_free(h, s->first);
  return true;
}

bool valid_heap(region_heap h) { return h != nullptr && h->magic == kControlMagic; }

// Makes the bytes of a segment from b + offset on a free block of the given
// size, following b; lastFlag says whether it ends the segment.
KVOS_HOT void free_tail(region_heap h, Segment* s, Block* b, size_t offset, size_t size, uint64_t lastFlag) {
  Block* rest = reinterpret_cast<Block*>(cp(b) + offset);
  rest->prev = b;
  rest->word = word(size, lastFlag);
  set_start(s, rest);
  if (lastFlag != 0)
    s->last = rest;
  else
    after(rest)->prev = rest;
  insert_free(h, rest);
}

// Takes the free block b for a request of n bytes (block size need): commits,
// splits off the rest, zeroes the data and marks it busy. False (error code
// set) when the pages cannot be committed or b is damaged; b is then as before.
KVOS_HOT bool take(region_heap h, Segment* s, Block* b, size_t need, size_t n) {
  const size_t size = bsize(b);
  const uint64_t lastFlag = b->word & kLast;
  const bool split = size - need >= kMinBlock;
  char* committedTo = split ? cp(b) + need + kLinkEnd : cp(b) + size;
  if (!tagged(b) || busy(b) || !links_ok(h, b)) return fail(heap_error_invalid_data, false);
  if (committedTo > s->commitEnd && !commit(s, committedTo)) return fail(heap_error_not_enough_memory, false);
  remove_free(h, b);
  size_t taken = size;
  uint64_t flags = lastFlag;
  if (split) {
    free_tail(h, s, b, need, size - need, lastFlag);
    taken = need;
    flags = 0;
  }
  zero(s, data(b), data(b) + n);
  touched_up_to(s, split ? cp(b) + need + kLinkEnd : cp(b) + size);
  b->word = word(taken, flags | kBusy, taken - kHeaderSize - n);
  return true;
}

// Gives the (busy or cached) block b to the free lists, merged with free
// neighbours. False, with nothing changed, when a neighbour is damaged.
bool release(region_heap h, Segment* s, Block* b) {
  Block* next = last(b) ? nullptr : after(b);
  if (next != nullptr && !sane(s, next, b)) return fail(heap_error_invalid_data, false);
  const bool mergeNext = next != nullptr && mergeable(next);
  if (mergeNext && !last(next) && !sane(s, after(next), next)) return fail(heap_error_invalid_data, false);
  Block* prev = b->prev;
  if (prev != nullptr && !sane_prev(s, prev, b)) return fail(heap_error_invalid_data, false);
  const bool mergePrev = prev != nullptr && mergeable(prev);
  if ((mergeNext && !links_ok(h, next)) || (mergePrev && !links_ok(h, prev)))
    return fail(heap_error_invalid_data, false);

  size_t size = bsize(b);
  uint64_t lastFlag = b->word & kLast;
  if (mergeNext) {
    remove_free(h, next);
    clear_start(s, next);
    size += bsize(next);
    lastFlag = next->word & kLast;
  }
  if (mergePrev) {
    remove_free(h, prev);
    clear_start(s, b);
    size += bsize(prev);
    b = prev;
  }
  b->word = word(size, lastFlag);
  if (lastFlag != 0)
    s->last = b;
  else
    after(b)->prev = b;
  insert_free(h, b);
  return true;
}

// Merges every lookaside block into the free lists. False when a damaged
// block stops it (that block stays on its list).
bool flush_lookaside(region_heap h) {
  for (size_t q = 0; q < kQuickLists; ++q) {
    while (Block* b = h->quick[q]) {
      if (!readable(h, b) || !tagged(b) || !cached(b) || bsize(b) != q * kAlign) return fail(heap_error_invalid_data, false);
      Segment* s = segment_of(h, b);
      Block* following = b->nextFree;
      h->quick[q] = following;
      if (!release(h, s, b)) {
        h->quick[q] = b;
        return false;
      }
      h->cachedBytes -= q * kAlign;
    }
  }
  return true;
}

// A block of exactly need bytes from its lookaside list, or null.
KVOS_HOT Block* pop_lookaside(region_heap h, size_t need) {
  if (need > kQuickMax) return nullptr;
  Block* b = h->quick[need / kAlign];
  if (b == nullptr) return nullptr;
  if (!tagged(b) || !cached(b) || (b->nextFree != nullptr && !readable(h, b->nextFree)))
    return fail(heap_error_invalid_data, nullptr);
  h->quick[need / kAlign] = b->nextFree;
  h->cachedBytes -= need;
  return b;
}

}  // namespace

region_heap region_heap_create(size_t maximum) {
  const bool growable = maximum == 0;
  size_t reserve = growable ? kGrowableFirst : round_up(maximum, page_size());
  if (reserve < control_header() + kCommitUnit || reserve > kMaxBlock)
    return fail(growable ? heap_error_not_enough_memory : heap_error_invalid_parameter, nullptr);
  Segment* s = map_segment(reserve, control_header());
  if (s == nullptr) return fail(heap_error_not_enough_memory, nullptr);
  auto* h = reinterpret_cast<region_heap_control*>(s->base + sizeof(Segment));
  std::memset(static_cast<void*>(h), 0, sizeof *h);
  h->magic = kControlMagic;
  h->growable = growable;
  h->segments = s;
  h->only = growable ? nullptr : s;
  h->segmentCount = 1;
  h->nextReserve = growable ? kGrowableFirst * 2 : 0;
  insert_free(h, s->first);
  return h;
}

bool region_heap_destroy(region_heap h) {
  if (!valid_heap(h)) return fail(heap_error_invalid_parameter, false);
  h->magic = 0;
  Segment* s = h->segments;
  // The control block lives in the first segment: unmap that one last.
  Segment* first = s;
  for (s = s->next; s != nullptr;) {
    Segment* next = s->next;
    unmap_segment(s);
    s = next;
  }
  unmap_segment(first);
  return true;
}

void* region_heap_alloc(region_heap h, size_t n) {
  if (!valid_heap(h)) return fail(heap_error_invalid_parameter, nullptr);
  if (n > kMaxRequest) return fail(heap_error_not_enough_memory, nullptr);
  const size_t need = block_size_for(n);
  if (Block* q = pop_lookaside(h, need)) {
    std::memset(data(q), 0, n);
    q->word = word(need, kBusy, need - kHeaderSize - n);
    return data(q);
  }
  Block* b = find_free(h, need);
  if (b == nullptr && h->cachedBytes != 0 && flush_lookaside(h)) b = find_free(h, need);
  if (b == nullptr && h->growable && add_segment(h, need)) b = find_free(h, need);
  if (b == nullptr) return fail(heap_error_not_enough_memory, nullptr);
  Segment* s = segment_of(h, b);
  if (s == nullptr || !take(h, s, b, need, n)) return nullptr;
  return data(b);
}

bool region_heap_free(region_heap h, void* p) {
  if (!valid_heap(h)) return fail(heap_error_invalid_parameter, false);
  Segment* s = nullptr;
  Block* b = busy_block(h, p, &s);
  if (b == nullptr) return false;
  const size_t size = bsize(b);
  if (size <= kQuickMax && !last(b) && h->cachedBytes + size <= kQuickBudget) {
    b->word = word(size, kCached);
    b->nextFree = h->quick[size / kAlign];
    h->quick[size / kAlign] = b;
    h->cachedBytes += size;
    return true;
  }
  return release(h, s, b);
}

void* region_heap_realloc(region_heap h, void* p, size_t n) {
  if (!valid_heap(h)) return fail(heap_error_invalid_parameter, nullptr);
  Segment* s = nullptr;
  Block* b = busy_block(h, p, &s);
  if (b == nullptr) return nullptr;
  if (n > kMaxRequest) return fail(heap_error_not_enough_memory, nullptr);
  const size_t oldSize = bsize(b) - kHeaderSize - bpad(b);
  const size_t need = block_size_for(n);
  const size_t size = bsize(b);
  Block* next = last(b) ? nullptr : after(b);
  if (next != nullptr && !sane(s, next, b)) return fail(heap_error_invalid_data, nullptr);
  const bool nextFree = next != nullptr && mergeable(next);
  if (nextFree && ((!last(next) && !sane(s, after(next), next)) || !links_ok(h, next)))
    return fail(heap_error_invalid_data, nullptr);

  if (need <= size) {
    // Shrink (or grow within the padding) in place; a large enough tail
    // becomes a free block, merged with a free successor.
    size_t keep = size;
    uint64_t flags = b->word & kLast;
    if (size - need >= kMinBlock) {
      size_t restSize = size - need;
      uint64_t restLast = b->word & kLast;
      if (nextFree) {
        remove_free(h, next);
        clear_start(s, next);
        restSize += bsize(next);
        restLast = next->word & kLast;
      }
      free_tail(h, s, b, need, restSize, restLast);
      keep = need;
      flags = 0;
    }
    if (n > oldSize) zero(s, cp(p) + oldSize, cp(p) + n);
    b->word = word(keep, flags | kBusy, keep - kHeaderSize - n);
    return p;
  }

  if (nextFree && size + bsize(next) >= need) {
    // Grow into the free successor.
    const size_t total = size + bsize(next);
    const uint64_t nextLast = next->word & kLast;
    const bool split = total - need >= kMinBlock;
    char* committedTo = split ? cp(b) + need + kLinkEnd : cp(b) + total;
    if (committedTo <= s->commitEnd || commit(s, committedTo)) {
      remove_free(h, next);
      clear_start(s, next);
      size_t keep = total;
      uint64_t flags = nextLast;
      if (split) {
        free_tail(h, s, b, need, total - need, nextLast);
        keep = need;
        flags = 0;
      } else if (nextLast != 0) {
        s->last = b;
      } else {
        reinterpret_cast<Block*>(cp(b) + total)->prev = b;
      }
      zero(s, cp(p) + oldSize, cp(p) + n);
      touched_up_to(s, split ? cp(b) + need + kLinkEnd : cp(b) + total);
      b->word = word(keep, flags | kBusy, keep - kHeaderSize - n);
      return p;
    }
  }

  // Move.
  void* moved = region_heap_alloc(h, n);
  if (moved == nullptr) return nullptr;
  std::memcpy(moved, p, oldSize);
  (void)region_heap_free(h, p);  // p was checked as a busy block above, so this cannot fail
  return moved;
}

bool region_heap_contains(region_heap h, const void* p) { return valid_heap(h) && segment_of(h, p) != nullptr; }

size_t region_heap_size(region_heap h, const void* p) {
  if (!valid_heap(h)) return fail(heap_error_invalid_parameter, SIZE_MAX);
  Segment* s = nullptr;
  Block* b = busy_block(h, p, &s);
  if (b == nullptr) return SIZE_MAX;
  return bsize(b) - kHeaderSize - bpad(b);
}

bool region_heap_validate(region_heap h) {
  if (!valid_heap(h)) return fail(heap_error_invalid_parameter, false);
  size_t freeBlocks = 0, cachedBlocks = 0, cachedBytes = 0;
  unsigned segments = 0;
  for (Segment* s = h->segments; s != nullptr; s = s->next) {
    if (++segments > h->segmentCount || s->magic != kSegmentMagic || s->index >= h->segmentCount) return false;
    if (s->commitEnd < s->base || s->commitEnd > s->end || (addr(s->commitEnd) & (page_size() - 1)) != 0) return false;
    if (cp(s->first) < s->base || cp(s->first) + kLinkEnd > s->commitEnd) return false;
    const Block* prev = nullptr;
    bool prevFree = false;
    char* a = cp(s->first);
    for (;;) {
      const Block* b = reinterpret_cast<const Block*>(a);
      if ((addr(a) & (kAlign - 1)) != 0 || a + kLinkEnd > s->commitEnd) return false;
      if (!tagged(b) || b->prev != prev || !is_start(s, b)) return false;
      const size_t size = bsize(b);
      if (size < kMinBlock || size > static_cast<size_t>(s->end - a)) return false;
      char* limit = std::min(a + size, s->commitEnd);
      if (any_start(s, bit_of(s, a) + 1, bit_of(s, limit - 1) + 1)) return false;
      if (busy(b)) {
        if (a + size > s->commitEnd || bpad(b) > size - kHeaderSize) return false;
        if ((b->word & (kReleased | kCached)) != 0) return false;
        prevFree = false;
      } else if (cached(b)) {
        if (last(b) || bpad(b) != 0 || size > kQuickMax || a + size > s->commitEnd) return false;
        ++cachedBlocks;
        cachedBytes += size;
        prevFree = false;
      } else {
        if (prevFree || bpad(b) != 0) return false;
        prevFree = true;
        ++freeBlocks;
      }
      // Only the last block may reach into untouched space, and not with its header.
      if (last(b) && !busy(b) ? a + kLinkEnd > s->freshFrom : a + size > s->freshFrom) return false;
      if (last(b)) {
        if (a + size != s->end || s->last != b) return false;
        break;
      }
      if (a + size >= s->end) return false;
      prev = b;
      a += size;
    }
    if (s->freshFrom > s->end) return false;
  }
  if (segments != h->segmentCount) return false;

  // Free lists: every member a free block of the right class, links both
  // ways, bitmaps agreeing, and as many members as free blocks in the segments.
  size_t listed = 0;
  for (unsigned fl = 0; fl < kFlCount; ++fl) {
    if (((h->flBitmap >> fl) & 1) != (h->slBitmap[fl] != 0 ? 1u : 0u)) return false;
    for (unsigned sl = 0; sl < kSlCount; ++sl) {
      const Block* b = h->heads[fl][sl];
      if (((h->slBitmap[fl] >> sl) & 1) != (b != nullptr ? 1u : 0u)) return false;
      const Block* expectedPrev = nullptr;
      for (; b != nullptr; b = b->nextFree) {
        if (++listed > freeBlocks) return false;
        const Segment* s = segment_of(h, b);
        if (s == nullptr || (addr(b) & (kAlign - 1)) != 0 || cp(b) + kLinkEnd > s->commitEnd) return false;
        if (!is_start(s, b) || !tagged(b) || !mergeable(b) || b->prevFree != expectedPrev) return false;
        unsigned f, l;
        mapping(bsize(b), f, l);
        if (f != fl || l != sl) return false;
        expectedPrev = b;
      }
    }
  }
  if (listed != freeBlocks) return false;

  // Lookaside lists: cached blocks of their list's size, each listed once.
  size_t quickBlocks = 0, quickBytes = 0;
  for (size_t q = 0; q < kQuickLists; ++q) {
    for (const Block* b = h->quick[q]; b != nullptr; b = b->nextFree) {
      if (++quickBlocks > cachedBlocks || !readable(h, b)) return false;
      if (!is_start(segment_of(h, b), b) || !tagged(b) || !cached(b) || bsize(b) != q * kAlign) return false;
      quickBytes += bsize(b);
    }
  }
  return quickBlocks == cachedBlocks && quickBytes == cachedBytes && cachedBytes == h->cachedBytes;
}

bool region_heap_walk(region_heap h, heap_entry* e) {
  if (!valid_heap(h) || e == nullptr) return fail(heap_error_invalid_parameter, false);
  Segment* s = nullptr;
  void* next = nullptr;
  if (e->data == nullptr) {
    s = h->segments;
    next = kWalkSegmentDone;  // emit s's region entry below
    e->walkSegment = nullptr;
  } else {
    for (s = h->segments; s != nullptr && s != e->walkSegment; s = s->next) {
    }
    if (s == nullptr) return fail(heap_error_invalid_parameter, false);
    next = e->walkNext;
    if (next == kWalkSegmentDone) s = s->next;
  }
  if (next == kWalkSegmentDone) {
    if (s == nullptr) return fail(heap_error_no_more_items, false);
    e->data = s->base;
    e->size = static_cast<size_t>(s->end - s->base);
    e->overhead = static_cast<uint32_t>(cp(s->first) - s->base);
    e->regionIndex = static_cast<uint8_t>(s->index);
    e->flags = heap_entry_region;
    e->region.committedSize = static_cast<size_t>(s->commitEnd - s->base);
    e->region.uncommittedSize = static_cast<size_t>(s->end - s->commitEnd);
    e->region.firstBlock = s->first;
    e->region.lastBlock = s->commitEnd;
    e->walkSegment = s;
    e->walkNext = s->first;
    return true;
  }
  e->region = {};
  e->regionIndex = static_cast<uint8_t>(s->index);
  if (next == kWalkUncommitted) {
    e->walkNext = kWalkSegmentDone;
    if (s->commitEnd < s->end) {
      e->data = s->commitEnd;
      e->size = static_cast<size_t>(s->end - s->commitEnd);
      e->overhead = 0;
      e->flags = heap_entry_uncommitted_range;
      return true;
    }
    return region_heap_walk(h, e);
  }
  Block* b = static_cast<Block*>(next);
  if (cp(b) < cp(s->first) || cp(b) + kLinkEnd > s->commitEnd || (addr(b) & (kAlign - 1)) != 0 || !tagged(b) ||
      bsize(b) < kMinBlock || bsize(b) > static_cast<size_t>(s->end - cp(b)))
    return fail(heap_error_invalid_data, false);
  const size_t size = bsize(b);
  e->data = data(b);
  if (busy(b)) {
    if (bpad(b) > size - kHeaderSize) return fail(heap_error_invalid_data, false);
    e->size = size - kHeaderSize - bpad(b);
    e->overhead = static_cast<uint32_t>(kHeaderSize + bpad(b));
    e->flags = heap_entry_busy;
  } else {
    e->size = static_cast<size_t>(std::min(cp(b) + size, s->commitEnd) - data(b));
    e->overhead = kHeaderSize;
    e->flags = 0;
  }
  e->walkNext = last(b) ? kWalkUncommitted : cp(b) + size;
  return true;
}

size_t region_heap_compact(region_heap h) {
  if (!valid_heap(h)) return fail(heap_error_invalid_parameter, size_t(0));
  flush_lookaside(h);
  const size_t page = page_size();
  unsigned flFrom, slFrom;
  mapping(kReleaseMin, flFrom, slFrom);
  // Pages inside large free blocks go back to the system; their contents are
  // not needed (links stay in the first page part, which is kept).
  for (unsigned fl = flFrom; fl < kFlCount; ++fl) {
    if (h->slBitmap[fl] == 0) continue;
    for (unsigned sl = 0; sl < kSlCount; ++sl) {
      for (Block* b = h->heads[fl][sl]; b != nullptr; b = b->nextFree) {
        if ((b->word & kReleased) != 0) continue;
        Segment* s = segment_of(h, b);
        char* from = s->base + round_up(static_cast<size_t>(cp(b) + kLinkEnd - s->base), page);
        char* to = s->base + (static_cast<size_t>(std::min(cp(b) + bsize(b), s->commitEnd) - s->base) / page) * page;
        if (to > from) vm::discard(from, static_cast<size_t>(to - from));
        b->word |= kReleased;
      }
    }
  }
  // Empty extra segments are released; a long free tail is decommitted.
  Segment** link = &h->segments;
  while (*link != nullptr) {
    Segment* s = *link;
    if (s != h->segments && s->first == s->last && mergeable(s->first)) {
      remove_free(h, s->first);
      *link = s->next;
      --h->segmentCount;
      unmap_segment(s);
      continue;
    }
    if (mergeable(s->last)) {
      char* keep = s->base + round_up(static_cast<size_t>(cp(s->last) + kLinkEnd - s->base), kCommitUnit);
      if (keep + kDecommitSlack < s->commitEnd) {
        const size_t length = static_cast<size_t>(s->commitEnd - keep);
        if (vm::decommit(keep, length)) {
          s->commitEnd = keep;
          if (s->freshFrom > keep) s->freshFrom = keep;
        }
      }
    }
    link = &s->next;
  }
  // Segment indexes stay dense for the walk.
  unsigned index = 0;
  for (Segment* s = h->segments; s != nullptr; s = s->next) s->index = index++;
  // The largest committed free block, looked for from the largest lists down.
  // Blocks of lower lists are smaller than the floor of any list above them.
  size_t largest = 0;
  for (unsigned fl = kFlCount; fl-- > 0;) {
    if (h->slBitmap[fl] == 0) continue;
    for (unsigned sl = kSlCount; sl-- > 0;) {
      if (h->heads[fl][sl] == nullptr) continue;
      if (largest != 0 && largest + kHeaderSize >= list_ceiling(fl, sl)) return largest;
      for (Block* b = h->heads[fl][sl]; b != nullptr; b = b->nextFree) {
        const Segment* s = segment_of(h, b);
        largest = std::max(largest, static_cast<size_t>(std::min(cp(b) + bsize(b), s->commitEnd) - data(b)));
      }
    }
  }
  return largest;
}

int heap_last_error() { return t_lastError; }
void set_heap_last_error(int code) { t_lastError = code; }

}  // namespace kvos
