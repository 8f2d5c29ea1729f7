// Helpers shared by the test suites.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "DebugManager.h"
#include "Zub/Core/LogManager.h"

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

// The message of the SysManagerError that body raises, or "(no abort)".
std::string abort_text(const std::function<void()>& body);

// "message @ line | signature" of the Zub::Core error that body raises, or "(no error)".
std::string raised(const std::function<void()>& body);

// Runs body in a forked child process and returns its wait status.
int run_in_child(const std::function<int()>& body);

// The DOS path of a host path (fails the test when it lies on no drive).
std::string dos_path(const std::string& host);

// The exit code of a child's wait status, or 1000 plus the signal that ended it.
int child_result(int status);

// Writes and reads whole host files.
void write_file(const std::string& path, const std::string& content);
std::string read_file(const std::string& path);

}  // namespace kvtest
