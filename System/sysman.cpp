// The system frame: exceptions, the abort service, sys_abort and SysManager.
#include "sysman.h"

#include <cstdarg>
#include <cstdlib>
#include <cstdio>

#include "DebugManager.h"
#include "heap.h"
#include "kvinit.h"
#include "kvos/debugger.h"
#include "kvos/module.h"
#include "kvos/time.h"

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

namespace {
std::string format_message(const char* format, va_list args) {
  if (format == nullptr) return std::string();
  char buffer[2048];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  return buffer;
}

}  // namespace

VarArgsException::VarArgsException(const char* format, ...) : Exception("") {
  va_list args;
  va_start(args, format);
  static_cast<Exception&>(*this) = Exception(format_message(format, args).c_str());
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

void* SysManager::m_hModule = nullptr;
std::string SysManager::ExeFilePath KV_INIT(KV_PRIO_SYSMAN);
file_timestamp SysManager::ExeTime;
file_timestamp SysManager::StartTime KV_INIT(KV_PRIO_SYSMAN) = SysManager::Time();
std::string SysManager::ModelString KV_INIT(KV_PRIO_SYSMAN);
std::string SysManager::UserString KV_INIT(KV_PRIO_SYSMAN);
std::string SysManager::EquipString KV_INIT(KV_PRIO_SYSMAN);
std::string SysManager::ImageString KV_INIT(KV_PRIO_SYSMAN);
std::string SysManager::m_VersionString KV_INIT(KV_PRIO_SYSMAN);

void SysManager::Model(const char* text) { ModelString = text != nullptr ? text : ""; }
void SysManager::User(const char* text) { UserString = text != nullptr ? text : ""; }
void SysManager::Equipment(const char* text) { EquipString = text != nullptr ? text : ""; }
void SysManager::Image(const char* text) { ImageString = text != nullptr ? text : ""; }

std::string SysManager::GetKorvalisVersion() { return m_VersionString; }
void SysManager::SetKorvalisVersion(const std::string& version) { m_VersionString = version; }

file_timestamp SysManager::Time() {
  const kvos::CalendarTime now = kvos::local_time_now();
  int64_t fileTime = 0;
  file_timestamp stamp;
  if (kvos::calendar_to_file_time(now, fileTime)) kvos::file_time_to_dos(fileTime, stamp.date, stamp.time);
  return stamp;
}

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
