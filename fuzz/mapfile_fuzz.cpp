// Fuzzes the map-file reader. The input is a map text and, after its first
// NUL, the raw dump text to translate (the map text itself when there is no
// NUL). The anchor is the symbol "main" placed at 0x401000. Any broken
// invariant traps.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "StackWriter.h"

static void check(bool condition) {
  if (!condition) __builtin_trap();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  const char* nul = static_cast<const char*>(std::memchr(text, '\0', size));
  const size_t mapSize = nul == nullptr ? size : static_cast<size_t>(nul - text);
  const std::string raw = nul == nullptr ? std::string(text, size) : std::string(nul + 1, text + size);
  CSL::CTranslateRawStackInfo reader;
  const bool loaded = reader.LoadMapText(text, mapSize);
  check(loaded || mapSize < 2);
  if (!loaded) return 0;
  if (!reader.BuildSymbolTable("main", 0x401000)) {
    check(reader.GetNumberOfSymbols() == 0 && reader.TranslateRawStack(raw) == raw);
    return 0;
  }
  // Sorted, well-formed names, the anchor where it was put; every symbol
  // names its own start but those at the last address, which end the table.
  const size_t count = reader.GetNumberOfSymbols();
  const CSL::CTranslateRawStackInfo::Symbol* symbols = reader.GetSymbols();
  bool anchored = false;
  for (size_t i = 0; i < count; ++i) {
    check(symbols[i].name != nullptr && *symbols[i].name != '\0' && !std::strpbrk(symbols[i].name, " \t\r\n"));
    check(i == 0 || symbols[i - 1].address <= symbols[i].address);
    anchored = anchored || (std::strcmp(symbols[i].name, "main") == 0 && symbols[i].address == 0x401000);
    uint64_t distance = 1;
    const char* name = reader.FindSymbol(symbols[i].address, distance);
    check(symbols[i].address == symbols[count - 1].address || (name != nullptr && distance == 0));
  }
  check(count > 0 && anchored);
  uint64_t distance = 0;
  check(reader.FindSymbol(symbols[count - 1].address, distance) == nullptr);
  check(reader.TranslateRawStack(raw).size() < 32768);
  return 0;
}

// The library's operator new and delete are calloc and free.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "alloc_dealloc_mismatch=0";
}
