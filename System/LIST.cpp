// The intrusive doubly linked list, its iterators, and the hash table.
#include "LIST.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <typeinfo>

#include "sysman.h"

namespace {

const char* const kSource = "System/LIST";

// Checks of the callers' obligations that the list does not test in release
// builds (a null element, an element still linked into a list).
#ifndef NDEBUG
#define LIST_EXPECT(condition, text) \
  do {                               \
    if (!(condition)) sys_abort(text); \
  } while (0)
#else
#define LIST_EXPECT(condition, text) \
  do {                               \
  } while (0)
#endif

void* allocate_untracked(std::size_t n) {
  void* p = KvOperatorNew(n != 0 ? n : 1);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

// The key checksum: s1 = 1 + the bytes, s2 = 1 + the running values of s1,
// both as 8-bit ones'-complement sums (end-around carry); the result is
// (s1 - 1) * 255 + (s2 - 1). Such sums stay in 1..255 and are the
// representatives in 1..255 of the plain sums modulo 255, so the sums are
// taken wide, eight bytes at a time, and reduced now and then.
int string_checksum(const char* text) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
  std::size_t n = std::strlen(text);
  uint64_t s1 = 1;
  uint64_t s2 = 1;
  // s2 stays below 2^63 for 2^26 bytes between reductions.
  constexpr std::size_t kChunk = std::size_t(1) << 26;
  while (n > 0) {
    std::size_t chunk = std::min(n, kChunk);
    n -= chunk;
    if constexpr (std::endian::native == std::endian::little) {
      constexpr uint64_t kLanes = 0x00FF00FF00FF00FFull;
      constexpr uint64_t kSum = 0x0001000100010001ull;
      // The top 16-bit lane of the products: bytes 0, 2, 4, 6 weighted 8,
      // 6, 4, 2, and bytes 1, 3, 5, 7 weighted 7, 5, 3, 1.
      constexpr uint64_t kEvenWeights = 0x0008000600040002ull;
      constexpr uint64_t kOddWeights = 0x0007000500030001ull;
      for (; chunk >= 8; chunk -= 8, p += 8) {
        uint64_t w;
        std::memcpy(&w, p, 8);
        const uint64_t even = w & kLanes;
        const uint64_t odd = (w >> 8) & kLanes;
        s2 += 8 * s1 + ((even * kEvenWeights) >> 48) + ((odd * kOddWeights) >> 48);
        s1 += ((even + odd) * kSum) >> 48;
      }
    }
    for (; chunk > 0; --chunk) {
      s1 += *p++;
      s2 += s1;
    }
    s1 %= 255;
    s2 %= 255;
  }
  const int a = s1 == 0 ? 254 : int(s1) - 1;
  const int b = s2 == 0 ? 254 : int(s2) - 1;
  return a * 255 + b;
}

// The slot of a hash value: the remainder, by a mask when the count is a
// power of two. Negative values (outside what HashElt promises) still land
// in the table.
inline unsigned slot_of(int hash, int count) {
  const unsigned h = unsigned(hash);
  const unsigned c = unsigned(count);
  return (c & (c - 1)) == 0 ? h & (c - 1) : h % c;
}

}  // namespace

// ---------------------------------------------------------------------------
// Linking, unlinking and stepping: the bodies shared by the exported entry
// points, kept out of the dynamic symbol table so that they inline.

struct DLlistCore {
  static void link(DLlist* l, DLlistElt* p, DLlistElt* n, DLlistElt* e) {
    LIST_EXPECT(e != nullptr, "DLlist::InsertBetween() null element");
    LIST_EXPECT(e != l, "DLlist::InsertBetween() a list cannot hold itself");
    LIST_EXPECT(e->parent == nullptr || (e->prev != nullptr ? e->prev->next != e : e->parent->first != e),
                "DLlist::InsertBetween() element is still in a list");
    e->prev = p;
    e->next = n;
    e->parent = l;
    if (p != nullptr)
      p->next = e;
    else
      l->first = e;
    if (n != nullptr)
      n->prev = e;
    else
      l->last = e;
  }

