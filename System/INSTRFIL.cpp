// Instrument parameter files: records and sections, the section cursor, the
// registry of live handles, the text reader and writer, and the procedural
// Instr* interface.
#include "INSTRFIL.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "DebugManager.h"
#include "TackHand.h"
#include "kvinit.h"
#include "kvtext/text.h"
#include "sysman.h"

namespace {

const char* const kSource = "System/INSTRFIL";
const char* const kDefaultHeader = "Korvalis Data File";
constexpr size_t kInlineText = 256;  // longest text kept in the object
constexpr size_t kFirstBuffer = 4096;


using kvtext::is_ascii_ws;

// [s, s + n) without its white space, terminated where the trailing white space began.
inline char* trim(char* s, size_t& n) {
  const std::string_view kept = kvtext::trim_ascii_ws(std::string_view(s, n));
  char* const begin = s + (kept.data() - s);
  n = kept.size();
  begin[n] = '\0';
  return begin;
}

// Walks a tree of lists without recursion: Next() through a list, Descend()
// into the list stood on, Ascend() back onto it.
class TreeWalker : public DLlistIter {
 public:
  explicit TreeWalker(const DLlist* l) : DLlistIter(l) {}
  ~TreeWalker() override = default;
  using DLlistIter::Ascend;
  using DLlistIter::Current;
  using DLlistIter::Descend;
  using DLlistIter::First;
  using DLlistIter::List;
  using DLlistIter::Next;
};

InstrSection* as_section(DLlistElt* e) { return static_cast<InstrSection*>(static_cast<DLlist*>(e)); }

void write_head(InstrBuffer& out, const InstrSection* s, int n) {
  out.Append("\r\n", 2);
  out.Append('\t', static_cast<size_t>(n));
  out.Append(s->Tag());
  if (s->Str()[0] != '\0') {
    out.Append(" = ", 3);
    out.Append(s->Str());
  }
  out.Append("\r\n", 2);
  out.Append('\t', static_cast<size_t>(n));
  out.Append('{');
}

void write_tail(InstrBuffer& out, int n) {
  out.Append("\r\n", 2);
  out.Append('\t', static_cast<size_t>(n));
  out.Append('}');
}

// One element of the handle registry.
class HandleElt : public DLlistElt {
 public:
  explicit HandleElt(InstrHandle* h) : handle(h) {}
  HandleElt* following() const { return static_cast<HandleElt*>(Next()); }
  InstrHandle* handle;
};

HandleList* g_registry = nullptr;

// A block of n bytes in heap where (the runtime library for null). When that
// heap cannot give it, the runtime library serves this and every later
// request made through the same where.
void* place(size_t n, heap*& where, int line) {
  if (where != nullptr) {
    try {
      return ::operator new(n, where, kSource, line);
    } catch (const CSL::Heap::HeapError&) {
      where = nullptr;
    }
  }
  return ::operator new(n, static_cast<heap*>(nullptr), kSource, line);
}

template <class T, class... Args>
T* make(heap*& where, int line, Args... args) {
  void* p = place(sizeof(T), where, line);
  try {
    return new (p) T(args...);
  } catch (...) {
    KvOperatorDelete(p);
    throw;
  }
}

// Where a handle's tree and texts go: the heap that holds the handle, or
// mainheap for a handle outside the heaps (on the stack, or static). Before
// the heaps exist, the runtime library.
heap* home_heap(const void* handle) {
  heap* h = heapman_mgr::find(handle);
  return h != nullptr ? h : mainheap;
}

}  // namespace

// ---------------------------------------------------------------------------
// InstrBuffer

InstrBuffer::InstrBuffer(heap* h) : text(nullptr), length(0), capacity(0), where(h) {
  text = static_cast<char*>(place(kFirstBuffer, where, __LINE__));
  capacity = kFirstBuffer;
  text[0] = '\0';
}

InstrBuffer::~InstrBuffer() { KvOperatorDelete(text); }

void InstrBuffer::Grow(size_t needed) {
  size_t grown = capacity != 0 ? capacity : kFirstBuffer;
  while (grown < needed) grown *= 2;
  char* block = static_cast<char*>(place(grown, where, __LINE__));
  if (text != nullptr) std::memcpy(block, text, length + 1);
  else block[0] = '\0';
  KvOperatorDelete(text);
  text = block;
  capacity = grown;
}

void InstrBuffer::Append(const char* s, size_t n) {
  if (length + n + 1 > capacity) Grow(length + n + 1);
  std::memcpy(text + length, s, n);
  length += n;
  text[length] = '\0';
}

void InstrBuffer::Append(const char* s) {
  if (s != nullptr) Append(s, std::strlen(s));
}

void InstrBuffer::Append(char c, size_t count) {
  if (length + count + 1 > capacity) Grow(length + count + 1);
  std::memset(text + length, c, count);
  length += count;
  text[length] = '\0';
}

char* InstrBuffer::Release() {
  char* t = text;
  text = nullptr;
  length = 0;
  capacity = 0;
  return t;
}

// ---------------------------------------------------------------------------
// InstrRecord

InstrRecord::InstrRecord() : tag(tagBuffer), value(valueBuffer), line(-1), owner(this) {
  tagBuffer[0] = '\0';
  valueBuffer[0] = '\0';
}

