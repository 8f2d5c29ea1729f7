// Files on Linux.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "../common/file_system.h"
#include "kvos/drives.h"
#include "kvos/file.h"
#include "kvos/fault.h"
#include "kvos/fileattr.h"
#include "kvos/time.h"

namespace kvos {
namespace {

int fd_of(file_t file) { return static_cast<int>(file); }

// The error code of the last failed operation of this thread (file_last_error).
thread_local int t_lastError = 0;

bool fail(int code) {
  t_lastError = code;
  return false;
}

file_t fail_open(int code) {
  t_lastError = code;
  return kInvalidFile;
}

bool map(const std::string& dos, std::string& host) { return !dos.empty() && dos_to_host(dos, host); }

int64_t mtime_of(const struct stat& st) { return unix_to_file_time(st.st_mtim.tv_sec, st.st_mtim.tv_nsec); }

// The classic attribute bits: a directory, a file this process may not write
// is read-only, a name beginning with "." is hidden.
uint32_t attributes_of(const std::string& host, const std::string& name, const struct stat& st) {
  uint32_t attributes = 0;
  if (S_ISDIR(st.st_mode)) attributes |= kFileAttributeDirectory;
  if (!S_ISDIR(st.st_mode) && access(host.c_str(), W_OK) != 0) attributes |= kFileAttributeReadOnly;
  if (name.size() > 1 && name[0] == '.' && name != "..") attributes |= kFileAttributeHidden;
  return attributes == 0 ? kFileAttributeNormal : attributes;
}

bool sync_directory_of(const std::string& host) {
  const size_t slash = host.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : host.substr(0, slash));
  const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = fsync(fd) == 0 || errno == EINVAL;  // some file systems cannot sync directories
  close(fd);
  return ok;
}

std::string leaf_of(const std::string& host) {
  const size_t slash = host.find_last_of('/');
  return slash == std::string::npos ? host : host.substr(slash + 1);
}

}  // namespace

