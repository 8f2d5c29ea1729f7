// Instrument parameter files: the line-oriented text of tagged values in
// named, nestable sections, its in-memory tree and the cursor over it.
//
//   Korvalis Data File
//
//   TagA = 1.0
//   SectionB
//   {
//   	TagC = 200
//   }
//
// InstrHandle reads such a text (from a file or a memory block) into a tree of
// InstrSection and InstrRecordElt items, moves a cursor over it, searches and
// edits it, and writes it back (CR LF lines, TAB indents, crash-safe through
// SysManager::FileWrite). Handles opened on the same file may share one tree
// (IHReadShared); the registry of live handles (HandleList) decides when a
// shared tree is deleted. Reading, writing, copying and destroying a tree walk
// it without recursion, so any depth is safe.
//
// The Instr* functions at the end are the same operations for callers that
// keep the handle as an untyped pointer.
#pragma once

#include <cstddef>

#include "FILENAME.h"
#include "KvExport.h"
#include "LIST.h"
#include "heap.h"

class InstrBuffer;
class InstrSection;
class InstrHandle;

// What the item-reading operations report and what Seek accepts.
enum InstrType {
  InstrTypeBOF = 0,      // root, before its first item
  InstrTypeEOF = 1,      // root, after its last item
  InstrTypeBOS = 2,      // inner section, before its first item
  InstrTypeEOS = 3,      // inner section, after its last item
  InstrTypeEnter = 4,    // Seek only: enter the section under the cursor
  InstrTypeExit = 5,     // Seek only: leave the section, standing on it in its parent
  InstrTypeUp = 6,       // Seek only: leave the section, before the parent's first item
  InstrTypeSection = 7,  // the cursor stands on a section (not accepted by Seek)
  InstrTypeRecord = 8,   // the cursor stands on a record; Seek: to the next record
};

// Options of InstrHandle::Read (a bit set).
enum IHReadFlags {
  IHReadNone = 0,
  IHReadShared = 1,     // share the tree of another open handle on an equal path
  IHReadMustExist = 2,  // a file that cannot be loaded is an error ("Bad file")
};
constexpr IHReadFlags operator|(IHReadFlags a, IHReadFlags b) {
  return static_cast<IHReadFlags>(static_cast<int>(a) | static_cast<int>(b));
}

// The writer's growable output text: NUL-terminated, starting with a 4,096-byte
// block and doubling its capacity whenever an append would not fit. The block
// lives in the heap given at construction (the runtime library for null).
class KVCORE_API InstrBuffer {
 public:
  explicit InstrBuffer(heap* h = nullptr);
  InstrBuffer(const InstrBuffer&) = delete;
  InstrBuffer& operator=(const InstrBuffer&) = delete;
  ~InstrBuffer();

  void Append(const char* s);
  void Append(const char* s, size_t n);
  void Append(char c, size_t count = 1);
  // Hands the text block to the caller (who frees it with KvOperatorDelete);
  // the buffer is empty and without a block afterwards.
  char* Release();

  char* text;       // NUL-terminated
  size_t length;    // bytes used, without the terminator
  size_t capacity;  // bytes allocated

 private:
  void Grow(size_t needed);
  heap* where;
};

// The base of every item: a tag, a value and the line it was read from.
// Texts of up to 256 bytes are kept in the object; longer ones in a block of
// the heap that holds the record, reused while it is large enough.
class KVCORE_API InstrRecord {
 public:
  InstrRecord();
  InstrRecord(const char* tag, const char* value, int line = -1);
  // Member-wise: tag and value go on pointing into the source's storage
  // (which must outlive their use). The copy never frees that storage; it
  // takes storage of its own when one of its texts is set. Independent copies
  // are made with DupTree.
  InstrRecord& operator=(const InstrRecord&) = default;
  virtual ~InstrRecord();

  virtual bool IsSection() const { return false; }
  virtual bool IsRoot() const { return false; }
  // The list element side of the item; null for a bare record, which cannot
  // be put in a section.
  virtual DLlistElt* Elt() { return nullptr; }
  // Appends the item's text at indent level n.
  virtual bool Write(InstrBuffer& out, int n);

  char* Tag() const { return tag; }
  char* Str() const { return value; }
  // null stores the empty string.
  void Tag(const char* s);
  void Str(const char* s);
  int Line() const { return line; }
  void Line(int l) { line = l; }

