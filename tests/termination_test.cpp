// Abnormal termination: handler registration, the once-only run, the alert
// listener and the whole fatal path in a child process.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ProcessManager.h"
#include "TerminationManager.h"
#include "Zub/Core/AlertManager.h"
#include "sysman.h"
#include "test_support.h"

namespace {

struct Handler : CSL::ITerminationHandler {
  Handler(std::vector<std::string>* log, std::string name, bool throws = false)
      : log(log), name(std::move(name)), throws(throws) {
    setHandlerText(this->name);
  }
  void HandleTermination() override {
    log->push_back(name);
    if (throws) throw std::runtime_error("handler failed");
  }
  std::vector<std::string>* log;
  std::string name;
  bool throws;
};

// Appends its name to a file: what a handler leaves behind for the parent.
struct FileHandler : CSL::ITerminationHandler {
  FileHandler(std::string path, std::string name, int failure = 0)
      : path(std::move(path)), name(std::move(name)), failure(failure) {}
  void HandleTermination() override {
    std::ofstream(path, std::ios::app) << name << "\n";
    if (failure == 1) throw 42;
    if (failure == 2) sys_abort("a handler failed fatally");
  }
  std::string path, name;
  int failure;
};

TEST(TerminationHandler, TextDefaultsSetsAndCopies) {
  struct Plain : CSL::ITerminationHandler {
    void HandleTermination() override {}
  } plain;
  EXPECT_STREQ(plain.getHandlerText(), "Unknown ITerminationHandler");
  plain.setHandlerText("motion stage");
  Plain copy(plain);
  EXPECT_STREQ(copy.getHandlerText(), "motion stage");
  Plain assigned;
  assigned = plain;
  EXPECT_STREQ(assigned.getHandlerText(), "motion stage");
}

TEST(TerminationManager, RegistrationReportsNullsAndDuplicates) {
  kvtest::CategoryScope csl(dbgCSL);
  kvtest::CaptureSink sink;
  std::vector<std::string> log;
  Handler stage(&log, "stage");
  CSL::CAbnormalTerminationManager manager;
  EXPECT_EQ(manager.GetNumberOfRegisteredHandlers(), 0);

  manager.Register(nullptr);
  EXPECT_EQ(sink.text(), "\nAttempt to register a NULL ITerminationHandler.\n");
  sink.clear();
  manager.Register(&stage);
  EXPECT_EQ(sink.text(), "\nCAbnormalTerminationManager - Registering: stage.\n");
  sink.clear();
  manager.Register(&stage);
  EXPECT_EQ(sink.text(),
            "\nCAbnormalTerminationManager - Registering: stage.\n"
            "\nAttempt to register the same ITerminationHandler more than once.\n");
  EXPECT_EQ(manager.GetNumberOfRegisteredHandlers(), 1);
  ASSERT_FALSE(sink.entries().empty());
  EXPECT_EQ(sink.entries()[0].logger, "Korvalis.CSL");

  sink.clear();
  Handler other(&log, "other");
  manager.UnRegister(&other);
  EXPECT_EQ(sink.text(), "\nCAbnormalTerminationManager - UnRegistering: other.\n");
  EXPECT_EQ(manager.GetNumberOfRegisteredHandlers(), 1);
  sink.clear();
  manager.UnRegister(nullptr);
  EXPECT_EQ(sink.text(), "\nAttempt to unregister a NULL ITerminationHandler.\n");
  manager.UnRegister(&stage);
  EXPECT_EQ(manager.GetNumberOfRegisteredHandlers(), 0);
}

TEST(TerminationManager, RunsEveryHandlerInOrderOnceAndSurvivesThrowingOnes) {
  kvtest::CategoryScope a(dbgA);
  std::vector<std::string> log;
  Handler first(&log, "first"), broken(&log, "broken", true), last(&log, "last");
  CSL::CAbnormalTerminationManager manager;
  manager.Register(&first);
  manager.Register(&broken);
  manager.Register(&last);
  CSL::CAbnormalTerminationManager copy(manager);  // the list and the flag are copied

  kvtest::CaptureSink sink;
  manager.HandleAbnormalTermination();
  EXPECT_EQ(log, (std::vector<std::string>{"first", "broken", "last"}));
  EXPECT_EQ(sink.text(),
            "\nCSL: CAbnormalTerminationManager::HandleAbnormalTermination()\n"
            "\nAn ITerminationHandler threw an exception.\n");
  EXPECT_EQ(sink.entries()[0].logger, "Korvalis.A");

  sink.clear();
  manager.HandleAbnormalTermination();
  EXPECT_EQ(log.size(), 3u) << "no handler runs twice";
  EXPECT_EQ(sink.text(),
            "\nCSL: CAbnormalTerminationManager::HandleAbnormalTermination()\n"
            "\nInvalid attempt to re-enter the termination manager HandleAbnormalTermination method.\n");

  CSL::CAbnormalTerminationManager entered;
  entered = manager;
  log.clear();
  entered.HandleAbnormalTermination();
  EXPECT_TRUE(log.empty()) << "assignment copies the entered flag";
  copy.HandleAbnormalTermination();
  EXPECT_EQ(log, (std::vector<std::string>{"first", "broken", "last"})) << "the copy was made before the run";
}

TEST(TerminationListener, TheFirstUncaughtErrorRunsTheHandlersLaterOnesOnlyComplain) {
  const int status = kvtest::run_in_child([] {
    kvtest::CategoryScope a(dbgA);
    kvtest::CategoryScope csl(dbgCSL);
    std::vector<std::string> log;
    Handler handler(&log, "h");
    ProcessManager::RegisterTerminator(&handler);
    SystemAlertListener listener;
    kvtest::CaptureSink sink;
    listener.UncaughtFatalError();
    if (log.size() != 1) return 1;
    if (sink.text() !=
        "CSL: SystemAlertListener::UncaughtFatalError being processed.\n"
        "\nCSL: CAbnormalTerminationManager::HandleAbnormalTermination()\n"
        "CSL: SystemAlertListener::UncaughtFatalError exit.\n")
      return 2;
    sink.clear();
    SystemAlertListener another;  // the once-only flag is the process's, not the listener's
    another.UncaughtFatalError();
    if (log.size() != 1) return 3;
    if (sink.text() != "Error: SystemAlertListener::UncaughtFatalError called more than once.\n") return 4;
    if (sink.entries()[0].logger != "Korvalis.CSL") return 5;
    return 0;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);
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
    static FileHandler first(record, "first", 1), second(record, "second", 2), third(record, "third");
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
