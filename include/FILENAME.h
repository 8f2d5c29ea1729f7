// Path names. Every path the library handles passes through these value
// classes, which parse, check and normalise it once, on assignment:
//   filename   one component: a base name and an optional extension;
//   dirname    an absolute directory ("c:\data", "\\server\share");
//   pathname   a directory plus a file name, with the composed text;
//   wild_match a fixed-width template for "*" and "?" comparisons.
// A value that fails its checks becomes invalid (is_valid() false, text
// empty); nothing is thrown. All text lives in fixed buffers inside the
// object: 256 characters for a name or directory, 260 for a full path.
//
// Path lists: MultiPath, one directory with an ordered list of names (each
// may hold wildcards), built on the intrusive list (FileNameList of
// FileNameElt); MultiPathIter yields one full pathname per listed name.
//
// Also here: CWD, the working directory of each drive, the current drive and
// the capture directory ("!:"); the free functions over the process's working
// directory and drives; and the drive table, which maps DOS drives onto host
// directories.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "KvExport.h"
#include "LIST.h"
#include "filetime.h"

class dirname;
class pathname;
class wild_match;
class MultiPath;

// One path component, checked character by character.
class KVCORE_API filename {
 public:
  // Legal characters (compared after tolower); bytes from 0x80 up are legal too.
  static constexpr char name_chars[] = " abcdefghijklmnopqrstuvwxyz0123456789_^$~!#%&-{}()@'`*?+,;=[]";
  static constexpr char wild_chars[] = "*?";
  // Base names that are devices, compared exactly (so "CON" is a legal name).
  static constexpr const char* name_reserved[12] = {"clock$", "con",  "aux",  "com1", "com2", "com3",
                                                    "com4",   "lpt1", "lpt2", "lpt3", "nul",  "prn"};

  constexpr filename() : pre{}, post{}, dot(false), value{}, valid(false) {}
  filename(const char* text);  // NOLINT: names convert from text
  filename(const filename&) = default;
  filename& operator=(const filename&) = default;

  // Parses and checks text; a null or empty text leaves the name empty and invalid.
  filename& operator<<(const char* text);
  // A time-stamped serial name: "MMDDhhmm" with the extension "001", or the
  // next extension when the base already holds this minute's stamp.
  filename& operator<<(const file_timestamp& t);
  // Advances a numeric extension: ".000" to ".001" ... ".998" to ".999";
  // any other extension makes the name invalid.
  filename& operator++();

  void init();
  void erase();

  char* prefix() const;   // the base name
  char* postfix() const;  // the extension, without its dot
  // Replace the base or the extension (at most 256 characters) and recompose.
  void prefix(const char* base);
  void postfix(const char* ext);

  bool has_dot() const { return dot; }
  bool is_wild() const;
  bool is_valid() const { return valid; }
  operator bool() const { return valid; }
  bool operator!() const { return !valid; }
  char* operator*() const { return const_cast<char*>(value); }
  operator char*() const { return const_cast<char*>(value); }

  // Case-insensitive wildcard comparison of this name with a template.
  bool match(const wild_match& w) const;
  // Replaces this name's wildcards with the characters of source at the same
  // positions ("*.bak" filled from "data.txt" gives "data.bak").
  void wild_fill(const filename& source);

  // Two invalid names are equal; valid names compare their values exactly.
  bool operator==(const filename& other) const;
  bool operator!=(const filename& other) const { return !(*this == other); }

 private:
  friend class pathname;
  friend class wild_match;
  void parse(const char* text, size_t length);
  void build_value();

  char pre[257];
  char post[257];
  bool dot;
  char value[514];
  bool valid;
};

// An absolute, normalised directory: "x:\..." (drive letters stored lower-case)
// or "\\server\share\...". Only a root ends in "\".
class KVCORE_API dirname {
 public:
  // Characters accepted before ":" as a drive: the letters and the pseudo-drives
  // "!" (the capture directory) and "&".
  static constexpr char name_drives[] = "!abcdefghijklmnopqrstuvwxyz&";

