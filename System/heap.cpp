// Tracked heaps and their diagnostics.
#include "heap.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>

#include "DebugManager.h"
#include "Zub/Core/Mutex.h"
#include "kvinit.h"
#include "kvos/debugger.h"
#include "kvos/region_heap.h"
#include "sysman.h"
#include "timers.h"

namespace {

// A pointer as the dumps print it: sixteen upper-case hexadecimal digits, the
// way the original platform's %p writes it, so that "0x%p" reads 0x0000...
std::string pointer_text(const void* p) {
  char text[24];
  std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
  return text;
}

constexpr size_t kRecord = sizeof(heap_record);
constexpr size_t kDefaultSize = 0x9000000;
constexpr size_t kMainSize = 0x12000000;
constexpr size_t kLargeSize = 0x24000000;

const Zub::Core::Elapse kHeapWait KV_INIT(KV_PRIO_HEAP) = Zub::Core::Elapse(0x7FFFFFFF, 3);

// Set while the process has one thread (null until the heaps are initialized).
const volatile char* g_singleThreaded = nullptr;

// The creator of the block being allocated, set by the tracked operator new
// just before it allocates and read by the record writer, under the lock.
const char* g_creatorFile = "";
int g_creatorLine = 0;

inline kvos::region_heap handle_of(void* h) { return static_cast<kvos::region_heap>(h); }
inline void* record_of(void* p) { return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(p) - kRecord); }
inline void* user_of(void* start) { return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(start) + kRecord); }

// Address ranges of the heaps torn down with mainheap at exit: blocks of
// them freed afterwards (by late destructors) are gone already and must not
// reach the runtime library's free.
struct RetiredRange {
  uintptr_t from;
  uintptr_t to;
};
RetiredRange g_retired[64];
size_t g_retiredCount = 0;
bool g_tearingDown = false;

void retire(uintptr_t from, uintptr_t to) {
  if (g_retiredCount < sizeof g_retired / sizeof g_retired[0]) {
    g_retired[g_retiredCount++] = {from, to};
    return;
  }
  RetiredRange& all = g_retired[g_retiredCount - 1];  // full: widen the last range
  all.from = std::min(all.from, from);
  all.to = std::max(all.to, to);
}

bool retired(const void* p) {
  const uintptr_t a = reinterpret_cast<uintptr_t>(p);
  for (size_t i = 0; i < g_retiredCount; ++i)
    if (a >= g_retired[i].from && a < g_retired[i].to) return true;
  return false;
}

void free_untracked(void* p) {
  if (g_retiredCount != 0 && retired(p)) return;
  std::free(p);
}

void raise_heap_error(int line, const char* function, const char* signature, const std::string& message) {
  CSL::Heap::HeapError error;
  Zub::Core::Error::RaiseError(error, Zub::Core::CodeContext("System/heap", line, function, signature, KvBuildDate()),
                               message, 0);
}

// Allocates a record-keeping block and writes its record from the creator globals.
void* kvHeapAlloc(void* handle, size_t size) {
  const size_t total = size > SIZE_MAX - kRecord ? SIZE_MAX : size + kRecord;
  void* start = kvos::region_heap_alloc(handle_of(handle), total);
  if (start == nullptr)
    raise_heap_error(143, "kvHeapAlloc", "void *__cdecl kvHeapAlloc(void *,unsigned __int64)",
                     "Memory allocation error: " + std::to_string(kvos::heap_last_error()));
  heap_record* record = static_cast<heap_record*>(start);
  record->file = g_creatorFile;
  record->line = g_creatorLine;
  record->state = 0;
  record->guard = heap_record_guard;
  record->zero = 0;
  return user_of(start);
}

// The addresses of the blocks clear() frees, collected by a walk before any
// block is freed: chunks of 5120 addresses, kept for later calls.
struct ClearChunk {
  void* slots[5120];
  ClearChunk* next;
};
constexpr size_t kClearSlots = sizeof(ClearChunk::slots) / sizeof(void*);

struct KvHeapClearHelper {
  ClearChunk* first = nullptr;
  ClearChunk* writeChunk = nullptr;
  ClearChunk* readChunk = nullptr;
  size_t count = 0;
  size_t read = 0;

  void start() {
    count = 0;
    read = 0;
    writeChunk = first;
    readChunk = first;
  }

  void add(void* address) {
    const size_t slot = count % kClearSlots;
    if (slot == 0 && count != 0) {
      if (writeChunk->next == nullptr) writeChunk->next = new_chunk();
      writeChunk = writeChunk->next;
    } else if (first == nullptr) {
      first = writeChunk = readChunk = new_chunk();
    }
    writeChunk->slots[slot] = address;
    ++count;
  }

