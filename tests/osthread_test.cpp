// The OS boundary's threads, events, completion queues and waitable timers.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kvos/fault.h"
#include "kvos/thread.h"
#include "kvos/time.h"
#include "kvos/waitable_timer.h"

namespace {

using Clock = std::chrono::steady_clock;

long ms_since(Clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// 100 ns units from now, as a relative due time.
int64_t in_ms(int ms) { return -static_cast<int64_t>(ms) * 10000; }

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

TEST(OsCompletions, RunOnlyDuringAlertableWaitsOfTheirThreadInOrder) {
  std::vector<int> ran;
  const kvos::ThreadRef self = kvos::ThreadRef::current();
  ASSERT_TRUE(self.queue_completion([&] { ran.push_back(1); }) && self.queue_completion([&] { ran.push_back(2); }));
  EXPECT_FALSE(self.queue_completion(nullptr));
  kvos::Event never(true);
  EXPECT_TRUE(kvos::sleep_ms(5, false) == kvos::kWaitTimeout && never.wait(5, false) == kvos::kWaitTimeout);
  EXPECT_TRUE(ran.empty()) << "waits that are not alertable leave the queue alone";
  EXPECT_EQ(kvos::sleep_ms(1000, true), kvos::kWaitCompletion);
  EXPECT_EQ(ran, (std::vector<int>{1, 2})) << "both, in order";
  const auto start = Clock::now();
  EXPECT_EQ(kvos::sleep_ms(20, true), kvos::kWaitTimeout);
  EXPECT_GE(ms_since(start), 20);

  // An alertable event wait ends with a completion too.
  EXPECT_TRUE(self.queue_completion([&] { ran.push_back(3); }));
  EXPECT_EQ(never.wait(1000, true), kvos::kWaitCompletion);
  // A routine that throws leaves the rest queued.
  EXPECT_TRUE(self.queue_completion([] { throw std::runtime_error("routine failed"); }));
  EXPECT_TRUE(self.queue_completion([&] { ran.push_back(4); }));
  EXPECT_THROW(kvos::sleep_ms(0, true), std::runtime_error);
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
  EXPECT_TRUE(kvos::sleep_ms(0, true) == kvos::kWaitCompletion && ran.size() == 4);
}

TEST(OsCompletions, AnotherThreadsRoutinesWakeItsAlertableSleepAndRunThere) {
  std::atomic<bool> ranOnWorker{false};
  std::atomic<int> result{-1};
  kvos::Thread worker([&] { result = kvos::sleep_ms(kvos::kWaitForever, true); });
  const kvos::ThreadRef target = worker.ref();
  EXPECT_TRUE(target.alive() && !(target == kvos::ThreadRef::current()));
  sleep_ms(20);
  ASSERT_TRUE(target.queue_completion([&] { ranOnWorker = kvos::ThreadRef::current() == target; }));
  worker.join();
  EXPECT_TRUE(result.load() == kvos::kWaitCompletion && ranOnWorker.load());
  EXPECT_FALSE(target.alive());
  EXPECT_FALSE(target.queue_completion([] {})) << "a thread that has ended takes no routines";
  EXPECT_FALSE(kvos::ThreadRef().queue_completion([] {}));
}

TEST(OsEvents, ManualResetReleasesEveryWaiterAutoResetOnePerSet) {
  for (const bool manual : {true, false}) {
    SCOPED_TRACE(manual ? "manual reset" : "auto reset");
    kvos::Event event(manual);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    const int count = manual ? 3 : 2;
    for (int i = 0; i < count; ++i)
      waiters.emplace_back([&] {
        if (event.wait(2000) == kvos::kWaitSignalled) ++released;
      });
    sleep_ms(20);
    EXPECT_EQ(released.load(), 0);
    event.set();
    sleep_ms(50);
    EXPECT_EQ(released.load(), manual ? 3 : 1);
    if (!manual) event.set();
    for (std::thread& t : waiters) t.join();
    EXPECT_EQ(released.load(), count);
    // A manual-reset event stays set until reset; the released waiter reset an auto-reset one.
    EXPECT_EQ(event.wait(0), manual ? kvos::kWaitSignalled : kvos::kWaitTimeout);
    event.reset();
    EXPECT_EQ(event.wait(0), kvos::kWaitTimeout);
  }
  kvos::Event preset(false, true);
  EXPECT_EQ(preset.wait(0), kvos::kWaitSignalled);
  EXPECT_EQ(preset.wait(0), kvos::kWaitTimeout);
}

TEST(OsWaitableTimer, SignalledAtTheDueTimeAndStaysSignalledUntilArmedAgain) {
  kvos::WaitableTimer timer(true);
  ASSERT_TRUE(timer.valid());
  EXPECT_EQ(timer.wait(0), kvos::kWaitTimeout) << "a new timer is not signalled";
  const auto start = Clock::now();
  ASSERT_TRUE(timer.arm(in_ms(40)));
  EXPECT_EQ(timer.wait(0), kvos::kWaitTimeout);
  EXPECT_EQ(timer.wait(kvos::kWaitForever), kvos::kWaitSignalled);
  EXPECT_TRUE(ms_since(start) >= 39 && ms_since(start) < 500) << ms_since(start);
  EXPECT_TRUE(timer.wait(0) == kvos::kWaitSignalled && timer.wait(0) == kvos::kWaitSignalled) << "manual reset: it stays";
  // An absolute due time; re-arming makes it unsignalled.
  ASSERT_TRUE(timer.arm(kvos::system_file_time() + 30 * 10000));
  EXPECT_TRUE(timer.wait(0) == kvos::kWaitTimeout && timer.wait(1000) == kvos::kWaitSignalled);
  // A due time in the past signals at once.
  ASSERT_TRUE(timer.arm(kvos::system_file_time() - 10000000));
  EXPECT_EQ(timer.wait(0), kvos::kWaitSignalled);

  kvos::WaitableTimer autoReset(false);
  ASSERT_TRUE(autoReset.arm(in_ms(5)));
  EXPECT_TRUE(autoReset.wait(1000) == kvos::kWaitSignalled && autoReset.wait(0) == kvos::kWaitTimeout)
      << "auto reset: the wait took the signal";
}

TEST(OsWaitableTimer, CancellingRearmingOrDestroyingDropsTheCompletion) {
  kvos::WaitableTimer timer;
  int ran = 0;
  ASSERT_TRUE(timer.arm(in_ms(20), [&] { ++ran; }));
  ASSERT_TRUE(timer.cancel());
  EXPECT_EQ(timer.wait(60), kvos::kWaitTimeout) << "cancelled before the due time: never signalled";
  EXPECT_EQ(kvos::sleep_ms(0, true), kvos::kWaitTimeout);
  // Cancelling after the expiry leaves it signalled and takes back the completion it queued.
  ASSERT_TRUE(timer.arm(in_ms(1), [&] { ++ran; }));
  EXPECT_EQ(timer.wait(1000), kvos::kWaitSignalled);
  ASSERT_TRUE(timer.cancel());
  EXPECT_TRUE(timer.wait(0) == kvos::kWaitSignalled && kvos::sleep_ms(0, true) == kvos::kWaitTimeout && ran == 0);
  // Re-arming before the expiry replaces the earlier completion.
  ASSERT_TRUE(timer.arm(in_ms(10), [&] { ran += 10; }));
  ASSERT_TRUE(timer.arm(in_ms(10), [&] { ran += 100; }));
  EXPECT_TRUE(kvos::sleep_ms(2000, true) == kvos::kWaitCompletion && ran == 100) << ran;
  // A destroyed timer's completion never runs.
  {
    kvos::WaitableTimer gone;
    ASSERT_TRUE(gone.arm(in_ms(5), [&] { ++ran; }));
  }
  EXPECT_TRUE(kvos::sleep_ms(30, true) == kvos::kWaitTimeout && ran == 100) << ran;
}

TEST(OsWaitableTimer, CompletionIsQueuedToTheArmingThreadAndWakesItsAlertableSleep) {
  kvos::WaitableTimer timer;
  std::atomic<bool> onWorker{false};
  std::atomic<long> sleptMs{-1};
  std::atomic<int> result{-1};
  kvos::Event armed(true), mayWait(true);
  kvos::Thread worker([&] {
    const kvos::ThreadRef self = kvos::ThreadRef::current();
    EXPECT_TRUE(timer.arm(in_ms(30), [&, self] { onWorker = kvos::ThreadRef::current() == self; }));
    armed.set();
    mayWait.wait(kvos::kWaitForever);
    const auto start = Clock::now();
    result = kvos::sleep_ms(5000, true);
    sleptMs = ms_since(start);
  });
  armed.wait(kvos::kWaitForever);
  // The main thread sees the expiry, yet the completion waits for its own thread.
  EXPECT_TRUE(timer.wait(2000) == kvos::kWaitSignalled && kvos::sleep_ms(0, true) == kvos::kWaitTimeout);
  EXPECT_FALSE(onWorker.load());
  mayWait.set();
  worker.join();
  EXPECT_TRUE(result.load() == kvos::kWaitCompletion && onWorker.load());
  EXPECT_LT(sleptMs.load(), 1000) << "the queued completion ended the sleep at once";

  // A thread sleeping alertably before the due time wakes at the due time.
  kvos::WaitableTimer second;
  int ran = 0;
  const auto start = Clock::now();
  ASSERT_TRUE(second.arm(in_ms(25), [&] { ++ran; }));
  EXPECT_TRUE(kvos::sleep_ms(5000, true) == kvos::kWaitCompletion && ran == 1);
  EXPECT_TRUE(ms_since(start) >= 24 && ms_since(start) < 1000) << ms_since(start);
}

TEST(OsWaitableTimer, InjectedFailures) {
  kvos::FaultScope scope;
  kvos::fault_arm(kvos::FaultPoint::TimerCreate);
  kvos::WaitableTimer broken, timer;  // only the first creation fails
  EXPECT_FALSE(broken.valid() || broken.arm(in_ms(1)) || broken.cancel());
  EXPECT_EQ(broken.wait(0), kvos::kWaitFailed);
  ASSERT_TRUE(timer.valid());
  for (const auto point : {kvos::FaultPoint::TimerArm, kvos::FaultPoint::TimerWait, kvos::FaultPoint::TimerCancel})
    kvos::fault_arm(point);
  EXPECT_FALSE(timer.arm(in_ms(1)) || timer.cancel());
  EXPECT_EQ(timer.wait(0), kvos::kWaitFailed);
  EXPECT_TRUE(timer.arm(in_ms(1)) && timer.wait(1000) == kvos::kWaitSignalled) << "each point failed once";
}

}  // namespace
