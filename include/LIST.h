// The intrusive doubly linked list and the chained hash table built on it.
//
// DLlistElt carries its own links; DLlist is itself an element, so lists nest
// into trees. Every live DLlistIter is registered with the list it walks, and
// the list repairs its iterators when elements leave it:
//   - removing the element an iterator stands on (through the iterator, the
//     element, the list or the element's destructor) moves the iterator to the
//     following element, or to the end;
//   - Clear() sends every iterator of the list to the beginning;
//   - destroying or removing a nested list moves its iterators up into the
//     parent list, onto the element that followed the nested list.
// An owning list (the default) destroys its elements when they are removed
// without the keep flag, when it is cleared and when it is destroyed.
//
// Copies are explicit: DupElt copies one element, DupTree a whole subtree, and
// DLlist::Copy / InsertEnd(const DLlist&) place the copies in the tracked heap
// that holds the destination list. The copy constructors and assignments of
// DLlistElt and DLlist, of HashString and of HashTab copy members only (links,
// pointers) and share what they point to.
//
// HashTab stores HashElt keys in chains of HashBucket lists and owns them:
// destroying the table destroys every element inserted into it.
//
// Objects of element and key classes are allocated and released with the
// library's allocation functions, whichever module writes the new- or
// delete-expression, so an element placed in a tracked heap
//   Item* it = new (someHeap, "app/items", __LINE__) Item;
// can be destroyed with a plain delete, by its owner or by a list.
#pragma once

#include <cstddef>
#include <new>

#include "KvExport.h"
#include "heap.h"

class DLlist;
class DLlistIter;
struct DLlistCore;

// The class-level allocation functions of list elements and hash keys: the
// runtime library (zero-filled) or a tracked heap, and always the library's
// release, whichever module writes the new- or delete-expression.
class KVCORE_API HeapAllocated {
 public:
  static void* operator new(std::size_t n);
  static void* operator new(std::size_t n, const std::nothrow_t&) noexcept;
  static void* operator new(std::size_t n, heap* h, const char* file, int line);
  static void* operator new(std::size_t n, _FindHeap* near, const char* file, int line);
  static void* operator new(std::size_t, void* place) noexcept { return place; }
  static void operator delete(void* p) noexcept;
  static void operator delete(void* p, const std::nothrow_t&) noexcept;
  static void operator delete(void* p, heap* h, const char* file, int line) noexcept;
  static void operator delete(void* p, _FindHeap* near, const char* file, int line) noexcept;
  static void operator delete(void*, void*) noexcept {}

 protected:
  HeapAllocated() = default;
  ~HeapAllocated() = default;
};

// An element of a DLlist. Derive from it; override DupElt to make the element
// copyable through DupTree, DLlist::Copy and DLlist::InsertEnd(const DLlist&).
class KVCORE_API DLlistElt : public HeapAllocated {
 public:
  DLlistElt() : prev(nullptr), next(nullptr), parent(nullptr) {}
  // Copies the three links as they are: the copy claims to be linked where
  // the source is without being in the chain. Use DupElt for a free copy.
  DLlistElt(const DLlistElt& other) = default;
  DLlistElt& operator=(const DLlistElt& other) = default;
  // Unlinks the element from its list (without deleting it again).
  virtual ~DLlistElt();

  // 0 for a plain element, 1 for a list.
  virtual int IsList() const;
  // Insert e into this element's list just before / after this element;
  // nothing when this element is in no list.
  virtual void InsertBefore(DLlistElt* e);
  virtual void InsertAfter(DLlistElt* e);
  // Leave the list: parent->Remove(this, keep); nothing when in no list.
  virtual void Remove(bool keep);
  // A copy of this element in heap h. The base version stops the program
  // ("DLlistElt::DupElt() this must be overwritten").
  virtual DLlistElt* DupElt(heap* h) const;

  // A deep copy in heap h: the element, or a list and all its elements, depth
  // first and in order. The copy is in no list.
  DLlistElt* DupTree(heap* h) const;
  // The outermost list above this element (this list itself when it is an
  // outermost list); null for an element in no list.
  DLlist* TreeTop() const;

 protected:
  DLlistElt* Prev() const { return prev; }
  DLlistElt* Next() const { return next; }
  DLlist* Parent() const { return parent; }

 private:
  friend class DLlist;
  friend class DLlistIter;
  friend struct DLlistCore;

  DLlistElt* prev;  // previous element of the holding list, null at the front
  DLlistElt* next;  // following element, null at the back
  DLlist* parent;   // the holding list, null when in no list
};

