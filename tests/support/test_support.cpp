// Helpers shared by the test suites.
#include "test_support.h"

#include <gtest/gtest.h>

#include "kvos/drives.h"
#include "sysman.h"

#if defined(_WIN32)
#include <windows.h>

#include <malloc.h>
#include <psapi.h>

#include <random>
#else
#include <malloc.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "kvos/env.h"
#include "kvos/module.h"
#include "kvos/time.h"

namespace kvtest {

CaptureSink::CaptureSink() {
  if (Zub::Core::LogManager* service = Zub::Core::LogManager::Instance()) service->AddSink(this);
}

CaptureSink::~CaptureSink() {
  if (Zub::Core::LogManager* service = Zub::Core::LogManager::Instance()) service->RemoveSink(this);
}

void CaptureSink::Write(const std::string& loggerName, int severity, const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.push_back({loggerName, severity, text});
}

std::vector<CaptureSink::Entry> CaptureSink::entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_;
}

std::string CaptureSink::text() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string all;
  for (const Entry& e : entries_) all += e.text;
  return all;
}

void CaptureSink::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}

CategoryScope::CategoryScope(DebugType type, bool on)
    : type_(type), was_(CSL::DebugManager::DebugFlagTest(type)) {
  CSL::DebugManager::DebugFlagSet(type, on);
}

CategoryScope::~CategoryScope() { CSL::DebugManager::DebugFlagSet(type_, was_); }

#if defined(_WIN32)
namespace {

// The current test's name, and its TempDirs and children so far.
struct TestState {
  std::string test;
  std::vector<std::string> dirs;
  std::vector<int> results;  // of the children started so far
};

TestState& test_state() {
  static TestState state;
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  const std::string name = info != nullptr ? std::string(info->test_suite_name()) + "." + info->name() : "";
  if (name != state.test) state = TestState{name, {}, {}};
  return state;
}

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> parts;
  for (size_t from = 0; !text.empty();) {
    const size_t bar = text.find('|', from);
    parts.push_back(text.substr(from, bar - from));
    if (bar == std::string::npos) break;
    from = bar + 1;
  }
  return parts;
}

std::string joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : "|") + part;
  return text;
}

// A child started for a run_in_child call knows the call ("TEST#N"), the
// results its parent had from the calls before, and the parent's TempDirs.
struct ChildRole {
  std::string call;
  std::vector<std::string> results, dirs;
};

ChildRole child_role() {
  ChildRole role;
  std::string text;
  if (!kvos::env_get("KVTEST_CHILD", &role.call)) return role;
  if (kvos::env_get("KVTEST_CHILD_RESULTS", &text)) role.results = split(text);
  if (kvos::env_get("KVTEST_CHILD_DIRS", &text)) role.dirs = split(text);
  return role;
}

[[noreturn]] void on_child_abort(int) { _exit(kChildAborted); }

}  // namespace

TempDir::TempDir() {
  TestState& state = test_state();
  const ChildRole role = child_role();
  if (role.dirs.size() > state.dirs.size()) {
    path_ = role.dirs[state.dirs.size()];  // a child uses its parent's directory
  } else {
    std::random_device random;
    for (int attempt = 0; path_.empty() && attempt < 100; ++attempt) {
      const std::filesystem::path candidate =
          std::filesystem::temp_directory_path() / ("kvtest-" + std::to_string(random() % 1000000000u));
      std::error_code ec;
      if (std::filesystem::create_directory(candidate, ec)) path_ = candidate.string();
    }
    if (path_.empty()) throw std::runtime_error("no temporary directory");
  }
  state.dirs.push_back(path_);
}
#else
TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kvtest-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}
#endif

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
  std::filesystem::remove_all(path_, ec);
}

std::string abort_text(const std::function<void()>& body) {
  try {
    body();
  } catch (const SysManagerError& e) {
    return e.what();
  }
  return "(no abort)";
}

std::string raised(const std::function<void()>& body) {
  try {
    body();
  } catch (const Zub::Core::Error& e) {
    return std::string(e.what()) + " @ " + std::to_string(e.GetCodeContext().GetLine()) + " | " +
           e.GetCodeContext().GetSignature();
  }
  return "(no error)";
}

#if !defined(_WIN32)
// Coverage builds: a child ended with _exit writes its counters only when asked.
extern "C" void __gcov_dump() __attribute__((weak));
#endif

// A child process runs body and leaves at once with its result (98: it threw).
[[noreturn]] static void end_child(const std::function<int()>& body) {
  int code = 99;
  try {
    code = body();
  } catch (...) {
    code = 98;
  }
  std::fflush(nullptr);
#if !defined(_WIN32)
  if (__gcov_dump != nullptr) __gcov_dump();
#endif
  _exit(code);
}

