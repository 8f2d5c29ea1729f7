// The drive table on Linux.
#include "kvos/drives.h"

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>

namespace kvos {
namespace {

constexpr int kLetters = 26;

int slot_of(int letter) {
  const int c = std::tolower(static_cast<unsigned char>(letter));
  return (c >= 'a' && c <= 'z') ? c - 'a' : -1;
}

std::vector<std::string> split(const std::string& text, const char* separators) {
  std::vector<std::string> parts;
  std::string part;
  for (char ch : text) {
    if (std::strchr(separators, ch) != nullptr) {
      parts.push_back(part);
      part.clear();
    } else {
      part += ch;
    }
  }
  parts.push_back(part);
  return parts;
}

// Removes empty and "." components and applies ".." without climbing above the start.
std::vector<std::string> normalise(const std::vector<std::string>& parts) {
  std::vector<std::string> out;
  for (const std::string& p : parts) {
    if (p.empty() || p == ".") continue;
    if (p == "..") {
      if (!out.empty()) out.pop_back();
      continue;
    }
    out.push_back(p);
  }
  return out;
}

std::string join_host(const std::string& root, const std::vector<std::string>& parts) {
  std::string out = root;
  for (const std::string& p : parts) {
    if (out.empty() || out.back() != '/') out += '/';
    out += p;
  }
  return out.empty() ? "/" : out;
}

// The host root as stored: absolute, normalised, no trailing "/" except for "/" itself.
bool clean_root(const std::string& root, std::string& out) {
  if (root.empty() || root[0] != '/') return false;
  out = join_host("", normalise(split(root, "/")));
  return true;
}

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// The entry of dir whose name equals name ignoring case; name itself when none.
std::string match_case(const std::string& dir, const std::string& name) {
  DIR* d = opendir(dir.empty() ? "." : dir.c_str());
  if (d == nullptr) return name;
  std::string found = name;
  while (dirent* e = readdir(d)) {
    if (strcasecmp(e->d_name, name.c_str()) == 0) {
      found = e->d_name;
      break;
    }
  }
  closedir(d);
  return found;
}

// Appends components to base, falling back to a case-insensitive match for
// each component that does not exist as written.
std::string resolve(const std::string& base, const std::vector<std::string>& parts, bool relative) {
  std::string path = base;
  bool parentExists = true;
  for (const std::string& p : parts) {
    std::string dir = path;
    std::string candidate = dir.empty() ? p : (dir.back() == '/' ? dir + p : dir + "/" + p);
    if (parentExists && !exists(candidate) && p != "." && p != "..") {
      const std::string real = match_case(dir.empty() && relative ? "." : dir, p);
      candidate = dir.empty() ? real : (dir.back() == '/' ? dir + real : dir + "/" + real);
    }
    parentExists = parentExists && exists(candidate);
    path = candidate;
  }
  if (path.empty()) path = relative ? "." : "/";
  return path;
}

std::string host_cwd() {
  char buffer[PATH_MAX];
  if (getcwd(buffer, sizeof buffer) == nullptr) return std::string();
  return buffer;
}

class DriveTable {
 public:
  DriveTable() {
    roots_[slot_of('c')] = "/";
    if (const char* text = std::getenv("KVCORE_DRIVES")) load_from_environment(text);
    if (const char* net = std::getenv("KVCORE_NETWORK_ROOT")) {
      std::string cleaned;
      if (clean_root(net, cleaned)) networkRoot_ = cleaned;
    }
  }

  bool map(int letter, const std::string& root) {
    const int slot = slot_of(letter);
    std::string cleaned;
    if (slot < 0 || !clean_root(root, cleaned)) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    roots_[slot] = cleaned;
    cwds_[slot].clear();
    return true;
  }

  bool unmap(int letter) {
    const int slot = slot_of(letter);
    if (slot < 0) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    const bool was = !roots_[slot].empty();
    roots_[slot].clear();
    cwds_[slot].clear();
    return was;
  }

  std::string root(int letter) {
    const int slot = slot_of(letter);
    if (slot < 0) return std::string();
    std::lock_guard<std::mutex> lock(mutex_);
    return roots_[slot];
  }

  std::vector<std::pair<char, std::string>> list() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::pair<char, std::string>> out;
    for (int i = 0; i < kLetters; ++i)
      if (!roots_[i].empty()) out.emplace_back(static_cast<char>('a' + i), roots_[i]);
    return out;
  }

  void set_network_root(const std::string& dir) {
    std::string cleaned;
    std::lock_guard<std::mutex> lock(mutex_);
    networkRoot_ = clean_root(dir, cleaned) ? cleaned : std::string();
  }

  std::string network() {
    std::lock_guard<std::mutex> lock(mutex_);
    return networkRoot_;
  }

