// Fuzzes the instrument-file reader and writer. The first byte chooses the
// header check (bit 0 set: no header line); the rest is the file's text. A
// text that reads is written, read back and written again: the two written
// texts must be equal unless a record's line begins with "{" (such a line
// after a record turns that record into a section when read back) or a value
// holds "=" (possible through "\=" continuation lines; read back, the line
// splits at its last "="), or so does the name of a section without a value.
// The tree
// is also copied, walked with the cursor and destroyed. Any broken invariant
// traps.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "INSTRFIL.h"
#include "heap.h"

extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "alloc_dealloc_mismatch=0:detect_leaks=1";
}

namespace {

void check(bool condition) {
  if (!condition) __builtin_trap();
}

// Walks the whole tree with the cursor; counts items and reports whether an
// item cannot be read back as written.
void walk(InstrHandle& h, size_t& items, bool& lossy) {
  h.Seek(InstrTypeBOF);
  int depth = 0;
  for (;;) {
    InstrRecord* r = h.NextItem();
    if (r == nullptr) {
      if (depth == 0) break;
      check(h.Seek(InstrTypeExit));
      --depth;
      continue;
    }
    ++items;
    if (std::strchr(r->Str(), '=') != nullptr) lossy = true;
    if (r->IsSection()) {
      if (r->Str()[0] == '\0' && std::strchr(r->Tag(), '=') != nullptr) lossy = true;
      check(r->Tag()[0] != '\0' && r->Tag()[0] != '{' && std::strlen(r->Tag()) <= 256);
      check(h.EnterSection());
      ++depth;
    } else {
      const char* first = r->Tag()[0] != '\0' ? r->Tag() : r->Str();
      if (first[0] == '{') lossy = true;
    }
  }
}

std::string write_text(InstrHandle& h) {
  check(h.Write());
  check(h.Buf() != nullptr);
  const std::string out = h.Buf();
  check(out.size() >= 2 && out.compare(out.size() - 2, 2, "\r\n") == 0);
  return out;
}

char* block_of(const char* data, size_t size) {
  char* b = static_cast<char*>(KvOperatorNew(size != 0 ? size : 1));
  if (size != 0) std::memcpy(b, data, size);
  return b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool heaps = (heapman_mgr::initialize(), true);
  (void)heaps;
  if (size == 0) return 0;
  const bool noHeader = (data[0] & 1) != 0;
  char* text = block_of(reinterpret_cast<const char*>(data) + 1, size - 1);

  std::string first;
  bool lossy = false;
  {
    InstrHandle h(static_cast<void*>(text));
    if (noHeader) h.SetHeaderName(nullptr);
    const bool ok = h.Read();
    check(ok == (h.ErrStr() == nullptr));
    check(ok == !!h);
    check(h.CurLine() >= 0);
    size_t items = 0;
    walk(h, items, lossy);
    if (!ok) {
      KvOperatorDelete(text);
      return 0;
    }
    first = write_text(h);

    // A copy of the root holds the same items and writes the same text.
    h.Seek(InstrTypeBOF);
    InstrRecord* copy = h.CurrentSection()->DupTree();
    InstrHandle c(static_cast<InstrSection*>(copy));
    if (noHeader) c.SetHeaderName(nullptr);
    size_t copied = 0;
    bool ignored = false;
    walk(c, copied, ignored);
    check(copied == items);
    check(write_text(c) == first);
  }
  KvOperatorDelete(text);

  char* again = block_of(first.data(), first.size());
  {
    InstrHandle h(static_cast<void*>(again));
    if (noHeader) h.SetHeaderName(nullptr);
    const bool ok = h.Read();
    if (!lossy) {
      check(ok);
      check(write_text(h) == first);
    }
  }
  KvOperatorDelete(again);
  return 0;
}
