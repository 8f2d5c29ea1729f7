// Helpers shared by the test suites.
#include "test_support.h"

#include <gtest/gtest.h>

#include "kvos/drives.h"
#include "sysman.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

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

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kvtest-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

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

// Coverage builds: a child ended with _exit writes its counters only when asked.
extern "C" void __gcov_dump() __attribute__((weak));

int run_in_child(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    int code = 99;
    try {
      code = body();
    } catch (...) {
      code = 98;
    }
    std::fflush(nullptr);
    if (__gcov_dump != nullptr) __gcov_dump();
    _exit(code);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

std::string dos_path(const std::string& host) {
  std::string path;
  EXPECT_TRUE(kvos::host_to_dos(host, path)) << host;
  return path;
}

int child_result(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status); }

void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace kvtest

// The library's own new and delete are the runtime library's calloc and free
// (blocks can cross between the library and its host), so AddressSanitizer's
// new/free pairing check does not apply to programs that use it. Test
// programs, test discovery included, start with it off.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() { return "alloc_dealloc_mismatch=0:detect_leaks=1"; }
