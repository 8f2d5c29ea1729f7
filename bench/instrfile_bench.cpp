// Instrument files: reading and writing (to memory) a generated 10 MB file with
// four levels of sections and about 200,000 records, against
// boost::property_tree's read_info / write_info on the same content in its
// INFO text form. Reports throughput (MB/s of our text) and, measured in a
// forked child per operation, the peak resident memory each side adds.
#include <benchmark/benchmark.h>

#include <boost/property_tree/info_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>

#include "INSTRFIL.h"
#include "bench_support.h"
#include "heap.h"

extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "alloc_dealloc_mismatch=0";
}

namespace {

struct Texts {
  std::string instr;  // our format
  std::string info;   // the same tree in INFO form
  int records = 0;
  int sections = 0;
};

// 8 x 10 x 10 x 25 sections on four levels, ten records in each innermost
// section: 200,000 records, about 10 MB. Values are numbers with a unit and
// a tolerance, as measured parameters are.
Texts generate() {
  Texts t;
  std::mt19937 rng(20240611);
  std::uniform_int_distribution<int> number(0, 999999);
  const char* const names[] = {"Offset", "Gain", "Speed", "Limit", "Range", "Delay", "Scale", "Setpoint", "Bias",
                               "Drift"};
  const char* const units[] = {"um", "nm/V", "mV", "Hz", "ms"};
  t.instr.reserve(11 << 20);
  t.info.reserve(11 << 20);
  t.instr += "Korvalis Data File\r\n";
  auto open = [&](const std::string& name, int depth) {
    const std::string tabs(static_cast<size_t>(depth), '\t');
    t.instr += "\r\n" + tabs + name + "\r\n" + tabs + "{";
    t.info += tabs + name + "\n" + tabs + "{\n";
    ++t.sections;
  };
  auto close = [&](int depth) {
    const std::string tabs(static_cast<size_t>(depth), '\t');
    t.instr += "\r\n" + tabs + "}";
    t.info += tabs + "}\n";
  };
  for (int a = 0; a < 8; ++a) {
    open("Stage" + std::to_string(a), 0);
    for (int b = 0; b < 10; ++b) {
      open("Axis" + std::to_string(b), 1);
      for (int c = 0; c < 10; ++c) {
        open("Channel" + std::to_string(c), 2);
        for (int d = 0; d < 25; ++d) {
          open("Calibration" + std::to_string(d), 3);
          for (int r = 0; r < 10; ++r) {
            const int v = number(rng);
            char value[64];
            std::snprintf(value, sizeof value, "%d.%06d %s +-0.%03d", v % 1000, v, units[v % 5], v % 997);
            const std::string tag = std::string(names[r]) + "Parameter";
            t.instr += "\r\n\t\t\t\t" + tag + " = " + value;
            t.info += "\t\t\t\t" + tag + " \"" + value + "\"\n";
            ++t.records;
          }
          close(3);
        }
        close(2);
      }
      close(1);
    }
    close(0);
  }
  t.instr += "\r\n";
  return t;
}

const Texts& texts() {
  static const Texts t = generate();
  return t;
}

// A memory text for InstrHandle: a block whose allocated size is the text's length.
char* block_of(const std::string& s) {
  char* b = static_cast<char*>(KvOperatorNew(s.size()));
  std::memcpy(b, s.data(), s.size());
  return b;
}

void BM_InstrRead(benchmark::State& state) {
  char* text = block_of(texts().instr);
  for (auto _ : state) {
    InstrHandle h(static_cast<void*>(text));
    if (!h.Read()) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(h.CurrentSection());
  }
  KvOperatorDelete(text);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(texts().instr.size()));
}

void BM_BoostReadInfo(benchmark::State& state) {
  for (auto _ : state) {
    std::istringstream in(texts().info);
    boost::property_tree::ptree tree;
    boost::property_tree::read_info(in, tree);
    benchmark::DoNotOptimize(tree.size());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(texts().instr.size()));
}

void BM_InstrWrite(benchmark::State& state) {
  char* text = block_of(texts().instr);
  InstrHandle h(static_cast<void*>(text));
  if (!h.Read()) state.SkipWithError("read failed");
  for (auto _ : state) {
    if (!h.Write()) state.SkipWithError("write failed");
    benchmark::DoNotOptimize(h.Buf());
  }
  if (h.Buf() == nullptr || std::strlen(h.Buf()) != texts().instr.size()) state.SkipWithError("text differs");
  KvOperatorDelete(text);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(texts().instr.size()));
}

