// SysManager: crash-safe writes, scattered reads, file times and sizes, the
// dump header, start-up and its failure report.
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ProcessManager.h"
#include "kvos/drives.h"
#include "kvos/env.h"
#include "kvos/fault.h"
#include "kvos/module.h"
#include "kvos/thread.h"
#include "kvos/time.h"
#include "sysman.h"
#include "test_support.h"

namespace {

using kvtest::dos_path;

constexpr uint64_t kPacked = 0x4B2A6A4F;  // 09/10/2017 13:18:30 local

std::vector<std::string> temporaries(const std::string& dir) {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("kvc", 0) == 0 && name.size() == 11 && name.substr(7) == ".tmp") found.push_back(name);
  }
  return found;
}

bool write_text(const std::string& dosPath, const std::string& text, uint64_t packedTime = 0) {
  SysFileioBuffer list[] = {{const_cast<char*>(text.data()), 0, text.size()}, {nullptr, 0, 0}};
  return SysManager::FileWrite(dosPath.c_str(), list, packedTime);
}

size_t content_hash(const std::string& data) { return std::hash<std::string>()(data); }

// Hash of a whole host file, read in one piece.
[[maybe_unused]] size_t file_hash(const std::string& host) {
  std::string data;
  if (FILE* f = std::fopen(host.c_str(), "rb")) {
    data.resize(8 << 20);
    data.resize(std::fread(data.data(), 1, data.size(), f));
    std::fclose(f);
  }
  return content_hash(data);
}

// Restores the descriptive strings, times and state the dump header reads.
class HeaderState {
 public:
  HeaderState()
      : initialized_(SysManager::m_initialized),
        exe_(SysManager::ExeFilePath),
        exeTime_(SysManager::ExeTime),
        start_(SysManager::StartTime),
        version_(SysManager::GetKorvalisVersion()) {
    clear();
  }
  ~HeaderState() {
    clear();
    SysManager::m_initialized = initialized_;
    SysManager::ExeFilePath = exe_;
    SysManager::ExeTime = exeTime_;
    SysManager::StartTime = start_;
    SysManager::SetKorvalisVersion(version_);
  }
  static void clear() {
    SysManager::Model(nullptr);
    SysManager::User(nullptr);
    SysManager::Equipment(nullptr);
    SysManager::Image(nullptr);
    SysManager::SetKorvalisVersion("");
  }

 private:
  int initialized_;
  std::string exe_;
  file_timestamp exeTime_, start_;
  std::string version_;
};

TEST(SysManagerFiles, WriteScattersBuffersAtTheirOffsetsAndReadGathersThem) {
  kvtest::TempDir dir;
  const std::string path = dos_path(dir.file("scatter.bin"));
  char head[] = "head";
  char tail[] = "tail";
  SysFileioBuffer list[] = {{head, 0, 4}, {tail, 10, 4}, {nullptr, 0, 0}};
  ASSERT_TRUE(SysManager::FileWrite(path.c_str(), list, kPacked));
  EXPECT_EQ(kvtest::read_file(dir.file("scatter.bin")), std::string("head\0\0\0\0\0\0tail", 14));
  EXPECT_TRUE(temporaries(dir.path()).empty());
  EXPECT_EQ(SysManager::FileTime(path.c_str()), kPacked);
  EXPECT_GT(SysManager::DiskSpace(dos_path(dir.path()).c_str()), 0u);

  char a[3] = {}, b[5] = {};
  SysFileioBuffer in[] = {{a, 2, 2}, {b, 9, 5}, {nullptr, 0, 0}};
  uint64_t packed = 0;
  ASSERT_TRUE(SysManager::FileRead(path.c_str(), in, &packed));
  EXPECT_EQ(std::string(a, 2) + std::string(b, 5), std::string("ad\0tail", 7));
  EXPECT_EQ(packed, kPacked);

  // A buffer reaching past the end is a short read.
  char past[8] = {};
  SysFileioBuffer tooLong[] = {{past, 10, 8}, {nullptr, 0, 0}};
  EXPECT_FALSE(SysManager::FileRead(path.c_str(), tooLong, nullptr));

  // Rewriting replaces the whole file; with time 0 the file keeps the time of writing.
  ASSERT_TRUE(write_text(path, "new"));
  EXPECT_EQ(kvtest::read_file(dir.file("scatter.bin")), "new");
  EXPECT_NE(SysManager::FileTime(path.c_str()), kPacked);
}

