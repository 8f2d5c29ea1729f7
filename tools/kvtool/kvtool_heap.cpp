// kvtool: tracked heaps. `kvtool heap demo` builds a small tree of named
// heaps, leaves a few blocks behind on purpose and shows the usage table and
// the leak listing that the heap diagnostics write.
#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "SystemKvCore.h"
#include "Zub/Core/LogManager.h"
#include "kvtool.h"

namespace {

const char* const kSource = "kvtool/heap";

// Shows the diagnostics' debug lines on standard output, indented.
struct StdoutSink : Zub::Core::LogSink {
  void Write(const std::string&, int, const std::string& text) override {
    bool lineStart = true;
    for (char c : text) {
      if (lineStart && c != '\n') std::fputs("  | ", stdout);
      std::fputc(c, stdout);
      lineStart = c == '\n';
    }
    if (!lineStart) std::fputc('\n', stdout);
  }
};

// Shows category "A" (where the diagnostics write) on standard output for a
// scope, through a logging service of its own so that no other sink repeats it.
class ShowDiagnostics {
 public:
  ShowDiagnostics() {
    m_service.AddSink(&m_sink);
    m_previous = Zub::Core::LogManager::Install(&m_service);
    CSL::DebugManager::DebugFlagSet(dbgA, true);
  }
  ~ShowDiagnostics() {
    Zub::Core::LogManager::Install(m_previous);
    m_service.RemoveSink(&m_sink);
  }

 private:
  StdoutSink m_sink;
  Zub::Core::LogManager m_service;
  Zub::Core::LogManager* m_previous = nullptr;
};

// Runs the body with the working directory switched (heapdump.txt goes there).
template <typename Body>
int in_directory(const std::filesystem::path& dir, Body&& body) {
  std::error_code ec;
  const std::filesystem::path previous = std::filesystem::current_path(ec);
  std::filesystem::current_path(dir, ec);
  if (ec) {
    std::fprintf(stderr, "kvtool heap demo: cannot use directory %s: %s\n", dir.string().c_str(), ec.message().c_str());
    return 1;
  }
  int result = 1;
  try {
    result = body();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kvtool heap demo: failed: %s\n", e.what());
  }
  std::filesystem::current_path(previous, ec);
  return result;
}

struct Sample {
  double position[3];
  int stage;
};

// The size of heapdump.txt in the working directory; 0 when there is none.
uintmax_t dump_size() {
  std::error_code ec;
  const uintmax_t size = std::filesystem::file_size("heapdump.txt", ec);
  return ec ? 0 : size;
}

// The full demonstration: a tree of three heaps, some traffic, three leaks.
int heap_demo(bool brief) {
  heapman_mgr::initialize();  // normally done by SysManager::Initialize
  ShowDiagnostics show;
  HeapMark();  // hide everything allocated so far: the listing shows only this demo's leaks

  heap* instruments = new (mainheap, kSource, __LINE__) heap("instruments");
  heap* stage = new (instruments, kSource, __LINE__) heap("stage");
  heap* scratch = brief ? nullptr : new (instruments, kSource, __LINE__) heap("scratch", heWINHEAP);
  std::printf("  heaps: main > instruments > stage%s\n", brief ? "" : ", scratch (plain)");

  // Traffic that is cleaned up again.
  for (int i = 0; i < 100; ++i) {
    char* text = strdup(stage, "temporary");
    KvOperatorDelete(text);
  }
  // Leaks on purpose.
  Sample* sample = new (stage, kSource, __LINE__) Sample{{1.5, -2.25, 0.0}, 3};
  char* wafer = strdup(sample, "wafer-07 map");  // in the heap that holds the sample
  if (!brief) {
    unsigned char* raw = static_cast<unsigned char*>(operator new(6, scratch, kSource, __LINE__));
    std::memcpy(raw, "\x01\x02OK\xFE\xFF", 6);
    int* counts = new (instruments, kSource, __LINE__) int[4]{7, 8, 9, 10};
    (void)counts;
  }
  std::printf("  left behind: \"%s\" at %p, a sample at %p%s\n\n", wafer, static_cast<void*>(wafer),
              static_cast<void*>(sample), brief ? "" : ", 6 raw bytes and 4 counts");

  const uintmax_t before = dump_size();
  HeapDump();
  const bool appended = dump_size() > before;

  delete instruments;  // the whole subtree, leaks included
  const std::string where =
      brief ? "heapdump.txt in a temporary directory" : (std::filesystem::current_path() / "heapdump.txt").string();
  if (appended) {
    std::printf("  heap tree released; usage table appended to %s\n", where.c_str());
    return 0;
  }
  // The library says nothing when it cannot write the file: ask the system why.
  errno = 0;
  if (std::FILE* probe = std::fopen("heapdump.txt", "a")) std::fclose(probe);
  std::printf("  heap tree released\n");
  std::fprintf(stderr, "kvtool heap demo: the usage table was not appended to %s: %s\n", where.c_str(),
               errno != 0 ? std::strerror(errno) : "the file did not grow");
  return 1;
}

int demo_step() {
  std::error_code ec;
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path(ec) /
      ("kvtool-heap-demo-" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
  std::filesystem::create_directories(dir, ec);
  const int result = in_directory(dir, [] { return heap_demo(true); });
  std::filesystem::remove_all(dir, ec);
  return result;
}

void setup_heap_command(CLI::App& app, int& exitCode) {
  CLI::App* command = app.add_subcommand("heap", "Tracked heaps and their diagnostics");
  command->require_subcommand(1);
  CLI::App* demo = command->add_subcommand(
      "demo", "Allocate in a small tree of named heaps, leak a few blocks on purpose, and show the usage table "
              "and the leak listing (heapdump.txt is appended in the current directory)");
  static std::string dir;
  demo->add_option("--dir", dir, "Directory for heapdump.txt (default: the current directory)");
  demo->callback([&exitCode] {
    exitCode = in_directory(dir.empty() ? std::filesystem::current_path() : std::filesystem::path(dir),
                            [] { return heap_demo(false); });
  });
}

[[maybe_unused]] const bool registered = kvtool::register_command(setup_heap_command) &&
                                         kvtool::register_demo_step(30, "Tracked heaps and heap diagnostics",
                                                                    demo_step);

}  // namespace