  constexpr dirname() : text{}, valid(false) {}
  dirname(const char* text);  // NOLINT
  dirname(const pathname& p);  // NOLINT: the file part becomes the last component
  dirname(const dirname&) = default;
  dirname& operator=(const dirname&) = default;

  // Parses text. A relative text is resolved against this directory when it is
  // valid (so d << "sub" descends and d << ".." ascends), otherwise against the
  // start directory; "x:name" is resolved against drive x's working directory.
  dirname& operator<<(const char* text);

  int drive() const;  // the drive letter, 0 for a network path
  bool is_dos() const { return drive() != '!'; }
  bool is_root() const;
  // True when this text begins with the whole of other's and the next
  // character is the end or "\"; so "c:\data" is not below "c:\".
  bool is_subdir_of(const dirname& other) const;
  // The text after the last "\", or an empty text.
  char* get_last() const;

  void init();
  void erase();
  bool is_valid() const { return valid; }
  operator bool() const { return valid; }
  bool operator!() const { return !valid; }
  char* operator*() const { return const_cast<char*>(text); }
  operator char*() const { return const_cast<char*>(text); }
  bool operator==(const dirname& other) const;
  bool operator!=(const dirname& other) const { return !(*this == other); }

 private:
  friend class pathname;
  void parse(const char* text, size_t length);

  char text[257];
  bool valid;
};

// A directory and a file name with the composed full path.
class KVCORE_API pathname {
 public:
  constexpr pathname() : m_file(), m_dir(), text{}, valid(false) {}
  pathname(const char* text);      // NOLINT
  pathname(const dirname& d);      // NOLINT
  pathname(const filename& f);     // NOLINT: invalid until a directory is given
  pathname(const dirname& d, const filename& f);
  pathname(const pathname&) = default;
  pathname& operator=(const pathname&) = default;

  // Parses a full path; a relative text is resolved against this whole path.
  pathname& operator<<(const char* text);
  pathname& operator<<(const dirname& d);   // replaces the directory
  pathname& operator<<(const filename& f);  // replaces the file name

  const dirname& dir() const { return m_dir; }
  const filename& file() const { return m_file; }
  int drive() const { return m_dir.drive(); }
  bool is_dos() const { return m_dir.is_dos(); }
  // A valid drive root with no file name ("c:\").
  bool is_root() const;
  // Whether the file or directory exists on disk.
  bool exists() const;
  // Both valid, the same directory (exactly), and this file name matches the
  // pattern's by wildcard (ignoring case).
  bool match(const pathname& pattern) const;

  // The filename operations on the file part, recomposing the path.
  pathname& operator++();
  void prefix(const char* base);
  void postfix(const char* ext);
  void wild_fill(const filename& source);
  char* prefix() const { return m_file.prefix(); }
  char* postfix() const { return m_file.postfix(); }
  bool has_dot() const { return m_file.has_dot(); }
  bool is_wild() const { return m_file.is_wild(); }

  void reinit();
  void erase();
  bool is_valid() const { return valid; }
  operator bool() const { return valid; }
  bool operator!() const { return !valid; }
  char* operator*() const { return const_cast<char*>(text); }
  operator char*() const { return const_cast<char*>(text); }
  bool operator==(const pathname& other) const;
  bool operator!=(const pathname& other) const { return !(*this == other); }

 protected:
  friend class dirname;
  void init();  // resets the composed text only
  void build_str();

 private:
  filename m_file;
  dirname m_dir;
  char text[261];
  bool valid;
};

// The fixed-width template of a name: 256 positions for the base, 256 for the
// extension, then a NUL. A "*" turns its position and all later ones of its
// field into "?"; "?" matches any character, including a missing one.
class KVCORE_API wild_match {
 public:
  wild_match() {}  // uninitialised, as a plain buffer
  wild_match(const filename& f);  // NOLINT
  wild_match(const wild_match&) = default;
  wild_match& operator=(const wild_match&) = default;