TEST(SysManagerFiles, MissingFilesAreReportedAsTheClassicValues) {
  kvtest::TempDir dir;
  const std::string missing = dos_path(dir.file("missing.dat"));
  char buffer[4] = {'k', 'e', 'e', 'p'};
  SysFileioBuffer list[] = {{buffer, 0, 4}, {nullptr, 0, 0}};
  uint64_t packed = 77;
  EXPECT_TRUE(SysManager::FileRead(missing.c_str(), list, &packed)) << "a missing file is not a read error";
  EXPECT_EQ(std::string(buffer, 4), "keep");
  EXPECT_EQ(packed, 77u);
  EXPECT_EQ(SysManager::FileSize(missing.c_str()), 0xFFFFFFFFu);
  EXPECT_EQ(SysManager::FileTime(missing.c_str()), 0u);
  EXPECT_FALSE(SysManager::FileTime(missing.c_str(), kPacked));
  EXPECT_EQ(SysManager::DiskSpace(missing.c_str()), 0u);
}

TEST(SysManagerFiles, SizeIsTheLow32BitsOfTheFirstMatch) {
  kvtest::TempDir dir;
  kvtest::write_file(dir.file("big.raw"), "");
  std::filesystem::resize_file(dir.file("big.raw"), 0x100000005ULL);  // sparse where the file system can
  EXPECT_EQ(SysManager::FileSize(dos_path(dir.file("big.raw")).c_str()), 5u);
  kvtest::write_file(dir.file("a.log"), "12");
  kvtest::write_file(dir.file("b.log"), "1234");
  EXPECT_EQ(SysManager::FileSize((dos_path(dir.path()) + "\\*.log").c_str()), 2u);
  EXPECT_EQ(SysManager::FileSize(dos_path(dir.file("B.LOG")).c_str()), 4u);
}

TEST(SysManagerFiles, FileTimeSetsTheLocalTimeAndRefusesWhatItCannotSet) {
  kvtest::TempDir dir;
  kvtest::write_file(dir.file("t.txt"), "x");
  const std::string path = dos_path(dir.file("t.txt"));
  ASSERT_TRUE(SysManager::FileTime(path.c_str(), kPacked));
  EXPECT_EQ(SysManager::FileTime(path.c_str()), kPacked);
  // The packed time is local: the file's UTC time is its conversion.
  int64_t local = 0, utc = 0;
  ASSERT_TRUE(kvos::dos_to_file_time(0x4B2A, 0x6A4F, local));
  ASSERT_TRUE(kvos::local_to_file_time(local, utc));
  EXPECT_EQ(kvtest::file_write_time(dir.file("t.txt")), utc);

  EXPECT_FALSE(SysManager::FileTime(path.c_str(), ((uint64_t{0x4B2A} & ~uint64_t{0x1E0}) | (13u << 5)) << 16))
      << "month 13 cannot be converted";
  EXPECT_EQ(SysManager::FileTime(path.c_str()), kPacked);
  EXPECT_FALSE(SysManager::FileTime(dos_path(dir.path()).c_str(), kPacked)) << "a directory cannot be opened for writing";
}

TEST(SysManagerFiles, FailedClosesAfterSettingTheTimeRaise) {
  kvos::FaultScope faults;
  kvtest::TempDir dir;
  kvtest::write_file(dir.file("t.txt"), "x");
  const std::string path = dos_path(dir.file("t.txt"));
  const std::string signature = " | bool __cdecl SysManager::FileTime(char *,unsigned __int64)";
  kvos::fault_arm(kvos::FaultPoint::FileClose);
  EXPECT_EQ(kvtest::raised([&] { SysManager::FileTime(path.c_str(), kPacked); }), "CloseHandle() failed @ 618" + signature);
  EXPECT_EQ(SysManager::FileTime(path.c_str()), kPacked) << "the time was set before the close failed";
  kvos::fault_arm(kvos::FaultPoint::FileClose);
  kvos::fault_arm(kvos::FaultPoint::FileSetTime);
  EXPECT_EQ(kvtest::raised([&] { SysManager::FileTime(path.c_str(), kPacked); }), "FileTime failure @ 611" + signature);
}

