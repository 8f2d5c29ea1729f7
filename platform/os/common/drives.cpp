// The drive table: DOS drives on host directories.
#include "kvos/drives.h"

#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <sstream>

#include "drive_system.h"
#include "kvos/debugger.h"
#include "kvtext/text.h"

namespace kvos {
namespace {

namespace sys = drive_system;

constexpr int kLetters = 26;

int slot_of(int letter) {
  if (letter < 0 || letter > 0xFF) return -1;
  const char c = kvtext::ascii_lower(static_cast<char>(letter));
  return (c >= 'a' && c <= 'z') ? c - 'a' : -1;
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

std::string child_of(const std::string& dir, const std::string& name) {
  if (dir.empty()) return name;
  return dir.back() == sys::kSeparator ? dir + name : dir + sys::kSeparator + name;
}

// An absolute host path as stored: normalised, written with the host's
// separator, no trailing separator except after a bare volume ("/", "C:\").
bool clean_host(const std::string& path, std::string& out) {
  std::string volume, rest;
  if (path.empty() || !sys::split_volume(path, volume, rest)) return false;
  out = volume + sys::kSeparator;
  const std::vector<std::string> parts = normalise(kvtext::split(rest, sys::kSeparators));
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) out += sys::kSeparator;
    out += parts[i];
  }
  return true;
}

bool same_text(const std::string& a, size_t length, const std::string& b) {
  if (a.size() < length || b.size() < length) return false;
  for (size_t i = 0; i < length; ++i) {
    const char x = a[i], y = b[i];
    if (x == y) continue;
    if (!sys::kNamesIgnoreCase || kvtext::ascii_lower(x) != kvtext::ascii_lower(y))
      return false;
  }
  return true;
}

// Whether a clean path lies in or below a clean root.
bool is_below(const std::string& path, const std::string& root) {
  if (root.empty() || !same_text(path, root.size(), root)) return false;
  return root.back() == sys::kSeparator || path.size() == root.size() || path[root.size()] == sys::kSeparator;
}

std::string remainder(const std::string& path, const std::string& root) {
  if (root.back() == sys::kSeparator) return path.substr(root.size());
  return path.size() > root.size() ? path.substr(root.size() + 1) : std::string();
}

// Appends components to base, each looked up ignoring case (where the host's
// names do not) while its directory exists.
std::string resolve(const std::string& base, const std::vector<std::string>& parts, bool relative) {
  std::string path = base;
  bool parentExists = !sys::kNamesIgnoreCase;
  for (const std::string& p : parts) {
    const std::string real = parentExists ? sys::lookup(path.empty() && relative ? "." : path, p) : p;
    path = child_of(path, real);
    parentExists = parentExists && sys::exists(path);
  }
  if (path.empty()) path = relative ? std::string(".") : std::string(1, sys::kSeparator);
  return path;
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

Root make_root(const std::string& cleaned) { return Root{cleaned, sys::resolved(cleaned)}; }

class DriveTable {
 public:
  DriveTable() {
    for (const auto& [letter, root] : sys::default_drives()) {
      std::string cleaned;
      if (slot_of(letter) >= 0 && clean_host(root, cleaned)) roots_[slot_of(letter)] = Root{cleaned, std::string()};
    }
    if (const char* text = std::getenv("KVCORE_DRIVES")) load_from_environment(text);
    if (const char* net = std::getenv("KVCORE_NETWORK_ROOT")) {
      std::string cleaned;
      if (clean_host(net, cleaned)) {
        network_ = make_root(cleaned);
      } else if (*net != '\0') {
        report("KVCORE_NETWORK_ROOT=" + std::string(net) + ": not an absolute directory");
      }
    }
  }

  bool map(int letter, const std::string& root) {
    const int slot = slot_of(letter);
    std::string cleaned;
    if (slot < 0 || !clean_host(root, cleaned)) return false;
    const Root mapped = make_root(cleaned);
    std::lock_guard<std::mutex> lock(mutex_);
    roots_[slot] = mapped;
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
    const bool ok = clean_host(dir, cleaned);
    const Root root = ok ? make_root(cleaned) : Root();
    std::lock_guard<std::mutex> lock(mutex_);
    network_ = root;
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

  // Drive holding a clean absolute host path: the longest matching root.
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
    for (const std::string& entry : kvtext::split(text, ";")) {
      if (entry.empty()) continue;
      const size_t eq = entry.find('=');
      std::string cleaned;
      if (eq != 1 || slot_of(static_cast<unsigned char>(entry[0])) < 0) {
        report("KVCORE_DRIVES: ignoring \"" + entry + "\": not LETTER=/absolute/directory");
        continue;
      }
      if (!clean_host(entry.substr(eq + 1), cleaned)) {
        report("KVCORE_DRIVES: ignoring \"" + entry + "\": the directory is not absolute");
        continue;
      }
      roots_[slot_of(static_cast<unsigned char>(entry[0]))] = make_root(cleaned);
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
  parts = normalise(kvtext::split(dos.substr(3), "\\"));
  return true;
}

// The working directory, clean; empty when it cannot be read.
std::string clean_cwd() {
  std::string cwd;
  return clean_host(sys::current_directory(), cwd) ? cwd : std::string();
}

// Whole components of a slash-separated path (for mount points).
bool is_below_slash(const std::string& path, const std::string& root) {
  if (root.empty()) return false;
  if (root == "/") return !path.empty() && path[0] == '/';
  return path.compare(0, root.size(), root) == 0 && (path.size() == root.size() || path[root.size()] == '/');
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
    const std::vector<std::string> parts = normalise(kvtext::split(dos.substr(2), "\\/"));
    if (parts.empty()) return false;
    const std::string net = network_root();
    if (!net.empty()) {
      host = resolve(net, parts, false);
      return true;
    }
    // Without a network root, the system's own network paths (when it has them).
    if (!sys::kNativeNetworkPaths || parts.size() < 2) return false;
    std::string unc(2, sys::kSeparator);
    for (size_t i = 0; i < parts.size(); ++i) unc += (i > 0 ? std::string(1, sys::kSeparator) : std::string()) + parts[i];
    host = unc;
    return true;
  }
  if (dos.size() >= 2 && dos[1] == ':') {
    // Only mapped letters are drives; "!:" and "&:" have no host directory.
    const int letter = static_cast<unsigned char>(kvtext::ascii_lower(dos[0]));
    const std::string root = drive_root(letter);
    if (root.empty()) return false;
    std::vector<std::string> parts;
    const std::string rest = dos.substr(2);
    if (rest.empty() || !is_separator(rest[0])) {
      if (!drive_cwd_parts(letter, parts)) return false;
    }
    for (const std::string& p : kvtext::split(rest, "\\/")) parts.push_back(p);
    host = resolve(root, normalise(parts), false);
    return true;
  }
  if (is_separator(dos[0])) {
    const int letter = drive_current();
    if (letter == 0) return false;
    host = resolve(drive_root(letter), normalise(kvtext::split(dos, "\\/")), false);
    return true;
  }
  std::vector<std::string> parts;
  for (const std::string& p : kvtext::split(dos, "\\/"))
    if (!p.empty()) parts.push_back(p);
  host = resolve(std::string(), parts, true);
  return true;
}

bool host_to_dos(const std::string& host, std::string& dos) {
  if (host.empty() || host.find('\0') != std::string::npos) return false;
  std::string volume, rest, absolute;
  const std::string full = sys::split_volume(host, volume, rest) ? host : sys::absolute(host);
  if (!clean_host(full, absolute)) return false;
  std::string driveRest, netRest;
  size_t driveLen = 0;
  const int letter = table().drive_of(absolute, &driveRest, &driveLen);
  size_t netLen = table().network_holds(absolute, &netRest);
  if (netLen == 0 && sys::kNativeNetworkPaths && network_root().empty() && absolute.size() > 2 &&
      absolute[0] == sys::kSeparator && absolute[1] == sys::kSeparator) {
    netLen = 2;  // a network path of the system's own
    netRest = absolute.substr(2);
  }
  if (netLen > 0 && netLen > driveLen) {
    // Below the network root: "\\server\share\..." needs a server and a share.
    const std::vector<std::string> parts = kvtext::split(netRest, sys::kSeparators);
    if (parts.size() >= 2 && !parts[0].empty()) {
      dos = "\\";
      for (const std::string& p : parts) dos += "\\" + p;
      return true;
    }
  }
  if (letter == 0) return false;
  dos = dos_join(letter, normalise(kvtext::split(driveRest, sys::kSeparators)));
  return true;
}

int drive_current() {
  const std::string cwd = clean_cwd();
  if (cwd.empty()) return 0;
  return table().drive_of(cwd, nullptr);
}

bool drive_getcwd(int letter, std::string& dos) {
  const int c = (letter < 0 || letter > 0xFF) ? 0 : static_cast<unsigned char>(kvtext::ascii_lower(static_cast<char>(letter)));
  if (drive_root(c).empty()) return false;
  const std::string cwd = clean_cwd();
  std::string rest;
  if (!cwd.empty() && table().drive_of(cwd, &rest) == c) {
    dos = dos_join(c, normalise(kvtext::split(rest, sys::kSeparators)));
    return true;
  }
  const std::string remembered = table().remembered(c);
  std::string host;
  if (!remembered.empty() && dos_to_host(remembered, host) && sys::exists(host)) {
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
  const bool known = before != 0 && drive_getcwd(before, beforeDos);
  if (!sys::change_directory(host)) return false;
  const int after = drive_current();
  if (known && before != after) table().remember(before, beforeDos);
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
    if (is_below_slash(hostDir, decoded) && (!found || decoded.size() >= bestPoint.size())) {
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

  // A block device is removable when the system says so for it or its disk.
  if (bestDevice.rfind("/dev/", 0) == 0) {
    const int removable = sys::block_device_removable(bestDevice.substr(5));
    if (removable >= 0) return removable != 0 ? kDriveRemovable : kDriveFixed;
  }
  return kDriveFixed;
}

int drive_type(int letter) {
  const std::string root = drive_root(letter);
  if (root.empty()) return kDriveNoRoot;
  return sys::volume_type(root);
}

}  // namespace kvos
