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

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <thread>

#include "LogMan.h"
#include "debuglog.h"
#include "kvos/drives.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
// The logs are text files (CR LF line ends on Windows).
using kvtest::read_text;

std::string dos_of(const std::string& host) {
  std::string dos;
  EXPECT_TRUE(kvos::host_to_dos(host, dos)) << host;
  return dos;
}

int occurrences(const std::string& text, const std::string& part) {
  int n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++n;
  return n;
}

// The log manager's state is per process: each scenario runs in a child of its
// own, whose failed expectations fail the test.
void in_child(const std::function<void()>& body) {
  const int status = kvtest::run_in_child([&] {
    body();
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);
}

TEST(DebugLogFile, ChoosesTheNewestNumberedFileAndContinuesItsNumbering) {
  struct Case {
    const char* given;
    int maxSize;
    std::vector<std::pair<const char*, int>> files;  // name, age offset in seconds
    const char* chosen;
    const char* next;  // after the next rotation
  } cases[] = {
      {"debuglog.log", 1000, {}, "debuglog.log", "debug002.log"},
      {"FR001.log", 1000, {{"FR001.log", 10}, {"FR002.log", 30}, {"FR003.log", 20}}, "FR002.log", "FR003.log"},
      {"FR001.log", 1000, {{"FR001.log", 20}, {"FR003.log", 20}}, "FR003.log", "FR001.log"},
      {"FR001.log", 1000, {{"FR004.log", 90}, {"FR002.log", 10}}, "FR002.log", "FR003.log"},
      {"FR001.log", 0, {{"FR002.log", 30}}, "FR001.log", "FR001.log"},
      {"debuglog.log", 1000, {{"debug003.log", 5}}, "debug003.log", "debug001.log"},
      {"trace.txt", 1000, {}, "trace.txt", "tr002.log"},  // the three characters before the extension
      {"v1.d\\run7", 1000, {}, "v1.d\\run7", "v1.d\\r002.log"},
  };
  for (const Case& c : cases) {
    kvtest::TempDir dir;
    fs::create_directory(dir.file("v1.d"));
    const auto base = fs::file_time_type::clock::now() - std::chrono::hours(1);
    for (const auto& [name, age] : c.files) {
      kvtest::write_file(dir.file(name), "old\n");
      fs::last_write_time(dir.file(name), base + std::chrono::seconds(age));
    }
    const std::string dos = dos_of(dir.path()) + "\\";
    CSL::DebugLogFile log;
    log.SetFileRotation(c.maxSize, 3);
    testing::internal::CaptureStdout();
    ASSERT_TRUE(log.Open((dos + c.given).c_str(), true, nullptr, false));
    EXPECT_EQ(log.Path(), dos + c.chosen) << c.given << " " << c.chosen;
    log.Write(std::string(1000, 'x') + "\n");
    EXPECT_EQ(log.Path(), dos + c.next) << c.chosen;
    testing::internal::GetCapturedStdout();
    log.Close();
    std::string host = c.chosen;
    std::replace(host.begin(), host.end(), '\\', '/');
    EXPECT_NE(read_text(dir.file(host)).find(std::string(1000, 'x')), std::string::npos) << c.chosen;
  }
}

TEST(DebugLogFile, RotatesAfterTheWriteThatReachesTheLimitAndEmptiesReusedFiles) {
  kvtest::TempDir dir;
  const std::string dos = dos_of(dir.path()) + "\\";
  CSL::DebugLogFile log;
  log.SetFileRotation(100, 3);
  ASSERT_TRUE(log.Open((dos + "FR001.log").c_str(), true, nullptr, false));
  testing::internal::CaptureStdout();
  std::vector<std::string> current;
  for (int i = 1; i <= 10; ++i) {
    char line[64];
    std::snprintf(line, sizeof line, "line %02d %31s\n", i, "of forty bytes");  // 40 bytes
    log.Write(line);
    current.push_back(std::string(log.Path()).substr(dos.size()));
  }
  const std::string notices = testing::internal::GetCapturedStdout();
  const std::vector<std::string> expected = {"FR001.log", "FR001.log", "FR002.log", "FR002.log", "FR002.log",
                                             "FR003.log", "FR003.log", "FR003.log", "FR001.log", "FR001.log"};
  EXPECT_EQ(current, expected);
  EXPECT_EQ(notices, "new log name: " + dos + "FR002.log\nnew log name: " + dos + "FR003.log\nnew log name: " + dos +
                         "FR001.log\n");
  const std::string reused = read_text(dir.file("FR001.log"));
  EXPECT_EQ(reused.size(), 40u);
  EXPECT_EQ(reused.substr(0, 8), "line 10 ");
  EXPECT_EQ(read_text(dir.file("FR002.log")).size(), 120u);
}

TEST(DebugLogFile, HeaderAndStartLinesDependOnWhetherTheFileExistedAndTheMode) {
  struct Case {
    bool exists, append, stamp;
    int headers, startLines, restartLines;
    bool oldKept;
  } cases[] = {
      {false, true, true, 1, 1, 0, false},
      {true, true, true, 0, 0, 1, true},
      {true, false, true, 1, 1, 1, false},
      {true, true, false, 0, 0, 0, true},
  };
  for (const Case& c : cases) {
    kvtest::TempDir dir;
    if (c.exists) kvtest::write_file(dir.file("a.log"), "old line\n");
    const std::string path = dos_of(dir.path()) + "\\a.log";
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

TEST(DebugLogFile, WriteTakesTheTextAsAFormatWithoutArguments) {
  const std::pair<const char*, const char*> cases[] = {
      {"50%% done\n", "50% done\n"}, {"n=%d, %5.1f|%-4x|\n", "n=0,   0.0|0   |\n"},
      {"%s at %u\n", "(null) at 0\n"}, {"odd %y and 100%", "odd %y and 100%"}};
  for (const auto& [text, written] : cases) {
    kvtest::TempDir dir;
    CSL::DebugLogFile log;
    ASSERT_TRUE(log.Open((dos_of(dir.path()) + "\\w.log").c_str(), true, nullptr, false));
    log.Write(text);
    log.On(false);
    log.Write("while off\n");
    EXPECT_FALSE(log.IsOn());
    log.Close();
    log.Write("after close\n");
    EXPECT_EQ(read_text(dir.file("w.log")), written);
  }
}

TEST(DebugLogFile, RefusesNullAndOverlongPathsWithAMessageAndKeepsItsPath) {
  kvtest::TempDir dir;
  const std::string kept = dos_of(dir.path()) + "\\kept.log";
  const std::string tooLong = dos_of(dir.path()) + "\\" + std::string(300, 'a') + ".log";
  struct Case {
    std::function<bool(CSL::DebugLogFile&)> call;
    std::string message;
  } cases[] = {
      {[](CSL::DebugLogFile& l) { return l.Open(nullptr, true, nullptr, false); },
       "Error: _path is NULL in DebugLogFile::Open(...)\n"},
      {[](CSL::DebugLogFile& l) { l.Path(nullptr); return false; },
       "Error: _path is NULL in DebugLogFile::Path(const char* _path)\n"},
      {[&](CSL::DebugLogFile& l) { return l.Open(tooLong.c_str(), true, nullptr, false); },
       "Error: _path is too long in DebugLogFile::Path(const char* _path): " + std::to_string(tooLong.size()) +
           " characters, at most 259\n"},
  };
  for (const Case& c : cases) {
    CSL::DebugLogFile log;
    log.Path(kept.c_str());
    testing::internal::CaptureStdout();
    EXPECT_FALSE(c.call(log));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.message);
    EXPECT_EQ(log.Path(), kept);
    EXPECT_FALSE(log.IsOpen());
  }
}

TEST(DebugLogFile, ACopyTakesPathAndHeaderButNotTheStream) {
  kvtest::TempDir dir;
  const std::string path = dos_of(dir.path()) + "\\c.log";
  auto original = std::make_unique<CSL::DebugLogFile>();
  ASSERT_TRUE(original->Open(path.c_str(), true, "copied header\n", false));
  CSL::DebugLogFile copy(*original);
  CSL::DebugLogFile assigned;
  ASSERT_TRUE(assigned.Open((path + "2").c_str(), true, nullptr, false));
  assigned = *original;
  EXPECT_FALSE(copy.IsOpen());
  EXPECT_FALSE(assigned.IsOpen());
  EXPECT_EQ(assigned.Path(), path);
  original.reset();
  fs::remove(dir.file("c.log"));
  ASSERT_TRUE(copy.Open(true, nullptr, false));
  copy.Write("from the copy\n");
  copy.Close();
  EXPECT_EQ(read_text(dir.file("c.log")).rfind("copied header\n\nDebug log ", 0), 0u);
}

TEST(LogManager, RejectsBadParametersBeforeOpeningAnything) {
  struct Case {
    std::string dir;
    long files, sizeKB;
    const char* text;
    int line;
  } cases[] = {
      {"", 3, 4, "SetDebugLogFileParms - Invalid log directory path", 35},
      {"D", 0, 4, "SetDebugLogFileParms - Invalid file number", 38},
      {"D", 1001, 4, "SetDebugLogFileParms - Invalid file number", 38},
      {"D", 3, 0, "SetDebugLogFileParms - Invalid file size", 42},
      {"D", 3, 2097152, "SetDebugLogFileParms - Invalid file size", 42},
  };
  for (const Case& c : cases) {
    in_child([&] {
      kvtest::TempDir dir;
      kvtest::CaptureSink sink;
      kvtest::CategoryScope a(dbgA);
      try {
        CSL::LogManager::Initialize(c.dir.empty() ? "" : dos_of(dir.path()), c.files, c.sizeKB, true);
        ADD_FAILURE() << "accepted: " << c.text;
      } catch (const CSL::LogManagerError& e) {
        EXPECT_STREQ(e.what(), c.text);
        EXPECT_EQ(e.GetCategory(), "LogManager Error");
        EXPECT_EQ(e.GetSeverity(), 2);
        EXPECT_EQ(e.GetCodeContext().GetFile(), "System/LogMan");
        EXPECT_EQ(e.GetCodeContext().GetLine(), c.line);
        EXPECT_EQ(e.GetCodeContext().GetFunction(), "CSL::LogManager::Initialize");
      }
      EXPECT_EQ(sink.text(), "Error in LogManager::Initialize. Uncaught exception. Rethrowing.\n");
      EXPECT_TRUE(fs::is_empty(dir.path()));
    });
  }
}

TEST(LogManager, OpensOnceAppliesRotationOnEveryCallAndDropsMessagesOfClosedLogs) {
  in_child([] {
    kvtest::TempDir first, second;
    CSL::LogManager::LogMessage("before\n");
    CSL::LogManager::SetHeader("Custom header\n");
    CSL::LogManager::Initialize(dos_of(first.path()), 3, 1, false);
    CSL::LogManager::LogMessageToFlightRecorder("fr while closed\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(first.path()), fs::directory_iterator()), 1);
    EXPECT_TRUE(fs::exists(first.file("debuglog.log")));
    CSL::LogManager::Initialize(dos_of(second.path()), 3, 2, true);
    CSL::LogManager::LogMessageToFlightRecorder("fr open\n");
    CSL::LogManager::LogMessageToParmChange("pc open\n");
    testing::internal::CaptureStdout();
    for (int i = 0; i < 15; ++i) CSL::LogManager::LogMessage(std::string(99, 'm') + "\n");  // 1500 bytes
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");  // not rotated at the first call's 1024 bytes
    const std::string debug = read_text(first.file("debuglog.log"));
    EXPECT_EQ(debug.rfind("Custom header\n\nDebug log ", 0), 0u);
    EXPECT_EQ(debug.find("before"), std::string::npos);
    EXPECT_FALSE(fs::exists(second.file("debuglog.log")));
    EXPECT_EQ(read_text(second.file("FR001.log")).find("fr while closed"), std::string::npos);
    EXPECT_NE(read_text(second.file("FR001.log")).find("Custom header\n\nDebug log "), std::string::npos);
    EXPECT_NE(read_text(second.file("FR001.log")).find("fr open\n"), std::string::npos);
    EXPECT_NE(read_text(second.file("PC001.log")).find("pc open\n"), std::string::npos);
  });
}

TEST(LogManager, DebugCategoryLinesReachTheDebugLogWholeAndOnce) {
  in_child([] {
    kvtest::TempDir dir;
    kvtest::CategoryScope motion(dbgMotion);
    CSL::LogManager::Initialize(dos_of(dir.path()), 3, 4096, false);
    CSL::LogManager::Initialize(dos_of(dir.path()), 3, 4096, false);
    Debug(dbgMotion, "stage at 100%% of %s\n", "travel");
    Debug(dbgStage, "filtered out\n");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([t] {
        for (int i = 0; i < 300; ++i) {
          const std::string tail = std::string(static_cast<size_t>(40 + t * 13), static_cast<char>('a' + t));
          if (i % 2 == 0)
            Debug(dbgMotion, "thread %d line %d %s\n", t, i, tail.c_str());
          else
            CSL::LogManager::LogMessage("thread " + std::to_string(t) + " line " + std::to_string(i) + " " + tail +
                                        "\n");
        }
      });
    for (std::thread& thread : threads) thread.join();
    const std::string text = read_text(dir.file("debuglog.log"));
    EXPECT_EQ(occurrences(text, "stage at 100% of travel\n"), 1);
    EXPECT_EQ(text.find("filtered out"), std::string::npos);
    for (int t = 0; t < 4; ++t)
      for (int i = 0; i < 300; ++i) {
        const std::string line = "thread " + std::to_string(t) + " line " + std::to_string(i) + " " +
                                 std::string(static_cast<size_t>(40 + t * 13), static_cast<char>('a' + t)) + "\n";
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
    CSL::LogManager::Initialize(dos_of(dir.path()), 3, 1024, false);
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
  const std::string dos = dos_of(dir.path());
  const auto next = [](const std::string& name) -> std::string {
    const int n = name == "debuglog.log" ? 1 : std::stoi(name.substr(5, 3));
    return "debug00" + std::to_string(n % 3 + 1) + ".log";
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
    ASSERT_EQ(pipe(report), 0);
    ASSERT_EQ(pipe(go), 0);
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      dup2(report[1], 1);
      CSL::LogManager::Initialize(dos, 3, 4, false);
      (void)!write(1, "I\n", 2);
      char line[128], done[32];
      for (long n = run * 1000000;; ++n) {
        std::snprintf(line, sizeof line, "line %09ld %85s\n", n, "numbered, one hundred bytes long");
        CSL::LogManager::LogMessage(line);
        (void)!write(1, done, static_cast<size_t>(std::snprintf(done, sizeof done, "L %ld\n", n)));
        if (n == run * 1000000) (void)!read(go[0], done, 1);  // until the first line is checked
      }
    }
    close(report[1]);
    FILE* in = fdopen(report[0], "r");
    std::string writing;  // the file the next line goes to
    char text[512];
    while (std::fgets(text, sizeof text, in) != nullptr) {
      const std::string got = text;
      endedInRotation = got.rfind("new log name: ", 0) == 0;
      if (endedInRotation) {
        const std::string name = got.substr(got.rfind('\\') + 1, got.size() - got.rfind('\\') - 2);
        EXPECT_EQ(name, next(current)) << "run " << run;
        previous = current;
        current = name;
        expected[name].clear();
      } else if (got == "I\n") {
        writing = current;
      } else {
        const long n = std::stol(got.substr(2));
        expected[writing].push_back(n);
        if (n == run * 1000000) {
          std::snprintf(text, sizeof text, "line %09ld ", n);
          EXPECT_NE(read_text(dir.file(writing)).find(text), std::string::npos) << "run " << run << " not in " << writing;
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
    ASSERT_TRUE(WIFSIGNALED(status)) << "run " << run;
    for (const auto& [name, lines] : expected) {
      const std::string content = read_text(dir.file(name));
      for (long n : lines) {
        char number[24];
        std::snprintf(number, sizeof number, "line %09ld ", n);
        ASSERT_NE(content.find(number), std::string::npos) << name << " lost " << n << " in run " << run;
      }
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
  struct Case {
    const char* name;
    std::function<std::string(const kvtest::TempDir&)> prepare;  // the host directory to use, "" to skip
    const char* message;
  } cases[] = {
      {"directory under a file",
       [](const kvtest::TempDir& d) { kvtest::write_file(d.file("file"), "x"); return d.file("file") + "/logs"; },
       "DebugLogFile::OpenLow() failed to open file\n"},
      {"read-only directory",
       [](const kvtest::TempDir& d) {
         // Root writes everywhere else; a Windows directory's read-only mark stops nobody.
         if (!kvtest::directory_permissions_apply()) return std::string(kvtest::kWindows ? "" : "/proc/self");
         fs::create_directory(d.file("ro"));
         fs::permissions(d.file("ro"), fs::perms::owner_read | fs::perms::owner_exec);
         return d.file("ro");
       },
       "DebugLogFile::OpenLow() failed to open file\n"},
      {"path of 300 characters", [](const kvtest::TempDir&) { return kvtest::host_absolute("/" + std::string(300, 'p')); },
       "Error: _path is too long"},
      {"full disk",
       [](const kvtest::TempDir& d) {
#if defined(_WIN32)
         (void)d;
         return std::string();  // no full device at hand
#else
         fs::create_directory(d.file("full"));
         if (geteuid() == 0 && mount("tmpfs", d.file("full").c_str(), "tmpfs", 0, "size=16k") == 0)
           return d.file("full");
         std::error_code ec;
         fs::create_symlink("/dev/full", d.file("full/debuglog.log"), ec);
         return ec ? std::string() : d.file("full");
#endif
       },
       "DebugLogFile::Write() failed to write to "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    kvtest::TempDir dir;
    const std::string host = c.prepare(dir);
    if (host.empty()) {
      std::printf("skipped: %s needs a tmpfs mount, /dev/full or permission bits that apply\n", c.name);
      continue;
    }
    in_child([&] {
      const std::string dos = host.size() > 300 ? "c:" + std::string(host) : dos_of(host);
      testing::internal::CaptureStdout();
      CSL::LogManager::Initialize(dos, 3, 64, false);
      for (int i = 0; i < 40; ++i) CSL::LogManager::LogMessage(std::string(999, 'f') + "\n");
      const std::string first = testing::internal::GetCapturedStdout();
      EXPECT_EQ(first.rfind(c.message, 0), 0u) << first;
      EXPECT_EQ(occurrences(first, "\n"), 1) << first;
      testing::internal::CaptureStdout();
      CSL::LogManager::LogMessage("dropped\n");
      EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
      std::error_code ec;
      fs::remove(fs::path(host) / "debuglog.log", ec);
      CSL::LogManager::Initialize(dos_of(dir.path()), 3, 64, false);
      CSL::LogManager::LogMessage("after recovery\n");
      EXPECT_NE(read_text(dir.file("debuglog.log")).find("after recovery\n"), std::string::npos);
    });
#if !defined(_WIN32)
    umount2(dir.file("full").c_str(), MNT_DETACH);
#endif
  }
}

}  // namespace