  static void unlink(DLlist* l, DLlistElt* e, bool keep) {
    if (e == nullptr || e->parent != l) return;
    DLlistElt* p = e->prev;
    DLlistElt* n = e->next;
    e->parent = nullptr;
    if (l->first == e) l->first = n;
    if (l->last == e) l->last = p;
    if (p != nullptr) p->next = n;
    if (n != nullptr) n->prev = p;
    // e keeps its own links, so a step takes an iterator standing on it to n.
    for (DLlistIter* it = l->checkedOut; it != nullptr; it = it->nextCheckedOut)
      if (it->current == e) next(it);
    if (!keep) l->Delete(e);
  }

  static DLlistElt* next(DLlistIter* it) {
    if (it->current != nullptr)
      it->current = it->current->next;
    else if (!it->atEnd && it->list != nullptr)
      it->current = it->list->first;
    if (it->current == nullptr) it->atEnd = true;
    return it->current;
  }
};

// ---------------------------------------------------------------------------
// Allocation of elements and keys

void* HeapAllocated::operator new(std::size_t n) { return allocate_untracked(n); }
void* HeapAllocated::operator new(std::size_t n, const std::nothrow_t&) noexcept {
  return KvOperatorNew(n != 0 ? n : 1);
}
void* HeapAllocated::operator new(std::size_t n, heap* h, const char* file, int line) {
  return ::operator new(n, h, file, line);
}
void* HeapAllocated::operator new(std::size_t n, _FindHeap* near, const char* file, int line) {
  return ::operator new(n, near, file, line);
}
void HeapAllocated::operator delete(void* p) noexcept { KvOperatorDelete(p); }
void HeapAllocated::operator delete(void* p, const std::nothrow_t&) noexcept { KvOperatorDelete(p); }
void HeapAllocated::operator delete(void* p, heap*, const char*, int) noexcept { KvOperatorDelete(p); }
void HeapAllocated::operator delete(void* p, _FindHeap*, const char*, int) noexcept { KvOperatorDelete(p); }

// ---------------------------------------------------------------------------
// DLlistElt

DLlistElt::~DLlistElt() { Remove(true); }

int DLlistElt::IsList() const { return 0; }

void DLlistElt::InsertBefore(DLlistElt* e) {
  if (parent != nullptr) parent->InsertBefore(this, e);
}

void DLlistElt::InsertAfter(DLlistElt* e) {
  if (parent != nullptr) parent->InsertAfter(this, e);
}

void DLlistElt::Remove(bool keep) {
  if (parent != nullptr) parent->Remove(this, keep);
}

DLlistElt* DLlistElt::DupElt(heap*) const {
  sys_abort("DLlistElt::DupElt() this must be overwritten");
  return nullptr;
}

DLlistElt* DLlistElt::DupTree(heap* h) const {
  DLlistElt* d = DupElt(h);
  if (d == nullptr) return nullptr;
  // A copy made with a member-wise copy constructor still carries the
  // source's links; the duplicate is in no list.
  d->prev = d->next = nullptr;
  d->parent = nullptr;
  if (IsList() == 0) return d;
  if (d->IsList() == 0) {
    delete d;
    sys_abort("DLlistElt::DupTree() the copy of a list is not a list");
    return nullptr;
  }
  DLlist* copy = static_cast<DLlist*>(d);
  try {
    for (const DLlistElt* c = static_cast<const DLlist*>(this)->first; c != nullptr; c = c->next)
      if (DLlistElt* child = c->DupTree(h)) DLlistCore::link(copy, copy->last, nullptr, child);
  } catch (...) {
    delete d;
    throw;
  }
  return d;
}

