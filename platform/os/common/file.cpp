// Unique temporary names and the search for the first file matching a pattern.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <vector>

#include "drive_system.h"
#include "file_system.h"
#include "kvos/drives.h"
#include "kvos/fault.h"
#include "kvos/file.h"
#include "kvos/time.h"
#include "kvtext/text.h"

namespace kvos {
namespace {

bool map(const std::string& dos, std::string& host) { return !dos.empty() && dos_to_host(dos, host); }

// "*" any run of characters, "?" exactly one; both texts already lower-case.
bool wild_match(const char* pattern, const char* name) {
  const char* star = nullptr;
  const char* resume = nullptr;
  while (*name != '\0') {
    if (*pattern == '*') {
      star = pattern++;
      resume = name;
    } else if (*pattern == '?' || *pattern == *name) {
      ++pattern;
      ++name;
    } else if (star != nullptr) {
      pattern = star + 1;
      name = ++resume;
    } else {
      return false;
    }
  }
  while (*pattern == '*') ++pattern;
  return *pattern == '\0';
}

std::string join_dos(const std::string& dir, const std::string& name) {
  if (dir.empty()) return name;
  const char last = dir.back();
  if (last == '\\' || last == '/' || (dir.size() == 2 && dir[1] == ':')) return dir + name;
  return dir + "\\" + name;
}

std::string join_host(const std::string& dir, const std::string& name) {
  return dir.back() == drive_system::kSeparator ? dir + name : dir + drive_system::kSeparator + name;
}

std::string temp_leaf(const std::string& prefix, unsigned unique) {
  char digits[8];
  std::snprintf(digits, sizeof digits, "%04X", unique & 0xFFFFu);
  return prefix.substr(0, 3) + digits + ".tmp";
}

// A start value for the search for a free temporary name, different between
// processes and between calls.
unsigned temp_start() {
  static std::atomic<unsigned> counter{0};
  const unsigned mixed = static_cast<unsigned>(perf_counter() / 1000) ^ (file_system::process_number() * 2654435761u) ^
                         counter.fetch_add(0x9E37u, std::memory_order_relaxed);
  return mixed & 0xFFFFu;
}

}  // namespace

bool file_temp_name(const std::string& dosDir, const std::string& prefix, unsigned unique, std::string& dosName) {
  const std::string dir = dosDir.empty() ? std::string(".") : dosDir;
  if (fault_check(FaultPoint::FileTempName)) return false;
  std::string hostDir;
  if (!map(dir, hostDir) || !file_system::is_directory(hostDir)) return false;
  if (unique != 0) {
    dosName = join_dos(dir, temp_leaf(prefix, unique));
    return true;
  }
  const unsigned start = temp_start();
  for (unsigned step = 0; step < 0x10000u; ++step) {
    const unsigned number = (start + step) & 0xFFFFu;
    if (number == 0) continue;
    const std::string leaf = temp_leaf(prefix, number);
    const int created = file_system::create_new(join_host(hostDir, leaf));
    if (created > 0) {
      dosName = join_dos(dir, leaf);
      return true;
    }
    if (created < 0) return false;
  }
  return false;
}

bool file_find_first(const std::string& dosPattern, FindData& found) {
  // The directory part keeps its separator ("c:\\dir\\"), or is "c:" for "c:*.txt".
  size_t cut = dosPattern.find_last_of("\\/");
  if (cut == std::string::npos && dosPattern.size() >= 2 && dosPattern[1] == ':') cut = 1;
  const std::string leaf = cut == std::string::npos ? dosPattern : dosPattern.substr(cut + 1);
  if (leaf.empty() || leaf == "." || leaf == "..") return false;
  const bool wild = leaf.find_first_of("*?") != std::string::npos;
  if (!wild) {
    std::string host;
    return map(dosPattern, host) && file_system::describe(host, found);
  }
  const std::string dosDir = cut == std::string::npos ? std::string(".") : dosPattern.substr(0, cut + 1);
  std::string hostDir;
  std::vector<std::string> all;
  if (!map(dosDir, hostDir) || !file_system::list_directory(hostDir, all)) return false;
  const std::string pattern = kvtext::ascii_lower(leaf);
  const bool any = pattern == "*.*" || pattern == "*";
  std::vector<std::pair<std::string, std::string>> names;  // (lower-case, as stored)
  for (const std::string& name : all) {
    std::string lowered = kvtext::ascii_lower(name);
    if (any || wild_match(pattern.c_str(), lowered.c_str())) names.emplace_back(std::move(lowered), name);
  }
  std::sort(names.begin(), names.end());
  for (const auto& name : names)
    if (file_system::describe(join_host(hostDir, name.second), found)) return true;  // else vanished meanwhile
  return false;
}

}  // namespace kvos
