// The system frame: the library's exceptions, the process-wide abort service,
// sys_abort (the one path for unrecoverable conditions), and SysManager.
#pragma once

#include <cstdint>
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
  explicit VarArgsException(const char* format, ...) KVCORE_PRINTF(2, 3);
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

// One element of a scatter/gather list for SysManager::FileRead and
// FileWrite; a null data pointer ends the list.
struct SysFileioBuffer {
  void* data;       // the bytes in memory
  uint64_t offset;  // file position (the low 32 bits are used)
  uint64_t size;    // bytes to transfer
};

// Runs at process exit (registered when the library is loaded): when mainheap
// exists, writes "kvExitFunc: deleting mainheap" to the debugger output and
// destroys mainheap, and with it every heap.
KVCORE_API void kvExitFunc();

// The library's static front door: start-up, crash-safe file writing, file
// times and the descriptive strings that head every diagnostic dump.
class KVCORE_API SysManager {
 public:
  // Start-up, once, from the host's main thread: removes the time-zone
  // variables "tz" and "TZ" so that local times follow the system's zone,
  // creates the heaps, records the executable's path and time, configures
  // the debug console and installs the process's alert listener. A failure
  // is reported (see SetInitializationErrorHandler) and rethrown; Initialize
  // may then be called again.
  static void Initialize();
  // Writes "SysManager::Exit called" (category CSL) when initialized.
  static void Exit(int code);

  // Receives the title "Korvalis Initialization Error" and the text of a
  // failed Initialize, after they have been written to standard error.
  using InitializationErrorHandler = void (*)(const char* title, const char* text);
  // Installs (null removes) the host's handler; returns the previous one.
  static InitializationErrorHandler SetInitializationErrorHandler(InitializationErrorHandler handler);

  // Descriptive strings that head every diagnostic dump; null sets "".
  static void Model(const char* text);
  static void User(const char* text);
  static void Equipment(const char* text);
  static void Image(const char* text);

  static std::string GetKorvalisVersion();
  static void SetKorvalisVersion(const std::string& version);

  // The current local time, DOS packed.
  static file_timestamp Time();

  // Sleeps alertably: completion routines queued to the calling thread (the
  // expiry of a Timer it started, for one) run meanwhile and end the sleep.
  // A negative time sleeps without limit.
  static void Sleep(int ms);

  // Free bytes available to the caller on the volume holding path; 0 when
  // that cannot be told.
  static uint64_t DiskSpace(const char* path);
  // The low 32 bits of the size of the first file matching path (wildcards
  // allowed); 0xFFFFFFFF when none matches.
  static uint64_t FileSize(const char* path);
  // The last-write time of the first file matching path, local and DOS
  // packed; 0 when none matches or the time cannot be converted.
  static uint64_t FileTime(const char* path);
  // Sets a file's last-write time from a local DOS-packed time; false when
  // the file cannot be opened for writing or the time cannot be set.
  static bool FileTime(const char* path, uint64_t packedTime);

  // Reads the buffers of the list from their offsets; with packedTime not
  // null also the file's last-write time (local, DOS packed). A missing file
  // answers true and fills nothing: true does not prove the buffers were
  // filled. A failed seek or read, or a short file, answers false.
  static bool FileRead(const char* path, SysFileioBuffer* list, uint64_t* packedTime);
  // Replaces the file with the buffers of the list, crash-safe: they go to a
  // temporary file "kvcXXXX.tmp" in the target's directory ("." for a bare
  // name), which is flushed and then renamed over the target. A packedTime
  // other than 0 becomes the file's last-write time. Any failure leaves the
  // old file as it was, removes the temporary file, writes a CSL line and
  // answers false.
  static bool FileWrite(const char* path, SysFileioBuffer* list, uint64_t packedTime);

  // The header of diagnostic dumps: the executable and its time (once
  // initialized), model and version, equipment and user, image, and the
  // start time, one item per line.
  static std::string GetDumpHeaderInformation();

  // Makes dir the directory of the stack-dump file dump.tab when it has to be
  // created (and creates it); an existing directory answers true and is not
  // recorded. False, with a CSL line, when it cannot be created.
  static bool SetFiberStackTraceDirPath(const std::string& dir);
  // The directory of dump.tab (CStackWriter::m_pathToDumpDotTab); empty for
  // none (dump.tab then goes beside the executable).
  static std::string GetFiberStackTraceDirPath();

  static int m_initialized;         // 1 once Initialize has completed
  static void* m_hModule;           // the host executable's module
  static std::string ExeFilePath;   // DOS path of the host executable
  static file_timestamp ExeTime;    // last-write time of the executable
  static file_timestamp StartTime;  // local time at library load
  static int64_t gSystemStartTime;  // system time taken by Initialize (100 ns units since 1601, UTC)
  static std::string ModelString;
  static std::string UserString;
  static std::string EquipString;
  static std::string ImageString;

 private:
  // MM/DD/YYYY HH:MM:SS
  static std::string FormatDateTime(const file_timestamp& stamp);
  static void GetExeFileName();
  static void ConfigureConsole();
  static void MakeDefaultLogHeader();

  static std::string m_VersionString;
};

// The instance of SysManager (all of whose members are static).
KVCORE_API extern SysManager SysMan;