InstrRecord::InstrRecord(const char* t, const char* v, int l)
    : tag(tagBuffer), value(valueBuffer), line(l), owner(this) {
  tagBuffer[0] = '\0';
  valueBuffer[0] = '\0';
  Tag(t);
  Str(v);
}

InstrRecord::InstrRecord(const InstrRecord& other)
    : tag(tagBuffer), value(valueBuffer), line(other.line), owner(this) {
  tagBuffer[0] = '\0';
  valueBuffer[0] = '\0';
  Tag(other.tag);
  Str(other.value);
}

InstrRecord::~InstrRecord() {
  if (owner != this) return;  // assigned: the texts are another record's
  if (tag != tagBuffer) KvOperatorDelete(tag);
  if (value != valueBuffer) KvOperatorDelete(value);
}

// After a member-wise assignment the texts still live in the source record:
// copy them into storage of this record's own.
void InstrRecord::Adopt() {
  const char* t = tag;
  const char* v = value;
  owner = this;
  tag = tagBuffer;
  value = valueBuffer;
  SetText(tag, tagBuffer, t, std::strlen(t));
  SetText(value, valueBuffer, v, std::strlen(v));
}

void InstrRecord::DumpTagAlloc() {
  if (owner != this) Adopt();
  if (tag != tagBuffer) KvOperatorDelete(tag);
  tag = tagBuffer;
  tagBuffer[0] = '\0';
}

void InstrRecord::DumpValAlloc() {
  if (owner != this) Adopt();
  if (value != valueBuffer) KvOperatorDelete(value);
  value = valueBuffer;
  valueBuffer[0] = '\0';
}

void InstrRecord::SetText(char*& field, char* inlineBuffer, const char* s, size_t n) {
  if (owner != this) Adopt();
  if (n <= kInlineText) {
    std::memmove(inlineBuffer, s, n);
    inlineBuffer[n] = '\0';
    if (field != inlineBuffer) KvOperatorDelete(field);
    field = inlineBuffer;
    return;
  }
  if (field != inlineBuffer && heapman_mgr::get_size(field) >= n + 1) {
    std::memmove(field, s, n);
    field[n] = '\0';
    return;
  }
  heap* where = heapman_mgr::find(this);
  char* block = static_cast<char*>(place(n + 1, where, __LINE__));
  std::memcpy(block, s, n);
  block[n] = '\0';
  if (field != inlineBuffer) KvOperatorDelete(field);
  field = block;
}

void InstrRecord::Tag(const char* s) {
  if (s == nullptr) s = "";
  SetText(tag, tagBuffer, s, std::strlen(s));
}

void InstrRecord::Str(const char* s) {
  if (s == nullptr) s = "";
  SetText(value, valueBuffer, s, std::strlen(s));
}

// The value storage holds at least 257 bytes (inline or a longer heap block),
// more than any number printed here needs.
int InstrRecord::Int() const { return std::atoi(value); }
float InstrRecord::Float() const { return static_cast<float>(std::atof(value)); }
double InstrRecord::Double() const { return std::atof(value); }
bool InstrRecord::Bool() const { return std::atoi(value) != 0; }

void InstrRecord::Int(int v) {
  if (owner != this) Adopt();
  std::snprintf(value, kInlineText + 1, "%d", v);
}

void InstrRecord::Float(float v) {
  if (owner != this) Adopt();
  std::snprintf(value, kInlineText + 1, "%g", static_cast<double>(v));
}

void InstrRecord::Double(double v) {
  if (owner != this) Adopt();
  std::snprintf(value, kInlineText + 1, "%g", v);
}

void InstrRecord::Bool(bool v) {
  if (owner != this) Adopt();
  std::snprintf(value, kInlineText + 1, "%d", v ? 1 : 0);
}

bool InstrRecord::Write(InstrBuffer& out, int n) {
  out.Append("\r\n", 2);
  out.Append('\t', static_cast<size_t>(n));
  if (tag[0] != '\0') {
    out.Append(tag);
    out.Append(" = ", 3);
  }
  out.Append(value);
  return true;
}

InstrRecord* InstrRecord::FromElt(DLlistElt* e) {
  if (e == nullptr) return nullptr;
  if (e->IsList() != 0) return as_section(e);
  return static_cast<InstrRecordElt*>(e);
}

InstrSection* InstrRecord::Root() {
  DLlistElt* e = Elt();
  if (e == nullptr) return nullptr;
  DLlist* top = e->TreeTop();
  return top != nullptr ? as_section(top) : nullptr;
}

InstrRecord* InstrRecord::DupTree() const {
  heap* h = heapman_mgr::find(this);
  InstrRecord* self = const_cast<InstrRecord*>(this);
  DLlistElt* elt = self->Elt();
  if (elt == nullptr) return new (h, kSource, __LINE__) InstrRecordElt(tag, value, line);
  InstrRecord* top = FromElt(elt->DupElt(h));
  if (elt->IsList() == 0) return top;

  // Copy the items level by level with one walker over the source tree.
  InstrSection* source = as_section(elt);
  try {
    TreeWalker walk(source);
    InstrSection* target = static_cast<InstrSection*>(top);
    for (;;) {
      DLlistElt* e = walk.Next();
      if (e == nullptr) {
        if (walk.List() == source) break;
        walk.Ascend();
        target = target->Parent();
        continue;
      }
      DLlistElt* copy = e->DupElt(h);
      target->InsertEnd(copy);
      if (e->IsList() != 0) {
        walk.Descend();
        target = as_section(copy);
      }
    }
  } catch (...) {
    delete top;
    throw;
  }
  return top;
}

