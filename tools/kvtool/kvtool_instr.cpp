// kvtool: instrument parameter files (check, tree, get, set, fmt) and the
// demo step that reads the built-in example file. Files are read whole by
// kvtool and parsed by the library from memory; a rewritten file is read back
// before it replaces the old one, so that nothing in it is lost or changed.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "SystemKvCore.h"
#include "kvtext/text.h"
#include "kvtool.h"
#include "kvtool_files.h"

namespace {

const char* const kSource = "kvtool/instr";

// The deepest nesting of sections that tree, set and fmt handle: the text of
// a deeper document grows with the square of its depth.
constexpr int kDepthLimit = 1000;

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

// One item of a walk over a document.
struct Item {
  InstrType type = InstrTypeEOF;  // InstrTypeSection or InstrTypeRecord
  const char* tag = "";
  const char* value = "";
  int depth = 0;  // 0 on the top level
  int line = 0;
};

// Walks the items of a document in file order, entering every section.
class Walk {
 public:
  explicit Walk(InstrHandle& h) : h_(h) { h_.Seek(InstrTypeBOF); }
  bool next(Item& item) {
    if (enter_) {
      h_.EnterSection();
      ++depth_;
      enter_ = false;
    }
    char* tag = nullptr;
    char* value = nullptr;
    for (;;) {
      const InstrType t = h_.NextItem(tag, value);
      if (t == InstrTypeEOF) return false;
      if (t == InstrTypeEOS) {
        h_.ExitSection();
        --depth_;
        continue;
      }
      item = {t, tag, value, depth_, h_.CurLine()};
      enter_ = t == InstrTypeSection;
      return true;
    }
  }