  // Drive holding a normalised absolute host path: the longest matching root.
  int drive_of(const std::string& hostAbs, std::string* rest) {
    std::lock_guard<std::mutex> lock(mutex_);
    int best = -1;
    size_t bestLen = 0;
    for (int i = 0; i < kLetters; ++i) {
      const std::string& r = roots_[i];
      if (r.empty() || !is_below(hostAbs, r)) continue;
      if (best < 0 || r.size() > bestLen) {
        best = i;
        bestLen = r.size();
      }
    }
    if (best < 0) return 0;
    if (rest != nullptr) *rest = remainder(hostAbs, roots_[best]);
    return 'a' + best;
  }

  // Remembered working directory of a drive that is not current.
  std::string remembered(int letter) {
    const int slot = slot_of(letter);
    std::lock_guard<std::mutex> lock(mutex_);
    return slot < 0 ? std::string() : cwds_[slot];
  }

  void remember(int letter, const std::string& dos) {
    const int slot = slot_of(letter);
    if (slot < 0) return;
    std::lock_guard<std::mutex> lock(mutex_);
    cwds_[slot] = dos;
  }

  static bool is_below(const std::string& path, const std::string& root) {
    if (root == "/") return !path.empty() && path[0] == '/';
    return path.compare(0, root.size(), root) == 0 &&
           (path.size() == root.size() || path[root.size()] == '/');
  }

  static std::string remainder(const std::string& path, const std::string& root) {
    if (root == "/") return path.substr(1);
    return path.size() > root.size() ? path.substr(root.size() + 1) : std::string();
  }

 private:
  void load_from_environment(const char* text) {
    for (const std::string& entry : split(text, ";")) {
      if (entry.empty()) continue;
      const size_t eq = entry.find('=');
      std::string cleaned;
      const int slot = eq == 1 ? slot_of(entry[0]) : -1;
      if (slot < 0 || !clean_root(entry.substr(eq + 1), cleaned)) {
        std::fprintf(stderr, "KVCORE_DRIVES: ignoring \"%s\" (expected LETTER=/absolute/path)\n",
                     entry.c_str());
        continue;
      }
      roots_[slot] = cleaned;
    }
  }

  std::mutex mutex_;
  std::array<std::string, kLetters> roots_;
  std::array<std::string, kLetters> cwds_;
  std::string networkRoot_;
};

// Never destroyed, so that paths can still be mapped during static destruction.
DriveTable& table() {
  static DriveTable* instance = new DriveTable();
  return *instance;
}

// Loads the table (and KVCORE_DRIVES) when the library is loaded.
__attribute__((constructor)) void load_drive_table() { (void)table(); }

std::string dos_join(int letter, const std::vector<std::string>& parts) {
  std::string out(1, static_cast<char>(letter));
  out += ":\\";
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) out += '\\';
    out += parts[i];
  }
  return out;
}

bool is_drive_form(const std::string& dos) {
  return dos.size() >= 2 && dos[1] == ':' && std::isalpha(static_cast<unsigned char>(dos[0]));
}

bool is_separator(char c) { return c == '\\' || c == '/'; }

// Host directory of a drive's working directory, as DOS components below its root.
bool drive_cwd_parts(int letter, std::vector<std::string>& parts) {
  std::string dos;
  if (!drive_getcwd(letter, dos)) return false;
  parts = normalise(split(dos.substr(3), "\\"));
  return true;
}

}  // namespace

bool drive_map(int letter, const std::string& hostRoot) { return table().map(letter, hostRoot); }
bool drive_unmap(int letter) { return table().unmap(letter); }
std::string drive_root(int letter) { return table().root(letter); }
std::vector<std::pair<char, std::string>> drive_list() { return table().list(); }
void network_root_set(const std::string& hostDir) { table().set_network_root(hostDir); }
std::string network_root() { return table().network(); }

bool dos_to_host(const std::string& dos, std::string& host) {
  if (dos.empty()) return false;
  if (dos.size() >= 2 && is_separator(dos[0]) && is_separator(dos[1])) {
    const std::string net = network_root();
    if (net.empty()) return false;
    const std::vector<std::string> parts = normalise(split(dos.substr(2), "\\/"));
    if (parts.empty()) return false;
    host = resolve(net, parts, false);
    return true;
  }
  if (is_drive_form(dos)) {
    const int letter = std::tolower(static_cast<unsigned char>(dos[0]));
    const std::string root = drive_root(letter);
    if (root.empty()) return false;
    std::vector<std::string> parts;
    std::string rest = dos.substr(2);
    if (rest.empty() || !is_separator(rest[0])) {
      if (!drive_cwd_parts(letter, parts)) return false;
    }
    for (const std::string& p : split(rest, "\\/")) parts.push_back(p);
    host = resolve(root, normalise(parts), false);
    return true;
  }
  if (is_separator(dos[0])) {
    const int letter = drive_current();
    if (letter == 0) return false;
    host = resolve(drive_root(letter), normalise(split(dos, "\\/")), false);
    return true;
  }
  std::vector<std::string> parts;
  for (const std::string& p : split(dos, "\\/"))
    if (!p.empty()) parts.push_back(p);
  host = resolve(std::string(), parts, true);
  return true;
}