// ---------------------------------------------------------------------------
// InstrRecordElt, InstrSection

InstrRecordElt::~InstrRecordElt() = default;

DLlistElt* InstrRecordElt::DupElt(heap* h) const {
  return new (h, kSource, __LINE__) InstrRecordElt(Tag(), Str(), Line());
}

// Sections are destroyed by ordinary recursion down to a bounded depth; below
// it, a section first lifts the items of every nested section up into its
// own list, so that the lists it deletes hold no further levels.
namespace {
thread_local int t_destroyDepth = 0;
constexpr int kRecursiveDepth = 32;
}  // namespace

InstrSection::~InstrSection() {
  if (t_destroyDepth >= kRecursiveDepth) {
    TreeWalker walk(this);
    for (DLlistElt* e = walk.Next(); e != nullptr; e = walk.Next()) {
      if (e->IsList() == 0) continue;
      TreeWalker inner(static_cast<DLlist*>(e));
      while (DLlistElt* x = inner.First()) {
        inner.Extract();
        DLlist::InsertAfter(e, x);
      }
    }
  }
  ++t_destroyDepth;
  Clear();
  --t_destroyDepth;
}

bool InstrSection::IsRoot() const { return DLlistElt::Parent() == nullptr; }

InstrSection* InstrSection::Parent() const {
  DLlist* p = DLlistElt::Parent();
  return p != nullptr ? as_section(p) : nullptr;
}

void InstrSection::ClearRecords() { Clear(); }

DLlistElt* InstrSection::DupElt(heap* h) const {
  return new (h, kSource, __LINE__) InstrSection(Tag(), Str(), Line());
}

bool InstrSection::Write(InstrBuffer& out, int n) {
  const bool named = Tag()[0] != '\0';
  if (named) write_head(out, this, n++);
  // The contents, depth first, without recursion: a named section opens a
  // level of indentation, a nameless one is written flattened.
  int indent = n;
  TreeWalker walk(this);
  for (;;) {
    DLlistElt* e = walk.Next();
    if (e == nullptr) {
      if (walk.List() == this) break;
      walk.Ascend();
      if (as_section(walk.Current())->Tag()[0] != '\0') write_tail(out, --indent);
      continue;
    }
    if (e->IsList() == 0) {
      static_cast<InstrRecordElt*>(e)->Write(out, indent);
      continue;
    }
    InstrSection* s = as_section(e);
    if (s->Tag()[0] != '\0') write_head(out, s, indent++);
    walk.Descend();
  }
  if (named) write_tail(out, n - 1);
  return true;
}

// ---------------------------------------------------------------------------
// InstrSectionIter

InstrSectionIter::InstrSectionIter(InstrSection* s) : DLlistIter(s) {}
InstrSectionIter::InstrSectionIter(InstrSectionIter& other) : DLlistIter(other) {}
InstrSectionIter& InstrSectionIter::operator=(InstrSectionIter& other) {
  DLlistIter::operator=(other);
  return *this;
}
InstrSectionIter::~InstrSectionIter() = default;

void InstrSectionIter::UseSection(InstrSection* s) { UseList(s); }

InstrSection* InstrSectionIter::CurrentSection() const {
  DLlist* l = List();
  return l != nullptr ? as_section(l) : nullptr;
}

InstrRecord* InstrSectionIter::CurrentItem() const { return InstrRecord::FromElt(Current()); }
InstrRecord* InstrSectionIter::FirstItem() { return InstrRecord::FromElt(First()); }
InstrRecord* InstrSectionIter::LastItem() { return InstrRecord::FromElt(Last()); }
InstrRecord* InstrSectionIter::NextItem() { return InstrRecord::FromElt(Next()); }
InstrRecord* InstrSectionIter::PrevItem() { return InstrRecord::FromElt(Prev()); }

bool InstrSectionIter::Match(const char* name, InstrRecord* r, bool wantSection) {
  return name != nullptr && r != nullptr && r->IsSection() == wantSection && std::strcmp(r->Tag(), name) == 0;
}

bool InstrSectionIter::NextMatch(const char* name, bool wantSection, const char* altName) {
  if (EOL()) return false;
  for (DLlistElt* e = Next(); e != nullptr; e = Next()) {
    if ((e->IsList() != 0) != wantSection) continue;
    InstrRecord* r = InstrRecord::FromElt(e);
    if (Match(name, r, wantSection) || (altName != nullptr && Match(altName, r, wantSection))) return true;
  }
  return false;
}

bool InstrSectionIter::NextMatch(const char* name, char*& value, bool wantSection, const char* altName) {
  if (!NextMatch(name, wantSection, altName)) return false;
  value = CurrentItem()->Str();
  return true;
}

bool InstrSectionIter::FirstMatch(const char* name, bool wantSection) {
  Top();
  return NextMatch(name, wantSection);
}

bool InstrSectionIter::FirstMatch(const char* name, char*& value, bool wantSection) {
  Top();
  return NextMatch(name, value, wantSection);
}

bool InstrSectionIter::PrevMatch(const char* name, bool wantSection) {
  if (BOL()) return false;
  for (DLlistElt* e = Prev(); e != nullptr; e = Prev())
    if (Match(name, InstrRecord::FromElt(e), wantSection)) return true;
  return false;
}

