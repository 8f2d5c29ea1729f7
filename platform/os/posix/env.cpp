// Environment variables on Linux.
#include "kvos/env.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

namespace kvos {

bool env_get(const char* name, std::string* value) {
  if (name == nullptr || *name == '\0') return false;
  const char* v = std::getenv(name);
  if (v == nullptr) return false;
  if (value != nullptr) *value = v;
  return true;
}

bool env_set(const char* name, const char* value) {
  if (name == nullptr || *name == '\0' || std::strchr(name, '=') != nullptr) return false;
  const int rc = value != nullptr ? setenv(name, value, 1) : unsetenv(name);
  if (rc != 0) return false;
  if (std::strcmp(name, "TZ") == 0 || std::strcmp(name, "tz") == 0) tzset();
  return true;
}

}  // namespace kvos
