// Parsing a 100-character path: pathname against std::filesystem's
// lexically_normal() on the equivalent POSIX text. A pathname parse should
// cost at most 1 microsecond.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "FILENAME.h"
#include "bench_support.h"

namespace {

// A 100-character DOS path with "." and ".." to resolve, and the same path
// in POSIX form (without the drive).
const char kDosPath[] = "C:\\Instruments\\Calibration\\2024\\Probe-07\\..\\Probe-08\\Scans\\.\\raw\\Session_0412\\measurement_000003.dat";
const char kPosixPath[] = "/Instruments/Calibration/2024/Probe-07/../Probe-08/Scans/./raw/Session_0412/measurement_000003.dat";
static_assert(sizeof kDosPath - 1 == 100);

void BM_PathnameParse(benchmark::State& state) {
  for (auto _ : state) {
    pathname p(kDosPath);
    benchmark::DoNotOptimize(p);
  }
}

void BM_DirnameParse(benchmark::State& state) {
  for (auto _ : state) {
    dirname d(kDosPath);
    benchmark::DoNotOptimize(d);
  }
}

void BM_FilesystemLexicallyNormal(benchmark::State& state) {
  for (auto _ : state) {
    std::filesystem::path p = std::filesystem::path(kPosixPath).lexically_normal();
    benchmark::DoNotOptimize(p);
  }
}

BENCHMARK(BM_PathnameParse);
BENCHMARK(BM_DirnameParse);
BENCHMARK(BM_FilesystemLexicallyNormal);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  kvbench::RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const auto& times = reporter.times();
  const auto ours = times.find("BM_PathnameParse");
  const auto theirs = times.find("BM_FilesystemLexicallyNormal");
  if (ours != times.end() && theirs != times.end() && theirs->second > 0.0) {
    std::printf("\npathname parse of a 100-character path: %.0f ns (limit 1000 ns: %s)\n", ours->second,
                ours->second <= 1000.0 ? "ok" : "OVER");
    std::printf("ratio pathname / std::filesystem::path::lexically_normal: %.2f\n", ours->second / theirs->second);
  }
  benchmark::Shutdown();
  return 0;
}
