// Helpers shared by the test suites.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "DebugManager.h"
#include "Zub/Core/LogManager.h"

// Skips a test that cannot hold on Windows, saying why; its POSIX-only code
// stands in "#if !defined(_WIN32)".
#if defined(_WIN32)
#define KVTEST_POSIX_ONLY(reason) GTEST_SKIP() << reason
#else
#define KVTEST_POSIX_ONLY(reason) static_cast<void>(0)
#endif

namespace kvtest {

// Collects the lines written through the logging service while it lives.
class CaptureSink : public Zub::Core::LogSink {
 public:
  struct Entry {
    std::string logger;
    int severity;
    std::string text;
  };

  CaptureSink();
  ~CaptureSink() override;
  void Write(const std::string& loggerName, int severity, const std::string& text) override;

  std::vector<Entry> entries() const;
  // Every captured text, concatenated.
  std::string text() const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
};

// Switches a debug category on or off for a scope, restoring it afterwards.
class CategoryScope {
 public:
  explicit CategoryScope(DebugType type, bool on = true);
  ~CategoryScope();

 private:
  DebugType type_;
  bool was_;
};

// A fresh directory below the system's temporary directory, removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Whether the system's own device of a serial port exists (/dev/ttyS<port-1>,
// the DOS device COM<port>).
bool serial_device_exists(int port);

// Whether a directory's permission bits stop this process from creating
// files in it (not for root, and not on Windows).
bool directory_permissions_apply();

// The system's null device, for output that is to go nowhere.
#if defined(_WIN32)
constexpr const char* kNullDevice = "NUL";
constexpr bool kWindows = true;
constexpr int kInjectedFileError = 1117;  // kvos::file_last_error after an injected failure: ERROR_IO_DEVICE
#else
constexpr const char* kNullDevice = "/dev/null";
constexpr bool kWindows = false;
constexpr int kInjectedFileError = 5;  // EIO
#endif

// The message of the SysManagerError that body raises, or "(no abort)".
std::string abort_text(const std::function<void()>& body);

// "message @ line | signature" of the Zub::Core error that body raises, or "(no error)".
std::string raised(const std::function<void()>& body);

// Runs body in a child process and returns its status for child_result: a
// forked child, or on Windows this program started again on the current test
// (which runs up to this call again and then only body; the TempDirs the test
// made before it are the child's too).
int run_in_child(const std::function<int()>& body);

// child_result of a child that aborted (SIGABRT).
constexpr int kChildAborted = 1006;

// Runs a program (this test program, or a copy of it: kvos::executable_path())
// with arguments and extra environment variables, its standard output and
// error going to files (empty: the null device); answers child_result of how
// it ended; directory (empty: this one) is its working directory. A copy
// elsewhere finds this program's libraries.
int run_program(const std::string& program, const std::vector<std::string>& arguments,
                const std::vector<std::pair<std::string, std::string>>& environment, const std::string& out = "",
                const std::string& err = "", const std::string& directory = "");

// A host path below root: the components of a "/"-separated relative path,
// joined with the system's separator.
std::string host_join(const std::string& root, const std::string& relative);

// An absolute host path for a "/"-rooted one: itself on Linux, on drive C: on
// Windows ("/mnt//x/" -> "C:\mnt\\x\").
std::string host_absolute(const std::string& slashPath);

// The DOS path of a host path (fails the test when it lies on no drive).
std::string dos_path(const std::string& host);

// The exit code of a child's wait status, or 1000 plus the signal that ended it
// (kChildAborted for an abort on every system).
int child_result(int status);

// The last-write time of a host file as a UTC file time; -1 when it has none.
int64_t file_write_time(const std::string& path);

// Marks target with the access setting that a replacement must keep (mode
// 0640 on Linux, where the replacement has 0600; the hidden attribute on
// Windows), and tells whether a file carries it.
bool set_kept_access(const std::string& target, const std::string& replacement);
bool has_kept_access(const std::string& path);

// Whether the memory page holding p is resident (in the process's working
// set), and whether it is mapped at all.
bool page_resident(const void* p);
bool page_mapped(const void* p);

// The usable size of a block of the C run time's allocator.
size_t malloc_block_size(void* p);

// Writes and reads whole host files; read_text reads a file written as text
// (Windows ends its lines with CR LF there, which it reads as LF).
void write_file(const std::string& path, const std::string& content);
std::string read_file(const std::string& path);
std::string read_text(const std::string& path);

}  // namespace kvtest

#if defined(_WIN32)
// The environment calls of the suites, on the process environment that the
// library reads.
int setenv(const char* name, const char* value, int overwrite);
int unsetenv(const char* name);
#endif
