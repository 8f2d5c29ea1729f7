// Plain new and delete inside the library. Every form of the global allocation
// and deallocation functions is defined here with hidden visibility: the
// library's own new-expressions resolve to KvOperatorNew and KvOperatorDelete,
// while the host's global operators stay exactly as the host has them.
#include <cstdlib>
#if defined(_WIN32)
#include <malloc.h>
#endif
#include <cstring>
#include <new>

#include "heap.h"

// The C++ declarations in <new> carry default visibility; hide the symbols at
// the assembler level so that no definition here leaves the library. (A
// Windows library exports only what it marks for export.)
#if !defined(_WIN32)
asm(".hidden _Znwm");
asm(".hidden _Znam");
asm(".hidden _ZnwmRKSt9nothrow_t");
asm(".hidden _ZnamRKSt9nothrow_t");
asm(".hidden _ZnwmSt11align_val_t");
asm(".hidden _ZnamSt11align_val_t");
asm(".hidden _ZnwmSt11align_val_tRKSt9nothrow_t");
asm(".hidden _ZnamSt11align_val_tRKSt9nothrow_t");
asm(".hidden _ZdlPv");
asm(".hidden _ZdaPv");
asm(".hidden _ZdlPvm");
asm(".hidden _ZdaPvm");
asm(".hidden _ZdlPvRKSt9nothrow_t");
asm(".hidden _ZdaPvRKSt9nothrow_t");
asm(".hidden _ZdlPvSt11align_val_t");
asm(".hidden _ZdaPvSt11align_val_t");
asm(".hidden _ZdlPvmSt11align_val_t");
asm(".hidden _ZdaPvmSt11align_val_t");
asm(".hidden _ZdlPvSt11align_val_tRKSt9nothrow_t");
asm(".hidden _ZdaPvSt11align_val_tRKSt9nothrow_t");
#endif

namespace {

void* allocate(size_t n) {
  void* p = KvOperatorNew(n != 0 ? n : 1);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

#if defined(_WIN32)
// The Windows run time's blocks are 16-byte aligned; stricter alignments need
// its own pair of calls, so their deletes go to release_aligned.
constexpr size_t kRuntimeAlignment = 16;

void* allocate_aligned(size_t n, std::align_val_t alignment) noexcept {
  const size_t a = static_cast<size_t>(alignment);
  if (a <= kRuntimeAlignment) return KvOperatorNew(n != 0 ? n : 1);
  void* p = _aligned_malloc(n != 0 ? n : 1, a);
  if (p != nullptr) std::memset(p, 0, n);
  return p;
}

void release_aligned(void* p, std::align_val_t alignment) noexcept {
  if (static_cast<size_t>(alignment) <= kRuntimeAlignment)
    KvOperatorDelete(p);
  else
    _aligned_free(p);
}
#else
// Zero-filled like KvOperatorNew; released by KvOperatorDelete (free).
void* allocate_aligned(size_t n, std::align_val_t alignment) noexcept {
  size_t a = static_cast<size_t>(alignment);
  if (a < sizeof(void*)) a = sizeof(void*);
  const size_t size = (n + a - 1) / a * a;
  void* p = std::aligned_alloc(a, size != 0 ? size : a);
  if (p != nullptr) std::memset(p, 0, size);
  return p;
}

void release_aligned(void* p, std::align_val_t) noexcept { KvOperatorDelete(p); }
#endif

}  // namespace

void* operator new(size_t n) { return allocate(n); }
void* operator new[](size_t n) { return allocate(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept { return KvOperatorNew(n != 0 ? n : 1); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return KvOperatorNew(n != 0 ? n : 1); }

void* operator new(size_t n, std::align_val_t alignment) {
  void* p = allocate_aligned(n, alignment);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new[](size_t n, std::align_val_t alignment) { return operator new(n, alignment); }
void* operator new(size_t n, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return allocate_aligned(n, alignment);
}
void* operator new[](size_t n, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return allocate_aligned(n, alignment);
}

void operator delete(void* p) noexcept { KvOperatorDelete(p); }
void operator delete[](void* p) noexcept { KvOperatorDelete(p); }
void operator delete(void* p, size_t) noexcept { KvOperatorDelete(p); }
void operator delete[](void* p, size_t) noexcept { KvOperatorDelete(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { KvOperatorDelete(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { KvOperatorDelete(p); }
void operator delete(void* p, std::align_val_t a) noexcept { release_aligned(p, a); }
void operator delete[](void* p, std::align_val_t a) noexcept { release_aligned(p, a); }
void operator delete(void* p, size_t, std::align_val_t a) noexcept { release_aligned(p, a); }
void operator delete[](void* p, size_t, std::align_val_t a) noexcept { release_aligned(p, a); }
void operator delete(void* p, std::align_val_t a, const std::nothrow_t&) noexcept { release_aligned(p, a); }
void operator delete[](void* p, std::align_val_t a, const std::nothrow_t&) noexcept { release_aligned(p, a); }
