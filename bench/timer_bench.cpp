// Timing services: the cost of a clock reading, the lateness of a Timer, and
// the cost of a crash-safe FileWrite against a plain write, fsync and rename.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "kvos/drives.h"
#include "sysman.h"
#include "timers.h"

namespace {

void BM_TimerUsLargeInt(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(timer_us_large_int());
}

void BM_SteadyClockNow(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(std::chrono::steady_clock::now());
}

// Lateness of a 50 ms timer over 100 runs, against a 50 ms sleep.
template <typename Run>
void lateness(benchmark::State& state, Run run) {
  std::vector<double> late;
  for (auto _ : state) {
    late.clear();
    for (int i = 0; i < 100; ++i) {
      const auto start = std::chrono::steady_clock::now();
      run();
      late.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
  }
  std::sort(late.begin(), late.end());
  state.counters["p50_ms"] = late[49];
  state.counters["p99_ms"] = late[98];
  state.counters["max_ms"] = late[99];
}

void BM_Timer50msUntilDone(benchmark::State& state) {
  lateness(state, [] {
    Timer timer(0.05);
    timer.Wait();
    benchmark::DoNotOptimize(timer.Done());
  });
}

void BM_SleepFor50ms(benchmark::State& state) {
  lateness(state, [] { std::this_thread::sleep_for(std::chrono::milliseconds(50)); });
}

// 1 MiB written crash-safely to the same target, again and again.
struct Target {
  std::filesystem::path dir;
  std::string host, dos;
  std::string data = std::string(1 << 20, 'k');
  Target() {
    dir = std::filesystem::temp_directory_path() / ("kvbench-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    host = (dir / "target.bin").string();
    if (!kvos::host_to_dos(host, dos)) throw std::runtime_error("the scratch directory has no DOS name");
  }
  ~Target() {
    std::error_code error;
    std::filesystem::remove_all(dir, error);
  }
};

void BM_FileWrite1MiB(benchmark::State& state) {
  Target target;
  SysFileioBuffer list[] = {{target.data.data(), 0, target.data.size()}, {nullptr, 0, 0}};
  for (auto _ : state)
    if (!SysManager::FileWrite(target.dos.c_str(), list, 0)) state.SkipWithError("FileWrite failed");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(target.data.size()));
}

// The plain alternative: write a temporary, fsync it, rename it over the
// target; with syncDirectory, flush the directory afterwards as FileWrite does.
void plain_write_fsync_rename(benchmark::State& state, bool syncDirectory) {
  Target target;
  const std::string temp = target.host + ".tmp";
  for (auto _ : state) {
    const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0 || write(fd, target.data.data(), target.data.size()) != static_cast<ssize_t>(target.data.size()) ||
        fsync(fd) != 0 || close(fd) != 0 || rename(temp.c_str(), target.host.c_str()) != 0)
      state.SkipWithError("plain write failed");
    if (!syncDirectory) continue;
    const int dirFd = open(target.dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd < 0 || fsync(dirFd) != 0 || close(dirFd) != 0) state.SkipWithError("directory flush failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(target.data.size()));
}

void BM_PlainWriteFsyncRename1MiB(benchmark::State& state) { plain_write_fsync_rename(state, false); }
void BM_PlainWriteFsyncRenameDirSync1MiB(benchmark::State& state) { plain_write_fsync_rename(state, true); }

BENCHMARK(BM_TimerUsLargeInt);
BENCHMARK(BM_SteadyClockNow);
BENCHMARK(BM_Timer50msUntilDone)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SleepFor50ms)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FileWrite1MiB)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PlainWriteFsyncRename1MiB)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PlainWriteFsyncRenameDirSync1MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  return kvbench::run_with_ratios(
      argc, argv,
      {{"timer_us_large_int / steady_clock::now", "BM_TimerUsLargeInt", "BM_SteadyClockNow", 0.0},
       {"Timer(0.05) until Done / sleep_for(50 ms), 100 runs", "BM_Timer50msUntilDone/iterations:1/real_time",
        "BM_SleepFor50ms/iterations:1/real_time", 0.0},
       {"FileWrite 1 MiB / write+fsync+rename", "BM_FileWrite1MiB/real_time", "BM_PlainWriteFsyncRename1MiB/real_time",
        0.0},
       {"FileWrite 1 MiB / write+fsync+rename+directory fsync", "BM_FileWrite1MiB/real_time",
        "BM_PlainWriteFsyncRenameDirSync1MiB/real_time", 0.0}});
}