  // A null entry after the last address ends the reading.
  void finish() { add(nullptr); }

  void* next() {
    const size_t slot = read % kClearSlots;
    if (slot == 0 && read != 0) {
      if (readChunk->next == nullptr) {
        sys_abort("KvHeapClearHelper: next == NULL");
        return nullptr;
      }
      readChunk = readChunk->next;
    }
    ++read;
    return readChunk->slots[slot];
  }

  static ClearChunk* new_chunk() {
    auto* chunk = static_cast<ClearChunk*>(KvOperatorNew(sizeof(ClearChunk)));
    if (chunk == nullptr) throw std::bad_alloc();
    return chunk;
  }
};

KvHeapClearHelper g_clearHelper;

}  // namespace

// The heap lock, held for the whole of each public operation; without a
// mutex it fails its assertion. On the allocation paths (hot), while the
// process has a single thread, the mutex is left alone: nothing can race and
// it could never block. Operations that call out while holding the lock (the
// diagnostics write through the logging service) always take it.
enum class heap_path { cold, hot };

class heap_lock {
 public:
  explicit heap_lock(heap_path path = heap_path::cold) {
    Zub::Core::Mutex* mutex = heapman_mgr::m_Mutex;
    if (path != heap_path::hot || mutex == nullptr || g_singleThreaded == nullptr || *g_singleThreaded == 0)
      m_lock.emplace(mutex, kHeapWait);
  }

 private:
  std::optional<Zub::Core::Lock> m_lock;
};

// The paths every tracked allocation and free takes, as hidden functions the
// compiler can keep in one piece (the exported members are thin wrappers).
struct heap_internals {
  // The global allocation functions reach the manager through here.
  static void* tracked_allocate(heap* h, size_t n, const char* file, int line, void* caller) {
    return heapman_mgr::tracked_allocate(h, n, file, line, caller);
  }
  static void tracked_delete(void* p, void* caller) { heapman_mgr::tracked_delete(p, caller); }

  static bool belongs(const heap* h, const void* p) {
    const char* c = static_cast<const char*>(p);
    return c >= h->m_base && c < h->m_base + h->m_regionSize;
  }

  static heap* find(heap* h, const void* p) {
    if ((h->m_flags & heWINHEAP) != 0) return h->holds_busy_block(p) ? h : nullptr;
    if (h->m_base == nullptr) return nullptr;
    if (belongs(h, p)) return h;
    return find_below(h, p);
  }

  // The children of a fixed-region heap: fixed regions first (by range, then
  // below them), then the heWINHEAP children (by walking them).
  static heap* find_below(heap* h, const void* p) {
    for (heap* child = h->m_child; child != nullptr; child = child->m_sibling) {
      if (child->m_base == nullptr) continue;
      if (belongs(child, p)) return child;
      if (child->m_child != nullptr)
        if (heap* found = find_below(child, p)) return found;
    }
    for (heap* child = h->m_child; child != nullptr; child = child->m_sibling)
      if ((child->m_flags & heWINHEAP) != 0)
        if (heap* found = find(child, p)) return found;
    return nullptr;
  }

  // find from mainheap, then the range fallback (a bad pointer into a heap,
  // or a block of a heap below a heWINHEAP heap): the heap that has to deal
  // with p, if any.
  static heap* owner(const void* p) {
    if (mainheap == nullptr) return nullptr;
    if (heap* h = find(mainheap, p)) return h;
    return mainheap->holder_by_range(p);
  }

  static void* allocate(heap* h, size_t size);
  static void release(heap* h, void* p);
};

// ---------------------------------------------------------------------------
// Process-wide state

heap* mainheap = nullptr;
bool heap::initialized = false;
void* heap::call_addr = nullptr;
Zub::Core::Mutex* heapman_mgr::m_Mutex = nullptr;
heapman_mgr heapman_mgr::s_instance KV_INIT(KV_PRIO_HEAP);

namespace CSL {
namespace Heap {

HeapError::HeapError() : Zub::Core::LogicError("") {}
HeapError::~HeapError() = default;
std::string HeapError::GetCategory() const { return "CSL Heap Error"; }

}  // namespace Heap
}  // namespace CSL

// ---------------------------------------------------------------------------
// Construction and destruction

