// The log manager: the debug, flight-recorder and parameter-change logs.
#include "LogMan.h"

#include <atomic>
#include <climits>
#include <mutex>
#include <new>

#include "DebugManager.h"
#include "Zub/Core/LogManager.h"
#include "debuglog.h"
#include "kvinit.h"
#include "kvos/process.h"
#include "sysman.h"

namespace CSL {
namespace {

constexpr const char* kDefaultHeader = "Debug Log. (Contents determined by filters set in debug box).\n";
constexpr const char* kInitializeSignature =
    "void __cdecl CSL::LogManager::Initialize(const class std::basic_string<char,struct "
    "std::char_traits<char>,class std::allocator<char> > &,long,long,bool)";

// Appends the lines the logging service hands its sinks to the debug log.
// Every write to the debug log, LogManager::LogMessage's included, holds its
// mutex, so lines of different threads never mix.
class DebugLogSink : public Zub::Core::LogSink {
 public:
  void Write(const std::string&, int, const std::string& text) override {
    std::lock_guard<std::mutex> lock(mutex);
    if (log == nullptr) return;
    // The line is already formatted: a "%" in it is text.
    if (text.find('%') == std::string::npos) {
      log->Write(text);
      return;
    }
    std::string literal;
    literal.reserve(text.size() + 8);
    for (char c : text) {
      if (c == '%') literal += '%';
      literal += c;
    }
    log->Write(literal);
  }

  std::mutex mutex;
  DebugLogFile* log = nullptr;                             // the open debug log; null before and after
  std::atomic<Zub::Core::LogManager*> service{nullptr};  // the service it is registered with
};

// The sink lives in storage that is never released: the logging service may
// still hold it after the logs are gone, and then it drops what it gets.
alignas(DebugLogSink) unsigned char g_sinkStorage[sizeof(DebugLogSink)];

struct Logs {
  Logs() : sink(*new (g_sinkStorage) DebugLogSink) {}
  ~Logs() {
    {
      std::lock_guard<std::mutex> lock(sink.mutex);
      sink.log = nullptr;
      debugOpened = flightRecorderOpened = parmChangeOpened = false;
    }
    Zub::Core::LogManager* service = sink.service.load();
    if (service != nullptr && service == Zub::Core::LogManager::Instance()) service->RemoveSink(&sink);
  }

  DebugLogSink& sink;
  DebugLogFile debug;
  DebugLogFile flightRecorder;
  DebugLogFile parmChange;
  bool debugOpened = false;
  bool flightRecorderOpened = false;
  bool parmChangeOpened = false;
  std::string header = kDefaultHeader;
};

Logs g_logs KV_INIT(KV_PRIO_LOG);

[[noreturn]] void raise_parameter_error(int line, const char* text) {
  LogManagerError error;
  Zub::Core::Error::RaiseError(error,
                               Zub::Core::CodeContext("System/LogMan", line, "CSL::LogManager::Initialize",
                                                      kInitializeSignature, KvBuildDate()),
                               text, false);
}

// Applies the rotation settings and opens the log unless it is open already.
void open_log(DebugLogFile& log, bool& opened, const std::string& path, int maxBytes, int maxFiles) {
  log.SetFileRotation(maxBytes, maxFiles);
  if (!opened || !log.IsOpen()) opened = log.Open(path.c_str(), true, g_logs.header.c_str(), true);
}

}  // namespace

LogManagerError::LogManagerError() : Zub::Core::LogicError("") { SetSeverity(2); }
LogManagerError::~LogManagerError() = default;
std::string LogManagerError::GetCategory() const { return "LogManager Error"; }

void LogManager::Initialize(const std::string& logDir, long maxFileNum, long maxSizeKB, bool allLogs) {
  try {
    if (logDir.empty()) raise_parameter_error(35, "SetDebugLogFileParms - Invalid log directory path");
    if (maxFileNum < 1 || maxFileNum > 1000) raise_parameter_error(38, "SetDebugLogFileParms - Invalid file number");
    // The byte limit is a 32-bit count.
    if (maxSizeKB < 1 || maxSizeKB > INT_MAX / 1024) raise_parameter_error(42, "SetDebugLogFileParms - Invalid file size");
    const int maxBytes = static_cast<int>(maxSizeKB) * 1024;
    const int maxFiles = static_cast<int>(maxFileNum);

    DebugLogSink& sink = g_logs.sink;
    bool debugOpen = false;
    {
      std::lock_guard<std::mutex> lock(sink.mutex);
      open_log(g_logs.debug, g_logs.debugOpened, logDir + "\\debuglog.log", maxBytes, maxFiles);
      debugOpen = g_logs.debugOpened;
      sink.log = debugOpen ? &g_logs.debug : nullptr;
    }
    // Registered outside the sink's mutex: the service calls sinks under its own lock.
    Zub::Core::LogManager* service = Zub::Core::LogManager::Instance();
    if (debugOpen && service != nullptr && sink.service.load() != service) {
      service->AddSink(&sink);
      sink.service.store(service);
    }
    if (allLogs) {
      open_log(g_logs.flightRecorder, g_logs.flightRecorderOpened, logDir + "\\FR001.log", maxBytes, maxFiles);
      open_log(g_logs.parmChange, g_logs.parmChangeOpened, logDir + "\\PC001.log", maxBytes, maxFiles);
    }
  } catch (...) {
    Debug("Error in LogManager::Initialize. Uncaught exception. Rethrowing.\n");
    throw;
  }
}

void LogManager::LogMessage(const std::string& text) {
  std::lock_guard<std::mutex> lock(g_logs.sink.mutex);
  if (g_logs.debugOpened) g_logs.debug.Write(text);
}

void LogManager::LogMessageToFlightRecorder(const std::string& text) {
  if (g_logs.flightRecorderOpened) g_logs.flightRecorder.Write(text);
}

void LogManager::LogMessageToParmChange(const std::string& text) {
  if (g_logs.parmChangeOpened) g_logs.parmChange.Write(text);
}

void LogManager::SetHeader(const std::string& text) {
  if (&text != &g_logs.header) g_logs.header = text;
}

void LogManager::TestDebugLogFiles(int count, bool terminate) {
  Debug("TestDebugLogFiles() called\n");
  if (count < 0) Debug("Error in TestDebugLogFiles. Parameters invalid.\n");
  for (int i = 1; i <= count; ++i) Debug("TestDebugLogFiles: msg #: %d of %d\n", i, count);
  if (terminate) kvos::process_terminate_now(255);
  Debug("TestDebugLogFiles() exit\n");
}

}  // namespace CSL
