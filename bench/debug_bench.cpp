// Debug output: the cost of a category that is off, and of one that is on
// (into a sink that discards) against snprintf of the same line.
#include <cstdio>

#include "DebugManager.h"
#include "Zub/Core/LogManager.h"
#include "bench_support.h"

namespace {

struct DiscardSink : Zub::Core::LogSink {
  size_t bytes = 0;
  void Write(const std::string&, int, const std::string& text) override { bytes += text.size(); }
};

// A logging service of the benchmark's own, whose only sink discards.
struct Service {
  Zub::Core::LogManager manager;
  DiscardSink sink;
  Zub::Core::LogManager* previous;
  Service() {
    manager.AddSink(&sink);
    previous = Zub::Core::LogManager::Install(&manager);
  }
  ~Service() { Zub::Core::LogManager::Install(previous); }
};

void BM_DebugCategoryOff(benchmark::State& state) {
  Service service;
  CSL::DebugManager::DebugFlagSet(dbgMotion, false);
  int i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(Debug(dbgMotion, "stage %d at %.3f um, state %s\n", ++i, 12.5, "idle"));
}

void BM_DebugCategoryOn(benchmark::State& state) {
  Service service;
  CSL::DebugManager::DebugFlagSet(dbgMotion, true);
  int i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(Debug(dbgMotion, "stage %d at %.3f um, state %s\n", ++i, 12.5, "idle"));
  benchmark::DoNotOptimize(service.sink.bytes);
}

void BM_Snprintf(benchmark::State& state) {
  char line[256];
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(std::snprintf(line, sizeof line, "stage %d at %.3f um, state %s\n", ++i, 12.5, "idle"));
    benchmark::ClobberMemory();
  }
}

BENCHMARK(BM_DebugCategoryOff);
BENCHMARK(BM_DebugCategoryOn);
BENCHMARK(BM_Snprintf);

}  // namespace

int main(int argc, char** argv) {
  return kvbench::run_with_ratios(argc, argv,
                                  {{"Debug on (discarding sink) / snprintf", "BM_DebugCategoryOn", "BM_Snprintf", 2.0}});
}