void BM_BoostWriteInfo(benchmark::State& state) {
  std::istringstream in(texts().info);
  boost::property_tree::ptree tree;
  boost::property_tree::read_info(in, tree);
  for (auto _ : state) {
    std::ostringstream out;
    boost::property_tree::write_info(out, tree);
    benchmark::DoNotOptimize(out.tellp());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(texts().instr.size()));
}

BENCHMARK(BM_InstrRead)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_BoostReadInfo)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_InstrWrite)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_BoostWriteInfo)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// Resident set sizes from /proc/self/status, in kB.
long status_kb(const char* field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  const size_t n = std::strlen(field);
  while (std::getline(in, line))
    if (line.compare(0, n, field) == 0) return std::stol(line.substr(n + 1));
  return -1;
}

// Runs prepare and then op in a forked child and returns the peak resident
// memory op added (kB): the high-water mark is reset after prepare.
long peak_added_kb(const std::function<void()>& prepare, const std::function<void()>& op) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    prepare();
    std::ofstream("/proc/self/clear_refs") << "5";  // reset the high-water mark
    const long before = status_kb("VmRSS:");
    op();
    long added = status_kb("VmHWM:") - before;
    if (write(fds[1], &added, sizeof added) != static_cast<ssize_t>(sizeof added)) _exit(1);
    _exit(0);
  }
  close(fds[1]);
  long added = -1;
  if (read(fds[0], &added, sizeof added) != static_cast<ssize_t>(sizeof added)) added = -1;
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return added;
}

void report_memory() {
  const Texts& t = texts();
  char* text = block_of(t.instr);
  InstrHandle* handle = nullptr;
  boost::property_tree::ptree* tree = nullptr;

  const long ourRead = peak_added_kb([] {}, [&] {
    InstrHandle h(static_cast<void*>(text));
    h.Read();
  });
  const long boostRead = peak_added_kb([] {}, [&] {
    std::istringstream in(t.info);
    boost::property_tree::ptree pt;
    boost::property_tree::read_info(in, pt);
  });
  const long ourWrite = peak_added_kb(
      [&] {
        handle = new InstrHandle(static_cast<void*>(text));
        handle->Read();
      },
      [&] { handle->Write(); });
  const long boostWrite = peak_added_kb(
      [&] {
        std::istringstream in(t.info);
        tree = new boost::property_tree::ptree;
        boost::property_tree::read_info(in, *tree);
      },
      [&] {
        std::ostringstream out;
        boost::property_tree::write_info(out, *tree);
      });
  KvOperatorDelete(text);

  std::printf("input: %.2f MB in our format (%d records, %d sections), %.2f MB as INFO text\n",
              static_cast<double>(t.instr.size()) / 1e6, t.records, t.sections, static_cast<double>(t.info.size()) / 1e6);
  std::printf("peak resident memory added (forked child, kB): read  ours %ld, read_info  %ld\n", ourRead, boostRead);
  std::printf("                                               write ours %ld, write_info %ld\n", ourWrite, boostWrite);
}

}  // namespace

int main(int argc, char** argv) {
  heapman_mgr::initialize();
  texts();
  // Memory first, from a parent whose heap holds nothing but the texts.
  report_memory();
  benchmark::Initialize(&argc, argv);
  kvbench::RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const auto& times = reporter.times();
  const double mb = static_cast<double>(texts().instr.size()) / 1e6;
  auto line = [&](const char* what, const char* ours, const char* theirs) {
    const auto a = times.find(ours);
    const auto b = times.find(theirs);
    if (a == times.end() || b == times.end() || a->second <= 0.0 || b->second <= 0.0) return;
    // Times are in the benchmarks' unit: milliseconds.
    std::printf("%-6s ours %8.1f MB/s, alternative %8.1f MB/s: %.2fx faster (target 3x: %s)\n", what,
                mb / (a->second / 1e3), mb / (b->second / 1e3), b->second / a->second,
                b->second / a->second >= 3.0 ? "ok" : "UNDER");
  };
  std::printf("\n");
  line("read", "BM_InstrRead/min_time:2.000", "BM_BoostReadInfo/min_time:2.000");
  line("write", "BM_InstrWrite/min_time:2.000", "BM_BoostWriteInfo/min_time:2.000");
  benchmark::Shutdown();
  return 0;
}
