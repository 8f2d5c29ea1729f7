// The library's three text logs, opened in one directory at start-up: the
// debug log ("debuglog.log"), the flight-recorder log ("FR001.log") and the
// parameter-change log ("PC001.log"), each rotated by size (see debuglog.h).
// Messages reach a log only once it has been opened; before that they are
// dropped without a word.
//
// Once the debug log is open, every line that the logging service hands its
// sinks (the debug categories that are switched on, and any other logger's
// lines that pass its filter) is appended to it too, one whole line at a time
// whichever thread writes it.
#pragma once

#include <string>

#include "KvExport.h"
#include "Zub/Core/Error.h"

namespace CSL {

// Raised by LogManager::Initialize for bad parameters ("LogManager Error",
// severity 2).
class KVCORE_API LogManagerError : public Zub::Core::LogicError {
 public:
  LogManagerError();
  ~LogManagerError() override;
  std::string GetCategory() const override;  // "LogManager Error"
  ZUB_ERROR_COPY_OPERATIONS(LogManagerError)
};

class KVCORE_API LogManager {
 public:
  LogManager& operator=(const LogManager&) { return *this; }

  // Checks the parameters before anything is opened (LogManagerError for an
  // empty directory, a file count outside 1..1000 or a size below 1 KB or
  // beyond 2 GB), applies the rotation settings, and opens the debug log
  // and, with allLogs, the other two, in logDir (a DOS path without a
  // trailing separator). A log already open stays where it is; one that could
  // not be opened is tried again.
  static void Initialize(const std::string& logDir, long maxFileNum, long maxSizeKB, bool allLogs);

  static void LogMessage(const std::string& text);
  static void LogMessageToFlightRecorder(const std::string& text);
  static void LogMessageToParmChange(const std::string& text);

  // The text at the top of every new or emptied log file; takes effect for
  // logs opened later.
  static void SetHeader(const std::string& text);

  // A self-test of the debug output, in category "A": a start line, count
  // numbered lines and an end line. With terminate the process ends at once
  // after the numbered lines, with status 255 and no orderly shutdown.
  static void TestDebugLogFiles(int count, bool terminate);
};

}  // namespace CSL

using CSL::LogManagerError;
