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

// Maps a drive letter (a..z, either case) to an absolute host directory; the
// drive's remembered working directory starts again at its root. False for
// another letter or a relative root. The directory need not exist yet.
[[nodiscard]] KVOS_API bool drive_map(int letter, const std::string& hostRoot);
// Removes a mapping; false when the letter was not mapped.
[[nodiscard]] KVOS_API bool drive_unmap(int letter);

// The host root of a drive; empty when the letter is not mapped.
KVOS_API std::string drive_root(int letter);

// Every mapped drive in letter order, as (lower-case letter, host root).
KVOS_API std::vector<std::pair<char, std::string>> drive_list();

// The entries of KVCORE_DRIVES that were ignored at load, each with the reason
// ("9=/x: not a drive letter"). Empty when the variable was absent or clean.
KVOS_API std::vector<std::string> drive_config_problems();

// The directory that "\\server\share" paths live below; empty for none. A
// relative directory clears it.
KVOS_API void network_root_set(const std::string& hostDir);
KVOS_API std::string network_root();

// DOS path to host path. Absolute, drive-relative ("c:x"), rooted ("\x") and
// relative texts are accepted, with "\" or "/" separators. "." and ".." are
// resolved, never above a drive's root. A component that does not exist as
// written is looked up in its directory ignoring case, then without trailing
// dots and spaces (as a name written on Windows is stored). False for an empty
// text, an unmapped drive, a pseudo-drive ("!:", "&:"), or a network path
// without a network root.
[[nodiscard]] KVOS_API bool dos_to_host(const std::string& dos, std::string& host);

// Host path to DOS path on the mapped drive with the longest matching root
// (relative host paths are taken from the working directory); a path below the
// network root, when that root is longer, becomes "\\server\share\...". False
// when no drive or network root holds it.
[[nodiscard]] KVOS_API bool host_to_dos(const std::string& host, std::string& dos);

// The drive holding the process's working directory ('a'..'z'), or 0 when the
// working directory lies on no mapped drive.
KVOS_API int drive_current();

// Makes a drive current by moving to its remembered working directory.
[[nodiscard]] KVOS_API bool drive_set_current(int letter);

// The working directory of a drive as DOS text ("c:\tmp"): the process's own
// for the current drive, the remembered one (initially the root, and the root
// again when the remembered directory has gone) for others. False for an
// unmapped letter.
[[nodiscard]] KVOS_API bool drive_getcwd(int letter, std::string& dos);

// Changes the process's working directory to a DOS directory; the drive that
// holds it becomes current, and the drive left behind remembers where it was.
[[nodiscard]] KVOS_API bool dos_chdir(const std::string& dos);

// The type of a drive, from the mount table: unmapped or missing roots are
// kDriveNoRoot, network file systems kDriveRemote, removable media kDriveRemovable.
KVOS_API int drive_type(int letter);

// The type of the existing host directory hostDir as the given mount table
// (the text of /proc/self/mounts) describes it: the mount with the longest
// mount point above the directory decides.
KVOS_API int mount_drive_type(const std::string& hostDir, const std::string& mountTable);

}  // namespace kvos