heap::heap()
    : m_magic(live_magic),
      m_name{},
      m_flags(heNONE),
      m_parent(nullptr),
      m_child(nullptr),
      m_sibling(nullptr),
      m_base(nullptr),
      m_reserved(0),
      m_regionSize(0),
      m_maxSize(kDefaultSize),
      m_zeroed(0),
      m_free(0),
      m_avail(0),
      m_alloc(0),
      m_uncommitted(0),
      m_handle(nullptr) {
  heap_lock lock;
  if (this != mainheap) {
    if (heap* parent = heapman_mgr::find_locked(this)) {
      m_parent = parent;
      parent->append_child(this);
    }
  }
}

heap::heap(const char* name, heFLAGS flags) { init(name, kDefaultSize, flags); }
heap::heap(const char* name, size_t size, heFLAGS flags) { init(name, size, flags); }
heap::heap(size_t size) { init(nullptr, size, heNONE); }

heap::heap(const heap& other)
    : m_magic(other.m_magic),
      m_flags(other.m_flags),
      m_parent(other.m_parent),
      m_child(other.m_child),
      m_sibling(other.m_sibling),
      m_base(other.m_base),
      m_reserved(other.m_reserved),
      m_regionSize(other.m_regionSize),
      m_maxSize(other.m_maxSize),
      m_zeroed(other.m_zeroed),
      m_free(other.m_free),
      m_avail(other.m_avail),
      m_alloc(other.m_alloc),
      m_uncommitted(other.m_uncommitted),
      m_handle(other.m_handle) {
  std::memcpy(m_name, other.m_name, sizeof m_name);
}

heap& heap::operator=(const heap& other) {
  if (this == &other) return *this;
  m_magic = other.m_magic;
  std::memcpy(m_name, other.m_name, sizeof m_name);
  m_flags = other.m_flags;
  m_parent = other.m_parent;
  m_child = other.m_child;
  m_sibling = other.m_sibling;
  m_base = other.m_base;
  m_reserved = other.m_reserved;
  m_regionSize = other.m_regionSize;
  m_maxSize = other.m_maxSize;
  m_zeroed = other.m_zeroed;
  m_free = other.m_free;
  m_avail = other.m_avail;
  m_alloc = other.m_alloc;
  m_uncommitted = other.m_uncommitted;
  m_handle = other.m_handle;
  return *this;
}

void heap::init(const char* nm, size_t size, heFLAGS flags) {
  heap_lock lock;
  if (size < kDefaultSize)
    size = kDefaultSize;
  else if (size < kMainSize)
    size = kMainSize;
  else
    size = std::max(size, kLargeSize);

  std::memset(m_name, 0, sizeof m_name);
  name(nm);
  m_flags = flags;
  m_child = nullptr;
  m_sibling = nullptr;
  m_parent = heapman_mgr::find_locked(this);
  if (m_parent == nullptr) m_parent = mainheap;
  if (m_parent != nullptr) m_parent->append_child(this);
  m_magic = live_magic;
  m_reserved = 0;
  m_regionSize = 0;
  m_maxSize = size;
  m_zeroed = 0;
  m_free = m_avail = m_alloc = m_uncommitted = 0;
  m_handle = nullptr;
  if (m_parent != nullptr && (m_parent->m_flags & heOWNHEAP) != 0) m_flags |= heOWNHEAP;
  m_base = nullptr;
  if ((m_flags & heWINHEAP) == 0 && (m_flags & heOWNHEAP) != 0) {
    m_handle = kvos::region_heap_create(m_maxSize);
    if (m_handle == nullptr) {
      const int error = kvos::heap_last_error();
      unlink();
      m_magic = 0;
      raise_heap_error(__LINE__, "heap::init", "void __cdecl heap::init(const char *,unsigned __int64,enum heFLAGS)",
                       "heap::init - HeapCreate failed: " + std::to_string(error));
    }
    m_base = static_cast<char*>(first_address());
    m_regionSize = m_maxSize;
  }
  clear();
}

heap::~heap() {
  heap_lock lock;
  const bool root = this == mainheap;
  if (root) g_tearingDown = true;
  destroy_children();
  unlink();
  m_magic = 0;
  if (m_handle != nullptr) {
    if (g_tearingDown) {
      if (m_base != nullptr) {
        retire(reinterpret_cast<uintptr_t>(m_base), reinterpret_cast<uintptr_t>(m_base) + m_regionSize);
      } else {
        kvos::heap_entry e;
        while (kvos::region_heap_walk(handle_of(m_handle), &e))
          if (e.flags & kvos::heap_entry_region)
            retire(reinterpret_cast<uintptr_t>(e.data), reinterpret_cast<uintptr_t>(e.data) + e.size);
      }
    }
    (void)kvos::region_heap_destroy(handle_of(m_handle));  // fails only for a null handle
  }
  m_handle = nullptr;
  m_base = nullptr;
  m_regionSize = 0;
  if (root) g_tearingDown = false;
}