  // Typed views of the value.
  int Int() const;
  void Int(int v);        // "%d"
  float Float() const;
  void Float(float v);    // "%g"
  double Double() const;
  void Double(double v);  // "%g": six significant digits
  bool Bool() const;
  void Bool(bool v);      // "1" or "0"

  // The outermost section of the tree holding the item (the item itself for
  // a section in no list); null for an item in no section.
  InstrSection* Root();
  // A deep copy in the heap that holds the item (a section with everything
  // in it); the copy is in no list.
  InstrRecord* DupTree() const;

  // The item behind a list element of a section.
  static InstrRecord* FromElt(DLlistElt* e);

 protected:
  // Copies tag and value as texts (own storage) and the line.
  InstrRecord(const InstrRecord& other);
  void DumpTagAlloc();
  void DumpValAlloc();

 private:
  void SetText(char*& field, char* inline_buffer, const char* s, size_t n);
  void Adopt();

  char* tag;
  char* value;
  char tagBuffer[257];
  char valueBuffer[257];
  int line;
  const InstrRecord* owner;  // the record whose storage tag and value use

  friend class InstrHandle;
};

// A record that sits in a section.
class KVCORE_API InstrRecordElt : public InstrRecord, public DLlistElt {
 public:
  InstrRecordElt() = default;
  InstrRecordElt(const char* tag, const char* value, int line = -1) : InstrRecord(tag, value, line) {}
  ~InstrRecordElt() override;

  DLlistElt* Elt() override { return this; }
  DLlistElt* DupElt(heap* h) const override;
  using InstrRecord::DupTree;

 protected:
  InstrRecordElt(const InstrRecordElt& other) : InstrRecord(other), DLlistElt() {}
};

// A named section: a record (name = tag, optional value) that is also an
// owning list of items. Deleting a section deletes everything in it.
class KVCORE_API InstrSection : public InstrRecord, public DLlist {
 public:
  InstrSection() = default;
  InstrSection(const char* name, const char* value, int line = -1) : InstrRecord(name, value, line) {}
  // Member-wise, list fields included (the two objects then share items).
  InstrSection& operator=(const InstrSection&) = default;
  ~InstrSection() override;

  bool IsSection() const override { return true; }
  bool IsRoot() const override;
  DLlistElt* Elt() override { return this; }
  bool Write(InstrBuffer& out, int n) override;
  // A new section with the same tag, value and line and no items.
  DLlistElt* DupElt(heap* h) const override;
  using InstrRecord::DupTree;

  // The enclosing section, or null.
  InstrSection* Parent() const;
  // Deletes all items.
  void ClearRecords();

 protected:
  // Copies the record part only; the copy has no items.
  InstrSection(const InstrSection& other) : InstrRecord(other), DLlist(true) {}
};

// A cursor over the items of one section.
class KVCORE_API InstrSectionIter : public DLlistIter {
 public:
  explicit InstrSectionIter(InstrSection* s);
  InstrSectionIter(InstrSectionIter& other);
  InstrSectionIter& operator=(InstrSectionIter& other);
  ~InstrSectionIter() override;

  // Walk s from its beginning (null: walk nothing).
  void UseSection(InstrSection* s);
  InstrSection* CurrentSection() const;
  InstrRecord* CurrentItem() const;
  InstrRecord* FirstItem();
  InstrRecord* LastItem();
  InstrRecord* NextItem();
  InstrRecord* PrevItem();

  // r is a section exactly when wantSection, and its tag equals name.
  bool Match(const char* name, InstrRecord* r, bool wantSection);
  bool FirstMatch(const char* name, bool wantSection);
  bool FirstMatch(const char* name, char*& value, bool wantSection);
  bool NextMatch(const char* name, bool wantSection, const char* altName = nullptr);
  bool NextMatch(const char* name, char*& value, bool wantSection, const char* altName = nullptr);
  bool PrevMatch(const char* name, bool wantSection);

  bool FirstRecord(const char* name);
  bool NextRecord(const char* name, const char* altName = nullptr);
  bool FirstSection(const char* name);
  bool FirstSection(const char* name, char*& value);
  bool NextSection(const char* name, const char* altName = nullptr);
  bool NextSection(const char* name, char*& value, const char* altName = nullptr);

