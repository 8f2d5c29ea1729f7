// The system side of the drive table on Linux: "/" paths with case-sensitive
// names, the process's working directory and the mount table.
#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "../common/drive_system.h"
#include "kvos/drives.h"

namespace kvos::drive_system {
namespace {

std::string child_of(const std::string& dir, const std::string& name) {
  if (dir.empty()) return name;
  return dir.back() == '/' ? dir + name : dir + "/" + name;
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

}  // namespace

const char kSeparator = '/';
const char* const kSeparators = "/";
const bool kNamesIgnoreCase = false;
const bool kNativeNetworkPaths = false;

// Drive c: is the host root.
std::vector<std::pair<char, std::string>> default_drives() { return {{'c', "/"}}; }

bool split_volume(const std::string& host, std::string& volume, std::string& rest) {
  if (host.empty() || host[0] != '/') return false;
  volume.clear();
  rest = host;
  return true;
}

std::string absolute(const std::string& relative) {
  const std::string cwd = current_directory();
  return cwd.empty() ? std::string() : cwd + "/" + relative;
}

bool exists(const std::string& host) {
  struct stat st;
  return lstat(host.c_str(), &st) == 0;
}

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

std::string resolved(const std::string& host) {
  char real[PATH_MAX];
  if (host.empty() || realpath(host.c_str(), real) == nullptr) return std::string();
  return host == real ? std::string() : std::string(real);
}

std::string current_directory() {
  char buffer[PATH_MAX];
  if (getcwd(buffer, sizeof buffer) == nullptr) return std::string();
  return buffer;
}

bool change_directory(const std::string& host) { return chdir(host.c_str()) == 0; }

int volume_type(const std::string& hostDir) {
  char real[PATH_MAX];
  if (realpath(hostDir.c_str(), real) == nullptr) return kDriveNoRoot;
  struct stat st;
  if (stat(real, &st) != 0 || !S_ISDIR(st.st_mode)) return kDriveNoRoot;
  std::ifstream file("/proc/self/mounts");
  std::stringstream text;
  text << file.rdbuf();
  const int type = mount_drive_type(real, text.str());
  return type == kDriveUnknown ? kDriveFixed : type;
}

int block_device_removable(const std::string& name) {
  char sys[PATH_MAX];
  const std::string classPath = "/sys/class/block/" + name;
  if (name.find('/') != std::string::npos || realpath(classPath.c_str(), sys) == nullptr) return -1;
  std::string dir = sys;
  for (int up = 0; up < 2; ++up) {
    std::ifstream removable(dir + "/removable");
    int flag = 0;
    if (removable >> flag) return flag != 0 ? 1 : 0;
    dir = dir.substr(0, dir.rfind('/'));
  }
  return -1;
}

}  // namespace kvos::drive_system
