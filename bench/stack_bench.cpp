// Stack dumps: loading and sorting a map file of 50,000 symbols, and a whole
// GetStackInformation of a 30-frame chain named through that map and appended
// to dump.tab, against the C library's backtrace() with backtrace_symbols()
// (which names only exported symbols and writes nothing).
#include <execinfo.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "StackWriter.h"
#include "bench_support.h"
#include "kvos/drives.h"
#include "kvos/module.h"

extern "C" {
__attribute__((noinline)) void bench_stack_anchor() { asm volatile(""); }

// Recurses to depth frames, then runs the dump at the end of the chain.
__attribute__((noinline)) void bench_chain(int depth, void (*dump)()) {
  if (depth <= 1)
    dump();
  else
    bench_chain(depth - 1, dump);
  asm volatile("" ::: "memory");
}
}

namespace {

constexpr int kFrames = 30;
constexpr size_t kSymbols = 50000;

// A scratch directory holding the 50,000-symbol map: this program's own map
// (written at build time) and filler functions above its code.
struct Scratch {
  Scratch() {
    host = std::filesystem::temp_directory_path() / ("kvbench-stack-" + std::to_string(::getpid()));
    std::filesystem::create_directories(host);
    if (!kvos::host_to_dos(host.string(), dos)) throw std::runtime_error("the scratch directory has no DOS name");
    std::ifstream own(kvos::executable_path() + ".map", std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(own)), std::istreambuf_iterator<char>());
    size_t symbols = 0;
    for (size_t at = text.find("\n 0001:"); at != std::string::npos; at = text.find("\n 0001:", at + 1)) ++symbols;
    if (symbols == 0) {
      std::fprintf(stderr, "stack_bench: %s.map is missing or empty\n", kvos::executable_path().c_str());
      std::exit(1);
    }
    char line[128];
    for (size_t i = symbols; i < kSymbols; ++i) {
      std::snprintf(line, sizeof line, " 0001:%08zX       filler_%06zu              %016zX f\r\n", i * 64, i,
                    0x10000000 + i * 64);
      text += line;
    }
    std::ofstream(host / "bench.map", std::ios::binary) << text;
    map = dos + "\\bench.map";
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(host, ignored);
  }
  std::filesystem::path host;
  std::string dos, map;
};

Scratch& scratch() {
  static Scratch instance;
  return instance;
}

int64_t anchor_address() { return static_cast<int64_t>(reinterpret_cast<uint64_t>(&bench_stack_anchor)); }

void BM_MapLoadAndSort50k(benchmark::State& state) {
  const std::string& map = scratch().map;
  for (auto _ : state) {
    CSL::CTranslateRawStackInfo reader(map);
    if (!reader.LoadMapFile() || !reader.BuildSymbolTable("bench_stack_anchor", anchor_address())) {
      state.SkipWithError("the map could not be used");
      break;
    }
    benchmark::DoNotOptimize(reader.GetNumberOfSymbols());
  }
}

std::string g_report;

void BM_StackDump30Frames(benchmark::State& state) {
  CStackWriter::InjectMapFilePath(scratch().map);
  CStackWriter::InjectSymbolOffset("bench_stack_anchor", anchor_address());
  CStackWriter::SetDumpDotTabPath(scratch().dos);
  for (auto _ : state) bench_chain(kFrames, [] { g_report = CStackWriter::GetStackInformation("bench"); });
  if (g_report.find("bench_chain+") == std::string::npos) state.SkipWithError("the frames were not named");
  CStackWriter::InjectMapFilePath("");
  CStackWriter::SetDumpDotTabPath("");
}

void BM_BacktraceSymbols30Frames(benchmark::State& state) {
  for (auto _ : state)
    bench_chain(kFrames, [] {
      void* frames[64];
      const int count = backtrace(frames, 64);
      char** names = backtrace_symbols(frames, count);
      benchmark::DoNotOptimize(names);
      std::free(names);
    });
}

BENCHMARK(BM_MapLoadAndSort50k)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StackDump30Frames)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BacktraceSymbols30Frames)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return kvbench::run_with_ratios(
      argc, argv, {{"stack dump / backtrace_symbols", "BM_StackDump30Frames", "BM_BacktraceSymbols30Frames", 0.0}},
      {{"map load + sort, 50k symbols (ms)", "BM_MapLoadAndSort50k", 50.0},
       {"GetStackInformation, 30 frames, 50k-symbol map (ms)", "BM_StackDump30Frames", 100.0}});
}
