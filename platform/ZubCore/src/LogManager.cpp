// The logging service.
#include "Zub/Core/LogManager.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "kvos/debugger.h"
#include "kvtext/text.h"

namespace Zub {
namespace Core {

LogSink::~LogSink() = default;

void StderrLogSink::Write(const std::string&, int, const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

FileLogSink::FileLogSink(const std::string& path) : m_file(std::fopen(path.c_str(), "ae")) {}

FileLogSink::~FileLogSink() {
  if (m_file != nullptr) std::fclose(m_file);
}

void FileLogSink::Write(const std::string&, int, const std::string& text) {
  if (m_file == nullptr) return;
  std::fwrite(text.data(), 1, text.size(), m_file);
  std::fflush(m_file);
}

void DebuggerLogSink::Write(const std::string&, int, const std::string& text) {
  kvos::debugger_output(text.c_str());
}

Logger::Logger(LogManager& manager, const std::string& name, uint32_t filters)
    : m_manager(manager), m_name(name), m_filters(filters) {}

void Logger::WriteLogVarArgs(int severity, const std::string& format, const void* args) {
  if (!IsEnabled(severity) || args == nullptr) return;
  // One line buffer per thread, so that a line costs no allocation once warm.
#if defined(__MINGW32__)
  // mingw-w64 emulates thread-local storage and frees a thread's block before
  // the destructors of its objects run: the buffer is kept for the process.
  thread_local std::string* buffer = nullptr;
  if (buffer == nullptr) buffer = new std::string();
  std::string& line = *buffer;
#else
  thread_local std::string line;
#endif
  if (kvtext::format_into(line, format.c_str(), *static_cast<va_list*>(const_cast<void*>(args))) < 0) return;
  m_manager.Dispatch(m_name, severity, line);
}

void Logger::WriteLog(int severity, const char* format, ...) {
  if (format == nullptr) return;
  va_list ap;
  va_start(ap, format);
  WriteLogVarArgs(severity, format, &ap);
  va_end(ap);
}

namespace {

std::atomic<LogManager*> g_service{nullptr};
std::atomic<bool> g_replaced{false};
std::atomic<uint64_t> g_generation{1};

LogManager* builtin_service() {
  // Never destroyed: lines may be logged during static destruction.
  static LogManager* const service = [] {
    auto* manager = new LogManager();
    manager->ConfigureFromEnvironment();
    return manager;
  }();
  return service;
}

// Configure from the environment when the library is loaded.
__attribute__((constructor)) void load_log_service() { (void)builtin_service(); }

}  // namespace

LogManager* LogManager::Instance() {
  if (g_replaced.load(std::memory_order_acquire)) return g_service.load(std::memory_order_acquire);
  return builtin_service();
}

LogManager* LogManager::Install(LogManager* service) {
  LogManager* previous = Instance();
  g_service.store(service, std::memory_order_release);
  g_replaced.store(true, std::memory_order_release);
  g_generation.fetch_add(1, std::memory_order_acq_rel);
  return previous;
}

uint64_t LogManager::Generation() { return g_generation.load(std::memory_order_acquire); }

LogManager::LogManager() = default;
LogManager::~LogManager() = default;

uint32_t LogManager::InitialFilters(const std::string& name) const {
  const std::string lowered = kvtext::ascii_lower(name);
  const size_t dot = lowered.rfind('.');
  const std::string last = dot == std::string::npos ? lowered : lowered.substr(dot + 1);
  for (const std::string& rule : m_debugRules)
    if (rule == "all" || rule == lowered || rule == last) return kDefaultFilters | (1u << ZubLogDebug);
  return kDefaultFilters;
}

std::shared_ptr<Logger> LogManager::GetLogger(const std::string& name) {
  std::lock_guard<std::mutex> lock(m_loggersMutex);
  auto it = m_loggers.find(name);
  if (it != m_loggers.end()) return it->second;
  auto logger = std::make_shared<Logger>(*this, name, InitialFilters(name));
  m_loggers.emplace(name, logger);
  return logger;
}

uint32_t LogManager::GetSeverityFilters(const std::string& name) { return GetLogger(name)->GetSeverityFilters(); }

void LogManager::SetSeverityFilters(const std::string& name, uint32_t filters) {
  GetLogger(name)->SetSeverityFilters(filters);
}

void LogManager::AddSink(LogSink* sink) {
  if (sink == nullptr) return;
  std::lock_guard<std::recursive_mutex> lock(m_sinksMutex);
  if (std::find(m_sinks.begin(), m_sinks.end(), sink) == m_sinks.end()) m_sinks.push_back(sink);
}

void LogManager::RemoveSink(LogSink* sink) {
  std::lock_guard<std::recursive_mutex> lock(m_sinksMutex);
  m_sinks.erase(std::remove(m_sinks.begin(), m_sinks.end(), sink), m_sinks.end());
  m_ownedSinks.erase(std::remove_if(m_ownedSinks.begin(), m_ownedSinks.end(),
                                    [sink](const std::unique_ptr<LogSink>& s) { return s.get() == sink; }),
                     m_ownedSinks.end());
}

void LogManager::AdoptSink(std::unique_ptr<LogSink> sink) {
  if (!sink) return;
  std::lock_guard<std::recursive_mutex> lock(m_sinksMutex);
  m_sinks.push_back(sink.get());
  m_ownedSinks.push_back(std::move(sink));
}

void LogManager::RemoveAllSinks() {
  std::lock_guard<std::recursive_mutex> lock(m_sinksMutex);
  m_sinks.clear();
  m_ownedSinks.clear();
}

void LogManager::SetDebugRules(const std::string& rules) {
  std::vector<std::string> parsed;
  for (const std::string& part : kvtext::split(rules, ",;")) {
    const std::string_view item = kvtext::trim_ascii_ws(part);
    if (!item.empty()) parsed.push_back(kvtext::ascii_lower(std::string(item)));
  }
  std::lock_guard<std::mutex> lock(m_loggersMutex);
  m_debugRules = parsed;
  for (auto& [name, logger] : m_loggers) {
    const uint32_t debugBit = InitialFilters(name) & (1u << ZubLogDebug);
    if (debugBit != 0) logger->SetSeverityFilters(logger->GetSeverityFilters() | debugBit);
  }
}

void LogManager::ConfigureFromEnvironment() {
  if (const char* rules = std::getenv("KVCORE_DEBUG")) SetDebugRules(rules);
  const char* target = std::getenv("KVCORE_LOG");
  RemoveAllSinks();
  if (target == nullptr) {
    AdoptSink(std::make_unique<DebuggerLogSink>());
  } else if (std::strcmp(target, "none") == 0) {
    // No sink: lines are dropped.
  } else if (std::strcmp(target, "stderr") == 0) {
    AdoptSink(std::make_unique<StderrLogSink>());
  } else if (std::strncmp(target, "file:", 5) == 0 && target[5] != '\0') {
    auto sink = std::make_unique<FileLogSink>(target + 5);
    if (sink->IsOpen()) {
      AdoptSink(std::move(sink));
    } else {
      std::fprintf(stderr, "KVCORE_LOG: cannot open \"%s\" for appending; logging is off\n", target + 5);
    }
  } else {
    std::fprintf(stderr, "KVCORE_LOG: unknown target \"%s\" (expected stderr, file:PATH or none); using stderr\n",
                 target);
    AdoptSink(std::make_unique<StderrLogSink>());
  }
}

void LogManager::Dispatch(const std::string& loggerName, int severity, const std::string& text) {
  std::lock_guard<std::recursive_mutex> lock(m_sinksMutex);
  for (LogSink* sink : m_sinks) sink->Write(loggerName, severity, text);
}

}  // namespace Core
}  // namespace Zub
