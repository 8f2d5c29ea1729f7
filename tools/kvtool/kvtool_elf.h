// kvtool: the function symbols and source lines of an ELF executable, and
// the map file made from them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Elf;
struct Dwfl;
struct Dwfl_Module;

namespace kvtool {

struct ElfFunction {
  uint64_t address;
  uint64_t size;  // 0 when the symbol table does not say
  std::string name;
};

class ElfImage {
 public:
  ElfImage() = default;
  ~ElfImage();
  ElfImage(const ElfImage&) = delete;
  ElfImage& operator=(const ElfImage&) = delete;

  // Reads the function symbols of an executable (host path); false with a
  // message in error when the file cannot be read, is no ELF executable or
  // shared object, or has no function symbols.
  bool open(const std::string& path, std::string& error);

  // One function per address, sorted by address.
  const std::vector<ElfFunction>& functions() const { return functions_; }
  // Linked position independent: its addresses are offsets from where it is loaded.
  bool position_independent() const { return positionIndependent_; }
  uint64_t load_address() const { return loadAddress_; }
  uint64_t code_start() const { return codeStart_; }

  // The function holding address: start <= address < start + size (the
  // next function's start when the size is unknown); null for none.
  const ElfFunction* function_at(uint64_t address) const;

  // The source file and line of the instruction at address; false when the
  // executable has no line information for it.
  bool source_line(uint64_t address, std::string& file, int& line);

 private:
  void close();

  std::string path_;
  int fd_ = -1;
  Elf* elf_ = nullptr;
  Dwfl* dwfl_ = nullptr;
  Dwfl_Module* module_ = nullptr;
  bool dwarfTried_ = false;
  bool positionIndependent_ = false;
  uint64_t loadAddress_ = 0;
  uint64_t codeStart_ = 0;
  std::vector<ElfFunction> functions_;
};

// The map file of an image, in the form the stack dump writer reads: a
// "Publics by Value" section with a "0001:" line per function (offset from
// the start of the code, name, address), lines ended by CR LF.
std::string map_text(const ElfImage& image, const std::string& title);

// The readable form of a mangled C++ name; the name itself otherwise.
std::string demangle(const std::string& name);

}  // namespace kvtool
