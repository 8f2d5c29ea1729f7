// Stack dumps: a known call chain walked and named through the map file that
// kvtool writes at build time, the nesting limit, a broken chain, the map
// reader, dump.tab with its trailers, and the offline translation by kvtool.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "StackWriter.h"
#include "kvos/drives.h"
#include "kvos/fault.h"
#include "kvos/module.h"
#include "sysman.h"
#include "test_support.h"

// The known chain, with plain names so that the map holds them as written.
// The empty asm statements keep each call a call (no tail call, no merging).
extern "C" {
thread_local uint64_t g_innerFrame = 0;
std::atomic<int> g_innerCallLine{0};

__attribute__((noinline)) void stack_test_anchor() { asm volatile(""); }

__attribute__((noinline)) void stack_chain_inner(const char* failure, std::string* report) {
  g_innerFrame = reinterpret_cast<uint64_t>(__builtin_dwarf_cfa()) - 16;  // where a frame pointer points
  g_innerCallLine = __LINE__; *report = CStackWriter::GetStackInformation(failure);
  asm volatile("" ::: "memory");
}

__attribute__((noinline)) void stack_chain_middle(const char* failure, std::string* report) {
  stack_chain_inner(failure, report);
  asm volatile("" ::: "memory");
}

__attribute__((noinline)) void stack_chain_outer(const char* failure, std::string* report) {
  stack_chain_middle(failure, report);
  asm volatile("" ::: "memory");
}

__attribute__((noinline)) void stack_deep(int depth, std::string* report) {
  if (depth == 0)
    *report = CStackWriter::GetStackInformation("deep");
  else
    stack_deep(depth - 1, report);
  asm volatile("" ::: "memory");
}

// Dumps while the frame pointer saved in its own frame is replaced by
// badFrame, so that the walk meets a broken chain one frame further up.
__attribute__((noinline)) void stack_broken(uint64_t badFrame, std::string* report) {
  volatile uint64_t* const slot = static_cast<volatile uint64_t*>(__builtin_frame_address(0));
  const uint64_t saved = *slot;
  *slot = badFrame;
  *report = CStackWriter::GetStackInformation("broken chain");
  *slot = saved;
}
}

namespace {

template <typename Function>
uint64_t address_of(Function* function) { return reinterpret_cast<uint64_t>(function); }

// The functions of the map that kvtool wrote beside this program, by address.
std::map<uint64_t, std::string> map_functions() {
  std::map<uint64_t, std::string> functions;
  const std::filesystem::path map = std::filesystem::path(kvos::executable_path()).replace_extension(".map");
  std::istringstream lines(kvtest::read_file(map.string()));
  for (std::string line; std::getline(lines, line);) {
    char name[512];
    unsigned long long address = 0;
    if (std::sscanf(line.c_str(), " 0001:%*X %511s %llX f", name, &address) == 2) functions[address] = name;
  }
  return functions;
}

// The name of the map function holding address.
std::string function_at(const std::map<uint64_t, std::string>& functions, uint64_t address) {
  const auto above = functions.upper_bound(address);
  return above == functions.begin() ? std::string() : std::prev(above)->second;
}

// The report of a dump taken at the end of the known chain.
std::string chain_dump(const char* failure) {
  std::string report;
  stack_chain_outer(failure, &report);
  return report;
}

// The frame lines of a report ("0012FF34 name+1C"), without their line ends.
std::vector<std::string> frame_lines(const std::string& report) {
  static const std::regex frame(R"((?:^|\n)([0-9A-F]{8} \S+)\r?(?=\n|$))");
  std::vector<std::string> lines;
  for (std::sregex_iterator it(report.begin(), report.end(), frame), end; it != end; ++it) lines.push_back((*it)[1]);
  return lines;
}

class StackWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(kvos::host_to_dos(dir.path(), dosDir));
    CStackWriter::SetDumpDotTabPath(dosDir);
    CStackWriter::InjectMapFilePath("");
    CStackWriter::InjectSymbolOffset("stack_test_anchor", static_cast<int64_t>(address_of(&stack_test_anchor)));
  }
  void TearDown() override {
    CStackWriter::SetDumpDotTabPath("");
    CStackWriter::InjectMapFilePath("");
    CStackWriter::InjectSymbolOffset("", 0);
  }

  kvtest::TempDir dir;
  std::string dosDir;
  kvtest::CategoryScope csl{dbgCSL};
  kvtest::CaptureSink sink;
};

