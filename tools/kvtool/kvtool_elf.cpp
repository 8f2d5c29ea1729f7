// kvtool: ELF function symbols (libelf) and source lines (libdw).
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <gelf.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "kvtool_image.h"

namespace kvtool {
namespace {

// Binding preference when several symbols share an address.
int binding_rank(unsigned binding) {
  switch (binding) {
    case STB_GLOBAL: return 0;
    case STB_WEAK: return 1;
    default: return 2;
  }
}

}  // namespace

struct ExecutableImage::Reader {
  int fd = -1;
  Elf* elf = nullptr;
  Dwfl* dwfl = nullptr;
  Dwfl_Module* module = nullptr;
  bool dwarfTried = false;
};

ExecutableImage::ExecutableImage() : reader_(std::make_unique<Reader>()) {}
ExecutableImage::~ExecutableImage() { close(); }

void ExecutableImage::close() {
  Reader& r = *reader_;
  if (r.dwfl != nullptr) dwfl_end(r.dwfl);
  if (r.elf != nullptr) elf_end(r.elf);
  if (r.fd >= 0) ::close(r.fd);
  r = Reader();
  functions_.clear();
}

bool ExecutableImage::open(const std::string& path, std::string& error) {
  close();
  path_ = path;
  if (elf_version(EV_CURRENT) == EV_NONE) {
    error = "the ELF library cannot be used";
    return false;
  }
  Reader& r = *reader_;
  r.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (r.fd < 0) {
    error = path + ": " + std::strerror(errno);
    return false;
  }
  r.elf = elf_begin(r.fd, ELF_C_READ, nullptr);
  GElf_Ehdr header;
  if (r.elf == nullptr || elf_kind(r.elf) != ELF_K_ELF || gelf_getehdr(r.elf, &header) == nullptr ||
      (header.e_type != ET_EXEC && header.e_type != ET_DYN)) {
    error = path + ": not an ELF executable";
    return false;
  }
  positionIndependent_ = header.e_type == ET_DYN;

  size_t segments = 0;
  loadAddress_ = std::numeric_limits<uint64_t>::max();
  if (elf_getphdrnum(r.elf, &segments) == 0) {
    for (size_t i = 0; i < segments; ++i) {
      GElf_Phdr segment;
      if (gelf_getphdr(r.elf, static_cast<int>(i), &segment) != nullptr && segment.p_type == PT_LOAD)
        loadAddress_ = std::min<uint64_t>(loadAddress_, segment.p_vaddr);
    }
  }
  if (loadAddress_ == std::numeric_limits<uint64_t>::max()) loadAddress_ = 0;

  // The full symbol table when there is one, else the dynamic one.
  Elf_Scn* table = nullptr;
  GElf_Shdr tableHeader{};
  codeStart_ = std::numeric_limits<uint64_t>::max();
  std::vector<bool> executable;
  for (Elf_Scn* section = elf_nextscn(r.elf, nullptr); section != nullptr; section = elf_nextscn(r.elf, section)) {
    GElf_Shdr sectionHeader;
    if (gelf_getshdr(section, &sectionHeader) == nullptr) continue;
    const size_t index = elf_ndxscn(section);
    if (executable.size() <= index) executable.resize(index + 1, false);
    if ((sectionHeader.sh_flags & SHF_EXECINSTR) != 0 && sectionHeader.sh_addr != 0) {
      executable[index] = true;
      codeStart_ = std::min<uint64_t>(codeStart_, sectionHeader.sh_addr);
    }
    if (sectionHeader.sh_type == SHT_SYMTAB || (sectionHeader.sh_type == SHT_DYNSYM && table == nullptr)) {
      table = section;
      tableHeader = sectionHeader;
    }
  }
  if (codeStart_ == std::numeric_limits<uint64_t>::max()) codeStart_ = 0;

  std::vector<Candidate> candidates;
  Elf_Data* data = table == nullptr ? nullptr : elf_getdata(table, nullptr);
  const size_t count = data == nullptr || tableHeader.sh_entsize == 0 ? 0 : tableHeader.sh_size / tableHeader.sh_entsize;
  for (size_t i = 0; i < count; ++i) {
    GElf_Sym symbol;
    if (gelf_getsym(data, static_cast<int>(i), &symbol) == nullptr) continue;
    const unsigned type = GELF_ST_TYPE(symbol.st_info);
    if ((type != STT_FUNC && type != STT_GNU_IFUNC) || symbol.st_value == 0 || symbol.st_shndx == SHN_UNDEF ||
        symbol.st_shndx >= executable.size() || !executable[symbol.st_shndx])
      continue;
    const char* name = elf_strptr(r.elf, tableHeader.sh_link, symbol.st_name);
    if (name == nullptr || *name == '\0') continue;
    candidates.push_back({{symbol.st_value, symbol.st_size, name}, binding_rank(GELF_ST_BIND(symbol.st_info))});
  }
  if (!keep(candidates)) {
    error = path + ": no function symbols";
    return false;
  }
  return true;
}

bool ExecutableImage::source_line(uint64_t address, std::string& file, int& line) {
  Reader& r = *reader_;
  if (!r.dwarfTried) {
    r.dwarfTried = true;
    static char* debuginfoPath = nullptr;
    static const Dwfl_Callbacks callbacks = {
        dwfl_build_id_find_elf, dwfl_standard_find_debuginfo, dwfl_offline_section_address, &debuginfoPath};
    r.dwfl = dwfl_begin(&callbacks);
    if (r.dwfl != nullptr) {
      r.module = dwfl_report_offline(r.dwfl, "", path_.c_str(), -1);
      dwfl_report_end(r.dwfl, nullptr, nullptr);
    }
  }
  if (r.module == nullptr) return false;
  Dwfl_Line* found = dwfl_module_getsrc(r.module, address);
  int number = 0;
  const char* name = found == nullptr ? nullptr : dwfl_lineinfo(found, nullptr, &number, nullptr, nullptr, nullptr);
  if (name == nullptr || number <= 0) return false;
  file = name;
  line = number;
  return true;
}

}  // namespace kvtool
