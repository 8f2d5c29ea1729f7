// Rotating debug log files and the log manager: choice of file, rotation,
// header and start lines, the path of debug category lines into the log, and
// what survives a killed process, a full disk and unusable directories.
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <thread>
#include <utility>

#include "LogMan.h"
#include "debuglog.h"
#include "kvos/drives.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using kvtest::dos_path;
// The logs are text files (CR LF line ends on Windows).
using kvtest::read_text;

int occurrences(const std::string& text, const std::string& part) {
  int n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++n;
  return n;
}

// The log manager's state is per process: each scenario runs in a child of its
// own, whose failed expectations fail the test.
void in_child(const std::function<void()>& body) {
  const int status = kvtest::run_in_child([&] { body(); return ::testing::Test::HasFailure() ? 1 : 0; });
  EXPECT_EQ(kvtest::child_result(status), 0);
}

// Open picks the newest numbered file; the write that brings the file to the
// limit moves on to the next number (after 3, back to 1) and says so; the next
// file starts empty even where an old file of that number lay.
TEST(DebugLogFile, ChoosesTheNewestNumberedFileAndRotatesAtTheLimit) {
  // files: name and age offset in seconds
  struct Case {
    const char* given;
    int maxSize;
    std::vector<std::pair<std::string, int>> files;
    std::string chosen, next;
  };
  const Case cases[] = {
      {"debuglog.log", 1000, {}, "debuglog.log", "debug002.log"},
      {"FR001.log", 1000, {{"FR001.log", 10}, {"FR002.log", 30}, {"FR003.log", 20}}, "FR002.log", "FR003.log"},
      {"FR001.log", 1000, {{"FR001.log", 20}, {"FR003.log", 20}}, "FR003.log", "FR001.log"},
      {"FR001.log", 1000, {{"FR004.log", 90}, {"FR002.log", 10}}, "FR002.log", "FR003.log"},
      {"FR001.log", 0, {{"FR002.log", 30}}, "FR001.log", "FR001.log"},
      {"debuglog.log", 1000, {{"debug003.log", 5}}, "debug003.log", "debug001.log"},
      {"trace.txt", 1000, {}, "trace.txt", "tr002.log"},  // the three characters before the extension
      {"v1.d\\run7", 1000, {}, "v1.d\\run7", "v1.d\\r002.log"},
  };
  // 999 bytes in the file (a line ends in CR LF on Windows).
  const std::string first = std::string(kvtest::kWindows ? 997 : 998, 'x') + "\n";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.chosen);
    kvtest::TempDir dir;
    fs::create_directory(dir.file("v1.d"));
    const auto base = fs::file_time_type::clock::now() - std::chrono::hours(1);
    for (const auto& [name, age] : c.files) {
      kvtest::write_file(dir.file(name), name == c.chosen ? "" : "old\n");
      fs::last_write_time(dir.file(name), base + std::chrono::seconds(age));
    }
    const std::string dos = dos_path(dir.path()) + "\\";
    CSL::DebugLogFile log;
    log.SetFileRotation(c.maxSize, 3);
    ASSERT_TRUE(log.Open((dos + c.given).c_str(), true, nullptr, false));
    EXPECT_EQ(log.Path(), dos + c.chosen);
    testing::internal::CaptureStdout();
    log.Write(first);
    EXPECT_EQ(log.Path(), dos + c.chosen) << "999 bytes are below the limit";
    log.Write("\n");
    log.Write("after\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.maxSize == 0 ? "" : "new log name: " + dos + c.next + "\n");
    EXPECT_EQ(log.Path(), dos + c.next);
    log.Close();
    std::string chosen, next;
    ASSERT_TRUE(kvos::dos_to_host(dos + c.chosen, chosen) && kvos::dos_to_host(dos + c.next, next));
    const std::string written = first + "\n";
    EXPECT_EQ(read_text(chosen), c.maxSize == 0 ? written + "after\n" : written);
    EXPECT_EQ(read_text(next), c.maxSize == 0 ? written + "after\n" : "after\n");
  }
}

