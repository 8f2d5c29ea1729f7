// Time services: the clock, delays, the stopwatch, Timer, TimeDebug, the uptime and diagnostics.
#include "timers.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "DebugManager.h"
#include "kvos/debugger.h"
#include "kvos/process.h"
#include "kvos/thread.h"
#include "kvos/time.h"
#include "kvos/waitable_timer.h"
#include "sysman.h"

namespace {

// Set once by the first reader; two first readers at once both set equal values.
std::atomic<bool> g_clockReady{false};
std::atomic<double> g_ticksPerMicrosecond{1.0};
// The counter's ticks per microsecond when that is a whole number (0 when
// not), so that the common counters are scaled without a floating division.
std::atomic<uint64_t> g_wholeTicksPerMicrosecond{0};
std::atomic<uint64_t> g_epoch{0};

void start_clock() {
  kvos::debugger_output("timer_us_large_int: initializing the high resolution timer\n");
  const uint64_t frequency = kvos::perf_frequency();
  const double ticksPerMicrosecond = static_cast<double>(frequency) / 1e6;
  if (frequency == 0 || ticksPerMicrosecond < 1.0) sys_abort("Timer error");
  g_ticksPerMicrosecond.store(ticksPerMicrosecond, std::memory_order_relaxed);
  g_wholeTicksPerMicrosecond.store(frequency % 1000000u == 0 ? frequency / 1000000u : 0, std::memory_order_relaxed);
  g_epoch.store(kvos::perf_counter(), std::memory_order_relaxed);
  g_clockReady.store(true, std::memory_order_release);
}

}  // namespace

uint64_t timer_us_large_int() {
  if (!g_clockReady.load(std::memory_order_acquire)) [[unlikely]]
    start_clock();
  const uint64_t elapsed = kvos::perf_counter() - g_epoch.load(std::memory_order_relaxed);
  const uint64_t whole = g_wholeTicksPerMicrosecond.load(std::memory_order_relaxed);
  if (whole == 1000) [[likely]]
    return elapsed / 1000;  // a nanosecond counter: a division by a constant is a multiplication
  if (whole != 0) return elapsed / whole;
  return static_cast<uint64_t>(static_cast<double>(elapsed) / g_ticksPerMicrosecond.load(std::memory_order_relaxed));
}

long timer_us() { return static_cast<long>(timer_us_large_int() & 0x7FFFFFFFULL); }
long timer_ms() { return static_cast<long>(timer_us_large_int() / 1000ULL); }
long timer_s() { return static_cast<long>(timer_us_large_int() / 1000000ULL); }
long timer_min() { return static_cast<long>(timer_us_large_int() / 60000000ULL); }
long timer_hr() { return static_cast<long>(timer_us_large_int() / 3600000000ULL); }
double TimerTicksToSeconds(long ticks) { return static_cast<double>(ticks) / 18.2; }

// ---------------------------------------------------------------------------
// Delays and the stopwatch

namespace {

void timer_error() { sys_abort("Timer error"); }

// Whole milliseconds of a time in seconds, truncated; 0 for negative times.
uint32_t whole_ms(double seconds) {
  const double ms = seconds * 1000.0;
  if (!(ms > 0.0)) return 0;
  return ms >= 4294967294.0 ? 0xFFFFFFFEu : static_cast<uint32_t>(ms);
}

}  // namespace

void delay_dos_ms(long ms) {
  kvos::sleep_ms(ms <= 0 ? 0 : static_cast<uint32_t>(std::min<int64_t>(ms, 0xFFFFFFFE)), false);
}

void delay_dos_us(long us) {
  const uint64_t end = timer_us_large_int() + static_cast<uint64_t>(us > 0 ? us : 0);
  while (timer_us_large_int() <= end) {
  }
}

stopwatch::stopwatch() : deadline(0), running(0) {}

