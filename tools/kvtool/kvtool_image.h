// kvtool: the function symbols and source lines of an executable (ELF on
// Linux, PE on Windows), and the map file made from them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kvtool {

struct ImageFunction {
  uint64_t address;
  uint64_t size;  // 0 when the symbol table does not say
  std::string name;
};

class ExecutableImage {
 public:
  ExecutableImage();
  ~ExecutableImage();
  ExecutableImage(const ExecutableImage&) = delete;
  ExecutableImage& operator=(const ExecutableImage&) = delete;

  // Reads the function symbols of an executable (host path); false with a
  // message in error when the file cannot be read, is no executable or
  // shared object of this system, or has no function symbols.
  bool open(const std::string& path, std::string& error);

  // One function per address, sorted by address.
  const std::vector<ImageFunction>& functions() const { return functions_; }
  // Linked position independent: its addresses are offsets from where it is loaded.
  bool position_independent() const { return positionIndependent_; }
  uint64_t load_address() const { return loadAddress_; }
  uint64_t code_start() const { return codeStart_; }

  // The function holding address: start <= address < start + size (the
  // next function's start when the size is unknown); null for none.
  const ImageFunction* function_at(uint64_t address) const;

  // The source file and line of the instruction at address; false when the
  // executable has no line information for it (the Windows build reads none).
  bool source_line(uint64_t address, std::string& file, int& line);

  // A symbol found while reading; rank orders several at one address (lower first).
  struct Candidate {
    ImageFunction function;
    int rank;
  };

 private:
  void close();
  // Keeps one function per address, the best ranked; false when none is left.
  bool keep(std::vector<Candidate>& candidates);

  struct Reader;  // the system's file format reader
  std::unique_ptr<Reader> reader_;
  std::string path_;
  bool positionIndependent_ = false;
  uint64_t loadAddress_ = 0;
  uint64_t codeStart_ = 0;
  std::vector<ImageFunction> functions_;
};

// The map file of an image, in the form the stack dump writer reads: a
// "Publics by Value" section with a "0001:" line per function (offset from
// the start of the code, name, address), lines ended by CR LF.
std::string map_text(const ExecutableImage& image, const std::string& title);

// The readable form of a mangled C++ name; the name itself otherwise.
std::string demangle(const std::string& name);

}  // namespace kvtool
