// Fuzzes the parsing of file names, directories, paths and path lists. The
// input is one or two texts separated by a NUL: the first is parsed on fresh
// objects, the second is then applied to them (relative resolution, wildcard
// fill) and, split at ";", gives names for a path list built on the first.
// Any broken invariant traps.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "FILENAME.h"

namespace {

void check(bool condition) {
  if (!condition) __builtin_trap();
}

void check_name(const filename& f) {
  const size_t base = std::strlen(f.prefix()), ext = std::strlen(f.postfix());
  check(base <= 256 && ext <= 256);
  if (!f.is_valid()) return check(**f == '\0');
  const std::string composed = std::string(f.prefix()) + (ext > 0 || f.has_dot() ? "." : "") + f.postfix();
  check(base > 0 && composed == *f && f.match(wild_match(f)));
}

void check_dir(const dirname& d) {
  const size_t length = std::strlen(*d);
  check(length <= 256);
  if (!d.is_valid()) return;
  check(length >= 2 && ((*d)[1] == ':' || ((*d)[0] == '\\' && (*d)[1] == '\\' && length >= 3)));
  check((*d)[length - 1] != '\\' || d.is_root() || length == 2);
}

void check_path(const pathname& p) {
  check(std::strlen(*p) <= 260);
  check_name(p.file());
  check_dir(p.dir());
  if (!p.is_valid()) return check(**p == '\0');
  std::string composed = *p.dir();
  if (p.file().is_valid()) composed += (composed.back() != '\\' ? "\\" : "") + std::string(*p.file());
  check(composed == *p);
}

// The list's flags, lookups and positions, and its walk both ways: forward one
// path per name (the directory once when there are none), each in m's
// directory and matched by m; backward the same paths in reverse.
void check_list(MultiPath& m) {
  const int count = m.Count();
  check(m.is_valid() == (m.dir().is_valid() && count > 0) && m.is_root() == (m.dir().is_root() && count == 0));
  check(m.is_wild() == (count >= 2 || (count == 1 && m.FileList().Get(0).is_wild())) && m.is_single() == !m.is_wild());
  for (int i = 0; i < count; ++i) {
    const filename name = m.FileList().Get(i);
    const int first = m.Index(name);
    check(first >= 0 && first <= i && m.FileList().Get(first) == name);
    const pathname p = m.Get(i);
    if (!name.is_valid()) check(!p.is_valid() && !p.dir().is_valid());
    if (name.is_valid()) check(p == pathname(m.dir(), name) && (!p.is_valid() || (m.Index(p) == first && m.Find(p) == p)));
  }
  check(!m.Get(count).is_valid());

  std::vector<std::string> forward, backward;
  MultiPathIter it(m);
  for (check(it.BOL() && !it); ++it; forward.push_back(**it)) {
    check_path(*it);
    check(it->dir() == m.dir() && m.match(*it) && static_cast<int>(forward.size()) < (count > 0 ? count : 1));
  }
  check(!it);
  if (count == 0) return check(forward.size() == (m.dir().is_valid() ? 1u : 0u));
  it.Bottom();
  while (--it) backward.push_back(**it);
  // A path that cannot be composed (a name too long for the directory, or no
  // directory) ends a walk early, in either direction.
  check(backward.size() <= static_cast<size_t>(count));
  if (static_cast<int>(forward.size()) != count) return;
  check(backward.size() == forward.size() && it.BOL());
  for (int i = 0; i < count; ++i) check(forward[i] == backward[count - 1 - i]);
}

void check_multipath(const std::string& text, const std::string& names) {
  MultiPath m(text.c_str());
  const pathname p(text.c_str());
  const int own = p.file().is_valid() ? 1 : 0;
  check(m.dir() == p.dir() && m.Count() == own);
  if (own == 1) check(m.FileList().Get(0) == p.file() && m.SinglePath() == p);
  check_list(m);

  // Names from the second text (at most 64, to keep runs fast), each added and later removed once.
  std::vector<std::string> parts;
  std::istringstream split(names);
  for (std::string part; parts.size() < 64 && std::getline(split, part, ';');) parts.push_back(part);
  for (const std::string& part : parts) {
    m.Add(part.c_str());
    check(m.SinglePath().file() == filename(part.c_str()) && m.FileList().Last()->name == filename(part.c_str()));
  }
  check(m.Count() == static_cast<int>(parts.size()) + own);
  check_list(m);

  MultiPath copy(m);
  check(copy.Count() == m.Count() && copy.dir() == m.dir() && copy.SinglePath() == m.SinglePath());
  copy.Clear();
  check(copy.Count() == 0 && !copy.is_valid());
  for (const std::string& part : parts) {
    const int before = m.Count();
    m.Remove(filename(part.c_str()));
    check(m.Count() == before - 1);
  }
  check(m.Count() == own && (own == 1 || m.SinglePath() == pathname(m.dir())));
  check_list(m);
  check_list(copy);
}

}  // namespace

// The library's operator new and delete are calloc and free.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "alloc_dealloc_mismatch=0";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t split = input.find('\0');
  const std::string first = input.substr(0, split);
  const std::string second = split == std::string::npos ? std::string() : input.substr(split + 1).c_str();

  const filename f(first.c_str());
  dirname d(first.c_str());
  pathname p(first.c_str());
  check_name(f);
  check_dir(d);
  check_path(p);
  // A fresh absolute parse is normalised: parsing its text again changes
  // nothing (unless it ends in a blank, which parsing trims).
  const char* t = *d;
  if (d.is_valid() && std::strstr(t + 1, "\\\\") == nullptr && t[1] == ':' && t[2] == '\\' && t[std::strlen(t) - 1] != ' ') {
    const dirname again(t);
    check(again.is_valid() && std::strcmp(*again, t) == 0);
  }

  const filename g(second.c_str());
  check_name(g);
  check(f.match(wild_match(g)) == g.match(wild_match(f)));
  filename filled = f, numbered = f, stamped = f;
  filled.wild_fill(g);
  ++numbered;
  stamped << file_timestamp(static_cast<uint64_t>(size) * 2654435761u);
  for (const filename* name : {&filled, &numbered, &stamped}) check_name(*name);

  check_dir(d << second.c_str());
  check_path(p << second.c_str());
  check_path(p << g);
  check_path(++p);
  check_path(pathname(d, g));
  check(!dirname(p).is_valid() || std::strlen(*dirname(p)) <= 256);

  check_multipath(first, second);
  return 0;
}