DLlist* DLlistElt::TreeTop() const {
  const DLlistElt* start = IsList() != 0 ? this : parent;
  if (start == nullptr) return nullptr;
  DLlist* top = const_cast<DLlist*>(static_cast<const DLlist*>(start));
  while (top->parent != nullptr) top = top->parent;
  return top;
}

// ---------------------------------------------------------------------------
// DLlist

DLlist::DLlist(bool deleteElements)
    : DLlistElt(), checkedOut(nullptr), deleteElements(deleteElements), first(nullptr), last(nullptr) {}

DLlist::DLlist(const DLlist& other, bool deleteElements)
    : DLlistElt(), checkedOut(nullptr), deleteElements(deleteElements), first(nullptr), last(nullptr) {
  Copy(other);
}

DLlist::~DLlist() {
  DeleteChildren();
  first = last = nullptr;
  // Iterators of an outermost list are about to lose it: the element they
  // stood on is gone, so they keep no pointer to it.
  if (parent == nullptr)
    for (DLlistIter* it = checkedOut; it != nullptr; it = it->nextCheckedOut) it->current = nullptr;
  DLlist::Remove(true);
}

int DLlist::IsList() const { return 1; }

void DLlist::InsertBetween(DLlistElt* p, DLlistElt* n, DLlistElt* e) { DLlistCore::link(this, p, n, e); }

void DLlist::InsertAfter(DLlistElt* after, DLlistElt* e) {
  if (after == nullptr)
    DLlistCore::link(this, nullptr, first, e);
  else
    DLlistCore::link(this, after, after->next, e);
}

void DLlist::InsertBefore(DLlistElt* before, DLlistElt* e) {
  if (before == nullptr)
    DLlistCore::link(this, last, nullptr, e);
  else
    DLlistCore::link(this, before->prev, before, e);
}

void DLlist::InsertEnd(const DLlist& other) {
  heap* h = heapman_mgr::find(this);
  if (h == nullptr) h = mainheap;
  // Stop at other's last element as it is now, so that appending a list to
  // itself copies each element once.
  const DLlistElt* stop = other.last;
  for (const DLlistElt* c = other.first; c != nullptr; c = c->next) {
    if (DLlistElt* copy = c->DupTree(h)) DLlistCore::link(this, last, nullptr, copy);
    if (c == stop) break;
  }
}

void DLlist::Copy(const DLlist& other) {
  Clear();
  InsertEnd(other);
}

void DLlist::Remove(DLlistElt* e, bool keep) { DLlistCore::unlink(this, e, keep); }

void DLlist::Remove(bool keep) {
  for (DLlistIter* it = checkedOut; it != nullptr;) {
    DLlistIter* following = it->nextCheckedOut;
    it->DropList();
    it = following;
  }
  // Every iterator has either moved up into the parent list or forgotten
  // this one: none of them walks it any more.
  checkedOut = nullptr;
  DLlistElt::Remove(keep);
}

void DLlist::Delete(DLlistElt* e) const {
  if (e != nullptr && deleteElements) delete e;
}

void DLlist::Clear() {
  for (DLlistIter* it = checkedOut; it != nullptr; it = it->nextCheckedOut) it->Top();
  DeleteChildren();
  first = last = nullptr;
}

void DLlist::DeleteChildren() {
  DLlistElt* e = first;
  while (e != nullptr) {
    e->parent = nullptr;
    DLlistElt* following = e->next;
    Delete(e);
    e = following;
  }
}

int DLlist::Count() const {
  int n = 0;
  for (const DLlistElt* e = first; e != nullptr; e = e->next) ++n;
  return n;
}

int DLlist::Index(const DLlistElt* e) const {
  int i = 0;
  for (const DLlistElt* c = first; c != nullptr; c = c->next, ++i)
    if (c == e) return i;
  return -1;
}

DLlistElt* DLlist::Get(int i) const {
  if (i < 0) return nullptr;
  DLlistElt* e = first;
  while (e != nullptr && i-- > 0) e = e->next;
  return e;
}