bool stopwatch::start(double seconds) {
  const double us = seconds * 1e6;
  uint64_t count = 0;
  if (us >= 18446744073709551615.0)
    count = UINT64_MAX;
  else if (us >= 1.0)
    count = static_cast<uint64_t>(us);
  deadline = timer_us_large_int() + count;
  if (deadline < count) deadline = UINT64_MAX;  // a deadline beyond the clock's range never comes
  running = 1;
  return count != 0;
}

bool stopwatch::time_up() { return timer_us_large_int() > deadline; }
bool stopwatch::is_on() { return running != 0; }

void stopwatch::stop() {
  deadline = 0;
  running = 0;
}

void stopwatch::Wait(double seconds) { kvos::sleep_ms(whole_ms(seconds), false); }

// ---------------------------------------------------------------------------
// Timer

struct Timer::Handle {
  kvos::WaitableTimer timer{true};
};

// The completion of an arming holds the link, not the Timer: a Timer that
// goes away first cuts the link, and its expiry then calls nobody.
struct Timer::Link {
  explicit Link(Timer* owner) : target(owner) {}
  std::atomic<Timer*> target;
};

Timer::Timer() : m_seconds(0.0), m_link(std::make_shared<Link>(this)) { Init({}, 0.0); }

Timer::Timer(double seconds) : m_seconds(0.0), m_link(std::make_shared<Link>(this)) {
  Init({}, seconds);
  Start();
}

Timer::Timer(boost::shared_ptr<Zub::Core::Callback> callback)
    : m_seconds(0.0), m_link(std::make_shared<Link>(this)) {
  Init(std::move(callback), 0.0);
}

Timer::Timer(boost::shared_ptr<Zub::Core::Callback> callback, double seconds)
    : m_seconds(0.0), m_link(std::make_shared<Link>(this)) {
  Init(std::move(callback), seconds);
  Start();
}

Timer::Timer(const Timer& other)
    : m_handle(other.m_handle),
      m_seconds(other.m_seconds),
      m_callback(other.m_callback),
      m_link(std::make_shared<Link>(this)) {}

void Timer::ReleaseHandle() {
  if (m_handle && m_handle.use_count() == 1 && !m_handle->timer.cancel()) timer_error();
  m_handle.reset();
}

Timer& Timer::operator=(const Timer& other) {
  if (this == &other) return *this;
  m_link->target.store(nullptr);  // expiries of the timer left behind no longer reach this object
  m_link = std::make_shared<Link>(this);
  std::shared_ptr<Handle> handle = other.m_handle;
  ReleaseHandle();
  m_handle = std::move(handle);
  m_seconds = other.m_seconds;
  m_callback = other.m_callback;
  return *this;
}

Timer::~Timer() {
  m_link->target.store(nullptr);
  ReleaseHandle();
}

void Timer::Init(boost::shared_ptr<Zub::Core::Callback> callback, double seconds) {
  m_handle = std::make_shared<Handle>();
  if (!m_handle->timer.valid()) timer_error();
  m_callback = std::move(callback);
  Set(seconds);
}

void Timer::Set(double seconds) { m_seconds = seconds; }

void Timer::Start() {
  const int64_t now = kvos::system_file_time();
  if (now <= 0) timer_error();
  const double ticks = m_seconds * 1e7;
  int64_t due = now;
  if (ticks >= static_cast<double>(INT64_MAX - now))
    due = INT64_MAX;
  else if (ticks > 0.0 || ticks < 0.0)
    due = now + static_cast<int64_t>(std::max(ticks, -static_cast<double>(now)));
  std::shared_ptr<Link> link = m_link;
  const bool armed = m_handle->timer.arm(due, [link] {
    if (Timer* target = link->target.load()) target->Fire();
  });
  if (!armed) timer_error();
}

void Timer::Start(double seconds) {
  Set(seconds);
  Start();
}

void Timer::Stop() {
  if (!m_handle->timer.cancel()) timer_error();
}