  // Insertion; r must be able to sit in a list (Elt() non-null). The cursor
  // then stands on r.
  void Add(InstrRecord* r);
  void InsertAfter(InstrRecord* r);
  void InsertBefore(InstrRecord* r);
  // Relative to another item of the current section.
  void InsertAfter(InstrRecord* after, InstrRecord* r);
  void InsertBefore(InstrRecord* before, InstrRecord* r);
  // Stand on r in r's section.
  void GoTo(InstrRecord* r);
  // Delete the item under the cursor (the cursor moves on) / all items.
  void DeleteRecord();
  void ClearRecords();
};

// A handle on an instrument parameter file: the file's path, its tree (owned
// or shared) and a cursor in it.
class KVCORE_API InstrHandle : public InstrSectionIter {
 public:
  InstrHandle();
  explicit InstrHandle(pathname& p);
  explicit InstrHandle(char* p);
  explicit InstrHandle(const char* p);
  // Reads from and writes to the memory text (a block of the tracked heaps).
  explicit InstrHandle(void* text);
  // Shares the tree holding s and stands at the beginning of s.
  explicit InstrHandle(InstrSection* s);
  // Same position, path, header name and state; shares h's tree and h's
  // memory text pointer.
  InstrHandle(InstrHandle& h);
  InstrHandle& operator=(const InstrHandle&) = delete;
  ~InstrHandle() override;

  bool operator!() const { return failed; }
  operator bool() const { return !failed; }
  // 1 when not failed, null when failed: a truth value, not an address.
  operator void*() const { return failed ? nullptr : reinterpret_cast<void*>(1); }

  // Reading and writing text.
  bool Read(IHReadFlags flags = IHReadNone);
  bool Write();
  void SetHeaderName(const char* name) { headerName = name; }
  const char* HeaderName() const { return headerName; }
  // Makes text the source of the next Read and clears the path.
  void Buf(char* text);
  // After a Write to memory: the text written (owned by the handle).
  char* Buf() const { return text; }
  char* ErrStr() const { return const_cast<char*>(errorText); }
  int CurLine();

  // Tree and cursor.
  void UseRoot(InstrSection* s);
  void UseRoot(InstrHandle* h);
  const pathname& Path() const { return path; }
  void Path(const pathname& p);
  bool BOS() const { return DLlistIter::BOL(); }
  bool EOS() const { return DLlistIter::EOL(); }
  bool IsSectionEmpty() const;
  InstrRecord* CurrentRecord() const { return InstrSectionIter::CurrentItem(); }
  using InstrSectionIter::CurrentItem;
  using InstrSectionIter::NextItem;
  using InstrSectionIter::PrevItem;
  InstrType CurrentItem(char*& tag, char*& value);
  InstrType NextItem(char*& tag, char*& value);
  InstrType PrevItem(char*& tag, char*& value);
  bool Seek(InstrType t);
  bool EnterSection() { return Seek(InstrTypeEnter); }
  bool ExitSection() { return Seek(InstrTypeExit); }

  // Searching.
  bool FirstStr(const char* name, char*& value);
  bool NextStr(const char* name, char*& value);
  bool NextStr(const char* name, const char* altName, char*& value);
  bool FirstInt(const char* name, int& out);
  bool FirstFloat(const char* name, float& out);
  bool GetFirstInt(const char* name, int& out, int dflt);
  bool GetFirstFloat(const char* name, float& out, float dflt);
  bool NextPathName(const char* name, pathname& out);
  // Searches forward from the cursor, as NextPathName does.
  bool PrevPathName(const char* name, pathname& out);
  // Searches forward from the cursor and copies the value into out.
  bool PrevFileName(const char* name, FileName& out);
  bool GetPosition(const char* name, float& x, float& y);
  bool GetPosition(const char* name, const char* altName, float& x, float& y);
  bool FindSection(const char* name, const char* value);

  // Editing.
  bool AddInt(const char* name, int v);
  bool AddFloat(const char* name, float v);
  bool AddDouble(const char* name, double v);
  bool AddStr(const char* name, const char* value);
  bool AddSection(const char* name, const char* value);
  bool ChangeInt(int v);
  bool ChangeFloat(float v);
  bool ChangeDouble(double v);
  bool ChangeStr(const char* value);
  bool ChangeFileName(const FileName& v);
  bool ChangePathName(const pathname& v);
  bool ChangeSection(const char* name, const char* value);
  // True when a record was added, false when an existing one was changed.
  bool SetInt(const char* name, int v);
  bool SetStr(const char* name, const char* value);
  bool SetFileName(const char* name, const FileName& v);
  bool SetPathName(const char* name, const pathname& v);
  bool SetSection(const char* name, const char* value);
  bool DeleteItem();
  bool ClearSection();
  bool ClearFile();