bool InstrSectionIter::FirstRecord(const char* name) { return FirstMatch(name, false); }
bool InstrSectionIter::NextRecord(const char* name, const char* altName) { return NextMatch(name, false, altName); }
bool InstrSectionIter::FirstSection(const char* name) { return FirstMatch(name, true); }
bool InstrSectionIter::FirstSection(const char* name, char*& value) { return FirstMatch(name, value, true); }
bool InstrSectionIter::NextSection(const char* name, const char* altName) { return NextMatch(name, true, altName); }
bool InstrSectionIter::NextSection(const char* name, char*& value, const char* altName) {
  return NextMatch(name, value, true, altName);
}

void InstrSectionIter::Add(InstrRecord* r) { InsertAfter(r); }

void InstrSectionIter::InsertAfter(InstrRecord* r) {
  if (r != nullptr && r->Elt() != nullptr) DLlistIter::InsertAfter(r->Elt());
}

void InstrSectionIter::InsertBefore(InstrRecord* r) {
  if (r != nullptr && r->Elt() != nullptr) DLlistIter::InsertBefore(r->Elt());
}

void InstrSectionIter::InsertAfter(InstrRecord* after, InstrRecord* r) {
  if (r != nullptr && r->Elt() != nullptr) DLlistIter::InsertAfter(after != nullptr ? after->Elt() : nullptr, r->Elt());
}

void InstrSectionIter::InsertBefore(InstrRecord* before, InstrRecord* r) {
  if (r != nullptr && r->Elt() != nullptr)
    DLlistIter::InsertBefore(before != nullptr ? before->Elt() : nullptr, r->Elt());
}

void InstrSectionIter::GoTo(InstrRecord* r) {
  if (r != nullptr && r->Elt() != nullptr) DLlistIter::GoTo(r->Elt());
}

void InstrSectionIter::DeleteRecord() { Remove(false); }
void InstrSectionIter::ClearRecords() { ClearList(); }

// ---------------------------------------------------------------------------
// HandleList

HandleList::HandleList() : DLlist(true) { g_registry = this; }

HandleList::~HandleList() {
  if (g_registry == this) g_registry = nullptr;
}

HandleList* HandleList::Registry() { return g_registry; }

void HandleList::AddHandle(InstrHandle* h) {
  if (h == nullptr) sys_abort("Instrfil HandleList::AddHandle(): NULL handle insert!");
  for (HandleElt* e = static_cast<HandleElt*>(First()); e != nullptr; e = e->following())
    if (e->handle == h) sys_abort("Instrfil HandleList::AddHandle() handle already in list!");
  InsertEnd(new HandleElt(h));
}

void HandleList::RemoveHandle(InstrHandle* h) {
  for (HandleElt* e = static_cast<HandleElt*>(First()); e != nullptr; e = e->following()) {
    if (e->handle == h) {
      Remove(e, false);
      return;
    }
  }
  sys_abort("instrfil HandleList::RemoveHandle() handle to remove not found!");
}

InstrHandle* HandleList::FindSharer(const InstrHandle* h) const {
  for (HandleElt* e = static_cast<HandleElt*>(First()); e != nullptr; e = e->following())
    if (e->handle != h && e->handle->path == h->path) return e->handle;
  return nullptr;
}

bool HandleList::RootInUse(const InstrHandle* h, const InstrSection* r) const {
  for (HandleElt* e = static_cast<HandleElt*>(First()); e != nullptr; e = e->following())
    if (e->handle != h && e->handle->root == r) return true;
  return false;
}

HandleList instrHandleRegistry KV_INIT(KV_PRIO_INSTR);

// ---------------------------------------------------------------------------
// InstrHandle: construction and the tree

InstrHandle::InstrHandle() : InstrSectionIter(nullptr), path() { Init(false); }

InstrHandle::InstrHandle(pathname& p) : InstrSectionIter(nullptr), path(p) { Init(!path.is_valid()); }

InstrHandle::InstrHandle(char* p) : InstrSectionIter(nullptr), path(p) { Init(!path.is_valid()); }

InstrHandle::InstrHandle(const char* p) : InstrSectionIter(nullptr), path(p) { Init(!path.is_valid()); }

InstrHandle::InstrHandle(void* t) : InstrSectionIter(nullptr), path() {
  Init(t == nullptr);
  text = static_cast<char*>(t);
}

InstrHandle::InstrHandle(InstrSection* s)
    : InstrSectionIter(nullptr),
      path(),
      text(nullptr),
      root(nullptr),
      headerName(kDefaultHeader),
      failed(false),
      errorText(nullptr),
      lineNumber(0),
      ownsText(false),
      scan(nullptr),
      scanEnd(nullptr),
      home(home_heap(this)) {
  if (s != nullptr) {
    root = s->Root();
    UseList(s);
  } else {
    root = make<InstrSection>(home, __LINE__, "", "", 0);
    UseList(root);
  }
  if (HandleList* r = HandleList::Registry()) r->AddHandle(this);
}

InstrHandle::InstrHandle(InstrHandle& h)
    : InstrSectionIter(h),
      path(h.path),
      text(h.text),
      root(h.root),
      headerName(h.headerName),
      failed(h.failed),
      errorText(h.errorText),
      lineNumber(h.lineNumber),
      ownsText(false),
      scan(nullptr),
      scanEnd(nullptr),
      home(home_heap(this)) {
  if (HandleList* r = HandleList::Registry()) r->AddHandle(this);
}