DLlistElt* DLlist::DupElt(heap* h) const { return new (h, kSource, __LINE__) DLlist(true); }

void DLlist::CheckIn(DLlistIter* it) {
  it->nextCheckedOut = checkedOut;
  checkedOut = it;
}

void DLlist::CheckOut(DLlistIter* it) {
  for (DLlistIter** link = &checkedOut; *link != nullptr; link = &(*link)->nextCheckedOut) {
    if (*link == it) {
      *link = it->nextCheckedOut;
      return;
    }
  }
}

// ---------------------------------------------------------------------------
// DLlistIter

DLlistIter::DLlistIter(const DLlist* l) : current(nullptr), atEnd(false), list(nullptr), nextCheckedOut(nullptr) {
  UseList(l);
}

DLlistIter::DLlistIter(DLlistIter& other)
    : current(nullptr), atEnd(false), list(nullptr), nextCheckedOut(nullptr) {
  UseList(other.list);
  current = other.current;
  atEnd = other.atEnd;
}

DLlistIter::~DLlistIter() { ThrowList(); }

DLlistIter& DLlistIter::operator=(DLlistIter& other) {
  if (&other == this) return *this;
  ThrowList();
  UseList(other.list);
  current = other.current;
  atEnd = other.atEnd;
  return *this;
}

bool DLlistIter::operator==(const DLlistIter& other) const {
  if (list != other.list || current != other.current) return false;
  return current != nullptr || atEnd == other.atEnd;
}

void DLlistIter::GoTo(DLlistElt* e) {
  LIST_EXPECT(e != nullptr, "DLlistIter::GoTo() null element");
  if (e == nullptr) return;
  UseList(e->parent);
  current = e;
  atEnd = false;
}

void DLlistIter::InsertAfter(DLlistElt* e) {
  if (list == nullptr) return;
  if (EOL())
    list->InsertBefore(nullptr, e);
  else
    list->InsertAfter(current, e);
  current = e;
}

void DLlistIter::InsertBefore(DLlistElt* e) {
  if (list == nullptr) return;
  if (BOL())
    list->InsertAfter(nullptr, e);
  else
    list->InsertBefore(current, e);
  current = e;
}

void DLlistIter::InsertAfter(DLlistElt* after, DLlistElt* e) {
  if (list != nullptr) list->InsertAfter(after, e);
}

void DLlistIter::InsertBefore(DLlistElt* before, DLlistElt* e) {
  if (list != nullptr) list->InsertBefore(before, e);
}

int DLlistIter::Count() const { return list != nullptr ? list->Count() : 0; }

int DLlistIter::Index(const DLlistElt* e) const { return list != nullptr ? list->Index(e) : -1; }

DLlistElt* DLlistIter::Get(int i) const { return list != nullptr ? list->Get(i) : nullptr; }

void DLlistIter::ClearList() {
  if (list != nullptr) list->Clear();
}

int DLlistIter::Index() const { return list != nullptr ? list->Index(current) : -1; }

void DLlistIter::Remove(bool keep) {
  if (list != nullptr) DLlistCore::unlink(list, current, keep);
}

DLlistElt* DLlistIter::Extract() {
  DLlistElt* e = current;
  if (e != nullptr) Remove(true);
  return e;
}

DLlistElt* DLlistIter::First() {
  if (list != nullptr) current = list->first;
  return current;
}

DLlistElt* DLlistIter::Last() {
  if (list != nullptr) current = list->last;
  return current;
}

DLlistElt* DLlistIter::Next() { return DLlistCore::next(this); }

DLlistElt* DLlistIter::Prev() {
  if (EOL()) {
    if (list != nullptr) current = list->last;
  } else if (current != nullptr) {
    current = current->prev;
  }
  if (current == nullptr) atEnd = false;
  return current;
}

DLlistElt* DLlistIter::NextPureElt() {
  do
    Next();
  while (current != nullptr && current->IsList() != 0);
  return current;
}

