// The serial line: 1 MiB through a null-modem pair of pseudo-terminals in
// 4 KiB CommIo writes and reads, and one-byte round trips (the far end
// echoes), through the serial line manager against python3-serial doing the
// same over the same kind of pair in the same run.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "KVRS232.h"
#include "Rs232if.h"
#include "bench_support.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kMove = 1 << 20;

std::string device_of(int port) {
  char device[256] = "";
  KvRS232PortDevice(port, device, sizeof device);
  return device;
}

// Both ends of a cable, open through the serial line manager.
struct OurPair {
  void* cable = nullptr;
  void* a = nullptr;
  void* b = nullptr;
  bool ok = false;
  OurPair() {
    ok = KvRS232NullModemOpen(&cable, 901, 902) == KVRS232_OK && Rs232if.CommOpen(&a, 901) == KVRS232_OK &&
         Rs232if.CommOpen(&b, 902) == KVRS232_OK && Rs232if.CommSetReadTimeout(a, 0, 0, 10000) == KVRS232_OK &&
         Rs232if.CommSetReadTimeout(b, 0, 0, 10000) == KVRS232_OK;
  }
  ~OurPair() {
    Rs232if.CommClose(&a);
    Rs232if.CommClose(&b);
    KvRS232NullModemClose(&cable);
  }
};

// python3-serial on both ends of another cable, driven over two pipes.
class PythonPeer {
 public:
  PythonPeer() {
    if (KvRS232NullModemOpen(&cable_, 903, 904) != KVRS232_OK) return;
    int toChild[2], fromChild[2];
    if (pipe(toChild) != 0 || pipe(fromChild) != 0) return;
    const std::string a = device_of(903), b = device_of(904);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(toChild[0], 0);
      dup2(fromChild[1], 1);
      close(toChild[1]);
      close(fromChild[0]);
      // Debian's python3-serial belongs to the system's interpreter.
      execl("/usr/bin/python3", "python3", KV_SERIAL_BENCH_PEER, a.c_str(), b.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    close(toChild[0]);
    close(fromChild[1]);
    to_ = fdopen(toChild[1], "w");
    from_ = fdopen(fromChild[0], "r");
    ok_ = pid_ > 0 && ask("") == "ready";
  }
  ~PythonPeer() {
    if (to_ != nullptr) fclose(to_);
    if (from_ != nullptr) fclose(from_);
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
    KvRS232NullModemClose(&cable_);
  }
  bool ok() const { return ok_; }
  // Sends a command (none when empty) and returns the answer line.
  std::string ask(const std::string& command) {
    if (!command.empty()) {
      std::fprintf(to_, "%s\n", command.c_str());
      std::fflush(to_);
    }
    char line[256] = "";
    if (std::fgets(line, sizeof line, from_) == nullptr) return std::string();
    std::string answer = line;
    if (!answer.empty() && answer.back() == '\n') answer.pop_back();
    return answer;
  }

 private:
  void* cable_ = nullptr;
  pid_t pid_ = -1;
  FILE* to_ = nullptr;
  FILE* from_ = nullptr;
  bool ok_ = false;
};

PythonPeer& python_peer() {
  static PythonPeer peer;
  return peer;
}

void BM_Move1MiB_Rs232if(benchmark::State& state) {
  OurPair pair;
  if (!pair.ok) return state.SkipWithError("cannot open a null-modem pair");
  std::string data(kMove, '\0'), got(kMove, '\0');
  for (size_t i = 0; i < kMove; ++i) data[i] = static_cast<char>(i & 0xFF);
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    std::thread writer([&] {
      size_t sent = 0;
      for (size_t at = 0; at < kMove; at += 4096) Rs232if.CommIo(pair.a, KVRS232_IO_WRITE, data.data() + at, 4096, &sent);
    });
    size_t total = 0, moved = 0;
    while (total < kMove && Rs232if.CommIo(pair.b, KVRS232_IO_READ, got.data() + total,
                                           std::min<size_t>(4096, kMove - total), &moved) == KVRS232_OK && moved > 0)
      total += moved;
    writer.join();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    if (got != data) return state.SkipWithError("bytes lost or changed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kMove));
}

void BM_Move1MiB_PySerial(benchmark::State& state) {
  PythonPeer& peer = python_peer();
  if (!peer.ok()) return state.SkipWithError("python3-serial peer did not start");
  for (auto _ : state) {
    const std::string answer = peer.ask("move " + std::to_string(kMove));
    const double seconds = std::atof(answer.c_str());
    if (seconds <= 0.0) return state.SkipWithError(("python3-serial: " + answer).c_str());
    state.SetIterationTime(seconds);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kMove));
}

// The median round trip as the iteration time (a loaded machine's stalls
// swamp a mean); p50 and p99 as counters in microseconds.
void report_trips(benchmark::State& state, double p50, double p99) {
  state.SetIterationTime(p50);
  state.counters["p50_us"] = p50 * 1e6;
  state.counters["p99_us"] = p99 * 1e6;
}

void BM_RoundTrip1000_Rs232if(benchmark::State& state) {
  OurPair pair;
  if (!pair.ok) return state.SkipWithError("cannot open a null-modem pair");
  constexpr int kTrips = 1000;
  for (auto _ : state) {
    std::thread echo([&] {
      char byte = 0;
      size_t moved = 0;
      for (int i = 0; i < kTrips; ++i) {
        Rs232if.CommIo(pair.b, KVRS232_IO_READ, &byte, 1, &moved);
        Rs232if.CommIo(pair.b, KVRS232_IO_WRITE, &byte, 1, &moved);
      }
    });
    std::vector<double> trips;
    for (int i = 0; i < kTrips; ++i) {
      char byte = static_cast<char>(i), back = 0;
      size_t moved = 0;
      const Clock::time_point start = Clock::now();
      Rs232if.CommIo(pair.a, KVRS232_IO_WRITE, &byte, 1, &moved);
      Rs232if.CommIo(pair.a, KVRS232_IO_READ, &back, 1, &moved);
      trips.push_back(std::chrono::duration<double>(Clock::now() - start).count());
    }
    echo.join();
    std::sort(trips.begin(), trips.end());
    report_trips(state, trips[kTrips / 2], trips[kTrips * 99 / 100]);
  }
}

void BM_RoundTrip1000_PySerial(benchmark::State& state) {
  PythonPeer& peer = python_peer();
  if (!peer.ok()) return state.SkipWithError("python3-serial peer did not start");
  for (auto _ : state) {
    std::istringstream answer(peer.ask("trip 1000"));
    double mean = 0, p50 = 0, p99 = 0;
    if (!(answer >> mean >> p50 >> p99)) return state.SkipWithError("python3-serial: no answer");
    report_trips(state, p50, p99);
  }
}

BENCHMARK(BM_Move1MiB_Rs232if)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_Move1MiB_PySerial)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_RoundTrip1000_Rs232if)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(5);
BENCHMARK(BM_RoundTrip1000_PySerial)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(5);

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);  // a peer that died must not end the run
  return kvbench::run_with_ratios(
      argc, argv,
      {{"1 MiB in 4 KiB CommIo writes/reads vs python3-serial", "BM_Move1MiB_Rs232if/min_time:1.000/manual_time",
        "BM_Move1MiB_PySerial/min_time:1.000/manual_time", 1.0},
       {"one-byte round trip (p50) vs python3-serial", "BM_RoundTrip1000_Rs232if/iterations:5/manual_time",
        "BM_RoundTrip1000_PySerial/iterations:5/manual_time", 0.0}});
}