void InstrHandle::Init(bool startFailed) {
  text = nullptr;
  headerName = kDefaultHeader;
  failed = startFailed;
  errorText = nullptr;
  lineNumber = 0;
  ownsText = false;
  scan = nullptr;
  scanEnd = nullptr;
  home = home_heap(this);
  root = make<InstrSection>(home, __LINE__, "", "", 0);
  UseList(root);
  if (HandleList* r = HandleList::Registry()) r->AddHandle(this);
}

InstrHandle::~InstrHandle() {
  ReleaseRoot();
  DropText();
  if (HandleList* r = HandleList::Registry()) r->RemoveHandle(this);
}

void InstrHandle::ReleaseRoot() {
  if (root == nullptr) return;
  HandleList* r = HandleList::Registry();
  if (r != nullptr && !r->RootInUse(this, root)) {
    ThrowList();
    delete root;
  }
  root = nullptr;
}

void InstrHandle::DropText() {
  if (ownsText) KvOperatorDelete(text);
  text = nullptr;
  ownsText = false;
}

void InstrHandle::UseRoot(InstrSection* s) {
  if (s == root) {
    UseList(s);
    return;
  }
  ReleaseRoot();
  UseList(s);
  root = s;
}

void InstrHandle::UseRoot(InstrHandle* h) {
  if (h != nullptr && h != this) UseRoot(h->root);
}

void InstrHandle::Path(const pathname& p) {
  path = p;
  DropText();
}

void InstrHandle::Buf(char* t) {
  DropText();
  text = t;
  path = pathname();
}

InstrRecordElt* InstrHandle::NewRecord(const char* name) {
  return make<InstrRecordElt>(home, __LINE__, name, "", -1);
}

// ---------------------------------------------------------------------------
// InstrHandle: the cursor

bool InstrHandle::IsSectionEmpty() const { return Get(0) == nullptr; }

InstrType InstrHandle::CurrentItem(char*& t, char*& v) {
  if (InstrRecord* r = CurrentItem()) {
    t = r->Tag();
    v = r->Str();
    return r->IsSection() ? InstrTypeSection : InstrTypeRecord;
  }
  InstrSection* s = CurrentSection();
  t = s != nullptr ? s->Tag() : nullptr;
  v = nullptr;
  const bool inRoot = s == nullptr || s->IsRoot();
  if (BOL()) return inRoot ? InstrTypeBOF : InstrTypeBOS;
  return inRoot ? InstrTypeEOF : InstrTypeEOS;
}

InstrType InstrHandle::NextItem(char*& t, char*& v) {
  Next();
  return CurrentItem(t, v);
}

InstrType InstrHandle::PrevItem(char*& t, char*& v) {
  Prev();
  return CurrentItem(t, v);
}

bool InstrHandle::Seek(InstrType t) {
  switch (t) {
    case InstrTypeBOF:
      UseList(root);
      return true;
    case InstrTypeEOF:
      UseList(root);
      Bottom();
      return true;
    case InstrTypeBOS:
      Top();
      return true;
    case InstrTypeEOS:
      Bottom();
      return true;
    case InstrTypeEnter:
      return Descend() != nullptr;
    case InstrTypeExit:
      return Ascend() != nullptr;
    case InstrTypeUp:
      if (Ascend() == nullptr) return false;
      Top();
      return true;
    case InstrTypeRecord:
      return NextPureElt() != nullptr;
    default:
      return false;
  }
}

int InstrHandle::CurLine() {
  if (failed && errorText != nullptr) return lineNumber;
  if (InstrRecord* r = CurrentItem()) return r->Line();
  InstrSection* s = CurrentSection();
  if (s == nullptr) return 0;
  if (s->IsRoot()) return BOL() ? 0 : lineNumber;
  return s->Line();
}

// ---------------------------------------------------------------------------
// InstrHandle: searching

bool InstrHandle::FirstStr(const char* name, char*& v) { return FirstMatch(name, v, false); }
bool InstrHandle::NextStr(const char* name, char*& v) { return NextMatch(name, v, false); }
bool InstrHandle::NextStr(const char* name, const char* altName, char*& v) { return NextMatch(name, v, false, altName); }

bool InstrHandle::FirstInt(const char* name, int& out) {
  if (!FirstRecord(name)) return false;
  out = CurrentItem()->Int();
  return true;
}

bool InstrHandle::FirstFloat(const char* name, float& out) {
  if (!FirstRecord(name)) return false;
  out = CurrentItem()->Float();
  return true;
}

bool InstrHandle::GetFirstInt(const char* name, int& out, int dflt) {
  if (!FirstInt(name, out)) out = dflt;
  return true;
}

bool InstrHandle::GetFirstFloat(const char* name, float& out, float dflt) {
  if (!FirstFloat(name, out)) out = dflt;
  return true;
}

bool InstrHandle::NextPathName(const char* name, pathname& out) {
  char* v = nullptr;
  if (!NextStr(name, v)) return false;
  out = pathname(v);
  return true;
}

bool InstrHandle::PrevPathName(const char* name, pathname& out) { return NextPathName(name, out); }

bool InstrHandle::PrevFileName(const char* name, FileName& out) {
  char* v = nullptr;
  if (!NextStr(name, v)) return false;
  out = FileName(v);
  return true;
}

bool InstrHandle::GetPosition(const char* name, float& x, float& y) { return GetPosition(name, nullptr, x, y); }