  // Fills width positions of field from text, then a NUL at field[width].
  static void expand(char* field, const char* text, int width);

  bool operator==(const wild_match& other) const;
  bool operator!=(const wild_match& other) const { return !(*this == other); }

 private:
  friend class filename;
  char field[513];
};

// A path that is only carried, never checked (at most 260 characters).
class KVCORE_API FileName {
 public:
  FileName() : name{} {}
  FileName(const char* text);  // NOLINT
  FileName(const FileName&) = default;
  FileName& operator=(const FileName&) = default;

  char* operator*() { return name; }
  const char* operator*() const { return name; }
  operator char*() { return name; }
  operator const char*() const { return name; }

 private:
  char name[261];
};

// "????????.???", shown or stored where no valid file name exists.
KVCORE_API const char* InvalidFileName();

// One name of a FileNameList.
class KVCORE_API FileNameElt : public DLlistElt {
 public:
  FileNameElt() = default;
  explicit FileNameElt(const filename& f) : name(f) {}
  ~FileNameElt() override;

  // A free copy of this element in heap h.
  DLlistElt* DupElt(heap* h) const override;

  filename name;
};

// An ordered list of file names that owns its elements. Copies (copy
// construction, assignment) copy every name into the heap that holds the
// destination list. Names compare exactly, case-sensitive; two invalid names
// are equal.
class KVCORE_API FileNameList : public DLlist {
 public:
  FileNameList() : DLlist(true) {}
  FileNameList(const FileNameList& other) : DLlist(other, true) {}
  FileNameList& operator=(const FileNameList& other);
  ~FileNameList() override;

  // Appends a copy of name (duplicates and invalid names included), allocated
  // in the heap that holds this list, or in mainheap.
  void Add(const filename& name);
  // The first element holding a name equal to name, or null.
  FileNameElt* Find(const filename& name) const;
  // Removes and destroys the first element equal to name; false when none is.
  bool Remove(const filename& name);
  bool Remove(const char* name) { return Remove(filename(name)); }
  using DLlist::Remove;
  // The position of the first equal name; -1 when there is none.
  int Index(const filename& name) const;
  using DLlist::Index;
  // A copy of the name at position n; an invalid name when there is none.
  filename Get(int n) const;
  FileNameElt* First() const { return static_cast<FileNameElt*>(DLlist::First()); }
  FileNameElt* Last() const { return static_cast<FileNameElt*>(DLlist::Last()); }

  // A new, empty FileNameList in heap h (so nested name lists copy as such).
  DLlistElt* DupElt(heap* h) const override;
};

// Walks a FileNameList.
class KVCORE_API FileNameIter : public DLlistIter {
 public:
  FileNameIter() : DLlistIter(nullptr) {}
  explicit FileNameIter(FileNameList& l) : DLlistIter(&l) {}
  explicit FileNameIter(const FileNameList& l) : DLlistIter(&l) {}
  // Walks other's list, from other's position.
  FileNameIter(const FileNameIter& other) : DLlistIter(const_cast<FileNameIter&>(other)) {}
  FileNameIter& operator=(const FileNameIter& other) {
    DLlistIter::operator=(const_cast<FileNameIter&>(other));
    return *this;
  }
  ~FileNameIter() override;

  // Walks l from its beginning.
  void UseList(FileNameList& l) { DLlistIter::UseList(&l); }
  FileNameList* List() const { return static_cast<FileNameList*>(DLlistIter::List()); }
  FileNameElt* Current() const { return static_cast<FileNameElt*>(DLlistIter::Current()); }
  // The current name; an empty, invalid name when the iterator stands on none.
  filename& operator*() const;
  filename* operator->() const { return &**this; }
  FileNameIter& operator++() {
    Next();
    return *this;
  }
  FileNameIter& operator--() {
    Prev();
    return *this;
  }

  // Steps forward (from the beginning when fromTop) to the next element whose
  // name equals name, and returns it; null, at the end, when none follows.
  FileNameElt* Find(const filename& name, bool fromTop);
};

