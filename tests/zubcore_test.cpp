// ZubCore: errors and alerts, the terminate path, mutexes, the logging service, paths.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "Zub/Core/AlertManager.h"
#include "Zub/Core/Callback.h"
#include "Zub/Core/Error.h"
#include "Zub/Core/LogManager.h"
#include "Zub/Core/Mutex.h"
#include "Zub/Core/PathName.h"
#include "test_support.h"

using namespace Zub::Core;

namespace {

class ProbeError : public LogicError {
 public:
  explicit ProbeError(int code = 0) : code_(code) {}
  std::string GetCategory() const override { return "Probe Error"; }
  int code() const { return code_; }
  ZUB_ERROR_COPY_OPERATIONS(ProbeError)

 private:
  int code_;
};

// Notes what it hears, under its name, in a log shared with other listeners.
struct RecordingListener : AlertListener {
  RecordingListener(std::vector<std::string>& log, std::string name) : log(log), name(std::move(name)) {}
  bool IsInterestedIn(AlertInfo&) const override { return interested; }
  void ErrorRaised(Error& e) override { log.push_back(name + " raised:" + e.GetMessage()); }
  void WarningRaised(Warning& w) override { log.push_back(name + " warning:" + w.GetMessage()); }
  std::vector<std::string>& log;
  std::string name;
  bool interested = true;
};

CodeContext here(int line) { return CodeContext("Tests/zub", line, "fn", "void fn(void)", "date"); }

}  // namespace

TEST(ZubAlerts, InterestedListenersHearAlertsInOrderThenTheConcreteTypeIsThrown) {
  std::vector<std::string> log;
  auto first = std::make_unique<RecordingListener>(log, "first");
  RecordingListener second(log, "second");
  AlertManager::Instance()->AddAlertListener(first.get());
  AlertManager::Instance()->AddAlertListener(&second);
  AlertManager::Instance()->AddAlertListener(&second);  // a second add changes nothing
  ProbeError error(42);
  try {
    Error::RaiseError(error, here(17), "something broke", 0);
    ADD_FAILURE() << "RaiseError returned";
  } catch (const ProbeError& caught) {
    EXPECT_STREQ(caught.what(), "something broke");
    EXPECT_EQ(caught.code(), 42);
    EXPECT_EQ(caught.GetCodeContext().GetLine(), 17);
    EXPECT_EQ(caught.GetCodeContext().GetSignature(), "void fn(void)");
  }
  second.interested = false;
  Warning warning;
  Warning::RaiseWarning(warning, here(3), "low tip");
  EXPECT_EQ(warning.GetMessage(), "low tip");
  first.reset();  // destroyed while registered: it must leave the manager
  EXPECT_THROW(Error::RaiseError(error, here(1), "quiet"), ProbeError);
  second.interested = true;
  Warning::RaiseWarning(warning, here(4), "again");
  AlertManager::Instance()->RemoveAlertListener(&second);
  Warning::RaiseWarning(warning, here(5), "none");
  EXPECT_EQ(log, (std::vector<std::string>{"first raised:something broke", "second raised:something broke",
                                           "first warning:low tip", "second warning:again"}));
  boost::shared_ptr<Error> copy = error.Copy();
  EXPECT_EQ(dynamic_cast<ProbeError&>(*copy).code(), 42);
  EXPECT_EQ(copy->GetMessage(), "quiet");
  EXPECT_THROW(copy->Throw(), ProbeError);
}

TEST(ZubAlerts, UncaughtErrorTellsListenersOnceAndAborts) {
  kvtest::TempDir dir;
  const std::string marker = dir.file("fatal.txt");
  const int status = kvtest::run_in_child([&] {
    struct FileListener : AlertListener {
      std::string path;
      void UncaughtFatalError() override {
        FILE* f = std::fopen(path.c_str(), "a");
        std::fputs("fatal\n", f);
        std::fclose(f);
        throw std::runtime_error("a listener that fails");  // must not stop the abort
      }
    };
    static FileListener listener;
    listener.path = marker;
    AlertManager::Instance()->AddAlertListener(&listener);
    std::freopen(kvtest::kNullDevice, "w", stderr);
    std::thread([] { throw std::runtime_error("nobody catches this"); }).join();
    return 0;
  });
  EXPECT_EQ(kvtest::child_result(status), kvtest::kChildAborted);
  EXPECT_EQ(kvtest::read_text(marker), "fatal\n");
}

TEST(ZubMutex, RecursiveForTheOwnerTimedForOthers) {
  Mutex mutex;
  ASSERT_TRUE(mutex.Lock(Elapse(0x7FFFFFFF, 3)));
  std::atomic<int> result{-1};
  {
    Lock again(mutex, Elapse(0, 3));  // the owner may lock again at once
    EXPECT_TRUE(again.IsLocked());
    const auto start = std::chrono::steady_clock::now();
    std::thread([&] { result = mutex.Lock(Elapse(60, 3)) ? 1 : 0; }).join();
    EXPECT_EQ(result.load(), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(55));
  }
  std::thread([&] { result = mutex.TryLock() ? 1 : 0; }).join();
  EXPECT_EQ(result.load(), 0) << "still held once";
  mutex.Unlock();
  std::thread([&] {
    result = mutex.Lock(Elapse(60, 3)) ? 1 : 0;
    if (result == 1) mutex.Unlock();
  }).join();
  EXPECT_EQ(result.load(), 1);
  EXPECT_EQ(Elapse(5, Elapse::Seconds).GetNanoseconds(), 5000000000LL);
  EXPECT_EQ(Elapse(5, Elapse::Microseconds).GetNanoseconds(), 5000);
  EXPECT_EQ(Elapse(5, Elapse::Ticks100ns).GetNanoseconds(), 500);
  EXPECT_FALSE(Elapse(0x7FFFFFFE, 3).IsUnlimited());
}

