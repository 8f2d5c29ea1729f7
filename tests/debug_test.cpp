// Debug categories and categorised output.
#include <gtest/gtest.h>
#include <sched.h>

#include <array>
#include <atomic>
#include <set>
#include <sstream>
#include <thread>

#include "DebugManager.h"
#include "test_support.h"

using CSL::DebugManager;

TEST(DebugCategories, NamesAreFixedByValueAndFlagsLiveInTheLoggingService) {
  const std::pair<int, const char*> names[] = {{dbgNever, "Never"}, {dbgA, "A"}, {dbg6811, "6811"}, {dbgCSL, "CSL"},
                                               {dbgHeapDump, "HeapDump"}, {dbgThruput_dbg, "Thruput_dbg"},
                                               {dbgTimer, "Timer"}, {dbgZoom, "Zoom"}, {52, "TimeStamp"},
                                               {56, "LogDebugAll"}, {57, ""}, {-1, ""}};
  for (const auto& [type, name] : names) EXPECT_EQ(DebugManager::DebugFlagString(static_cast<DebugType>(type)), name);
  std::set<std::string> all;
  for (int t = 0; t < DebugTypeCount; ++t) all.insert(DebugManager::DebugFlagString(static_cast<DebugType>(t)));
  EXPECT_EQ(all.size(), 57u);
  EXPECT_EQ(all.count(""), 0u);

  // Switching a category changes only the debug bit of its logger's filters.
  Zub::Core::LogManager* service = Zub::Core::LogManager::Instance();
  service->SetSeverityFilters("Korvalis.Engage", 0x0000A003u);
  DebugManager::DebugFlagSet(dbgEngage, true);
  EXPECT_EQ(service->GetSeverityFilters("Korvalis.Engage"), 0x0000A013u);
  DebugManager::DebugFlagSet(dbgEngage, false);
  EXPECT_EQ(service->GetSeverityFilters("Korvalis.Engage"), 0x0000A003u);
  EXPECT_FALSE(DebugManager::DebugFlagTest(dbgEngage));
  service->SetSeverityFilters("Korvalis.Fan", 16u);  // a bit set there is seen here
  EXPECT_TRUE(DebugManager::DebugFlagTest(dbgFan));
  service->SetSeverityFilters("Korvalis.Fan", Zub::Core::LogManager::kDefaultFilters);

  const auto bad = static_cast<DebugType>(57);  // out of range: ignored
  DebugManager::DebugFlagSet(bad, true);
  EXPECT_FALSE(DebugManager::DebugFlagTest(bad));
  EXPECT_FALSE(DebugManager::DebugFlagTest(static_cast<DebugType>(1000)));
}

TEST(DebugOutput, OnlySwitchedOnOutputCategoriesWriteAndOnlyThroughAService) {
  kvtest::CaptureSink sink;
  Debug("off %d\n", 1);
  Debug(dbgMotion, "off %d\n", 2);
  Debug(static_cast<DebugType>(57), "out of range\n");
  {
    kvtest::CategoryScope motion(dbgMotion), a(dbgA), stage(dbgStage);
    EXPECT_EQ(Debug(dbgMotion, "moved %d um\n", 5), -1);
    Debug("plain %s\n", "A");
    Debug(dbgStage, 1, "no verbose\n");  // the conditional form needs Verbose and its condition
    kvtest::CategoryScope verbose(dbgVerbose);
    Debug(dbgStage, 0, "condition false\n");
    Debug(dbgStage, 7, "verbose %s\n", "and true");
    Debug(dbgSMIF, 1, "category off\n");
  }
  for (int t : {0, 52, 53, 54, 55, 56}) {  // Never and the switch categories are dropped even when set
    const auto type = static_cast<DebugType>(t);
    kvtest::CategoryScope on(type);
    EXPECT_TRUE(DebugManager::DebugFlagTest(type));
    Debug(type, "category %d\n", t);
  }
  std::string seen;
  for (const auto& e : sink.entries()) seen += e.logger + " " + std::to_string(e.severity) + " " + e.text;
  EXPECT_EQ(seen, "Korvalis.Motion 4 moved 5 um\nKorvalis.A 4 plain A\nKorvalis.Stage 4 verbose and true\n");

  // Without a logging service nothing happens; a new service at an old one's address gets loggers of its own.
  kvtest::CategoryScope csl(dbgCSL);
  sink.clear();
  Zub::Core::LogManager* original = Zub::Core::LogManager::Install(nullptr);
  Debug(dbgCSL, "nowhere\n");
  DebugManager::DebugFlagSet(dbgCSL, false);
  EXPECT_FALSE(DebugManager::DebugFlagTest(dbgCSL));
  DebugManager::DebugOutput(dbgCSL, "direct\n", nullptr);
  alignas(Zub::Core::LogManager) unsigned char storage[sizeof(Zub::Core::LogManager)];
  for (const char* text : {"one\n", "two\n"}) {
    Zub::Core::LogManager::Install(new (storage) Zub::Core::LogManager());
    {
      kvtest::CaptureSink own;
      DebugManager::DebugFlagSet(dbgVision, true);
      Debug(dbgVision, "%s", text);
      EXPECT_EQ(own.text(), text);
    }
    Zub::Core::LogManager::Install(nullptr)->~LogManager();
  }
  Zub::Core::LogManager::Install(original);
  EXPECT_TRUE(DebugManager::DebugFlagTest(dbgCSL)) << "the missing service changed nothing";
  Debug(dbgCSL, "back\n");
  EXPECT_EQ(sink.text(), "back\n");
}

namespace {

// Appends characters one at a time with a pause between them, so that two
// writes that overlapped would mix their characters.
class SlowSink : public Zub::Core::LogSink {
 public:
  void Write(const std::string&, int, const std::string& text) override {
    for (char c : text) {
      buffer_[next_.fetch_add(1)].store(c);
      sched_yield();
    }
  }
  std::string contents() const {
    std::string s;
    for (size_t i = 0; i < next_.load(); ++i) s += buffer_[i].load();
    return s;
  }

 private:
  std::array<std::atomic<char>, 1 << 16> buffer_{};
  std::atomic<size_t> next_{0};
};

}  // namespace

TEST(DebugOutput, LinesFromFourThreadsNeverInterleave) {
  auto sink = std::make_unique<SlowSink>();
  Zub::Core::LogManager::Instance()->AddSink(sink.get());
  kvtest::CategoryScope on(dbgTCPIP);
  constexpr int kLines = 100;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) Debug(dbgTCPIP, "thread %d line %03d %s\n", t, i, "abcdefghij");
    });
  }
  for (auto& th : threads) th.join();
  Zub::Core::LogManager::Instance()->RemoveSink(sink.get());

  std::istringstream lines(sink->contents());
  std::string line;
  int count[4] = {0, 0, 0, 0};
  while (std::getline(lines, line)) {
    int t = -1, i = -1;
    char tail[16] = {};
    ASSERT_EQ(std::sscanf(line.c_str(), "thread %d line %d %15s", &t, &i, tail), 3) << line;
    ASSERT_TRUE(t >= 0 && t < 4) << line;
    EXPECT_EQ(i, count[t]) << line;
    EXPECT_STREQ(tail, "abcdefghij") << line;
    EXPECT_EQ(line.size(), std::string("thread 0 line 000 abcdefghij").size()) << line;
    ++count[t];
  }
  for (int t = 0; t < 4; ++t) EXPECT_EQ(count[t], kLines);
}