TEST(SysManagerFiles, ReadReportsAFileTimeItCannotRead) {
  kvos::FaultScope faults;
  kvtest::TempDir dir;
  kvtest::write_file(dir.file("r.txt"), "abc");
  kvtest::CategoryScope csl(dbgCSL);
  kvtest::CaptureSink sink;
  kvos::fault_arm(kvos::FaultPoint::FileGetTime);
  uint64_t packed = 0;
  EXPECT_FALSE(SysManager::FileRead(dos_path(dir.file("r.txt")).c_str(), nullptr, &packed));
  EXPECT_EQ(sink.text(), "Error on converting or reading file time.\n");
  kvos::fault_arm(kvos::FaultPoint::FileSeek);
  char buffer[2];
  SysFileioBuffer list[] = {{buffer, 0, 2}, {nullptr, 0, 0}};
  EXPECT_FALSE(SysManager::FileRead(dos_path(dir.file("r.txt")).c_str(), list, nullptr));
}

// A failure at any step before the move leaves the old file and no temporary
// file, and says which step failed.
TEST(SysManagerFiles, EveryFailedStepKeepsTheOldFileAndRemovesTheTemporary) {
  kvtest::TempDir dir;
  kvtest::CategoryScope csl(dbgCSL);
  const std::string path = dos_path(dir.file("keep.dat"));
  const std::string dirDos = dos_path(dir.path()) + "\\";
  ASSERT_TRUE(write_text(path, "old content"));

  struct Step {
    kvos::FaultPoint point;
    unsigned skip;
    std::string expected;  // the message with "<temp>" for the temporary file's name
  };
  const std::vector<Step> steps = {
      {kvos::FaultPoint::FileTempName, 0, "\nFailed writing " + path + ":\nfailed GetTempFileName on dir " + dirDos + "\n"},
      {kvos::FaultPoint::FileOpen, 0, "\nFailed writing " + path + ":\ncouldn't create temp file <temp>\n"},
      {kvos::FaultPoint::FileSeek, 1, "\nFailed writing " + path + "\n(temp file <temp>)\nbuffer 1: failed setting file pointer\n"},
      {kvos::FaultPoint::FileWrite, 0, "\nFailed writing " + path + "\n(temp file <temp>)\nbuffer 0: failed setting file pointer\n"},
      {kvos::FaultPoint::FileSetTime, 0, "\nFailed writing " + path + "\n(temp file <temp>): couldn't set time\n"},
      {kvos::FaultPoint::FileSync, 0, "\nFailed writing " + path + ":\ncouldn't move temp file <temp>\n"},
      {kvos::FaultPoint::FileClose, 0, "\nFailed writing " + path + ":\ncouldn't move temp file <temp>\n"},
      {kvos::FaultPoint::FileReplace, 0, "\nFailed writing " + path + ":\ncouldn't move temp file <temp>\n"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.expected);
    kvos::FaultScope faults;
    kvtest::CaptureSink sink;
    kvos::fault_arm(step.point, step.skip);
    char first[] = "new content, part one";
    char second[] = "part two";
    SysFileioBuffer list[] = {{first, 0, sizeof first - 1}, {second, 100, sizeof second - 1}, {nullptr, 0, 0}};
    EXPECT_FALSE(SysManager::FileWrite(path.c_str(), list, kPacked));
    EXPECT_EQ(kvos::fault_hits(step.point), 1u);
    EXPECT_EQ(kvtest::read_file(dir.file("keep.dat")), "old content");
    EXPECT_TRUE(temporaries(dir.path()).empty());
    const std::string text = sink.text();
    const std::string expected = std::regex_replace(step.expected, std::regex("<temp>"), dirDos + "kvcXXXX.tmp");
    EXPECT_EQ(std::regex_replace(text, std::regex(R"(kvc[0-9A-F]{4}\.tmp)"), "kvcXXXX.tmp"), expected);
  }
}


TEST(SysManagerFiles, ABareNameIsWrittenThroughATemporaryInTheWorkingDirectory) {
  kvtest::TempDir dir;
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  kvtest::CategoryScope csl(dbgCSL);
  {
    kvos::FaultScope faults;
    kvtest::CaptureSink sink;
    kvos::fault_arm(kvos::FaultPoint::FileReplace);
    EXPECT_FALSE(write_text("data.bin", "abc"));
    EXPECT_TRUE(std::regex_match(sink.text(), std::regex(R"(\nFailed writing data\.bin:\ncouldn't move temp file \.\\kvc[0-9A-F]{4}\.tmp\n)")))
        << sink.text();
  }
  EXPECT_TRUE(write_text("data.bin", "abc"));
  std::filesystem::current_path(before);
  EXPECT_EQ(kvtest::read_file(dir.file("data.bin")), "abc");
  EXPECT_TRUE(temporaries(dir.path()).empty());
}