namespace file_system {

bool is_directory(const std::string& host) {
  struct stat st;
  return stat(host.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int create_new(const std::string& host) {
  for (;;) {
    const int fd = open(host.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0) {
      close(fd);
      return 1;
    }
    if (errno != EINTR) return errno == EEXIST ? 0 : -1;
  }
}

bool list_directory(const std::string& hostDir, std::vector<std::string>& names) {
  DIR* dir = opendir(hostDir.c_str());
  if (dir == nullptr) return false;
  while (dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  return true;
}

bool describe(const std::string& host, FindData& found) {
  struct stat st;
  if (stat(host.c_str(), &st) != 0) return false;
  found.name = leaf_of(host);
  found.attributes = attributes_of(host, found.name, st);
  found.size = S_ISDIR(st.st_mode) ? 0 : static_cast<uint64_t>(st.st_size);
  found.lastWriteUtc = mtime_of(st);
  return true;
}

unsigned process_number() { return static_cast<unsigned>(getpid()); }

}  // namespace file_system

uint32_t file_attributes(const std::string& dosPath) {
  std::string host;
  struct stat st;
  if (!dos_to_host(dosPath, host) || stat(host.c_str(), &st) != 0) return kInvalidFileAttributes;
  return attributes_of(host, leaf_of(host), st);
}

file_t file_open(const std::string& dosPath, FileOpenMode mode) {
  std::string host;
  if (fault_check(FaultPoint::FileOpen)) return fail_open(EIO);
  if (!map(dosPath, host)) return fail_open(ENOENT);
  int flags = O_CLOEXEC;
  switch (mode) {
    case kFileReadExisting: flags |= O_RDONLY; break;
    case kFileWriteExisting: flags |= O_WRONLY; break;
    case kFileCreateAlways: flags |= O_WRONLY | O_CREAT | O_TRUNC; break;
    case kFileCreateNew: flags |= O_WRONLY | O_CREAT | O_EXCL; break;
    default: return fail_open(EINVAL);
  }
  int fd;
  do {
    fd = open(host.c_str(), flags, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return fail_open(errno);
  struct stat st;
  if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    const int code = S_ISDIR(st.st_mode) ? EISDIR : errno;
    close(fd);
    return fail_open(code);
  }
  return fd;
}

bool file_close(file_t file) {
  if (file == kInvalidFile) return false;
  const bool injected = fault_check(FaultPoint::FileClose);
  const bool closed = close(fd_of(file)) == 0;  // never retried: the descriptor is gone either way
  return closed && !injected;
}

bool file_seek(file_t file, uint64_t offset) {
  if (file == kInvalidFile) return fail(EBADF);
  if (fault_check(FaultPoint::FileSeek)) return fail(EIO);
  if (offset > static_cast<uint64_t>(INT64_MAX)) return fail(EINVAL);
  return lseek(fd_of(file), static_cast<off_t>(offset), SEEK_SET) == static_cast<off_t>(offset) || fail(errno);
}

bool file_read(file_t file, void* buffer, uint64_t size, uint64_t& done) {
  done = 0;
  if (file == kInvalidFile || (size > 0 && buffer == nullptr)) return fail(EINVAL);
  if (fault_check(FaultPoint::FileRead)) return fail(EIO);
  char* out = static_cast<char*>(buffer);
  while (done < size) {
    const size_t chunk = static_cast<size_t>(std::min<uint64_t>(size - done, 1u << 30));
    const ssize_t n = read(fd_of(file), out + done, chunk);
    if (n < 0) {
      if (errno == EINTR) continue;
      return fail(errno);
    }
    if (n == 0) break;
    done += static_cast<uint64_t>(n);
  }
  return true;
}

bool file_write(file_t file, const void* buffer, uint64_t size, uint64_t& done) {
  done = 0;
  if (file == kInvalidFile || (size > 0 && buffer == nullptr)) return fail(EINVAL);
  uint64_t limit = size;
  const bool injected = fault_check(FaultPoint::FileWrite);
  if (injected) limit = size / 2;  // a disk that fills up half-way
  const char* in = static_cast<const char*>(buffer);
  while (done < limit) {
    const size_t chunk = static_cast<size_t>(std::min<uint64_t>(limit - done, 1u << 30));
    const ssize_t n = write(fd_of(file), in + done, chunk);
    if (n < 0) {
      if (errno == EINTR) continue;
      return fail(errno);
    }
    if (n == 0) return fail(ENOSPC);
    done += static_cast<uint64_t>(n);
  }
  return !injected || fail(ENOSPC);
}

bool file_sync(file_t file) {
  if (file == kInvalidFile) return fail(EBADF);
  if (fault_check(FaultPoint::FileSync)) return fail(EIO);
  int rc;
  do {
    rc = fsync(fd_of(file));
  } while (rc != 0 && errno == EINTR);
  return rc == 0 || fail(errno);
}

bool file_get_size(file_t file, uint64_t& size) {
  struct stat st;
  if (file == kInvalidFile) return fail(EBADF);
  if (fstat(fd_of(file), &st) != 0) return fail(errno);
  size = static_cast<uint64_t>(st.st_size);
  return true;
}

bool file_get_time(file_t file, int64_t& lastWriteUtc) {
  struct stat st;
  if (file == kInvalidFile || fault_check(FaultPoint::FileGetTime) || fstat(fd_of(file), &st) != 0) return false;
  lastWriteUtc = mtime_of(st);
  return true;
}

bool file_set_time(file_t file, int64_t lastWriteUtc) {
  if (file == kInvalidFile || lastWriteUtc < 0 || fault_check(FaultPoint::FileSetTime)) return false;
  const int64_t unixTicks = lastWriteUtc - kFileTimeUnixEpoch;
  int64_t seconds = unixTicks / 10000000;
  int64_t rest = unixTicks % 10000000;
  if (rest < 0) {
    rest += 10000000;
    --seconds;
  }
  timespec times[2];
  times[0].tv_sec = 0;
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(seconds);
  times[1].tv_nsec = static_cast<long>(rest * 100);
  return futimens(fd_of(file), times) == 0;
}

bool file_touch(const std::string& dosPath) {
  std::string host;
  if (fault_check(FaultPoint::FileSetTime) || !map(dosPath, host)) return false;
  timespec times[2];
  times[0].tv_sec = 0;
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = 0;
  times[1].tv_nsec = UTIME_NOW;
  return utimensat(AT_FDCWD, host.c_str(), times, 0) == 0;
}

bool file_delete(const std::string& dosPath) {
  std::string host;
  if (fault_check(FaultPoint::FileDelete) || !map(dosPath, host)) return false;
  struct stat st;
  if (lstat(host.c_str(), &st) != 0 || S_ISDIR(st.st_mode)) return false;
  return unlink(host.c_str()) == 0;
}

bool file_replace(const std::string& dosFrom, const std::string& dosTo) {
  std::string from, to;
  if (fault_check(FaultPoint::FileReplace) || !map(dosFrom, from) || !map(dosTo, to)) return false;
  struct stat target;
  if (stat(to.c_str(), &target) == 0) {
    if (S_ISDIR(target.st_mode)) return false;
    chmod(from.c_str(), target.st_mode & 07777);  // best effort: the new file keeps the old access bits
  }
  if (rename(from.c_str(), to.c_str()) != 0) return false;
  return sync_directory_of(to);
}

bool disk_free_space(const std::string& dosPath, uint64_t& freeToCaller, uint64_t* total, uint64_t* totalFree) {
  std::string host;
  if (!map(dosPath, host)) return false;
  struct statvfs vfs;
  if (statvfs(host.c_str(), &vfs) != 0) return false;
  const uint64_t unit = vfs.f_frsize != 0 ? vfs.f_frsize : vfs.f_bsize;
  freeToCaller = static_cast<uint64_t>(vfs.f_bavail) * unit;
  if (total != nullptr) *total = static_cast<uint64_t>(vfs.f_blocks) * unit;
  if (totalFree != nullptr) *totalFree = static_cast<uint64_t>(vfs.f_bfree) * unit;
  return true;
}

int file_last_error() { return t_lastError; }

}  // namespace kvos
