// kvtool: the rotating log files (log init, log test, log list) and the demo
// step that shows a rotation and a restart.
#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "SystemKvCore.h"
#include "kvtool.h"

namespace {

// The three logs: the name Initialize gives each, and the stem of its numbered files.
struct LogKind {
  const char* name;
  const char* stem;
};
constexpr LogKind kLogs[] = {{"debuglog.log", "debug"}, {"FR001.log", "FR"}, {"PC001.log", "PC"}};
constexpr int kMaxFiles = 1000;

// The DOS text of an existing host directory, without a trailing separator;
// empty, after a message on standard error, when there is none.
std::string log_directory(const std::string& hostDir) {
  std::error_code ec;
  if (!std::filesystem::is_directory(hostDir, ec)) {
    std::fprintf(stderr, "kvtool log: %s is not a directory\n", hostDir.c_str());
    return {};
  }
  std::string dos;
  if (!host_to_dos_path(std::filesystem::absolute(hostDir, ec).lexically_normal().string().c_str(), dos)) {
    std::fprintf(stderr, "kvtool log: %s lies on no mapped drive\n", hostDir.c_str());
    return {};
  }
  while (dos.size() > 3 && dos.back() == '\\') dos.pop_back();
  return dos;
}

// A log file's size, or false when there is none (through the library's file lookup).
bool log_file_size(const std::string& path, uint64_t& size) {
  size = SysManager::FileSize(path.c_str());
  return size != 0xFFFFFFFFu || SysManager::FileTime(path.c_str()) != 0;
}

// A file's last-write time, local, to the library's two seconds.
std::string local_time(const std::string& path) {
  const file_timestamp t(SysManager::FileTime(path.c_str()));
  if (t.packed() == 0) return "?";
  char text[40];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", t.year(), t.month(), t.day(), t.hour(),
                t.minute(), t.second());
  return text;
}

// The file a log would continue in if it were opened now (the library's own choice).
std::string current_file(const std::string& dosDir, const LogKind& kind) {
  CSL::DebugLogFile probe;
  probe.SetFileRotation(1, kMaxFiles);
  probe.Path((dosDir + "\\" + kind.name).c_str());
  return probe.Path();
}

// Lists the files of the three logs; "*" marks the one each continues in.
// Returns how many files there are.
int list_logs(const std::string& dosDir, const char* indent = "") {
  int count = 0;
  for (const LogKind& kind : kLogs) {
    const std::string current = current_file(dosDir, kind);
    auto show = [&](const std::string& name) {
      const std::string path = dosDir + "\\" + name;
      uint64_t size = 0;
      if (!log_file_size(path, size)) return;
      ++count;
      std::printf("%s%c %-14s %10llu  %s\n", indent, path == current ? '*' : ' ', name.c_str(),
                  static_cast<unsigned long long>(size), local_time(path).c_str());
    };
    if (std::string(kind.stem) == "debug") show(kind.name);
    for (int n = 1; n <= kMaxFiles; ++n) {
      char name[32];
      std::snprintf(name, sizeof name, "%s%03d.log", kind.stem, n);
      show(name);
    }
  }
  if (count == 0) std::printf("%sno log files in %s\n", indent, dosDir.c_str());
  return count;
}

// Options shared by init and test.
struct InitOptions {
  std::string dir;
  long files = 10;
  long sizeKB = 1024;
  bool all = false;
};

void add_init_options(CLI::App* command, InitOptions& options) {
  command->add_option("DIR", options.dir, "Log directory (a host path)")->required();
  command->add_option("--files", options.files, "Highest file number of each log (1..1000)")->capture_default_str();
  command->add_option("--size-kb", options.sizeKB, "Size in KB at which a file is rotated")->capture_default_str();
}

// Opens the logs; false after a message on standard error.
bool initialize(const InitOptions& options, std::string& dosDir) {
  dosDir = log_directory(options.dir);
  if (dosDir.empty()) return false;
  try {
    CSL::LogManager::Initialize(dosDir, options.files, options.sizeKB, options.all);
  } catch (const LogManagerError& error) {
    std::fprintf(stderr, "kvtool log: %s\n", error.what());
    return false;
  }
  uint64_t size = 0;
  if (!log_file_size(current_file(dosDir, kLogs[0]), size)) {
    std::fprintf(stderr, "kvtool log: the debug log could not be opened in %s\n", dosDir.c_str());
    return false;
  }
  return true;
}