bool InstrHandle::GetPosition(const char* name, const char* altName, float& x, float& y) {
  char* v = nullptr;
  if (!NextStr(name, altName, v)) {
    x = y = 0.0f;
    return false;
  }
  return std::sscanf(v, "%f,%f", &x, &y) == 2;
}

bool InstrHandle::FindSection(const char* name, const char* v) {
  while (NextSection(name)) {
    const char* found = CurrentItem()->Str();
    if (v == nullptr ? found[0] == '\0' : std::strcmp(found, v) == 0) return true;
  }
  return false;
}

// ---------------------------------------------------------------------------
// InstrHandle: editing

bool InstrHandle::AddStr(const char* name, const char* v) {
  if (CurrentSection() == nullptr) return false;
  InstrRecordElt* r = NewRecord(name);
  r->Str(v);
  InsertAfter(r);
  return true;
}

bool InstrHandle::AddInt(const char* name, int v) {
  if (!AddStr(name, nullptr)) return false;
  CurrentItem()->Int(v);
  return true;
}

bool InstrHandle::AddFloat(const char* name, float v) {
  if (!AddStr(name, nullptr)) return false;
  CurrentItem()->Float(v);
  return true;
}

bool InstrHandle::AddDouble(const char* name, double v) {
  if (!AddStr(name, nullptr)) return false;
  CurrentItem()->Double(v);
  return true;
}

bool InstrHandle::AddSection(const char* name, const char* v) {
  if (CurrentSection() == nullptr) return false;
  InsertAfter(make<InstrSection>(home, __LINE__, name, v, -1));
  return true;
}

bool InstrHandle::ChangeStr(const char* v) {
  InstrRecord* r = CurrentItem();
  if (r == nullptr) return false;
  r->Str(v);
  return true;
}

bool InstrHandle::ChangeInt(int v) {
  InstrRecord* r = CurrentItem();
  if (r == nullptr) return false;
  r->Int(v);
  return true;
}

bool InstrHandle::ChangeFloat(float v) {
  InstrRecord* r = CurrentItem();
  if (r == nullptr) return false;
  r->Float(v);
  return true;
}

bool InstrHandle::ChangeDouble(double v) {
  InstrRecord* r = CurrentItem();
  if (r == nullptr) return false;
  r->Double(v);
  return true;
}

bool InstrHandle::ChangeFileName(const FileName& v) { return ChangeStr(static_cast<const char*>(v)); }
bool InstrHandle::ChangePathName(const pathname& v) { return ChangeStr(*v); }

bool InstrHandle::ChangeSection(const char* name, const char* v) {
  InstrSection* s = CurrentSection();
  if (s == nullptr) return false;
  s->Tag(name);
  if (v != nullptr) s->Str(v);
  return true;
}

bool InstrHandle::SetStr(const char* name, const char* v) {
  if (FirstRecord(name)) {
    CurrentItem()->Str(v);
    return false;
  }
  Bottom();
  return AddStr(name, v);
}

bool InstrHandle::SetInt(const char* name, int v) {
  if (FirstRecord(name)) {
    CurrentItem()->Int(v);
    return false;
  }
  Bottom();
  return AddInt(name, v);
}

bool InstrHandle::SetFileName(const char* name, const FileName& v) {
  return SetStr(name, static_cast<const char*>(v));
}

bool InstrHandle::SetPathName(const char* name, const pathname& v) { return SetStr(name, *v); }

bool InstrHandle::SetSection(const char* name, const char* v) {
  if (!FindSection(name, v)) {
    Bottom();
    return AddSection(name, v);
  }
  if (v != nullptr) CurrentItem()->Str(v);
  return true;
}

bool InstrHandle::DeleteItem() {
  if (Current() == nullptr) return false;
  Remove(false);
  return true;
}

bool InstrHandle::ClearSection() {
  if (CurrentSection() == nullptr) return false;
  ClearList();
  return true;
}

bool InstrHandle::ClearFile() {
  if (root == nullptr) return false;
  UseList(root);
  root->Clear();
  return true;
}

// ---------------------------------------------------------------------------
// InstrHandle: reading

char* InstrHandle::GetNextLine() {
  if (scan == nullptr) return nullptr;
  char* p = scan;
  for (;;) {
    while (is_ascii_ws(*p)) {
      if (*p == '\n') ++lineNumber;
      ++p;
    }
    if (*p != '#') break;
    char* lf = static_cast<char*>(std::memchr(p, '\n', static_cast<size_t>(scanEnd - p)));
    p = lf != nullptr ? lf + 1 : scanEnd;
    ++lineNumber;
  }
  char* start = p;
  char* lf = static_cast<char*>(std::memchr(p, '\n', static_cast<size_t>(scanEnd - p)));
  char* end = lf != nullptr ? lf : scanEnd;
  char* kept = end;
  if (char* cr = static_cast<char*>(std::memchr(start, '\r', static_cast<size_t>(end - start)))) {
    kept = cr;
    for (char* q = cr + 1; q < end; ++q)
      if (*q != '\r') *kept++ = *q;
  }
  *kept = '\0';
  scan = lf != nullptr ? lf + 1 : scanEnd;
  ++lineNumber;
  return start;
}

char InstrHandle::PeekNextChar() {
  if (scan == nullptr) return '\0';
  const char* p = scan;
  while (is_ascii_ws(*p)) ++p;
  return *p;
}