void heap::name(const char* nm) {
  std::memset(m_name, 0, sizeof m_name);
  if (nm != nullptr) std::strncpy(m_name, nm, sizeof m_name - 1);
}

// Destroys every child; each unlinks itself on the way out.
void heap::destroy_children() {
  while (m_child != nullptr) {
    heap* child = m_child;
    heap* following = child->m_sibling;
    const bool linked = child->m_parent == this;
    delete child;
    if (!linked) m_child = following;  // a child that did not unlink itself (a copy's)
  }
}

// Adds a child at the end of the child list.
void heap::append_child(heap* child) {
  heap** link = &m_child;
  while (*link != nullptr) link = &(*link)->m_sibling;
  *link = child;
}

void heap::unlink() {
  if (m_parent == nullptr) return;
  for (heap** link = &m_parent->m_child; *link != nullptr; link = &(*link)->m_sibling) {
    if (*link == this) {
      *link = m_sibling;
      break;
    }
  }
  m_sibling = nullptr;
}

// The first address of the heap's region, from the first entries of a walk.
void* heap::first_address() {
  kvos::heap_entry first;
  if (!kvos::region_heap_walk(handle_of(m_handle), &first)) {
    sys_abort("GetHeapFirstAddr failed");
    return nullptr;
  }
  if ((first.flags & kvos::heap_entry_region) != 0) {
    kvos::heap_entry next = first;
    if (kvos::region_heap_walk(handle_of(m_handle), &next) && next.flags == 0) {
      const uintptr_t address =
          reinterpret_cast<uintptr_t>(next.data) + next.size - first.region.committedSize;
      if (address != 0) return reinterpret_cast<void*>(address);
    }
  }
  return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(first.data) & ~uintptr_t(0xFFF));
}

void heap::clear() {
  heap_lock lock;
  destroy_children();
  if ((m_flags & heWINHEAP) != 0) {
    // The new heap is made before the old one goes, so the handle is new too.
    void* old = m_handle;
    m_handle = kvos::region_heap_create(0);
    if (old != nullptr) (void)kvos::region_heap_destroy(handle_of(old));  // fails only for a null handle
    return;
  }
  // Freeing during a walk is not allowed: collect first, then free.
  g_clearHelper.start();
  kvos::heap_entry e;
  while (kvos::region_heap_walk(handle_of(m_handle), &e))
    if (e.flags & kvos::heap_entry_busy) g_clearHelper.add(e.data);
  g_clearHelper.finish();
  for (;;) {
    void* address = g_clearHelper.next();
    if (address == nullptr) break;
    if (!kvos::region_heap_free(handle_of(m_handle), address)) {
      const int error = kvos::heap_last_error();
      if (error == kvos::heap_error_invalid_parameter) continue;
      static char message[64];
      std::snprintf(message, sizeof message, "heap::clear - error: %d", error);
      sys_abort(message);
    }
  }
  kvos::region_heap_compact(handle_of(m_handle));
}

// ---------------------------------------------------------------------------
// Allocation

void* heap_internals::allocate(heap* h, size_t size) {
  if ((h->m_flags & heWINHEAP) != 0) return kvos::region_heap_alloc(handle_of(h->m_handle), size);
  return kvHeapAlloc(h->m_handle, size);
}

void heap_internals::release(heap* h, void* p) {
  const bool plain = (h->m_flags & heWINHEAP) != 0;
  if (!kvos::region_heap_free(handle_of(h->m_handle), plain ? p : record_of(p))) {
    sys_abort("heap::deallocator - not on winHeap");
    return;
  }
  if (plain) kvos::region_heap_compact(handle_of(h->m_handle));
}

void* heap::allocator(size_t size) { return heap_internals::allocate(this, size); }
void heap::deallocator(void* p) { heap_internals::release(this, p); }

void* heap::reallocator(void* p, size_t size) {
  const bool plain = (m_flags & heWINHEAP) != 0;
  void* block = kvos::region_heap_realloc(handle_of(m_handle), plain ? p : record_of(p), size);
  kvos::region_heap_compact(handle_of(m_handle));
  return plain ? block : user_of(block);
}

size_t heap::get_size(void* p) {
  if ((m_flags & heWINHEAP) != 0) return kvos::region_heap_size(handle_of(m_handle), p);
  return kvos::region_heap_size(handle_of(m_handle), record_of(p)) - kRecord;
}

bool heap::belongs(const void* p) const { return heap_internals::belongs(this, p); }

