// kvtool: files and paths named on the command line. A file is read whole
// with the system's reason for any failure, and replaced only through the
// library's crash-safe write, under a lock, and only when it is the very file
// that was named.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "host_file.h"

namespace kvtool {

// The library's limits: a full path keeps 260 characters, a name's base and
// its extension 256 each.
constexpr size_t kPathLimit = 260;
constexpr size_t kNameLimit = 256;

// Why the library would cut `text` read as a DOS path (or, for nameOnly, as
// one file name); empty when it keeps all of it.
std::string path_cut_reason(const std::string& text, bool nameOnly = false);

// A file named by the user. Every failure is printed as "FILE: reason" on
// standard error, FILE being the name as the user gave it.
class UserFile {
 public:
  UserFile(std::string command, std::string shown) : command_(std::move(command)), shown_(std::move(shown)) {}

  // Finds what the name leads to and refuses anything but a regular file
  // (a missing one only when mayBeMissing). forWriting also refuses a
  // read-only file unless force, a name that the library cannot name exactly,
  // and takes the update lock, held until this object goes.
  bool open(bool forWriting, bool mayBeMissing, bool force = false);
  // The whole text (empty for a missing file). A NUL byte is refused: the
  // library would end the document there.
  bool read(std::string& text);
  // Replaces the file (through links, to the file they lead to) with text.
  bool replace(const std::string& text);

  // Shows the phase of long work ("parsing") on a terminal, for large files.
  void progress(const char* phase) const;
  void progress_done() const;

  const std::string& shown() const { return shown_; }
  bool fail(const std::string& why) const;

 private:
  bool large() const;
  bool usable(bool forWriting, bool mayBeMissing, bool force) const;

  std::string command_;
  std::string shown_;
  HostFileInfo info_;
  std::string dos_;
  HostUpdateLock lock_;
};

}  // namespace kvtool
