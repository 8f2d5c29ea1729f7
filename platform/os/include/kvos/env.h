// Environment variables. Names are case-sensitive on this platform.
#pragma once

#include <string>

#include "kvos/export.h"

namespace kvos {

// True when the variable exists; its value goes to *value when value is not null.
[[nodiscard]] KVOS_API bool env_get(const char* name, std::string* value = nullptr);

// Sets (value not null) or removes (value null) a variable; false on failure.
// Changing a time-zone variable makes later local-time conversions follow it.
[[nodiscard]] KVOS_API bool env_set(const char* name, const char* value);

}  // namespace kvos
