// Zub::Core::Mutex against std::recursive_timed_mutex: the uncontended lock and
// unlock (without limit, as the heaps lock, and with a time limit), and a timed
// lock that waits for another thread to let go after 50 us. The plain lock's
// ratio is reported only: ours pays for a call into ZubCore that the inlined
// standard mutex does not.
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "Zub/Core/Mutex.h"
#include "bench_support.h"

namespace {

using Zub::Core::Elapse;

const Elapse kForever(0x7FFFFFFF, Elapse::Milliseconds);
const Elapse kTenthSecond(100, Elapse::Milliseconds);
constexpr auto kHold = std::chrono::microseconds(50);

void BM_ZubLockUnlock(benchmark::State& state) {
  Zub::Core::Mutex mutex;
  for (auto _ : state) {
    benchmark::DoNotOptimize(mutex.Lock(kForever));
    mutex.Unlock();
  }
}

void BM_StdLockUnlock(benchmark::State& state) {
  std::recursive_timed_mutex mutex;
  for (auto _ : state) {
    mutex.lock();
    mutex.unlock();
  }
}

void BM_ZubTimedLockUnlock(benchmark::State& state) {
  Zub::Core::Mutex mutex;
  for (auto _ : state) {
    benchmark::DoNotOptimize(mutex.Lock(kTenthSecond));
    mutex.Unlock();
  }
}

void BM_StdTimedLockUnlock(benchmark::State& state) {
  std::recursive_timed_mutex mutex;
  for (auto _ : state) {
    benchmark::DoNotOptimize(mutex.try_lock_for(std::chrono::milliseconds(100)));
    mutex.unlock();
  }
}

// Each iteration asks a holder thread to take the mutex, waits until it has,
// and then locks with a time limit while the holder keeps it for kHold.
template <typename Mutex, typename TimedLock>
void contended(benchmark::State& state, Mutex& mutex, TimedLock timedLock) {
  std::atomic<long> requested{0}, held{0};
  std::atomic<bool> stop{false};
  std::thread holder([&] {
    for (long done = 0;;) {
      while (requested.load() == done) {
        if (stop.load()) return;
        std::this_thread::yield();
      }
      mutex.lock();
      held.store(++done);
      const auto until = std::chrono::steady_clock::now() + kHold;
      while (std::chrono::steady_clock::now() < until) {
      }
      mutex.unlock();
    }
  });
  for (auto _ : state) {
    const long request = requested.fetch_add(1) + 1;
    while (held.load() != request) std::this_thread::yield();
    if (!timedLock()) state.SkipWithError("the timed lock timed out");
    mutex.unlock();
  }
  stop.store(true);
  holder.join();
}

// Zub::Core::Mutex as the holder thread sees it: lock and unlock.
struct ZubAdapter {
  Zub::Core::Mutex mutex;
  void lock() { (void)mutex.Lock(kForever); }
  void unlock() { mutex.Unlock(); }
};

void BM_ZubContendedTimedLock(benchmark::State& state) {
  ZubAdapter zub;
  contended(state, zub, [&] { return zub.mutex.Lock(kTenthSecond); });
}

void BM_StdContendedTimedLock(benchmark::State& state) {
  std::recursive_timed_mutex mutex;
  contended(state, mutex, [&] { return mutex.try_lock_for(std::chrono::milliseconds(100)); });
}

}  // namespace

BENCHMARK(BM_ZubLockUnlock);
BENCHMARK(BM_StdLockUnlock);
BENCHMARK(BM_ZubTimedLockUnlock);
BENCHMARK(BM_StdTimedLockUnlock);
BENCHMARK(BM_ZubContendedTimedLock)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_StdContendedTimedLock)->Unit(benchmark::kMicrosecond)->UseRealTime();

int main(int argc, char** argv) {
  return kvbench::run_with_ratios(
      argc, argv,
      {{"Mutex::Lock(forever)+Unlock / recursive_timed_mutex lock+unlock", "BM_ZubLockUnlock", "BM_StdLockUnlock", 0.0},
       {"Mutex::Lock(100 ms)+Unlock / try_lock_for(100 ms)+unlock", "BM_ZubTimedLockUnlock", "BM_StdTimedLockUnlock",
        1.10},
       {"timed lock held 50 us by another thread: Mutex / recursive_timed_mutex",
        "BM_ZubContendedTimedLock/real_time", "BM_StdContendedTimedLock/real_time", 1.10}});
}
