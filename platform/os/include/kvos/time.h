// Clocks and time conversions: a monotonic high-resolution counter, the
// system time in 100 ns units since 1601 (a "file time"), local time, and the
// packed DOS date/time used for file times on disk.
#pragma once

#include <cstdint>

#include "kvos/export.h"

namespace kvos {

// High-resolution monotonic counter and its frequency in counts per second.
KVOS_API uint64_t perf_counter();
KVOS_API uint64_t perf_frequency();

// Milliseconds since the system started (wraps at 2^32 like a tick count).
KVOS_API uint32_t tick_count_ms();

// Current UTC time as a file time (100 ns units since 1601-01-01).
KVOS_API int64_t system_file_time();

// A broken-down calendar time.
struct CalendarTime {
  int year = 0;
  int month = 0;    // 1..12
  int day = 0;      // 1..31
  int hour = 0;     // 0..23
  int minute = 0;   // 0..59
  int second = 0;   // 0..59
  int millisecond = 0;
};

// Current local time.
KVOS_API CalendarTime local_time_now();

// File time <-> calendar time (pure arithmetic, no zone). False when out of range.
[[nodiscard]] KVOS_API bool file_time_to_calendar(int64_t fileTime, CalendarTime& out);
[[nodiscard]] KVOS_API bool calendar_to_file_time(const CalendarTime& in, int64_t& fileTime);

// UTC file time <-> local file time, using the zone rules in force at that time.
[[nodiscard]] KVOS_API bool file_time_to_local(int64_t utc, int64_t& local);
[[nodiscard]] KVOS_API bool local_to_file_time(int64_t local, int64_t& utc);

// File time <-> packed DOS date and time. DOS dates cover 1980..2107 and keep
// seconds in steps of two; out-of-range times fail.
[[nodiscard]] KVOS_API bool file_time_to_dos(int64_t fileTime, uint16_t& dosDate, uint16_t& dosTime);
[[nodiscard]] KVOS_API bool dos_to_file_time(uint16_t dosDate, uint16_t dosTime, int64_t& fileTime);

// Host seconds since 1970 <-> file time.
constexpr int64_t kFileTimeUnixEpoch = 116444736000000000LL;
constexpr int64_t unix_to_file_time(int64_t seconds, int64_t nanoseconds = 0) {
  return seconds * 10000000LL + nanoseconds / 100 + kFileTimeUnixEpoch;
}

}  // namespace kvos
