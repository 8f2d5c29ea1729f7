// kvtool's own host files, named by host paths as the user gives them: what a
// name leads to, whole-file reads that say why they failed, and an advisory
// lock that cooperating programs hold around a read-modify-write of a file.
// Every failure comes with the system's reason as text ("Permission denied").
// host_file_posix.cpp and host_file_win32.cpp implement it; the library's
// boundary (kvos) has no part in it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace kvtool {

enum class HostFileKind {
  kMissing,    // nothing there (a link that leads nowhere included)
  kRegular,    // a plain file
  kDirectory,  // a directory
  kOther,      // a device, a named pipe or a socket
};

struct HostFileInfo {
  HostFileKind kind = HostFileKind::kMissing;
  // This process may write it and it is not marked read-only (for a
  // directory: files may be created in it).
  bool writable = false;
  uint64_t size = 0;
  // The absolute path the name leads to, every symbolic link followed: the
  // file that a write through the name must replace, or for a missing file
  // the place where it would be created.
  std::string target;
};

// Looks at what `path` names, following links. False, with the reason in
// `error`, when that cannot be told: a directory on the way is missing or may
// not be searched, links form a loop.
[[nodiscard]] bool host_file_info(const std::string& path, HostFileInfo& info, std::string& error);

// Reads a whole regular file. `progress`, when given, is called after each
// piece with the bytes read so far and the file's size. False, with the reason
// in `error`, when the file cannot be opened or read, or is not a regular file
// (a named pipe is refused without waiting for a writer).
[[nodiscard]] bool host_file_read(const std::string& path, std::string& data, std::string& error,
                                  const std::function<void(uint64_t done, uint64_t total)>& progress = {});

// Whether the process's standard error is a terminal (where progress may be shown).
[[nodiscard]] bool host_stderr_is_terminal();

// An exclusive advisory lock that serialises read-modify-write of a file
// among the programs that take it. It covers the file's directory, so that it
// holds across the replacement of the file by a new one. Released by release()
// or the destructor, and by the system when the process ends.
class HostUpdateLock {
 public:
  HostUpdateLock() = default;
  ~HostUpdateLock();
  HostUpdateLock(const HostUpdateLock&) = delete;
  HostUpdateLock& operator=(const HostUpdateLock&) = delete;

  // Waits for the lock of the file at `target` (absolute, links followed:
  // HostFileInfo::target). False, with the reason in `error`, when it cannot be taken.
  [[nodiscard]] bool acquire(const std::string& target, std::string& error);
  void release();

 private:
  intptr_t handle_ = -1;
};

}  // namespace kvtool