bool InstrHandle::EndOfFile() { return scan == nullptr || *scan == '\0'; }

bool InstrHandle::Read(IHReadFlags flags) {
  UseRoot(make<InstrSection>(home, __LINE__, "", "", 0));
  lineNumber = 0;
  errorText = nullptr;
  failed = false;

  // A private, NUL-terminated working copy of the text: parsing edits it.
  struct WorkCopy {
    InstrHandle& h;
    char* block = nullptr;
    ~WorkCopy() {
      KvOperatorDelete(block);
      h.scan = h.scanEnd = nullptr;
    }
  } copy{*this};
  size_t size = 0;
  char*& work = copy.block;
  if (text != nullptr) {
    size = heapman_mgr::get_size(text);
    heap* where = home;
    work = static_cast<char*>(place(size + 1, where, __LINE__));
    std::memcpy(work, text, size);
  } else {
    if ((flags & IHReadShared) != 0 && path.is_valid()) {
      if (HandleList* r = HandleList::Registry()) {
        if (InstrHandle* other = r->FindSharer(this)) {
          UseRoot(other);
          return true;
        }
      }
    }
    TackHand file(*path);
    file.TackOpen();
    void* data = *file;
    if (data == nullptr) {
      if ((flags & IHReadMustExist) == 0) return true;
      errorText = "Bad file";
      failed = true;
      return false;
    }
    size = heapman_mgr::get_size(data);
    heap* where = home;
    work = static_cast<char*>(place(size + 1, where, __LINE__));
    std::memcpy(work, data, size);
  }
  work[size] = '\0';
  // A NUL byte ends the text.
  scan = work;
  scanEnd = work + std::strlen(work);

  ParseBody();
  return !failed;
}

void InstrHandle::ParseBody() {
  if (headerName != nullptr) {
    const char* first = GetNextLine();
    // A text without any line (nothing but blanks and comments) is an empty
    // document: GetNextLine gives an empty line only at the end of the text.
    if (first[0] == '\0' && EndOfFile()) {
      UseList(root);
      return;
    }
    if (std::strncmp(first, headerName, std::strlen(headerName)) != 0) {
      errorText = "Bad header";
      failed = true;
      return;
    }
  }

  int depth = 0;
  UseList(root);
  while (errorText == nullptr && !EndOfFile()) {
    char* line = GetNextLine();
    size_t length = std::strlen(line);
    char* eq = nullptr;
    for (char* q = line + length; q > line;)
      if (*--q == '=') {
        eq = q;
        break;
      }
    size_t tagLength = eq != nullptr ? static_cast<size_t>(eq - line) : length;
    if (eq != nullptr && eq != line && eq[-1] == '\\') {
      // "\=": the value goes on over the following lines while it ends in "\".
      while (length > 0 && line[length - 1] == '\\') {
        const char* more = GetNextLine();
        const size_t m = std::strlen(more);
        std::memmove(line + length - 1, more, m + 1);
        length = length - 1 + m;
      }
      eq[-1] = '\0';
      tagLength = static_cast<size_t>(eq - 1 - line);
    }
    char* value = nullptr;
    size_t valueLength = 0;
    if (eq != nullptr) {
      valueLength = static_cast<size_t>(line + length - (eq + 1));
      value = trim(eq + 1, valueLength);
    }
    char* tag = trim(line, tagLength);
    if (tagLength == 0) continue;

    if (tag[0] == '}') {
      if (tagLength > 1 || eq != nullptr) {
        errorText = "Syntax error";
      } else if (depth == 0) {
        errorText = "Mismatched braces";
      } else {
        Ascend();
        --depth;
      }
      continue;
    }
    if (PeekNextChar() != '{') {
      InstrRecordElt* r = make<InstrRecordElt>(home, __LINE__);
      if (value != nullptr) {
        r->SetText(r->tag, r->tagBuffer, tag, tagLength);
        r->SetText(r->value, r->valueBuffer, value, valueLength);
      } else {
        r->SetText(r->value, r->valueBuffer, tag, tagLength);
      }
      r->line = lineNumber;
      DLlistIter::InsertAfter(r);
      continue;
    }
    if (tag[0] == '{') {
      errorText = "Missing section name";
    } else if (tagLength > kInlineText) {
      errorText = "Tag too long";
    } else {
      DLlistIter::InsertAfter(make<InstrSection>(home, __LINE__, tag, value, lineNumber));
      Descend();
      ++depth;
      GetNextLine();
    }
  }
  UseList(root);
  if (errorText == nullptr && depth != 0) errorText = "Mismatched braces";
  failed = errorText != nullptr;
}

// ---------------------------------------------------------------------------
// InstrHandle: writing

bool InstrHandle::Write() {
  DropText();
  if (root == nullptr) return false;
  InstrBuffer out(home);
  if (headerName != nullptr) {
    out.Append(headerName);
    out.Append("\r\n", 2);
  }
  root->Write(out, 0);
  out.Append("\r\n", 2);
  if (path.is_valid()) {
    SysFileioBuffer list[2] = {{out.text, 0, out.length}, {nullptr, 0, 0}};
    const bool ok = SysManager::FileWrite(*path, list, 0);
    failed = !ok;
    return ok;
  }
  text = out.Release();
  ownsText = true;
  return true;
}

// ---------------------------------------------------------------------------
// The procedural interface