DLlistElt* DLlistIter::PrevPureElt() {
  do
    Prev();
  while (current != nullptr && current->IsList() != 0);
  return current;
}

DLlist* DLlistIter::Ascend() {
  if (list == nullptr || list->parent == nullptr) return nullptr;
  DLlist* left = list;
  left->CheckOut(this);
  current = left;
  list = left->parent;
  list->CheckIn(this);
  return list;
}

DLlist* DLlistIter::Descend() {
  if (current == nullptr || current->IsList() == 0) return nullptr;
  DLlist* into = static_cast<DLlist*>(current);
  if (list != nullptr) list->CheckOut(this);
  list = into;
  list->CheckIn(this);
  Top();
  return list;
}

DLlist* DLlistIter::TreeTop() {
  while (list != nullptr && list->parent != nullptr) Ascend();
  return list;
}

void DLlistIter::UseList(const DLlist* l) {
  if (l != list) {
    ThrowList();
    list = const_cast<DLlist*>(l);
    if (list != nullptr) list->CheckIn(this);
  }
  Top();
}

void DLlistIter::ThrowList() {
  if (list != nullptr) {
    list->CheckOut(this);
    list = nullptr;
  }
  Top();
}

void DLlistIter::DropList() {
  if (Ascend() == nullptr) list = nullptr;
}

// ---------------------------------------------------------------------------
// Hash keys

HashElt::~HashElt() = default;
void HashElt::dump() {}
int HashElt::Hash() { return 0; }
bool HashElt::Equal(HashElt&) { return false; }

HashString::HashString(const char* s) {
  if (s == nullptr) s = "";
  const std::size_t n = std::strlen(s) + 1;
  string = static_cast<char*>(::operator new[](n, reinterpret_cast<_FindHeap*>(this), kSource, __LINE__));
  std::memcpy(string, s, n);
}

HashString::~HashString() { KvOperatorDeleteArray(string); }

void HashString::dump() {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  // The key is the format: a '%' in it is a conversion. This is how the
  // interface defines dump().
  std::printf(string);
#pragma GCC diagnostic pop
}

int HashString::Hash() { return string_checksum(string); }

bool HashString::Equal(HashElt& other) {
  return std::strcmp(string, static_cast<HashString&>(other).string) == 0;
}

HashBucketElt::~HashBucketElt() = default;
HashBucket::~HashBucket() = default;

// ---------------------------------------------------------------------------
// HashTab

HashTab::HashTab() { Init(8); }

HashTab::HashTab(int n) { Init(n); }

HashBucket** HashTab::NewSlots(int n) {
  // A negative count asks for the largest size there is, which fails.
  const std::size_t bytes = n < 0 ? SIZE_MAX : std::size_t(n) * sizeof(HashBucket*);
  void* slots = ::operator new[](bytes, reinterpret_cast<_FindHeap*>(this), kSource, __LINE__);
  std::memset(slots, 0, bytes);
  return static_cast<HashBucket**>(slots);
}

void HashTab::Init(int n) {
  // A table needs one slot at least to place anything.
  if (n == 0) n = 1;
  buckets = nullptr;
  bucketCount = n;
  insertCount = 0;
  buckets = NewSlots(n);
}

HashTab::~HashTab() {
  if (buckets == nullptr) return;
  for (int i = 0; i < bucketCount; ++i) {
    HashBucket* bucket = buckets[i];
    if (bucket == nullptr) continue;
    for (DLlistElt* w = bucket->First(); w != nullptr; w = static_cast<HashBucketElt*>(w)->Next()) {
      HashBucketElt* wrapper = static_cast<HashBucketElt*>(w);
      delete wrapper->item;
      wrapper->item = nullptr;
    }
    delete bucket;
  }
  KvOperatorDeleteArray(buckets);
}

