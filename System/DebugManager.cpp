// Categorised debug output through the logging service.
#include "DebugManager.h"

#include <array>
#include <atomic>
#include <cstdarg>

#include "Zub/Core/LogManager.h"
#include "Zub/Core/Mutex.h"
#include "kvinit.h"

static_assert(dbgCSL == 11 && dbgZoom == 51 && dbgVerbose == 53 && DebugTypeCount == 57,
              "category values are stored in settings and must not move");

namespace CSL {
namespace {

const char* const kCategoryNames[DebugTypeCount] = {
    "Never",     "A",          "6811",       "Airtable",        "AutoProg",
    "AutoRt",    "AutoTune",   "AutoStatus", "Browse",          "CIAO",
    "COM",       "CSL",        "DataSource", "DLL",             "DSP",
    "EFEM",      "Engage",     "FacilityMonitor", "Fan",        "Feedforward",
    "FileInt",   "FileMan",    "FR",         "Force",           "Gar",
    "GarTarget", "Gem",        "GemDriver",  "Gui",             "HeapDump",
    "Help",      "Illuminator", "Lithography", "Motion",        "Mouse",
    "Pelmar",    "PC",         "Profiler",   "QControl",        "SayError",
    "Serial",    "SMIF",       "Stage",      "TCPIP",           "Thruput_dbg",
    "Timer",     "TipQual",    "TipX",       "TipXMonitor",     "UniversalCoordinate",
    "Vision",    "Zoom",       "TimeStamp",  "Verbose",         "LogAllChecked",
    "LogDLL",    "LogDebugAll",
};

constexpr int kDebugBit = 1 << Zub::Core::ZubLogDebug;  // 16
constexpr int kFirstOutput = dbgA;
constexpr int kLastOutput = dbgZoom;

bool in_range(DebugType type) { return static_cast<unsigned>(type) < DebugTypeCount; }
bool is_output(DebugType type) { return type >= kFirstOutput && type <= kLastOutput; }

std::string logger_name(DebugType type) { return std::string("Korvalis.") + kCategoryNames[type]; }

// Serialises category output across threads.
Zub::Core::Mutex g_outputMutex KV_INIT(KV_PRIO_DEBUG);

const Zub::Core::Elapse kForever KV_INIT(KV_PRIO_DEBUG)(0x7FFFFFFF, 3);

// Loggers of the output categories for the current service, looked up once.
// The service owns them for its lifetime; the pointers are dropped whenever a
// service is installed (a new service may sit at an old one's address).
std::atomic<uint64_t> g_cacheGeneration{0};
std::array<std::atomic<Zub::Core::Logger*>, DebugTypeCount> g_cache{};

Zub::Core::Logger* category_logger(Zub::Core::LogManager* service, DebugType type) {
  const uint64_t generation = Zub::Core::LogManager::Generation();
  if (g_cacheGeneration.load(std::memory_order_acquire) == generation) {
    if (Zub::Core::Logger* logger = g_cache[type].load(std::memory_order_acquire)) return logger;
  }
  Zub::Core::Lock lock(g_outputMutex, kForever);
  if (g_cacheGeneration.load(std::memory_order_acquire) != generation) {
    for (auto& slot : g_cache) slot.store(nullptr, std::memory_order_relaxed);
    g_cacheGeneration.store(generation, std::memory_order_release);
  }
  Zub::Core::Logger* logger = service->GetLogger(logger_name(type)).get();
  g_cache[type].store(logger, std::memory_order_release);
  return logger;
}

int output_va(DebugType type, const char* format, va_list* args) {
  if (format == nullptr || !DebugManager::IsOutputOn(type)) return -1;
  return DebugManager::DebugOutput(type, format, args);
}

}  // namespace

void DebugManager::DebugFlagSet(DebugType type, bool on) {
  Zub::Core::LogManager* service = Zub::Core::LogManager::Instance();
  if (!in_range(type) || service == nullptr) return;
  const std::string name = logger_name(type);
  service->GetLogger(name);
  uint32_t word = service->GetSeverityFilters(name);
  word = on ? (word | kDebugBit) : (word & ~static_cast<uint32_t>(kDebugBit));
  service->SetSeverityFilters(name, word);
}

bool DebugManager::DebugFlagTest(DebugType type) {
  Zub::Core::LogManager* service = Zub::Core::LogManager::Instance();
  if (!in_range(type) || service == nullptr) return false;
  return (service->GetSeverityFilters(logger_name(type)) & kDebugBit) != 0;
}

std::string DebugManager::DebugFlagString(DebugType type) {
  return in_range(type) ? std::string(kCategoryNames[type]) : std::string();
}

bool DebugManager::IsOutputOn(DebugType type) {
  if (!is_output(type)) return false;
  Zub::Core::LogManager* service = Zub::Core::LogManager::Instance();
  if (service == nullptr) return false;
  return category_logger(service, type)->IsEnabled(Zub::Core::ZubLogDebug);
}

int DebugManager::DebugOutput(DebugType type, const std::string& format, const void* args) {
  Zub::Core::Lock lock(g_outputMutex, kForever);
  Zub::Core::LogManager* service = Zub::Core::LogManager::Instance();
  if (is_output(type) && service != nullptr) {
    if (Zub::Core::Logger* logger = category_logger(service, type))
      logger->WriteLogVarArgs(Zub::Core::ZubLogDebug, format, args);
  }
  return -1;
}

}  // namespace CSL

int Debug(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int result = CSL::output_va(dbgA, format, &args);
  va_end(args);
  return result;
}

int Debug(DebugType type, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int result = CSL::output_va(type, format, &args);
  va_end(args);
  return result;
}

int Debug(DebugType type, int condition, const char* format, ...) {
  if (condition == 0 || !CSL::DebugManager::DebugFlagTest(dbgVerbose)) return -1;
  va_list args;
  va_start(args, format);
  const int result = CSL::output_va(type, format, &args);
  va_end(args);
  return result;
}
