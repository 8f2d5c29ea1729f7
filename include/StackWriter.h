// Call-stack dumps: CStackWriter walks the calling thread's frame-pointer
// chain from a helper thread, names the return addresses through the linker
// map file of the host executable, and appends the report to dump.tab;
// CSL::CTranslateRawStackInfo is the reader of that map file.
//
// Named dumps need a host built with frame pointers (-fno-omit-frame-pointer)
// and linked without position independence (-no-pie), a map file (the CMake
// function kvcore_add_map_file writes one), and an anchor symbol injected at
// start-up (InjectSymbolOffset), which relates map addresses to run-time ones.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "KvExport.h"
#include "Zub/Core/Error.h"

// The error of the stack dump writer ("CSL StackWriter Error").
class KVCORE_API StackWriterError : public Zub::Core::LogicError {
 public:
  StackWriterError();
  ~StackWriterError() override;
  std::string GetCategory() const override;
  ZUB_ERROR_COPY_OPERATIONS(StackWriterError)
};

class KVCORE_API CStackWriter {
 public:
  // A writer for one dump of thread (a kvos::stack_thread_t handle) that
  // reports errorMessage as the fatal error. GetStackInformation makes its own.
  explicit CStackWriter(const std::string& errorMessage = std::string(), void* thread = nullptr);
  ~CStackWriter();

  // Dumps the calling thread: a helper thread walks its stack while it
  // waits, and the report is appended to dump.tab. Answers the report, an
  // empty text when the dump failed, or a short error text; never throws.
  static std::string GetStackInformation(const std::string& errorMessage);

  // Builds the report (fatal error, dump header, running time, the frames,
  // named where the map file allows) and appends it to dump.tab. Runs on a
  // thread other than the one dumped. False when an exception stopped it.
  bool DoStackDump();
  // A copy of the report built so far.
  std::string GetStackDumpString() const;
  // The thread to dump (a kvos::stack_thread_t handle).
  void SetCurrentThread(void* thread);

  // The directory of dump.tab (a DOS path); empty: the executable's directory.
  static void SetDumpDotTabPath(const std::string& directory);
  // The map file; empty: the executable's path with the extension "map".
  static void InjectMapFilePath(const std::string& path);
  // The anchor: a symbol of the map file and its run-time address.
  static void InjectSymbolOffset(const std::string& name, int64_t address);

  static std::string m_pathToDumpDotTab;  // directory of dump.tab; empty: the executable's
  static std::string m_mapFilePath;       // map file; empty: beside the executable
  static constexpr int NESTING_DEPTH = 100;  // most frames written for one thread

 private:
  void ClearStackDumpString();
  void AddErrorMessageIfNecessary();
  void AddStackDumpHeaderInfo();
  std::string GetRunningTimeString() const;
  void DumpCurrentThread(char* raw, size_t capacity);
  bool GetRawStackForThread(char* raw, size_t capacity);
  uint64_t GetBasePointerRegisterFromContext();
  void AppendRawStackFrame(uint64_t frame, char* raw, size_t capacity);
  bool ReadMemoryAtAddress(uint64_t address, uint64_t& value);
  void UpdateStacksPointer(char*& position);
  void AddWarningIfStackNestingIsTooDeep(char*& position, const char* end);
  std::string DoTranslation(const char* raw);
  bool AppendStackDumpToDumpDotTab();

  std::string m_dumpText;
  void* m_thread;
  std::string m_errorMessage;

  static std::string m_symbolName;
  static int64_t m_symbolAddress;
  static int m_dumpCount;      // dumps appended to dump.tab by this process
  static uint32_t m_dumpSize;  // bytes appended to dump.tab by this process
};

namespace CSL {

// A linker map file's public symbols, relocated by an anchor symbol, and the
// rewriting of raw dump lines ("0012FF34 @00401234") into named ones
// ("0012FF34 name+1C"). The table holds the function lines ("0001:offset name
// address ...") from the "Publics by Value" section on.
class KVCORE_API CTranslateRawStackInfo {
 public:
  struct Symbol {
    uint64_t address;
    const char* name;  // inside the map text
  };

  explicit CTranslateRawStackInfo(const std::string& mapFilePath = std::string());
  virtual ~CTranslateRawStackInfo();
  CTranslateRawStackInfo(const CTranslateRawStackInfo&) = delete;
  CTranslateRawStackInfo& operator=(const CTranslateRawStackInfo&) = delete;

  // Reads the map file (a DOS path) whole; false when it cannot be opened or
  // read, or is shorter than two bytes.
  bool LoadMapFile();
  // Takes the map text from memory instead; false for fewer than two bytes.
  bool LoadMapText(const char* text, size_t size);

  // Builds the table from the loaded text and relocates it so that the
  // symbol anchorName lies at anchorAddress. False, with an empty table, when
  // the text has no function lines or no symbol of that name.
  bool BuildSymbolTable(const std::string& anchorName, int64_t anchorAddress);

  size_t GetNumberOfSymbols() const;
  const Symbol* GetSymbols() const;  // sorted by address
  int64_t GetRelocationDelta() const;

  // The symbol with the greatest address not above address, and the distance
  // from it; null when address lies below the first symbol or at or above the
  // last one.
  const char* FindSymbol(uint64_t address, uint64_t& distance) const;

  // Rewrites each "@" and the hexadecimal number after it to the symbol's
  // name and "+distance" (left out when 0), or to the number's digits when no
  // symbol covers it; without a table the text comes back unchanged. The
  // result is limited to 32767 characters.
  std::string TranslateRawStack(const std::string& raw) const;

 private:
  std::string m_mapFilePath;
  uint32_t m_fileSize;
  std::unique_ptr<char[]> m_fileText;
  size_t m_numberOfSymbols;
  int64_t m_relocationDelta;
  std::unique_ptr<Symbol[]> m_symbols;
};

}  // namespace CSL