TEST(SysManagerFiles, AMissingOrUnwritableDirectoryFailsAtTheTemporaryName) {
  kvtest::TempDir dir;
  kvtest::CategoryScope csl(dbgCSL);
  kvtest::CaptureSink sink;
  const std::string path = dos_path(dir.file("nodir")) + "\\x.dat";
  EXPECT_FALSE(write_text(path, "abc"));
  EXPECT_EQ(sink.text(), "\nFailed writing " + path + ":\nfailed GetTempFileName on dir " + dos_path(dir.file("nodir")) + "\\\n");
  // Permissions do not stop root, nor a Windows directory's read-only mark;
  // the injected failures above cover this step.
  if (!kvtest::directory_permissions_apply()) return;
  ASSERT_TRUE(std::filesystem::create_directory(dir.file("ro")));
  const std::string target = dos_path(dir.file("ro")) + "\\t.dat";
  ASSERT_TRUE(write_text(target, "old"));
  std::filesystem::permissions(dir.file("ro"), std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
  EXPECT_FALSE(write_text(target, "new"));
  EXPECT_EQ(kvtest::read_file(dir.file("ro") + "/t.dat"), "old");
  EXPECT_TRUE(temporaries(dir.file("ro")).empty());
}

// A real full disk: the file-size limit stops the writes to the temporary file.
TEST(SysManagerFiles, ADiskThatFillsUpKeepsTheOldFile) {
  KVTEST_POSIX_ONLY("Windows has no file-size limit for a process");
#if !defined(_WIN32)
  kvtest::TempDir dir;
  const std::string path = dos_path(dir.file("full.dat"));
  const std::string old(10000, 'o');
  ASSERT_TRUE(write_text(path, old));
  const int status = kvtest::run_in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{64 * 1024, 64 * 1024};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
    if (write_text(path, std::string(200 * 1024, 'n'))) return 2;
    return 0;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);
  EXPECT_EQ(kvtest::read_file(dir.file("full.dat")), old);
  EXPECT_TRUE(temporaries(dir.path()).empty());
#endif
}

// A small file system of its own, where one is allowed (a private mount namespace).
TEST(SysManagerFiles, AFullFileSystemKeepsTheOldFile) {
  KVTEST_POSIX_ONLY("a small file system of the test's own needs a private mount");
#if !defined(_WIN32)
  kvtest::TempDir dir;
  const std::string mountPoint = dir.file("small");
  ASSERT_TRUE(std::filesystem::create_directory(mountPoint));
  const int status = kvtest::run_in_child([&] {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=256k") != 0)
      return 77;
    const std::string path = dos_path(mountPoint + "/state.dat");
    const std::string old(100 * 1024, 'o');
    if (!write_text(path, old)) return 1;
    if (write_text(path, std::string(200 * 1024, 'n'))) return 2;
    if (kvtest::read_file(mountPoint + "/state.dat") != old) return 3;
    if (!temporaries(mountPoint).empty()) return 4;
    if (!write_text(path, std::string(120 * 1024, 'n'))) return 5;  // fits once the old one is gone
    return 0;
  });
  if (kvtest::child_result(status) == 77) GTEST_SKIP() << "no private mounts here";
  EXPECT_EQ(kvtest::child_result(status), 0);
#endif
}

#if !defined(_WIN32)
// Starts a child that rewrites path with the two contents in turn, for ever;
// answers once the child runs, so that its start-up is not taken for writing.
pid_t start_writer(const std::string& path, const std::string& first, const std::string& second) {
  int ready[2];
  if (pipe(ready) != 0) return -1;
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    close(ready[0]);
    if (write(ready[1], "r", 1) != 1) _exit(1);
    for (unsigned i = 0;; ++i) write_text(path, i % 2 == 0 ? second : first);
  }
  close(ready[1]);
  char byte = 0;
  pollfd p{ready[0], POLLIN, 0};
  const bool started = child > 0 && poll(&p, 1, 30000) == 1 && read(ready[0], &byte, 1) == 1;
  close(ready[0]);
  if (!started && child > 0) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return -1;
  }
  return child;
}
#endif