// One directory and an ordered list of names in it, each of which may hold
// wildcards ("c:\data\*.txt", or several explicit names). single is the
// directory joined with the most recently added name, or the directory alone
// once the list has been emptied.
class KVCORE_API MultiPath {
 public:
  // An invalid directory and no names.
  MultiPath() = default;
  // A path: its directory, and its file part as the first name. A path
  // without a valid file part ("c:\") and an invalid f give no name.
  MultiPath(const char* text);  // NOLINT
  MultiPath(const pathname& p);  // NOLINT
  MultiPath(const dirname& d);  // NOLINT
  MultiPath(const dirname& d, const filename& f);
  MultiPath(const MultiPath& other) = default;
  MultiPath& operator=(const MultiPath& other);
  ~MultiPath();

  // Appends name (no checks) and makes it the file part of the single path.
  void Add(const filename& name);
  // Removes the first equal name; with the last one gone, the single path
  // names the directory alone.
  void Remove(const filename& name);
  void Clear();

  void dir(const dirname& d);
  const dirname& dir() const { return m_dir; }
  void operator<<(const dirname& d) { dir(d); }
  FileNameList& FileList() { return files; }
  const FileNameList& FileList() const { return files; }
  int Count() const { return files.Count(); }

  // Position of a name; of a path's name when the path is in this directory
  // (exactly), otherwise -1.
  int Index(const filename& name) const;
  int Index(const pathname& p) const;
  // The path of a listed name (for a full path: also in this directory);
  // an invalid path when it is not listed.
  pathname Find(const filename& name) const;
  pathname Find(const pathname& p) const;
  // The path of the n-th name; an empty, invalid path when there is none.
  pathname Get(int n) const;

  // A valid directory and at least one name.
  bool is_valid() const { return m_dir.is_valid() && files.Count() > 0; }
  operator int() const { return is_valid() ? 1 : 0; }
  explicit operator bool() const { return is_valid(); }
  bool operator!() const { return !is_valid(); }
  // More than one name, or one name holding "*" or "?".
  bool is_wild() const;
  bool is_single() const { return !is_wild(); }
  // A drive root with no names.
  bool is_root() const;
  int drive() const { return m_dir.drive(); }
  bool is_dos() const { return m_dir.is_dos(); }
  // Whether any listed path matches p: the same directory (exactly) and the
  // names equal under wildcards, ignoring case.
  bool match(const pathname& p) const;

  operator dirname() const { return dirname(*single); }
  operator const pathname&() const { return single; }
  const pathname& SinglePath() const { return single; }
  operator char*() const { return *single; }

 private:
  dirname m_dir;
  FileNameList files;
  pathname single;
};

// Walks a MultiPath: each step yields the directory joined with the next
// name. A MultiPath without names yields its directory once. Step first,
// then test:
//   for (MultiPathIter it(m); ++it;) use(*it);
class KVCORE_API MultiPathIter {
 public:
  MultiPathIter() = default;
  explicit MultiPathIter(MultiPath& m);
  MultiPathIter(const MultiPathIter& other) = default;
  MultiPathIter& operator=(const MultiPathIter& other) = default;
  // Walks m from its beginning.
  void Use(MultiPath& m);

  MultiPathIter& operator++();
  MultiPathIter& operator--();
  const pathname& operator*() const { return current; }
  const pathname* operator->() const { return &current; }
  operator int() const { return current.is_valid() ? 1 : 0; }
  bool operator!() const { return !current.is_valid(); }

  // Positions of the name walk; Top and Bottom also clear the current path.
  void Top();
  void Bottom();
  bool BOL() const { return names.BOL(); }
  bool EOL() const { return names.EOL(); }
  int Count() const { return names.Count(); }
  int Index() const { return names.Index(); }

  // MultiPath::Find on the MultiPath walked; the iterator does not move.
  pathname Find(const filename& name) const;
  pathname Find(const pathname& p) const;

 private:
  // The MultiPath walked, or null when there is none or it has been destroyed.
  const MultiPath* Owner() const;

