// Clocks and local time on Windows: the performance counter, the tick count,
// the system time as a FILETIME, and the system's time-zone rules.
#include <windows.h>

#include "filetime.h"
#include "kvos/time.h"

namespace kvos {
namespace {

using win32::from_filetime;
using win32::to_filetime;

constexpr int64_t kTicksPerMillisecond = 10000;  // file-time units

// Converts between UTC and local time through SYSTEMTIME (whole milliseconds),
// carrying the part below a millisecond across unchanged.
template <typename Convert>
bool convert_zone(int64_t in, int64_t& out, Convert convert) {
  if (in < 0) return false;
  const FILETIME ft = to_filetime(in - in % kTicksPerMillisecond);
  SYSTEMTIME from, to;
  FILETIME result;
  if (!FileTimeToSystemTime(&ft, &from) || !convert(&from, &to) || !SystemTimeToFileTime(&to, &result)) return false;
  out = from_filetime(result) + in % kTicksPerMillisecond;
  return out >= 0;
}

}  // namespace

uint64_t perf_counter() {
  LARGE_INTEGER value;
  QueryPerformanceCounter(&value);
  return static_cast<uint64_t>(value.QuadPart);
}

uint64_t perf_frequency() {
  LARGE_INTEGER value;
  QueryPerformanceFrequency(&value);
  return static_cast<uint64_t>(value.QuadPart);
}

uint32_t tick_count_ms() { return GetTickCount(); }

int64_t system_file_time() {
  FILETIME ft;
  GetSystemTimePreciseAsFileTime(&ft);
  return from_filetime(ft);
}

CalendarTime local_time_now() {
  SYSTEMTIME st;
  GetLocalTime(&st);
  CalendarTime c;
  c.year = st.wYear;
  c.month = st.wMonth;
  c.day = st.wDay;
  c.hour = st.wHour;
  c.minute = st.wMinute;
  c.second = st.wSecond;
  c.millisecond = st.wMilliseconds;
  return c;
}

bool file_time_to_local(int64_t utc, int64_t& local) {
  return convert_zone(utc, local, [](const SYSTEMTIME* in, SYSTEMTIME* out) {
    return SystemTimeToTzSpecificLocalTime(nullptr, in, out) != 0;
  });
}

bool local_to_file_time(int64_t local, int64_t& utc) {
  return convert_zone(local, utc, [](const SYSTEMTIME* in, SYSTEMTIME* out) {
    return TzSpecificLocalTimeToSystemTime(nullptr, in, out) != 0;
  });
}

}  // namespace kvos
