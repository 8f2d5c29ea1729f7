// Tracked heaps: named heaps in a tree rooted at mainheap. Every block of a
// record-keeping heap starts with an allocation record naming the source file
// and line that asked for it, so that the heap diagnostics can list what is
// still allocated and by whom. A block is found to its heap by its address
// alone; blocks that belong to no heap are the runtime library's.
//
// Allocate with the tracked operator new and release with KvOperatorDelete:
//   Thing* t = new (someHeap, "System/thing", __LINE__) Thing;
//   KvOperatorDelete(t);            // after t->~Thing() when needed
//   char* copy = strdup(t, "text"); // in the heap that holds t
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "KvExport.h"
#include "Zub/Core/Error.h"

namespace Zub {
namespace Core {
class Mutex;
}
}  // namespace Zub

// Heap flags.
enum heFLAGS : uint32_t {
  heNONE = 0,
  heNOCHECK = 2,  // check() skips the heap and its children
  heWINHEAP = 4,  // a plain growable heap: no allocation records, found by walking it
  heOWNHEAP = 8,  // a fixed-size heap of its own whose region is a known address range
};
constexpr heFLAGS operator|(heFLAGS a, heFLAGS b) { return static_cast<heFLAGS>(uint32_t(a) | uint32_t(b)); }
constexpr heFLAGS operator&(heFLAGS a, heFLAGS b) { return static_cast<heFLAGS>(uint32_t(a) & uint32_t(b)); }
inline heFLAGS& operator|=(heFLAGS& a, heFLAGS b) { return a = a | b; }

// The allocation record in front of every block of a record-keeping heap; the
// caller's pointer is the address just past it.
struct heap_record {
  const char* file;  // the creator's source name (the pointer is kept, not the text)
  int32_t line;      // the creator's line
  uint32_t state;    // bit 0: marked by HeapMark
  uint32_t guard;    // heap_record_guard
  uint32_t zero;
};
static_assert(sizeof(heap_record) == 24, "the allocation record is 24 bytes");
constexpr uint32_t heap_record_guard = 0xCCCCCCCCu;
constexpr uint32_t heap_record_marked = 1u;

namespace CSL {
namespace Heap {

// Raised when a heap cannot give a block.
class KVCORE_API HeapError : public Zub::Core::LogicError {
 public:
  HeapError();
  ~HeapError() override;
  std::string GetCategory() const override;  // "CSL Heap Error"
  ZUB_ERROR_COPY_OPERATIONS(HeapError)
};

}  // namespace Heap
}  // namespace CSL

class heapman_mgr;
struct _FindHeap;

// A named, tracked heap. A heap created inside another heap's memory becomes
// that heap's child and is destroyed with it; any other heap is a child of
// mainheap. Blocks die with their heap, without destructors.
//
// Copying a heap copies its fields bytewise: the copy shares the same
// underlying heap and children but is not entered in the tree, and
// destroying it destroys what it shares.
//
// The user part of a block of a record-keeping heap is 8-byte aligned (the
// record is 24 bytes); types that need 16-byte alignment belong in a
// heWINHEAP heap or in the runtime library.
class KVCORE_API heap {
 public:
  // A fixed-size heap of (at least) 0x9000000 bytes.
  explicit heap(const char* name, heFLAGS flags = heNONE);
  // size is rounded: below 0x9000000 to 0x9000000, below 0x12000000 to
  // 0x12000000, otherwise to at least 0x24000000.
  heap(const char* name, size_t size, heFLAGS flags);
  explicit heap(size_t size);
  heap(const heap& other);
  heap& operator=(const heap& other);
  virtual ~heap();

  // Frees every block of the heap and destroys its children.
  void clear();

  // The heap's fields.
  uint16_t get_magic() const { return m_magic; }  // 0x7F7F while alive
  const char* get_name() const { return m_name; }
  heFLAGS get_flags() const { return m_flags; }
  heap* get_parent() const { return m_parent; }
  heap* get_first_child() const { return m_child; }
  heap* get_next_sibling() const { return m_sibling; }
  void* get_base() const { return m_base; }  // null for a heap without a fixed region
  size_t get_region_size() const { return m_regionSize; }
  size_t get_max_size() const { return m_maxSize; }
  void* get_handle() const { return m_handle; }

  static constexpr uint16_t live_magic = 0x7F7F;

  // Set once by heapman_mgr::initialize.
  static bool initialized;
  // Return address of the latest caller of the tracked operator new or of KvOperatorDelete.
  static void* call_addr;

 protected:
  heap();  // mainheap's constructor
  void init(const char* name, size_t size, heFLAGS flags);
  void name(const char* name);

