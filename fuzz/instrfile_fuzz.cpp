// Fuzzes the instrument-file reader and writer. The first byte chooses the
// header check (bit 0 set: no header line); the rest is the file's text. A
// text that reads is written, read back and written again: the two written
// texts must be equal unless a record's line begins with "{" (such a line
// after a record turns that record into a section when read back) or a value
// holds "=" (possible through "\=" continuation lines; read back, the line
// splits at its last "="), or so does the name of a section without a value.
// Each tree read is also walked with the cursor, copied, and the copy walked
// and written. Any broken invariant traps.
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

// Walks the whole tree with the cursor: the number of items; lossy is set when
// an item cannot be read back as written.
size_t walk(InstrHandle& h, bool& lossy) {
  size_t items = 0;
  h.Seek(InstrTypeBOF);
  for (int depth = 0;;) {
    InstrRecord* r = h.NextItem();
    if (r == nullptr) {
      if (depth-- == 0) return items;
      check(h.Seek(InstrTypeExit));
      continue;
    }
    ++items;
    const char* first = r->Tag()[0] != '\0' ? r->Tag() : r->Str();
    lossy |= std::strchr(r->Str(), '=') != nullptr || (!r->IsSection() && first[0] == '{') ||
             (r->IsSection() && r->Str()[0] == '\0' && std::strchr(r->Tag(), '=') != nullptr);
    if (r->IsSection()) {
      check(r->Tag()[0] != '\0' && r->Tag()[0] != '{' && std::strlen(r->Tag()) <= 256 && h.EnterSection());
      ++depth;
    }
  }
}

// Reads a memory copy of in: the text written from its tree (checked against
// the text a copy of the tree writes), or "" when it does not read.
std::string read_and_write(const std::string& in, bool noHeader, bool& lossy) {
  char* text = static_cast<char*>(KvOperatorNew(in.empty() ? 1 : in.size()));
  std::memcpy(text, in.data(), in.size());
  std::string out;
  {
    InstrHandle h(static_cast<void*>(text));
    if (noHeader) h.SetHeaderName(nullptr);
    const bool ok = h.Read();
    check(ok == (h.ErrStr() == nullptr) && ok == !!h && h.CurLine() >= 0);
    const size_t items = walk(h, lossy);
    if (ok) {
      check(h.Write() && h.Buf() != nullptr);
      out = h.Buf();
      check(out.size() >= 2 && out.compare(out.size() - 2, 2, "\r\n") == 0);
      h.Seek(InstrTypeBOF);
      InstrHandle copy(static_cast<InstrSection*>(h.CurrentSection()->DupTree()));
      if (noHeader) copy.SetHeaderName(nullptr);
      bool ignored = false;
      check(walk(copy, ignored) == items && copy.Write() && out == copy.Buf());
    }
  }
  KvOperatorDelete(text);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool heaps = (heapman_mgr::initialize(), true);
  (void)heaps;
  if (size == 0) return 0;
  const bool noHeader = (data[0] & 1) != 0;
  bool lossy = false, ignored = false;
  const std::string in(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::string first = read_and_write(in, noHeader, lossy);
  if (!first.empty() && !lossy) check(read_and_write(first, noHeader, ignored) == first);
  return 0;
}
