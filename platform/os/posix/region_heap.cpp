// The system side of the region heaps on Linux: address ranges reserved with
// mmap (PROT_NONE, MAP_NORESERVE), committed with mprotect, and the C
// library's allocator and thread count.
#include <malloc.h>
#include <sys/mman.h>
#include <sys/single_threaded.h>
#include <unistd.h>

#include "../common/vm.h"
#include "kvos/region_heap.h"

namespace kvos {

namespace vm {

size_t page_size() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

void* reserve(size_t size) {
  void* p = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

bool commit(void* p, size_t size) { return mprotect(p, size, PROT_READ | PROT_WRITE) == 0; }

bool decommit(void* p, size_t size) {
  madvise(p, size, MADV_DONTNEED);
  return mprotect(p, size, PROT_NONE) == 0;
}

void discard(void* p, size_t size) { madvise(p, size, MADV_DONTNEED); }

void release(void* p, size_t size) { munmap(p, size); }

}  // namespace vm

const volatile char* single_threaded_flag() { return &__libc_single_threaded; }

size_t runtime_block_size(void* p) { return p == nullptr ? 0 : malloc_usable_size(p); }

}  // namespace kvos
