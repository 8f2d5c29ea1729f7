// kvtool: command-line front door to SystemKvCore.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <map>
#include <utility>
#include <vector>

#include "kvtool.h"

namespace kvtool {
namespace {

std::vector<CommandSetup>& commands() {
  static std::vector<CommandSetup> list;
  return list;
}

std::multimap<int, std::pair<std::string, DemoStep>>& demo_steps() {
  static std::multimap<int, std::pair<std::string, DemoStep>> steps;
  return steps;
}

int run_demo() {
  int failures = 0;
  for (auto& [order, step] : demo_steps()) {
    (void)order;
    demo_heading(step.first);
    if (step.second() != 0) {
      std::printf("  (step failed)\n");
      ++failures;
    }
  }
  std::printf("\nkvtool demo: %zu steps, %d failed\n", demo_steps().size(), failures);
  return failures == 0 ? 0 : 1;
}

}  // namespace

bool register_command(CommandSetup setup) {
  commands().push_back(std::move(setup));
  return true;
}

bool register_demo_step(int order, const std::string& title, DemoStep step) {
  demo_steps().emplace(order, std::make_pair(title, std::move(step)));
  return true;
}

void demo_heading(const std::string& title) { std::printf("\n== %s ==\n", title.c_str()); }

}  // namespace kvtool

// The library's new and delete are calloc and free, so blocks may cross
// between it and this program: AddressSanitizer's new/free pairing check does
// not apply (it only matters in sanitizer builds).
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() { return "alloc_dealloc_mismatch=0"; }

int main(int argc, char** argv) {
  CLI::App app{"kvtool: command-line front door to the SystemKvCore library"};
  app.require_subcommand(1);
  int exitCode = 0;

  CLI::App* demo = app.add_subcommand("demo", "Walk through the library's main services");
  demo->callback([&exitCode] { exitCode = kvtool::run_demo(); });

  for (const kvtool::CommandSetup& setup : kvtool::commands()) setup(app, exitCode);

  CLI11_PARSE(app, argc, argv);
  return exitCode;
}
