// Call-stack dumps: the writer, its helper thread and dump.tab, and the reader
// of linker map files that names the frames.
#include "StackWriter.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>

#include "DebugManager.h"
#include "kvinit.h"
#include "kvos/drives.h"
#include "kvos/file.h"
#include "kvos/module.h"
#include "kvos/process.h"
#include "kvos/stack.h"
#include "kvos/thread.h"
#include "kvos/time.h"
#include "kvtext/text.h"
#include "sysman.h"

namespace {

// The raw walk and its translation each fill a buffer of this size.
constexpr size_t kBufferSize = 32768;

// The end marker of a walk: a frame whose return address is this routine's
// address ends the chain.
__attribute__((noinline)) void StackEndMarker() { asm volatile(""); }

[[noreturn]] void raise_stack_writer_error(int line, const char* function, const char* signature,
                                           const char* text) {
  StackWriterError error;
  Zub::Core::Error::RaiseError(
      error, Zub::Core::CodeContext("System/StackWriter", line, function, signature, KvBuildDate()), text, false);
}

// The executable's DOS path: as SysManager::Initialize recorded it, or else
// as the system reports it.
std::string executable_dos_path() {
  if (!SysManager::ExeFilePath.empty()) return SysManager::ExeFilePath;
  const std::string host = kvos::executable_path();
  std::string dos;
  if (host.empty() || !kvos::host_to_dos(host, dos)) return std::string();
  return dos;
}

// The path with the extension of its last component replaced by "map" (or
// "map" added when it has none).
std::string map_path_for(const std::string& path) {
  if (path.empty()) return path;
  const size_t separator = path.find_last_of("\\/");
  const size_t leaf = separator == std::string::npos ? 0 : separator + 1;
  const size_t dot = path.find_last_of('.');
  if (dot != std::string::npos && dot > leaf) return path.substr(0, dot) + ".map";
  return path + ".map";
}

// The directory part of a DOS path, without its final separator; empty when
// the path has none.
std::string directory_of(const std::string& path) {
  const size_t separator = path.find_last_of("\\/");
  return separator == std::string::npos ? std::string() : path.substr(0, separator);
}

std::string join(const std::string& directory, const char* leaf) {
  const char last = directory.empty() ? '\\' : directory.back();
  return last == '\\' || last == '/' ? directory + leaf : directory + "\\" + leaf;
}

// One dump at a time: the counters and dump.tab are shared by every thread.
std::mutex& dump_lock() {
  static std::mutex* const lock = new std::mutex();  // never destroyed: dumps may happen during exit
  return *lock;
}

// Closes the handle on the dumped thread at the end of its scope.
struct StackThreadHandle {
  explicit StackThreadHandle(kvos::stack_thread_t handle) : handle(handle) {}
  ~StackThreadHandle() { kvos::stack_thread_close(handle); }
  StackThreadHandle(const StackThreadHandle&) = delete;
  StackThreadHandle& operator=(const StackThreadHandle&) = delete;
  kvos::stack_thread_t handle;
};

// Appends text at the end of the terminated text in buffer, as far as it fits.
void append_text(char* buffer, size_t capacity, const char* text) {
  const size_t used = std::strlen(buffer);
  if (used + 1 < capacity) std::snprintf(buffer + used, capacity - used, "%s", text);
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads up to 16 hexadecimal digits at text; answers how many were read.
size_t read_hex(const char* text, const char* end, uint64_t& value) {
  value = 0;
  size_t count = 0;
  for (; text + count < end && count < 16; ++count) {
    const int digit = hex_digit(text[count]);
    if (digit < 0) break;
    value = (value << 4) | static_cast<unsigned>(digit);
  }
  return count;
}

using kvtext::is_blank;

}  // namespace

// ---------------------------------------------------------------------------
// StackWriterError

StackWriterError::StackWriterError() : Zub::Core::LogicError("") {}
StackWriterError::~StackWriterError() = default;
std::string StackWriterError::GetCategory() const { return "CSL StackWriter Error"; }

// ---------------------------------------------------------------------------
// CStackWriter

std::string CStackWriter::m_pathToDumpDotTab KV_INIT(KV_PRIO_STACK);
std::string CStackWriter::m_mapFilePath KV_INIT(KV_PRIO_STACK);
std::string CStackWriter::m_symbolName KV_INIT(KV_PRIO_STACK);
int64_t CStackWriter::m_symbolAddress = 0;
int CStackWriter::m_dumpCount = 0;
uint32_t CStackWriter::m_dumpSize = 0;

CStackWriter::CStackWriter(const std::string& errorMessage, void* thread)
    : m_thread(thread), m_errorMessage(errorMessage) {}

CStackWriter::~CStackWriter() = default;

void CStackWriter::SetDumpDotTabPath(const std::string& directory) { m_pathToDumpDotTab = directory; }

void CStackWriter::InjectMapFilePath(const std::string& path) {
  if (&path != &m_mapFilePath) m_mapFilePath = path;
}

void CStackWriter::InjectSymbolOffset(const std::string& name, int64_t address) {
  m_symbolName = name;
  m_symbolAddress = address;
}

std::string CStackWriter::GetStackDumpString() const { return m_dumpText; }
void CStackWriter::SetCurrentThread(void* thread) { m_thread = thread; }
void CStackWriter::ClearStackDumpString() { m_dumpText.clear(); }

std::string CStackWriter::GetStackInformation(const std::string& errorMessage) {
  Debug(dbgCSL, "CStackWriter::GetStackInformation called\n");
  std::string result;
  try {
    std::lock_guard<std::mutex> oneAtATime(dump_lock());
    // The handle records the frame of this function, where the walk starts;
    // this function waits below until the walk is over, so the chain holds still.
    StackThreadHandle thread(kvos::stack_thread_open());
    CStackWriter writer(errorMessage, thread.handle);
    kvos::Event finished(false);
    bool success = false;
    std::string report;
    Debug(dbgCSL, "CSL: CStackWriter::GetStackInformation launching StackDumpThread\n");
    {
      kvos::Thread dumper([&writer, &finished, &success, &report] {
        try {
          if (writer.DoStackDump()) {
            report = writer.GetStackDumpString();
            success = true;
          }
        } catch (...) {
          success = false;
        }
        finished.set();
      });
      finished.wait(kvos::kWaitForever);
    }
    Debug(dbgCSL, "CSL: CStackWriter::GetStackInformation back from StackDumpThread\n");
    if (!success) Debug(dbgCSL, "CSL: CStackWriter failed to return complete dump information\n");
    result = std::move(report);
  } catch (...) {
    result = "Error in CStackWriter::GetStackInformation() Call Stack for fibers not available.\n";
    Debug(dbgCSL, "%s", result.c_str());
  }
  Debug(dbgCSL, "CStackWriter::GetStackInformation exit\n");
  return result;
}

bool CStackWriter::DoStackDump() {
  Debug(dbgCSL, "CSL: CStackWriter::DoStackDump() called\n");
  try {
    ClearStackDumpString();
    AddErrorMessageIfNecessary();
    AddStackDumpHeaderInfo();
    // Allocated before the thread is held: nothing is allocated while it is.
    std::unique_ptr<char[]> raw(new (std::nothrow) char[kBufferSize]);
    if (!raw)
      raise_stack_writer_error(203, "CStackWriter::DoStackDump", "bool __cdecl CStackWriter::DoStackDump(void)",
                               "CSL: CStackWriter::DoStackDump - failed to allocate stack buffer.\n");
    raw[0] = '\0';
    DumpCurrentThread(raw.get(), kBufferSize);
    m_dumpText += DoTranslation(raw.get());
    AppendStackDumpToDumpDotTab();
  } catch (...) {
    Debug("CSL: Error in CStackWriter::DoStackDump() exeption caught\n");
    return false;
  }
  Debug(dbgCSL, "CSL: CStackWriter::DoStackDump() exit\n");
  return true;
}

void CStackWriter::AddErrorMessageIfNecessary() {
  if (!m_errorMessage.empty()) m_dumpText += "\nFATAL ERROR: " + m_errorMessage + "\r\n";
}

void CStackWriter::AddStackDumpHeaderInfo() {
  m_dumpText += SysManager::GetDumpHeaderInformation() + ", " + GetRunningTimeString();
}

std::string CStackWriter::GetRunningTimeString() const {
  // Since SysManager::Initialize; before it, since the process started.
  int64_t ticks = SysManager::gSystemStartTime != 0
                      ? kvos::system_file_time() - SysManager::gSystemStartTime
                      : static_cast<int64_t>(kvos::process_elapsed_ms()) * 10000;
  const uint64_t seconds = ticks > 0 ? static_cast<uint64_t>(ticks) / 10000000u : 0;
  char text[80];
  std::snprintf(text, sizeof text, "Running %02" PRIu64 ":%02" PRIu64 ":%02" PRIu64 "\r\n", seconds / 3600,
                seconds / 60 % 60, seconds % 60);
  return text;
}

void CStackWriter::DumpCurrentThread(char* raw, size_t capacity) {
  Debug(dbgCSL, "CSL: CStackWriter::DumpRunnableFibers(...) called\n");
  const bool held = kvos::stack_thread_suspend(m_thread);
  Debug(dbgCSL, "CSL: CStackWriter::DumpRunnableFibers(...) post SuspendThread doing runnable filbers\n");
  GetRawStackForThread(raw, capacity);
  if (held) (void)kvos::stack_thread_resume(m_thread);  // held: the thread is suspended, so this succeeds
  Debug(dbgCSL, "CSL: CStackWriter::DumpRunnableFibers(...) exit\n");
}

bool CStackWriter::GetRawStackForThread(char* raw, size_t capacity) {
  try {
    AppendRawStackFrame(GetBasePointerRegisterFromContext(), raw, capacity);
  } catch (const std::exception& error) {
    Debug(dbgCSL, "CStackWriter::GetRawStackForThread - exception caught %s\n", error.what());
    append_text(raw, capacity, "Dump terminated: exception\r\n");
  } catch (...) {
    Debug(dbgCSL, "CStackWriter::GetRawStackForThread - default exception caught\n");
    append_text(raw, capacity, "CStackWriter::GetRawStackForThread - Dump terminated: exception\r\n");
  }
  return true;
}

uint64_t CStackWriter::GetBasePointerRegisterFromContext() {
  uint64_t frame = 0;
  if (kvos::stack_thread_frame(m_thread, frame)) return frame;
  Debug(dbgCSL, "CSL: Error in CStackWriter::GetBasePointerRegisterFromContext - default exception caught\n");
  return 0;
}

void CStackWriter::AppendRawStackFrame(uint64_t frame, char* raw, size_t capacity) {
  char* position = raw + std::strlen(raw);
  const char* const end = raw + capacity;
  const uint64_t marker = reinterpret_cast<uint64_t>(&StackEndMarker);
  int depth = 0;
  while (frame != 0 && depth < NESTING_DEPTH) {
    // x86-64 keeps the return address beside the saved frame pointer, at
    // frame + 8; the line names frame + 4 and 32-bit numbers, the dump format.
    uint64_t returnAddress = 0;
    if (!ReadMemoryAtAddress(frame + 8, returnAddress) || returnAddress == marker) {
      frame = 0;
      break;
    }
    std::snprintf(position, static_cast<size_t>(end - position), "%08X @%08X\r\n",
                  static_cast<uint32_t>(frame + 4), static_cast<uint32_t>(returnAddress));
    UpdateStacksPointer(position);
    ++depth;
    uint64_t next = 0;
    if (!ReadMemoryAtAddress(frame, next)) next = 0;
    frame = next;
  }
  if (frame != 0) AddWarningIfStackNestingIsTooDeep(position, end);
}

bool CStackWriter::ReadMemoryAtAddress(uint64_t address, uint64_t& value) {
  if (kvos::stack_read(address, &value, sizeof value)) return true;
  Debug(dbgCSL, "CStackWriter::ReadMemoryAtAddress - default exception caught\n");
  Debug(dbgCSL, "CStackWriter::ReadMemoryAtAddress - pBaseAddress: %" PRIX64 "\n", address);
  return false;
}

void CStackWriter::UpdateStacksPointer(char*& position) {
  if (position == nullptr)
    raise_stack_writer_error(__LINE__, "CStackWriter::UpdateStacksPointer",
                             "void __cdecl CStackWriter::UpdateStacksPointer(char *&)",
                             "CStackWriter::UpdateStacksPointer - NULL pointer.");
  position += std::strlen(position);
}

void CStackWriter::AddWarningIfStackNestingIsTooDeep(char*& position, const char* end) {
  std::snprintf(position, static_cast<size_t>(end - position), "CStackWriter - Dump terminated: nesting too deep\r\n");
  UpdateStacksPointer(position);
}

std::string CStackWriter::DoTranslation(const char* raw) {
  Debug(dbgCSL, "CSL: CStackWriter::DoTranslation(...) called\n");
  const std::string mapPath = m_mapFilePath.empty() ? map_path_for(executable_dos_path()) : m_mapFilePath;
  std::string translated = raw;
  CSL::CTranslateRawStackInfo reader(mapPath);
  if (reader.LoadMapFile() && reader.BuildSymbolTable(m_symbolName, m_symbolAddress))
    translated = reader.TranslateRawStack(raw);
  Debug(dbgCSL, "CSL: CStackWriter::DoTranslation(...) exit\n");
  return translated;
}

bool CStackWriter::AppendStackDumpToDumpDotTab() {
  Debug(dbgCSL, "CSL: CStackWriter::AppendStackDumpToDumpDotTab() called\n");
  std::string path;
  if (!m_pathToDumpDotTab.empty()) {
    path = join(m_pathToDumpDotTab, "dump.tab");
  } else {
    const std::string directory = directory_of(executable_dos_path());
    if (directory.empty()) {
      Debug(dbgCSL, "CStackWriter::AppendStackDumpToDumpDotTab() - invalid pathName\n");
      return false;
    }
    path = join(directory, "dump.tab");
  }

  // Opened as it is, or created; the second open covers a file made meanwhile.
  kvos::file_t file = kvos::file_open(path, kvos::kFileWriteExisting);
  if (file == kvos::kInvalidFile) file = kvos::file_open(path, kvos::kFileCreateNew);
  if (file == kvos::kInvalidFile) file = kvos::file_open(path, kvos::kFileWriteExisting);
  if (file == kvos::kInvalidFile) {
    Debug(dbgCSL, "CStackWriter::AppendStackDumpToDumpDotTab() - failed to create file: \n%s\n", path.c_str());
    return false;
  }

  // Writes a piece at the end of the file, counting what reached it.
  const auto write_piece = [file](const std::string& piece) {
    uint64_t done = 0;
    const bool written = kvos::file_write(file, piece.data(), piece.size(), done);
    m_dumpSize += static_cast<uint32_t>(done);
    return written;
  };
  const auto give_up = [file](const char* what) {
    const int code = kvos::file_last_error();
    Debug(dbgCSL, "CStackWriter::AppendStackDumpToDumpDotTab() - %s. Closing file. Error code: %d\n", what, code);
    (void)kvos::file_close(file);  // the failure is reported already
    return false;
  };

  ++m_dumpCount;
  uint64_t size = 0;
  if (!kvos::file_get_size(file, size) || !kvos::file_seek(file, size)) return give_up("SetFilePointer #2");
  if (m_dumpCount >= 2) {
    char line[64];
    std::snprintf(line, sizeof line, "Dump continues below (%d):\r\n", m_dumpCount);
    if (!write_piece(line)) return give_up("SetFilePointer #2");
  }
  if (!write_piece(m_dumpText)) return give_up("SetFilePointer #3");
  char trailer[64];
  std::snprintf(trailer, sizeof trailer, "\r\n@DumpSize: %08X\r\n", m_dumpSize + 2);
  if (!write_piece(trailer)) return give_up("writing DumpSize str");
  if (!kvos::file_close(file))
    Debug(dbgCSL, "CStackWriter::AppendStackDumpToDumpDotTab() - CloseHandle failed. Error code: %d\n",
          kvos::file_last_error());
  Debug(dbgCSL, "CSL: CStackWriter::AppendStackDumpToDumpDotTab() exit\n");
  return true;
}

// ---------------------------------------------------------------------------
// CSL::CTranslateRawStackInfo

namespace CSL {

CTranslateRawStackInfo::CTranslateRawStackInfo(const std::string& mapFilePath)
    : m_mapFilePath(mapFilePath), m_fileSize(0), m_numberOfSymbols(0), m_relocationDelta(0) {}

CTranslateRawStackInfo::~CTranslateRawStackInfo() = default;

bool CTranslateRawStackInfo::LoadMapFile() {
  m_fileText.reset();
  m_fileSize = 0;
  if (m_mapFilePath.empty()) return false;
  const kvos::file_t file = kvos::file_open(m_mapFilePath, kvos::kFileReadExisting);
  if (file == kvos::kInvalidFile) return false;
  uint64_t size = 0;
  uint64_t done = 0;
  std::unique_ptr<char[]> text;
  bool read = kvos::file_get_size(file, size) && size >= 2 && size < 0xFFFFFFFFu;
  if (read) text.reset(new (std::nothrow) char[size + 1]);
  read = read && text && kvos::file_read(file, text.get(), size, done) && done == size;
  (void)kvos::file_close(file);  // opened for reading: the text is in memory or the load fails anyway
  if (!read) return false;
  return LoadMapText(text.get(), static_cast<size_t>(size));
}

bool CTranslateRawStackInfo::LoadMapText(const char* text, size_t size) {
  m_fileText.reset();
  m_fileSize = 0;
  m_symbols.reset();
  m_numberOfSymbols = 0;
  if (text == nullptr || size < 2 || size >= 0xFFFFFFFFu) return false;
  std::unique_ptr<char[]> copy(new (std::nothrow) char[size + 1]);
  if (!copy) return false;
  std::memcpy(copy.get(), text, size);
  // The final line end is dropped: CR LF, or a lone LF or CR.
  size_t length = size;
  if (length >= 2 && copy[length - 2] == '\r' && copy[length - 1] == '\n')
    length -= 2;
  else if (copy[length - 1] == '\n' || copy[length - 1] == '\r')
    length -= 1;
  copy[length] = '\0';
  m_fileText = std::move(copy);
  m_fileSize = static_cast<uint32_t>(size);
  return true;
}

bool CTranslateRawStackInfo::BuildSymbolTable(const std::string& anchorName, int64_t anchorAddress) {
  m_symbols.reset();
  m_numberOfSymbols = 0;
  m_relocationDelta = 0;
  if (!m_fileText) return false;
  char* const section = std::strstr(m_fileText.get(), "Publics by Value");
  char* const start = section == nullptr ? nullptr : std::strstr(section, "0001:");
  if (start == nullptr) return false;

  // Two passes over the lines from the first function line on: count, then parse.
  const auto line_end = [](char* line) { return line + std::strcspn(line, "\r\n"); };
  const auto next_line = [](char* end) { return end + std::strspn(end, "\r\n"); };
  size_t lines = 0;
  for (char* line = start; *line != '\0';) {
    char* end = line_end(line);
    char* text = line;
    while (text < end && is_blank(*text)) ++text;
    if (end - text >= 5 && std::strncmp(text, "0001:", 5) == 0) ++lines;
    line = next_line(end);
  }
  std::unique_ptr<Symbol[]> symbols(new (std::nothrow) Symbol[lines]);
  if (!symbols) return false;
  size_t count = 0;
  for (char* line = start; *line != '\0' && count < lines;) {
    char* const end = line_end(line);
    char* text = line;
    line = next_line(end);
    while (text < end && is_blank(*text)) ++text;
    if (end - text < 5 || std::strncmp(text, "0001:", 5) != 0) continue;
    // "0001:offset  name  address ..."
    text += 5;
    while (text < end && !is_blank(*text)) ++text;
    while (text < end && is_blank(*text)) ++text;
    char* const name = text;
    while (text < end && !is_blank(*text)) ++text;
    char* const nameEnd = text;
    while (text < end && is_blank(*text)) ++text;
    uint64_t address = 0;
    const size_t digits = read_hex(text, end, address);
    if (nameEnd == name || digits == 0 || (text + digits < end && !is_blank(text[digits]))) continue;
    *nameEnd = '\0';
    symbols[count++] = Symbol{address, name};
  }

  const Symbol* anchor = nullptr;
  for (size_t i = 0; i < count && anchor == nullptr; ++i)
    if (anchorName == symbols[i].name) anchor = &symbols[i];
  if (anchor == nullptr) return false;
  const uint64_t delta = static_cast<uint64_t>(anchorAddress) - anchor->address;
  for (size_t i = 0; i < count; ++i) symbols[i].address += delta;
  std::stable_sort(symbols.get(), symbols.get() + count,
                   [](const Symbol& a, const Symbol& b) { return a.address < b.address; });
  m_relocationDelta = static_cast<int64_t>(delta);
  m_symbols = std::move(symbols);
  m_numberOfSymbols = count;
  return true;
}

size_t CTranslateRawStackInfo::GetNumberOfSymbols() const { return m_numberOfSymbols; }
const CTranslateRawStackInfo::Symbol* CTranslateRawStackInfo::GetSymbols() const { return m_symbols.get(); }
int64_t CTranslateRawStackInfo::GetRelocationDelta() const { return m_relocationDelta; }

const char* CTranslateRawStackInfo::FindSymbol(uint64_t address, uint64_t& distance) const {
  if (m_numberOfSymbols == 0) return nullptr;
  const Symbol* const first = m_symbols.get();
  const Symbol* const last = first + m_numberOfSymbols - 1;
  if (address < first->address || address >= last->address) return nullptr;
  const Symbol* const above = std::upper_bound(first, last + 1, address,
                                               [](uint64_t value, const Symbol& s) { return value < s.address; });
  const Symbol* const found = above - 1;
  distance = address - found->address;
  return found->name;
}

std::string CTranslateRawStackInfo::TranslateRawStack(const std::string& raw) const {
  if (m_numberOfSymbols == 0) return raw;
  std::string out;
  out.reserve(kBufferSize);
  constexpr size_t limit = kBufferSize - 1;
  const auto put = [&out](const char* text, size_t length) {
    out.append(text, std::min(length, limit - out.size()));
  };
  const char* const end = raw.data() + raw.size();
  for (const char* at = raw.data(); at < end && out.size() < limit;) {
    const char* const mark = static_cast<const char*>(std::memchr(at, '@', static_cast<size_t>(end - at)));
    if (mark == nullptr) {
      put(at, static_cast<size_t>(end - at));
      break;
    }
    put(at, static_cast<size_t>(mark - at));
    uint64_t address = 0;
    const size_t digits = read_hex(mark + 1, end, address);
    if (digits == 0) {  // nothing to name: the mark stays
      put(mark, 1);
      at = mark + 1;
      continue;
    }
    uint64_t distance = 0;
    if (const char* name = FindSymbol(address, distance)) {
      put(name, std::strlen(name));
      if (distance != 0) {
        char offset[24];
        const int length = std::snprintf(offset, sizeof offset, "+%" PRIX64, distance);
        put(offset, static_cast<size_t>(length));
      }
    } else {
      put(mark + 1, digits);
    }
    at = mark + 1 + digits;
  }
  return out;
}

}  // namespace CSL
