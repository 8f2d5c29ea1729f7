// The system frame: exceptions, the abort service, sys_abort and SysManager.
#include "sysman.h"

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstdio>
#include <utility>

#include "ConsoleWindow.h"
#include "DebugManager.h"
#include "ProcessManager.h"
#include "StackWriter.h"
#include "Zub/Core/PathName.h"
#include "heap.h"
#include "kvinit.h"
#include "kvos/console.h"
#include "kvos/debugger.h"
#include "kvos/drives.h"
#include "kvos/env.h"
#include "kvos/file.h"
#include "kvos/module.h"
#include "kvos/thread.h"
#include "kvos/time.h"
#include "kvtext/text.h"

// ---------------------------------------------------------------------------
// Exceptions

namespace {
char g_separator = '\n';
}

Exception::Exception(const char* text) : m_message(text != nullptr ? text : "") {}
Exception::Exception(const Exception& other) = default;

Exception& Exception::operator=(const Exception& other) {
  if (this != &other) {
    m_message = other.m_message;
    m_stack = other.m_stack;
    m_what = other.m_what;
  }
  return *this;
}

Exception::~Exception() = default;

const char* Exception::what() const noexcept {
  if (m_what.empty()) {
    try {
      m_what = m_message + g_separator + m_stack;
    } catch (...) {
      return m_message.c_str();
    }
  }
  return m_what.c_str();
}

const char* Exception::Message() const { return m_message.c_str(); }

const char* Exception::Stack(const char* text) {
  if (text != nullptr) {
    if (!m_stack.empty()) m_stack += g_separator;
    m_stack += text;
  }
  return m_stack.c_str();
}

char Exception::Separator() { return g_separator; }
void Exception::Separator(char separator) { g_separator = separator; }

MemoryException::MemoryException(const char* text, unsigned int size)
    : Exception((std::string(text != nullptr ? text : "") + ": out of memory. Asked for " +
                 std::to_string(size) + " bytes.")
                    .c_str()) {}
MemoryException::~MemoryException() = default;

VarArgsException::VarArgsException(const char* format, ...) : Exception("") {
  va_list args;
  va_start(args, format);
  // The message is cut to 2047 characters, as it were formatted into 2048 bytes.
  const std::string message = format != nullptr ? kvtext::format_string(format, args, 2047) : std::string();
  static_cast<Exception&>(*this) = Exception(message.c_str());
  va_end(args);
}
VarArgsException::~VarArgsException() = default;

// ---------------------------------------------------------------------------
// The abort service

AbortSyst* AbortManager::head = nullptr;

AbortSyst::AbortSyst() : next(nullptr) { AbortManager::Register(this); }
AbortSyst::AbortSyst(const AbortSyst& other) : next(other.next) {}

AbortSyst& AbortSyst::operator=(const AbortSyst& other) {
  next = other.next;
  return *this;
}

AbortSyst::~AbortSyst() { AbortManager::UnRegister(this); }
void AbortSyst::Pause() {}
bool AbortSyst::Available(int) { return true; }
bool AbortSyst::Execute(int) { return true; }

void AbortManager::Register(AbortSyst* member) {
  member->next = nullptr;
  AbortSyst** link = &head;
  while (*link != nullptr) link = &(*link)->next;
  *link = member;
}

void AbortManager::UnRegister(AbortSyst* member) {
  for (AbortSyst** link = &head; *link != nullptr; link = &(*link)->next) {
    if (*link == member) {
      *link = member->next;
      return;
    }
  }
}

bool AbortManager::Available(int code) {
  if (static_cast<unsigned>(code) > 5) return false;
  for (AbortSyst* member = head; member != nullptr; member = member->next)
    if (!member->Available(code)) return false;
  return true;
}

bool AbortManager::Execute(int code) {
  if (!Available(code)) return false;
  for (AbortSyst* member = head; member != nullptr;) {
    AbortSyst* following = member->next;  // a member may leave inside Execute
    if (!member->Execute(code)) return false;
    member = following;
  }
  return true;
}