TEST(ZubLogging, FiltersDecideWhatReachesTheSinks) {
  LogManager manager;
  kvtest::CaptureSink unused;  // attached to the process service, must see nothing of this manager
  struct Sink : LogSink {
    std::vector<std::string> lines;
    void Write(const std::string& logger, int severity, const std::string& text) override {
      lines.push_back(logger + "/" + std::to_string(severity) + "/" + text);
    }
  } sink;
  manager.AddSink(&sink);
  auto logger = manager.GetLogger("Korvalis.Stage");
  EXPECT_EQ(manager.GetLogger("Korvalis.Stage"), logger) << "one logger per name";
  EXPECT_EQ(logger->GetSeverityFilters(), +LogManager::kDefaultFilters);

  logger->WriteLog(ZubLogDebug, "dropped %d", 1);
  logger->WriteLog(ZubLogError, "kept %d", 2);
  manager.SetSeverityFilters("Korvalis.Stage", 1u << ZubLogDebug);
  EXPECT_EQ(manager.GetSeverityFilters("Korvalis.Stage"), 16u);
  logger->WriteLog(ZubLogDebug, "now %s", "debug");
  logger->WriteLog(ZubLogError, "error filtered");
  EXPECT_EQ(sink.lines, (std::vector<std::string>{"Korvalis.Stage/1/kept 2", "Korvalis.Stage/4/now debug"}));

  const std::string payload(5000, 'x');  // long lines are formatted whole
  logger->WriteLog(ZubLogDebug, "<%s|%d>", payload.c_str(), 77);
  EXPECT_EQ(sink.lines.back(), "Korvalis.Stage/4/<" + payload + "|77>");
  manager.RemoveSink(&sink);
  logger->WriteLog(ZubLogDebug, "after removal");
  EXPECT_EQ(sink.lines.size(), 3u);
  EXPECT_TRUE(unused.entries().empty());
}

TEST(ZubLogging, DebugRulesMatchFullNamesLastComponentsOrAll) {
  LogManager manager, everything;
  manager.GetLogger("Korvalis.Motion");  // exists before the rules: gets the bit too
  manager.SetDebugRules(" csl ; Motion,Korvalis.Zoom");
  everything.SetDebugRules("all");
  const std::pair<const char*, bool> names[] = {{"Korvalis.CSL", true}, {"Korvalis.Motion", true},
                                                {"korvalis.zoom", true}, {"Korvalis.Mouse", false},
                                                {"Other.CSLX", false},   {"Plain", false}};
  for (const auto& [name, on] : names) {
    EXPECT_EQ((manager.GetSeverityFilters(name) & (1u << ZubLogDebug)) != 0, on) << name;
    EXPECT_NE(everything.GetSeverityFilters(name) & (1u << ZubLogDebug), 0u) << name;
  }
}

TEST(ZubLogging, EnvironmentChoosesTheSink) {
  kvtest::TempDir dir;
  const std::string path = dir.file("log.txt");
  setenv("KVCORE_DEBUG", "Gui", 1);
  for (const std::string& target : {"file:" + path, std::string("none")}) {
    setenv("KVCORE_LOG", target.c_str(), 1);
    LogManager manager;
    manager.ConfigureFromEnvironment();
    manager.GetLogger("Korvalis.Gui")->WriteLog(ZubLogDebug, "to %s\n", target.c_str());
    manager.GetLogger("Korvalis.Fan")->WriteLog(ZubLogDebug, "not this one\n");
  }
  EXPECT_EQ(kvtest::read_text(path), "to file:" + path + "\n");
  unsetenv("KVCORE_LOG");
  unsetenv("KVCORE_DEBUG");
}

TEST(ZubPathName, QueriesAndDirectoryCreation) {
  kvtest::TempDir dir;
  PathName sub = PathName(dir.path()) / "made";
  EXPECT_FALSE(sub.Exists());
  EXPECT_TRUE(sub.CreateDirectory());
  EXPECT_TRUE(sub.IsDirectory());
  EXPECT_FALSE(sub.CreateDirectory()) << "already there";
  EXPECT_FALSE((sub / "a" / "b").CreateDirectory()) << "parent missing";
  EXPECT_EQ(PathName("/data/run/file.txt").GetBase(), "file.txt");
  EXPECT_EQ(PathName("/data/run/file.txt").GetBranch().ToString(), "/data/run");
  EXPECT_EQ(PathName("/data/run/").GetBase(), "run");
  EXPECT_FALSE(PathName("").Exists());
}

// Function callbacks run in the timer suite; an empty one does nothing.
TEST(ZubCallback, AnEmptyFunctionCallbackDoesNothing) {
  FunctionCallback empty{std::function<void()>()};
  EXPECT_NO_THROW(empty.Invoke());
}