namespace {

InstrHandle* checked(void* h) {
  if (h == nullptr) Debug("No instr handle\n");
  return static_cast<InstrHandle*>(h);
}

InstrHandle* as_handle(void* h) { return static_cast<InstrHandle*>(h); }

// Runs call on the handle; false, after the note checked() leaves, for none.
template <typename Call>
bool forward(void* h, Call call) {
  InstrHandle* p = checked(h);
  return p != nullptr && call(*p);
}

}  // namespace

void* InstrCreate(FileName& name) {
  void* block = KvOperatorNew(sizeof(InstrHandle));
  if (block == nullptr) return nullptr;
  return new (block) InstrHandle(static_cast<char*>(name));
}

void InstrDestroy(void* h) {
  if (h == nullptr) return;
  InstrHandle* handle = as_handle(h);
  handle->~InstrHandle();
  KvOperatorDelete(handle);
}

bool InstrRead(void* h, IHReadFlags f) { return forward(h, [&](InstrHandle& p) { return p.Read(f); }); }
bool InstrWrite(void* h) { return forward(h, [&](InstrHandle& p) { return p.Write(); }); }

bool InstrRename(void* h, FileName& name) {
  if (h == nullptr) return false;
  as_handle(h)->Path(pathname(static_cast<char*>(name)));
  return true;
}

bool InstrFileName(void* h, FileName& out) {
  if (h == nullptr) return false;
  out = FileName(*as_handle(h)->Path());
  return true;
}

bool InstrSeek(void* h, InstrType t) { return forward(h, [&](InstrHandle& p) { return p.Seek(t); }); }
bool InstrEnterSection(void* h) { return InstrSeek(h, InstrTypeEnter); }
bool InstrExitSection(void* h) { return InstrSeek(h, InstrTypeExit); }

InstrType InstrCurrentItem(void* h, char*& tag, char*& value) { return as_handle(h)->CurrentItem(tag, value); }
InstrType InstrNextItem(void* h, char*& tag, char*& value) { return as_handle(h)->NextItem(tag, value); }
InstrType InstrPrevItem(void* h, char*& tag, char*& value) { return as_handle(h)->PrevItem(tag, value); }

bool InstrFirstRecord(void* h, char* name) { return forward(h, [&](InstrHandle& p) { return p.FirstRecord(name); }); }
bool InstrNextRecord(void* h, char* name) { return forward(h, [&](InstrHandle& p) { return p.NextRecord(name); }); }
bool InstrFirstSection(void* h, char* name) { return forward(h, [&](InstrHandle& p) { return p.FirstSection(name); }); }

bool InstrNextSection(void* h, char* name) {
  return forward(h, [&](InstrHandle& p) { return p.NextSection(name, nullptr); });
}

bool InstrFirstStr(void* h, char* name, char*& value) {
  return forward(h, [&](InstrHandle& p) { return p.FirstStr(name, value); });
}

bool InstrNextStr(void* h, char* name, char*& value) {
  return forward(h, [&](InstrHandle& p) { return p.NextStr(name, value); });
}

bool InstrFirstInt(void* h, char* name, int& out) {
  return forward(h, [&](InstrHandle& p) { return p.FirstInt(name, out); });
}

bool InstrFirstFloat(void* h, char* name, float& out) {
  return forward(h, [&](InstrHandle& p) { return p.FirstFloat(name, out); });
}

bool InstrPrevFileName(void* h, char* name, FileName& out) {
  return forward(h, [&](InstrHandle& p) { return p.PrevFileName(name, out); });
}

bool InstrAddInt(void* h, char* name, int v) { return forward(h, [&](InstrHandle& p) { return p.AddInt(name, v); }); }

bool InstrAddFloat(void* h, char* name, float v) {
  return forward(h, [&](InstrHandle& p) { return p.AddFloat(name, v); });
}

bool InstrAddDouble(void* h, char* name, double v) {
  return forward(h, [&](InstrHandle& p) { return p.AddDouble(name, v); });
}

bool InstrAddSection(void* h, const char* name) { return as_handle(h)->AddSection(name, nullptr); }

bool InstrChangeInt(void* h, int v) { return forward(h, [&](InstrHandle& p) { return p.ChangeInt(v); }); }
bool InstrChangeFloat(void* h, float v) { return forward(h, [&](InstrHandle& p) { return p.ChangeFloat(v); }); }
bool InstrChangeDouble(void* h, double v) { return forward(h, [&](InstrHandle& p) { return p.ChangeDouble(v); }); }
bool InstrChangeStr(void* h, char* v) { return forward(h, [&](InstrHandle& p) { return p.ChangeStr(v); }); }

bool InstrChangeFileName(void* h, const FileName& v) {
  return forward(h, [&](InstrHandle& p) { return p.ChangeFileName(v); });
}

bool InstrChangeSection(void* h, const char* name) { return as_handle(h)->ChangeSection(name, nullptr); }

bool InstrSetFileName(void* h, const char* name, const FileName& v) {
  return forward(h, [&](InstrHandle& p) { return p.SetFileName(name, v); });
}

bool InstrSetSection(void* h, const char* name) { return as_handle(h)->SetSection(name, nullptr); }

bool InstrDeleteItem(void* h) { return forward(h, [&](InstrHandle& p) { return p.DeleteItem(); }); }
bool InstrClearSection(void* h) { return forward(h, [&](InstrHandle& p) { return p.ClearSection(); }); }
