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
// Also here: CWD, the working directory of each drive, the current drive and
// the capture directory ("!:"); the free functions over the process's working
// directory and drives; and the drive table, which maps DOS drives onto host
// directories.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "KvExport.h"
#include "filetime.h"

class dirname;
class pathname;
class wild_match;

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

// The process's working directories: one per drive, the current drive, the
// start directory, the executable's directory and the capture directory that
// the pseudo-drive "!" stands for. All state is process-wide; use it from one
// thread. The library's instance is cwd.
class KVCORE_API CWD {
 public:
  CWD();
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