// A writer killed at random moments leaves the old or the new content, whole.
TEST(SysManagerCrashSafety, KilledWritersLeaveOneCompleteVersion) {
  KVTEST_POSIX_ONLY("the writer is a forked copy of the test");
#if !defined(_WIN32)
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "forked children run their writes far too slowly under the thread sanitizer";
#endif
  kvtest::TempDir dir;
  const std::string path = dos_path(dir.file("state.bin"));
  std::mt19937 rng(20240611);
  std::string first(4 << 20, '\0');
  for (char& c : first) c = static_cast<char>(rng());
  std::string second = first;
  for (char& c : second) c = static_cast<char>(c ^ 0x5A);
  const size_t firstHash = content_hash(first), secondHash = content_hash(second);
  ASSERT_TRUE(write_text(path, first));

  // Kill moments spread over about two writes of the child.
  const auto timed = std::chrono::steady_clock::now();
  ASSERT_TRUE(write_text(path, first));
  const double writeMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - timed).count();
  std::uniform_int_distribution<int> pause(0, std::max(40, static_cast<int>(2.5 * writeMs)));

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  int kills = 0, leftovers = 0, sawFirst = 0, sawSecond = 0;
  while (kills < 200 && std::chrono::steady_clock::now() < deadline) {
    const pid_t child = start_writer(path, first, second);
    ASSERT_GT(child, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(pause(rng)));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ++kills;
    const size_t hash = file_hash(dir.file("state.bin"));
    ASSERT_TRUE(hash == firstHash || hash == secondHash) << "torn file after kill " << kills;
    (hash == firstHash ? sawFirst : sawSecond) += 1;
    // On a busy machine the child writes slower than measured: widen the window.
    if (kills % 20 == 0 && sawSecond == 0)
      pause = std::uniform_int_distribution<int>(0, 2 * pause.b());
    for (const std::string& name : temporaries(dir.path())) {
      ++leftovers;
      std::filesystem::remove(dir.file(name));
    }
  }
  RecordProperty("kills", kills);
  EXPECT_GE(kills, 50);
  EXPECT_GT(sawSecond, 0) << "the writer never completed a write";
  EXPECT_GT(sawFirst, 0);
  EXPECT_GT(leftovers, 0) << "no kill landed in the middle of a write";
#endif
}

TEST(SysManagerHeader, OnlyTheSetItemsAppearInTheirOrder) {
  HeaderState state;
  SysManager::m_initialized = 0;
  SysManager::StartTime = file_timestamp(kPacked);
  EXPECT_EQ(SysManager::GetDumpHeaderInformation(), "Run 09/10/2017 13:18:30\n");

  SysManager::m_initialized = 1;
  SysManager::ExeFilePath = "c:\\bin\\host.exe";
  SysManager::ExeTime = file_timestamp((uint64_t{0x0021} << 16) | 0x0000);  // 1980-01-01 00:00:00
  EXPECT_EQ(SysManager::GetDumpHeaderInformation(), "c:\\bin\\host.exe 01/01/1980 00:00:00\nRun 09/10/2017 13:18:30\n");

  SysManager::Model("Model-9");
  SysManager::SetKorvalisVersion("7.1.2");
  SysManager::Equipment("Tool 4");
  SysManager::User("operator");
  SysManager::Image("image.bin");
  EXPECT_EQ(SysManager::GetDumpHeaderInformation(),
            "c:\\bin\\host.exe 01/01/1980 00:00:00\nModel-9 7.1.2\nTool 4, operator\nimage.bin\nRun 09/10/2017 13:18:30\n");

  // Items without their partners run into the next line, as they always have.
  SysManager::m_initialized = 0;
  SysManager::SetKorvalisVersion("");
  SysManager::User(nullptr);
  SysManager::Image(nullptr);
  EXPECT_EQ(SysManager::GetDumpHeaderInformation(), "Model-9 Tool 4, Run 09/10/2017 13:18:30\n");

  // Every field is zero-padded; seconds are twice the packed field.
  SysManager::StartTime = file_timestamp((uint64_t{(27u << 9) | (12u << 5) | 31u} << 16) | (23u << 11) | (59u << 5) | 29u);
  SysManager::Model(nullptr);
  SysManager::Equipment(nullptr);
  EXPECT_EQ(SysManager::GetDumpHeaderInformation(), "Run 12/31/2007 23:59:58\n");
}

TEST(SysManagerExit, WritesItsLineOnlyWhenInitialized) {
  HeaderState state;
  kvtest::CategoryScope csl(dbgCSL);
  kvtest::CaptureSink sink;
  SysManager::m_initialized = 0;
  SysManager::Exit(0);
  EXPECT_EQ(sink.text(), "");
  SysManager::m_initialized = 1;
  SysManager::Exit(3);
  EXPECT_EQ(sink.text(), "\nCSL: SysManager::Exit called\n");
}

