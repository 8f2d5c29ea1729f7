// kvtool: files and paths named on the command line (see kvtool_files.h).
#include "kvtool_files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "SystemKvCore.h"
#include "kvtext/text.h"

namespace kvtool {

namespace {

constexpr uint64_t kLargeFile = 10u << 20;  // progress is shown for files above this size

std::string count(size_t n) { return std::to_string(n); }

// The base and extension lengths of one name.
std::string name_cut_reason(const std::string& name) {
  const size_t dot = name.find_last_of('.');
  const size_t base = dot == std::string::npos ? name.size() : dot;
  const size_t extension = dot == std::string::npos ? 0 : name.size() - dot - 1;
  const size_t longest = base > extension ? base : extension;
  if (longest <= kNameLimit) return {};
  return "holds a name of " + count(longest) + " characters; the library keeps at most " + count(kNameLimit) +
         " characters of a name and would cut it";
}

}  // namespace

std::string path_cut_reason(const std::string& text, bool nameOnly) {
  if (nameOnly) return name_cut_reason(text);
  // Leading and trailing spaces are dropped before the library counts.
  const size_t length = kvtext::trim_spaces(text).size();
  if (length > kPathLimit)
    return "is " + count(length) + " characters long; the library keeps at most " + count(kPathLimit) +
           " characters of a path and would cut it";
  for (size_t start = 0; start <= text.size();) {
    size_t end = text.find_first_of("\\/", start);
    if (end == std::string::npos) end = text.size();
    const std::string reason = name_cut_reason(text.substr(start, end - start));
    if (!reason.empty()) return reason;
    start = end + 1;
  }
  return {};
}

bool UserFile::fail(const std::string& why) const {
  progress_done();
  std::fprintf(stderr, "%s: %s\n", shown_.c_str(), why.c_str());
  return false;
}

bool UserFile::large() const { return info_.size > kLargeFile && host_stderr_is_terminal(); }

void UserFile::progress(const char* phase) const {
  if (large()) std::fprintf(stderr, "\r%s: %s: %s...\033[K", command_.c_str(), shown_.c_str(), phase);
}

void UserFile::progress_done() const {
  if (large()) std::fputs("\r\033[K", stderr);
}

bool UserFile::usable(bool forWriting, bool mayBeMissing, bool force) const {
  switch (info_.kind) {
    case HostFileKind::kMissing:
      if (!mayBeMissing) return fail("cannot be read: " + std::string(std::strerror(ENOENT)));
      if (forWriting && !info_.writable) return fail("cannot be created: " + std::string(std::strerror(EACCES)));
      return true;
    case HostFileKind::kDirectory:
      return fail("cannot be read: " + std::string(std::strerror(EISDIR)));
    case HostFileKind::kOther:
      return fail("not a regular file (a device, a named pipe or a socket); refused");
    case HostFileKind::kRegular:
      break;
  }
  if (forWriting && !info_.writable && !force) return fail("the file is read-only; --force replaces it all the same");
  return true;
}

bool UserFile::open(bool forWriting, bool mayBeMissing, bool force) {
  std::string error;
  if (!host_file_info(shown_, info_, error)) return fail(error);
  if (!usable(forWriting, mayBeMissing, force)) return false;
  if (!forWriting) return true;

  // The library names the file it writes by a DOS path: it must lead back to this very file.
  if (!host_to_dos_path(info_.target.c_str(), dos_))
    return fail("lies on no drive of the library (" + info_.target + "; see kvtool drives)");
  const std::string cut = path_cut_reason(dos_);
  if (!cut.empty()) return fail("its library path " + dos_ + " " + cut);
  const pathname named(dos_.c_str());
  std::string back;
  if (!named.is_valid()) return fail("the library cannot name this file: " + dos_ + " is not a valid path there");
  if (!dos_to_host_path(*named, back) || back != info_.target)
    return fail("the library cannot name this file exactly: its path " + dos_ + " leads to " +
                (back.empty() ? "nothing" : back));
  dos_ = *named;

  if (!lock_.acquire(info_.target, error)) return fail("cannot be locked: " + error);
  // Another program may have replaced or removed the file while this one waited.
  const std::string target = info_.target;
  if (!host_file_info(target, info_, error)) return fail(error);
  if (info_.target != target) return fail("was replaced by another file meanwhile; nothing was changed");
  return usable(forWriting, mayBeMissing, force);
}

bool UserFile::read(std::string& text) {
  text.clear();
  if (info_.kind == HostFileKind::kMissing) return true;
  std::string error;
  const bool shown = large();
  auto report = [this, shown](uint64_t done, uint64_t total) {
    if (shown && total > 0)
      std::fprintf(stderr, "\r%s: %s: reading %u%%\033[K", command_.c_str(), shown_.c_str(),
                   static_cast<unsigned>(done * 100 / total));
  };
  if (!host_file_read(info_.target, text, error, report)) return fail("cannot be read: " + error);
  const size_t nul = text.find('\0');
  if (nul != std::string::npos) return fail("contains a NUL byte at offset " + count(nul));
  return true;
}

bool UserFile::replace(const std::string& text) {
  progress("writing");
  SysFileioBuffer list[2] = {{const_cast<char*>(text.data()), 0, text.size()}, {nullptr, 0, 0}};
  errno = 0;
  if (!SysManager::FileWrite(dos_.c_str(), list, 0)) {
    const int code = errno;
    return fail("cannot be written: " + std::string(code != 0 ? std::strerror(code) : "the system gave no reason"));
  }
  progress_done();
  return true;
}

}  // namespace kvtool
