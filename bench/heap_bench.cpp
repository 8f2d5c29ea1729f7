// Tracked heaps against the runtime library's allocator:
//  - tracked new + KvOperatorDelete of 16..256-byte blocks in a fixed-region
//    heap against calloc + free of the same sizes (target: at most 2x);
//  - the address-to-heap lookup with 8 sibling fixed-region heaps (target: at
//    most 50 ns);
//  - peak resident memory of a mixed workload (16 B to 64 KiB, 50k live blocks,
//    1e6 operations), each allocator in a forked child (target: at most 1.3x).
// Each timing is also taken once the process has had a second thread (the
// heap lock is then really taken). Pass --rss=0 to skip the memory comparison.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "heap.h"

namespace {

const char* const kFile = "bench/heap";
constexpr int kBatch = 64;

struct SmallSizes {
  std::vector<size_t> sizes;
  std::vector<int> freeOrder;
  SmallSizes() {
    std::mt19937 rng(20240601u);
    for (int i = 0; i < kBatch; ++i) sizes.push_back(16 + rng() % 241);
    for (int i = 0; i < kBatch; ++i) freeOrder.push_back(i);
    std::shuffle(freeOrder.begin(), freeOrder.end(), rng);
  }
};
const SmallSizes& small_sizes() {
  static const SmallSizes s;
  return s;
}

heap* bench_heap() {
  heapman_mgr::initialize();
  static heap* h = new (mainheap, kFile, __LINE__) heap("bench");
  return h;
}

void BM_TrackedBatch(benchmark::State& state) {
  heap* h = bench_heap();
  const SmallSizes& s = small_sizes();
  void* blocks[kBatch];
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) blocks[i] = operator new(s.sizes[i], h, kFile, i);
    benchmark::ClobberMemory();
    for (int i : s.freeOrder) KvOperatorDelete(blocks[i]);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_CallocBatch(benchmark::State& state) {
  const SmallSizes& s = small_sizes();
  void* blocks[kBatch];
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) blocks[i] = std::calloc(s.sizes[i], 1);
    benchmark::ClobberMemory();
    for (int i : s.freeOrder) std::free(blocks[i]);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_TrackedPair(benchmark::State& state) {
  heap* h = bench_heap();
  const SmallSizes& s = small_sizes();
  int i = 0;
  for (auto _ : state) {
    void* p = operator new(s.sizes[i], h, kFile, 1);
    benchmark::DoNotOptimize(p);
    KvOperatorDelete(p);
    i = (i + 1) % kBatch;
  }
}

void BM_CallocPair(benchmark::State& state) {
  const SmallSizes& s = small_sizes();
  int i = 0;
  for (auto _ : state) {
    void* p = std::calloc(s.sizes[i], 1);
    benchmark::DoNotOptimize(p);
    std::free(p);
    i = (i + 1) % kBatch;
  }
}

// Eight sibling fixed-region heaps under mainheap; blocks of the last one.
struct Siblings {
  std::vector<heap*> heaps;
  Siblings() {
    heapman_mgr::initialize();
    for (int i = 0; i < 8; ++i)
      heaps.push_back(new (mainheap, kFile, __LINE__) heap(("sibling" + std::to_string(i)).c_str()));
  }
};
Siblings& siblings() {
  static Siblings s;
  return s;
}

void BM_LookupAmong8Siblings(benchmark::State& state) {
  heap* last = siblings().heaps.back();
  void* p = operator new(64, last, kFile, 1);
  for (auto _ : state) benchmark::DoNotOptimize(heapman_mgr::find(p));
  if (heapman_mgr::find(p) != last) state.SkipWithError("lookup found the wrong heap");
  KvOperatorDelete(p);
}

void BM_TrackedPairAmong8Siblings(benchmark::State& state) {
  heap* last = siblings().heaps.back();
  const SmallSizes& s = small_sizes();
  int i = 0;
  for (auto _ : state) {
    void* p = operator new(s.sizes[i], last, kFile, 1);
    benchmark::DoNotOptimize(p);
    KvOperatorDelete(p);
    i = (i + 1) % kBatch;
  }
}

// The same measures once the process has had a second thread: from then on
// the heap lock's mutex is taken on every operation (a single-threaded
// process has nothing to race with and skips it), and glibc uses its atomic
// paths as well. These run last, as the process never becomes single-threaded again.
void make_process_multithreaded() {
  static const bool done = [] {
    std::thread([] {}).join();
    return true;
  }();
  (void)done;
}

void BM_TrackedBatch_MT(benchmark::State& state) {
  make_process_multithreaded();
  BM_TrackedBatch(state);
}
void BM_CallocBatch_MT(benchmark::State& state) {
  make_process_multithreaded();
  BM_CallocBatch(state);
}
void BM_TrackedPair_MT(benchmark::State& state) {
  make_process_multithreaded();
  BM_TrackedPair(state);
}
void BM_CallocPair_MT(benchmark::State& state) {
  make_process_multithreaded();
  BM_CallocPair(state);
}
void BM_LookupAmong8Siblings_MT(benchmark::State& state) {
  make_process_multithreaded();
  BM_LookupAmong8Siblings(state);
}

BENCHMARK(BM_TrackedBatch);
BENCHMARK(BM_CallocBatch);
BENCHMARK(BM_TrackedPair);
BENCHMARK(BM_CallocPair);
BENCHMARK(BM_LookupAmong8Siblings);
BENCHMARK(BM_TrackedPairAmong8Siblings);
BENCHMARK(BM_TrackedBatch_MT);
BENCHMARK(BM_CallocBatch_MT);
BENCHMARK(BM_TrackedPair_MT);
BENCHMARK(BM_CallocPair_MT);
BENCHMARK(BM_LookupAmong8Siblings_MT);

// --- Peak resident memory -------------------------------------------------

long status_kb(const char* field) {
  FILE* f = std::fopen("/proc/self/status", "r");
  if (f == nullptr) return -1;
  char line[256];
  long value = -1;
  const size_t n = std::strlen(field);
  while (std::fgets(line, sizeof line, f) != nullptr)
    if (std::strncmp(line, field, n) == 0) value = std::atol(line + n);
  std::fclose(f);
  return value;
}

struct Allocator {
  void* (*allocate)(size_t);
  void (*release)(void*);
};

heap* g_rssHeap = nullptr;
void* tracked_allocate(size_t n) { return operator new(n, g_rssHeap, kFile, 1); }
void* runtime_allocate(size_t n) { return std::calloc(n, 1); }
void runtime_release(void* p) { std::free(p); }

// The workload: 50k live blocks of log-uniform sizes from 16 B to 64 KiB, then
// 1e6 replacements of a random block; every page of a block is written.
void workload(const Allocator& a) {
  std::mt19937_64 rng(77);
  std::uniform_real_distribution<double> logSize(std::log(16.0), std::log(65536.0));
  auto next_size = [&] { return static_cast<size_t>(std::exp(logSize(rng))); };
  auto use = [](char* p, size_t n) {
    for (size_t i = 0; i < n; i += 4096) p[i] = 1;
    p[n - 1] = 1;
  };
  constexpr size_t kLive = 50000;
  std::vector<char*> slots(kLive);
  std::vector<size_t> sizes(kLive);
  for (size_t i = 0; i < kLive; ++i) {
    sizes[i] = next_size();
    slots[i] = static_cast<char*>(a.allocate(sizes[i]));
    use(slots[i], sizes[i]);
  }
  for (int op = 0; op < 1000000; ++op) {
    const size_t i = rng() % kLive;
    a.release(slots[i]);
    sizes[i] = next_size();
    slots[i] = static_cast<char*>(a.allocate(sizes[i]));
    use(slots[i], sizes[i]);
  }
  for (char* p : slots) a.release(p);
}

// Runs the workload in a child; returns the peak resident growth in KiB.
long peak_growth_kb(bool tracked) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    Allocator a{runtime_allocate, runtime_release};
    if (tracked) {
      heapman_mgr::initialize();
      g_rssHeap = new (mainheap, kFile, __LINE__) heap("rss", size_t(0x40000000), heNONE);
      a = Allocator{tracked_allocate, KvOperatorDelete};
    }
    const long before = status_kb("VmRSS:");
    workload(a);
    const long growth = status_kb("VmHWM:") - before;
    if (write(fds[1], &growth, sizeof growth) != sizeof growth) _exit(2);
    _exit(0);
  }
  close(fds[1]);
  long growth = -1;
  if (read(fds[0], &growth, sizeof growth) != sizeof growth) growth = -1;
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return growth;
}