void AbortManager::Pause() {
  for (AbortSyst* member = head; member != nullptr;) {
    AbortSyst* following = member->next;
    member->Pause();
    member = following;
  }
}

bool AbortManager::PauseAndExecute(int code) {
  if (!Available(code)) return false;
  Pause();
  Execute(code);
  return true;
}

char* AbortManager::Name(int code) {
  static char names[5][16] = {"Resume", "Restart", "Recover", "Put Away Wafer", "Abort"};
  return static_cast<unsigned>(code) < 5 ? names[code] : nullptr;
}

// ---------------------------------------------------------------------------
// sys_abort

SysManagerError::SysManagerError() : Zub::Core::LogicError("") { SetSeverity(2); }
SysManagerError::~SysManagerError() = default;
std::string SysManagerError::GetCategory() const { return "CSL SysManager Error"; }

const char* KvBuildDate() { return __DATE__ " " __TIME__; }

void sys_abort(const char* text) {
  const char* message = text != nullptr ? text : "";
  kvos::debugger_break();
  Debug("sys_abort called: %s\n", message);
  SysManagerError error;
  Zub::Core::Error::RaiseError(
      error,
      Zub::Core::CodeContext("System/sysman", 323, "sys_abort", "void __cdecl sys_abort(const char *)",
                             KvBuildDate()),
      message, false);
}

// ---------------------------------------------------------------------------
// SysManager

int SysManager::m_initialized = 0;
void* SysManager::m_hModule = nullptr;
int64_t SysManager::gSystemStartTime = 0;
std::string SysManager::ExeFilePath KV_INIT(KV_PRIO_SYSMAN);
file_timestamp SysManager::ExeTime;
file_timestamp SysManager::StartTime KV_INIT(KV_PRIO_SYSMAN) = SysManager::Time();
std::string SysManager::ModelString KV_INIT(KV_PRIO_SYSMAN);
std::string SysManager::UserString KV_INIT(KV_PRIO_SYSMAN);
std::string SysManager::EquipString KV_INIT(KV_PRIO_SYSMAN);
std::string SysManager::ImageString KV_INIT(KV_PRIO_SYSMAN);
std::string SysManager::m_VersionString KV_INIT(KV_PRIO_SYSMAN);
SysManager SysMan KV_INIT(KV_PRIO_SYSMAN);

void SysManager::Model(const char* text) { ModelString = text != nullptr ? text : ""; }
void SysManager::User(const char* text) { UserString = text != nullptr ? text : ""; }
void SysManager::Equipment(const char* text) { EquipString = text != nullptr ? text : ""; }
void SysManager::Image(const char* text) { ImageString = text != nullptr ? text : ""; }

std::string SysManager::GetKorvalisVersion() { return m_VersionString; }
void SysManager::SetKorvalisVersion(const std::string& version) { m_VersionString = version; }

file_timestamp SysManager::Time() {
  const kvos::CalendarTime now = kvos::local_time_now();
  int64_t fileTime = 0;
  uint16_t date = 0;
  uint16_t time = 0;
  file_timestamp stamp;
  if (kvos::calendar_to_file_time(now, fileTime) && kvos::file_time_to_dos(fileTime, date, time)) {
    stamp.date = date;
    stamp.time = time;
  }
  return stamp;
}