TEST(DebugLogFile, HeaderAndStartLinesDependOnWhetherTheFileExistedAndTheMode) {
  struct Case { bool exists, append, stamp; int headers, startLines, restartLines; bool oldKept; };
  const Case cases[] = {{false, true, true, 1, 1, 0, false},
                        {true, true, true, 0, 0, 1, true},
                        {true, false, true, 1, 1, 1, false},
                        {true, true, false, 0, 0, 0, true}};
  for (const Case& c : cases) {
    kvtest::TempDir dir;
    if (c.exists) kvtest::write_file(dir.file("a.log"), "old line\n");
    const std::string path = dos_path(dir.path()) + "\\a.log";
    CSL::DebugLogFile log;
    ASSERT_TRUE(log.Open(path.c_str(), c.append, "Top of the log\n", c.stamp));
    log.Close();
    const std::string text = read_text(dir.file("a.log"));
    SCOPED_TRACE(text);
    EXPECT_EQ(occurrences(text, "Top of the log\n"), c.headers);
    EXPECT_EQ(occurrences(text, "\nDebug log " + path + " started:  "), c.startLines);
    EXPECT_EQ(occurrences(text, "\n\nZ.exe Started:  "), c.restartLines);
    EXPECT_EQ(text.find("old line") != std::string::npos, c.oldKept);
  }
}

// Write takes its text as a format without arguments; nothing is written while
// the log is off or closed.
TEST(DebugLogFile, WriteTakesTheTextAsAFormatWithoutArguments) {
  kvtest::TempDir dir;
  CSL::DebugLogFile log;
  ASSERT_TRUE(log.Open((dos_path(dir.path()) + "\\w.log").c_str(), true, nullptr, false));
  for (const char* text : {"50%% done\n", "n=%d, %5.1f|%-4x|\n", "%s at %u\n", "odd %y and 100%"}) log.Write(text);
  log.On(false);
  log.Write("while off\n");
  EXPECT_FALSE(log.IsOn());
  log.Close();
  log.Write("after close\n");
  EXPECT_EQ(read_text(dir.file("w.log")), "50% done\nn=0,   0.0|0   |\n(null) at 0\nodd %y and 100%");
}

// A path must fit the 260-character buffer with its terminating zero.
TEST(DebugLogFile, RefusesNullAndOverlongPathsWithAMessageAndKeepsItsPath) {
  kvtest::TempDir dir;
  const std::string kept = dos_path(dir.path()) + "\\kept.log";
  const std::string fits = kept + std::string(259 - kept.size(), 'f'), tooLong = fits + "g";
  const std::string tooLongText =
      "Error: _path is too long in DebugLogFile::Path(const char* _path): 260 characters, at most 259\n";
  // (path, through Open or Path, message, the path kept)
  const std::tuple<const char*, bool, std::string, std::string> cases[] = {
      {nullptr, true, "Error: _path is NULL in DebugLogFile::Open(...)\n", kept},
      {nullptr, false, "Error: _path is NULL in DebugLogFile::Path(const char* _path)\n", kept},
      {tooLong.c_str(), true, tooLongText, kept},
      {tooLong.c_str(), false, tooLongText, kept},
      {fits.c_str(), false, "", fits}};
  for (const auto& [path, open, message, result] : cases) {
    CSL::DebugLogFile log;
    log.Path(kept.c_str());
    testing::internal::CaptureStdout();
    EXPECT_FALSE(open ? log.Open(path, true, nullptr, false) : (log.Path(path), false));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), message);
    EXPECT_EQ(log.Path(), result);
    EXPECT_FALSE(log.IsOpen());
  }
}

TEST(DebugLogFile, ACopyTakesPathAndHeaderButNotTheStream) {
  kvtest::TempDir dir;
  const std::string path = dos_path(dir.path()) + "\\c.log";
  auto original = std::make_unique<CSL::DebugLogFile>();
  ASSERT_TRUE(original->Open(path.c_str(), true, "copied header\n", false));
  CSL::DebugLogFile copy(*original), assigned;
  ASSERT_TRUE(assigned.Open((path + "2").c_str(), true, nullptr, false));
  assigned = *original;
  EXPECT_FALSE(copy.IsOpen() || assigned.IsOpen());
  EXPECT_EQ(assigned.Path(), path);
  original.reset();
  fs::remove(dir.file("c.log"));
  ASSERT_TRUE(copy.Open(true, nullptr, false));
  copy.Close();
  EXPECT_EQ(read_text(dir.file("c.log")).rfind("copied header\n\nDebug log ", 0), 0u);
}

