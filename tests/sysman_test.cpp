// SysManager: crash-safe writes, scattered reads, file times and sizes, the
// dump header, start-up and its failure report.
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "ProcessManager.h"
#include "kvos/drives.h"
#include "kvos/env.h"
#include "kvos/fault.h"
#include "kvos/module.h"
#include "kvos/time.h"
#include "sysman.h"
#include "test_support.h"

namespace {

using kvtest::dos_path;

constexpr uint64_t kPacked = 0x4B2A6A4F;           // 09/10/2017 13:18:30 local
constexpr uint64_t kOther = uint64_t{0x0021} << 16;  // 01/01/1980 00:00:00 local

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

[[maybe_unused]] size_t file_hash(const std::string& data) { return std::hash<std::string>()(data); }

TEST(SysManagerFiles, WritesScatterReadsGatherAndQueriesAnswerTheClassicValues) {
  kvtest::TempDir dir;
  const std::string path = dos_path(dir.file("scatter.bin")), missing = dos_path(dir.file("missing.dat"));
  char head[] = "head", tail[] = "tail";
  SysFileioBuffer list[] = {{head, 0, 4}, {tail, 10, 4}, {nullptr, 0, 0}};
  ASSERT_TRUE(SysManager::FileWrite(path.c_str(), list, kPacked));
  EXPECT_EQ(kvtest::read_file(dir.file("scatter.bin")), std::string("head\0\0\0\0\0\0tail", 14));
  EXPECT_TRUE(temporaries(dir.path()).empty());
  char a[3] = {}, b[5] = {};
  SysFileioBuffer in[] = {{a, 2, 2}, {b, 9, 5}, {nullptr, 0, 0}};
  uint64_t packed = 0;
  ASSERT_TRUE(SysManager::FileRead(path.c_str(), in, &packed));
  EXPECT_EQ(std::string(a, 2) + std::string(b, 5), std::string("ad\0tail", 7));
  EXPECT_EQ(packed, kPacked);
  std::memset(a, 'k', 2);
  EXPECT_TRUE(SysManager::FileRead(missing.c_str(), in, &packed)) << "a missing file is not a read error";
  EXPECT_EQ(std::string(a, 2) + std::to_string(packed), "kk" + std::to_string(kPacked)) << "and reads nothing";
  char past[8] = {};
  SysFileioBuffer tooLong[] = {{past, 10, 8}, {nullptr, 0, 0}};
  EXPECT_FALSE(SysManager::FileRead(path.c_str(), tooLong, nullptr)) << "a buffer reaching past the end";

  kvtest::write_file(dir.file("big.raw"), "");
  std::filesystem::resize_file(dir.file("big.raw"), 0x100000005ULL);  // sparse where the file system can
  kvtest::write_file(dir.file("a.log"), "12");
  kvtest::write_file(dir.file("b.log"), "1234");
  const std::string d = dos_path(dir.path()) + "\\";
  const std::pair<uint64_t, uint64_t> answers[] = {
      {SysManager::FileTime(path.c_str()), kPacked},
      {SysManager::FileSize(missing.c_str()), 0xFFFFFFFFu},
      {SysManager::FileTime(missing.c_str()), 0},
      {SysManager::FileTime(missing.c_str(), kPacked), false},
      {SysManager::DiskSpace(missing.c_str()), 0},
      {SysManager::FileSize((d + "big.raw").c_str()), 5},  // the low 32 bits
      {SysManager::FileSize((d + "*.log").c_str()), 2},    // the first match
      {SysManager::FileSize((d + "B.LOG").c_str()), 4},
      {SysManager::DiskSpace(d.c_str()) > 0, true},
  };
  for (size_t i = 0; i < std::size(answers); ++i) EXPECT_EQ(answers[i].first, answers[i].second) << "row " << i;

  ASSERT_TRUE(write_text(path, "new"));  // replaces the whole file; with time 0 it keeps the time of writing
  EXPECT_EQ(kvtest::read_file(dir.file("scatter.bin")), "new");
  EXPECT_NE(SysManager::FileTime(path.c_str()), kPacked);
}

TEST(SysManagerFiles, FileTimeSetsTheLocalTimeAndFailuresAreReported) {
  kvtest::TempDir dir;
  kvtest::write_file(dir.file("t.txt"), "x");
  const std::string path = dos_path(dir.file("t.txt"));
  ASSERT_TRUE(SysManager::FileTime(path.c_str(), kPacked));
  EXPECT_EQ(SysManager::FileTime(path.c_str()), kPacked);
  int64_t local = 0, utc = 0;  // the packed time is local: the file's UTC time is its conversion
  ASSERT_TRUE(kvos::dos_to_file_time(0x4B2A, 0x6A4F, local) && kvos::local_to_file_time(local, utc));
  EXPECT_EQ(kvtest::file_write_time(dir.file("t.txt")), utc);
  EXPECT_FALSE(SysManager::FileTime(path.c_str(), ((uint64_t{0x4B2A} & ~uint64_t{0x1E0}) | (13u << 5)) << 16))
      << "month 13 cannot be converted";
  EXPECT_FALSE(SysManager::FileTime(dos_path(dir.path()).c_str(), kOther)) << "a directory is not opened to write";
  EXPECT_EQ(SysManager::FileTime(path.c_str()), kPacked);

  kvos::FaultScope faults;
  const std::string signature = " | bool __cdecl SysManager::FileTime(char *,unsigned __int64)";
  kvos::fault_arm(kvos::FaultPoint::FileClose);
  EXPECT_EQ(kvtest::raised([&] { SysManager::FileTime(path.c_str(), kOther); }),
            "CloseHandle() failed @ 618" + signature);
  EXPECT_EQ(SysManager::FileTime(path.c_str()), kOther) << "the time was set before the close failed";
  kvos::fault_arm(kvos::FaultPoint::FileClose);
  kvos::fault_arm(kvos::FaultPoint::FileSetTime);
  EXPECT_EQ(kvtest::raised([&] { SysManager::FileTime(path.c_str(), kPacked); }), "FileTime failure @ 611" + signature);

  kvtest::CategoryScope csl(dbgCSL);
  kvtest::CaptureSink sink;
  kvos::fault_arm(kvos::FaultPoint::FileGetTime);
  uint64_t packed = 0;
  EXPECT_FALSE(SysManager::FileRead(path.c_str(), nullptr, &packed));
  EXPECT_EQ(sink.text(), "Error on converting or reading file time.\n");
  kvos::fault_arm(kvos::FaultPoint::FileSeek);
  char buffer[1];
  SysFileioBuffer list[] = {{buffer, 0, 1}, {nullptr, 0, 0}};
  EXPECT_FALSE(SysManager::FileRead(path.c_str(), list, nullptr));
}

// A failure at any step before the move leaves the old file and no temporary
// file, and says which step failed; a bare name is written in the working directory.
TEST(SysManagerFiles, EveryFailedStepKeepsTheOldFileAndRemovesTheTemporary) {
  kvtest::TempDir dir;
  kvtest::CategoryScope csl(dbgCSL);
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  const std::string path = dos_path(dir.file("keep.dat")), dirDos = dos_path(dir.path()) + "\\";
  const std::string temp = dirDos + "kvcXXXX.tmp", lost = dos_path(dir.file("nodir")) + "\\x.dat";
  ASSERT_TRUE(write_text(path, "old content"));
  using kvos::FaultPoint;
  const std::tuple<FaultPoint, unsigned, std::string, std::string> steps[] = {
      {FaultPoint::FileTempName, 0, path, ":\nfailed GetTempFileName on dir " + dirDos},
      {FaultPoint::Count, 0, lost, ":\nfailed GetTempFileName on dir " + dos_path(dir.file("nodir")) + "\\"},
      {FaultPoint::FileOpen, 0, path, ":\ncouldn't create temp file " + temp},
      {FaultPoint::FileSeek, 1, path, "\n(temp file " + temp + ")\nbuffer 1: failed setting file pointer"},
      {FaultPoint::FileWrite, 0, path, "\n(temp file " + temp + ")\nbuffer 0: failed setting file pointer"},
      {FaultPoint::FileSetTime, 0, path, "\n(temp file " + temp + "): couldn't set time"},
      {FaultPoint::FileSync, 0, path, ":\ncouldn't move temp file " + temp},
      {FaultPoint::FileClose, 0, path, ":\ncouldn't move temp file " + temp},
      {FaultPoint::FileReplace, 0, path, ":\ncouldn't move temp file " + temp},
      {FaultPoint::FileReplace, 0, "keep.dat", ":\ncouldn't move temp file .\\kvcXXXX.tmp"},
  };
  for (const auto& [point, skip, target, expected] : steps) {
    SCOPED_TRACE(expected);
    kvos::FaultScope faults;
    kvtest::CaptureSink sink;
    if (point != FaultPoint::Count) kvos::fault_arm(point, skip);
    char first[] = "new content, part one", second[] = "part two";
    SysFileioBuffer list[] = {{first, 0, sizeof first - 1}, {second, 100, sizeof second - 1}, {nullptr, 0, 0}};
    EXPECT_FALSE(SysManager::FileWrite(target.c_str(), list, kPacked));
    EXPECT_EQ(point == FaultPoint::Count ? 1u : kvos::fault_hits(point), 1u);
    EXPECT_EQ(kvtest::read_file(dir.file("keep.dat")), "old content");
    EXPECT_TRUE(temporaries(dir.path()).empty());
    EXPECT_EQ(std::regex_replace(sink.text(), std::regex(R"(kvc[0-9A-F]{4}\.tmp)"), "kvcXXXX.tmp"),
              "\nFailed writing " + target + expected + "\n");
  }
  EXPECT_TRUE(write_text("keep.dat", "abc"));
  std::filesystem::current_path(before);
  EXPECT_EQ(kvtest::read_file(dir.file("keep.dat")), "abc");
  EXPECT_TRUE(temporaries(dir.path()).empty());
}

// A full disk: a small file system of its own where a private mount is
// allowed, otherwise a file-size limit that stops the writes.
TEST(SysManagerFiles, AFullDiskKeepsTheOldFile) {
  KVTEST_POSIX_ONLY("neither a private mount nor a file-size limit is at hand on Windows");
#if !defined(_WIN32)
  kvtest::TempDir dir;
  const std::string root = dir.file("small");
  ASSERT_EQ(mkdir(root.c_str(), 0700), 0);
  const int status = kvtest::run_in_child([&] {
    const bool mounted = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         mount("tmpfs", root.c_str(), "tmpfs", 0, "size=256k") == 0;
    const std::string path = dos_path(root + "/state.dat");
    const std::string old(100 * 1024, 'o');
    if (!write_text(path, old)) return 1;
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{160 * 1024, 160 * 1024};
    if (!mounted && setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
    if (write_text(path, std::string(200 * 1024, 'n'))) return 3;
    if (kvtest::read_file(root + "/state.dat") != old) return 4;
    if (!temporaries(root).empty()) return 5;
    return write_text(path, std::string(120 * 1024, 'n')) ? 0 : 6;  // fits once the old one is gone
  });
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
  const size_t firstHash = file_hash(first), secondHash = file_hash(second);
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
    const size_t hash = file_hash(kvtest::read_file(dir.file("state.bin")));
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

TEST(SysManagerHeader, OnlyTheSetItemsAppearInTheirOrderAndExitSpeaksOnlyWhenInitialized) {
  kvtest::CategoryScope csl(dbgCSL);
  kvtest::CaptureSink sink;
  const file_timestamp start = SysManager::StartTime;
  const uint64_t late = (uint64_t{(27u << 9) | (12u << 5) | 31u} << 16) | (23u << 11) | (59u << 5) | 29u;
  const std::string exe = "c:\\bin\\host.exe 01/01/1980 00:00:00\n", run = "Run 09/10/2017 13:18:30\n";
  struct Row {
    int initialized;
    const char *model, *equipment, *user, *image, *version;
    uint64_t start;
    std::string header;
  };
  const Row rows[] = {
      {0, nullptr, nullptr, nullptr, nullptr, "", kPacked, run},
      {1, nullptr, nullptr, nullptr, nullptr, "", kPacked, exe + run},
      {1, "Model-9", "Tool 4", "operator", "image.bin", "7.1.2", kPacked,
       exe + "Model-9 7.1.2\nTool 4, operator\nimage.bin\n" + run},
      {0, "Model-9", "Tool 4", nullptr, nullptr, "", kPacked, "Model-9 Tool 4, " + run},  // as they always have
      {0, nullptr, nullptr, nullptr, nullptr, "", late, "Run 12/31/2007 23:59:58\n"},  // zero-padded, seconds doubled
  };
  SysManager::ExeFilePath = "c:\\bin\\host.exe";
  SysManager::ExeTime = file_timestamp(kOther);
  for (const Row& row : rows) {
    SysManager::m_initialized = row.initialized;
    SysManager::Model(row.model);
    SysManager::Equipment(row.equipment);
    SysManager::User(row.user);
    SysManager::Image(row.image);
    SysManager::SetKorvalisVersion(row.version);
    SysManager::StartTime = file_timestamp(row.start);
    EXPECT_EQ(SysManager::GetDumpHeaderInformation(), row.header);
    SysManager::Exit(0);
  }
  EXPECT_EQ(sink.text(), "\nCSL: SysManager::Exit called\n\nCSL: SysManager::Exit called\n") << "twice initialized";
  SysManager::m_initialized = 0;  // every item is empty again
  SysManager::StartTime = start;
  SysManager::ExeFilePath.clear();
  SysManager::ExeTime = file_timestamp();
}

TEST(SysManagerStackTraceDir, OnlyACreatedDirectoryIsRecorded) {
  kvtest::TempDir dir;
  kvtest::CategoryScope csl(dbgCSL);
  kvtest::CaptureSink sink;
  const std::string before = SysManager::GetFiberStackTraceDirPath();
  EXPECT_TRUE(SysManager::SetFiberStackTraceDirPath(dos_path(dir.path())));
  EXPECT_EQ(SysManager::GetFiberStackTraceDirPath(), before) << "an existing directory is not recorded";
  const std::string created = dos_path(dir.file("dumps")), impossible = dos_path(dir.file("no")) + "\\such\\dir";
  EXPECT_TRUE(SysManager::SetFiberStackTraceDirPath(created));
  EXPECT_TRUE(std::filesystem::is_directory(dir.file("dumps")));
  EXPECT_FALSE(SysManager::SetFiberStackTraceDirPath(impossible));
  EXPECT_EQ(SysManager::GetFiberStackTraceDirPath(), created);
  EXPECT_EQ(sink.text(), "Failed to create directory: " + impossible + "\n");
}

std::string g_reported;
void record_initialization_error(const char* title, const char* text) { g_reported = std::string(title) + "\n" + text; }

// A failed start-up is reported, rethrown and may be retried; the retry removes the
// zone variables, records the executable and start time, and runs only once.
TEST(SysManagerInitialize, AFailureIsReportedAndRethrownARetryRecordsTheExecutableOnce) {
  kvtest::TempDir dir;
  const std::string errors = dir.file("stderr.txt");
  const std::string failure = "Korvalis Initialization Error\nSysManager::GetExeFileName - GetModuleFileName() failed";
  const int status = kvtest::run_in_child([&] {
    if (std::freopen(errors.c_str(), "w", stderr) == nullptr) return 1;
    SysManager::SetInitializationErrorHandler(record_initialization_error);
    const int drive = std::tolower(static_cast<unsigned char>(dos_path(kvos::executable_path())[0]));
    const std::string root = kvos::drive_root(drive);
    if (!kvos::drive_unmap(drive)) return 10;  // the executable now lies on no drive
    if (kvtest::raised([] { SysManager::Initialize(); }) !=
        failure.substr(30) + " @ 142 | void __cdecl SysManager::GetExeFileName(void)")
      return 2;
    if (SysManager::m_initialized != 0 || g_reported != failure) return 3;
    if (!kvos::drive_map(drive, root) || !kvos::env_set("tz", "XYZ+5") || !kvos::env_set("TZ", "ABC-3")) return 10;
    const int64_t before = kvos::system_file_time();
    SysManager::Initialize();
    if (kvos::env_get("tz") || kvos::env_get("TZ")) return 4;
    std::string exe;
    if (!kvos::host_to_dos(kvos::executable_path(), exe) || SysManager::ExeFilePath != exe) return 5;
    const uint64_t exeTime = SysManager::ExeTime.packed();
    if (exeTime == 0 || exeTime != SysManager::FileTime(exe.c_str())) return 6;
    if (SysManager::gSystemStartTime < before || SysManager::gSystemStartTime > kvos::system_file_time()) return 7;
    SystemAlertListener* listener = ProcessManager::m_listener;
    const int64_t started = SysManager::gSystemStartTime;
    if (!kvos::env_set("TZ", "ABC-3")) return 10;
    SysManager::Initialize();  // already done: nothing changes
    if (listener == nullptr || SysManager::gSystemStartTime != started || ProcessManager::m_listener != listener ||
        !kvos::env_get("TZ"))
      return 8;
    return SysManager::GetDumpHeaderInformation().rfind(exe + " ", 0) == 0 && SysManager::m_initialized == 1 ? 0 : 9;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);
  EXPECT_EQ(kvtest::read_text(errors), failure + "\n");
}

}  // namespace
