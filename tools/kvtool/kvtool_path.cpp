// kvtool: path names, wildcard matches, path lists and the drive table; demo
// step 40.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "SystemKvCore.h"
#include "kvtool.h"
#include "kvtool_files.h"

namespace {

std::string or_none(const char* text) { return (text != nullptr && *text != '\0') ? text : "(none)"; }

std::string drive_text(int drive) {
  if (drive == 0) return "none (network path)";
  if (drive == '!') return "! (capture directory)";
  return std::string(1, static_cast<char>(drive)) + ":";
}

const char* type_name(int type) {
  switch (type) {
    case 2: return "removable";
    case 3: return "fixed";
    case 4: return "network";
    case 1: return "no root";
    default: return "unknown";
  }
}

// Prints what the library makes of one path text; true when it is valid.
bool show_path(const std::string& text) {
  const pathname p(text.c_str());
  std::printf("\"%s\"\n", text.c_str());
  std::printf("  directory  %s\n", or_none(*p.dir()).c_str());
  std::printf("  file       %s\n", or_none(*p.file()).c_str());
  std::printf("  path       %s\n", or_none(*p).c_str());
  std::printf("  valid      %s\n", p.is_valid() ? "yes" : "no");
  if (!p.is_valid()) return false;
  std::printf("  drive      %s\n", drive_text(p.drive()).c_str());
  std::string host;
  if (dos_to_host_path(*p, host))
    std::printf("  host       %s%s\n", host.c_str(), p.exists() ? "" : " (does not exist)");
  else
    std::printf("  host       (no host path: %s)\n", p.drive() == 0                     ? "no network root is set"
                                                : (p.drive() == '!' || p.drive() == '&') ? "a pseudo-drive"
                                                                                         : "the drive is not mapped");
  return true;
}

// Matches names against a pattern: a file name pattern, or a full path
// pattern when it holds a directory. Exit status 0 when any name matches.
int show_matches(const std::string& patternText, const std::vector<std::string>& names) {
  const bool withDirectory = patternText.find_first_of("\\:") != std::string::npos;
  const pathname pathPattern(withDirectory ? patternText.c_str() : nullptr);
  const filename namePattern(withDirectory ? nullptr : patternText.c_str());
  if (withDirectory ? !pathPattern : !namePattern) {
    std::fprintf(stderr, "kvtool path: \"%s\" is not a valid pattern\n", patternText.c_str());
    return 2;
  }
  std::printf("pattern \"%s\"%s\n", withDirectory ? *pathPattern : *namePattern,
              withDirectory ? " (directories compare exactly, names ignoring case)" : " (ignoring case)");
  bool any = false;
  for (const std::string& name : names) {
    bool matched = false;
    const char* why = "";
    if (withDirectory) {
      const pathname p(name.c_str());
      matched = p.match(pathPattern);
      if (!p) why = " (not a valid path)";
    } else {
      const filename f(name.c_str());
      matched = f.is_valid() && f.match(wild_match(namePattern));
      if (!f) why = " (not a valid name)";
    }
    any = any || matched;
    std::printf("  %-30s %s%s\n", name.c_str(), matched ? "matches" : "does not match", why);
  }
  return any ? 0 : 1;
}

// Builds a path list from a path (its directory and first name) and further
// names, and prints it with the paths a walk over it yields. Exit status 0
// when the list and every name are valid.
int show_list(const std::vector<std::string>& texts) {
  MultiPath list(texts.front().c_str());
  bool namesValid = true;
  std::printf("\"%s\"\n", texts.front().c_str());
  for (size_t i = 1; i < texts.size(); ++i) {
    const filename name(texts[i].c_str());
    if (!name) {
      std::printf("  \"%s\" is not a valid name\n", texts[i].c_str());
      namesValid = false;
      continue;
    }
    list.Add(name);
  }
  std::printf("  directory  %s\n", or_none(*list.dir()).c_str());
  std::printf("  names      %d\n", list.Count());
  MultiPathIter walk(list);
  for (int i = 0; ++walk; ++i) {
    const filename name = list.FileList().Get(i);
    std::printf("    %-20s %s\n", name ? *name : "(directory)", **walk);
  }
  std::printf("  wild       %s\n", list.is_wild() ? (list.Count() > 1 ? "yes (several names)" : "yes") : "no");
  std::printf("  valid      %s\n", list.is_valid() ? "yes" : "no");
  return list.is_valid() && namesValid ? 0 : 1;
}

int show_drives() {
  const int current = get_cur_drive();
  std::printf("%-6s %-10s %-30s %s\n", "drive", "type", "host root", "working directory");
  for (const DriveMapping& d : drive_list()) {
    std::printf("%c:     %-10s %-30s %s%s\n", d.letter, type_name(d.type), d.root.c_str(), *getcwd(d.letter),
                d.letter == current ? "  (current)" : "");
  }
  const std::string net = network_root();
  std::printf("network root: %s\n", net.empty() ? "(none: network paths have no host path)" : net.c_str());
  std::printf("!: capture directory %s\n", CWD::HasCaptureDirectory() ? *CWD::CaptureDir() : "(none set)");
  for (const std::string& problem : drive_config_problems()) std::printf("%s\n", problem.c_str());
  return 0;
}

void setup_path_commands(CLI::App& app, int& exitCode) {
  CLI::App* path = app.add_subcommand("path", "Parse DOS paths; with --match, match names against a wildcard pattern");
  auto texts = std::make_shared<std::vector<std::string>>();
  auto pattern = std::make_shared<std::string>();
  auto list = std::make_shared<bool>(false);
  CLI::Option* match =
      path->add_option("--match", *pattern, "Wildcard pattern (a name such as *.txt, or a full path c:\\data\\*.txt)");
  path->add_flag("--list", *list,
                 "Build a path list: the first text is a path (c:\\data\\*.txt), further texts add names")
      ->excludes(match);
  path->add_option("texts", *texts, "Paths to parse, or names to match")->required();
  path->footer(
      "Exit status: for paths, 0 when every path is valid, 1 otherwise; with --match, 0 when any\n"
      "name matches, 1 when none does, 2 for an invalid pattern; with --list, 0 when the list has a\n"
      "valid directory and at least one name and every name given is valid, 1 otherwise.");
  path->callback([texts, pattern, list, &exitCode] {
    // Texts the library would cut are refused before anything is shown.
    const bool withDirectory = pattern->find_first_of("\\:") != std::string::npos;
    bool refused = false;
    auto check = [&refused](const std::string& text, bool nameOnly) {
      const std::string reason = kvtool::path_cut_reason(text, nameOnly);
      if (!reason.empty()) std::fprintf(stderr, "kvtool path: \"%s\" %s\n", text.c_str(), reason.c_str());
      refused = refused || !reason.empty();
    };
    if (!pattern->empty()) check(*pattern, !withDirectory);
    if (refused) {
      exitCode = 2;
      return;
    }
    for (size_t i = 0; i < texts->size(); ++i)
      check((*texts)[i], *list ? i > 0 : !pattern->empty() && !withDirectory);
    if (refused) {
      exitCode = 1;
      return;
    }
    if (*list) {
      exitCode = show_list(*texts);
      return;
    }
    if (!pattern->empty()) {
      exitCode = show_matches(*pattern, *texts);
      return;
    }
    bool allValid = true;
    for (const std::string& text : *texts) allValid = show_path(text) && allValid;
    exitCode = allValid ? 0 : 1;
  });

  CLI::App* drives = app.add_subcommand("drives", "List the drive table: DOS drives on host directories");
  drives->callback([&exitCode] { exitCode = show_drives(); });
}

int demo_paths() {
  for (const char* text : {"C:\\Data\\..\\Logs\\.", "  c:\\Reports\\2024\\Summary.TXT  ", "c:\\a\\\\b",
                           "c:\\tmp\\com1.txt", "\\\\server\\share\\f.txt"}) {
    const pathname p(text);
    if (p.is_valid())
      std::printf("  %-36s -> %s  (directory %s, file %s)\n", (std::string("\"") + text + "\"").c_str(), *p,
                  *p.dir(), or_none(*p.file()).c_str());
    else
      std::printf("  %-36s -> invalid\n", (std::string("\"") + text + "\"").c_str());
  }

  // A temporary directory mapped as a drive, holding a file written with another case.
  int letter = 0;
  for (int c = 'k'; c <= 'z' && letter == 0; ++c)
    if (!drive_exists(c)) letter = c;
  if (letter == 0) {
    std::printf("  no free drive letter\n");
    return 1;
  }
  std::error_code ec;
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path(ec) / ("kvtool-demo-" + std::to_string(std::random_device{}()));
  if (ec || !std::filesystem::create_directory(dir, ec)) {
    std::printf("  cannot create a temporary directory\n");
    return 1;
  }
  int status = 1;
  if (drive_map(letter, dir.string().c_str())) {
    std::ofstream(dir / "Report.TXT") << "demo\n";
    const std::string dos = std::string(1, static_cast<char>(letter)) + ":\\report.txt";
    const pathname p(dos.c_str());
    std::string host;
    dos_to_host_path(*p, host);
    std::printf("  mapped %c: to %s\n", letter, dir.string().c_str());
    const bool found = p.exists();
    std::printf("  %s exists: %s (host file %s)\n", *p, found ? "yes" : "no", host.c_str());
    const pathname pattern((std::string(1, static_cast<char>(letter)) + ":\\*.txt").c_str());
    const pathname logs((std::string(1, static_cast<char>(letter)) + ":\\*.log").c_str());
    std::printf("  %s matches %s: %s; %s: %s\n", *p, *pattern, p.match(pattern) ? "yes" : "no", *logs,
                p.match(logs) ? "yes" : "no");
    MultiPath selection(pattern);
    selection.Add("notes.log");
    const bool listed = selection.match(p);
    std::printf("  path list %s + %s (%d names) holds %s: %s\n", *pattern, *selection.FileList().Get(1),
                selection.Count(), *p, listed ? "yes" : "no");
    pathname backup(pattern);
    backup.postfix("bak");
    backup.wild_fill(p.file());
    std::printf("  *.bak filled from %s: %s\n", *p.file(), *backup);
    drive_unmap(letter);
    std::printf("  unmapped %c:; %s now exists: %s\n", letter, *p, p.exists() ? "yes" : "no");
    status = found && p.match(pattern) && !p.match(logs) && listed ? 0 : 1;
  }
  std::filesystem::remove_all(dir, ec);
  return status;
}

[[maybe_unused]] const bool registered =
    kvtool::register_command(setup_path_commands) && kvtool::register_demo_step(40, "Paths and drives", demo_paths);

}  // namespace
