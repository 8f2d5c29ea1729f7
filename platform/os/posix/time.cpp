// Clocks and local time on Linux.
#include <ctime>

#include "kvos/time.h"

namespace kvos {
namespace {

constexpr int64_t kTicksPerSecond = 10000000;  // file-time units per second

int64_t floor_div(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

}  // namespace

uint64_t perf_counter() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t perf_frequency() { return 1000000000ULL; }

uint32_t tick_count_ms() {
  timespec ts;
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000ULL +
                               static_cast<uint64_t>(ts.tv_nsec) / 1000000ULL);
}

int64_t system_file_time() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return unix_to_file_time(ts.tv_sec, ts.tv_nsec);
}

CalendarTime local_time_now() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  tm t{};
  localtime_r(&ts.tv_sec, &t);
  CalendarTime c;
  c.year = t.tm_year + 1900;
  c.month = t.tm_mon + 1;
  c.day = t.tm_mday;
  c.hour = t.tm_hour;
  c.minute = t.tm_min;
  c.second = t.tm_sec > 59 ? 59 : t.tm_sec;
  c.millisecond = static_cast<int>(ts.tv_nsec / 1000000);
  return c;
}

bool file_time_to_local(int64_t utc, int64_t& local) {
  if (utc < 0) return false;
  const int64_t unixTicks = utc - kFileTimeUnixEpoch;
  const time_t seconds = static_cast<time_t>(floor_div(unixTicks, kTicksPerSecond));
  tm t{};
  if (localtime_r(&seconds, &t) == nullptr) return false;
  local = utc + static_cast<int64_t>(t.tm_gmtoff) * kTicksPerSecond;
  return local >= 0;
}

bool local_to_file_time(int64_t local, int64_t& utc) {
  CalendarTime c;
  if (!file_time_to_calendar(local, c)) return false;
  tm t{};
  t.tm_year = c.year - 1900;
  t.tm_mon = c.month - 1;
  t.tm_mday = c.day;
  t.tm_hour = c.hour;
  t.tm_min = c.minute;
  t.tm_sec = c.second;
  t.tm_isdst = -1;
  const time_t seconds = mktime(&t);
  if (seconds == static_cast<time_t>(-1) && c.year > 1970) return false;
  const int64_t unixTicks = local - kFileTimeUnixEpoch;
  const int64_t subSecond = unixTicks - floor_div(unixTicks, kTicksPerSecond) * kTicksPerSecond;
  utc = unix_to_file_time(seconds) + subSecond;
  return utc >= 0;
}

}  // namespace kvos