#if defined(_WIN32)
int run_in_child(const std::function<int()>& body) {
  std::fflush(nullptr);
  TestState& state = test_state();
  const size_t index = state.results.size();
  const std::string call = state.test + "#" + std::to_string(index + 1);
  const ChildRole role = child_role();
  if (!role.call.empty() && role.call != call) {
    // A child on its way to a later call: the earlier ones end as they did in the parent.
    const int result = index < role.results.size() ? std::atoi(role.results[index].c_str()) : 0;
    state.results.push_back(result);
    return result;
  }
  if (role.call == call) {
    // The child: only body, then out at once, as a forked child leaves.
    std::signal(SIGABRT, on_child_abort);
    end_child(body);
  }
  std::vector<std::string> results;
  for (int result : state.results) results.push_back(std::to_string(result));
  char program[MAX_PATH * 4];
  const DWORD length = GetModuleFileNameA(nullptr, program, sizeof program);
  if (length == 0 || length >= sizeof program) throw std::runtime_error("no program path");
  std::string command = std::string("\"") + program + "\" --gtest_also_run_disabled_tests --gtest_filter=" + state.test;
  // The child's test report would only repeat this one; its own output stays.
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  HANDLE nul = CreateFileA("NUL", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, OPEN_EXISTING, 0, nullptr);
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = nul;
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION child{};
  if (!kvos::env_set("KVTEST_CHILD", call.c_str()) || !kvos::env_set("KVTEST_CHILD_RESULTS", joined(results).c_str()) ||
      !kvos::env_set("KVTEST_CHILD_DIRS", joined(state.dirs).c_str()))
    throw std::runtime_error("the child's variables cannot be set");
  const BOOL started = CreateProcessA(program, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &child);
  // Removing a variable that was set just now does not fail.
  for (const char* name : {"KVTEST_CHILD", "KVTEST_CHILD_RESULTS", "KVTEST_CHILD_DIRS"})
    (void)kvos::env_set(name, nullptr);
  CloseHandle(nul);
  if (!started) throw std::runtime_error("the child process cannot be started");
  WaitForSingleObject(child.hProcess, INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(child.hProcess, &code);
  CloseHandle(child.hThread);
  CloseHandle(child.hProcess);
  state.results.push_back(static_cast<int>(code));
  return static_cast<int>(code);
}

int run_program(const std::string& program, const std::vector<std::string>& arguments,
                const std::vector<std::pair<std::string, std::string>>& environment, const std::string& out,
                const std::string& err, const std::string& directory) {
  std::fflush(nullptr);
  std::string command = "\"" + program + "\"";
  for (const std::string& argument : arguments) command += " \"" + argument + "\"";
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  auto open_output = [&](const std::string& path) {
    return CreateFileA(path.empty() ? "NUL" : path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                       path.empty() ? OPEN_EXISTING : CREATE_ALWAYS, 0, nullptr);
  };
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = open_output(out);
  startup.hStdError = open_output(err);
  // The variables for the child, and this program's directory on the search
  // path of a copy; the parent's own are put back afterwards.
  std::vector<std::pair<std::string, std::string>> saved;
  auto set = [&saved](const std::string& name, const std::string& value) {
    std::string old;
    saved.emplace_back(name, kvos::env_get(name.c_str(), &old) ? old : std::string(1, '\0'));
    if (!kvos::env_set(name.c_str(), value.c_str())) throw std::runtime_error("cannot set " + name);
  };
  for (const auto& [name, value] : environment) set(name, value);
  std::string path;
  (void)kvos::env_get("PATH", &path);  // without a PATH the program's directory is the whole search path
  set("PATH", std::filesystem::path(kvos::executable_path()).parent_path().string() + ";" + path);
  PROCESS_INFORMATION child{};
  const BOOL started = CreateProcessA(program.c_str(), command.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                      directory.empty() ? nullptr : directory.c_str(), &startup, &child);
  for (auto it = saved.rbegin(); it != saved.rend(); ++it)  // putting back what was there does not fail
    (void)kvos::env_set(it->first.c_str(), it->second == std::string(1, '\0') ? nullptr : it->second.c_str());
  CloseHandle(startup.hStdOutput);
  CloseHandle(startup.hStdError);
  if (!started) return -1;
  WaitForSingleObject(child.hProcess, INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(child.hProcess, &code);
  CloseHandle(child.hThread);
  CloseHandle(child.hProcess);
  return static_cast<int>(code);
}
#else
int run_in_child(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) end_child(body);
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

int run_program(const std::string& program, const std::vector<std::string>& arguments,
                const std::vector<std::pair<std::string, std::string>>& environment, const std::string& out,
                const std::string& err, const std::string& directory) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
    if (!directory.empty() && chdir(directory.c_str()) != 0) _exit(127);
    const int outFd = open(out.empty() ? "/dev/null" : out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int errFd = open(err.empty() ? "/dev/null" : err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (outFd < 0 || errFd < 0 || dup2(outFd, STDOUT_FILENO) < 0 || dup2(errFd, STDERR_FILENO) < 0) _exit(127);
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return child_result(status);
}
#endif

std::string host_join(const std::string& root, const std::string& relative) {
  std::string path = root;
  const char separator = kWindows ? '\\' : '/';
  if (!path.empty() && path.back() != separator) path += separator;
  for (char c : relative) path += c == '/' ? separator : c;
  return path;
}

std::string host_absolute(const std::string& slashPath) {
  if (!kWindows) return slashPath;
  std::string path = "C:";
  for (char c : slashPath) path += c == '/' ? '\\' : c;
  return path;
}

std::string dos_path(const std::string& host) {
  std::string path;
  EXPECT_TRUE(kvos::host_to_dos(host, path)) << host;
  return path;
}

#if defined(_WIN32)
int child_result(int status) { return status; }
#else
int child_result(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status); }
static_assert(kChildAborted == 1000 + SIGABRT);
#endif

#if defined(_WIN32)
bool serial_device_exists(int port) {
  char target[512];
  return QueryDosDeviceA(("COM" + std::to_string(port)).c_str(), target, sizeof target) != 0;
}

bool directory_permissions_apply() { return false; }

int64_t file_write_time(const std::string& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data)) return -1;
  return static_cast<int64_t>((static_cast<uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) |
                              data.ftLastWriteTime.dwLowDateTime);
}

