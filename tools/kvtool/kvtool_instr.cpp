// kvtool: instrument parameter files (check, tree, get, set, fmt) and the
// demo step that reads the built-in example file.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "SystemKvCore.h"
#include "kvos/drives.h"
#include "kvtool.h"

namespace {

// Header handling shared by the commands.
struct HeaderOption {
  std::string text = "Korvalis Data File";
  bool none = false;
  void add_to(CLI::App* command) {
    command->add_option("--header", text, "Expected and written first line")->capture_default_str();
    command->add_flag("--no-header", none, "The file has no header line");
  }
  void apply(InstrHandle& h) const { h.SetHeaderName(none ? nullptr : text.c_str()); }
};

// The library's DOS path for a host path; prints the problem and answers false when there is none.
bool to_dos(const std::string& command, const std::string& host, std::string& dos) {
  if (kvos::host_to_dos(host, dos)) return true;
  std::fprintf(stderr, "kvtool instr %s: %s: no drive maps this path\n", command.c_str(), host.c_str());
  return false;
}

// Reads FILE into h; on failure prints "FILE:LINE: message" to stderr.
bool read_file(InstrHandle& h, const std::string& shown, IHReadFlags flags) {
  if (h.Read(flags)) return true;
  const char* message = h.ErrStr();
  std::fprintf(stderr, "%s:%d: %s\n", shown.c_str(), h.CurLine(), message != nullptr ? message : "cannot be read");
  return false;
}

// Splits "Section/Sub/Tag" into its components; empty components are an error.
bool split_path(const std::string& text, std::vector<std::string>& parts) {
  parts.clear();
  size_t start = 0;
  for (;;) {
    const size_t slash = text.find('/', start);
    parts.push_back(text.substr(start, slash == std::string::npos ? std::string::npos : slash - start));
    if (parts.back().empty()) return false;
    if (slash == std::string::npos) return true;
    start = slash + 1;
  }
}

// Enters the section named by one path component from the start of the
// current section: "Name" is the first section of that name, "Name=Value" the
// first whose value is Value. With create, a missing section is added.
bool enter_section(InstrHandle& h, const std::string& component, bool create) {
  std::string name = component, value;
  const size_t eq = component.rfind('=');
  const bool byValue = eq != std::string::npos;
  if (byValue) {
    name = component.substr(0, eq);
    value = component.substr(eq + 1);
  }
  bool found = false;
  h.Seek(InstrTypeBOS);
  if (byValue) {
    found = h.FindSection(name.c_str(), value.c_str());
  } else {
    found = h.FirstSection(name.c_str());
  }
  if (!found) {
    if (!create) return false;
    h.Seek(InstrTypeEOS);
    h.AddSection(name.c_str(), byValue ? value.c_str() : nullptr);
  }
  return h.EnterSection();
}

// Prints the items of the tree, indented by depth.
void print_tree(InstrHandle& h, bool lines) {
  char* tag = nullptr;
  char* value = nullptr;
  int depth = 0;
  h.Seek(InstrTypeBOF);
  for (;;) {
    const InstrType t = h.NextItem(tag, value);
    if (t == InstrTypeEOF) break;
    if (t == InstrTypeEOS) {
      h.ExitSection();
      --depth;
      continue;
    }
    if (lines) std::printf("%5d  ", h.CurLine());
    std::printf("%*s", depth * 2, "");
    if (t == InstrTypeSection) {
      std::printf("%s/%s%s\n", tag, value[0] != '\0' ? " = " : "", value);
      h.EnterSection();
      ++depth;
    } else if (tag[0] == '\0') {
      std::printf("(bare) %s\n", value);
    } else {
      std::printf("%s = %s\n", tag, value);
    }
  }
}

// Opens FILE for a command: converts the path, applies the header option and
// reads it. mustExist: a missing file is an error.
bool open_file(const std::string& command, const std::string& file, const HeaderOption& header, bool mustExist,
               InstrHandle& h) {
  std::string dos;
  if (!to_dos(command, file, dos)) return false;
  h.Path(pathname(dos.c_str()));
  if (!h.Path().is_valid()) {
    std::fprintf(stderr, "kvtool instr %s: %s: not a valid path for the library\n", command.c_str(), file.c_str());
    return false;
  }
  header.apply(h);
  return read_file(h, file, mustExist ? IHReadMustExist : IHReadNone);
}

void setup_instr_command(CLI::App& app, int& exitCode) {
  CLI::App* instr = app.add_subcommand("instr", "Instrument parameter files");
  instr->require_subcommand(1);

  // check FILE...
  static std::vector<std::string> checkFiles;
  static HeaderOption checkHeader;
  CLI::App* check = instr->add_subcommand("check", "Parse files; report \"FILE:LINE: message\" for each bad one");
  check->add_option("files", checkFiles, "Files to check")->required();
  checkHeader.add_to(check);
  check->callback([&exitCode] {
    exitCode = 0;
    for (const std::string& file : checkFiles) {
      InstrHandle h;
      if (!open_file("check", file, checkHeader, true, h)) exitCode = 1;
    }
  });

  // tree FILE
  static std::string treeFile;
  static HeaderOption treeHeader;
  static bool treeLines = false;
  CLI::App* tree = instr->add_subcommand("tree", "Print the sections and records of a file");
  tree->add_option("file", treeFile, "File to print")->required();
  tree->add_flag("--lines", treeLines, "Show the line each item was read from");
  treeHeader.add_to(tree);
  tree->callback([&exitCode] {
    InstrHandle h;
    if (!open_file("tree", treeFile, treeHeader, true, h)) {
      exitCode = 1;
      return;
    }
    print_tree(h, treeLines);
    exitCode = 0;
  });

  // get FILE PATH
  static std::string getFile, getPath;
  static HeaderOption getHeader;
  CLI::App* get = instr->add_subcommand("get", "Print the value of Section/Sub/Tag (Name=Value selects a section by value)");
  get->add_option("file", getFile, "File to read")->required();
  get->add_option("path", getPath, "Section/Sub/Tag")->required();
  getHeader.add_to(get);
  get->callback([&exitCode] {
    exitCode = 1;
    std::vector<std::string> parts;
    if (!split_path(getPath, parts)) {
      std::fprintf(stderr, "kvtool instr get: \"%s\" has an empty component\n", getPath.c_str());
      return;
    }
    InstrHandle h;
    if (!open_file("get", getFile, getHeader, true, h)) return;
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
      if (!enter_section(h, parts[i], false)) {
        std::fprintf(stderr, "kvtool instr get: %s: no section %s\n", getFile.c_str(), parts[i].c_str());
        return;
      }
    }
    char* value = nullptr;
    if (!h.FirstStr(parts.back().c_str(), value)) {
      std::fprintf(stderr, "kvtool instr get: %s: no record %s\n", getFile.c_str(), getPath.c_str());
      return;
    }
    std::printf("%s\n", value);
    exitCode = 0;
  });