 protected:
  InstrSection* Root() const { return root; }
  // Scanning primitives of the reader.
  char* GetNextLine();
  char PeekNextChar();
  bool EndOfFile();

 private:
  friend class HandleList;
  void Init(bool startFailed);
  void ReleaseRoot();
  void DropText();
  InstrRecordElt* NewRecord(const char* name);
  void ParseBody();

  pathname path;
  char* text;  // the memory text
  InstrSection* root;
  const char* headerName;
  bool failed;
  const char* errorText;
  int lineNumber;
  bool ownsText;   // text is the handle's own (written) block
  char* scan;      // scan position during Read
  char* scanEnd;   // end of the text being read
  heap* home;      // the heap that holds the handle
};

// The registry of live handles. The library's instance exists from start-up
// to shut-down; without it handles neither register nor release trees.
class KVCORE_API HandleList : public DLlist {
 public:
  HandleList();
  ~HandleList() override;

  void AddHandle(InstrHandle* h);
  void RemoveHandle(InstrHandle* h);
  // The first other handle whose path equals h's path, or null.
  InstrHandle* FindSharer(const InstrHandle* h) const;
  // Whether a handle other than h has root as its tree.
  bool RootInUse(const InstrHandle* h, const InstrSection* root) const;
  int Handles() const { return Count(); }

  // The library's registry, or null outside its lifetime.
  static HandleList* Registry();
};

// The procedural interface. A handle is an InstrHandle* passed as void*.
// Unless noted, a null handle writes "No instr handle\n" through Debug() and
// answers false.
KVCORE_API void* InstrCreate(FileName& name);
KVCORE_API void InstrDestroy(void* h);
KVCORE_API bool InstrRead(void* h, IHReadFlags f);
KVCORE_API bool InstrWrite(void* h);
// Null handle: false, no message.
KVCORE_API bool InstrRename(void* h, FileName& name);
// Null handle: false, no message.
KVCORE_API bool InstrFileName(void* h, FileName& out);
KVCORE_API bool InstrSeek(void* h, InstrType t);
KVCORE_API bool InstrEnterSection(void* h);
KVCORE_API bool InstrExitSection(void* h);
// The handle must be valid.
KVCORE_API InstrType InstrCurrentItem(void* h, char*& tag, char*& value);
KVCORE_API InstrType InstrNextItem(void* h, char*& tag, char*& value);
KVCORE_API InstrType InstrPrevItem(void* h, char*& tag, char*& value);
KVCORE_API bool InstrFirstRecord(void* h, char* name);
KVCORE_API bool InstrNextRecord(void* h, char* name);
KVCORE_API bool InstrFirstSection(void* h, char* name);
KVCORE_API bool InstrNextSection(void* h, char* name);
KVCORE_API bool InstrFirstStr(void* h, char* name, char*& value);
KVCORE_API bool InstrNextStr(void* h, char* name, char*& value);
KVCORE_API bool InstrFirstInt(void* h, char* name, int& out);
KVCORE_API bool InstrFirstFloat(void* h, char* name, float& out);
KVCORE_API bool InstrPrevFileName(void* h, char* name, FileName& out);
KVCORE_API bool InstrAddInt(void* h, char* name, int v);
KVCORE_API bool InstrAddFloat(void* h, char* name, float v);
KVCORE_API bool InstrAddDouble(void* h, char* name, double v);
// The handle must be valid.
KVCORE_API bool InstrAddSection(void* h, const char* name);
KVCORE_API bool InstrChangeInt(void* h, int v);
KVCORE_API bool InstrChangeFloat(void* h, float v);
KVCORE_API bool InstrChangeDouble(void* h, double v);
KVCORE_API bool InstrChangeStr(void* h, char* v);
KVCORE_API bool InstrChangeFileName(void* h, const FileName& v);
// The handle must be valid.
KVCORE_API bool InstrChangeSection(void* h, const char* name);
KVCORE_API bool InstrSetFileName(void* h, const char* name, const FileName& v);
// The handle must be valid.
KVCORE_API bool InstrSetSection(void* h, const char* name);
KVCORE_API bool InstrDeleteItem(void* h);
KVCORE_API bool InstrClearSection(void* h);
