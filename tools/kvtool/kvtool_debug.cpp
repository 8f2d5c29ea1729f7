// kvtool: debug categories, and the demo steps for debug output and the fatal path.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>

#include "SystemKvCore.h"
#include "Zub/Core/LogManager.h"
#include "kvtool.h"

namespace {

// Shows the demo's debug lines on standard output.
struct StdoutSink : Zub::Core::LogSink {
  void Write(const std::string& loggerName, int, const std::string& text) override {
    std::printf("  [%s] %s", loggerName.c_str(), text.c_str());
    if (text.empty() || text.back() != '\n') std::printf("\n");
  }
};

int demo_debug_output() {
  static StdoutSink sink;
  Zub::Core::LogManager* service = Zub::Core::LogManager::Instance();
  if (service == nullptr) {
    std::printf("  no logging service\n");
    return 1;
  }
  service->AddSink(&sink);
  CSL::DebugManager::DebugFlagSet(dbgCSL, true);
  std::printf("  category %d \"%s\" is %s; \"Motion\" is %s\n", dbgCSL,
              CSL::DebugManager::DebugFlagString(dbgCSL).c_str(),
              CSL::DebugManager::DebugFlagTest(dbgCSL) ? "on" : "off",
              CSL::DebugManager::DebugFlagTest(dbgMotion) ? "on" : "off");
  Debug(dbgCSL, "CSL: demo line %d of %d\n", 1, 2);
  Debug(dbgMotion, "this Motion line is filtered out\n");
  Debug(dbgCSL, "CSL: demo line %d of %d (%s)\n", 2, 2, "the Motion line between was dropped");
  service->RemoveSink(&sink);
  CSL::DebugManager::DebugFlagSet(dbgCSL, false);
  return 0;
}

int demo_fatal_path() {
  try {
    sys_abort("kvtool demo: a broken invariant");
    std::printf("  sys_abort returned\n");
    return 1;
  } catch (const SysManagerError& error) {
    const Zub::Core::CodeContext& where = error.GetCodeContext();
    std::printf("  caught %s: \"%s\"\n  raised at %s line %d in %s, severity %d\n", error.GetCategory().c_str(),
                error.what(), where.GetFile().c_str(), where.GetLine(), where.GetFunction().c_str(),
                error.GetSeverity());
    return 0;
  }
}

void setup_debug_command(CLI::App& app, int& exitCode) {
  CLI::App* debug = app.add_subcommand("debug", "Debug categories");
  debug->require_subcommand(1);
  CLI::App* list = debug->add_subcommand("categories", "List the debug categories and whether each is on");
  list->callback([&exitCode] {
    for (int t = 0; t < DebugTypeCount; ++t) {
      const auto type = static_cast<DebugType>(t);
      std::printf("%2d  %-20s %s\n", t, CSL::DebugManager::DebugFlagString(type).c_str(),
                  CSL::DebugManager::DebugFlagTest(type) ? "on" : "off");
    }
    exitCode = 0;
  });
}

[[maybe_unused]] const bool registered = kvtool::register_command(setup_debug_command) &&
                        kvtool::register_demo_step(10, "Categorised debug output", demo_debug_output) &&
                        kvtool::register_demo_step(90, "The fatal path: sys_abort", demo_fatal_path);

}  // namespace