bool set_kept_access(const std::string& target, const std::string&) {
  return SetFileAttributesA(target.c_str(), FILE_ATTRIBUTE_HIDDEN) != 0;
}

bool has_kept_access(const std::string& path) {
  const DWORD attributes = GetFileAttributesA(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_HIDDEN) != 0;
}

bool page_resident(const void* p) {
  PSAPI_WORKING_SET_EX_INFORMATION page{};
  page.VirtualAddress = const_cast<void*>(p);
  return QueryWorkingSetEx(GetCurrentProcess(), &page, sizeof page) && page.VirtualAttributes.Valid;
}

bool page_mapped(const void* p) {
  MEMORY_BASIC_INFORMATION region{};
  return VirtualQuery(p, &region, sizeof region) == sizeof region && region.State != MEM_FREE;
}

size_t malloc_block_size(void* p) { return _msize(p); }
#else
bool serial_device_exists(int port) { return access(("/dev/ttyS" + std::to_string(port - 1)).c_str(), F_OK) == 0; }

bool directory_permissions_apply() { return geteuid() != 0; }

int64_t file_write_time(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return -1;
  return kvos::unix_to_file_time(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
}

bool set_kept_access(const std::string& target, const std::string& replacement) {
  return chmod(target.c_str(), 0640) == 0 && chmod(replacement.c_str(), 0600) == 0;
}

bool has_kept_access(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && (st.st_mode & 07777) == 0640;
}

bool page_resident(const void* p) {
  const uintptr_t size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  unsigned char resident = 0;
  void* start = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(p) & ~(size - 1));
  return mincore(start, size, &resident) == 0 && (resident & 1) != 0;
}

bool page_mapped(const void* p) {
  const uintptr_t size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  unsigned char resident = 0;
  return mincore(reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(p) & ~(size - 1)), size, &resident) == 0;
}

size_t malloc_block_size(void* p) { return malloc_usable_size(p); }
#endif

void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

std::string read_text(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace kvtest

#if defined(_WIN32)
int setenv(const char* name, const char* value, int overwrite) {
  if (overwrite == 0 && kvos::env_get(name)) return 0;
  return kvos::env_set(name, value) ? 0 : -1;
}

int unsetenv(const char* name) { return kvos::env_set(name, nullptr) ? 0 : -1; }
#endif

// The library's own new and delete are the runtime library's calloc and free
// (blocks can cross between the library and its host), so AddressSanitizer's
// new/free pairing check does not apply to programs that use it. Test
// programs, test discovery included, start with it off.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() { return "alloc_dealloc_mismatch=0:detect_leaks=1"; }