// All in one process: a refused call opens nothing, so the next starts as fresh.
TEST(LogManager, RejectsBadParametersBeforeOpeningAnything) {
  const std::tuple<bool, long, long, const char*, int> cases[] = {
      {false, 3, 4, "SetDebugLogFileParms - Invalid log directory path", 35},
      {true, 0, 4, "SetDebugLogFileParms - Invalid file number", 38},
      {true, 1001, 4, "SetDebugLogFileParms - Invalid file number", 38},
      {true, 3, 0, "SetDebugLogFileParms - Invalid file size", 42},
      {true, 3, 2097152, "SetDebugLogFileParms - Invalid file size", 42}};
  in_child([&] {
    kvtest::TempDir dir;
    kvtest::CategoryScope a(dbgA);
    for (const auto& [named, files, sizeKB, text, line] : cases) {
      kvtest::CaptureSink sink;
      try {
        CSL::LogManager::Initialize(named ? dos_path(dir.path()) : "", files, sizeKB, true);
        ADD_FAILURE() << "accepted: " << text;
      } catch (const CSL::LogManagerError& e) {
        const Zub::Core::CodeContext& where = e.GetCodeContext();
        EXPECT_STREQ(e.what(), text);
        EXPECT_EQ(e.GetCategory() + " " + std::to_string(e.GetSeverity()), "LogManager Error 2");
        EXPECT_EQ(where.GetFile() + ":" + std::to_string(where.GetLine()), "System/LogMan:" + std::to_string(line));
        EXPECT_EQ(where.GetFunction(), "CSL::LogManager::Initialize");
      }
      EXPECT_EQ(sink.text(), "Error in LogManager::Initialize. Uncaught exception. Rethrowing.\n");
    }
    EXPECT_TRUE(fs::is_empty(dir.path()));
  });
}

