// file_timestamp: a local date and time packed the DOS way, as stored for
// file times on disk and in dumps: (DOS date << 16) | DOS time.
#pragma once

#include <cstdint>

struct file_timestamp {
  uint16_t time = 0;  // hour << 11 | minute << 5 | second / 2
  uint16_t date = 0;  // (year - 1980) << 9 | month << 5 | day

  file_timestamp() = default;
  explicit file_timestamp(uint64_t packedValue)
      : time(static_cast<uint16_t>(packedValue & 0xFFFF)),
        date(static_cast<uint16_t>((packedValue >> 16) & 0xFFFF)) {}

  uint64_t packed() const { return (static_cast<uint64_t>(date) << 16) | time; }

  int year() const { return 1980 + (date >> 9); }
  int month() const { return (date >> 5) & 0x0F; }
  int day() const { return date & 0x1F; }
  int hour() const { return time >> 11; }
  int minute() const { return (time >> 5) & 0x3F; }
  int second() const { return (time & 0x1F) * 2; }

  bool operator==(const file_timestamp& other) const { return packed() == other.packed(); }
  bool operator!=(const file_timestamp& other) const { return !(*this == other); }
};