bool heap::holds_busy_block(const void* p) {
  kvos::heap_entry e;
  while (kvos::region_heap_walk(handle_of(m_handle), &e))
    if ((e.flags & kvos::heap_entry_busy) != 0 && e.data == p) return true;
  return false;
}

heap* heap::find(const void* p) { return heap_internals::find(this, p); }

// The heap whose address space holds p, searching the whole tree by range
// (children of heWINHEAP heaps included). Used only where find answers none,
// so that a pointer into a heap never reaches the runtime library's free.
heap* heap::holder_by_range(const void* p) {
  for (heap* h = this; h != nullptr; h = h->m_sibling) {
    if ((h->m_flags & heWINHEAP) != 0 ? kvos::region_heap_contains(handle_of(h->m_handle), p)
                                        : h->m_base != nullptr && h->belongs(p))
      return h;
    if (h->m_child != nullptr)
      if (heap* found = h->m_child->holder_by_range(p)) return found;
  }
  return nullptr;
}

// ---------------------------------------------------------------------------
// heapman_mgr

heapman_mgr::~heapman_mgr() {
  // kvExitFunc normally runs first and tears the heaps down. Where an exit
  // sequence runs it later (a sanitizer's deferred exit handlers), the heaps
  // still need their lock then, so it stays.
  if (mainheap != nullptr) return;
  delete m_Mutex;
  m_Mutex = nullptr;
}

void heapman_mgr::initialize() {
  if (heap::initialized) return;
  if (m_Mutex == nullptr) m_Mutex = new Zub::Core::Mutex;
  g_singleThreaded = kvos::single_threaded_flag();
  heap_lock lock;
  void* memory = KvOperatorNew(sizeof(heap));
  if (memory == nullptr) throw std::bad_alloc();
  heap* root = new (memory) heap();
  root->m_flags = heOWNHEAP;
  root->m_handle = kvos::region_heap_create(kMainSize);
  if (root->m_handle == nullptr) {
    const int error = kvos::heap_last_error();
    root->~heap();
    KvOperatorDelete(memory);
    raise_heap_error(__LINE__, "heapman_mgr::initialize", "void __cdecl heapman_mgr::initialize(void)",
                     "heapman_mgr::initialize - HeapCreate failed: " + std::to_string(error));
  }
  root->m_base = static_cast<char*>(root->first_address());
  root->m_regionSize = kMainSize;
  root->m_maxSize = kMainSize;
  root->name("main");
  mainheap = root;
  heap::initialized = true;
}

heap* heapman_mgr::find_locked(const void* p) { return mainheap != nullptr ? heap_internals::find(mainheap, p) : nullptr; }

heap* heapman_mgr::owner_locked(const void* p) { return heap_internals::owner(p); }

heap* heapman_mgr::find(const void* p) {
  if (mainheap == nullptr) return nullptr;
  heap_lock lock(heap_path::hot);
  return find_locked(p);
}

void* heapman_mgr::allocator(heap* h, size_t n) {
  if (h == nullptr) return KvOperatorNew(n);
  heap_lock lock(heap_path::hot);
  return h->allocator(n);
}

void heapman_mgr::deallocator(void* p) {
  if (mainheap != nullptr) {
    heap_lock lock(heap_path::hot);
    if (heap* h = owner_locked(p)) {
      h->deallocator(p);
      return;
    }
  }
  free_untracked(p);
}

void* heapman_mgr::reallocator(void* p, size_t n) {
  if (p == nullptr) return std::calloc(n, 1);
  if (mainheap != nullptr) {
    heap_lock lock(heap_path::hot);
    if (heap* h = owner_locked(p)) return h->reallocator(p, n);
  }
  return std::realloc(p, n);
}

size_t heapman_mgr::get_size(void* p) {
  if (mainheap != nullptr) {
    heap_lock lock(heap_path::hot);
    if (heap* h = owner_locked(p)) return h->get_size(p);
  }
  return kvos::runtime_block_size(p);
}

size_t heapman_mgr::get_alloc(heap* h) {
  heap_lock lock;
  h->check();
  return h->m_alloc;
}

size_t heapman_mgr::get_avail(heap* h) {
  heap_lock lock;
  h->check();
  return h->m_avail;
}

size_t heapman_mgr::get_free(heap* h) {
  heap_lock lock;
  h->check();
  return h->m_free;
}

