// The running program on Windows: its module handle and GetModuleFileNameA.
#include <windows.h>

#include "kvos/module.h"

namespace kvos {

void* executable_module() { return GetModuleHandleA(nullptr); }

std::string executable_path() {
  std::string path(MAX_PATH, '\0');
  for (;;) {
    const DWORD n = GetModuleFileNameA(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (n == 0) return std::string();
    if (n < path.size()) return path.substr(0, n);
    path.resize(path.size() * 2);  // truncated: a longer path
    if (path.size() > 32768) return std::string();
  }
}

}  // namespace kvos
