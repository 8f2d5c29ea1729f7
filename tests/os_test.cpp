// The OS boundary's clocks, time conversions, debugger stream, module and environment.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "kvos/debugger.h"
#include "kvos/env.h"
#include "kvos/module.h"
#include "kvos/time.h"
#include "test_support.h"

namespace {

// Sets the time zone for a scope.
class ZoneScope {
 public:
  explicit ZoneScope(const char* zone) {
    had_ = kvos::env_get("TZ", &old_);
    kvos::env_set("TZ", zone);
  }
  ~ZoneScope() { kvos::env_set("TZ", had_ ? old_.c_str() : nullptr); }

 private:
  bool had_;
  std::string old_;
};

}  // namespace

TEST(OsTime, DosPackingAndCalendarConversions) {
  // 0x4B2A6A4F: date 0x4B2A = 2017-09-10, time 0x6A4F = 13:18:30.
  int64_t ft = 0, again = 0;
  ASSERT_TRUE(kvos::dos_to_file_time(0x4B2A, 0x6A4F, ft));
  ASSERT_TRUE(kvos::calendar_to_file_time({2017, 9, 10, 13, 18, 30, 0}, again));
  EXPECT_EQ(ft, again);
  const std::pair<int64_t, uint16_t> packed[] = {
      {9999999, 0x6A4F},   // 0.9999999 s later packs the same
      {10000000, 0x6A4F},  // odd seconds fall to the even second below
      {20000000, 0x6A50}};
  for (const auto& [later, expected] : packed) {
    uint16_t date = 0, time = 0;
    ASSERT_TRUE(kvos::file_time_to_dos(ft + later, date, time));
    EXPECT_EQ(date, 0x4B2A);
    EXPECT_EQ(time, expected) << later;
  }
  kvos::CalendarTime back;
  ASSERT_TRUE(kvos::calendar_to_file_time({2024, 2, 29, 23, 59, 58, 250}, ft));
  ASSERT_TRUE(kvos::file_time_to_calendar(ft, back));
  EXPECT_EQ((std::vector<int>{back.year, back.month, back.day, back.hour, back.minute, back.second, back.millisecond}),
            (std::vector<int>{2024, 2, 29, 23, 59, 58, 250}));
  ASSERT_TRUE(kvos::calendar_to_file_time({1970, 1, 1, 0, 0, 0, 0}, ft));
  EXPECT_EQ(ft, kvos::kFileTimeUnixEpoch);
  EXPECT_EQ(kvos::unix_to_file_time(0), kvos::kFileTimeUnixEpoch);
  EXPECT_FALSE(kvos::calendar_to_file_time({2020, 13, 1, 0, 0, 0, 0}, ft));
  uint16_t d, t;
  ASSERT_TRUE(kvos::calendar_to_file_time({1979, 12, 31, 23, 59, 59, 0}, ft));
  EXPECT_FALSE(kvos::file_time_to_dos(ft, d, t)) << "DOS dates start in 1980";
  EXPECT_FALSE(kvos::file_time_to_calendar(-1, back));
}

TEST(OsTime, LocalTimeFollowsTheZoneRules) {
  KVTEST_POSIX_ONLY("Windows local time follows the system's zone settings, not TZ");
  ZoneScope zone("EST5EDT,M3.2.0,M11.1.0");
  int64_t winterUtc = 0, summerUtc = 0, local = 0, utc = 0;
  ASSERT_TRUE(kvos::calendar_to_file_time({2023, 1, 15, 12, 0, 0, 0}, winterUtc));
  ASSERT_TRUE(kvos::calendar_to_file_time({2023, 7, 15, 12, 0, 0, 0}, summerUtc));
  ASSERT_TRUE(kvos::file_time_to_local(winterUtc, local));
  EXPECT_EQ(winterUtc - local, 5LL * 3600 * 10000000);
  ASSERT_TRUE(kvos::local_to_file_time(local, utc));
  EXPECT_EQ(utc, winterUtc);
  ASSERT_TRUE(kvos::file_time_to_local(summerUtc + 1234567, local));
  EXPECT_EQ(summerUtc + 1234567 - local, 4LL * 3600 * 10000000);
  ASSERT_TRUE(kvos::local_to_file_time(local, utc));
  EXPECT_EQ(utc, summerUtc + 1234567) << "sub-second parts survive";
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
  kvos::debugger_output("one ");
  kvos::debugger_output(nullptr);
  kvos::debugger_output("two\n");
  EXPECT_EQ(kvos::set_debugger_writer(nullptr), &capture);
  kvos::debugger_output("after\n");
  EXPECT_EQ(g_written, "one two\n");
}

TEST(OsEnv, SetGetRemove) {
  EXPECT_FALSE(kvos::env_get("KV_OS_TEST_VAR"));
  ASSERT_TRUE(kvos::env_set("KV_OS_TEST_VAR", "v1"));
  std::string value;
  EXPECT_TRUE(kvos::env_get("KV_OS_TEST_VAR", &value) && value == "v1");
  EXPECT_EQ(kvos::env_get("kv_os_test_var"), kvtest::kWindows) << "names are case-sensitive on Linux only";
  ASSERT_TRUE(kvos::env_set("KV_OS_TEST_VAR", nullptr));
  EXPECT_FALSE(kvos::env_get("KV_OS_TEST_VAR"));
  EXPECT_FALSE(kvos::env_set("BAD=NAME", "x"));
  EXPECT_FALSE(kvos::env_set("", "x"));
}