namespace {

constexpr const char* kInitializationErrorTitle = "Korvalis Initialization Error";
std::atomic<SysManager::InitializationErrorHandler> g_initializationErrorHandler{nullptr};

[[noreturn]] void raise_sysman_error(int line, const char* function, const char* signature, const char* text) {
  SysManagerError error;
  Zub::Core::Error::RaiseError(
      error, Zub::Core::CodeContext("System/sysman", line, function, signature, KvBuildDate()), text, false);
}

void report_initialization_error(const char* text) {
  std::fprintf(stderr, "%s\n%s\n", kInitializationErrorTitle, text);
  std::fflush(stderr);
  if (SysManager::InitializationErrorHandler handler = g_initializationErrorHandler.load())
    handler(kInitializationErrorTitle, text);
}

// Swallows interrupt, quit and close of the debug console, so that they do
// not end the process.
bool swallow_console_event(int event) {
  return event == kvos::kConsoleCtrlC || event == kvos::kConsoleCtrlBreak || event == kvos::kConsoleClose;
}

// A local DOS-packed time to a UTC file time, and back.
bool packed_to_utc(uint64_t packed, int64_t& utc) {
  int64_t local = 0;
  return kvos::dos_to_file_time(static_cast<uint16_t>(packed >> 16), static_cast<uint16_t>(packed & 0xFFFF), local) &&
         kvos::local_to_file_time(local, utc);
}

bool utc_to_packed(int64_t utc, uint64_t& packed) {
  int64_t local = 0;
  uint16_t date = 0, time = 0;
  if (!kvos::file_time_to_local(utc, local) || !kvos::file_time_to_dos(local, date, time)) return false;
  packed = (static_cast<uint64_t>(date) << 16) | time;
  return true;
}

// The directory a file is written in: its path up to and including the last
// separator, the drive of a drive-relative name, "." for a bare name.
std::string directory_of(const std::string& path) {
  const size_t cut = path.find_last_of("\\/");
  if (cut != std::string::npos) return path.substr(0, cut + 1);
  if (path.size() >= 2 && path[1] == ':') return path.substr(0, 2);
  return ".";
}

// A temporary file written in place of its target: closed and deleted on every
// way out unless commit() has moved it over the target.
class temp_file_guard {
 public:
  explicit temp_file_guard(std::string name) : m_name(std::move(name)) {}
  ~temp_file_guard() {
    // Only failure paths get here with work left; their failure is already reported.
    if (m_file != kvos::kInvalidFile) (void)kvos::file_close(m_file);
    if (!m_committed) (void)kvos::file_delete(m_name);
  }
  temp_file_guard(const temp_file_guard&) = delete;
  temp_file_guard& operator=(const temp_file_guard&) = delete;

  bool create() {
    m_file = kvos::file_open(m_name, kvos::kFileCreateAlways);
    return m_file != kvos::kInvalidFile;
  }
  kvos::file_t file() const { return m_file; }
  const std::string& name() const { return m_name; }

  // Syncs (the data must be on disk before the target's name points at it),
  // closes and moves the file over target; false when any step failed.
  bool commit(const std::string& target) {
    const bool synced = kvos::file_sync(m_file);
    const bool closed = kvos::file_close(m_file);
    m_file = kvos::kInvalidFile;
    m_committed = synced && closed && kvos::file_replace(m_name, target);
    return m_committed;
  }

 private:
  std::string m_name;
  kvos::file_t m_file = kvos::kInvalidFile;
  bool m_committed = false;
};

}  // namespace

SysManager::InitializationErrorHandler SysManager::SetInitializationErrorHandler(
    InitializationErrorHandler handler) {
  return g_initializationErrorHandler.exchange(handler);
}

void SysManager::Initialize() {
  if (m_initialized != 0) return;
  try {
    gSystemStartTime = kvos::system_file_time();
    // Names are case-sensitive here: both spellings would override the system's zone.
    for (const char* name : {"tz", "TZ"}) {
      if (kvos::env_get(name) && !kvos::env_set(name, nullptr))
        raise_sysman_error(222, "SysManager::Initialize", "void __cdecl SysManager::Initialize(void)",
                           "Get/SetEnvironmentVariable(tz) failed");
    }
    heapman_mgr::initialize();
    GetExeFileName();
    ConfigureConsole();
    ProcessManager::initialize();
    m_initialized = 1;
  } catch (const std::exception& error) {
    report_initialization_error(error.what());
    throw;
  } catch (...) {
    report_initialization_error("SysManager::Initialize() default exception.");
    throw;
  }
}

void SysManager::Exit(int) {
  if (m_initialized != 0) Debug(dbgCSL, "\nCSL: SysManager::Exit called\n");
}

