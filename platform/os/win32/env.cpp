// Environment variables on Windows: the process's environment block, kept in
// step with the C run time's copy (getenv). Names ignore case here.
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "kvos/env.h"

namespace kvos {

bool env_get(const char* name, std::string* value) {
  if (name == nullptr || *name == '\0') return false;
  SetLastError(ERROR_SUCCESS);
  std::string buffer(256, '\0');
  DWORD n = GetEnvironmentVariableA(name, buffer.data(), static_cast<DWORD>(buffer.size()));
  if (n >= buffer.size()) {
    buffer.resize(n);
    n = GetEnvironmentVariableA(name, buffer.data(), static_cast<DWORD>(buffer.size()));
  }
  if (n == 0 && GetLastError() == ERROR_ENVVAR_NOT_FOUND) return false;
  if (value != nullptr) *value = buffer.substr(0, n);
  return true;
}

bool env_set(const char* name, const char* value) {
  if (name == nullptr || *name == '\0' || std::strchr(name, '=') != nullptr) return false;
  if (!SetEnvironmentVariableA(name, value)) return false;
  _putenv_s(name, value != nullptr ? value : "");  // an empty value removes it from the run time's copy
  if (_stricmp(name, "TZ") == 0) _tzset();
  return true;
}

}  // namespace kvos