bool host_to_dos(const std::string& host, std::string& dos) {
  if (host.empty()) return false;
  std::string absolute = host;
  if (absolute[0] != '/') {
    const std::string cwd = host_cwd();
    if (cwd.empty()) return false;
    absolute = cwd + "/" + host;
  }
  absolute = join_host("", normalise(split(absolute, "/")));
  const std::string net = network_root();
  std::string rest;
  const int letter = table().drive_of(absolute, &rest);
  const bool underNet = !net.empty() && net != "/" && DriveTable::is_below(absolute, net) &&
                        (letter == 0 || net.size() > drive_root(letter).size());
  if (underNet) {
    const std::vector<std::string> parts = split(DriveTable::remainder(absolute, net), "/");
    if (parts.size() < 2 || parts[0].empty()) return false;
    dos = "\\";
    for (const std::string& p : parts) dos += "\\" + p;
    return true;
  }
  if (letter == 0) return false;
  dos = dos_join(letter, normalise(split(rest, "/")));
  return true;
}

int drive_current() {
  const std::string cwd = host_cwd();
  if (cwd.empty()) return 0;
  return table().drive_of(join_host("", normalise(split(cwd, "/"))), nullptr);
}

bool drive_getcwd(int letter, std::string& dos) {
  const int c = std::tolower(static_cast<unsigned char>(letter));
  if (drive_root(c).empty()) return false;
  if (c == drive_current()) return host_to_dos(host_cwd(), dos);
  std::string remembered = table().remembered(c);
  std::string host;
  if (!remembered.empty() && dos_to_host(remembered, host) && exists(host)) {
    dos = remembered;
    return true;
  }
  dos = std::string(1, static_cast<char>(c)) + ":\\";
  return true;
}

bool dos_chdir(const std::string& dos) {
  std::string host;
  if (!dos_to_host(dos, host)) return false;
  const int before = drive_current();
  std::string beforeDos;
  if (before != 0) drive_getcwd(before, beforeDos);
  if (chdir(host.c_str()) != 0) return false;
  const int after = drive_current();
  if (before != 0 && before != after) table().remember(before, beforeDos);
  return true;
}

bool drive_set_current(int letter) {
  const int c = std::tolower(static_cast<unsigned char>(letter));
  std::string dos;
  if (!drive_getcwd(c, dos)) return false;
  return dos_chdir(dos);
}

int drive_type(int letter) {
  const std::string root = drive_root(letter);
  if (root.empty()) return kDriveNoRoot;
  char real[PATH_MAX];
  if (realpath(root.c_str(), real) == nullptr) return kDriveNoRoot;
  struct stat st;
  if (stat(real, &st) != 0 || !S_ISDIR(st.st_mode)) return kDriveNoRoot;

  // The mount holding the root: the longest mount point above it.
  std::ifstream mounts("/proc/self/mounts");
  std::string line, bestDevice, bestType, bestPoint;
  while (std::getline(mounts, line)) {
    std::istringstream fields(line);
    std::string device, point, type;
    if (!(fields >> device >> point >> type)) continue;
    // Mount points escape blanks and the like as octal "\040".
    std::string decoded;
    for (size_t i = 0; i < point.size(); ++i) {
      if (point[i] == '\\' && i + 3 < point.size() && std::isdigit(static_cast<unsigned char>(point[i + 1]))) {
        decoded += static_cast<char>(std::strtol(point.substr(i + 1, 3).c_str(), nullptr, 8));
        i += 3;
      } else {
        decoded += point[i];
      }
    }
    if (DriveTable::is_below(real, decoded) && decoded.size() >= bestPoint.size()) {
      bestPoint = decoded;
      bestDevice = device;
      bestType = type;
    }
  }
  static const char* const kRemoteTypes[] = {"nfs", "nfs4", "cifs", "smb3", "smbfs", "ncpfs", "afs",
                                             "9p", "ceph", "glusterfs", "fuse.sshfs", "sshfs",
                                             "fuse.rclone", "davfs", "fuse.davfs2"};
  for (const char* t : kRemoteTypes)
    if (bestType == t) return kDriveRemote;

  // A block device is removable when the kernel says so for it or its disk.
  if (bestDevice.rfind("/dev/", 0) == 0) {
    const std::string name = bestDevice.substr(5);
    char sys[PATH_MAX];
    const std::string classPath = "/sys/class/block/" + name;
    if (realpath(classPath.c_str(), sys) != nullptr) {
      std::string dir = sys;
      for (int up = 0; up < 2; ++up) {
        std::ifstream removable(dir + "/removable");
        int flag = 0;
        if (removable >> flag) return flag != 0 ? kDriveRemovable : kDriveFixed;
        dir = dir.substr(0, dir.rfind('/'));
      }
    }
  }
  return kDriveFixed;
}

}  // namespace kvos
