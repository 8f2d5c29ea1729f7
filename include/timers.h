// The process-wide monotonic microsecond clock and readings of it in other units.
#pragma once

#include <cstdint>

#include "KvExport.h"

// Microseconds since the first call in the process.
KVCORE_API uint64_t timer_us_large_int();
// The low 31 bits of timer_us_large_int(): wraps to 0 every 2^31 us (~35.8 minutes).
KVCORE_API long timer_us();
KVCORE_API long timer_ms();
KVCORE_API long timer_s();
KVCORE_API long timer_min();
KVCORE_API long timer_hr();
// Legacy ticks of 1/18.2 s to seconds.
KVCORE_API double TimerTicksToSeconds(long ticks);
