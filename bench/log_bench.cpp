// Log files: a 100-byte line through LogManager::LogMessage (written, flushed
// and rotated by size) against a rotating file sink that flushes every line,
// with the same size limit and file count; and debug category output with the
// debug log open, from 4 threads (lines per second).
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include "DebugManager.h"
#include "LogMan.h"
#include "bench_support.h"
#include "kvos/drives.h"

namespace {

namespace fs = std::filesystem;

constexpr long kMaxSizeKB = 1024;
constexpr long kFiles = 5;

// A fresh directory below the temporary directory for each contender.
struct BenchDirectory {
  fs::path host;
  std::string dos;
  explicit BenchDirectory(const char* name) {
    std::error_code ec;
    host = fs::temp_directory_path(ec) /
           (std::string(name) + "-" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
    fs::create_directories(host, ec);
    if (!kvos::host_to_dos(host.string(), dos)) throw std::runtime_error("the scratch directory has no DOS name");
  }
  ~BenchDirectory() {
    std::error_code ec;
    fs::remove_all(host, ec);
  }
};

BenchDirectory& ours() {
  static BenchDirectory dir("kv-log-bench");
  return dir;
}

BenchDirectory& theirs() {
  static BenchDirectory dir("kv-rotating-bench");
  return dir;
}

// 99 characters; with the line end each line is 100 bytes in both files.
const std::string kText = "stage 3 moved to x=12.500 um y=-4.250 um; settle 1.25 ms; vacuum ok; chuck 2 locked; wafer 0007";

void open_debug_log() {
  static const bool opened = [] {
    CSL::LogManager::Initialize(ours().dos, kFiles, kMaxSizeKB, false);
    return true;
  }();
  (void)opened;
}

void BM_LogManagerLine(benchmark::State& state) {
  open_debug_log();
  const std::string line = kText + "\n";
  for (auto _ : state) CSL::LogManager::LogMessage(line);
}

void BM_RotatingFileSinkLine(benchmark::State& state) {
  auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>((theirs().host / "rotating.log").string(),
                                                                     kMaxSizeKB * 1024, kFiles);
  spdlog::logger logger("bench", sink);
  logger.set_pattern("%v");
  logger.flush_on(spdlog::level::trace);
  for (auto _ : state) logger.info(kText);
}

void BM_DebugCategoryIntoLog(benchmark::State& state) {
  if (state.thread_index() == 0) {
    open_debug_log();
    CSL::DebugManager::DebugFlagSet(dbgMotion, true);
  }
  int i = 0;
  for (auto _ : state) Debug(dbgMotion, "stage %d at %.3f um, thread %d, state %s\n", ++i, 12.5, state.thread_index(), "idle");
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) CSL::DebugManager::DebugFlagSet(dbgMotion, false);
}

BENCHMARK(BM_LogManagerLine);
BENCHMARK(BM_RotatingFileSinkLine);
BENCHMARK(BM_DebugCategoryIntoLog)->Threads(4)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  return kvbench::run_with_ratios(
      argc, argv,
      {{"LogMessage / rotating file sink (flush each line)", "BM_LogManagerLine", "BM_RotatingFileSinkLine", 1.5}});
}
