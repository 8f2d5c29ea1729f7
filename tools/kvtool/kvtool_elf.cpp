// kvtool: ELF function symbols (libelf), source lines (libdw) and map files.
#include "kvtool_elf.h"

#include <cxxabi.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <gelf.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

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

struct Candidate {
  ElfFunction function;
  int rank;
};

}  // namespace

ElfImage::~ElfImage() { close(); }

void ElfImage::close() {
  if (dwfl_ != nullptr) dwfl_end(dwfl_);
  if (elf_ != nullptr) elf_end(elf_);
  if (fd_ >= 0) ::close(fd_);
  dwfl_ = nullptr;
  module_ = nullptr;
  elf_ = nullptr;
  fd_ = -1;
  dwarfTried_ = false;
  functions_.clear();
}

bool ElfImage::open(const std::string& path, std::string& error) {
  close();
  path_ = path;
  if (elf_version(EV_CURRENT) == EV_NONE) {
    error = "the ELF library cannot be used";
    return false;
  }
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) {
    error = path + ": " + std::strerror(errno);
    return false;
  }
  elf_ = elf_begin(fd_, ELF_C_READ, nullptr);
  GElf_Ehdr header;
  if (elf_ == nullptr || elf_kind(elf_) != ELF_K_ELF || gelf_getehdr(elf_, &header) == nullptr ||
      (header.e_type != ET_EXEC && header.e_type != ET_DYN)) {
    error = path + ": not an ELF executable";
    return false;
  }
  positionIndependent_ = header.e_type == ET_DYN;

  size_t segments = 0;
  loadAddress_ = std::numeric_limits<uint64_t>::max();
  if (elf_getphdrnum(elf_, &segments) == 0) {
    for (size_t i = 0; i < segments; ++i) {
      GElf_Phdr segment;
      if (gelf_getphdr(elf_, static_cast<int>(i), &segment) != nullptr && segment.p_type == PT_LOAD)
        loadAddress_ = std::min<uint64_t>(loadAddress_, segment.p_vaddr);
    }
  }
  if (loadAddress_ == std::numeric_limits<uint64_t>::max()) loadAddress_ = 0;

  // The full symbol table when there is one, else the dynamic one.
  Elf_Scn* table = nullptr;
  GElf_Shdr tableHeader{};
  codeStart_ = std::numeric_limits<uint64_t>::max();
  std::vector<bool> executable;
  for (Elf_Scn* section = elf_nextscn(elf_, nullptr); section != nullptr; section = elf_nextscn(elf_, section)) {
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
    const char* name = elf_strptr(elf_, tableHeader.sh_link, symbol.st_name);
    if (name == nullptr || *name == '\0') continue;
    candidates.push_back({{symbol.st_value, symbol.st_size, name}, binding_rank(GELF_ST_BIND(symbol.st_info))});
  }
  std::stable_sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
    return a.function.address != b.function.address ? a.function.address < b.function.address : a.rank < b.rank;
  });
  for (Candidate& candidate : candidates)
    if (functions_.empty() || functions_.back().address != candidate.function.address)
      functions_.push_back(std::move(candidate.function));
  if (functions_.empty()) {
    error = path + ": no function symbols";
    return false;
  }
  return true;
}

const ElfFunction* ElfImage::function_at(uint64_t address) const {
  auto above = std::upper_bound(functions_.begin(), functions_.end(), address,
                                [](uint64_t value, const ElfFunction& f) { return value < f.address; });
  if (above == functions_.begin()) return nullptr;
  const ElfFunction& found = *(above - 1);
  const uint64_t end = found.size != 0 ? found.address + found.size
                                       : (above != functions_.end() ? above->address : found.address + 1);
  return address < end ? &found : nullptr;
}

bool ElfImage::source_line(uint64_t address, std::string& file, int& line) {
  if (!dwarfTried_) {
    dwarfTried_ = true;
    static char* debuginfoPath = nullptr;
    static const Dwfl_Callbacks callbacks = {
        dwfl_build_id_find_elf, dwfl_standard_find_debuginfo, dwfl_offline_section_address, &debuginfoPath};
    dwfl_ = dwfl_begin(&callbacks);
    if (dwfl_ != nullptr) {
      module_ = dwfl_report_offline(dwfl_, "", path_.c_str(), -1);
      dwfl_report_end(dwfl_, nullptr, nullptr);
    }
  }
  if (module_ == nullptr) return false;
  Dwfl_Line* found = dwfl_module_getsrc(module_, address);
  int number = 0;
  const char* name = found == nullptr ? nullptr : dwfl_lineinfo(found, nullptr, &number, nullptr, nullptr, nullptr);
  if (name == nullptr || number <= 0) return false;
  file = name;
  line = number;
  return true;
}

std::string map_text(const ElfImage& image, const std::string& title) {
  std::string text;
  char line[512];
  std::snprintf(line, sizeof line,
                " %s\r\n\r\n Preferred load address is %016" PRIX64 "\r\n\r\n"
                "  Address         Publics by Value              Rva+Base               Lib:Object\r\n\r\n",
                title.c_str(), image.load_address());
  text += line;
  for (const ElfFunction& function : image.functions()) {
    std::snprintf(line, sizeof line, " 0001:%08" PRIX64 "       ", function.address - image.code_start());
    text += line;
    text += function.name;
    const size_t pad = function.name.size() < 26 ? 26 - function.name.size() : 0;
    std::snprintf(line, sizeof line, "%*s %016" PRIX64 " f\r\n", static_cast<int>(pad), "", function.address);
    text += line;
  }
  return text;
}

std::string demangle(const std::string& name) {
  int status = 0;
  char* readable = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
  if (readable == nullptr) return name;
  std::string result = readable;
  std::free(readable);
  return result;
}

}  // namespace kvtool