  // set FILE PATH VALUE
  static std::string setFile, setPath, setValue;
  static HeaderOption setHeader;
  CLI::App* set = instr->add_subcommand(
      "set", "Change or add Section/Sub/Tag and rewrite the file (comments and blank lines are not kept)");
  set->add_option("file", setFile, "File to change (created when missing)")->required();
  set->add_option("path", setPath, "Section/Sub/Tag; missing sections are added")->required();
  set->add_option("value", setValue, "The new value")->required();
  setHeader.add_to(set);
  set->callback([&exitCode] {
    exitCode = 1;
    std::vector<std::string> parts;
    if (!split_path(setPath, parts)) {
      std::fprintf(stderr, "kvtool instr set: \"%s\" has an empty component\n", setPath.c_str());
      return;
    }
    InstrHandle h;
    if (!open_file("set", setFile, setHeader, false, h)) return;
    for (size_t i = 0; i + 1 < parts.size(); ++i) enter_section(h, parts[i], true);
    h.SetStr(parts.back().c_str(), setValue.c_str());
    if (!h.Write()) {
      std::fprintf(stderr, "kvtool instr set: %s: cannot be written\n", setFile.c_str());
      return;
    }
    exitCode = 0;
  });

  // fmt FILE
  static std::string fmtFile;
  static HeaderOption fmtHeader;
  CLI::App* fmt = instr->add_subcommand(
      "fmt", "Rewrite a file in the canonical form (CR LF, TAB indents; comments and blank lines are not kept)");
  fmt->add_option("file", fmtFile, "File to rewrite")->required();
  fmtHeader.add_to(fmt);
  fmt->callback([&exitCode] {
    exitCode = 1;
    InstrHandle h;
    if (!open_file("fmt", fmtFile, fmtHeader, true, h)) return;
    if (!h.Write()) {
      std::fprintf(stderr, "kvtool instr fmt: %s: cannot be written\n", fmtFile.c_str());
      return;
    }
    exitCode = 0;
  });
}