HashElt* HashTab::Lookup(HashElt* key) {
  if (key == nullptr) return nullptr;
  const bool plainKey = typeid(*key) == typeid(HashString);
  // Plain HashString keys, the common case, go without the virtual calls.
  const char* text = plainKey ? static_cast<HashString*>(key)->String() : nullptr;
  const unsigned slot = slot_of(plainKey ? string_checksum(text) : key->Hash(), bucketCount);
  const HashBucket* bucket = buckets[slot];
  if (bucket == nullptr) return nullptr;
  for (DLlistElt* w = bucket->First(); w != nullptr; w = static_cast<HashBucketElt*>(w)->Next()) {
    HashElt* stored = static_cast<HashBucketElt*>(w)->item;
    if (stored == nullptr) continue;
    if (plainKey && typeid(*stored) == typeid(HashString)) {
      if (std::strcmp(static_cast<HashString*>(stored)->String(), text) == 0) return stored;
    } else if (stored->Equal(*key)) {
      return stored;
    }
  }
  return nullptr;
}

void HashTab::Place(HashElt* e) {
  const unsigned slot = slot_of(e->Hash(), bucketCount);
  HashBucket*& bucket = buckets[slot];
  if (bucket == nullptr) bucket = new (reinterpret_cast<_FindHeap*>(this), kSource, __LINE__) HashBucket;
  bucket->InsertEnd(new (reinterpret_cast<_FindHeap*>(this), kSource, __LINE__) HashBucketElt(e));
}

void HashTab::Insert(HashElt* e) {
  if (e == nullptr) return;
  if (Lookup(e) != nullptr) {
    sys_abort("HashTab::Insert HashElt already exists");
    return;
  }
  Place(e);
  ++insertCount;
  try {
    // Growth re-inserts everything; a very small table may need to grow twice.
    while (insertCount >= bucketCount / 2 && bucketCount <= INT_MAX / 2) Grow();
  } catch (...) {
    // Out of memory while growing: e leaves again and stays the caller's.
    Unplace(e);
    --insertCount;
    throw;
  }
}

void HashTab::Unplace(HashElt* e) {
  HashBucket* bucket = buckets[slot_of(e->Hash(), bucketCount)];
  if (bucket == nullptr) return;
  for (DLlistElt* w = bucket->First(); w != nullptr; w = static_cast<HashBucketElt*>(w)->Next()) {
    if (static_cast<HashBucketElt*>(w)->item == e) {
      bucket->Remove(w, false);
      return;
    }
  }
}

void HashTab::Grow() {
  HashBucket** const oldSlots = buckets;
  const int oldCount = bucketCount;
  const int oldInserts = insertCount;
  HashBucket** const newSlots = NewSlots(oldCount * 2);
  buckets = newSlots;
  bucketCount = oldCount * 2;
  insertCount = 0;
  try {
    for (int i = 0; i < oldCount; ++i) {
      if (oldSlots[i] == nullptr) continue;
      for (DLlistElt* w = oldSlots[i]->First(); w != nullptr; w = static_cast<HashBucketElt*>(w)->Next()) {
        Place(static_cast<HashBucketElt*>(w)->item);
        ++insertCount;
      }
    }
  } catch (...) {
    // Out of memory half-way: keep the old slots, which still hold everything.
    for (int i = 0; i < bucketCount; ++i) delete newSlots[i];
    KvOperatorDeleteArray(newSlots);
    buckets = oldSlots;
    bucketCount = oldCount;
    insertCount = oldInserts;
    throw;
  }
  for (int i = 0; i < oldCount; ++i) delete oldSlots[i];
  KvOperatorDeleteArray(oldSlots);
}

void HashTab::dump() {
  for (int i = 0; i < bucketCount; ++i) {
    if (buckets[i] == nullptr) continue;
    for (DLlistElt* w = buckets[i]->First(); w != nullptr; w = static_cast<HashBucketElt*>(w)->Next())
      if (HashElt* item = static_cast<HashBucketElt*>(w)->item) item->dump();
  }
}
