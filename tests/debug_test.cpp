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

namespace {

constexpr uint32_t kDebugBit = 16;

std::string logger_of(DebugType type) { return "Korvalis." + DebugManager::DebugFlagString(type); }

}  // namespace

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
  const std::string name = logger_of(dbgEngage);
  service->SetSeverityFilters(name, 0x0000A003u);
  DebugManager::DebugFlagSet(dbgEngage, true);
  EXPECT_EQ(service->GetSeverityFilters(name), 0x0000A013u);
  DebugManager::DebugFlagSet(dbgEngage, false);
  EXPECT_EQ(service->GetSeverityFilters(name), 0x0000A003u);
  EXPECT_FALSE(DebugManager::DebugFlagTest(dbgEngage));
  service->SetSeverityFilters(logger_of(dbgFan), kDebugBit);  // a bit set there is seen here
  EXPECT_TRUE(DebugManager::DebugFlagTest(dbgFan));
  service->SetSeverityFilters(logger_of(dbgFan), Zub::Core::LogManager::kDefaultFilters);

  const auto bad = static_cast<DebugType>(57);  // out of range: ignored
  DebugManager::DebugFlagSet(bad, true);
  EXPECT_FALSE(DebugManager::DebugFlagTest(bad));
  EXPECT_FALSE(DebugManager::DebugFlagTest(static_cast<DebugType>(1000)));
  kvtest::CaptureSink sink;
  EXPECT_EQ(Debug(bad, "x%d\n", 1), -1);
  EXPECT_TRUE(sink.entries().empty());
}

TEST(DebugOutput, OnlySwitchedOnOutputCategoriesWrite) {
  kvtest::CaptureSink sink;
  EXPECT_EQ(Debug("off %d\n", 1), -1);
  EXPECT_EQ(Debug(dbgMotion, "off %d\n", 2), -1);
  {
    kvtest::CategoryScope motion(dbgMotion);
    kvtest::CategoryScope a(dbgA);
    kvtest::CategoryScope stage(dbgStage);
    EXPECT_EQ(Debug(dbgMotion, "moved %d um\n", 5), -1);
    EXPECT_EQ(Debug("plain %s\n", "A"), -1);
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
    EXPECT_EQ(Debug(type, "category %d\n", t), -1);
  }
  const auto entries = sink.entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].logger, "Korvalis.Motion");
  EXPECT_EQ(entries[0].severity, 4);
  EXPECT_EQ(entries[0].text, "moved 5 um\n");
  EXPECT_EQ(entries[1].logger, "Korvalis.A");
  EXPECT_EQ(entries[1].text, "plain A\n");
  EXPECT_EQ(entries[2].text, "verbose and true\n");
}

TEST(DebugOutput, WithoutALoggingServiceNothingHappens) {
  kvtest::CategoryScope csl(dbgCSL);
  kvtest::CaptureSink sink;
  Zub::Core::LogManager* original = Zub::Core::LogManager::Install(nullptr);
  EXPECT_EQ(Debug(dbgCSL, "nowhere\n"), -1);
  DebugManager::DebugFlagSet(dbgCSL, false);
  EXPECT_FALSE(DebugManager::DebugFlagTest(dbgCSL));
  EXPECT_EQ(DebugManager::DebugOutput(dbgCSL, "direct\n", nullptr), -1);
  Zub::Core::LogManager::Install(original);
  EXPECT_TRUE(DebugManager::DebugFlagTest(dbgCSL)) << "the missing service changed nothing";
  EXPECT_TRUE(sink.entries().empty());
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

TEST(DebugOutput, AServiceBuiltWhereAnOldOneWasGetsItsOwnLoggers) {
  // Two services in turn at one address: the second must not see the first's loggers.
  alignas(Zub::Core::LogManager) unsigned char storage[sizeof(Zub::Core::LogManager)];
  struct Sink : Zub::Core::LogSink {
    std::string text;
    void Write(const std::string&, int, const std::string& t) override { text += t; }
  } first, second;
  for (Sink* sink : {&first, &second}) {
    auto* service = new (storage) Zub::Core::LogManager();
    service->AddSink(sink);
    Zub::Core::LogManager* original = Zub::Core::LogManager::Install(service);
    DebugManager::DebugFlagSet(dbgVision, true);
    Debug(dbgVision, "%s\n", sink == &first ? "one" : "two");
    Zub::Core::LogManager::Install(original);
    service->~LogManager();
  }
  EXPECT_EQ(first.text, "one\n");
  EXPECT_EQ(second.text, "two\n");
}
