// The running process: its elapsed time, and ending it at once.
#pragma once

#include <cstdint>

#include "kvos/export.h"

namespace kvos {

// Wall-clock milliseconds since the process started (since this library was
// loaded, which happens before the program's main).
KVOS_API uint64_t process_elapsed_ms();

// Ends the process at once with the given exit status: no exit handler and no
// destructor runs and no buffered output is flushed, as when the process is
// killed. What was already handed to the system (written files) stays.
[[noreturn]] KVOS_API void process_terminate_now(int status);

}  // namespace kvos