TEST_F(StackWriterTest, KnownChainIsNamedThroughTheMapOrLeftRaw) {
  // mapFile: "" for the map beside the executable
  struct Case { const char* label; const char* mapFile; const char* anchor; bool named; };
  const Case cases[] = {
      {"map written by kvtool mapfile", "", "stack_test_anchor", true},
      {"no map file", "missing.map", "stack_test_anchor", false},
      {"map without the anchor", "", "no_such_anchor", false},
  };
  const std::map<uint64_t, std::string> functions = map_functions();
  const char* const names[] = {"stack_chain_inner", "stack_chain_middle", "stack_chain_outer"};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    CStackWriter::InjectMapFilePath(*c.mapFile != '\0' ? dosDir + "\\" + c.mapFile : "");
    CStackWriter::InjectSymbolOffset(c.anchor, static_cast<int64_t>(address_of(&stack_test_anchor)));
    sink.clear();
    const std::string report = chain_dump("chain failed");

    const std::string head = "\nFATAL ERROR: chain failed\r\n" + SysManager::GetDumpHeaderInformation() + ", Running ";
    EXPECT_EQ(report.substr(0, head.size()), head);
    EXPECT_TRUE(std::regex_search(report, std::regex(R"(, Running \d\d:\d\d:\d\d\r\n[0-9A-F]{8} )"))) << report;
    const std::vector<std::string> frames = frame_lines(report);
    ASSERT_GE(frames.size(), 3u) << report;
    char innerFrame[16];
    std::snprintf(innerFrame, sizeof innerFrame, "%08X ", static_cast<uint32_t>(g_innerFrame + 4));
    EXPECT_EQ(frames[1].substr(0, 9), innerFrame) << "the second line is the frame of stack_chain_inner";
    for (int i = 0; i < 3; ++i) {
      if (c.named) {
        EXPECT_TRUE(std::regex_match(frames[i].substr(9), std::regex(std::string(names[i]) + R"(\+[0-9A-F]+)")))
            << frames[i];
      } else {
        ASSERT_EQ(frames[i][9], '@') << frames[i];
        EXPECT_EQ(function_at(functions, std::stoull(frames[i].substr(10), nullptr, 16)), names[i]) << frames[i];
      }
    }
  }

  // The messages of the last dump, in their order (walk messages may come between).
  const std::string messages = sink.text();
  size_t at = 0;
  for (const char* expected : {"CStackWriter::GetStackInformation called\n",
                               "CSL: CStackWriter::GetStackInformation launching StackDumpThread\n",
                               "CSL: CStackWriter::DoStackDump() called\n",
                               "CSL: CStackWriter::DumpRunnableFibers(...) called\n",
                               "CSL: CStackWriter::DumpRunnableFibers(...) post SuspendThread doing runnable filbers\n",
                               "CSL: CStackWriter::DumpRunnableFibers(...) exit\n",
                               "CSL: CStackWriter::DoTranslation(...) called\n",
                               "CSL: CStackWriter::DoTranslation(...) exit\n",
                               "CSL: CStackWriter::AppendStackDumpToDumpDotTab() called\n",
                               "CSL: CStackWriter::AppendStackDumpToDumpDotTab() exit\n",
                               "CSL: CStackWriter::DoStackDump() exit\n",
                               "CSL: CStackWriter::GetStackInformation back from StackDumpThread\n",
                               "CStackWriter::GetStackInformation exit\n"}) {
    at = messages.find(expected, at);
    ASSERT_NE(at, std::string::npos) << "missing or out of order: " << expected << messages;
  }
  EXPECT_EQ(messages.find("failed to return complete dump information"), std::string::npos);
}

// A chain deeper than the nesting depth is cut after NESTING_DEPTH frames; a
// broken chain ends at the read that failed (frame + 8), with two messages.
TEST_F(StackWriterTest, DeepAndBrokenChainsEndCleanly) {
  const std::string cut = "CStackWriter - Dump terminated: nesting too deep\r\n",
                    failed = "CStackWriter::ReadMemoryAtAddress - default exception caught\n"
                             "CStackWriter::ReadMemoryAtAddress - pBaseAddress: DEAD0000BEE8\n";
  // (dump, frames, frames in the dumping function, cut for depth)
  const std::tuple<std::function<void(std::string*)>, size_t, const char*, int, bool> cases[] = {
      {[](std::string* r) { stack_deep(120, r); }, CStackWriter::NESTING_DEPTH, "stack_deep+", 100, true},
      {[](std::string* r) { stack_broken(0xDEAD0000BEE0u, r); }, 2, "stack_broken+", 1, false}};
  for (const auto& [dump, count, name, named, tooDeep] : cases) {
    // The Windows walk follows the frames the unwinder recorded, not saved frame pointers.
    if (kvtest::kWindows && !tooDeep) continue;
    sink.clear();
    std::string report;
    dump(&report);
    const std::vector<std::string> frames = frame_lines(report);
    EXPECT_EQ(frames.size(), count) << report;
    EXPECT_EQ(std::count_if(frames.begin(), frames.end(), [&](const std::string& f) { return f.find(name) == 9; }),
              named);
    EXPECT_EQ(report.size() > cut.size() && report.substr(report.size() - cut.size()) == cut, tooDeep);
    EXPECT_EQ(sink.text().find(failed) != std::string::npos, !tooDeep) << sink.text();
  }
}

