// The clock, delays, stopwatch, Timer, TimeDebug, uptime and the diagnostic routines.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <memory>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

#include "Zub/Core/Callback.h"
#include "kvos/fault.h"
#include "kvos/thread.h"
#include "sysman.h"
#include "test_support.h"
#include "timers.h"

namespace {

using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// How long body takes, in milliseconds.
double ms_of(const std::function<void()>& body) {
  const Clock::time_point start = Clock::now();
  body();
  return ms_since(start);
}

boost::shared_ptr<Zub::Core::Callback> counting(std::atomic<int>& count) {
  return boost::shared_ptr<Zub::Core::Callback>(new Zub::Core::FunctionCallback([&count] { ++count; }));
}

class CountingTimer : public Timer {
 public:
  explicit CountingTimer(double seconds) : Timer(seconds) {}
  void Fire() override { ++fires; }
  int fires = 0;
};

TEST(Clock, ReadingsInEveryUnitComeFromTheSameClockAndDelaysAndStopwatchesLastTheirTime) {
  const uint64_t first = timer_us_large_int();
  delay_dos_ms(20);
  const uint64_t us = timer_us_large_int();
  EXPECT_GE(us - first, 20000u);
  EXPECT_LT(us - first, 1000000u);
  const long ms = timer_ms();
  EXPECT_GE(ms, static_cast<long>(us / 1000));
  EXPECT_LE(ms, static_cast<long>(us / 1000) + 100);
  EXPECT_EQ(timer_s(), ms / 1000);
  EXPECT_EQ(timer_min(), static_cast<long>(timer_us_large_int() / 60000000u));
  EXPECT_EQ(timer_hr(), 0);
  // timer_us is the large reading cut to 31 bits: never negative, wrapping every 2^31 us.
  const uint64_t large = timer_us_large_int();
  const long low = timer_us();
  EXPECT_LT(static_cast<uint64_t>(low - static_cast<long>(large & 0x7FFFFFFF)) & 0x7FFFFFFF, 100000u);
  EXPECT_DOUBLE_EQ(TimerTicksToSeconds(-182), -10.0);

  EXPECT_GT(ms_of([] { delay_dos_us(3000); }), 3.0);
  EXPECT_LT(ms_of([] { delay_dos_us(-5), delay_dos_ms(-5); }), 50.0) << "negative delays end at once";

  std::ifstream in("/proc/uptime");  // the uptime is the system's milliseconds since its start
  double seconds = 0;
  ASSERT_TRUE(in >> seconds);
  EXPECT_NEAR(Time::Uptime(), std::fmod(seconds * 1000.0, 4294967296.0), 2000.0);

  stopwatch watch;  // deadlines on the microsecond clock
  EXPECT_TRUE(watch.time_up()) << "a stopwatch never started has a zero deadline";
  for (double zero : {0.0, -3.0, 0.0000004}) EXPECT_FALSE(watch.start(zero)) << zero << " s is reported as zero";
  EXPECT_TRUE(watch.is_on());
  ASSERT_TRUE(watch.start(0.05));
  EXPECT_FALSE(watch.time_up());
  stopwatch copy;
  copy = watch;
  EXPECT_GE(ms_of([&] {
              while (!watch.time_up()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }),
            45.0);
  watch.stop();
  EXPECT_FALSE(watch.is_on());
  EXPECT_TRUE(copy.is_on()) << "the copy is a value of its own";
  EXPECT_GE(ms_of([&] { copy.Wait(0.03); }), 30.0);
  EXPECT_TRUE(copy.is_on()) << "Wait does not touch the deadline";
}

TEST(TimerBasics, OnUntilItsTimeDoneAfterUntilStartedAgainOrStopped) {
  const auto start = Clock::now();
  Timer timer(0.08);
  EXPECT_FALSE(timer.Done());
  while (!timer.Done()) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_GE(ms_since(start), 79.0);
  EXPECT_TRUE(timer.Done()) << "it stays signalled";
  timer.Start();
  EXPECT_TRUE(timer.IsOn()) << "starting again re-arms it";
  timer.Wait();
  EXPECT_GE(ms_since(start), 158.0);

  Timer idle;
  EXPECT_FALSE(idle.Done()) << "a timer never started is never done";
  EXPECT_GE(ms_of([&] { idle.Wait(0.03); }), 29.0);
  EXPECT_TRUE(idle.Done());

  std::atomic<int> fired{0};
  Timer stopped(counting(fired), 0.02);
  stopped.Stop();
  std::this_thread::sleep_for(std::chrono::milliseconds(40));
  SysManager::Sleep(0);
  EXPECT_FALSE(stopped.Done());
  EXPECT_EQ(fired.load(), 0);
  stopped.Start(0.01);  // and may be started again
  stopped.Wait();
}

TEST(TimerCallbacks, FireRunsOnTheStartingThreadOnlyDuringAlertableWaits) {
  std::atomic<int> fired{0};
  std::thread::id firedOn;
  Timer timer(boost::shared_ptr<Zub::Core::Callback>(new Zub::Core::FunctionCallback([&] {
                ++fired;
                firedOn = std::this_thread::get_id();
              })),
              0.02);
  timer.Wait();
  EXPECT_TRUE(timer.Done());
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(fired.load(), 0) << "Wait is not alertable";
  SysManager::Sleep(1000);
  EXPECT_EQ(fired.load(), 1);
  EXPECT_EQ(firedOn, std::this_thread::get_id());

  // A callback-less timer does nothing at expiry; a callback set but not started never runs.
  Timer plain(0.005), unstarted(counting(fired));
  SysManager::Sleep(50);
  EXPECT_EQ(fired.load(), 1) << "one expiry, one call";

  // An alertable sleep ends at the expiry; subclasses act on it by overriding Fire.
  int fires = 0;
  const double slept = ms_of([&] {
    CountingTimer counted(0.05);
    SysManager::Sleep(10000);
    fires = counted.fires;
  });
  EXPECT_EQ(fires, 1);
  EXPECT_GE(slept, 49.0);
  EXPECT_LT(slept, 1000.0);
}

TEST(TimerCallbacks, AnotherThreadsTimerFiresThere) {
  std::atomic<int> fired{0};
  std::atomic<bool> onWorker{false};
  std::thread::id workerId;
  kvos::Event started(true), mayWait(true);
  std::unique_ptr<Timer> timer;
  std::thread worker([&] {
    workerId = std::this_thread::get_id();
    timer = std::make_unique<Timer>(boost::shared_ptr<Zub::Core::Callback>(new Zub::Core::FunctionCallback([&] {
                                      ++fired;
                                      onWorker = std::this_thread::get_id() == workerId;
                                    })),
                                    0.01);
    started.set();
    mayWait.wait(kvos::kWaitForever);
    SysManager::Sleep(2000);
  });
  started.wait(kvos::kWaitForever);
  timer->Wait();
  SysManager::Sleep(30);
  EXPECT_EQ(fired.load(), 0) << "the main thread's sleep does not run another thread's expiry";
  mayWait.set();
  worker.join();
  EXPECT_EQ(fired.load(), 1);
  EXPECT_TRUE(onWorker.load());
}

TEST(TimerCopies, ShareTheSystemTimerButFireOnlyTheStarter) {
  std::atomic<int> fired{0};
  Timer original(counting(fired), 0.03);
  {
    Timer copy(original);
    EXPECT_TRUE(copy.IsOn());
    copy.Wait();
    EXPECT_TRUE(original.Done()) << "the copy waited on the same timer";
  }
  SysManager::Sleep(100);
  EXPECT_EQ(fired.load(), 1) << "the starter fires once; the copy's end did not cancel it";

  // The last copy to go cancels; a starter that is gone is not called.
  std::atomic<int> orphan{0};
  auto starter = std::make_unique<Timer>(counting(orphan), 0.02);
  Timer survivor(*starter);
  starter.reset();
  survivor.Wait();
  SysManager::Sleep(30);
  EXPECT_EQ(orphan.load(), 0);

  // Assignment leaves the old timer behind: its expiry no longer reaches the object.
  std::atomic<int> left{0}, taken{0};
  Timer target(counting(left), 0.02);
  Timer source(counting(taken));
  target = source;
  std::this_thread::sleep_for(std::chrono::milliseconds(40));
  SysManager::Sleep(0);
  EXPECT_EQ(left.load(), 0);
  EXPECT_FALSE(target.Done()) << "it now shares source's timer, which was never started";
  target.Start(0.005);
  SysManager::Sleep(1000);
  EXPECT_EQ(taken.load(), 1) << "the assigned callback came along";
  EXPECT_TRUE(source.Done());
}

TEST(TimerFailures, EveryFailingSystemCallIsATimerError) {
  kvos::FaultScope faults;
  Timer timer;
  const std::pair<kvos::FaultPoint, std::function<void()>> calls[] = {
      {kvos::FaultPoint::TimerCreate, [] { Timer failing; }},
      {kvos::FaultPoint::TimerArm, [&] { timer.Start(0.01); }},
      {kvos::FaultPoint::TimerCancel, [&] { timer.Stop(); }},
      {kvos::FaultPoint::TimerWait, [&] { (void)timer.Done(); }},
      {kvos::FaultPoint::TimerWait, [&] { timer.Wait(); }},
  };
  for (const auto& [point, call] : calls) {
    kvos::fault_arm(point);
    EXPECT_EQ(kvtest::abort_text(call), "Timer error");
  }
  timer.Start(0.001);
  timer.Wait();
  EXPECT_TRUE(timer.Done()) << "the timer works on";
}

TEST(TimeDebugMessages, ElapsedProcessTimeInMillisecondsOrSeconds) {
  kvtest::CategoryScope timerOn(dbgTimer);
  kvtest::CaptureSink sink;
  TimeDebug debug("probe"), unnamed;
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  debug.TimeMsg("x", true);
  std::this_thread::sleep_for(std::chrono::milliseconds(40));
  debug.TimeMsg(nullptr, false);  // measured from the previous message
  unnamed = TimeDebug(debug);     // copies carry the name
  unnamed.TimeMsg("m", true);
  CSL::DebugManager::DebugFlagSet(dbgTimer, false);
  debug.TimeMsg("quiet", true);
  const std::regex expected(
      "Time Debug Object probe: x, Elapsed time: 2[5-9]\\d\\.000000 msec\n"
      "Time Debug Object probe: , Elapsed time: 0\\.0[4-9]\\d000 sec\n"
      "Time Debug Object probe: m, Elapsed time: \\d+\\.000000 msec\n");
  EXPECT_TRUE(std::regex_match(sink.text(), expected)) << sink.text();
  EXPECT_EQ(sink.entries().at(0).logger, "Korvalis.Timer");
}

TEST(TimerDiagnostics, PrintEveryClockForEveryCycle) {
  kvtest::CategoryScope a(dbgA);
  kvtest::CaptureSink sink;
  EXPECT_TRUE(TestTheTimers(3));
  std::string expected = "TestTheTimers(int cycles ) called, cycles= 3\n";
  for (const std::string clock : {"timer_us()", "timer_ms()", "timer_us_large_int()"}) {
    expected += "TestTheTimers() pre test " + clock + " for sensical long values. cycles=3\n";
    for (int i = 1; i <= 3; ++i) expected += clock + ": \t" + std::to_string(i) + "\t#\n";
  }
  expected += "TestTheTimers(int cycles) exit.  3 cycles completed\n";
  EXPECT_EQ(std::regex_replace(sink.text(), std::regex("\t[0-9][0-9.e+]*\n"), "\t#\n"), expected);
  EXPECT_EQ(sink.entries().at(0).logger, "Korvalis.A");
  sink.clear();
  EXPECT_TRUE(TestTheTimers());
  EXPECT_EQ(sink.text().rfind("TestTheTimers() called. \nTestTheTimers(int cycles ) called, cycles= 5000\n", 0), 0u);
  EXPECT_EQ(sink.entries().size(), 15006u);
}

}  // namespace

// A completion that expiry queued is taken back when the timer is stopped,
// started again or destroyed: it neither runs nor ends a later alertable sleep.
TEST(TimerCancel, TakesBackACompletionThatExpiryQueued) {
  for (const std::string how : {"stop", "restart", "destroy"}) {
    std::atomic<int> fired{0};
    auto timer = std::make_unique<Timer>(counting(fired));
    timer->Wait(0.01);  // not alertable: the completion stays queued
    if (how == "stop") timer->Stop();
    if (how == "restart") timer->Start(60.0);
    if (how == "destroy") timer.reset();
    const Timer later(0.15);
    EXPECT_GE(ms_of([] { SysManager::Sleep(400); }), 100.0) << how << ": the sleep ended before the later timer";
    EXPECT_EQ(fired.load(), 0) << how;
  }
}
