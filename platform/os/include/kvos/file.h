// Files named by DOS paths: open, read, write, seek, times, size, delete,
// find-first, free disk space, unique temporary names and atomic replacement.
// Every path is a DOS path, mapped through the drive table (kvos/drives.h).
#pragma once

#include <cstdint>
#include <string>

#include "kvos/export.h"

namespace kvos {

// An open file; kInvalidFile when an open failed.
using file_t = intptr_t;
constexpr file_t kInvalidFile = -1;

enum FileOpenMode {
  kFileReadExisting,   // read; the file must exist
  kFileWriteExisting,  // write without truncating; the file must exist
  kFileCreateAlways,   // write; created, or truncated when it exists
  kFileCreateNew,      // write; fails when the file exists
};

// Opens a file (other processes may read it meanwhile). Directories cannot be opened.
KVOS_API file_t file_open(const std::string& dosPath, FileOpenMode mode);

// Closes the handle; false when the system reported an error (the handle is
// closed in every case).
[[nodiscard]] KVOS_API bool file_close(file_t file);

// Moves to an absolute position from the start of the file.
[[nodiscard]] KVOS_API bool file_seek(file_t file, uint64_t offset);

// Reads up to size bytes; done receives the count read. Stops early only at
// the end of the file, so done < size means a short file. False on an error.
[[nodiscard]] KVOS_API bool file_read(file_t file, void* buffer, uint64_t size, uint64_t& done);

// Writes size bytes; done receives the count written. False when not all of
// them could be written (a full disk, an I/O error).
[[nodiscard]] KVOS_API bool file_write(file_t file, const void* buffer, uint64_t size, uint64_t& done);

// Forces the file's data and metadata to stable storage.
[[nodiscard]] KVOS_API bool file_sync(file_t file);

// Size of an open file.
[[nodiscard]] KVOS_API bool file_get_size(file_t file, uint64_t& size);

// The system's error code of the last failed open, seek, read, write, sync or
// size query of the calling thread (errno values here); an injected fault
// leaves EIO, or ENOSPC for a write.
KVOS_API int file_last_error();

// Last-write time of an open file as a UTC file time (100 ns since 1601).
[[nodiscard]] KVOS_API bool file_get_time(file_t file, int64_t& lastWriteUtc);
// Sets the last-write time (the access time is left alone).
[[nodiscard]] KVOS_API bool file_set_time(file_t file, int64_t lastWriteUtc);

// Sets the last-write time of a file to the time the file system would put
// on a write made now (its own clock, which may run behind system_file_time
// by up to a scheduler tick). Repeated until the time has moved past another
// file's, it makes the two files' times differ from then on.
[[nodiscard]] KVOS_API bool file_touch(const std::string& dosPath);

// Deletes a file (not a directory).
[[nodiscard]] KVOS_API bool file_delete(const std::string& dosPath);

// Moves `from` over `to`, replacing `to` atomically: a reader sees the old or
// the new file, never a mixture, also when the process dies meanwhile. The
// replacement takes the access bits of the file it replaces, and the directory
// is flushed afterwards so that the new name survives a system crash. Both
// names should lie in the same directory. Call file_sync on `from` before
// closing it so that its data is on disk before the name points at it.
[[nodiscard]] KVOS_API bool file_replace(const std::string& dosFrom, const std::string& dosTo);

// A unique temporary name in dosDir: prefix (up to its first 3 characters),
// 4 upper-case hexadecimal digits and ".tmp", such as "kvc1A2F.tmp", joined
// to dosDir with "\". With unique 0 a number not yet in use is chosen and the
// file is created empty, so that the name stays reserved; with another
// unique its low 16 bits are the digits and nothing is created. False when
// the directory does not exist or no file can be created in it.
[[nodiscard]] KVOS_API bool file_temp_name(const std::string& dosDir, const std::string& prefix, unsigned unique,
                             std::string& dosName);

// The first file or directory matching a pattern whose last component may
// hold the wildcards "*" (any run of characters) and "?" (one character);
// "*.*" matches every name. Names are compared ignoring case, and the first
// match in case-insensitive name order is reported. "." and ".." are never reported.
struct FindData {
  std::string name;          // the matching entry's name, without directory
  uint32_t attributes = 0;   // as kvos/fileattr.h
  uint64_t size = 0;         // bytes (0 for a directory)
  int64_t lastWriteUtc = 0;  // UTC file time
};
[[nodiscard]] KVOS_API bool file_find_first(const std::string& dosPattern, FindData& found);

// Free bytes available to this process on the volume holding dosPath (which
// must name an existing file or directory); total and totalFree optional.
[[nodiscard]] KVOS_API bool disk_free_space(const std::string& dosPath, uint64_t& freeToCaller, uint64_t* total = nullptr,
                              uint64_t* totalFree = nullptr);

}  // namespace kvos
