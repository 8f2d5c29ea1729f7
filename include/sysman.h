// The system frame: the library's exceptions, the process-wide abort service,
// sys_abort (the one path for unrecoverable conditions), and SysManager.
#pragma once

#include <exception>
#include <string>

#include "KvExport.h"
#include "Zub/Core/Error.h"
#include "filetime.h"

// An exception carrying a message and a trail of context texts.
class KVCORE_API Exception : public std::exception {
 public:
  explicit Exception(const char* text);
  Exception(const Exception& other);
  Exception& operator=(const Exception& other);
  ~Exception() override;

  // message, separator, stack; built on the first call and kept from then on.
  const char* what() const noexcept override;

  const char* Message() const;
  // Appends text to the stack (after the separator when the stack is not
  // empty); a null text changes nothing. Returns the stack.
  const char* Stack(const char* text);

  static char Separator();
  static void Separator(char separator);

 private:
  std::string m_message;
  std::string m_stack;
  mutable std::string m_what;
};

// "<text>: out of memory. Asked for <size> bytes."
class KVCORE_API MemoryException : public Exception {
 public:
  MemoryException(const char* text, unsigned int size);
  ~MemoryException() override;
};

// An exception whose message is formatted printf-style (at most 2047 characters).
class KVCORE_API VarArgsException : public Exception {
 public:
  explicit VarArgsException(const char* format, ...) __attribute__((format(printf, 2, 3)));
  ~VarArgsException() override;
};

// A participant in aborts. Objects register at construction, in order, and
// leave at destruction.
class KVCORE_API AbortSyst {
 public:
  AbortSyst();
  AbortSyst(const AbortSyst& other);
  AbortSyst& operator=(const AbortSyst& other);
  virtual ~AbortSyst();

  virtual void Pause();
  // May the code be carried out now?
  virtual bool Available(int code);
  // Carries the code out; false when the action failed.
  virtual bool Execute(int code);

 private:
  friend class AbortManager;
  AbortSyst* next;
};

// Abort codes: 0 Resume, 1 Restart, 2 Recover, 3 Put Away Wafer, 4 Abort, 5 (unnamed).
class KVCORE_API AbortManager {
 public:
  static bool Available(int code);
  static bool Execute(int code);
  static void Pause();
  static bool PauseAndExecute(int code);
  // The code's name; null for 5 and for unknown codes.
  static char* Name(int code);

 private:
  friend class AbortSyst;
  static void Register(AbortSyst* member);
  static void UnRegister(AbortSyst* member);
  static AbortSyst* head;
};

// The error that sys_abort raises.
class KVCORE_API SysManagerError : public Zub::Core::LogicError {
 public:
  SysManagerError();
  ~SysManagerError() override;
  std::string GetCategory() const override;  // "CSL SysManager Error"
  ZUB_ERROR_COPY_OPERATIONS(SysManagerError)
};

// Ends an unrecoverable condition: breaks into an attached debugger, writes
// "sys_abort called: <text>" through Debug(), and raises SysManagerError with
// text as its message. It returns only if the error service does.
KVCORE_API void sys_abort(const char* text);

// The build date text of this library, as code contexts carry it.
KVCORE_API const char* KvBuildDate();

// Runs at process exit (registered when the library is loaded): when mainheap
// exists, writes "kvExitFunc: deleting mainheap" to the debugger output and
// destroys mainheap, and with it every heap.
KVCORE_API void kvExitFunc();

// The library's static front door.
class KVCORE_API SysManager {
 public:
  // Descriptive strings that head every diagnostic dump; null sets "".
  static void Model(const char* text);
  static void User(const char* text);
  static void Equipment(const char* text);
  static void Image(const char* text);

  static std::string GetKorvalisVersion();
  static void SetKorvalisVersion(const std::string& version);

  // The current local time, DOS packed.
  static file_timestamp Time();

  static void* m_hModule;          // the host executable's module
  static std::string ExeFilePath;  // full path of the host executable
  static file_timestamp ExeTime;   // last-write time of the executable
  static file_timestamp StartTime; // local time at library load
  static std::string ModelString;
  static std::string UserString;
  static std::string EquipString;
  static std::string ImageString;

 private:
  static std::string m_VersionString;
};