double mean_time(const kvbench::RecordingReporter& r, const char* name) {
  auto it = r.times().find(name);
  return it == r.times().end() ? -1.0 : it->second;
}

}  // namespace

int main(int argc, char** argv) {
  bool rss = true;
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--rss=0") == 0)
      rss = false;
    else
      args.push_back(argv[i]);
  }
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  kvbench::RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  std::printf("\n%-62s %10s %8s\n", "measure", "measured", "target");
  auto ratio = [&](const char* label, const char* ours, const char* theirs, double target) {
    const double a = mean_time(reporter, ours), b = mean_time(reporter, theirs);
    if (a <= 0 || b <= 0) return;
    std::printf("%-62s %9.2fx %7.2fx %s\n", label, a / b, target, a / b <= target ? "ok" : "OVER");
  };
  ratio("tracked new+KvOperatorDelete / calloc+free, batches of 64", "BM_TrackedBatch", "BM_CallocBatch", 2.0);
  ratio("tracked new+KvOperatorDelete / calloc+free, one at a time", "BM_TrackedPair", "BM_CallocPair", 2.0);
  ratio("  the same, batches, once the process has had a second thread", "BM_TrackedBatch_MT", "BM_CallocBatch_MT",
        2.0);
  ratio("  the same, one at a time, once the process has had a second thread", "BM_TrackedPair_MT",
        "BM_CallocPair_MT", 2.0);
  auto absolute = [&](const char* label, const char* name, double target) {
    const double t = mean_time(reporter, name);
    if (t > 0) std::printf("%-62s %8.1fns %6.0fns %s\n", label, t, target, t <= target ? "ok" : "OVER");
  };
  absolute("address-to-heap lookup with 8 sibling heaps", "BM_LookupAmong8Siblings", 50.0);
  absolute("  the same, once the process has had a second thread", "BM_LookupAmong8Siblings_MT", 50.0);

  if (rss) {
    const long ours = peak_growth_kb(true);
    const long theirs = peak_growth_kb(false);
    if (ours > 0 && theirs > 0) {
      const double r = static_cast<double>(ours) / static_cast<double>(theirs);
      std::printf("%-62s %9.2fx %7.2fx %s\n", "peak resident memory, mixed workload (tracked / glibc)", r, 1.3,
                  r <= 1.3 ? "ok" : "OVER");
      std::printf("  tracked heap: %ld KiB, glibc: %ld KiB of growth at the peak\n", ours, theirs);
    } else {
      std::printf("peak resident memory: measurement failed\n");
    }
  }
  benchmark::Shutdown();
  return 0;
}