void SysManager::GetExeFileName() {
  const std::string host = kvos::executable_path();
  std::string dos;
  if (host.empty() || !kvos::host_to_dos(host, dos) || dos.size() >= 261)
    raise_sysman_error(142, "SysManager::GetExeFileName", "void __cdecl SysManager::GetExeFileName(void)",
                       "SysManager::GetExeFileName - GetModuleFileName() failed");
  ExeFilePath = dos;
  ExeTime = file_timestamp(FileTime(dos.c_str()));
}

void SysManager::ConfigureConsole() {
  CSL::ConsoleWindow::InitializeConsole();
  CSL::ConsoleWindow::SetTitle("SysManager Debug");
  static bool handlerInstalled = false;
  if (CSL::ConsoleWindow::IsInitialized() && !handlerInstalled) {
    (void)kvos::console_restore_ctrl_c();  // fails only without a console, which IsInitialized ruled out
    handlerInstalled = kvos::console_set_ctrl_handler(swallow_console_event, true);
  }
}

void SysManager::MakeDefaultLogHeader() {}

void SysManager::Sleep(int ms) { kvos::sleep_ms(ms < 0 ? kvos::kWaitForever : static_cast<uint32_t>(ms), true); }

uint64_t SysManager::DiskSpace(const char* path) {
  uint64_t available = 0;
  if (path != nullptr && !kvos::disk_free_space(path, available)) available = 0;
  return available;
}

uint64_t SysManager::FileSize(const char* path) {
  kvos::FindData found;
  if (path == nullptr || !kvos::file_find_first(path, found)) return 0xFFFFFFFFu;
  return found.size & 0xFFFFFFFFu;
}

uint64_t SysManager::FileTime(const char* path) {
  kvos::FindData found;
  uint64_t packed = 0;
  if (path == nullptr || !kvos::file_find_first(path, found) || !utc_to_packed(found.lastWriteUtc, packed)) return 0;
  return packed;
}

bool SysManager::FileTime(const char* path, uint64_t packedTime) {
  if (path == nullptr) return false;
  const kvos::file_t file = kvos::file_open(path, kvos::kFileWriteExisting);
  if (file == kvos::kInvalidFile) return false;
  int64_t utc = 0;
  const bool set = packed_to_utc(packedTime, utc) && kvos::file_set_time(file, utc);
  const bool closed = kvos::file_close(file);
  static const char kFunction[] = "SysManager::FileTime";
  static const char kSignature[] = "bool __cdecl SysManager::FileTime(char *,unsigned __int64)";
  if (set) {
    if (!closed) raise_sysman_error(618, kFunction, kSignature, "CloseHandle() failed");
    return true;
  }
  if (!closed) raise_sysman_error(611, kFunction, kSignature, "FileTime failure");
  return false;
}

bool SysManager::FileRead(const char* path, SysFileioBuffer* list, uint64_t* packedTime) {
  if (path == nullptr) return true;
  const kvos::file_t file = kvos::file_open(path, kvos::kFileReadExisting);
  if (file == kvos::kInvalidFile) return true;  // a missing file is not an error here
  // Opened for reading: a failing close loses nothing, so only the reads decide.
  const auto finish = [file](bool result) {
    (void)kvos::file_close(file);
    return result;
  };
  for (SysFileioBuffer* buffer = list; buffer != nullptr && buffer->data != nullptr; ++buffer) {
    uint64_t done = 0;
    if (!kvos::file_seek(file, buffer->offset & 0xFFFFFFFFu) ||
        !kvos::file_read(file, buffer->data, buffer->size, done) || done != buffer->size)
      return finish(false);
  }
  if (packedTime != nullptr) {
    int64_t utc = 0;
    uint64_t packed = 0;
    if (!kvos::file_get_time(file, utc) || !utc_to_packed(utc, packed)) {
      Debug(dbgCSL, "Error on converting or reading file time.\n");
      return finish(false);
    }
    *packedTime = packed;
  }
  return finish(true);
}

