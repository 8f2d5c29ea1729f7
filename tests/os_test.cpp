// The OS boundary's clocks, time conversions, debugger stream, module and environment.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>

#include "kvos/debugger.h"
#include "kvos/env.h"
#include "kvos/module.h"
#include "kvos/time.h"

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

TEST(OsTime, DosPackingMatchesTheClassicLayout) {
  // 0x4B2A6A4F: date 0x4B2A = 2017-09-10, time 0x6A4F = 13:18:30.
  int64_t ft = 0;
  ASSERT_TRUE(kvos::dos_to_file_time(0x4B2A, 0x6A4F, ft));
  kvos::CalendarTime c;
  ASSERT_TRUE(kvos::file_time_to_calendar(ft, c));
  EXPECT_EQ(c.year, 2017);
  EXPECT_EQ(c.month, 9);
  EXPECT_EQ(c.day, 10);
  EXPECT_EQ(c.hour, 13);
  EXPECT_EQ(c.minute, 18);
  EXPECT_EQ(c.second, 30);
  uint16_t date = 0, time = 0;
  ASSERT_TRUE(kvos::file_time_to_dos(ft + 9999999, date, time)) << "0.9999999 s later packs the same";
  EXPECT_EQ(date, 0x4B2A);
  EXPECT_EQ(time, 0x6A4F);
  ASSERT_TRUE(kvos::file_time_to_dos(ft + 10000000, date, time));
  EXPECT_EQ(time, 0x6A4F) << "odd seconds fall to the even second below";
  ASSERT_TRUE(kvos::file_time_to_dos(ft + 20000000, date, time));
  EXPECT_EQ(time, 0x6A50);
}

TEST(OsTime, CalendarConversionsRoundTripAndRejectNonsense) {
  kvos::CalendarTime leap{2024, 2, 29, 23, 59, 58, 250};
  int64_t ft = 0;
  ASSERT_TRUE(kvos::calendar_to_file_time(leap, ft));
  kvos::CalendarTime back;
  ASSERT_TRUE(kvos::file_time_to_calendar(ft, back));
  EXPECT_EQ(back.year, 2024);
  EXPECT_EQ(back.month, 2);
  EXPECT_EQ(back.day, 29);
  EXPECT_EQ(back.second, 58);
  EXPECT_EQ(back.millisecond, 250);
  EXPECT_EQ(kvos::unix_to_file_time(0), kvos::kFileTimeUnixEpoch);
  kvos::CalendarTime epoch{1970, 1, 1, 0, 0, 0, 0};
  ASSERT_TRUE(kvos::calendar_to_file_time(epoch, ft));
  EXPECT_EQ(ft, kvos::kFileTimeUnixEpoch);

  kvos::CalendarTime bad{2020, 13, 1, 0, 0, 0, 0};
  EXPECT_FALSE(kvos::calendar_to_file_time(bad, ft));
  uint16_t d, t;
  kvos::CalendarTime early{1979, 12, 31, 23, 59, 59, 0};
  ASSERT_TRUE(kvos::calendar_to_file_time(early, ft));
  EXPECT_FALSE(kvos::file_time_to_dos(ft, d, t)) << "DOS dates start in 1980";
  EXPECT_FALSE(kvos::file_time_to_calendar(-1, back));
}

TEST(OsTime, LocalTimeFollowsTheZoneRules) {
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

TEST(OsTime, LocalNowAgreesWithTheSystemClock) {
  ZoneScope zone("UTC0");
  const kvos::CalendarTime now = kvos::local_time_now();
  int64_t ft = 0;
  ASSERT_TRUE(kvos::calendar_to_file_time(now, ft));
  EXPECT_LT(std::llabs(ft - kvos::system_file_time()), 20000000LL);
  EXPECT_LT(std::llabs(ft - kvos::unix_to_file_time(std::time(nullptr))), 20000000LL);
}

TEST(OsTime, CountersMoveForward) {
  EXPECT_EQ(kvos::perf_frequency(), 1000000000u);
  const uint64_t a = kvos::perf_counter();
  const uint32_t t0 = kvos::tick_count_ms();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const uint64_t b = kvos::perf_counter();
  EXPECT_GE(b - a, 19000000u);
  EXPECT_LT(b - a, 2000000000u);
  EXPECT_GE(static_cast<uint32_t>(kvos::tick_count_ms() - t0), 19u);
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

TEST(OsModule, ExecutableIsThisProgram) {
  const std::string path = kvos::executable_path();
  ASSERT_FALSE(path.empty());
  EXPECT_EQ(path[0], '/');
  EXPECT_NE(path.find("os_test"), std::string::npos) << path;
  EXPECT_NE(kvos::executable_module(), nullptr);
}

TEST(OsEnv, SetGetRemove) {
  EXPECT_FALSE(kvos::env_get("KV_OS_TEST_VAR"));
  ASSERT_TRUE(kvos::env_set("KV_OS_TEST_VAR", "v1"));
  std::string value;
  ASSERT_TRUE(kvos::env_get("KV_OS_TEST_VAR", &value));
  EXPECT_EQ(value, "v1");
  EXPECT_FALSE(kvos::env_get("kv_os_test_var")) << "names are case-sensitive";
  ASSERT_TRUE(kvos::env_set("KV_OS_TEST_VAR", nullptr));
  EXPECT_FALSE(kvos::env_get("KV_OS_TEST_VAR"));
  EXPECT_FALSE(kvos::env_set("BAD=NAME", "x"));
  EXPECT_FALSE(kvos::env_set("", "x"));
}