TEST(LogManager, OpensOnceAppliesRotationOnEveryCallAndDropsMessagesOfClosedLogs) {
  in_child([] {
    kvtest::TempDir first, second;
    CSL::LogManager::LogMessage("before\n");
    CSL::LogManager::SetHeader("Custom header\n");
    CSL::LogManager::Initialize(dos_path(first.path()), 3, 1, false);
    CSL::LogManager::LogMessageToFlightRecorder("fr while closed\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(first.path()), fs::directory_iterator()), 1);
    CSL::LogManager::Initialize(dos_path(second.path()), 3, 2, true);
    CSL::LogManager::LogMessageToFlightRecorder("fr open\n");
    CSL::LogManager::LogMessageToParmChange("pc open\n");
    testing::internal::CaptureStdout();
    for (int i = 0; i < 15; ++i) CSL::LogManager::LogMessage(std::string(99, 'm') + "\n");  // 1500 bytes
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");  // not rotated at the first call's 1024 bytes
    const std::string debug = read_text(first.file("debuglog.log")), fr = read_text(second.file("FR001.log"));
    EXPECT_EQ(debug.rfind("Custom header\n\nDebug log ", 0), 0u);
    EXPECT_EQ(debug.find("before"), std::string::npos);
    EXPECT_FALSE(fs::exists(second.file("debuglog.log")));
    EXPECT_EQ(fr.find("fr while closed"), std::string::npos);
    EXPECT_EQ(fr.rfind("Custom header\n\nDebug log ", 0), 0u);
    EXPECT_NE(fr.find("fr open\n"), std::string::npos);
    EXPECT_NE(read_text(second.file("PC001.log")).find("pc open\n"), std::string::npos);
  });
}

TEST(LogManager, DebugCategoryLinesReachTheDebugLogWholeAndOnce) {
  in_child([] {
    kvtest::TempDir dir;
    kvtest::CategoryScope motion(dbgMotion);
    CSL::LogManager::Initialize(dos_path(dir.path()), 3, 4096, false);
    CSL::LogManager::Initialize(dos_path(dir.path()), 3, 4096, false);
    Debug(dbgMotion, "stage at 100%% of %s\n", "travel");
    Debug(dbgStage, "filtered out\n");
    const auto tail = [](int t) { return std::string(static_cast<size_t>(40 + t * 13), static_cast<char>('a' + t)); };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([t, &tail] {
        for (int i = 0; i < 300; i += 2) {
          Debug(dbgMotion, "thread %d line %d %s\n", t, i, tail(t).c_str());
          CSL::LogManager::LogMessage("thread " + std::to_string(t) + " line " + std::to_string(i + 1) + " " + tail(t) +
                                      "\n");
        }
      });
    for (std::thread& thread : threads) thread.join();
    const std::string text = read_text(dir.file("debuglog.log"));
    EXPECT_EQ(occurrences(text, "stage at 100% of travel\n"), 1);
    EXPECT_EQ(text.find("filtered out"), std::string::npos);
    for (int t = 0; t < 4; ++t)
      for (int i = 0; i < 300; ++i) {
        const std::string line = "thread " + std::to_string(t) + " line " + std::to_string(i) + " " + tail(t) + "\n";
        ASSERT_EQ(occurrences(text, "\n" + line), 1) << line;
      }
  });
}

TEST(LogManager, TestDebugLogFilesWritesItsLinesToCategoryA) {
  const std::pair<int, std::string> cases[] = {
      {3, "TestDebugLogFiles() called\nTestDebugLogFiles: msg #: 1 of 3\nTestDebugLogFiles: msg #: 2 of 3\n"
          "TestDebugLogFiles: msg #: 3 of 3\nTestDebugLogFiles() exit\n"},
      {-1, "TestDebugLogFiles() called\nError in TestDebugLogFiles. Parameters invalid.\nTestDebugLogFiles() exit\n"}};
  for (const auto& [count, lines] : cases) {
    kvtest::CaptureSink sink;
    kvtest::CategoryScope a(dbgA);
    CSL::LogManager::TestDebugLogFiles(count, false);
    EXPECT_EQ(sink.text(), lines);
    for (const auto& entry : sink.entries()) EXPECT_EQ(entry.logger, "Korvalis.A");
  }
}

TEST(LogReliability, TerminatingTestKeepsEveryLineAndRunsNoExitHandler) {
  kvtest::TempDir dir;
  const int status = kvtest::run_in_child([&] {
    CSL::LogManager::Initialize(dos_path(dir.path()), 3, 1024, false);
    CSL::DebugManager::DebugFlagSet(dbgA, true);
    std::atexit([] { CSL::LogManager::LogMessage("exit handler ran\n"); });
    CSL::LogManager::TestDebugLogFiles(500, true);
    return 0;
  });
  EXPECT_EQ(kvtest::child_result(status), 255);
  const std::string text = read_text(dir.file("debuglog.log"));
  for (int i = 1; i <= 500; ++i)
    ASSERT_EQ(occurrences(text, "TestDebugLogFiles: msg #: " + std::to_string(i) + " of 500\n"), 1) << i;
  EXPECT_EQ(text.find("TestDebugLogFiles() exit"), std::string::npos);
  EXPECT_EQ(text.find("exit handler ran"), std::string::npos);
}

// A child writes numbered lines through the log manager (4 KiB files, 3 of
// them) and reports each on its standard output, where the rotation notices
// arrive too, until it is killed at a random moment. The test follows the
// rotations from the notices and checks the files after every run.
TEST(LogReliability, KilledWritersLoseNoReportedLineAndRestartInTheNewestFile) {
  KVTEST_POSIX_ONLY("the writer is a forked copy of the test");
#if !defined(_WIN32)
  kvtest::TempDir dir;
  const std::string dos = dos_path(dir.path());
  const auto next = [](const std::string& name) {
    return "debug00" + std::to_string((name == "debuglog.log" ? 1 : std::stoi(name.substr(5, 3))) % 3 + 1) + ".log";
  };
  const auto numbered = [](long n) {
    return "line " + std::string(9 - std::to_string(n).size(), '0') + std::to_string(n) + " ";
  };
  std::map<std::string, std::vector<long>> expected;  // the reported lines each file must still hold
  std::string current = "debuglog.log", previous;
  bool endedInRotation = false;
  std::mt19937 random(12345);
  for (long run = 0; run < 50; ++run) {
    // Killed inside a rotation before the new file held anything: the file
    // before it is the newest, unless the new one was created already.
    if (endedInRotation && (!fs::exists(dir.file(current)) || read_text(dir.file(current)).find("line ") != std::string::npos))
      current = previous;
    int report[2], go[2];
    ASSERT_TRUE(pipe(report) == 0 && pipe(go) == 0);
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      dup2(report[1], 1);
      CSL::LogManager::Initialize(dos, 3, 4, false);
      (void)!write(1, "I\n", 2);
      char done[32];
      for (long n = run * 1000000;; ++n) {
        CSL::LogManager::LogMessage(numbered(n) + std::string(52, ' ') + "numbered, one hundred bytes long\n");
        (void)!write(1, done, static_cast<size_t>(std::snprintf(done, sizeof done, "L %ld\n", n)));
        if (n == run * 1000000) (void)!read(go[0], done, 1);  // until the first line is checked
      }
    }
    close(report[1]);
    FILE* in = fdopen(report[0], "r");
    std::string writing;  // the file the next line goes to
    for (char text[512]; std::fgets(text, sizeof text, in) != nullptr;) {
      const std::string got = text;
      endedInRotation = got.rfind("new log name: ", 0) == 0;
      if (endedInRotation) {
        const std::string name = got.substr(got.rfind('\\') + 1, got.size() - got.rfind('\\') - 2);
        EXPECT_EQ(name, next(current)) << "run " << run;
        previous = std::exchange(current, name);
        expected[name].clear();
      } else if (got == "I\n") {
        writing = current;
      } else {
        const long n = std::stol(got.substr(2));
        expected[writing].push_back(n);
        if (n == run * 1000000) {
          EXPECT_NE(read_text(dir.file(writing)).find(numbered(n)), std::string::npos) << "run " << run << " not in " << writing;
          (void)!write(go[1], "g", 1);
          std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
          kill(child, SIGKILL);
        }
        writing = current;
      }
    }
    std::fclose(in);
    close(go[0]);
    close(go[1]);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_EQ(kvtest::child_result(status), 1000 + SIGKILL) << "run " << run;
    for (const auto& [name, lines] : expected) {
      const std::string content = read_text(dir.file(name));
      for (long n : lines)
        ASSERT_NE(content.find(numbered(n)), std::string::npos) << name << " lost " << n << " in run " << run;
      const size_t restart = content.rfind("\n\nZ.exe Started:");
      EXPECT_LE(content.size(), 4096u + 100u + (restart != std::string::npos && restart >= 4096 ? 40u : 0u)) << name;
    }
  }
#endif
}

