// Region heaps: the library's equivalent of an operating-system heap.
//
// A fixed-size heap reserves its whole maximum as one address range at
// creation and commits pages as blocks need them, so "does this heap hold
// this address" is a range test. A growable heap (maximum 0) chains segments
// as it fills. Blocks are 16-byte aligned and zero-filled; allocation and
// free take constant time (two-level segregated fit). A region heap is not
// locked: callers serialise access to one heap.
//
// Failing calls leave an error code for the calling thread (heap_last_error):
// heap_error_invalid_parameter for a pointer that is not the start of a busy
// block of the heap (a second free, an interior pointer), heap_error_invalid_data
// when a block's neighbours are found damaged, heap_error_not_enough_memory
// when a block cannot be had, heap_error_no_more_items at the end of a walk.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kvos/export.h"

namespace kvos {

struct region_heap_control;
using region_heap = region_heap_control*;

constexpr int heap_error_not_enough_memory = 8;
constexpr int heap_error_invalid_data = 13;
constexpr int heap_error_invalid_parameter = 87;
constexpr int heap_error_no_more_items = 259;

// Kinds of walk entries (heap_entry::flags). A free block has no flag.
constexpr uint16_t heap_entry_region = 0x0001;
constexpr uint16_t heap_entry_uncommitted_range = 0x0002;
constexpr uint16_t heap_entry_busy = 0x0004;

// One element of a heap walk. Each segment of a heap yields a region entry,
// then its blocks in address order (busy blocks with their requested size,
// free blocks with the committed part of their space), then an uncommitted
// range entry when part of the segment is not committed.
struct heap_entry {
  void* data = nullptr;  // region: the segment's first address; block: its data
  size_t size = 0;       // region: reserved size; block: data size; range: its size
  uint32_t overhead = 0; // region: bytes of heap bookkeeping; block: header and padding
  uint8_t regionIndex = 0;
  uint16_t flags = 0;
  struct {
    size_t committedSize = 0;
    size_t uncommittedSize = 0;
    void* firstBlock = nullptr;
    void* lastBlock = nullptr;  // the end of the committed part
  } region;
  // Where the walk goes on; maintained by region_heap_walk.
  void* walkSegment = nullptr;
  void* walkNext = nullptr;
};

// Creates a heap: maximum > 0 reserves that many bytes (rounded up to whole
// pages) as one fixed range; maximum 0 makes a growable heap. Null on failure.
KVOS_API region_heap region_heap_create(size_t maximum);

// Releases every page of the heap. False for a null heap.
[[nodiscard]] KVOS_API bool region_heap_destroy(region_heap heap);

// A zero-filled block of at least size bytes, 16-byte aligned; null on failure.
KVOS_API void* region_heap_alloc(region_heap heap, size_t size);

// Frees a busy block. False, leaving the heap as it was, when p is not the
// start of a busy block of this heap or its neighbours are damaged.
[[nodiscard]] KVOS_API bool region_heap_free(region_heap heap, void* p);

// Resizes a busy block, in place when it can, otherwise by moving it; bytes
// beyond the old size are zero. Null on failure, the old block left as it was.
KVOS_API void* region_heap_realloc(region_heap heap, void* p, size_t size);

// Whether p lies in the address space of one of the heap's segments.
[[nodiscard]] KVOS_API bool region_heap_contains(region_heap heap, const void* p);

// The size asked for a busy block; SIZE_MAX when p is not one.
KVOS_API size_t region_heap_size(region_heap heap, const void* p);

// Checks every block header, the block-start map and the free lists; false on
// any inconsistency. Reads only; never faults on a damaged heap.
[[nodiscard]] KVOS_API bool region_heap_validate(region_heap heap);

// Steps a walk: start with a default-constructed entry (data null) and call
// until false (heap_error_no_more_items at the end, heap_error_invalid_data
// when a damaged header stops the walk). The heap must not change during a walk.
[[nodiscard]] KVOS_API bool region_heap_walk(region_heap heap, heap_entry* entry);

// Gives the pages inside large free blocks back to the system, decommits a
// free tail and releases empty extra segments. Returns the size of the largest
// committed free block.
KVOS_API size_t region_heap_compact(region_heap heap);

// The calling thread's error code from the last failing region heap call.
KVOS_API int heap_last_error();
KVOS_API void set_heap_last_error(int code);

// A flag that is non-zero while the process has never had more than one
// thread: callers that serialise heap access may skip their lock while it is
// set (no other thread exists to race with). Read it as it is, without caching.
KVOS_API const volatile char* single_threaded_flag();

// Size of a block of the runtime library's allocator (malloc and friends).
KVOS_API size_t runtime_block_size(void* p);

}  // namespace kvos
