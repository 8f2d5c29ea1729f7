// kvtool: map files for stack dumps (`kvtool mapfile`), the offline
// translation of dump.tab (`kvtool stack translate`) and the stack dump demo step.
#include <CLI/CLI.hpp>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

#include "SystemKvCore.h"
#include "kvtool.h"
#include "kvtool_image.h"

namespace {

bool is_hex(const std::string& text, size_t from, size_t count) {
  if (text.size() < from + count) return false;
  for (size_t i = from; i < from + count; ++i)
    if (!std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
  return true;
}

// A frame line of a raw dump: "0012FF34 @00401234".
bool is_raw_frame_line(const std::string& line) {
  return line.size() == 18 && is_hex(line, 0, 8) && line[8] == ' ' && line[9] == '@' && is_hex(line, 10, 8);
}

// The named form of a raw frame line: "0012FF34 name+1C (file.cpp:42)", or
// the line without its "@" when no function holds the address.
std::string translate_frame(kvtool::ExecutableImage& image, const std::string& line) {
  const uint64_t address = std::stoull(line.substr(10), nullptr, 16);
  const kvtool::ImageFunction* function = image.function_at(address);
  if (function == nullptr) return line.substr(0, 9) + line.substr(10);
  std::string named = line.substr(0, 9) + kvtool::demangle(function->name);
  char offset[24];
  if (address != function->address) {
    std::snprintf(offset, sizeof offset, "+%llX", static_cast<unsigned long long>(address - function->address));
    named += offset;
  }
  // The call lies just before the return address.
  std::string file;
  int number = 0;
  if (image.source_line(address - 1, file, number)) named += " (" + file + ":" + std::to_string(number) + ")";
  return named;
}

int write_map_file(const std::string& exe, std::string output) {
  kvtool::ExecutableImage image;
  std::string error;
  if (!image.open(exe, error)) {
    std::fprintf(stderr, "kvtool mapfile: %s\n", error.c_str());
    return 1;
  }
  if (image.position_independent())
    std::fprintf(stderr,
                 "kvtool mapfile: warning: %s is position independent; link it with -no-pie for named dumps\n",
                 exe.c_str());
  if (output.empty()) output = std::filesystem::path(exe).replace_extension(".map").string();
  const std::string text = kvtool::map_text(image, std::filesystem::path(exe).filename().string());
  std::ofstream out(output, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  if (!out) {
    std::fprintf(stderr, "kvtool mapfile: cannot write %s\n", output.c_str());
    return 1;
  }
  return 0;
}

int translate_dump(const std::string& dump, const std::string& exe) {
  kvtool::ExecutableImage image;
  std::string error;
  if (!image.open(exe, error)) {
    std::fprintf(stderr, "kvtool stack translate: %s\n", error.c_str());
    return 1;
  }
  if (image.position_independent()) {
    std::fprintf(stderr,
                 "kvtool stack translate: %s is position independent: the addresses of its dumps cannot be "
                 "named (link it with -no-pie)\n",
                 exe.c_str());
    return 1;
  }
  std::ifstream in(dump, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "kvtool stack translate: cannot read %s\n", dump.c_str());
    return 1;
  }
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::string shown = is_raw_frame_line(line) ? translate_frame(image, line) : line;
    std::printf("%s\n", shown.c_str());
  }
  return 0;
}

void setup_stack_commands(CLI::App& app, int& exitCode) {
  CLI::App* mapfile = app.add_subcommand("mapfile", "Write the map file of an executable for named stack dumps");
  static std::string exe, output, dump, translateExe;
  mapfile->add_option("EXE", exe, "The executable (host path)")->required();
  mapfile->add_option("-o,--output", output, "The map file (default: EXE with the extension .map)");
  mapfile->callback([&exitCode] { exitCode = write_map_file(exe, output); });

  CLI::App* stack = app.add_subcommand("stack", "Stack dumps");
  stack->require_subcommand(1);
  CLI::App* translate = stack->add_subcommand("translate", "Name the raw frames of a dump.tab from an executable");
  translate->add_option("DUMP", dump, "The dump.tab file (host path)")->required();
  translate->add_option("--exe", translateExe, "The executable the dump was taken of")->required();
  translate->callback([&exitCode] { exitCode = translate_dump(dump, translateExe); });
}

const bool registered = kvtool::register_command(setup_stack_commands);

}  // namespace

// The demo's call chain; plain names, so that the map shows them as written.
extern "C" {
__attribute__((noinline)) void kvtool_stack_anchor() { asm volatile(""); }

__attribute__((noinline)) void kvtool_stack_demo_inner(const char* failure, std::string* report) {
  *report = CStackWriter::GetStackInformation(failure);
  asm volatile("" ::: "memory");  // keeps the call from becoming a jump
}

__attribute__((noinline)) void kvtool_stack_demo_outer(const char* failure, std::string* report) {
  kvtool_stack_demo_inner(failure, report);
  asm volatile("" ::: "memory");
}
}

namespace {

// The host path of this program, as the library's start-up records it (at
// once when it has already run).
std::string executable_host_path() {
  SysManager::Initialize();
  std::string host;
  return dos_to_host_path(SysManager::ExeFilePath.c_str(), host) ? host : std::string();
}

int demo_stack_dump() {
  std::error_code ignored;
  const std::filesystem::path directory =
      std::filesystem::temp_directory_path() / ("kvtool-stack-" + std::to_string(timer_us_large_int() % 1000000u));
  std::filesystem::create_directories(directory, ignored);
  std::string dosDirectory;
  kvtool::ExecutableImage image;
  std::string error;
  if (!host_to_dos_path(directory.string().c_str(), dosDirectory) || !image.open(executable_host_path(), error)) {
    std::printf("  no map file: %s\n", error.empty() ? "no temporary directory on a mapped drive" : error.c_str());
    return 1;
  }
  std::ofstream(directory / "kvtool.map", std::ios::binary) << kvtool::map_text(image, "kvtool");
  std::printf("  map file of kvtool: %zu functions, %s\n", image.functions().size(),
              image.position_independent() ? "position independent (frames stay unnamed)" : "linked at fixed addresses");

  CStackWriter::InjectMapFilePath(dosDirectory + "\\kvtool.map");
  CStackWriter::InjectSymbolOffset("kvtool_stack_anchor", reinterpret_cast<int64_t>(&kvtool_stack_anchor));
  CStackWriter::SetDumpDotTabPath(dosDirectory);
  std::string report;
  kvtool_stack_demo_outer("kvtool demo: a simulated failure", &report);
  CStackWriter::InjectMapFilePath("");
  CStackWriter::InjectSymbolOffset("", 0);
  CStackWriter::SetDumpDotTabPath("");

  std::printf("  CStackWriter::GetStackInformation, appended to %s\\dump.tab:\n", dosDirectory.c_str());
  std::istringstream lines(report);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::printf("    | %s\n", line.c_str());
  }
  const size_t inner = report.find("kvtool_stack_demo_inner+");
  const size_t outer = report.find("kvtool_stack_demo_outer+");
  std::filesystem::remove_all(directory, ignored);
  return inner != std::string::npos && outer != std::string::npos && inner < outer ? 0 : 1;
}

const bool demoRegistered = kvtool::register_demo_step(80, "Stack dump", demo_stack_dump);

}  // namespace