// Directories where the debug log cannot be written: a clear message, no
// throw, later messages dropped silently, and a later Initialize opens the log
// once a usable directory is given.
TEST(LogReliability, UnusableDirectoriesReportOnceAndRecover) {
  kvtest::TempDir dir;
  kvtest::write_file(dir.file("file"), "x");
  fs::create_directories(dir.file("full"));
  fs::create_directories(dir.file("ro"));
  fs::permissions(dir.file("ro"), fs::perms::owner_read | fs::perms::owner_exec);
  // A full disk: a small tmpfs where the test may mount one, else the full device
  // (Windows: none at hand). A read-only directory stops neither root nor Windows.
  bool full = false;
  std::string readOnly = dir.file("ro");
#if !defined(_WIN32)
  std::error_code noFull;
  if (geteuid() != 0 || mount("tmpfs", dir.file("full").c_str(), "tmpfs", 0, "size=16k") != 0)
    fs::create_symlink("/dev/full", dir.file("full/debuglog.log"), noFull);
  full = !noFull;
  if (geteuid() == 0) readOnly = "/proc/self";
#else
  readOnly = "";
#endif
  const std::pair<std::string, const char*> cases[] = {
      {dir.file("file") + "/logs", "DebugLogFile::OpenLow() failed to open file\n"},  // cannot be created
      {readOnly, "DebugLogFile::OpenLow() failed to open file\n"},
      {"/" + std::string(300, 'p'), "Error: _path is too long"},
      {full ? dir.file("full") : "", "DebugLogFile::Write() failed to write to "}};
  for (const auto& [host, message] : cases) {
    SCOPED_TRACE(host.substr(0, 40));
    if (host.empty()) {
      std::printf("skipped: no directory at hand for \"%.40s\"\n", message);
      continue;
    }
    fs::remove(dir.file("debuglog.log"));
    in_child([&, message = message] {
      testing::internal::CaptureStdout();
      CSL::LogManager::Initialize(host.size() > 300 ? "c:" + host : dos_path(host), 3, 64, false);
      for (int i = 0; i < 40; ++i) CSL::LogManager::LogMessage(std::string(999, 'f') + "\n");
      const std::string first = testing::internal::GetCapturedStdout();
      EXPECT_EQ(first.rfind(message, 0), 0u) << first;
      EXPECT_EQ(occurrences(first, "\n"), 1) << first;
      testing::internal::CaptureStdout();
      CSL::LogManager::LogMessage("dropped\n");
      EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
      CSL::LogManager::Initialize(dos_path(dir.path()), 3, 64, false);
      CSL::LogManager::LogMessage("after recovery\n");
      EXPECT_NE(read_text(dir.file("debuglog.log")).find("after recovery\n"), std::string::npos);
    });
  }
#if !defined(_WIN32)
  umount2(dir.file("full").c_str(), MNT_DETACH);
#endif
}

}  // namespace
