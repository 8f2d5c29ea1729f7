// The system side of the drive table on Windows: drive letters are the
// system's own (the table starts as the identity, "c:\x" is C:\x), host paths
// are written with "\" and their names compare ignoring case, and
// "\\server\share" paths are network paths as they stand.
#include <windows.h>

#include <cctype>

#include "../common/drive_system.h"
#include "kvos/drives.h"
#include "kvtext/text.h"

namespace kvos::drive_system {
namespace {

bool is_separator(char c) { return c == '\\' || c == '/'; }

}  // namespace

const char kSeparator = '\\';
const char* const kSeparators = "\\/";
const bool kNamesIgnoreCase = true;
const bool kNativeNetworkPaths = true;

std::vector<std::pair<char, std::string>> default_drives() {
  std::vector<std::pair<char, std::string>> drives;
  const DWORD mask = GetLogicalDrives();
  for (int i = 0; i < 26; ++i)
    if ((mask >> i) & 1u) drives.emplace_back(static_cast<char>('a' + i), std::string(1, static_cast<char>('A' + i)) + ":\\");
  return drives;
}

bool split_volume(const std::string& host, std::string& volume, std::string& rest) {
  if (host.size() >= 3 && std::isalpha(static_cast<unsigned char>(host[0])) && host[1] == ':' && is_separator(host[2])) {
    volume = std::string(1, kvtext::ascii_upper(host[0])) + ":";
    rest = host.substr(2);
    return true;
  }
  // "\\server\share": the server and the share make the volume.
  if (host.size() >= 2 && is_separator(host[0]) && is_separator(host[1])) {
    const size_t server = host.find_first_of("\\/", 2);
    if (server == std::string::npos || server == 2) return false;
    const size_t share = host.find_first_of("\\/", server + 1);
    const std::string shareName = host.substr(server + 1, share == std::string::npos ? std::string::npos : share - server - 1);
    if (shareName.empty()) return false;
    volume = "\\\\" + host.substr(2, server - 2) + "\\" + shareName;
    rest = share == std::string::npos ? std::string() : host.substr(share);
    return true;
  }
  return false;
}

std::string absolute(const std::string& relative) {
  char buffer[MAX_PATH * 4];
  const DWORD n = GetFullPathNameA(relative.c_str(), sizeof buffer, buffer, nullptr);
  return n == 0 || n >= sizeof buffer ? std::string() : std::string(buffer, n);
}

bool exists(const std::string& host) { return GetFileAttributesA(host.c_str()) != INVALID_FILE_ATTRIBUTES; }

// Names compare ignoring case here, and trailing dots and blanks are not stored.
std::string lookup(const std::string&, const std::string& name) { return name; }

// Junctions and links are left as they are: the working directory keeps the
// form it was set with.
std::string resolved(const std::string&) { return std::string(); }

std::string current_directory() {
  char buffer[MAX_PATH * 4];
  const DWORD n = GetCurrentDirectoryA(sizeof buffer, buffer);
  return n == 0 || n >= sizeof buffer ? std::string() : std::string(buffer, n);
}

bool change_directory(const std::string& host) { return SetCurrentDirectoryA(host.c_str()) != 0; }

int volume_type(const std::string& hostDir) {
  const DWORD attributes = GetFileAttributesA(hostDir.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) return kDriveNoRoot;
  char volume[MAX_PATH * 4];
  if (!GetVolumePathNameA(hostDir.c_str(), volume, sizeof volume)) return kDriveNoRoot;
  switch (GetDriveTypeA(volume)) {
    case DRIVE_REMOVABLE:
    case DRIVE_CDROM: return kDriveRemovable;
    case DRIVE_REMOTE: return kDriveRemote;
    case DRIVE_NO_ROOT_DIR: return kDriveNoRoot;
    case DRIVE_UNKNOWN: return kDriveUnknown;
    default: return kDriveFixed;  // fixed disks and RAM disks
  }
}

// Windows has no mount table of block devices.
int block_device_removable(const std::string&) { return -1; }

}  // namespace kvos::drive_system
