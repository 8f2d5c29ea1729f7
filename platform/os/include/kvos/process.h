// The running process: its elapsed time.
#pragma once

#include <cstdint>

#include "kvos/export.h"

namespace kvos {

// Wall-clock milliseconds since the process started (since this library was
// loaded, which happens before the program's main).
KVOS_API uint64_t process_elapsed_ms();

}  // namespace kvos
