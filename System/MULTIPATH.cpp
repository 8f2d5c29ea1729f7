// Path lists: a directory with an ordered list of (wildcard) names, the list
// of names it is built on, and their iterators.
#include <new>

#include "FILENAME.h"
#include "heap.h"

namespace {

const char* const kSource = "System/FILENAME";

}  // namespace

// ---------------------------------------------------------------------------
// FileNameElt

FileNameElt::~FileNameElt() = default;

DLlistElt* FileNameElt::DupElt(heap* h) const { return new (h, kSource, __LINE__) FileNameElt(name); }

// ---------------------------------------------------------------------------
// FileNameList

FileNameList::~FileNameList() = default;

FileNameList& FileNameList::operator=(const FileNameList& other) {
  if (&other != this) Copy(other);
  return *this;
}

void FileNameList::Add(const filename& name) {
  heap* h = heapman_mgr::find(this);
  if (h == nullptr) h = mainheap;
  InsertEnd(new (h, kSource, __LINE__) FileNameElt(name));
}

FileNameElt* FileNameList::Find(const filename& name) const {
  FileNameIter it(*this);
  return it.Find(name, true);
}

bool FileNameList::Remove(const filename& name) {
  FileNameElt* e = Find(name);
  if (e == nullptr) return false;
  DLlist::Remove(e, false);
  return true;
}

int FileNameList::Index(const filename& name) const {
  FileNameIter it(*this);
  it.Find(name, true);
  return it.Index();  // -1 when the walk ran off the end
}

filename FileNameList::Get(int n) const {
  const DLlistElt* e = DLlist::Get(n);
  return e != nullptr ? static_cast<const FileNameElt*>(e)->name : filename();
}

DLlistElt* FileNameList::DupElt(heap* h) const { return new (h, kSource, __LINE__) FileNameList(); }

// ---------------------------------------------------------------------------
// FileNameIter

FileNameIter::~FileNameIter() = default;

filename& FileNameIter::operator*() const {
  FileNameElt* e = Current();
  if (e != nullptr) return e->name;
  // Standing on no name: a fresh invalid name each time, so that what a
  // caller wrote into the last one does not show.
  thread_local filename none;
  none.init();
  return none;
}

FileNameElt* FileNameIter::Find(const filename& name, bool fromTop) {
  if (fromTop) Top();
  while (Next() != nullptr)
    if (Current()->name == name) return Current();
  return nullptr;
}

// ---------------------------------------------------------------------------
// MultiPath

MultiPath::MultiPath(const char* text) : MultiPath(pathname(text)) {}

MultiPath::MultiPath(const pathname& p) : m_dir(p.dir()), files(), single(p.dir()) {
  if (p.file().is_valid()) Add(p.file());
}

MultiPath::MultiPath(const dirname& d) : m_dir(d), files(), single(d) {}

MultiPath::MultiPath(const dirname& d, const filename& f) : m_dir(d), files(), single(d) {
  if (f.is_valid()) Add(f);
}

MultiPath& MultiPath::operator=(const MultiPath& other) {
  if (&other != this) {
    m_dir = other.m_dir;
    files = other.files;
    single = other.single;
  }
  return *this;
}

MultiPath::~MultiPath() = default;

void MultiPath::Add(const filename& name) {
  files.Add(name);
  single << name;
}

void MultiPath::Remove(const filename& name) {
  files.Remove(name);
  if (files.First() == nullptr) single << filename();
}

void MultiPath::Clear() {
  files.Clear();
  single << filename();
}

void MultiPath::dir(const dirname& d) {
  m_dir = d;
  single << d;
}

int MultiPath::Index(const filename& name) const { return files.Index(name); }

int MultiPath::Index(const pathname& p) const { return p.dir() == m_dir ? files.Index(p.file()) : -1; }

pathname MultiPath::Find(const filename& name) const {
  const FileNameElt* e = files.Find(name);
  return e != nullptr ? pathname(m_dir, e->name) : pathname();
}

pathname MultiPath::Find(const pathname& p) const { return p.dir() == m_dir ? Find(p.file()) : pathname(); }

pathname MultiPath::Get(int n) const {
  const filename name = files.Get(n);
  return name.is_valid() ? pathname(m_dir, name) : pathname();
}

bool MultiPath::is_wild() const {
  const FileNameElt* first = files.First();
  if (first == nullptr) return false;
  return first != files.Last() || first->name.is_wild();
}

bool MultiPath::is_root() const { return m_dir.is_root() && files.First() == nullptr; }

bool MultiPath::match(const pathname& p) const {
  // The walk registers an iterator with the list; the names stay untouched.
  MultiPathIter it(const_cast<MultiPath&>(*this));
  while (++it)
    if (it->match(p)) return true;
  return false;
}

// ---------------------------------------------------------------------------
// MultiPathIter

MultiPathIter::MultiPathIter(MultiPath& m) : current(), names(m.FileList()), owner(&m) {}

void MultiPathIter::Use(MultiPath& m) {
  owner = &m;
  names.UseList(m.FileList());
  current.reinit();
}

const MultiPath* MultiPathIter::Owner() const {
  // The name walk loses its list when the MultiPath holding it is destroyed.
  return names.List() != nullptr ? owner : nullptr;
}

MultiPathIter& MultiPathIter::operator++() {
  const MultiPath* m = Owner();
  if (m == nullptr) {
    current.reinit();
    return *this;
  }
  if (names.BOL() && m->FileList().First() == nullptr) {
    ++names;
    current = pathname(m->dir());
    return *this;
  }
  ++names;
  if (FileNameElt* e = names.Current())
    current = pathname(m->dir(), e->name);
  else
    current << static_cast<const char*>(nullptr);
  return *this;
}

MultiPathIter& MultiPathIter::operator--() {
  const MultiPath* m = Owner();
  FileNameElt* e = nullptr;
  if (m != nullptr) {
    --names;
    e = names.Current();
  }
  if (e != nullptr)
    current = pathname(m->dir(), e->name);
  else
    current.reinit();
  return *this;
}

void MultiPathIter::Top() {
  names.Top();
  current.reinit();
}

void MultiPathIter::Bottom() {
  names.Bottom();
  current.reinit();
}

pathname MultiPathIter::Find(const filename& name) const {
  const MultiPath* m = Owner();
  return m != nullptr ? m->Find(name) : pathname();
}

pathname MultiPathIter::Find(const pathname& p) const {
  const MultiPath* m = Owner();
  return m != nullptr ? m->Find(p) : pathname();
}

// ---------------------------------------------------------------------------
// CWD

void CWD::do_subst(MultiPath& m) {
  if (cap_dir.is_valid() && m.is_valid() && m.drive() == '!') m.dir(cap_dir);
}
