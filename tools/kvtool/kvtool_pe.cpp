// kvtool: the function symbols of a PE executable, from its COFF symbol table
// (which mingw-w64 keeps unless the program is stripped). Source lines are
// not read here: frames are named without them.
#include <windows.h>

#include <cstring>
#include <fstream>
#include <iterator>

#include "kvtool_image.h"

namespace kvtool {
namespace {

constexpr size_t kSymbolSize = 18;  // a COFF symbol table entry
constexpr uint16_t kFunctionType = 0x20;

template <typename T>
bool read_at(const std::string& file, size_t offset, T& out) {
  if (offset > file.size() || file.size() - offset < sizeof(T)) return false;
  std::memcpy(&out, file.data() + offset, sizeof(T));
  return true;
}

// A symbol's name: inline (up to 8 characters) or in the string table that
// follows the symbol table.
std::string symbol_name(const std::string& file, size_t entry, size_t strings) {
  uint32_t zeroes = 0, offset = 0;
  read_at(file, entry, zeroes);
  if (zeroes != 0) {
    const char* inline_name = file.data() + entry;
    return std::string(inline_name, strnlen(inline_name, 8));
  }
  read_at(file, entry + 4, offset);
  const size_t at = strings + offset;
  if (offset < 4 || at >= file.size()) return std::string();
  return std::string(file.data() + at, strnlen(file.data() + at, file.size() - at));
}

}  // namespace

struct ExecutableImage::Reader {};

ExecutableImage::ExecutableImage() : reader_(std::make_unique<Reader>()) {}
ExecutableImage::~ExecutableImage() = default;

void ExecutableImage::close() { functions_.clear(); }

bool ExecutableImage::open(const std::string& path, std::string& error) {
  close();
  path_ = path;
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = path + ": cannot be read";
    return false;
  }
  const std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  IMAGE_DOS_HEADER dos{};
  IMAGE_NT_HEADERS64 nt{};
  if (!read_at(file, 0, dos) || dos.e_magic != IMAGE_DOS_SIGNATURE || dos.e_lfanew < 0 ||
      !read_at(file, static_cast<size_t>(dos.e_lfanew), nt) || nt.Signature != IMAGE_NT_SIGNATURE ||
      nt.OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC) {
    error = path + ": not a 64-bit PE executable";
    return false;
  }
  // Relocatable where the system chooses: the addresses of a dump are not the map's.
  positionIndependent_ = (nt.OptionalHeader.DllCharacteristics & IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE) != 0;
  loadAddress_ = nt.OptionalHeader.ImageBase;

  const size_t sections = static_cast<size_t>(dos.e_lfanew) + offsetof(IMAGE_NT_HEADERS64, OptionalHeader) +
                          nt.FileHeader.SizeOfOptionalHeader;
  std::vector<IMAGE_SECTION_HEADER> headers(nt.FileHeader.NumberOfSections);
  codeStart_ = 0;
  for (size_t i = 0; i < headers.size(); ++i) {
    if (!read_at(file, sections + i * sizeof(IMAGE_SECTION_HEADER), headers[i])) {
      error = path + ": damaged section table";
      return false;
    }
    if ((headers[i].Characteristics & IMAGE_SCN_CNT_CODE) != 0 && codeStart_ == 0)
      codeStart_ = loadAddress_ + headers[i].VirtualAddress;
  }

  const size_t table = nt.FileHeader.PointerToSymbolTable;
  const size_t count = nt.FileHeader.NumberOfSymbols;
  const size_t strings = table + count * kSymbolSize;
  std::vector<Candidate> candidates;
  for (size_t i = 0; table != 0 && i < count; ++i) {
    const size_t entry = table + i * kSymbolSize;
    uint32_t value = 0;
    int16_t section = 0;
    uint16_t type = 0;
    uint8_t storage = 0, auxiliary = 0;
    if (!read_at(file, entry + 8, value) || !read_at(file, entry + 12, section) || !read_at(file, entry + 14, type) ||
        !read_at(file, entry + 16, storage) || !read_at(file, entry + 17, auxiliary))
      break;
    i += auxiliary;
    if (type != kFunctionType || section < 1 || static_cast<size_t>(section) > headers.size() ||
        (headers[static_cast<size_t>(section) - 1].Characteristics & IMAGE_SCN_CNT_CODE) == 0)
      continue;
    const std::string name = symbol_name(file, entry, strings);
    if (name.empty()) continue;
    const uint64_t address = loadAddress_ + headers[static_cast<size_t>(section) - 1].VirtualAddress + value;
    candidates.push_back({{address, 0, name}, storage == IMAGE_SYM_CLASS_EXTERNAL ? 0 : 1});
  }
  if (!keep(candidates)) {
    error = path + ": no function symbols";
    return false;
  }
  return true;
}

bool ExecutableImage::source_line(uint64_t, std::string&, int&) { return false; }

}  // namespace kvtool
