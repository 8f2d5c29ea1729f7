// The system side of the region heaps on Windows: address ranges reserved
// and committed with VirtualAlloc, and the C run time's allocator.
#include <windows.h>

#include <malloc.h>

#include "../common/vm.h"
#include "kvos/region_heap.h"

namespace kvos {

namespace vm {

size_t page_size() {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  return info.dwPageSize;
}

void* reserve(size_t size) { return VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_NOACCESS); }

bool commit(void* p, size_t size) { return VirtualAlloc(p, size, MEM_COMMIT, PAGE_READWRITE) != nullptr; }

bool decommit(void* p, size_t size) { return VirtualFree(p, size, MEM_DECOMMIT) != 0; }

// The pages stay committed; the system may drop their contents instead of
// writing them to the paging file.
void discard(void* p, size_t size) { VirtualAlloc(p, size, MEM_RESET, PAGE_READWRITE); }

void release(void* p, size_t) { VirtualFree(p, 0, MEM_RELEASE); }

}  // namespace vm

// Windows starts threads of its own in every process (the loader's and the
// thread pool's), so no process counts as single-threaded: callers always lock.
const volatile char* single_threaded_flag() {
  static const volatile char never = 0;
  return &never;
}

size_t runtime_block_size(void* p) { return p == nullptr ? 0 : _msize(p); }

}  // namespace kvos
