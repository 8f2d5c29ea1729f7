// The drive table: how DOS paths ("c:\data\x.txt", "\\server\share\y") map to
// host paths. Drive c: is the host root "/" unless remapped; more drives come
// from KVCORE_DRIVES ("d=/mnt/data;e=/media/usb") at load and from drive_map().
// A network path maps below the network root (KVCORE_NETWORK_ROOT), and fails
// cleanly when none is set.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kvos/export.h"

namespace kvos {

// Drive types, numbered as the classic drive-type query numbers them.
enum DriveType {
  kDriveUnknown = 0,
  kDriveNoRoot = 1,
  kDriveRemovable = 2,
  kDriveFixed = 3,
  kDriveRemote = 4,
};

// Maps a drive letter (a..z, either case) to an absolute host directory.
// False for another letter or a relative root.
KVOS_API bool drive_map(int letter, const std::string& hostRoot);
KVOS_API bool drive_unmap(int letter);

// The host root of a drive; empty when the letter is not mapped.
KVOS_API std::string drive_root(int letter);

// Every mapped drive in letter order, as (lower-case letter, host root).
KVOS_API std::vector<std::pair<char, std::string>> drive_list();

// The directory that "\\server\share" paths live below; empty for none.
KVOS_API void network_root_set(const std::string& hostDir);
KVOS_API std::string network_root();

// DOS path to host path. Absolute, drive-relative ("c:x"), rooted ("\x") and
// relative texts are accepted, with "\" or "/" separators. "." and ".." are
// resolved, never above a drive's root. A component that does not exist with
// its exact case is matched case-insensitively in its directory. False for an
// unmapped drive, a pseudo-drive, or a network path without a network root.
KVOS_API bool dos_to_host(const std::string& dos, std::string& host);

// Host path to DOS path on the mapped drive with the longest matching root
// (relative host paths are taken from the working directory). False when no
// drive or network root holds it.
KVOS_API bool host_to_dos(const std::string& host, std::string& dos);

// The drive holding the process's working directory ('a'..'z'), or 0 when the
// working directory lies on no mapped drive.
KVOS_API int drive_current();

// Makes a drive current by moving to its remembered working directory.
KVOS_API bool drive_set_current(int letter);

// The working directory of a drive as DOS text ("c:\tmp"): the process's own
// for the current drive, the remembered one (initially the root) for others.
KVOS_API bool drive_getcwd(int letter, std::string& dos);

// Changes the process's working directory to a DOS directory; the drive that
// holds it becomes current, and the drive left behind remembers where it was.
KVOS_API bool dos_chdir(const std::string& dos);

// The type of a drive, from the mount table: unmapped or missing roots are
// kDriveNoRoot, network file systems kDriveRemote, removable media kDriveRemovable.
KVOS_API int drive_type(int letter);

}  // namespace kvos