bool Timer::Done() {
  const kvos::WaitResult result = m_handle->timer.wait(0, false);
  if (result == kvos::kWaitFailed) timer_error();
  return result == kvos::kWaitSignalled;
}

bool Timer::IsOn() { return !Done(); }

void Timer::Wait() {
  if (m_handle->timer.wait(kvos::kWaitForever, false) != kvos::kWaitSignalled) timer_error();
}

void Timer::Wait(double seconds) {
  Start(seconds);
  Wait();
}

void Timer::Fire() {
  if (m_callback) m_callback->Invoke();
}

// ---------------------------------------------------------------------------
// TimeDebug and Time

namespace {

long process_clock() { return static_cast<long>(kvos::process_elapsed_ms()); }

char* copy_text(const char* text) {
  if (text == nullptr) return nullptr;
  const size_t length = std::strlen(text);
  char* copy = new char[length + 1];
  std::memcpy(copy, text, length + 1);
  return copy;
}

}  // namespace

TimeDebug::TimeDebug(const char* name) : ticks(process_clock()), name(copy_text(name)) {}

TimeDebug::TimeDebug(const TimeDebug& other) : ticks(other.ticks), name(copy_text(other.name)) {}

TimeDebug& TimeDebug::operator=(const TimeDebug& other) {
  if (this != &other) {
    char* copy = copy_text(other.name);
    delete[] name;
    name = copy;
    ticks = other.ticks;
  }
  return *this;
}

TimeDebug::~TimeDebug() { delete[] name; }

void TimeDebug::TimeMsg(const char* message, bool inMilliseconds) {
  const long now = process_clock();
  const long elapsed = now - ticks;
  ticks = now;
  // The process clock runs at 1000 ticks per second.
  const double value = inMilliseconds ? static_cast<double>(elapsed) * 1000.0 / 1000.0 : static_cast<double>(elapsed) / 1000.0;
  Debug(dbgTimer, "Time Debug Object %s: %s, Elapsed time: %f %s\n", name != nullptr ? name : "",
        message != nullptr ? message : "", value, inMilliseconds ? "msec" : "sec");
}

uint32_t Time::Uptime() { return kvos::tick_count_ms(); }

// ---------------------------------------------------------------------------
// Diagnostics

bool TestTheTimers(int cycles) {
  Debug("TestTheTimers(int cycles ) called, cycles= %d\n", cycles);

  Debug("TestTheTimers() pre test timer_us() for sensical long values. cycles=%d\n", cycles);
  (void)timer_us();
  for (int i = 1; i <= cycles; ++i) Debug("timer_us(): \t%d\t%u\n", i, static_cast<unsigned>(timer_us()));

  Debug("TestTheTimers() pre test timer_ms() for sensical long values. cycles=%d\n", cycles);
  (void)timer_ms();
  for (int i = 1; i <= cycles; ++i) Debug("timer_ms(): \t%d\t%u\n", i, static_cast<unsigned>(timer_ms()));

  Debug("TestTheTimers() pre test timer_us_large_int() for sensical long values. cycles=%d\n", cycles);
  (void)timer_us_large_int();
  for (int i = 1; i <= cycles; ++i)
    Debug("timer_us_large_int(): \t%d\t%g\n", i, static_cast<double>(timer_us_large_int()));

  Debug("TestTheTimers(int cycles) exit.  %d cycles completed\n", cycles);
  return true;
}

bool TestTheTimers() {
  Debug("TestTheTimers() called. \n");
  return TestTheTimers(5000);
}

void TestTheTimersSessionTime() {
  Debug("TestTheTimersSessionTime() called. \n");
  Debug("hr:min:secs\n");
  for (int i = 0; i < 1000; ++i) {
    kvos::sleep_ms(1000, false);
    Debug("%u:%u:%u\n", static_cast<unsigned>(timer_hr()), static_cast<unsigned>(timer_min() % 60),
          static_cast<unsigned>(timer_s() % 60));
  }
  Debug("TestTheTimersSessionTime() exit\n\n");
}