  pathname current;
  FileNameIter names;
  MultiPath* owner = nullptr;
};

// The process's working directories: one per drive, the current drive, the
// start directory, the executable's directory and the capture directory that
// the pseudo-drive "!" stands for. All state is process-wide; use it from one
// thread. The library's instance is cwd.
class KVCORE_API CWD {
 public:
  // An executable that cannot be named stops the program at load (through
  // sys_abort and std::terminate: nothing may unwind out of a library's
  // start-up).
  CWD() noexcept;
  ~CWD();
  CWD(const CWD&) = delete;
  CWD& operator=(const CWD&) = delete;

  // The working directory of a drive (0: the current drive; an unknown drive:
  // the current drive's slot). A remembered directory that no longer exists is
  // refreshed from the process's working directory of that drive.
  static const dirname& Get(int drive);
  // Remembers a valid directory for its drive.
  static void Set(const dirname& d);
  static int GetDrive();
  static void SetDrive(int ch);
  static const dirname& Start();
  static void Start(const dirname& d);
  static const dirname& Exe();
  static void Exe(const dirname& d);
  static const dirname& CaptureDir();
  // Sets the capture directory; one that does not exist clears it.
  static void CaptureDir(const dirname& d);
  static bool HasCaptureDirectory();
  // Replace a directory on "!" by the capture directory, when there is one.
  static void do_subst(dirname& d);
  static void do_subst(pathname& p);
  // The same for a valid path list: its directory becomes the capture directory.
  static void do_subst(MultiPath& m);

 private:
  static int Index(int ch);

  static dirname* dirs[27];
  static int cur_drive;
  static dirname cap_dir;
  static dirname exe_dir;
  static dirname start_dir;
};

KVCORE_API extern CWD cwd;

// The process's current drive as a lower-case letter.
KVCORE_API int get_cur_drive();
// Makes a drive current ("!" is ignored).
KVCORE_API void set_cur_drive(int ch);
// The working directory of a drive ("!:\" for "!"); the drive's root when it
// cannot be read. Overloads the two-argument POSIX getcwd.
KVCORE_API dirname getcwd(int drive);
// Changes the process's working directory; true on success.
KVCORE_API bool setcwd(const char* path);
// Whether a directory exists ("!:\" always does).
KVCORE_API bool dir_exists(const dirname& d);
// Whether a drive exists ("!" and "&" always do).
KVCORE_API bool drive_exists(int ch);
// The same, also telling whether the drive is removable or on the network.
KVCORE_API bool drive_exists(int ch, bool& removable, bool& remote);

// The drive table: DOS drives on host directories. Drive c: is the host root
// "/" unless remapped; KVCORE_DRIVES ("d=/mnt/data;e=/media/usb") adds drives
// at load; network paths ("\\server\share") live below the network root
// (KVCORE_NETWORK_ROOT).
struct DriveMapping {
  char letter;       // 'a'..'z'
  std::string root;  // absolute host directory
  int type;          // 1 no root directory, 2 removable, 3 fixed, 4 network
};

// Maps a drive letter to an absolute host directory; false for another
// character or a relative directory.
KVCORE_API bool drive_map(int letter, const char* hostRoot);
// Removes a drive; false when it was not mapped.
KVCORE_API bool drive_unmap(int letter);
// The mapped drives in letter order.
KVCORE_API std::vector<DriveMapping> drive_list();
// Entries of KVCORE_DRIVES that were ignored at load, with the reason.
KVCORE_API std::vector<std::string> drive_config_problems();
// Sets the host directory of network paths; null or empty removes it. False
// (and no network root) for a relative directory.
KVCORE_API bool network_root_set(const char* hostDir);
KVCORE_API std::string network_root();
// A DOS path as the host path it maps to, and back; false when no drive (or
// network root) holds it.
KVCORE_API bool dos_to_host_path(const char* dos, std::string& host);
KVCORE_API bool host_to_dos_path(const char* host, std::string& dos);
