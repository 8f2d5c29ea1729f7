// The system side of the drive table: the syntax of host paths, and the calls
// that look at the host's directories. Internal to the boundary.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace kvos::drive_system {

// The separator that host paths are written with, and every character that
// separates components in them.
extern const char kSeparator;
extern const char* const kSeparators;

// Whether the host's file names compare ignoring case (then a DOS name needs
// no look-up), and whether "\\server\share" paths are host paths as they stand
// when no network root is set.
extern const bool kNamesIgnoreCase;
extern const bool kNativeNetworkPaths;

// The drives that exist when the library is loaded: (lower-case letter, host root).
std::vector<std::pair<char, std::string>> default_drives();

// Splits an absolute host path into its volume ("" on Linux; "C:" or
// "\\server\share" on Windows) and the rest, which then starts with a
// separator or is empty. False for a relative path.
bool split_volume(const std::string& host, std::string& volume, std::string& rest);

// An absolute host path for a relative one, taken from the working directory.
std::string absolute(const std::string& relative);

bool exists(const std::string& host);

// The name under which a component exists in dir when it does not exist as
// written (ignoring case, trailing dots and blanks); name itself otherwise.
std::string lookup(const std::string& dir, const std::string& name);

// The path with links resolved, when it exists and differs; else empty.
std::string resolved(const std::string& host);

// The process's working directory; empty when it cannot be read.
std::string current_directory();
bool change_directory(const std::string& host);

// The type of the volume holding an existing host directory.
int volume_type(const std::string& hostDir);

// For mount tables: whether a block device (its name below /dev) is removable:
// 1 yes, 0 no, -1 unknown.
int block_device_removable(const std::string& name);

}  // namespace kvos::drive_system
