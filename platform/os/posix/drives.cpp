// The drive table on Linux.
#include "kvos/drives.h"

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>

#include "kvos/debugger.h"

namespace kvos {
namespace {

constexpr int kLetters = 26;

int slot_of(int letter) {
  if (letter < 0 || letter > 0xFF) return -1;
  const int c = std::tolower(letter);
  return (c >= 'a' && c <= 'z') ? c - 'a' : -1;
}

std::vector<std::string> split(const std::string& text, const char* separators) {
  std::vector<std::string> parts;
  std::string part;
  for (char ch : text) {
    if (ch != '\0' && std::strchr(separators, ch) != nullptr) {
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

std::string child_of(const std::string& dir, const std::string& name) {
  if (dir.empty()) return name;
  return dir.back() == '/' ? dir + name : dir + "/" + name;
}

// The host root as stored: absolute, normalised, no trailing "/" except for "/" itself.
bool clean_root(const std::string& root, std::string& out) {
  if (root.empty() || root[0] != '/') return false;
  out = join_host("", normalise(split(root, "/")));
  return true;
}

// The root with symbolic links resolved, when it exists and differs; else empty.
std::string resolved_root(const std::string& root) {
  char real[PATH_MAX];
  if (root.empty() || realpath(root.c_str(), real) == nullptr) return std::string();
  return root == real ? std::string() : std::string(real);
}

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// The entry of dir whose name equals name ignoring case. When several do, the
// smallest by byte order, so that the choice does not depend on directory order.
bool find_ignoring_case(const std::string& dir, const std::string& name, std::string& found) {
  DIR* d = opendir(dir.empty() ? "." : dir.c_str());
  if (d == nullptr) return false;
  bool any = false;
  while (dirent* e = readdir(d)) {
    if (strcasecmp(e->d_name, name.c_str()) != 0) continue;
    if (!any || std::strcmp(e->d_name, found.c_str()) < 0) found = e->d_name;
    any = true;
  }
  closedir(d);
  return any;
}

// A name without its trailing dots and blanks, which Windows does not store.
std::string without_trailing_dots(const std::string& name) {
  size_t end = name.size();
  while (end > 0 && (name[end - 1] == '.' || name[end - 1] == ' ')) --end;
  return name.substr(0, end);
}

// The name under which a component exists in dir: as written, ignoring case,
// then without trailing dots and blanks; as written when none exists.
std::string lookup(const std::string& dir, const std::string& name) {
  if (name == "." || name == ".." || exists(child_of(dir, name))) return name;
  std::string found;
  if (find_ignoring_case(dir, name, found)) return found;
  const std::string bare = without_trailing_dots(name);
  if (!bare.empty() && bare != name) {
    if (exists(child_of(dir, bare))) return bare;
    if (find_ignoring_case(dir, bare, found)) return found;
  }
  return name;
}

// Appends components to base, each looked up as lookup() does while its
// directory exists.
std::string resolve(const std::string& base, const std::vector<std::string>& parts, bool relative) {
  std::string path = base;
  bool parentExists = true;
  for (const std::string& p : parts) {
    const std::string real = parentExists ? lookup(path.empty() && relative ? "." : path, p) : p;
    path = child_of(path, real);
    parentExists = parentExists && exists(path);
  }
  if (path.empty()) path = relative ? "." : "/";
  return path;
}

std::string host_cwd() {
  char buffer[PATH_MAX];
  if (getcwd(buffer, sizeof buffer) == nullptr) return std::string();
  return buffer;
}

bool is_below(const std::string& path, const std::string& root) {
  if (root.empty()) return false;
  if (root == "/") return !path.empty() && path[0] == '/';
  return path.compare(0, root.size(), root) == 0 && (path.size() == root.size() || path[root.size()] == '/');
}

std::string remainder(const std::string& path, const std::string& root) {
  if (root == "/") return path.substr(1);
  return path.size() > root.size() ? path.substr(root.size() + 1) : std::string();
}

// A mapped root: as given, and with its links resolved (the process's working
// directory always comes back resolved).
struct Root {
  std::string given;
  std::string real;

  bool empty() const { return given.empty(); }
  // Length of the form that holds path, 0 when neither does.
  size_t holds(const std::string& path, std::string* rest) const {
    size_t best = 0;
    for (const std::string* form : {&given, &real}) {
      if (!is_below(path, *form) || form->size() <= best) continue;
      best = form->size();
      if (rest != nullptr) *rest = remainder(path, *form);
    }
    return best;
  }
};

class DriveTable {
 public:
  DriveTable() {
    roots_[slot_of('c')] = Root{"/", std::string()};
    if (const char* text = std::getenv("KVCORE_DRIVES")) load_from_environment(text);
    if (const char* net = std::getenv("KVCORE_NETWORK_ROOT")) {
      std::string cleaned;
      if (clean_root(net, cleaned)) {
        network_ = Root{cleaned, resolved_root(cleaned)};
      } else if (*net != '\0') {
        report("KVCORE_NETWORK_ROOT=" + std::string(net) + ": not an absolute directory");
      }
    }
  }

  bool map(int letter, const std::string& root) {
    const int slot = slot_of(letter);
    std::string cleaned;
    if (slot < 0 || !clean_root(root, cleaned)) return false;
    const std::string real = resolved_root(cleaned);
    std::lock_guard<std::mutex> lock(mutex_);
    roots_[slot] = Root{cleaned, real};
    cwds_[slot].clear();
    return true;
  }

  bool unmap(int letter) {
    const int slot = slot_of(letter);
    if (slot < 0) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    const bool was = !roots_[slot].empty();
    roots_[slot] = Root();
    cwds_[slot].clear();
    return was;
  }

  std::string root(int letter) {
    const int slot = slot_of(letter);
    if (slot < 0) return std::string();
    std::lock_guard<std::mutex> lock(mutex_);
    return roots_[slot].given;
  }

  std::vector<std::pair<char, std::string>> list() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::pair<char, std::string>> out;
    for (int i = 0; i < kLetters; ++i)
      if (!roots_[i].empty()) out.emplace_back(static_cast<char>('a' + i), roots_[i].given);
    return out;
  }

  std::vector<std::string> problems() {
    std::lock_guard<std::mutex> lock(mutex_);
    return problems_;
  }

  void set_network_root(const std::string& dir) {
    std::string cleaned;
    const bool ok = clean_root(dir, cleaned);
    const std::string real = ok ? resolved_root(cleaned) : std::string();
    std::lock_guard<std::mutex> lock(mutex_);
    network_ = ok ? Root{cleaned, real} : Root();
  }

  std::string network() {
    std::lock_guard<std::mutex> lock(mutex_);
    return network_.given;
  }

  // Length of the network root's form that holds hostAbs, 0 when none does.
  size_t network_holds(const std::string& hostAbs, std::string* rest) {
    std::lock_guard<std::mutex> lock(mutex_);
    return network_.holds(hostAbs, rest);
  }

  // Drive holding a normalised absolute host path: the longest matching root.
  int drive_of(const std::string& hostAbs, std::string* rest, size_t* length = nullptr) {
    std::lock_guard<std::mutex> lock(mutex_);
    int best = -1;
    size_t bestLen = 0;
    std::string bestRest;
    for (int i = 0; i < kLetters; ++i) {
      std::string r;
      const size_t len = roots_[i].holds(hostAbs, &r);
      if (len == 0 || (best >= 0 && len <= bestLen)) continue;
      best = i;
      bestLen = len;
      bestRest = r;
    }
    if (length != nullptr) *length = bestLen;
    if (best < 0) return 0;
    if (rest != nullptr) *rest = bestRest;
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

 private:
  void load_from_environment(const char* text) {
    for (const std::string& entry : split(text, ";")) {
      if (entry.empty()) continue;
      const size_t eq = entry.find('=');
      std::string cleaned;
      if (eq != 1 || slot_of(static_cast<unsigned char>(entry[0])) < 0) {
        report("KVCORE_DRIVES: ignoring \"" + entry + "\": not LETTER=/absolute/directory");
        continue;
      }
      if (!clean_root(entry.substr(eq + 1), cleaned)) {
        report("KVCORE_DRIVES: ignoring \"" + entry + "\": the directory is not absolute");
        continue;
      }
      roots_[slot_of(static_cast<unsigned char>(entry[0]))] = Root{cleaned, resolved_root(cleaned)};
    }
  }

  // A configuration problem: kept for drive_config_problems() and written to
  // the debugger output stream, never to the program's own output.
  void report(const std::string& text) {
    problems_.push_back(text);
    debugger_output((text + "\n").c_str());
  }

  std::mutex mutex_;
  std::array<Root, kLetters> roots_;
  std::array<std::string, kLetters> cwds_;
  Root network_;
  std::vector<std::string> problems_;
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

bool is_separator(char c) { return c == '\\' || c == '/'; }

// The DOS components of a drive's working directory, below its root.
bool drive_cwd_parts(int letter, std::vector<std::string>& parts) {
  std::string dos;
  if (!drive_getcwd(letter, dos)) return false;
  parts = normalise(split(dos.substr(3), "\\"));
  return true;
}

std::string normalised_host(const std::string& host) {
  return join_host("", normalise(split(host, "/")));
}

}  // namespace

bool drive_map(int letter, const std::string& hostRoot) { return table().map(letter, hostRoot); }
bool drive_unmap(int letter) { return table().unmap(letter); }
std::string drive_root(int letter) { return table().root(letter); }
std::vector<std::pair<char, std::string>> drive_list() { return table().list(); }
std::vector<std::string> drive_config_problems() { return table().problems(); }
void network_root_set(const std::string& hostDir) { table().set_network_root(hostDir); }
std::string network_root() { return table().network(); }

bool dos_to_host(const std::string& dos, std::string& host) {
  if (dos.empty() || dos.find('\0') != std::string::npos) return false;
  if (dos.size() >= 2 && is_separator(dos[0]) && is_separator(dos[1])) {
    const std::string net = network_root();
    if (net.empty()) return false;
    const std::vector<std::string> parts = normalise(split(dos.substr(2), "\\/"));
    if (parts.empty()) return false;
    host = resolve(net, parts, false);
    return true;
  }
  if (dos.size() >= 2 && dos[1] == ':') {
    // Only mapped letters are drives; "!:" and "&:" have no host directory.
    const int letter = std::tolower(static_cast<unsigned char>(dos[0]));
    const std::string root = drive_root(letter);
    if (root.empty()) return false;
    std::vector<std::string> parts;
    const std::string rest = dos.substr(2);
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
  if (host.empty() || host.find('\0') != std::string::npos) return false;
  std::string absolute = host;
  if (absolute[0] != '/') {
    const std::string cwd = host_cwd();
    if (cwd.empty()) return false;
    absolute = cwd + "/" + host;
  }
  absolute = normalised_host(absolute);
  std::string rest, netRest;
  size_t driveLen = 0;
  const int letter = table().drive_of(absolute, &rest, &driveLen);
  const size_t netLen = table().network_holds(absolute, &netRest);
  if (netLen > 0 && netLen > driveLen) {
    // Below the network root: "\\server\share\..." needs a server and a share.
    const std::vector<std::string> parts = split(netRest, "/");
    if (parts.size() >= 2 && !parts[0].empty()) {
      dos = "\\";
      for (const std::string& p : parts) dos += "\\" + p;
      return true;
    }
  }
  if (letter == 0) return false;
  dos = dos_join(letter, normalise(split(rest, "/")));
  return true;
}

int drive_current() {
  const std::string cwd = host_cwd();
  if (cwd.empty()) return 0;
  return table().drive_of(normalised_host(cwd), nullptr);
}

bool drive_getcwd(int letter, std::string& dos) {
  const int c = (letter < 0 || letter > 0xFF) ? 0 : std::tolower(letter);
  if (drive_root(c).empty()) return false;
  const std::string cwd = host_cwd();
  std::string rest;
  if (!cwd.empty() && table().drive_of(normalised_host(cwd), &rest) == c) {
    dos = dos_join(c, normalise(split(rest, "/")));
    return true;
  }
  const std::string remembered = table().remembered(c);
  std::string host;
  if (!remembered.empty() && dos_to_host(remembered, host) && exists(host)) {
    dos = remembered;
    return true;
  }
  dos = dos_join(c, {});
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
  std::string dos;
  if (!drive_getcwd(letter, dos)) return false;
  return dos_chdir(dos);
}

int mount_drive_type(const std::string& hostDir, const std::string& mountTable) {
  std::istringstream mounts(mountTable);
  std::string line, bestDevice, bestType, bestPoint;
  bool found = false;
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
    // The last of equally long mount points is the one on top.
    if (is_below(hostDir, decoded) && (!found || decoded.size() >= bestPoint.size())) {
      found = true;
      bestPoint = decoded;
      bestDevice = device;
      bestType = type;
    }
  }
  if (!found) return kDriveUnknown;
  static const char* const kRemoteTypes[] = {
      "nfs",  "nfs4",   "cifs",      "smb3",           "smbfs",      "ncpfs",       "afs",
      "9p",   "ceph",   "glusterfs", "fuse.glusterfs", "fuse.sshfs", "sshfs",       "fuse.rclone",
      "davfs", "fuse.davfs2", "fuse.s3fs", "lustre",   "gpfs",       "beegfs",      "orangefs"};
  for (const char* t : kRemoteTypes)
    if (bestType == t) return kDriveRemote;

  // A block device is removable when the kernel says so for it or its disk.
  if (bestDevice.rfind("/dev/", 0) == 0) {
    const std::string name = bestDevice.substr(5);
    char sys[PATH_MAX];
    const std::string classPath = "/sys/class/block/" + name;
    if (name.find('/') == std::string::npos && realpath(classPath.c_str(), sys) != nullptr) {
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

int drive_type(int letter) {
  const std::string root = drive_root(letter);
  if (root.empty()) return kDriveNoRoot;
  char real[PATH_MAX];
  if (realpath(root.c_str(), real) == nullptr) return kDriveNoRoot;
  struct stat st;
  if (stat(real, &st) != 0 || !S_ISDIR(st.st_mode)) return kDriveNoRoot;
  std::ifstream file("/proc/self/mounts");
  std::stringstream text;
  text << file.rdbuf();
  const int type = mount_drive_type(real, text.str());
  return type == kDriveUnknown ? kDriveFixed : type;
}

}  // namespace kvos