void setup_log_commands(CLI::App& app, int& exitCode) {
  CLI::App* log = app.add_subcommand("log", "Rotating log files");
  log->require_subcommand(1);

  static InitOptions init;
  CLI::App* initCommand = log->add_subcommand("init", "Open the logs in DIR and list their files");
  add_init_options(initCommand, init);
  initCommand->add_flag("--all", init.all, "Open the flight-recorder and parameter-change logs too");
  initCommand->callback([&exitCode] {
    std::string dosDir;
    if (!initialize(init, dosDir)) {
      exitCode = 1;
      return;
    }
    list_logs(dosDir);
    exitCode = 0;
  });

  static InitOptions test;
  static int count = 0;
  static bool terminate = false;
  CLI::App* testCommand = log->add_subcommand(
      "test", "Open the debug log in DIR with category \"A\" on and write the self-test lines");
  add_init_options(testCommand, test);
  testCommand->add_option("--count", count, "Number of numbered lines")->required();
  testCommand->add_flag("--terminate", terminate,
                        "End the process at once after the numbered lines (exit status 255)");
  testCommand->callback([&exitCode] {
    std::string dosDir;
    if (!initialize(test, dosDir)) {
      exitCode = 1;
      return;
    }
    CSL::DebugManager::DebugFlagSet(dbgA, true);
    CSL::LogManager::TestDebugLogFiles(count, terminate);
    std::printf("wrote the self-test lines to %s\n", current_file(dosDir, kLogs[0]).c_str());
    exitCode = 0;
  });

  static std::string listDir;
  CLI::App* listCommand = log->add_subcommand("list", "List the log files in DIR with sizes and times");
  listCommand->add_option("DIR", listDir, "Log directory (a host path)")->required();
  listCommand->callback([&exitCode] {
    const std::string dosDir = log_directory(listDir);
    if (dosDir.empty()) {
      exitCode = 1;
      return;
    }
    list_logs(dosDir);
    exitCode = 0;
  });
}

// Writes numbered lines into a log with a small size limit until it has
// rotated twice, then opens the same log again as a restarted program would.
int demo_rotation() {
  std::error_code ec;
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path(ec) /
      ("kvtool-log-demo-" + std::to_string(std::chrono::system_clock::now().time_since_epoch().count()));
  std::string dosDir;
  if (!std::filesystem::create_directories(dir, ec) || !host_to_dos_path(dir.string().c_str(), dosDir)) {
    std::printf("  no temporary directory on a mapped drive\n");
    return 1;
  }
  const std::string first = dosDir + "\\FR001.log";
  std::string lastWritten;
  int rotations = 0;
  {
    CSL::DebugLogFile log;
    log.SetFileRotation(300, 3);
    std::printf("  opening %s with a 300-byte limit over 3 files\n", first.c_str());
    log.Open(first.c_str(), true, "kvtool demo log\n", true);
    std::string current = log.Path();
    for (int line = 1; rotations < 2 && line <= 100; ++line) {
      log.Write("demo line " + std::to_string(line) + ": the stage moved to its next position\n");
      if (current != log.Path()) {
        ++rotations;
        current = log.Path();
      }
    }
    lastWritten = log.Path();
  }
  std::printf("  files after %d rotations (* marks the one a restart continues in):\n", rotations);
  list_logs(dosDir, "    ");
  CSL::DebugLogFile restarted;
  restarted.SetFileRotation(300, 3);
  restarted.Open(first.c_str(), true, "kvtool demo log\n", true);
  std::printf("  restart: opening %s again continues in %s\n", first.c_str(), restarted.Path());
  const bool continued = lastWritten == restarted.Path();
  restarted.Close();
  std::filesystem::remove_all(dir, ec);
  return rotations == 2 && continued ? 0 : 1;
}

[[maybe_unused]] const bool registered =
    kvtool::register_command(setup_log_commands) &&
    kvtool::register_demo_step(70, "Log files: rotation by size, and a restart", demo_rotation);

}  // namespace
