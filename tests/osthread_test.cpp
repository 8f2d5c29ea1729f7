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

TEST(OsCompletions, RunOnlyDuringAlertableWaitsOfTheirThreadInOrder) {
  std::vector<int> ran;
  const kvos::ThreadRef self = kvos::ThreadRef::current();
  ASSERT_TRUE(self.queue_completion([&] { ran.push_back(1); }));
  ASSERT_TRUE(self.queue_completion([&] { ran.push_back(2); }));
  EXPECT_FALSE(self.queue_completion(nullptr));

  EXPECT_EQ(kvos::sleep_ms(5, false), kvos::kWaitTimeout);
  kvos::Event never(true);
  EXPECT_EQ(never.wait(5, false), kvos::kWaitTimeout);
  EXPECT_TRUE(ran.empty()) << "waits that are not alertable leave the queue alone";

  EXPECT_EQ(kvos::sleep_ms(1000, true), kvos::kWaitCompletion);
  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
  const auto start = Clock::now();
  EXPECT_EQ(kvos::sleep_ms(20, true), kvos::kWaitTimeout);
  EXPECT_GE(ms_since(start), 20);
}

TEST(OsCompletions, AnotherThreadsRoutinesWakeItsAlertableSleepAndRunThere) {
  std::atomic<bool> ranOnWorker{false};
  std::atomic<int> result{-1};
  kvos::Thread worker([&] { result = kvos::sleep_ms(kvos::kWaitForever, true); });
  const kvos::ThreadRef target = worker.ref();
  EXPECT_TRUE(target.alive());
  EXPECT_FALSE(target == kvos::ThreadRef::current());
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_TRUE(target.queue_completion([&] { ranOnWorker = kvos::ThreadRef::current() == target; }));
  worker.join();
  EXPECT_EQ(result.load(), kvos::kWaitCompletion);
  EXPECT_TRUE(ranOnWorker.load());

  EXPECT_FALSE(target.alive());
  EXPECT_FALSE(target.queue_completion([] {})) << "a thread that has ended takes no routines";
  EXPECT_FALSE(kvos::ThreadRef().queue_completion([] {}));
}

TEST(OsCompletions, ARoutineThatThrowsLeavesTheRestQueued) {
  int ran = 0;
  const kvos::ThreadRef self = kvos::ThreadRef::current();
  self.queue_completion([] { throw std::runtime_error("routine failed"); });
  self.queue_completion([&] { ++ran; });
  EXPECT_THROW(kvos::sleep_ms(0, true), std::runtime_error);
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(kvos::sleep_ms(0, true), kvos::kWaitCompletion);
  EXPECT_EQ(ran, 1);
}

TEST(OsEvents, ManualResetReleasesEveryWaiterAndStaysSet) {
  kvos::Event event(true);
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i)
    waiters.emplace_back([&] {
      if (event.wait(kvos::kWaitForever) == kvos::kWaitSignalled) ++released;
    });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(released.load(), 0);
  event.set();
  for (std::thread& t : waiters) t.join();
  EXPECT_EQ(released.load(), 3);
  EXPECT_EQ(event.wait(0), kvos::kWaitSignalled);
  event.reset();
  EXPECT_EQ(event.wait(0), kvos::kWaitTimeout);
}

TEST(OsEvents, AutoResetReleasesOneWaiterPerSet) {
  kvos::Event event(false);
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 2; ++i)
    waiters.emplace_back([&] {
      if (event.wait(2000) == kvos::kWaitSignalled) ++released;
    });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  event.set();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(released.load(), 1);
  event.set();
  for (std::thread& t : waiters) t.join();
  EXPECT_EQ(released.load(), 2);
  EXPECT_EQ(event.wait(0), kvos::kWaitTimeout) << "the released waiter reset it";

  kvos::Event preset(false, true);
  EXPECT_EQ(preset.wait(0), kvos::kWaitSignalled);
  EXPECT_EQ(preset.wait(0), kvos::kWaitTimeout);
}

TEST(OsEvents, AlertableWaitEndsWithCompletionsButAPlainOneDoesNot) {
  kvos::Event event(true);
  int ran = 0;
  kvos::ThreadRef::current().queue_completion([&] { ++ran; });
  EXPECT_EQ(event.wait(10, false), kvos::kWaitTimeout);
  EXPECT_EQ(event.wait(1000, true), kvos::kWaitCompletion);
  EXPECT_EQ(ran, 1);
}

TEST(OsWaitableTimer, SignalledAtTheDueTimeAndStaysSignalledUntilArmedAgain) {
  kvos::WaitableTimer timer(true);
  ASSERT_TRUE(timer.valid());
  EXPECT_EQ(timer.wait(0), kvos::kWaitTimeout) << "a new timer is not signalled";
  const auto start = Clock::now();
  ASSERT_TRUE(timer.arm(in_ms(40)));
  EXPECT_EQ(timer.wait(0), kvos::kWaitTimeout);
  EXPECT_EQ(timer.wait(kvos::kWaitForever), kvos::kWaitSignalled);
  const long waited = ms_since(start);
  EXPECT_GE(waited, 39);
  EXPECT_LT(waited, 500);
  EXPECT_EQ(timer.wait(0), kvos::kWaitSignalled);
  EXPECT_EQ(timer.wait(0), kvos::kWaitSignalled) << "manual reset: it stays signalled";

  // An absolute due time; re-arming makes it unsignalled.
  ASSERT_TRUE(timer.arm(kvos::system_file_time() + 30 * 10000));
  EXPECT_EQ(timer.wait(0), kvos::kWaitTimeout);
  EXPECT_EQ(timer.wait(1000), kvos::kWaitSignalled);
  // A due time in the past signals at once.
  ASSERT_TRUE(timer.arm(kvos::system_file_time() - 10000000));
  EXPECT_EQ(timer.wait(0), kvos::kWaitSignalled);

  kvos::WaitableTimer autoReset(false);
  ASSERT_TRUE(autoReset.arm(in_ms(5)));
  EXPECT_EQ(autoReset.wait(1000), kvos::kWaitSignalled);
  EXPECT_EQ(autoReset.wait(0), kvos::kWaitTimeout) << "auto reset: the wait took the signal";
}

