// Fuzzes the parsing of file names, directories and paths. The input is one
// or two texts separated by a NUL: the first is parsed on fresh objects, the
// second is then applied to them (relative resolution, wildcard fill). Any
// broken invariant traps.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "FILENAME.h"

namespace {

void check(bool condition) {
  if (!condition) __builtin_trap();
}

void check_name(const filename& f) {
  const size_t base = std::strlen(f.prefix());
  const size_t ext = std::strlen(f.postfix());
  check(base <= 256 && ext <= 256);
  if (!f.is_valid()) {
    check(**f == '\0');
    return;
  }
  check(base > 0);
  std::string composed = f.prefix();
  if (ext > 0 || f.has_dot()) composed += std::string(".") + f.postfix();
  check(composed == *f);
  check(f.match(wild_match(f)));
}

void check_dir(const dirname& d) {
  const size_t length = std::strlen(*d);
  check(length <= 256);
  if (!d.is_valid()) return;
  check(length >= 2);
  check((*d)[1] == ':' || ((*d)[0] == '\\' && (*d)[1] == '\\' && length >= 3));
  check((*d)[length - 1] != '\\' || d.is_root() || length == 2);
}

void check_path(const pathname& p) {
  check(std::strlen(*p) <= 260);
  check_name(p.file());
  check_dir(p.dir());
  if (!p.is_valid()) {
    check(**p == '\0');
    return;
  }
  std::string composed = *p.dir();
  if (p.file().is_valid()) {
    if (composed.back() != '\\') composed += '\\';
    composed += *p.file();
  }
  check(composed == *p);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t split = input.find('\0');
  const std::string first = input.substr(0, split);
  const std::string second = split == std::string::npos ? std::string() : input.substr(split + 1).c_str();

  filename f(first.c_str());
  check_name(f);
  dirname d(first.c_str());
  check_dir(d);
  pathname p(first.c_str());
  check_path(p);

  // A fresh absolute parse is normalised: parsing its text again changes
  // nothing (unless it ends in a blank, which parsing trims).
  if (d.is_valid() && std::strstr(*d + 1, "\\\\") == nullptr && (*d)[1] == ':' && (*d)[std::strlen(*d) - 1] != ' ' &&
      (*d)[2] == '\\') {
    const dirname again(*d);
    check(again.is_valid() && std::strcmp(*again, *d) == 0);
  }

  const filename g(second.c_str());
  check_name(g);
  check(f.match(wild_match(g)) == g.match(wild_match(f)));
  filename filled = f;
  filled.wild_fill(g);
  check_name(filled);
  filename numbered = f;
  ++numbered;
  check_name(numbered);
  filename stamped = f;
  stamped << file_timestamp(static_cast<uint64_t>(size) * 2654435761u);
  check_name(stamped);

  d << second.c_str();
  check_dir(d);
  p << second.c_str();
  check_path(p);
  p << g;
  check_path(p);
  ++p;
  check_path(p);
  const pathname composed(d, g);
  check_path(composed);
  check(!dirname(p).is_valid() || std::strlen(*dirname(p)) <= 256);
  return 0;
}
