// The running program: its module handle and its executable file.
#pragma once

#include <string>

#include "kvos/export.h"

namespace kvos {

// Handle of the host executable (never null).
KVOS_API void* executable_module();

// Host path of the running executable; empty when it cannot be read.
KVOS_API std::string executable_path();

}  // namespace kvos