TEST(OsWaitableTimer, CancelBeforeTheDueTimeKeepsItUnsignalledAndDropsTheCompletion) {
  kvos::WaitableTimer timer;
  int ran = 0;
  ASSERT_TRUE(timer.arm(in_ms(20), [&] { ++ran; }));
  ASSERT_TRUE(timer.cancel());
  EXPECT_EQ(timer.wait(60), kvos::kWaitTimeout);
  EXPECT_EQ(kvos::sleep_ms(0, true), kvos::kWaitTimeout);
  EXPECT_EQ(ran, 0);

  // Cancelling after the expiry leaves it signalled and takes back the completion it queued.
  ASSERT_TRUE(timer.arm(in_ms(1), [&] { ++ran; }));
  EXPECT_EQ(timer.wait(1000), kvos::kWaitSignalled);
  ASSERT_TRUE(timer.cancel());
  EXPECT_EQ(timer.wait(0), kvos::kWaitSignalled);
  EXPECT_EQ(kvos::sleep_ms(0, true), kvos::kWaitTimeout);
  EXPECT_EQ(ran, 0);

  // Re-arming before the expiry replaces the earlier completion.
  ASSERT_TRUE(timer.arm(in_ms(10), [&] { ran += 10; }));
  ASSERT_TRUE(timer.arm(in_ms(10), [&] { ran += 100; }));
  EXPECT_EQ(kvos::sleep_ms(2000, true), kvos::kWaitCompletion);
  EXPECT_EQ(ran, 100);
}

TEST(OsWaitableTimer, CompletionIsQueuedToTheArmingThreadAndWakesItsAlertableSleep) {
  kvos::WaitableTimer timer;
  std::atomic<bool> onWorker{false};
  std::atomic<long> sleptMs{-1};
  std::atomic<int> result{-1};
  kvos::Event armed(true);
  kvos::Event mayWait(true);
  kvos::Thread worker([&] {
    const kvos::ThreadRef self = kvos::ThreadRef::current();
    timer.arm(in_ms(30), [&, self] { onWorker = kvos::ThreadRef::current() == self; });
    armed.set();
    mayWait.wait(kvos::kWaitForever);
    const auto start = Clock::now();
    result = kvos::sleep_ms(5000, true);
    sleptMs = ms_since(start);
  });
  armed.wait(kvos::kWaitForever);
  // The main thread sees the expiry, yet the completion waits for its own thread.
  EXPECT_EQ(timer.wait(2000), kvos::kWaitSignalled);
  EXPECT_EQ(kvos::sleep_ms(0, true), kvos::kWaitTimeout);
  EXPECT_FALSE(onWorker.load());
  mayWait.set();
  worker.join();
  EXPECT_EQ(result.load(), kvos::kWaitCompletion);
  EXPECT_TRUE(onWorker.load());
  EXPECT_LT(sleptMs.load(), 1000) << "the queued completion ended the sleep at once";

  // A thread sleeping alertably before the due time wakes at the due time.
  kvos::WaitableTimer second;
  int ran = 0;
  const auto start = Clock::now();
  ASSERT_TRUE(second.arm(in_ms(25), [&] { ++ran; }));
  EXPECT_EQ(kvos::sleep_ms(5000, true), kvos::kWaitCompletion);
  EXPECT_EQ(ran, 1);
  EXPECT_GE(ms_since(start), 24);
  EXPECT_LT(ms_since(start), 1000);
}

TEST(OsWaitableTimer, ADestroyedTimersCompletionNeverRuns) {
  int ran = 0;
  {
    kvos::WaitableTimer timer;
    ASSERT_TRUE(timer.arm(in_ms(5), [&] { ++ran; }));
  }
  EXPECT_EQ(kvos::sleep_ms(30, true), kvos::kWaitTimeout);
  EXPECT_EQ(ran, 0);
}

TEST(OsWaitableTimer, InjectedFailures) {
  kvos::FaultScope scope;
  kvos::fault_arm(kvos::FaultPoint::TimerCreate);
  kvos::WaitableTimer broken;
  EXPECT_FALSE(broken.valid());
  EXPECT_FALSE(broken.arm(in_ms(1)));
  EXPECT_FALSE(broken.cancel());
  EXPECT_EQ(broken.wait(0), kvos::kWaitFailed);

  kvos::WaitableTimer timer;
  ASSERT_TRUE(timer.valid());
  kvos::fault_arm(kvos::FaultPoint::TimerArm);
  EXPECT_FALSE(timer.arm(in_ms(1)));
  kvos::fault_arm(kvos::FaultPoint::TimerWait);
  EXPECT_EQ(timer.wait(0), kvos::kWaitFailed);
  kvos::fault_arm(kvos::FaultPoint::TimerCancel);
  EXPECT_FALSE(timer.cancel());
  EXPECT_TRUE(timer.arm(in_ms(1)));
  EXPECT_EQ(timer.wait(1000), kvos::kWaitSignalled);
}

}  // namespace