TEST(SysManagerStackTraceDir, OnlyACreatedDirectoryIsRecorded) {
  kvtest::TempDir dir;
  kvtest::CategoryScope csl(dbgCSL);
  kvtest::CaptureSink sink;
  const std::string before = SysManager::GetFiberStackTraceDirPath();
  EXPECT_TRUE(SysManager::SetFiberStackTraceDirPath(dos_path(dir.path())));
  EXPECT_EQ(SysManager::GetFiberStackTraceDirPath(), before) << "an existing directory is not recorded";

  const std::string created = dos_path(dir.file("dumps"));
  EXPECT_TRUE(SysManager::SetFiberStackTraceDirPath(created));
  EXPECT_TRUE(std::filesystem::is_directory(dir.file("dumps")));
  EXPECT_EQ(SysManager::GetFiberStackTraceDirPath(), created);

  const std::string impossible = dos_path(dir.file("no")) + "\\such\\dir";
  EXPECT_FALSE(SysManager::SetFiberStackTraceDirPath(impossible));
  EXPECT_EQ(SysManager::GetFiberStackTraceDirPath(), created);
  EXPECT_EQ(sink.text(), "Failed to create directory: " + impossible + "\n");
}

TEST(SysManagerInitialize, RemovesTheZoneVariablesRecordsTheExecutableAndRunsOnce) {
  const int status = kvtest::run_in_child([] {
    kvos::env_set("tz", "XYZ+5");
    kvos::env_set("TZ", "ABC-3");
    const int64_t before = kvos::system_file_time();
    SysManager::Initialize();
    if (kvos::env_get("tz") || kvos::env_get("TZ")) return 2;
    std::string exe;
    if (!kvos::host_to_dos(kvos::executable_path(), exe) || SysManager::ExeFilePath != exe) return 3;
    if (SysManager::ExeTime.packed() == 0 || SysManager::ExeTime.packed() != SysManager::FileTime(exe.c_str())) return 4;
    if (SysManager::gSystemStartTime < before || SysManager::gSystemStartTime > kvos::system_file_time()) return 5;
    if (ProcessManager::m_listener == nullptr) return 6;
    SystemAlertListener* listener = ProcessManager::m_listener;
    const int64_t started = SysManager::gSystemStartTime;
    kvos::env_set("TZ", "ABC-3");
    SysManager::Initialize();  // already done: nothing changes
    if (SysManager::gSystemStartTime != started || ProcessManager::m_listener != listener) return 7;
    if (!kvos::env_get("TZ")) return 8;
    return SysManager::GetDumpHeaderInformation().rfind(exe + " ", 0) == 0 ? 0 : 9;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);
}

std::string g_handlerTitle, g_handlerText;
void record_initialization_error(const char* title, const char* text) {
  g_handlerTitle = title;
  g_handlerText = text;
}

TEST(SysManagerInitialize, AFailureIsReportedRethrownAndMayBeRetried) {
  kvtest::TempDir dir;
  const std::string errors = dir.file("stderr.txt");
  const int status = kvtest::run_in_child([&] {
    if (std::freopen(errors.c_str(), "w", stderr) == nullptr) return 1;
    SysManager::SetInitializationErrorHandler(record_initialization_error);
    const int drive = std::tolower(static_cast<unsigned char>(dos_path(kvos::executable_path())[0]));
    const std::string root = kvos::drive_root(drive);
    kvos::drive_unmap(drive);  // the executable now lies on no drive
    try {
      SysManager::Initialize();
      return 2;
    } catch (const SysManagerError& error) {
      if (std::string(error.what()) != "SysManager::GetExeFileName - GetModuleFileName() failed") return 3;
      if (error.GetCodeContext().GetLine() != 142) return 4;
    }
    if (SysManager::m_initialized != 0) return 6;
    if (g_handlerTitle + "\n" + g_handlerText != "Korvalis Initialization Error\nSysManager::GetExeFileName - GetModuleFileName() failed") return 7;
    kvos::drive_map(drive, root);
    SysManager::Initialize();
    return SysManager::m_initialized == 1 ? 0 : 9;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);
  EXPECT_EQ(kvtest::read_text(errors),
            "Korvalis Initialization Error\nSysManager::GetExeFileName - GetModuleFileName() failed\n");
}

}  // namespace
