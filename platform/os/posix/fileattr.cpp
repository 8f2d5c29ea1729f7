// File attributes on Linux.
#include "kvos/fileattr.h"

#include <sys/stat.h>
#include <unistd.h>

#include "kvos/drives.h"

namespace kvos {

uint32_t file_attributes(const std::string& dosPath) {
  std::string host;
  if (!dos_to_host(dosPath, host)) return kInvalidFileAttributes;
  struct stat st;
  if (stat(host.c_str(), &st) != 0) return kInvalidFileAttributes;
  uint32_t attributes = 0;
  if (S_ISDIR(st.st_mode)) attributes |= kFileAttributeDirectory;
  if (!S_ISDIR(st.st_mode) && access(host.c_str(), W_OK) != 0) attributes |= kFileAttributeReadOnly;
  const size_t slash = host.find_last_of('/');
  const std::string base = slash == std::string::npos ? host : host.substr(slash + 1);
  if (base.size() > 1 && base[0] == '.' && base != "..") attributes |= kFileAttributeHidden;
  return attributes == 0 ? kFileAttributeNormal : attributes;
}

}  // namespace kvos
