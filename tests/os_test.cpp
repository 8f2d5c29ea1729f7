// The OS boundary's clocks, time conversions, debugger stream, module and environment.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kvos/debugger.h"
#include "kvos/env.h"
#include "kvos/module.h"
#include "kvos/time.h"
#include "test_support.h"

namespace {

// Sets the time zone for a scope.
struct ZoneScope {
  explicit ZoneScope(const char* zone) : had(kvos::env_get("TZ", &old)) { EXPECT_TRUE(kvos::env_set("TZ", zone)); }
  ~ZoneScope() { EXPECT_TRUE(kvos::env_set("TZ", had ? old.c_str() : nullptr)); }
  std::string old;
  bool had;
};

}  // namespace

TEST(OsTime, DosPackingAndCalendarConversions) {
  // 0x4B2A6A4F: date 0x4B2A = 2017-09-10, time 0x6A4F = 13:18:30.
  int64_t ft = 0, again = 0;
  ASSERT_TRUE(kvos::dos_to_file_time(0x4B2A, 0x6A4F, ft) && kvos::calendar_to_file_time({2017, 9, 10, 13, 18, 30, 0}, again));
  EXPECT_EQ(ft, again);
  uint16_t date = 0, time = 0;
  // 0.9999999 s later packs the same; odd seconds fall to the even second below.
  for (const auto& [later, expected] : {std::pair{9999999LL, 0x6A4F}, {10000000LL, 0x6A4F}, {20000000LL, 0x6A50}}) {
    ASSERT_TRUE(kvos::file_time_to_dos(ft + later, date, time));
    EXPECT_EQ(date * 0x10000 + time, 0x4B2A0000 + expected) << later;
  }
  kvos::CalendarTime back;
  ASSERT_TRUE(kvos::calendar_to_file_time({2024, 2, 29, 23, 59, 58, 250}, ft) && kvos::file_time_to_calendar(ft, back));
  EXPECT_EQ((std::vector<int>{back.year, back.month, back.day, back.hour, back.minute, back.second, back.millisecond}),
            (std::vector<int>{2024, 2, 29, 23, 59, 58, 250}));
  ASSERT_TRUE(kvos::calendar_to_file_time({1970, 1, 1, 0, 0, 0, 0}, ft));
  EXPECT_TRUE(ft == kvos::kFileTimeUnixEpoch && kvos::unix_to_file_time(0) == kvos::kFileTimeUnixEpoch);
  EXPECT_FALSE(kvos::calendar_to_file_time({2020, 13, 1, 0, 0, 0, 0}, ft) || kvos::file_time_to_calendar(-1, back));
  // 31 February 2024, 29 February 2023, 30 February 2024: refused, not rolled into March.
  for (const uint16_t badDate : {0x585F, 0x565D, 0x585E}) EXPECT_FALSE(kvos::dos_to_file_time(badDate, 0, ft)) << badDate;
  ASSERT_TRUE(kvos::calendar_to_file_time({1979, 12, 31, 23, 59, 59, 0}, ft));
  EXPECT_FALSE(kvos::file_time_to_dos(ft, date, time)) << "DOS dates start in 1980";
}

TEST(OsTime, LocalTimeFollowsTheZoneRules) {
  KVTEST_POSIX_ONLY("Windows local time follows the system's zone settings, not TZ");
  ZoneScope zone("EST5EDT,M3.2.0,M11.1.0");
  // UTC noon in winter and in summer (with a sub-second part), and the zone's offset then.
  for (const auto& [month, fraction, hours] : {std::tuple{1, 0, 5}, {7, 1234567, 4}}) {
    int64_t utc = 0, local = 0, back = 0;
    ASSERT_TRUE(kvos::calendar_to_file_time({2023, month, 15, 12, 0, 0, 0}, utc));
    ASSERT_TRUE(kvos::file_time_to_local(utc + fraction, local) && kvos::local_to_file_time(local, back));
    EXPECT_EQ(utc + fraction - local, hours * 3600LL * 10000000) << month;
    EXPECT_EQ(back, utc + fraction) << "back again, sub-second parts included";
  }
}

namespace {
std::string g_written;
void capture(const char* text) { g_written += text; }
}  // namespace

TEST(OsDebugger, OutputGoesToTheInstalledWriterOrNowhere) {
  ASSERT_FALSE(kvos::debugger_present()) << "tests run without a debugger";
  testing::internal::CaptureStderr();
  kvos::debugger_output("dropped\n");
  kvos::debugger_break();  // no debugger: nothing happens
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  g_written.clear();
  EXPECT_EQ(kvos::set_debugger_writer(capture), nullptr);
  for (const char* text : {"one ", static_cast<const char*>(nullptr), "two\n"}) kvos::debugger_output(text);
  EXPECT_EQ(kvos::set_debugger_writer(nullptr), &capture);
  kvos::debugger_output("after\n");
  EXPECT_EQ(g_written, "one two\n");
}

TEST(OsEnv, SetGetRemove) {
  EXPECT_FALSE(kvos::env_get("KV_OS_TEST_VAR"));
  std::string value;
  ASSERT_TRUE(kvos::env_set("KV_OS_TEST_VAR", "v1"));
  EXPECT_TRUE(kvos::env_get("KV_OS_TEST_VAR", &value) && value == "v1") << value;
  EXPECT_EQ(kvos::env_get("kv_os_test_var"), kvtest::kWindows) << "names are case-sensitive on Linux only";
  ASSERT_TRUE(kvos::env_set("KV_OS_TEST_VAR", nullptr));
  EXPECT_FALSE(kvos::env_get("KV_OS_TEST_VAR") || kvos::env_set("BAD=NAME", "x") || kvos::env_set("", "x"));
}