// A list of elements, itself an element of an enclosing list when nested.
class KVCORE_API DLlist : public DLlistElt {
 public:
  // deleteElements: the list owns (and destroys) its elements.
  explicit DLlist(bool deleteElements = true);
  // An empty list, then Copy(other): a deep copy in the heap that holds this list.
  DLlist(const DLlist& other, bool deleteElements = true);
  // Copies every member as it is (links, iterator registry, ends): both
  // objects then share one chain. Use Copy for a deep copy.
  DLlist& operator=(const DLlist& other) = default;
  // Destroys the elements (when owning), moves the iterators up into the
  // parent list (or detaches them) and leaves the parent list.
  ~DLlist() override;

  int IsList() const override;
  // Also as an element: insert before / after this list in its parent.
  using DLlistElt::InsertAfter;
  using DLlistElt::InsertBefore;
  // Insert e after `after` (at the front when `after` is null) / before
  // `before` (at the back when `before` is null). e must be non-null and in no list.
  void InsertAfter(DLlistElt* after, DLlistElt* e);
  void InsertBefore(DLlistElt* before, DLlistElt* e);
  void InsertBegin(DLlistElt* e) { InsertAfter(nullptr, e); }
  void InsertEnd(DLlistElt* e) { InsertBefore(nullptr, e); }
  // Appends a deep copy (DupTree) of every element of other, in the heap that
  // holds this list (mainheap when none does). other is unchanged.
  void InsertEnd(const DLlist& other);
  // Clear(), then InsertEnd(other).
  void Copy(const DLlist& other);

  // Unlinks e when it is in this list (nothing otherwise), advances the
  // iterators standing on it, and destroys it unless keep is set or the list
  // does not own its elements.
  void Remove(DLlistElt* e, bool keep);
  // Drops every iterator of this list (up into the parent list when nested),
  // then leaves the parent list as an element does.
  void Remove(bool keep) override;
  // Moves every iterator to the beginning, then destroys (when owning) or
  // releases every element.
  void Clear();

  int Count() const;
  // Zero-based position of e; -1 when e is not in this list.
  int Index(const DLlistElt* e) const;

  // A new, empty, owning DLlist in heap h (derived lists override it).
  DLlistElt* DupElt(heap* h) const override;

 protected:
  // Destroys e when it is non-null and the list owns its elements.
  virtual void Delete(DLlistElt* e) const;

  // The linking primitive: e goes between p and n (either may be null for
  // the front or the back).
  void InsertBetween(DLlistElt* p, DLlistElt* n, DLlistElt* e);
  // Releases every element (destroying it when owning); first and last are
  // left for the caller to reset.
  void DeleteChildren();
  // The element at position i; null when i is out of range.
  DLlistElt* Get(int i) const;
  void CheckIn(DLlistIter* it);
  void CheckOut(DLlistIter* it);
  DLlistElt* First() const { return first; }
  DLlistElt* Last() const { return last; }

 private:
  friend class DLlistElt;
  friend class DLlistIter;
  friend struct DLlistCore;

  DLlistIter* checkedOut;  // the iterators walking this list
  bool deleteElements;     // the list owns its elements
  DLlistElt* first;
  DLlistElt* last;
};

// Walks a DLlist. An iterator stands before the first element (BOL), on an
// element, or after the last element (EOL). Derived iterator classes expose
// the constructors and the navigation they need.
class KVCORE_API DLlistIter {
 public:
  // Re-targets this iterator to other's list and position.
  DLlistIter& operator=(DLlistIter& other);
  // Same list and element; with no element, the same end.
  bool operator==(const DLlistIter& other) const;

  bool operator!() const { return current == nullptr; }
  operator int() const { return current != nullptr ? 1 : 0; }
  bool BOL() const { return current == nullptr && !atEnd; }
  bool EOL() const { return current == nullptr && atEnd; }
  void Top() {
    current = nullptr;
    atEnd = false;
  }
  void Bottom() {
    current = nullptr;
    atEnd = true;
  }
  DLlistIter& operator++() {
    Next();
    return *this;
  }
  DLlistIter& operator--() {
    Prev();
    return *this;
  }

  // Stands on e, in e's list. e must be non-null.
  void GoTo(DLlistElt* e);
  // Insert e after / before the current position (at EOL: at the back; at
  // BOL: at the front), then stand on e. Nothing without a list.
  void InsertAfter(DLlistElt* e);
  void InsertBefore(DLlistElt* e);
  // The list's operations; neutral results without a list.
  void InsertAfter(DLlistElt* after, DLlistElt* e);
  void InsertBefore(DLlistElt* before, DLlistElt* e);
  int Count() const;
  int Index(const DLlistElt* e) const;
  void ClearList();
  // Position of the current element; -1 without a list.
  int Index() const;
  // Removes the current element from the list (the iterator moves on).
  void Remove(bool keep);
  // Removes the current element with the keep flag and returns it (the
  // caller owns it); null at BOL or EOL.
  DLlistElt* Extract();

