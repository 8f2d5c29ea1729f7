// kvtool: command-line front door to SystemKvCore.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <new>
#include <string>
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

namespace {

// "kvtool instr set": the program and the commands the parse selected.
std::string command_name(CLI::App& app) {
  std::string name = "kvtool";
  for (CLI::App* at = &app;;) {
    const std::vector<CLI::App*> chosen = at->get_subcommands();
    if (chosen.empty()) return name;
    at = chosen.front();
    name += " " + at->get_name();
  }
}

// Reports a command-line error and answers exit status 2; help and the
// version answer 0.
int usage_error(CLI::App& app, const CLI::ParseError& error) {
  if (dynamic_cast<const CLI::CallForHelp*>(&error) != nullptr ||
      dynamic_cast<const CLI::CallForAllHelp*>(&error) != nullptr ||
      dynamic_cast<const CLI::CallForVersion*>(&error) != nullptr)
    return app.exit(error);
  std::string message = error.what();
  // A missing command is reported before the word that was not one: name that word.
  const std::vector<std::string> unknown = app.remaining(true);
  if (!unknown.empty() && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr)
    message = std::string(unknown.front().rfind('-', 0) == 0 ? "unknown option" : "unknown command") + " \"" +
              unknown.front() + "\"";
  std::fprintf(stderr, "%s: %s\nRun with --help for more information.\n", command_name(app).c_str(),
               message.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"kvtool: command-line front door to the SystemKvCore library"};
  app.set_version_flag("--version", "kvtool " KVTOOL_VERSION);
  // Options begin with "-" on every system: "/x" is a path, also on Windows.
  app.allow_windows_style_options(false);
  app.require_subcommand(1);
  app.footer(
      "Exit status: 0 on success, 1 on a failure, 2 on a usage error.\n"
      "An argument that begins with \"-\" but is a value (\"-5 V\") goes after \"--\":\n"
      "  kvtool units auto -- \"-5 V\"");
  int exitCode = 0;

  CLI::App* demo = app.add_subcommand("demo", "Walk through the library's main services");
  demo->callback([&exitCode] { exitCode = kvtool::run_demo(); });

  for (const kvtool::CommandSetup& setup : kvtool::commands()) setup(app, exitCode);

  // Every command changes files only at its very end, so a failure that
  // reaches here has changed nothing.
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return usage_error(app, error);
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "%s: out of memory; nothing was changed\n", command_name(app).c_str());
    return 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s; nothing was changed\n", command_name(app).c_str(), error.what());
    return 1;
  }
  return exitCode;
}
