// Calendar and DOS date/time arithmetic on file times (no zones, no clocks).
#include "kvos/time.h"

#include <chrono>

namespace kvos {
namespace {

constexpr int64_t kTicksPerSecond = 10000000;  // file-time units per second
constexpr int64_t kSecondsPerDay = 86400;

// Days since 1970-01-01 of a proleptic Gregorian date.
int64_t days_from_civil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void civil_from_days(int64_t z, int& y, int& m, int& d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  y = static_cast<int>(static_cast<int64_t>(yoe) + era * 400 + (m <= 2));
}

int64_t floor_div(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

// A real date (no 31 February, 29 February only in leap years) and time of day.
bool valid_calendar(const CalendarTime& c) {
  using std::chrono::day, std::chrono::month, std::chrono::year, std::chrono::year_month_day;
  // The range check first: the chrono types keep only the low bits of what they are given.
  if (c.month < 1 || c.month > 12 || c.day < 1 || c.day > 31 || c.year < 1601 || c.year > 30827) return false;
  if (!year_month_day{year{c.year}, month{static_cast<unsigned>(c.month)}, day{static_cast<unsigned>(c.day)}}.ok())
    return false;
  if (c.hour < 0 || c.hour > 23 || c.minute < 0 || c.minute > 59) return false;
  return c.second >= 0 && c.second <= 59 && c.millisecond >= 0 && c.millisecond <= 999;
}

}  // namespace

bool file_time_to_calendar(int64_t fileTime, CalendarTime& out) {
  if (fileTime < 0) return false;
  const int64_t unixTicks = fileTime - kFileTimeUnixEpoch;
  const int64_t seconds = floor_div(unixTicks, kTicksPerSecond);
  const int64_t days = floor_div(seconds, kSecondsPerDay);
  const int64_t secOfDay = seconds - days * kSecondsPerDay;
  CalendarTime c;
  civil_from_days(days, c.year, c.month, c.day);
  c.hour = static_cast<int>(secOfDay / 3600);
  c.minute = static_cast<int>(secOfDay / 60 % 60);
  c.second = static_cast<int>(secOfDay % 60);
  c.millisecond = static_cast<int>((unixTicks - seconds * kTicksPerSecond) / 10000);
  out = c;
  return true;
}

bool calendar_to_file_time(const CalendarTime& in, int64_t& fileTime) {
  if (!valid_calendar(in)) return false;
  const int64_t days = days_from_civil(in.year, static_cast<unsigned>(in.month),
                                       static_cast<unsigned>(in.day));
  const int64_t seconds = days * kSecondsPerDay + in.hour * 3600 + in.minute * 60 + in.second;
  fileTime = seconds * kTicksPerSecond + in.millisecond * 10000LL + kFileTimeUnixEpoch;
  return fileTime >= 0;
}

bool file_time_to_dos(int64_t fileTime, uint16_t& dosDate, uint16_t& dosTime) {
  CalendarTime c;
  if (!file_time_to_calendar(fileTime, c)) return false;
  if (c.year < 1980 || c.year > 2107) return false;
  dosDate = static_cast<uint16_t>(((c.year - 1980) << 9) | (c.month << 5) | c.day);
  dosTime = static_cast<uint16_t>((c.hour << 11) | (c.minute << 5) | (c.second / 2));
  return true;
}

bool dos_to_file_time(uint16_t dosDate, uint16_t dosTime, int64_t& fileTime) {
  CalendarTime c;
  c.year = 1980 + (dosDate >> 9);
  c.month = (dosDate >> 5) & 0x0F;
  c.day = dosDate & 0x1F;
  c.hour = dosTime >> 11;
  c.minute = (dosTime >> 5) & 0x3F;
  c.second = (dosTime & 0x1F) * 2;
  return calendar_to_file_time(c, fileTime);
}

}  // namespace kvos
