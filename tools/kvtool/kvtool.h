// Registration of kvtool's commands and of the steps of `kvtool demo`.
#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}

namespace kvtool {

// Builds a subcommand on the main application. The command's callback sets
// exitCode (0 by default) to the program's exit status.
using CommandSetup = std::function<void(CLI::App& app, int& exitCode)>;

// One step of `kvtool demo`; returns 0 on success. Steps run by ascending order.
using DemoStep = std::function<int()>;

// Both return true so that a file can register at static construction:
//   static const bool registered = kvtool::register_command(...);
bool register_command(CommandSetup setup);
bool register_demo_step(int order, const std::string& title, DemoStep step);

// Prints a demo section heading.
void demo_heading(const std::string& title);

}  // namespace kvtool
