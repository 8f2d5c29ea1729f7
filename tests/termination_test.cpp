// Abnormal termination: handler registration, the once-only run and the whole
// fatal path in a child process (the listener is tested with ProcessManager).
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "ProcessManager.h"
#include "TerminationManager.h"
#include "sysman.h"
#include "test_support.h"

namespace {

using Log = std::vector<std::string>;

// Notes its name in a log or, for a parent process to read, in a file; then fails as told.
struct Handler : CSL::ITerminationHandler {
  Handler(Log* log, std::string name, int failure = 0, std::string path = "")
      : log(log), name(std::move(name)), failure(failure), path(std::move(path)) {}
  void HandleTermination() override {
    if (log != nullptr) log->push_back(name);
    if (log == nullptr) std::ofstream(path, std::ios::app) << name << "\n";
    if (failure == 1) throw std::runtime_error("handler failed");
    if (failure == 2) sys_abort("a handler failed fatally");
  }
  Log* log;
  std::string name;
  int failure;
  std::string path;
};

TEST(TerminationManager, RegistersOnceAndRunsEveryHandlerInOrderOnceThroughThrowingOnes) {
  kvtest::CategoryScope csl(dbgCSL), a(dbgA);
  kvtest::CaptureSink sink;
  Log log;
  Handler plain(&log, "plain"), stage(&log, "stage"), assigned(&log, "assigned"), broken(&log, "broken", 1);
  stage.setHandlerText("stage");
  Handler copy(stage);
  copy.name = "copy";
  assigned = stage;
  CSL::CAbnormalTerminationManager manager;
  const std::string reg = "\nCAbnormalTerminationManager - Registering: ";
  const std::string unreg = "\nCAbnormalTerminationManager - UnRegistering: ";
  const std::tuple<bool, CSL::ITerminationHandler*, std::string, int> rows[] = {
      {true, nullptr, "\nAttempt to register a NULL ITerminationHandler.\n", 0},
      {true, &plain, reg + "Unknown ITerminationHandler.\n", 1},
      {true, &stage, reg + "stage.\n", 2},
      {true, &stage, reg + "stage.\n\nAttempt to register the same ITerminationHandler more than once.\n", 2},
      {true, &copy, reg + "stage.\n", 3},  // a copy carries the text and is a handler of its own
      {false, &assigned, unreg + "stage.\n", 3},
      {false, nullptr, "\nAttempt to unregister a NULL ITerminationHandler.\n", 3},
      {false, &stage, unreg + "stage.\n", 2},
      {true, &broken, reg + "Unknown ITerminationHandler.\n", 3},
      {true, &stage, reg + "stage.\n", 4},
  };
  for (const auto& [add, handler, text, count] : rows) {
    sink.clear();
    add ? manager.Register(handler) : manager.UnRegister(handler);
    EXPECT_EQ(sink.text(), text);
    EXPECT_EQ(manager.GetNumberOfRegisteredHandlers(), count);
    EXPECT_EQ(sink.entries().at(0).logger, "Korvalis.CSL");
  }
  CSL::CAbnormalTerminationManager early(manager);  // the list and the flag are copied
  const std::string run = "\nCSL: CAbnormalTerminationManager::HandleAbnormalTermination()\n";
  sink.clear();
  manager.HandleAbnormalTermination();
  EXPECT_EQ(log, (Log{"plain", "copy", "broken", "stage"}));
  EXPECT_EQ(sink.text(), run + "\nAn ITerminationHandler threw an exception.\n");
  EXPECT_EQ(sink.entries().at(0).logger, "Korvalis.A");
  sink.clear();
  manager.HandleAbnormalTermination();
  EXPECT_EQ(log.size(), 4u) << "no handler runs twice";
  EXPECT_EQ(sink.text(),
            run + "\nInvalid attempt to re-enter the termination manager HandleAbnormalTermination method.\n");
  CSL::CAbnormalTerminationManager entered;
  entered = manager;
  log.clear();
  entered.HandleAbnormalTermination();
  EXPECT_TRUE(log.empty()) << "assignment copies the entered flag";
  early.HandleAbnormalTermination();
  EXPECT_EQ(log, (Log{"plain", "copy", "broken", "stage"})) << "the copy was made before the run";
}

// The whole path: an error that nothing catches ends the process after the
// handlers have run once each, in order, whatever they do.
TEST(TerminationFatalPath, AnUncaughtErrorRunsTheHandlersOnceAndEndsTheProcess) {
  kvtest::TempDir dir;
  const std::string record = dir.file("ran.txt");
  const std::string errors = dir.file("stderr.txt");
  const int status = kvtest::run_in_child([&] {
    if (std::freopen(errors.c_str(), "w", stderr) == nullptr) return 1;
    SysManager::Initialize();
    static Handler first(nullptr, "first", 1, record), second(nullptr, "second", 2, record),
        third(nullptr, "third", 0, record);
    ProcessManager::RegisterTerminator(&first);
    ProcessManager::RegisterTerminator(&second);
    ProcessManager::RegisterTerminator(&third);
    std::thread worker([] { sys_abort("an invariant broke"); });  // nothing catches it
    worker.join();
    return 0;
  });
  EXPECT_EQ(kvtest::child_result(status), kvtest::kChildAborted) << "the process must not go on";
  EXPECT_EQ(kvtest::read_text(record), "first\nsecond\nthird\n");
  EXPECT_EQ(kvtest::read_text(errors), "terminate called after an uncaught exception: an invariant broke\n");
}

}  // namespace
