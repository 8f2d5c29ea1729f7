// Panel state persistence: client panels, check items and attributes keep
// small pieces of state (flags, named strings) between runs in a panel-state
// file, an instrument parameter file with the header "Panel state".
//
// A PanelStateSave is a position in that file (a base path of section names);
// several of them can share one PanelStateHandle (the file). Opening and
// closing are counted, so the file is read once at the first TrackOpen of any
// sharer and written once, when something changed, at the last TrackClose:
//
//   PanelStateSave save(PanelStateSaveDefault);   // shares default.pan
//   save.BaseName("Stage panel");
//   save.TrackOpen();
//   save.StringWrite("Position", "10,20");
//   save.TrackClose();                            // written here
//
// FlagIOClass is a small set of named flags with numeric identifiers; the
// three ready-made sets are PanelState, CheckItemState and AttributeState.
#pragma once

#include <cstdint>

#include "FILENAME.h"
#include "INSTRFIL.h"
#include "KvExport.h"

// A set of named flags over a static table: table[0] holds the identifier of
// the first flag (as a pointer-sized number), followed by the names and a null
// entry. Flag k of the table has the identifier First() + k. Up to 64 flags.
class KVCORE_API FlagIOClass {
 public:
  explicit FlagIOClass(char** table);

  // The count of names, and the identifier of the first.
  unsigned Number() const;
  unsigned First() const;
  // The name of flag id (not range-checked).
  char* String(int id) const { return names[id - static_cast<int>(First())]; }
  // The bit storage: (Number() + 7) / 8 bytes, flag k in bit k % 8 of byte k / 8.
  void* Buffer() { return bits; }
  const void* Buffer() const { return bits; }
  void Clear();

  // A flag by identifier; identifiers outside the set read false and are not stored.
  bool Get(int id) const;
  void Set(int id, bool on);
  // The identifier of a name (exact, case-sensitive), or -1.
  int Id(const char* name) const;

  static constexpr unsigned kMaxFlags = 64;

 protected:
  char** names;
  unsigned char bits[kMaxFlags / 8];
};

// Storage of PanelState's two values, ahead of its flag set.
struct PanelStateValues {
  uint64_t values[2] = {0, 0};
};

// A panel's flags (100 "Hide", 101 "Min", 102 "Max") and two 64-bit values
// for the client's use.
class KVCORE_API PanelState : public PanelStateValues, public FlagIOClass {
 public:
  PanelState();
  enum { Hide = 100, Min = 101, Max = 102 };
};

// A check item's flag (200 "Hide").
class KVCORE_API CheckItemState : public FlagIOClass {
 public:
  CheckItemState();
  enum { Hide = 200 };
};

// An attribute's flags (300 "ReadOnly", 301 "Hidden").
class KVCORE_API AttributeState : public FlagIOClass {
 public:
  AttributeState();
  enum { ReadOnly = 300, Hidden = 301 };
};

// The panel-state file shared by PanelStateSaves: an instrument file handle
// with the header "Panel state", a count of its users and of open tracking.
class KVCORE_API PanelStateHandle : public InstrHandle {
 public:
  explicit PanelStateHandle(const pathname& p);
  PanelStateHandle(const PanelStateHandle&) = delete;
  PanelStateHandle& operator=(const PanelStateHandle&) = delete;
  ~PanelStateHandle() override;

  // Counted open: the first reads the file (a missing file is empty).
  void Open();
  // Counted close: the last writes the file if it changed and frees the tree.
  void Close();
  void MarkChanged() { dirty = true; }

  int RefCount() const { return refCount; }
  int OpenCount() const { return openCount; }
  bool Changed() const { return dirty; }
  // The section the cursor is in (the root at the top level).
  InstrSection* CurrentSection() const { return InstrSectionIter::CurrentSection(); }
  InstrSection* TreeRoot() const { return Root(); }

 private:
  friend class PanelStateSave;
  int refCount;
  int openCount;
  bool dirty;
};

// A client's position in a panel-state file and its string operations. Every
// read and write happens between TrackOpen and TrackClose; outside them the
// operations do nothing and report false.
class KVCORE_API PanelStateSave {
 public:
  // A new handle on p, no base path.
  explicit PanelStateSave(const pathname& p);
  // Shares other's handle and copies its base path.
  PanelStateSave(PanelStateSave& other);
  PanelStateSave& operator=(const PanelStateSave&) = delete;
  virtual ~PanelStateSave();

  // The base path: section names, each NUL-terminated, ended by an empty name
  // ("Panels\0Stage\0\0"); null for the root.
  void BasePath(const char* list);
  const char* BasePath() const { return basePath; }
  // The base path of one section name (null: the root).
  void BaseName(const char* name);
  // While tracking: the section the cursor is in becomes the base path.
  void BaseHere();

  const pathname& Path() const;
  void Path(const pathname& p);

  void TrackOpen();
  void TrackClose();
  int TrackDepth() const { return trackDepth; }

  // With a name: find that section from the cursor, or add it at the end of
  // the current section, and enter it. With null: leave the current section,
  // deleting it when it has no items. False when not tracking or, for null,
  // at the top level.
  bool Seek(const char* name);
  // Sets the record tag (from the start of the current section, or appended);
  // a null or empty value deletes it. False when not tracking.
  bool StringWrite(const char* tag, const char* value);
  // The value of the record tag of the current section; false and a null
  // value when absent. The text belongs to the tree and lives until it changes
  // or the last TrackClose.
  bool StringRead(const char* tag, char*& value);

  // Keeps a copy of name ("" for null) and stores it as "Name" in the section
  // "Profiles:" below the base path (an empty name removes the record).
  void SetLongName(const char* name);
  char* LongName() const { return longName; }

  PanelStateHandle* Handle() const { return handle; }

 private:
  void BasePathRestore();
  void BasePathSave(PanelStateHandle* h);

  PanelStateHandle* handle;
  char* basePath;
  int trackDepth;
  char* longName;
};

// The default panel-state file, "default.pan" in the working directory at
// start-up. Nothing is read or written unless it is used.
extern KVCORE_API PanelStateSave PanelStateSaveDefault;
