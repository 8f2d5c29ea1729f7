// Host files on Linux: lstat/readlink to follow links, reads that refuse
// anything but a regular file, and flock on the file's directory.
#include "host_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace kvtool {
namespace {

std::string reason(int code) { return std::strerror(code); }

std::string directory_of(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string name_of(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool absolute(const std::string& path, std::string& out, std::string& error) {
  if (!path.empty() && path[0] == '/') {
    out = path;
    return true;
  }
  std::vector<char> buffer(PATH_MAX);
  if (::getcwd(buffer.data(), buffer.size()) == nullptr) {
    error = reason(errno);
    return false;
  }
  out = std::string(buffer.data()) + "/" + path;
  return true;
}

bool real_path(const std::string& path, std::string& out, std::string& error) {
  char* resolved = ::realpath(path.c_str(), nullptr);
  if (resolved == nullptr) {
    error = reason(errno);
    return false;
  }
  out = resolved;
  std::free(resolved);
  return true;
}

}  // namespace

bool host_file_info(const std::string& path, HostFileInfo& info, std::string& error) {
  info = HostFileInfo();
  if (path.empty()) {
    error = reason(ENOENT);
    return false;
  }
  std::string current;
  if (!absolute(path, current, error)) return false;
  for (int hops = 0;; ++hops) {
    struct stat st;
    if (::lstat(current.c_str(), &st) != 0) {
      if (errno != ENOENT) {
        error = reason(errno);
        return false;
      }
      // Missing: it would be created in its directory, which must exist.
      std::string directory;
      if (!real_path(directory_of(current), directory, error)) return false;
      info.target = (directory == "/" ? "" : directory) + "/" + name_of(current);
      info.writable = ::access(directory.c_str(), W_OK | X_OK) == 0;
      return true;
    }
    if (S_ISLNK(st.st_mode)) {
      if (hops >= 40) {
        error = reason(ELOOP);
        return false;
      }
      std::vector<char> link(static_cast<size_t>(st.st_size > 0 ? st.st_size : PATH_MAX) + 1);
      const ssize_t length = ::readlink(current.c_str(), link.data(), link.size());
      if (length < 0) {
        error = reason(errno);
        return false;
      }
      const std::string to(link.data(), static_cast<size_t>(length));
      current = !to.empty() && to[0] == '/' ? to : directory_of(current) + "/" + to;
      continue;
    }
    if (!real_path(current, info.target, error)) return false;
    info.size = static_cast<uint64_t>(st.st_size);
    if (S_ISREG(st.st_mode)) {
      info.kind = HostFileKind::kRegular;
      // A file without write bits is read-only even for a process that may write it all the same.
      info.writable = (st.st_mode & 0222) != 0 && ::access(current.c_str(), W_OK) == 0;
    } else if (S_ISDIR(st.st_mode)) {
      info.kind = HostFileKind::kDirectory;
      info.writable = ::access(current.c_str(), W_OK | X_OK) == 0;
    } else {
      info.kind = HostFileKind::kOther;
    }
    return true;
  }
}

bool host_file_read(const std::string& path, std::string& data, std::string& error,
                    const std::function<void(uint64_t, uint64_t)>& progress) {
  data.clear();
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);  // a named pipe must not block the open
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    error = reason(errno);
    return false;
  }
  struct stat st;
  bool ok = ::fstat(fd, &st) == 0;
  if (!ok) error = reason(errno);
  if (ok && !S_ISREG(st.st_mode)) {
    error = S_ISDIR(st.st_mode) ? reason(EISDIR) : "not a regular file";
    ok = false;
  }
  if (ok) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  const uint64_t total = ok ? static_cast<uint64_t>(st.st_size) : 0;
  if (ok) data.reserve(static_cast<size_t>(total));
  std::vector<char> piece(ok ? 1 << 20 : 0);
  while (ok) {
    const ssize_t got = ::read(fd, piece.data(), piece.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      error = reason(errno);
      ok = false;
      break;
    }
    if (got == 0) break;
    data.append(piece.data(), static_cast<size_t>(got));
    if (progress) progress(data.size(), total);
  }
  ::close(fd);
  if (!ok) data.clear();
  return ok;
}

bool host_stderr_is_terminal() { return ::isatty(STDERR_FILENO) == 1; }

HostUpdateLock::~HostUpdateLock() { release(); }

bool HostUpdateLock::acquire(const std::string& target, std::string& error) {
  release();
  const int fd = ::open(directory_of(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    error = reason(errno);
    return false;
  }
  int result;
  do {
    result = ::flock(fd, LOCK_EX);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    error = reason(errno);
    ::close(fd);
    return false;
  }
  handle_ = fd;
  return true;
}

void HostUpdateLock::release() {
  if (handle_ < 0) return;
  ::close(static_cast<int>(handle_));  // closing the last descriptor lets the lock go
  handle_ = -1;
}

}  // namespace kvtool