bool SysManager::FileWrite(const char* path, SysFileioBuffer* list, uint64_t packedTime) {
  if (path == nullptr) return false;
  const std::string directory = directory_of(path);
  std::string tempName;
  if (!kvos::file_temp_name(directory, "kvc", 0, tempName)) {
    Debug(dbgCSL, "\nFailed writing %s:\nfailed GetTempFileName on dir %s\n", path, directory.c_str());
    return false;
  }
  temp_file_guard temp(tempName);
  if (!temp.create()) {
    Debug(dbgCSL, "\nFailed writing %s:\ncouldn't create temp file %s\n", path, tempName.c_str());
    return false;
  }
  unsigned index = 0;
  for (SysFileioBuffer* buffer = list; buffer != nullptr && buffer->data != nullptr; ++buffer, ++index) {
    uint64_t done = 0;
    if (!kvos::file_seek(temp.file(), buffer->offset & 0xFFFFFFFFu) ||
        !kvos::file_write(temp.file(), buffer->data, buffer->size, done) || done != buffer->size) {
      Debug(dbgCSL, "\nFailed writing %s\n(temp file %s)\nbuffer %u: failed setting file pointer\n", path,
            tempName.c_str(), index);
      return false;
    }
  }
  int64_t utc = 0;
  if (packedTime != 0 && (!packed_to_utc(packedTime, utc) || !kvos::file_set_time(temp.file(), utc))) {
    Debug(dbgCSL, "\nFailed writing %s\n(temp file %s): couldn't set time\n", path, tempName.c_str());
    return false;
  }
  if (!temp.commit(path)) {
    Debug(dbgCSL, "\nFailed writing %s:\ncouldn't move temp file %s\n", path, tempName.c_str());
    return false;
  }
  return true;
}

std::string SysManager::FormatDateTime(const file_timestamp& stamp) {
  char text[32];
  std::snprintf(text, sizeof text, "%02d/%02d/%04d %02d:%02d:%02d", stamp.month(), stamp.day(), stamp.year(),
                stamp.hour(), stamp.minute(), stamp.second());
  return text;
}

std::string SysManager::GetDumpHeaderInformation() {
  std::string header;
  if (m_initialized != 0) header += ExeFilePath + " " + FormatDateTime(ExeTime) + "\n";
  if (!ModelString.empty()) header += ModelString + " ";
  if (!m_VersionString.empty()) header += m_VersionString + "\n";
  if (!EquipString.empty()) header += EquipString + ", ";
  if (!UserString.empty()) header += UserString + "\n";
  if (!ImageString.empty()) header += ImageString + "\n";
  header += "Run " + FormatDateTime(StartTime) + "\n";
  return header;
}

bool SysManager::SetFiberStackTraceDirPath(const std::string& dir) {
  std::string host;
  if (kvos::dos_to_host(dir, host)) {
    const Zub::Core::PathName directory(host);
    if (directory.Exists()) return true;
    if (directory.CreateDirectory()) {
      CStackWriter::SetDumpDotTabPath(dir);
      return true;
    }
  }
  Debug(dbgCSL, "Failed to create directory: %s\n", dir.c_str());
  return false;
}

std::string SysManager::GetFiberStackTraceDirPath() { return CStackWriter::m_pathToDumpDotTab; }
// ---------------------------------------------------------------------------
// Library load and unload

void kvExitFunc() {
  if (mainheap == nullptr) return;
  kvos::debugger_output("kvExitFunc: deleting mainheap\n");
  heap* root = mainheap;
  root->~heap();
  mainheap = nullptr;
  KvOperatorDelete(root);
}

namespace {

// Process attach: runs after every global of the library is constructed, so
// kvExitFunc runs before their destructors.
__attribute__((constructor(KV_PRIO_ATTACH))) void kv_process_attach() {
  SysManager::m_hModule = kvos::executable_module();
  std::atexit(kvExitFunc);
}

}  // namespace
