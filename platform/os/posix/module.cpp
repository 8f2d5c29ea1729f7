// The running program on Linux: /proc/self/exe and the main program's dl handle.
#include "kvos/module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>

namespace kvos {

void* executable_module() {
  static void* const handle = dlopen(nullptr, RTLD_LAZY | RTLD_NOLOAD);
  return handle;
}

std::string executable_path() {
  char buffer[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return std::string();
  return std::string(buffer, static_cast<size_t>(n));
}

}  // namespace kvos
