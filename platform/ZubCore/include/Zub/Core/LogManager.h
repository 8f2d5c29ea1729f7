// The logging service: named loggers, each with a 32-bit severity-filter word
// (a line of severity s is written only when bit s is set), and sinks that
// receive the formatted lines.
//
// Start-up configuration from the environment:
//   KVCORE_DEBUG  names whose debug bit starts set, separated by "," or ";"
//                 ("CSL,Motion,Verbose"); a name matches a logger of that full
//                 name or whose last dotted component it is, ignoring case;
//                 "all" matches every logger.
//   KVCORE_LOG    where lines go: "stderr", "file:PATH" or "none". Unset, lines
//                 go to the debugger output stream, which is silent unless a
//                 debugger is attached.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "Zub/Core/Export.h"

namespace Zub {
namespace Core {

// Severities of log lines; the filter bit of severity s is 1 << s.
enum ZubLogSeverityEnum {
  ZubLogFatal = 0,
  ZubLogError = 1,
  ZubLogWarning = 2,
  ZubLogInfo = 3,
  ZubLogDebug = 4,
  ZubLogTrace = 5,
};

// Receives every line that passes a logger's filter.
struct ZUB_API LogSink {
  virtual ~LogSink();
  virtual void Write(const std::string& loggerName, int severity, const std::string& text) = 0;
};

// Writes lines to standard error as they are.
class ZUB_API StderrLogSink : public LogSink {
 public:
  void Write(const std::string& loggerName, int severity, const std::string& text) override;
};

// Appends lines to a file, flushing after each.
class ZUB_API FileLogSink : public LogSink {
 public:
  explicit FileLogSink(const std::string& path);
  ~FileLogSink() override;
  bool IsOpen() const noexcept { return m_file != nullptr; }
  void Write(const std::string& loggerName, int severity, const std::string& text) override;

 private:
  std::FILE* m_file;
};

// Writes lines to the debugger output stream.
class ZUB_API DebuggerLogSink : public LogSink {
 public:
  void Write(const std::string& loggerName, int severity, const std::string& text) override;
};

class LogManager;

class ZUB_API Logger {
 public:
  Logger(LogManager& manager, const std::string& name, uint32_t filters);
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  const std::string& GetName() const noexcept { return m_name; }
  uint32_t GetSeverityFilters() const noexcept { return m_filters.load(std::memory_order_relaxed); }
  void SetSeverityFilters(uint32_t filters) noexcept { m_filters.store(filters, std::memory_order_relaxed); }
  bool IsEnabled(int severity) const noexcept {
    return severity >= 0 && severity < 32 && (GetSeverityFilters() & (1u << severity)) != 0;
  }

  // Formats format with the caller's arguments and hands the line to the
  // sinks, when the severity passes the filter. args points to a va_list
  // object; a function that receives a va_list parameter va_copy's it into a
  // local first. The list is not consumed.
  void WriteLogVarArgs(int severity, const std::string& format, const void* args);

  // The same with the arguments given here.
  void WriteLog(int severity, const char* format, ...) ZUB_PRINTF(3, 4);

 private:
  LogManager& m_manager;
  std::string m_name;
  std::atomic<uint32_t> m_filters;
};

class ZUB_API LogManager {
 public:
  // Filter word of a new logger that no start-up rule names: fatal, error, warning.
  static constexpr uint32_t kDefaultFilters = 0x07;

  // The service, or null when there is none.
  static LogManager* Instance();
  // Replaces the service (null: no service) and returns the previous one.
  // The caller owns both; the built-in service is never destroyed.
  static LogManager* Install(LogManager* service);
  // Counts the installations: a cache of loggers is valid while this is unchanged.
  static uint64_t Generation();

  LogManager();
  LogManager(const LogManager&) = delete;
  LogManager& operator=(const LogManager&) = delete;
  ~LogManager();

  // The logger of that name, created on first use.
  std::shared_ptr<Logger> GetLogger(const std::string& name);
  uint32_t GetSeverityFilters(const std::string& name);
  void SetSeverityFilters(const std::string& name, uint32_t filters);

  // Sinks are not owned; AdoptSink hands one over to the manager.
  void AddSink(LogSink* sink);
  void RemoveSink(LogSink* sink);
  void AdoptSink(std::unique_ptr<LogSink> sink);
  void RemoveAllSinks();

  // Names whose debug bit is set when their logger is created (see KVCORE_DEBUG).
  void SetDebugRules(const std::string& rules);

  // Reads KVCORE_DEBUG and KVCORE_LOG as described at the top of this file.
  void ConfigureFromEnvironment();

  // Delivers one formatted line to every sink, one line at a time.
  void Dispatch(const std::string& loggerName, int severity, const std::string& text);

 private:
  uint32_t InitialFilters(const std::string& name) const;

  mutable std::mutex m_loggersMutex;
  std::unordered_map<std::string, std::shared_ptr<Logger>> m_loggers;
  std::vector<std::string> m_debugRules;

  std::recursive_mutex m_sinksMutex;
  std::vector<LogSink*> m_sinks;
  std::vector<std::unique_ptr<LogSink>> m_ownedSinks;
};

}  // namespace Core
}  // namespace Zub
