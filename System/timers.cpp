// The process-wide microsecond clock.
#include "timers.h"

#include <atomic>

#include "kvos/debugger.h"
#include "kvos/time.h"
#include "sysman.h"

namespace {

// Set once by the first reader; two first readers at once both set equal values.
std::atomic<bool> g_clockReady{false};
std::atomic<double> g_ticksPerMicrosecond{1.0};
std::atomic<uint64_t> g_epoch{0};

void start_clock() {
  kvos::debugger_output("timer_us_large_int: initializing the high resolution timer\n");
  const uint64_t frequency = kvos::perf_frequency();
  const double ticksPerMicrosecond = static_cast<double>(frequency) / 1e6;
  if (frequency == 0 || ticksPerMicrosecond < 1.0) sys_abort("Timer error");
  g_ticksPerMicrosecond.store(ticksPerMicrosecond, std::memory_order_relaxed);
  g_epoch.store(kvos::perf_counter(), std::memory_order_relaxed);
  g_clockReady.store(true, std::memory_order_release);
}

}  // namespace

uint64_t timer_us_large_int() {
  if (!g_clockReady.load(std::memory_order_acquire)) start_clock();
  const uint64_t elapsed = kvos::perf_counter() - g_epoch.load(std::memory_order_relaxed);
  return static_cast<uint64_t>(static_cast<double>(elapsed) / g_ticksPerMicrosecond.load(std::memory_order_relaxed));
}

long timer_us() { return static_cast<long>(timer_us_large_int() & 0x7FFFFFFFULL); }
long timer_ms() { return static_cast<long>(timer_us_large_int() / 1000ULL); }
long timer_s() { return static_cast<long>(timer_us_large_int() / 1000000ULL); }
long timer_min() { return static_cast<long>(timer_us_large_int() / 60000000ULL); }
long timer_hr() { return static_cast<long>(timer_us_large_int() / 3600000000ULL); }
double TimerTicksToSeconds(long ticks) { return static_cast<double>(ticks) / 18.2; }