 protected:
  explicit DLlistIter(const DLlist* l);
  DLlistIter(DLlistIter& other);
  virtual ~DLlistIter();

  DLlistElt* Get(int i) const;

  DLlistElt* First();
  DLlistElt* Last();
  DLlistElt* Next();
  DLlistElt* Prev();
  // Step until an element that is not a list (or the end).
  DLlistElt* NextPureElt();
  DLlistElt* PrevPureElt();
  DLlistElt* Current() const { return current; }
  DLlist* List() const { return list; }
  // Up into the parent list, standing on the list left; null at the top.
  DLlist* Ascend();
  // Into the list the iterator stands on, at its BOL; null when not on a list.
  DLlist* Descend();
  // Ascend to the outermost list and return it.
  DLlist* TreeTop();
  // Walk l from its BOL.
  void UseList(const DLlist* l);
  // Leave the list (to BOL, with no list).
  void ThrowList();
  // Ascend; at the top, forget the list without leaving its registry.
  void DropList();

 private:
  friend class DLlist;
  friend struct DLlistCore;

  DLlistElt* current;        // the element stood on, or null
  bool atEnd;                // with no element: false BOL, true EOL
  DLlist* list;              // the list walked, or null
  DLlistIter* nextCheckedOut;  // link in the registry of list
};

// A key stored in a HashTab. Derived classes supply the hash value (a
// non-negative int) and the equality test.
class KVCORE_API HashElt : public HeapAllocated {
 public:
  HashElt() = default;
  HashElt(const HashElt&) = default;
  HashElt& operator=(const HashElt&) = default;
  virtual ~HashElt();
  // Prints the element; the base version prints nothing.
  virtual void dump();

  bool operator==(HashElt& other) { return Equal(other); }
  bool operator==(HashElt* other) { return Equal(*other); }
  bool operator!=(HashElt& other) { return !Equal(other); }
  bool operator!=(HashElt* other) { return !Equal(*other); }

 protected:
  friend class HashTab;
  // The base versions: 0, and never equal.
  virtual int Hash();
  virtual bool Equal(HashElt& other);
};

// A NUL-terminated string key. The text is copied into the heap that holds
// the HashString object. Copies share (and free) the source's buffer.
class KVCORE_API HashString : public HashElt {
 public:
  HashString(const char* s);
  HashString(const HashString& other) = default;
  HashString& operator=(const HashString& other) = default;
  ~HashString() override;
  // printf with the key itself as the format.
  void dump() override;
  char* String() const { return string; }

 protected:
  // A Fletcher checksum of the bytes in ones'-complement arithmetic, 0..65024.
  int Hash() override;
  // The same bytes, terminator included (other is taken to be a HashString).
  bool Equal(HashElt& other) override;

 private:
  char* string;
};

// One wrapper in a chain: points at a stored element without owning it.
class KVCORE_API HashBucketElt : public DLlistElt {
 public:
  explicit HashBucketElt(HashElt* e) : item(e) {}
  ~HashBucketElt() override;

  HashElt* item;

 private:
  friend class HashTab;
};

// The chain of one slot: an owning list of HashBucketElt wrappers.
class KVCORE_API HashBucket : public DLlist {
 public:
  HashBucket() : DLlist(true) {}
  ~HashBucket() override;

 private:
  friend class HashTab;
};

// A chained hash table that owns its elements. It doubles its slot count
// (re-inserting everything) when the insertions since the last growth reach
// half the slot count. Assignment and copying share the slot array.
class KVCORE_API HashTab {
 public:
  HashTab();  // 8 slots
  explicit HashTab(int n);
  HashTab(const HashTab& other) = default;
  HashTab& operator=(const HashTab& other) = default;
  // Destroys every stored element and the table's storage.
  ~HashTab();

  // Takes ownership of e. A key equal to a stored one stops the program
  // ("HashTab::Insert HashElt already exists"); e then stays the caller's.
  void Insert(HashElt* e);
  // The stored element equal to key, or null.
  HashElt* Lookup(HashElt* key);
  HashElt* Lookup(HashElt& key) { return Lookup(&key); }
  // Every element's dump(), slot by slot and in chain order.
  void dump();

 protected:
  // n slots, all empty, in the heap that holds the table.
  void Init(int n);

  HashBucket** buckets;
  int bucketCount;
  int insertCount;  // insertions since the slot array was (re)built

 private:
  void Place(HashElt* e);
  void Unplace(HashElt* e);
  void Grow();
  HashBucket** NewSlots(int n);
};