void* heapman_mgr::tracked_allocate(heap* h, size_t n, const char* file, int line, void* caller) {
  if (h == nullptr) {
    void* p = std::calloc(n, 1);
    if (p == nullptr) throw std::bad_alloc();
    return p;
  }
  void* p = nullptr;
  {
    heap_lock lock(heap_path::hot);
    heap::call_addr = caller;
    g_creatorFile = file;
    g_creatorLine = line;
    p = heap_internals::allocate(h, n);
  }
  if (p == nullptr)
    raise_heap_error(215, "operator new", "void *__cdecl operator new(unsigned __int64,class heap *,char *,int)",
                     std::string("Heap new failure. File: ") + (file != nullptr ? file : "") +
                         " Line: " + std::to_string(line));
  return p;
}

void heapman_mgr::tracked_delete(void* p, void* caller) {
  if (mainheap != nullptr) {
    heap_lock lock(heap_path::hot);
    if (heap* h = heap_internals::owner(p)) {
      heap::call_addr = caller;
      heap_internals::release(h, p);
      return;
    }
  }
  free_untracked(p);
}

// ---------------------------------------------------------------------------
// Global allocation functions

void* operator new(size_t n, heap* h, const char* file, int line) {
  return heap_internals::tracked_allocate(h, n, file, line, __builtin_return_address(0));
}

void* operator new[](size_t n, heap* h, const char* file, int line) {
  return heap_internals::tracked_allocate(h, n, file, line, __builtin_return_address(0));
}

void* operator new(size_t n, _FindHeap* near, const char* file, int line) {
  return heap_internals::tracked_allocate(heapman_mgr::find(near), n, file, line, __builtin_return_address(0));
}

void* operator new[](size_t n, _FindHeap* near, const char* file, int line) {
  return heap_internals::tracked_allocate(heapman_mgr::find(near), n, file, line, __builtin_return_address(0));
}

void operator delete(void* p, heap*, const char*, int) noexcept { KvOperatorDelete(p); }
void operator delete[](void* p, heap*, const char*, int) noexcept { KvOperatorDelete(p); }
void operator delete(void* p, _FindHeap*, const char*, int) noexcept { KvOperatorDelete(p); }
void operator delete[](void* p, _FindHeap*, const char*, int) noexcept { KvOperatorDelete(p); }

void* KvOperatorNew(size_t n) { return std::calloc(n, 1); }

void KvOperatorDelete(void* p) {
  if (p == nullptr) return;
  heap_internals::tracked_delete(p, __builtin_return_address(0));
}

void KvOperatorDeleteArray(void* p) { KvOperatorDelete(p); }

char* strdup(const void* near, const char* s) {
  if (s == nullptr) return nullptr;
  const size_t n = std::strlen(s) + 1;
  char* copy = static_cast<char*>(operator new(n, const_cast<_FindHeap*>(static_cast<const _FindHeap*>(near)),
                                               "System/heap", 310));
  std::memcpy(copy, s, n);
  return copy;
}

char* sys_strdup(const char* s) {
  if (s == nullptr) return nullptr;
  const size_t n = std::strlen(s) + 1;
  char* copy = static_cast<char*>(operator new(n, mainheap, "System/heap", 289));
  std::memcpy(copy, s, n);
  return copy;
}

// ---------------------------------------------------------------------------
// Diagnostics

namespace {

// " Data: <16 characters> XX XX ...\n" for the first bytes of a block. Each
// byte is written sign-extended three characters after the previous one, so
// a later byte overwrites the leading "FFFFFF" of an earlier one.
std::string data_line(const unsigned char* user, size_t size) {
  char shown[17];
  for (size_t i = 0; i < 16; ++i) {
    const unsigned char c = i < size ? user[i] : 0;
    shown[i] = i < size && c >= 0x20 && c <= 0x7E ? static_cast<char>(c) : ' ';
  }
  shown[16] = '\0';
  char hex[64] = "";
  const size_t count = std::min<size_t>(size, 16);
  for (size_t i = 0; i < count; ++i) {
    const int value = static_cast<signed char>(user[i]);
    std::snprintf(hex + 3 * i, sizeof hex - 3 * i, " %02X", static_cast<unsigned>(value));
  }
  return std::string(" Data: <") + shown + ">" + hex + "\n";
}

template <typename... Args>
std::string format(const char* fmt, Args... args) {
  const int n = std::snprintf(nullptr, 0, fmt, args...);
  std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) std::snprintf(text.data(), text.size() + 1, fmt, args...);
  return text;
}

size_t count_heaps(const heap* h) {
  size_t n = 0;
  for (; h != nullptr; h = h->get_next_sibling()) n += 1 + count_heaps(h->get_first_child());
  return n;
}

}  // namespace

