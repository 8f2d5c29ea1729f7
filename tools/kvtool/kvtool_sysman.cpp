// kvtool: the demo step for the system manager and timers.
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "SystemKvCore.h"
#include "Zub/Core/Callback.h"
#include "kvtool.h"

namespace {

// A fresh directory below the system's temporary directory.
std::filesystem::path make_demo_directory() {
  const std::filesystem::path base = std::filesystem::temp_directory_path();
  for (unsigned attempt = 0; attempt < 100; ++attempt) {
    const std::filesystem::path candidate =
        base / ("kvtool-demo-" + std::to_string(timer_us_large_int() % 1000000u + attempt));
    std::error_code error;
    if (std::filesystem::create_directory(candidate, error)) return candidate;
  }
  return {};
}

int demo_system_manager() {
  SysManager::Initialize();
  SysManager::Model("KV-9000");
  SysManager::SetKorvalisVersion("1.0.0");
  SysManager::Equipment("demo tool");
  SysManager::User("operator");
  SysManager::Image("kvtool demo");
  std::printf("  dump header:\n");
  const std::string header = SysManager::GetDumpHeaderInformation();
  for (size_t begin = 0; begin < header.size();) {
    const size_t end = header.find('\n', begin);
    std::printf("    | %s\n", header.substr(begin, end - begin).c_str());
    begin = end == std::string::npos ? header.size() : end + 1;
  }

  // A timer's callback runs on this thread while it sleeps alertably.
  std::atomic<bool> fired{false};
  const uint64_t started = timer_us_large_int();
  Timer timer(boost::shared_ptr<Zub::Core::Callback>(new Zub::Core::FunctionCallback([&fired] { fired = true; })),
              0.1);
  for (int i = 0; i < 50 && !fired; ++i) SysManager::Sleep(100);
  if (!fired) {
    std::printf("  the timer never fired\n");
    return 1;
  }
  std::printf("  Timer(0.1 s) fired after %.1f ms, during SysManager::Sleep on the starting thread\n",
              static_cast<double>(timer_us_large_int() - started) / 1000.0);

  // A crash-safe write of two scattered buffers, read back.
  const std::filesystem::path directory = make_demo_directory();
  std::string dosDirectory;
  if (directory.empty() || !host_to_dos_path(directory.string().c_str(), dosDirectory)) {
    std::printf("  no temporary directory on a mapped drive\n");
    return 1;
  }
  const std::string path = dosDirectory + "\\demo.dat";
  char first[] = "Korvalis Data File\r\n";
  char second[] = "[Demo]\r\nvalue = 42\r\n";
  SysFileioBuffer list[] = {{first, 0, sizeof first - 1}, {second, sizeof first - 1, sizeof second - 1}, {nullptr, 0, 0}};
  const uint64_t stamp = SysManager::Time().packed();
  const bool written = SysManager::FileWrite(path.c_str(), list, stamp);
  std::printf("  FileWrite(%s): %s, %llu bytes, time %s\n", path.c_str(), written ? "ok" : "failed",
              static_cast<unsigned long long>(SysManager::FileSize(path.c_str())),
              SysManager::FileTime(path.c_str()) == stamp ? "as given" : "differs");
  char back[sizeof second - 1];
  SysFileioBuffer readList[] = {{back, sizeof first - 1, sizeof back}, {nullptr, 0, 0}};
  const bool readBack = SysManager::FileRead(path.c_str(), readList, nullptr) &&
                        std::string(back, sizeof back) == std::string(second, sizeof second - 1);
  std::printf("  FileRead of the second buffer: %s\n", readBack ? "matches" : "differs");
  std::error_code error;
  std::filesystem::remove_all(directory, error);
  return written && readBack ? 0 : 1;
}

[[maybe_unused]] const bool registered =
    kvtool::register_demo_step(20, "System manager and timers", demo_system_manager);

}  // namespace
