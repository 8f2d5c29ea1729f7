// A plain text log file with optional rotation by size over a numbered set of
// files ("FR001.log", "FR002.log", ...). Each piece of text is written and
// flushed at once; when the file reaches its size limit it is closed and the
// next number is started, emptied first. On opening, the numbered file written
// most recently is chosen again, so that a restarted program continues where
// it stopped. Paths are DOS paths ("c:\logs\FR001.log"), mapped to the host
// through the drive table.
//
// Notices and errors of this class go to standard output, one line each,
// never into the log itself. The class takes no lock: one instance must not be
// written from several threads at once.
#pragma once

#include <cstdio>
#include <string>

#include "KvExport.h"

namespace CSL {

class KVCORE_API DebugLogFile {
 public:
  // Capacity of the path, terminating zero included.
  static constexpr int kPathSize = 260;

  DebugLogFile();
  ~DebugLogFile();
  // A copy takes the path, header and settings; its stream is its own, so the
  // copy starts closed and the target's open file, if any, is closed first.
  DebugLogFile(const DebugLogFile& other);
  DebugLogFile& operator=(const DebugLogFile& other);

  // Sets the path (choosing the current numbered file, see Path) and opens it.
  // False for a null or over-long path, or when the file cannot be opened.
  bool Open(const char* path, bool append, const char* header, bool stamp);
  // Opens the current path: appending when append, else emptying it. A new
  // or emptied file starts with the header (when not null) and a line naming
  // the file and the time; an existing file opened for appending gets a start
  // line when stamp is set.
  bool Open(bool append, const char* header, bool stamp);
  // Closes the stream; true when there was none or closing succeeded.
  bool Close();

  // Takes a new path and, when rotation is on, chooses among its numbered
  // files the one written last. A null or over-long text is refused with a
  // message and changes nothing.
  void Path(const char* path);
  char* Path();

  // Size in bytes at which a file is rotated (0: never) and the highest file
  // number. Set it before Open(path, ...) so that it counts when choosing the file.
  void SetFileRotation(int maxSize, int maxFileNum);

  // Writes text and flushes it, then rotates when the file has reached the
  // size limit. The text is taken as a printf format without arguments: "%%"
  // writes "%", and any other conversion writes what printf makes of a zero
  // argument of its type ("%d" gives "0", "%s" gives "(null)"). A write that
  // fails (a full disk) is reported once and closes the file; later writes
  // are then dropped until it is opened again.
  void Write(const std::string& text);

  bool IsOn();
  void On(bool on);
  bool IsOpen();

 private:
  bool OpenLow();
  void DetermineCurrentFileName();
  void IncrementFileName();
  const char* GetPathExtension(const char* path);
  void SetFileNumber(char* path, int num);
  void SetFileNumberStr(char* path, const char* numStr);
  bool FileExists(const char* path);
  bool PathFits(const char* text);
  void CopyFrom(const DebugLogFile& other);

  char path[kPathSize];
  std::FILE* stream;
  bool on;
  char* header;
  bool append;
  bool stamp;
  int maxSize;
  int maxFileNum;
  int curFileNum;
  int firstFileNum;
  bool rotating;  // inside IncrementFileName: the new file's own lines do not rotate again
};

}  // namespace CSL