void heap::check() {
  if ((m_flags & heNOCHECK) != 0) return;
  if (!kvos::region_heap_validate(handle_of(m_handle))) check_abort("HeapValidate", nullptr);
  if ((m_flags & heWINHEAP) == 0) {
    // Every record's guard is intact: an overrun of the block before it
    // would have written over it.
    kvos::heap_entry e;
    while (kvos::region_heap_walk(handle_of(m_handle), &e)) {
      if ((e.flags & kvos::heap_entry_busy) == 0 || e.size < kRecord) continue;
      if (static_cast<const heap_record*>(e.data)->guard != heap_record_guard) check_abort("guard", e.data);
    }
  }
  for (heap* child = m_child; child != nullptr; child = child->m_sibling) child->check();
}

void heap::check_abort(const char* what, void* creator) {
  std::string text = "Heap check failure";
  if (what != nullptr) text += std::string(": ") + what;
  if (m_name[0] != '\0') text += std::string(", heap: ") + m_name;
  if (creator != nullptr)
    text += ", creator: @" + format("%llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(creator)));
  sys_abort(text.c_str());
}

void heap::heap_abort(const char* message) {
  char text[512];
  std::snprintf(text, sizeof text, "%s", message != nullptr ? message : "");
  if (m_name[0] != '\0') {
    const size_t used = std::strlen(text);
    std::snprintf(text + used, sizeof text - used, ", heap: %s", m_name);
  }
  sys_abort(text);
}

void heap::mark_cur_allocs() {
  if (m_base == nullptr) return;
  heap_lock lock;
  if ((m_flags & heWINHEAP) == 0) {
    kvos::heap_entry e;
    while (kvos::region_heap_walk(handle_of(m_handle), &e))
      if ((e.flags & kvos::heap_entry_busy) != 0 && e.size >= kRecord)
        static_cast<heap_record*>(e.data)->state |= heap_record_marked;
  }
  for (heap* child = m_child; child != nullptr; child = child->m_sibling) child->mark_cur_allocs();
}

void heap::dump_cur_allocs() {
  heap_lock lock;
  check();
  const bool toDebugger = kvos::debugger_present();
  auto out = [toDebugger](const std::string& text) {
    if (toDebugger)
      kvos::debugger_output(text.c_str());
    else
      Debug("%s", text.c_str());
  };
  const bool plain = (m_flags & heWINHEAP) != 0;
  bool listed = false;
  kvos::heap_entry e;
  while (kvos::region_heap_walk(handle_of(m_handle), &e)) {
    if ((e.flags & kvos::heap_entry_busy) == 0) continue;
    std::string line;
    const unsigned char* user;
    size_t size;
    if (plain) {
      line = format("{99999} normal block at 0x%s, %d bytes long.\n", pointer_text(e.data).c_str(), static_cast<int>(e.size));
      user = static_cast<const unsigned char*>(e.data);
      size = e.size;
    } else {
      if (e.size < kRecord) continue;
      const heap_record* record = static_cast<const heap_record*>(e.data);
      if ((record->state & heap_record_marked) != 0) continue;
      size = e.size - kRecord;
      line = format("%s(%d) : {99999} normal block at 0x%s, %d bytes long.\n", record->file, record->line,
                    pointer_text(e.data).c_str(),
                    static_cast<int>(size));
      user = static_cast<const unsigned char*>(e.data) + kRecord;
    }
    if (!listed) {
      out(std::string("Korvalis heap: ") + m_name + "\n\n");
      listed = true;
    }
    out(line);
    out(data_line(user, size));
  }
  if (listed) out("\n\n");
  for (heap* child = m_child; child != nullptr; child = child->m_sibling) child->dump_cur_allocs();
}

void heap::debug_print(char* line, int level) {
  uint64_t freeBytes = 0, overhead = 0, committed = 0;
  uint32_t used = 0, largest = 0;
  const bool plain = (m_flags & heWINHEAP) != 0;
  kvos::heap_entry e;
  while (kvos::region_heap_walk(handle_of(m_handle), &e)) {
    if (e.flags == 0) {
      freeBytes += e.size;
      overhead += e.overhead;
    } else if ((e.flags & kvos::heap_entry_region) != 0) {
      overhead += e.overhead;
      committed += e.region.committedSize;
    } else if ((e.flags & kvos::heap_entry_busy) != 0) {
      uint64_t size = e.size;
      uint64_t blockOverhead = e.overhead;
      if (!plain) {
        size -= kRecord;
        blockOverhead = static_cast<uint8_t>(blockOverhead + kRecord);
      }
      used += static_cast<uint32_t>(size);
      overhead += blockOverhead;
      largest = std::max(largest, static_cast<uint32_t>(size));
    }
  }
  const auto real = static_cast<unsigned>(overhead + freeBytes + used);
  if (m_base != nullptr)
    std::sprintf(line, "%d %s %d %s %s %8u %9u %9u %9u 9u", 12, m_name, level, pointer_text(this).c_str(),
                 pointer_text(m_base).c_str(), real, static_cast<unsigned>(freeBytes), largest, used);
  else
    std::sprintf(line, "%d %s %d %s %d %s %8u %8u %9u %9u %9u", 12, m_name, level, pointer_text(this).c_str(), 8, "",
                 real, static_cast<unsigned>(freeBytes), largest, used, static_cast<unsigned>(committed));
  m_uncommitted = committed;
  m_alloc = used;
  m_free = m_maxSize - overhead - used - 1600;
}

// One row per heap, in pre-order; the totals take each heap's fields as the
// previous report left them.
char* heapman_mgr::dump_rows(heap* h, int level, char* at, uint64_t& allocTotal, uint64_t& uncommittedTotal) {
  for (; h != nullptr; h = h->m_sibling) {
    allocTotal += h->m_alloc;
    uncommittedTotal += h->m_uncommitted;
    h->debug_print(at, level);
    at += std::strlen(at);
    *at++ = '\n';
    *at = '\0';
    at = dump_rows(h->m_child, level + 1, at, allocTotal, uncommittedTotal);
  }
  return at;
}

void heapman_mgr::check() {
  if (mainheap == nullptr) return;
  heap_lock lock;
  if (mainheap != nullptr) mainheap->check();
}

void heapman_mgr::mark_tab() {
  heap_lock lock;
  if (mainheap != nullptr) mainheap->mark_cur_allocs();
}

void heapman_mgr::dump(char* buffer) {
  heap_lock lock;
  check();
  const file_timestamp exe = SysManager::ExeTime;
  const file_timestamp start = SysManager::StartTime;
  const std::string version = SysManager::GetKorvalisVersion();
  char* at = buffer;
  at += std::sprintf(at,
                     "Version %s %02u/%02u/%04u %02u:%02u:%02u Run time %02u/%02u/%04u %02u:%02u:%02u + "
                     "%02u:%02u:%02u\n",
                     version.c_str(), unsigned(exe.month()), unsigned(exe.day()), unsigned(exe.year()),
                     unsigned(exe.hour()), unsigned(exe.minute()), unsigned(exe.second()), unsigned(start.month()),
                     unsigned(start.day()), unsigned(start.year()), unsigned(start.hour()), unsigned(start.minute()),
                     unsigned(start.second()), unsigned(timer_hr()), unsigned(timer_min() % 60),
                     unsigned(timer_s() % 60));
  at += std::sprintf(at, "%*s%2s%9s%9s%10s%9s%10s%10s%10s\n", 12, "", "L", "Handle", "Address", "Size", "Free",
                     "Largest", "Used", "Real");
  at += std::sprintf(at, "%*s%2s%9s%9s%10s%9s%10s%10s%10s\n", 12, "", "-", "------", "-------", "----", "----",
                     "-------", "----", "----");
  uint64_t allocTotal = 0, uncommittedTotal = 0;
  at = dump_rows(mainheap, 0, at, allocTotal, uncommittedTotal);
  std::sprintf(at, "%*s%2s%9s%9s%10s%9s%10s %9u %9u\n\n", 12, "Total", "", "", "", "", "", "",
               static_cast<unsigned>(allocTotal), static_cast<unsigned>(uncommittedTotal));
  if (FILE* file = std::fopen("heapdump.txt", "a")) {
    std::fputs(buffer, file);
    std::fflush(file);
    std::fclose(file);
  }
}

void heapman_mgr::dump_tab(bool listBlocks) {
  heap_lock lock;
  check();
  // The table needs about a hundred bytes per heap; never less than 4096.
  const size_t bytes = std::max<size_t>(4096, 1024 + SysManager::GetKorvalisVersion().size() +
                                                   count_heaps(mainheap) * 192);
  char* buffer = static_cast<char*>(KvOperatorNew(bytes));
  if (buffer == nullptr) throw std::bad_alloc();
  dump(buffer);
  Debug("%s\n\n", buffer);
  KvOperatorDelete(buffer);
  if (listBlocks && mainheap != nullptr) mainheap->dump_cur_allocs();
}

void HeapDump() { heapman_mgr::dump_tab(true); }
void HeapDumpSummary() { heapman_mgr::dump_tab(false); }
void HeapMark() { heapman_mgr::mark_tab(); }
