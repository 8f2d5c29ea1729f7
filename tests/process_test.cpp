// ProcessManager: message pumping through the host's pump, the listener it
// installs and the termination manager it forwards to.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "ProcessManager.h"
#include "Zub/Core/AlertManager.h"
#include "test_support.h"

namespace {

using Clock = std::chrono::steady_clock;

// A message queue of the test's own.
struct FakePump : CSL::IMessagePump {
  explicit FakePump(int waiting) : waiting(waiting) {}
  bool Peek() override {
    ++peeks;
    return waiting > 0;
  }
  int Get() override {
    --waiting;
    ++removed;
    return failGet ? -1 : 1;
  }
  void Dispatch() override { ++dispatched; }
  int waiting, peeks = 0, removed = 0, dispatched = 0;
  bool failGet = false;
};

struct Recorder : CSL::ITerminationHandler {
  void HandleTermination() override { ++runs; }
  int runs = 0;
};

TEST(ProcessYield, PumpsEveryWaitingMessageAndATimedYieldPumpsForItsTime) {
  ProcessManager::yield();  // without a pump: returns at once
  FakePump pump(3);
  EXPECT_EQ(ProcessManager::SetMessagePump(&pump), nullptr);
  ProcessManager::yield();
  EXPECT_EQ(pump.removed, 3);
  EXPECT_EQ(pump.dispatched, 3);
  EXPECT_EQ(pump.peeks, 4) << "one look before, one after each message";
  ProcessManager::yield();
  EXPECT_EQ(pump.peeks, 5) << "an empty queue costs one look";
  ProcessManager::yield(0.0);
  ProcessManager::yield(-1.0);
  EXPECT_EQ(pump.peeks, 5) << "the time was up before it began";

  const auto start = Clock::now();
  pump.waiting = 2;
  ProcessManager::yield(0.05);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50));
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1000));
  EXPECT_EQ(pump.dispatched, 5);
  EXPECT_GT(pump.peeks, 8) << "it keeps looking until the time is up";
  EXPECT_EQ(ProcessManager::SetMessagePump(nullptr), &pump);
}

TEST(ProcessYieldDeathTest, AFailedRemovalEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        FakePump pump(1);
        pump.failGet = true;
        ProcessManager::SetMessagePump(&pump);
        ProcessManager::yield();
      },
      "terminate called without an active exception");
}

TEST(ProcessTerminators, RegistrationForwardsAndTheInstalledListenerRunsThemOnce) {
  Recorder handler;
  const int before = ProcessManager::m_terminationManager.GetNumberOfRegisteredHandlers();
  processman.RegisterTerminator(&handler);
  EXPECT_EQ(ProcessManager::m_terminationManager.GetNumberOfRegisteredHandlers(), before + 1);
  ProcessManager::UnRegisterTerminator(&handler);
  EXPECT_EQ(ProcessManager::m_terminationManager.GetNumberOfRegisteredHandlers(), before);

  // In a child: the listener initialize installs runs the handlers at the first uncaught
  // error only; the once-only flag is the process's, so a later listener only complains.
  kvtest::TempDir dir;
  const int status = kvtest::run_in_child([&] {
    kvtest::CategoryScope a(dbgA), csl(dbgCSL);
    Recorder first, second;
    ProcessManager::RegisterTerminator(&first);
    ProcessManager::RegisterTerminator(&second);
    kvtest::CaptureSink sink;
    if (ProcessManager::m_listener != nullptr) return 1;
    ProcessManager::initialize();
    SystemAlertListener* listener = ProcessManager::m_listener;
    ProcessManager::initialize();
    if (listener == nullptr || ProcessManager::m_listener != listener) return 2;
    Zub::Core::AlertManager::Instance()->NotifyUncaughtFatalError();
    {
      ProcessManager another;  // its end takes the process's listener with it
    }
    if (ProcessManager::m_listener != nullptr) return 3;
    Zub::Core::AlertManager::Instance()->NotifyUncaughtFatalError();  // nobody listens
    ProcessManager::initialize();
    Zub::Core::AlertManager::Instance()->NotifyUncaughtFatalError();
    ProcessManager::HandleAbnormalTermination();  // entered already
    std::string seen = std::to_string(first.runs) + std::to_string(second.runs) + " runs\n";
    for (const auto& entry : sink.entries()) seen += entry.logger + ": " + entry.text;
    kvtest::write_file(dir.file("seen.txt"), seen);
    return 0;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);
  EXPECT_EQ(kvtest::read_file(dir.file("seen.txt")),
            "11 runs\nKorvalis.A: CSL: SystemAlertListener::UncaughtFatalError being processed.\n"
            "Korvalis.A: \nCSL: CAbnormalTerminationManager::HandleAbnormalTermination()\n"
            "Korvalis.A: CSL: SystemAlertListener::UncaughtFatalError exit.\n"
            "Korvalis.CSL: Error: SystemAlertListener::UncaughtFatalError called more than once.\n"
            "Korvalis.A: \nCSL: CAbnormalTerminationManager::HandleAbnormalTermination()\n"
            "Korvalis.A: \nInvalid attempt to re-enter the termination manager HandleAbnormalTermination method.\n");
}

}  // namespace