  // Allocation, called under the heap lock.
  void* allocator(size_t size);
  void deallocator(void* p);
  // The requested size is passed to the underlying heap unchanged, so a
  // record-keeping heap's block has 24 bytes less user space than asked.
  virtual void* reallocator(void* p, size_t size);
  size_t get_size(void* p);
  bool belongs(const void* p) const;
  heap* find(const void* p);

  // Diagnostics.
  void check();
  void check_abort(const char* what, void* creator);
  void heap_abort(const char* message);
  void mark_cur_allocs();
  void dump_cur_allocs();
  void debug_print(char* line, int level);

 private:
  friend class heapman_mgr;
  friend struct heap_internals;
  void destroy_children();
  void append_child(heap* child);
  void unlink();
  void* first_address();
  bool holds_busy_block(const void* p);
  heap* holder_by_range(const void* p);

  uint16_t m_magic;
  char m_name[13];
  heFLAGS m_flags;
  heap* m_parent;
  heap* m_child;
  heap* m_sibling;
  char* m_base;
  uint64_t m_reserved;
  uint64_t m_regionSize;
  uint64_t m_maxSize;
  uint64_t m_zeroed;
  uint64_t m_free;
  uint64_t m_avail;
  uint64_t m_alloc;
  uint64_t m_uncommitted;
  void* m_handle;
};

// The root heap ("main"); null until heapman_mgr::initialize.
extern KVCORE_API heap* mainheap;

// Tracked allocation in heap h (a null h: the runtime library, untracked).
KVCORE_API void* operator new(size_t n, heap* h, const char* file, int line);
KVCORE_API void* operator new[](size_t n, heap* h, const char* file, int line);
// Tracked allocation in the heap that holds the object near (the runtime
// library when none does).
KVCORE_API void* operator new(size_t n, _FindHeap* near, const char* file, int line);
KVCORE_API void* operator new[](size_t n, _FindHeap* near, const char* file, int line);
KVCORE_API void operator delete(void* p, heap* h, const char* file, int line) noexcept;
KVCORE_API void operator delete[](void* p, heap* h, const char* file, int line) noexcept;
KVCORE_API void operator delete(void* p, _FindHeap* near, const char* file, int line) noexcept;
KVCORE_API void operator delete[](void* p, _FindHeap* near, const char* file, int line) noexcept;

// Untracked, zero-filled allocation from the runtime library.
KVCORE_API void* KvOperatorNew(size_t n);
// Frees a block of any heap, or of the runtime library; nothing for null.
KVCORE_API void KvOperatorDelete(void* p);
KVCORE_API void KvOperatorDeleteArray(void* p);

// A copy of s in the heap that holds near.
KVCORE_API char* strdup(const void* near, const char* s);
// A copy of s in mainheap.
KVCORE_API char* sys_strdup(const char* s);

// Guards and searches the heap tree. Every operation holds the heap lock.
class KVCORE_API heapman_mgr {
 public:
  ~heapman_mgr();

  // Once: creates the heap lock and mainheap.
  static void initialize();
  // The heap that holds p; null when none does (or before initialize).
  static heap* find(const void* p);
  static void* allocator(heap* h, size_t n);
  // Frees p in its heap, or with the runtime library when no heap holds it.
  static void deallocator(void* p);
  // A null p gets a zeroed block from the runtime library.
  static void* reallocator(void* p, size_t n);
  static size_t get_size(void* p);
  static size_t get_alloc(heap* h);
  static size_t get_avail(heap* h);
  static size_t get_free(heap* h);

  // Diagnostics.
  static void check();
  static void dump(char* buffer);
  static void dump_tab(bool listBlocks);
  static void mark_tab();

 private:
  heapman_mgr() = default;
  friend class heap;
  friend class heap_lock;
  friend struct heap_internals;
  static void* tracked_allocate(heap* h, size_t n, const char* file, int line, void* caller);
  static void tracked_delete(void* p, void* caller);
  static heap* find_locked(const void* p);
  static heap* owner_locked(const void* p);
  static char* dump_rows(heap* h, int level, char* at, uint64_t& allocTotal, uint64_t& uncommittedTotal);
  static heapman_mgr s_instance;
  static Zub::Core::Mutex* m_Mutex;
};

// Heap diagnostics: the usage table (written to the debug output and appended
// to heapdump.txt in the current directory), with or without the listing of
// every unmarked block; and the mark that hides every block existing now from
// later listings.
KVCORE_API void HeapDump();
KVCORE_API void HeapDumpSummary();
KVCORE_API void HeapMark();