TEST(TranslateRawStackInfo, LooksUpRelocatedSymbols) {
  const std::string map =
      " prog\r\n\r\n  Address         Publics by Value              Rva+Base       Lib:Object\r\n\r\n"
      " 0000:00000000       ___safe_se_handler_count   00000000     <absolute>\r\n"
      " 0001:00000000       _main                      00401000 f   main.obj\r\n"
      " 0001:00000100       _alpha                     00401100 f   a.obj\r\n"
      " 0001:00000200       _beta                      00401200 f   b.obj\r\n"
      " 0002:00000000       _table                     00402000     b.obj\r\n"
      "\r\n  Static symbols\r\n\r\n"
      " 0001:00000080       _helper                    00401080 f   a.obj\r\n";
  // The same with LF line ends, its last line ending right after the address.
  std::string lfOnly;
  for (char c : map)
    if (c != '\r') lfOnly += c;
  lfOnly.replace(lfOnly.rfind(" f   a.obj"), 10, "");
  struct Case {
    const char* label;
    const std::string* text;
    const char* anchor;
    int64_t address;
    const char *raw, *expected;
  };
  const Case cases[] = {
      {"inside a function", &map, "_main", 0x401000, "0012FF34 @00401134\r\n", "0012FF34 _alpha+34\r\n"},
      {"at a function's start", &map, "_main", 0x401000, "0012FF34 @00401100\r\n", "0012FF34 _alpha\r\n"},
      {"a static symbol, sorted in", &map, "_main", 0x401000, "1 @00401090 2 @004010FF", "1 _helper+10 2 _helper+7F"},
      {"below the first symbol", &map, "_main", 0x401000, "0012FF34 @00400FFF\r\n", "0012FF34 00400FFF\r\n"},
      {"at the last symbol", &map, "_main", 0x401000, "0012FF34 @00401200\r\n", "0012FF34 00401200\r\n"},
      {"above the last symbol", &map, "_main", 0x401000, "0012FF34 @7FFFFFFF\r\n", "0012FF34 7FFFFFFF\r\n"},
      {"relocated by the anchor", &map, "_alpha", 0x501100, "@00501104 @00401104", "_alpha+4 00401104"},
      {"no digits after the mark", &map, "_main", 0x401000, "@ @xyz", "@ @xyz"},
      {"anchor missing", &map, "_gamma", 0x401000, "0012FF34 @00401234\r\n", "0012FF34 @00401234\r\n"},
      {"lines ended by LF", &lfOnly, "_main", 0x401000, "@00401090", "_helper+10"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    CSL::CTranslateRawStackInfo reader;
    ASSERT_TRUE(reader.LoadMapText(c.text->data(), c.text->size()));
    const bool built = reader.BuildSymbolTable(c.anchor, c.address);
    EXPECT_EQ(built, std::string(c.anchor) != "_gamma");
    EXPECT_EQ(reader.GetNumberOfSymbols(), built ? 4u : 0u);
    EXPECT_EQ(reader.TranslateRawStack(c.raw), c.expected);
  }
}

TEST_F(StackWriterTest, TwoDumpsShareDumpTabWithTrailers) {
  const std::string dumps = dosDir + "\\dumps";
  ASSERT_TRUE(SysManager::SetFiberStackTraceDirPath(dumps));
  EXPECT_EQ(CStackWriter::m_pathToDumpDotTab, dumps);
  const std::string first = CStackWriter::GetStackInformation("first");
  const std::string second = CStackWriter::GetStackInformation("second");
  const std::string tab = kvtest::read_file(dir.file("dumps/dump.tab"));

  const size_t at1 = tab.find("\r\n@DumpSize: ");
  const size_t at2 = tab.find("\r\n@DumpSize: ", at1 + 1);
  ASSERT_NE(at2, std::string::npos) << tab;
  const uint32_t value1 = static_cast<uint32_t>(std::stoul(tab.substr(at1 + 13, 8), nullptr, 16));
  const uint32_t value2 = static_cast<uint32_t>(std::stoul(tab.substr(at2 + 13, 8), nullptr, 16));
  EXPECT_EQ(value2 - value1, at2 - at1) << "the size counts every byte appended";
  // The first dump of the process has no "continues" line, and its size is where its trailer starts.
  int count = 1;
  std::sscanf(tab.c_str(), "Dump continues below (%d):", &count);
  const auto continues = [](int n) { return "Dump continues below (" + std::to_string(n) + "):\r\n"; };
  const auto trailer = [](uint32_t value) {
    char text[40];
    return std::string(text, static_cast<size_t>(std::snprintf(text, sizeof text, "\r\n@DumpSize: %08X\r\n", value)));
  };
  EXPECT_EQ(tab, (count == 1 ? std::string() : continues(count)) + first + trailer(value1) + continues(count + 1) +
                     second + trailer(value2));
  EXPECT_TRUE(count > 1 || value1 == at1 + 2) << "the first dump's size is where its trailer starts";
}

TEST_F(StackWriterTest, FailedDumpTabWriteStillReturnsTheReport) {
  kvtest::write_file(dir.file("blocker"), "a file where the directory should be");
  struct Case { const char* label; std::string directory; bool seekFails; std::string message; };
  const Case cases[] = {
      {"directory cannot hold dump.tab", dosDir + "\\blocker", false,
       "CStackWriter::AppendStackDumpToDumpDotTab() - failed to create file: \n" + dosDir + "\\blocker\\dump.tab\n"},
      {"positioning fails", dosDir, true,
       "CStackWriter::AppendStackDumpToDumpDotTab() - SetFilePointer #2. Closing file. Error code: " +
           std::to_string(kvtest::kInjectedFileError) + "\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    kvos::FaultScope faults;
    if (c.seekFails) kvos::fault_arm(kvos::FaultPoint::FileSeek);
    CStackWriter::SetDumpDotTabPath(c.directory);
    sink.clear();
    const std::string report = chain_dump("no dump.tab");
    EXPECT_NE(report.find("\nFATAL ERROR: no dump.tab\r\n"), std::string::npos);
    EXPECT_NE(report.find(" stack_chain_inner+"), std::string::npos) << report;
    EXPECT_NE(sink.text().find(c.message), std::string::npos) << sink.text();
    EXPECT_EQ(sink.text().find("AppendStackDumpToDumpDotTab() exit"), std::string::npos);
  }
}

TEST_F(StackWriterTest, ThreadsDumpOneAtATime) {
  std::string reports[2];
  std::thread first([&reports] { reports[0] = chain_dump("thread 0"); });
  std::thread second([&reports] { reports[1] = chain_dump("thread 1"); });
  first.join();
  second.join();
  const std::string tab = kvtest::read_file(dir.file("dump.tab"));
  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE(i);
    const std::vector<std::string> frames = frame_lines(reports[i]);
    ASSERT_GE(frames.size(), 3u) << reports[i];
    EXPECT_EQ(frames[0].substr(9, 18), "stack_chain_inner+");
    EXPECT_EQ(frames[2].substr(9, 18), "stack_chain_outer+");
    EXPECT_NE(tab.find(reports[i]), std::string::npos) << "each report whole in dump.tab";
  }
}

TEST_F(StackWriterTest, KvtoolWritesTheMapAndTranslatesRawDumps) {
  // The map beside this program lists the chain at its addresses.
  const std::map<uint64_t, std::string> functions = map_functions();
  const auto inner = functions.find(address_of(&stack_chain_inner));
  ASSERT_NE(inner, functions.end());
  EXPECT_EQ(inner->second, "stack_chain_inner");

  // A dump taken without a map, named afterwards with file and line.
  CStackWriter::InjectMapFilePath(dosDir + "\\missing.map");
  chain_dump("raw");
  const std::string command =
      std::string(KV_KVTOOL) + " stack translate " + dir.file("dump.tab") + " --exe " + kvos::executable_path();
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string output;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
  EXPECT_EQ(pclose(pipe), 0) << output;
  // Source lines come from the executable's debugging information (the Windows build reads none).
  const std::string line = " \\(\\S*stackwriter_test\\.cpp:" + std::to_string(g_innerCallLine.load()) + "\\)";
  const std::string middle = kvtest::kWindows ? "" : " \\(\\S*\\)";
  EXPECT_TRUE(std::regex_search(output, std::regex("\n[0-9A-F]{8} stack_chain_inner\\+[0-9A-F]+" + (kvtest::kWindows ? "" : line) +
                                                   "\n[0-9A-F]{8} stack_chain_middle\\+[0-9A-F]+" + middle + "\n")))
      << output;
  EXPECT_NE(output.find("FATAL ERROR: raw\n"), std::string::npos);
}

}  // namespace
