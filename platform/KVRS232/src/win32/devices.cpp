// Serial devices on Windows: the COM ports the system knows.
#include <windows.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kvrs232_win32.h"

namespace kvrs232 {

std::string default_device(int port) { return "\\\\.\\COM" + std::to_string(port); }

std::vector<int> existing_ports() {
  std::vector<int> ports;
  std::vector<char> names(1 << 16);
  for (;;) {
    const DWORD n = QueryDosDeviceA(nullptr, names.data(), static_cast<DWORD>(names.size()));
    if (n != 0) break;
    if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || names.size() >= (1u << 24)) return ports;
    names.resize(names.size() * 2);
  }
  // A list of zero-terminated names, ended by an empty one: "COM1", "LPT1", ...
  for (const char* name = names.data(); *name != '\0'; name += std::strlen(name) + 1) {
    if (_strnicmp(name, "COM", 3) != 0 || name[3] == '\0' || std::strlen(name + 3) > 6 ||
        std::strspn(name + 3, "0123456789") != std::strlen(name + 3))
      continue;
    const int port = std::atoi(name + 3);
    if (port >= 1) ports.push_back(port);
  }
  return ports;
}

}  // namespace kvrs232