// Reads the built-in example, shows part of it, edits a copy on disk and reads the copy back.
int demo_instrument_files() {
  TackHand example("example.ins");
  if (*example.TackOpen() == nullptr) {
    std::printf("  the built-in example.ins is missing\n");
    return 1;
  }
  std::printf("  built-in resource \"%s\": %zu bytes\n", example.Name(), example.Size());
  InstrHandle h;
  h.Buf(static_cast<char*>(*example));
  if (!h.Read(IHReadMustExist)) {
    std::printf("  cannot parse it: line %d: %s\n", h.CurLine(), h.ErrStr());
    return 1;
  }
  char* value = nullptr;
  if (!h.FirstSection("Scanner", value)) return 1;
  std::printf("  section Scanner = %s, read from line %d:\n", value, h.CurLine());
  h.EnterSection();
  char* tag = nullptr;
  for (InstrType t = h.NextItem(tag, value); t == InstrTypeRecord || t == InstrTypeSection; t = h.NextItem(tag, value))
    std::printf("    %s%s = %s\n", tag, t == InstrTypeSection ? "/" : "", value);
  h.Seek(InstrTypeBOS);
  if (!h.FindSection("Axis", "Y") || !h.EnterSection() || !h.FirstStr("Offset", value)) return 1;
  std::printf("  Scanner/Axis=Y/Offset = %s\n", value);

  std::error_code ec;
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path(ec) / ("kvtool-instr-" + std::to_string(std::random_device{}()));
  if (ec || !std::filesystem::create_directory(dir, ec)) {
    std::printf("  cannot create a temporary directory\n");
    return 1;
  }
  int result = 1;
  std::string dos;
  if (kvos::host_to_dos((dir / "copy.ins").string(), dos)) {
    h.ChangeStr("0.15 V");
    h.Path(pathname(dos.c_str()));
    if (h.Write()) {
      std::printf("  changed Offset to 0.15 V and wrote the copy %s\n", dos.c_str());
      InstrHandle back(dos.c_str());
      if (back.Read(IHReadMustExist) && back.FirstSection("Scanner") && back.EnterSection() &&
          back.FindSection("Axis", "Y") && back.EnterSection() && back.FirstStr("Offset", value)) {
        std::printf("  read back: Offset = %s (%s)\n", value,
                    std::string(value) == "0.15 V" ? "as written" : "DIFFERENT");
        result = std::string(value) == "0.15 V" ? 0 : 1;
      }
    }
  }
  std::filesystem::remove_all(dir, ec);
  return result;
}

[[maybe_unused]] const bool registered =
    kvtool::register_command(setup_instr_command) &&
    kvtool::register_demo_step(60, "Instrument files: the built-in example, edited on disk", demo_instrument_files);

}  // namespace