 private:
  InstrHandle& h_;
  int depth_ = 0;
  bool enter_ = false;
};

int depth_of(InstrHandle& h) {
  Walk walk(h);
  Item item;
  int deepest = 0;
  while (walk.next(item))
    if (item.type == InstrTypeSection) deepest = std::max(deepest, item.depth + 1);
  return deepest;
}

bool same_item(const Item& a, const Item& b) {
  return a.type == b.type && a.depth == b.depth && std::strcmp(a.tag, b.tag) == 0 && std::strcmp(a.value, b.value) == 0;
}

// Whether two documents hold the same items; otherwise `first` is the first
// item of a that differs (or b's surplus item).
bool same_document(InstrHandle& a, InstrHandle& b, Item& first) {
  Walk left(a), right(b);
  Item x, y;
  for (;;) {
    const bool more = left.next(x);
    const bool moreRight = right.next(y);
    if (!more && !moreRight) return true;
    if (more != moreRight || !same_item(x, y)) {
      first = more ? x : y;
      return false;
    }
  }
}

// Parses text with the library (which reads it from a block of its heaps).
bool parse(InstrHandle& h, const std::string& text) {
  if (mainheap == nullptr) heapman_mgr::initialize();
  char* block = new (mainheap, kSource, __LINE__) char[text.empty() ? 1 : text.size()];
  block[0] = '\0';
  std::memcpy(block, text.data(), text.size());
  h.Buf(block);
  const bool ok = h.Read(IHReadNone);
  h.Buf(nullptr);
  KvOperatorDelete(block);
  return ok;
}

// Opens, reads and parses a user's file for a command; on failure prints why.
bool load(kvtool::UserFile& file, InstrHandle& h, const HeaderOption& header, bool forWriting, bool mayBeMissing,
          bool force, bool limitDepth) {
  std::string text;
  if (!file.open(forWriting, mayBeMissing, force) || !file.read(text)) return false;
  header.apply(h);
  if (text.empty() && mayBeMissing) return true;  // a new file starts as an empty document
  file.progress("parsing");
  if (!parse(h, text)) {
    file.progress_done();
    const char* message = h.ErrStr();
    std::fprintf(stderr, "%s:%d: %s\n", file.shown().c_str(), h.CurLine(),
                 message != nullptr ? message : "cannot be read");
    return false;
  }
  if (limitDepth) {
    const int depth = depth_of(h);
    if (depth > kDepthLimit)
      return file.fail("sections are nested " + std::to_string(depth) + " levels deep; kvtool handles at most " +
                       std::to_string(kDepthLimit));
  }
  file.progress_done();
  return true;
}

// Replaces the file with the document's text once that text has been read
// back to the same document; otherwise says which item would change.
bool rewrite(kvtool::UserFile& file, InstrHandle& h, const HeaderOption& header) {
  file.progress("checking");
  if (!h.Write() || h.Buf() == nullptr) return file.fail("the document cannot be written out");
  const std::string text = h.Buf();
  InstrHandle back;
  header.apply(back);
  Item first;
  if (!parse(back, text) || !same_document(h, back, first)) {
    std::string where = first.line > 0 ? "line " + std::to_string(first.line) + ", " : "";
    std::string what = first.type == InstrTypeSection ? "section" : "record";
    return file.fail(where + what + " \"" + first.tag + (first.value[0] != '\0' ? " = " : "") + first.value +
                     "\" would not read back the same from the rewritten file; the file is left as it is");
  }
  return file.replace(text);
}

// Why a section name or tag cannot be written so that it reads back the
// same; empty when it can.
std::string name_problem(const std::string& name, bool section) {
  if (name.find_first_of("\r\n") != std::string::npos) return "holds a line end";
  if (kvtext::is_ascii_ws(name.front()) || kvtext::is_ascii_ws(name.back()))
    return "begins or ends with white space, which the file does not keep";
  if (name[0] == '#') return "begins with \"#\" and would read back as a comment";
  if (name[0] == '{' || name[0] == '}') return "begins with a brace";
  if (name.find('=') != std::string::npos) return "holds \"=\"";
  if (section && name.size() > kvtool::kNameLimit)
    return "is " + std::to_string(name.size()) + " characters long; a section name holds at most " +
           std::to_string(kvtool::kNameLimit);
  return {};
}

std::string value_problem(const std::string& value) {
  if (value.find_first_of("\r\n") != std::string::npos) return "holds a line end";
  if (!value.empty() && (kvtext::is_ascii_ws(value.front()) || kvtext::is_ascii_ws(value.back())))
    return "begins or ends with white space, which the file does not keep";
  if (value.find('=') != std::string::npos) return "holds \"=\", where the line would be split when read back";
  return {};
}

// Splits "Section/Sub/Tag" into its components; empty components are an error.
bool split_path(const std::string& text, std::vector<std::string>& parts) {
  parts = kvtext::split(text, "/");
  return std::none_of(parts.begin(), parts.end(), [](const std::string& part) { return part.empty(); });
}

// "Name=Value" selects a section by its value.
void split_component(const std::string& component, std::string& name, std::string& value, bool& byValue) {
  const size_t eq = component.rfind('=');
  byValue = eq != std::string::npos;
  name = byValue ? component.substr(0, eq) : component;
  value = byValue ? component.substr(eq + 1) : std::string();
}

// The first problem of a set's path and value, as a message; empty when none.
std::string set_problem(const std::vector<std::string>& parts, const std::string& value) {
  for (size_t i = 0; i < parts.size(); ++i) {
    std::string name = parts[i], sectionValue;
    bool byValue = false;
    const bool section = i + 1 < parts.size();
    if (section) split_component(parts[i], name, sectionValue, byValue);
    if (name.empty()) return "section \"" + parts[i] + "\" has no name";
    std::string problem = name_problem(name, section);
    if (!problem.empty()) return (section ? "section name \"" : "tag \"") + name + "\" " + problem;
    problem = byValue ? value_problem(sectionValue) : "";
    if (!problem.empty()) return "section value \"" + sectionValue + "\" " + problem;
  }
  const std::string problem = value_problem(value);
  return problem.empty() ? "" : "value \"" + value + "\" " + problem;
}

// Enters the section named by one path component from the start of the
// current section: "Name" is the first section of that name, "Name=Value" the
// first whose value is Value. With create, a missing section is added.
bool enter_section(InstrHandle& h, const std::string& component, bool create) {
  std::string name, value;
  bool byValue = false;
  split_component(component, name, value, byValue);
  h.Seek(InstrTypeBOS);
  const bool found = byValue ? h.FindSection(name.c_str(), value.c_str()) : h.FirstSection(name.c_str());
  if (!found) {
    if (!create) return false;
    h.Seek(InstrTypeEOS);
    h.AddSection(name.c_str(), byValue ? value.c_str() : nullptr);
  }
  return h.EnterSection();
}

// Prints the items of the tree, indented by depth.
void print_tree(InstrHandle& h, bool lines) {
  Walk walk(h);
  Item item;
  while (walk.next(item)) {
    if (lines) std::printf("%5d  ", item.line);
    std::printf("%*s", item.depth * 2, "");
    if (item.type == InstrTypeSection)
      std::printf("%s/%s%s\n", item.tag, item.value[0] != '\0' ? " = " : "", item.value);
    else if (item.tag[0] == '\0')
      std::printf("(bare) %s\n", item.value);
    else
      std::printf("%s = %s\n", item.tag, item.value);
  }
}

const char* const kDepthNote = "Documents whose sections are nested deeper than 1000 levels are refused.";
const char* const kLimits =
    "FILE arguments are host paths. A rewritten file is read back first and is left as it is unless it\n"
    "reads back the same; symbolic links are written through, anything but a regular file is refused.\n"
    "Sections nested deeper than 1000 levels are refused by tree, set and fmt.\n"
    "Exit status: 0 on success, 1 on a failure (a bad file, a refused change), 2 on a usage error.";

void setup_instr_command(CLI::App& app, int& exitCode) {
  CLI::App* instr = app.add_subcommand("instr", "Instrument parameter files");
  instr->require_subcommand(1);
  instr->footer(kLimits);

  // check FILE...
  static std::vector<std::string> checkFiles;
  static HeaderOption checkHeader;
  CLI::App* check = instr->add_subcommand("check", "Parse files; report \"FILE:LINE: message\" for each bad one");
  check->add_option("files", checkFiles, "Files to check")->required();
  checkHeader.add_to(check);
  check->callback([&exitCode] {
    exitCode = 0;
    for (const std::string& name : checkFiles) {
      kvtool::UserFile file("kvtool instr check", name);
      InstrHandle h;
      if (!load(file, h, checkHeader, false, false, false, false)) exitCode = 1;
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
  tree->footer(kDepthNote);
  tree->callback([&exitCode] {
    exitCode = 1;
    kvtool::UserFile file("kvtool instr tree", treeFile);
    InstrHandle h;
    if (!load(file, h, treeHeader, false, false, false, true)) return;
    print_tree(h, treeLines);
    exitCode = 0;
  });

  // get FILE PATH
  static std::string getFile, getPath;
  static HeaderOption getHeader;
  CLI::App* get =
      instr->add_subcommand("get", "Print the value of Section/Sub/Tag (Name=Value selects a section by value)");
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
    kvtool::UserFile file("kvtool instr get", getFile);
    InstrHandle h;
    if (!load(file, h, getHeader, false, false, false, false)) return;
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
  static bool setForce = false;
  CLI::App* set = instr->add_subcommand(
      "set", "Change or add Section/Sub/Tag and rewrite the file (comments and blank lines are not kept)");
  set->add_option("file", setFile, "File to change (created when missing)")->required();
  set->add_option("path", setPath, "Section/Sub/Tag; missing sections are added")->required();
  set->add_option("value", setValue, "The new value")->required();
  set->add_flag("--force", setForce, "Replace a read-only file too");
  setHeader.add_to(set);
  set->footer(std::string("A value that begins with \"-\" goes after \"--\": kvtool instr set FILE Axis/Offset -- -0.5\n") +
              kDepthNote);
  set->callback([&exitCode] {
    exitCode = 1;
    std::vector<std::string> parts;
    if (!split_path(setPath, parts)) {
      std::fprintf(stderr, "kvtool instr set: \"%s\" has an empty component\n", setPath.c_str());
      return;
    }
    const std::string problem = set_problem(parts, setValue);
    if (!problem.empty()) {
      std::fprintf(stderr, "kvtool instr set: %s; nothing was written\n", problem.c_str());
      return;
    }
    kvtool::UserFile file("kvtool instr set", setFile);
    InstrHandle h;
    if (!load(file, h, setHeader, true, true, setForce, true)) return;
    for (size_t i = 0; i + 1 < parts.size(); ++i) enter_section(h, parts[i], true);
    h.SetStr(parts.back().c_str(), setValue.c_str());
    if (rewrite(file, h, setHeader)) exitCode = 0;
  });

  // fmt FILE
  static std::string fmtFile;
  static HeaderOption fmtHeader;
  static bool fmtForce = false;
  CLI::App* fmt = instr->add_subcommand(
      "fmt", "Rewrite a file in the canonical form (CR LF, TAB indents; comments and blank lines are not kept)");
  fmt->add_option("file", fmtFile, "File to rewrite")->required();
  fmt->add_flag("--force", fmtForce, "Replace a read-only file too");
  fmtHeader.add_to(fmt);
  fmt->footer(kDepthNote);
  fmt->callback([&exitCode] {
    exitCode = 1;
    kvtool::UserFile file("kvtool instr fmt", fmtFile);
    InstrHandle h;
    if (load(file, h, fmtHeader, true, false, fmtForce, true) && rewrite(file, h, fmtHeader)) exitCode = 0;
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
  if (host_to_dos_path((dir / "copy.ins").string().c_str(), dos)) {
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
