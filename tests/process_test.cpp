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
class FakePump : public CSL::IMessagePump {
 public:
  explicit FakePump(int waiting) : waiting(waiting) {}
  bool Peek() override {
    ++peeks;
    return waiting > 0;
  }
  int Get() override {
    if (waiting <= 0) return -1;
    --waiting;
    ++removed;
    return failGet ? -1 : 1;
  }
  void Dispatch() override { ++dispatched; }

  int waiting;
  int peeks = 0, removed = 0, dispatched = 0;
  bool failGet = false;
};

// Installs a pump for a scope.
struct PumpScope {
  explicit PumpScope(CSL::IMessagePump* pump) { ProcessManager::SetMessagePump(pump); }
  ~PumpScope() { ProcessManager::SetMessagePump(nullptr); }
};

struct Recorder : CSL::ITerminationHandler {
  void HandleTermination() override { ++runs; }
  int runs = 0;
};

TEST(ProcessYield, WithoutAPumpReturnsAtOnce) {
  ProcessManager::SetMessagePump(nullptr);
  // Windows looks at the thread's own message queue: the first look sets it
  // up, and under Wine each look asks the Wine server.
  ProcessManager::yield();
  const auto start = Clock::now();
  for (int i = 0; i < (kvtest::kWindows ? 1000 : 10000); ++i) ProcessManager::yield();
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(200));
}

TEST(ProcessYield, PumpsEveryWaitingMessageThenReturns) {
  FakePump pump(3);
  EXPECT_EQ(ProcessManager::SetMessagePump(&pump), nullptr);
  ProcessManager::yield();
  EXPECT_EQ(pump.removed, 3);
  EXPECT_EQ(pump.dispatched, 3);
  EXPECT_EQ(pump.peeks, 4) << "one look before, one after each message";
  ProcessManager::yield();
  EXPECT_EQ(pump.removed, 3);
  EXPECT_EQ(pump.peeks, 5) << "an empty queue costs one look";
  EXPECT_EQ(ProcessManager::SetMessagePump(nullptr), &pump);
}

TEST(ProcessYield, ATimedYieldPumpsForItsTimeAndNotAtAllWhenItIsUp) {
  FakePump pump(0);
  PumpScope scope(&pump);
  ProcessManager::yield(0.0);
  ProcessManager::yield(-1.0);
  EXPECT_EQ(pump.peeks, 0) << "the time was up before it began";

  const auto start = Clock::now();
  pump.waiting = 2;
  ProcessManager::yield(0.05);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50));
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1000));
  EXPECT_EQ(pump.dispatched, 2);
  EXPECT_GT(pump.peeks, 3) << "it keeps looking until the time is up";
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

TEST(ProcessTerminators, RegistrationForwardsToTheProcessManager) {
  Recorder handler;
  const int before = ProcessManager::m_terminationManager.GetNumberOfRegisteredHandlers();
  processman.RegisterTerminator(&handler);
  EXPECT_EQ(ProcessManager::m_terminationManager.GetNumberOfRegisteredHandlers(), before + 1);
  ProcessManager::UnRegisterTerminator(&handler);
  EXPECT_EQ(ProcessManager::m_terminationManager.GetNumberOfRegisteredHandlers(), before);

  const int status = kvtest::run_in_child([] {
    Recorder first, second;
    ProcessManager::RegisterTerminator(&first);
    ProcessManager::RegisterTerminator(&second);
    ProcessManager::HandleAbnormalTermination();
    ProcessManager::HandleAbnormalTermination();
    return first.runs * 10 + second.runs;
  });
  EXPECT_EQ(kvtest::child_result(status), 11) << "each handler ran once";
}

TEST(ProcessListener, InitializeInstallsOneListenerAndTheDestructorRemovesIt) {
  const int status = kvtest::run_in_child([] {
    if (ProcessManager::m_listener != nullptr) return 1;
    ProcessManager::initialize();
    SystemAlertListener* listener = ProcessManager::m_listener;
    if (listener == nullptr) return 2;
    ProcessManager::initialize();
    if (ProcessManager::m_listener != listener) return 3;
    {
      ProcessManager another;  // its end takes the process's listener with it
    }
    if (ProcessManager::m_listener != nullptr) return 4;
    Recorder handler;
    ProcessManager::RegisterTerminator(&handler);
    Zub::Core::AlertManager::Instance()->NotifyUncaughtFatalError();
    if (handler.runs != 0) return 5;  // nobody listens any more
    ProcessManager::initialize();
    Zub::Core::AlertManager::Instance()->NotifyUncaughtFatalError();
    return handler.runs == 1 ? 0 : 6;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);
}

}  // namespace
