// Heap diagnostics: the leak listing, the mark, the usage table and
// heapdump.txt, and the checks that find overruns.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "heap.h"
#include "sysman.h"
#include "test_support.h"

namespace {

const char* const kFile = "tests/heapdiag";

struct HeapAccess : heap {
  static void abort_with(heap* h, const char* text) { (h->*(&HeapAccess::heap_abort))(text); }
};

std::string ptr(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
  return text;
}

std::string record_address(const void* user) { return ptr(static_cast<const char*>(user) - 24); }

using kvtest::abort_text;

// Runs a dump and splits what it wrote: the table (its first line of output)
// and everything after it (the listing).
struct Dump {
  std::string table;
  std::string listing;
};

Dump run_dump(kvtest::CaptureSink& sink, void (*dump)()) {
  sink.clear();
  dump();
  Dump d;
  const std::vector<kvtest::CaptureSink::Entry> entries = sink.entries();
  if (entries.empty()) return d;
  d.table = entries[0].text;
  for (size_t i = 1; i < entries.size(); ++i) d.listing += entries[i].text;
  return d;
}

// The row of a heap in a table: the line that starts with "12 <name> ".
std::string row_of(const std::string& table, const std::string& name) {
  const std::string key = "\n12 " + name + " ";
  const size_t at = table.find(key);
  if (at == std::string::npos) return "";
  return table.substr(at + 1, table.find('\n', at + 1) - at - 1);
}

struct Row {
  int level = -1;
  void* object = nullptr;
  void* base = nullptr;
  unsigned real = 0, free = 0, largest = 0, used = 0;
};

Row parse_row(const std::string& line) {
  Row r;
  char name[64];
  int twelve = 0;
  const int got = std::sscanf(line.c_str(), "%d %63s %d %p %p %u %u %u %u", &twelve, name, &r.level, &r.object,
                              &r.base, &r.real, &r.free, &r.largest, &r.used);
  if (got != 9 || twelve != 12) r.level = -1;
  return r;
}

class HeapDiagnostics : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { heapman_mgr::initialize(); }
  void SetUp() override {
    ASSERT_EQ(getcwd(oldDir, sizeof oldDir), oldDir);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
  }
  void TearDown() override { EXPECT_EQ(chdir(oldDir), 0); }

  kvtest::TempDir dir;
  char oldDir[4096];
  kvtest::CaptureSink sink;
  kvtest::CategoryScope categoryA{dbgA};
};

TEST_F(HeapDiagnostics, LeakListingNamesTheCreatorAndPeeksAtTheData) {
  heap* h = new heap("leaky");  // the heap object itself is the runtime library's
  HeapMark();
  const int l1 = __LINE__;
  auto* a = static_cast<unsigned char*>(operator new(5, h, kFile, l1));
  std::memcpy(a, "\x61\x62\x80\x63\x64", 5);
  const int l2 = __LINE__;
  auto* b = static_cast<char*>(operator new(20, h, kFile, l2));
  std::memcpy(b, "Hello, heap world!!!", 20);
  const int l3 = __LINE__;
  auto* c = static_cast<unsigned char*>(operator new(2, h, kFile, l3));
  c[0] = 0x41;
  c[1] = 0xFF;

  const Dump d = run_dump(sink, HeapDump);
  const std::string expected =
      "Korvalis heap: leaky\n\n"
      "tests/heapdiag(" + std::to_string(l1) + ") : {99999} normal block at 0x" + record_address(a) +
      ", 5 bytes long.\n"
      " Data: <ab cd           > 61 62 FF 63 64\n"
      "tests/heapdiag(" + std::to_string(l2) + ") : {99999} normal block at 0x" + record_address(b) +
      ", 20 bytes long.\n"
      " Data: <Hello, heap worl> 48 65 6C 6C 6F 2C 20 68 65 61 70 20 77 6F 72 6C\n"
      "tests/heapdiag(" + std::to_string(l3) + ") : {99999} normal block at 0x" + record_address(c) +
      ", 2 bytes long.\n"
      " Data: <A               > 41 FFFFFFFF\n"
      "\n\n";
  EXPECT_EQ(d.listing, expected) << "main holds only marked blocks: no header, no blank lines for it";
  delete h;
}

TEST_F(HeapDiagnostics, PlainHeapsListEveryBlockWithoutRecords) {
  heap* plain = new heap("plainleak", heWINHEAP);
  auto* w = static_cast<char*>(operator new(3, plain, kFile, 1));
  std::memcpy(w, "xyz", 3);
  HeapMark();  // a plain heap has nothing to mark
  const Dump d = run_dump(sink, HeapDump);
  EXPECT_EQ(d.listing, "Korvalis heap: plainleak\n\n{99999} normal block at 0x" + ptr(w) +
                           ", 3 bytes long.\n Data: <xyz             > 78 79 7A\n\n\n");
  delete plain;
}

TEST_F(HeapDiagnostics, MarkHidesWhatExistsAcrossTheTree) {
  heap* h = new heap("marked");
  heap* inner = new (h, kFile, __LINE__) heap("inner");
  auto* before = static_cast<char*>(operator new(8, h, kFile, 1));
  auto* beforeInner = static_cast<char*>(operator new(8, inner, kFile, 2));
  HeapMark();
  EXPECT_EQ(reinterpret_cast<const heap_record*>(before - 24)->state, 1u);
  EXPECT_EQ(reinterpret_cast<const heap_record*>(beforeInner - 24)->state, 1u) << "children are marked too";
  auto* after = static_cast<char*>(operator new(8, inner, kFile, 3));
  EXPECT_EQ(reinterpret_cast<const heap_record*>(after - 24)->state, 0u);

  const Dump d = run_dump(sink, HeapDump);
  EXPECT_EQ(d.listing.find("Korvalis heap: marked"), std::string::npos);
  EXPECT_NE(d.listing.find("Korvalis heap: inner\n\ntests/heapdiag(3) : {99999} normal block at 0x" +
                           record_address(after) + ", 8 bytes long.\n"),
            std::string::npos);
  EXPECT_EQ(d.listing.find(record_address(before)), std::string::npos);
  EXPECT_EQ(d.listing.find(record_address(beforeInner)), std::string::npos);

  // The mark lasts: a second dump shows the same, and a freed block is gone.
  KvOperatorDelete(after);
  EXPECT_EQ(run_dump(sink, HeapDump).listing, "");
  delete h;
}

TEST_F(HeapDiagnostics, UsageTableFormatsAndFile) {
  SysManager::SetKorvalisVersion("9.9");
  SysManager::ExeTime = file_timestamp(0x4B2A6A4F);
  heap* h = new heap("table");
  heap* kid = new (h, kFile, __LINE__) heap("kid");
  heap* plain = new (h, kFile, __LINE__) heap("tplain", heWINHEAP);
  operator new(1000, h, kFile, 1);
  operator new(300, h, kFile, 2);
  operator new(77, plain, kFile, 3);

  const Dump first = run_dump(sink, HeapDumpSummary);
  EXPECT_EQ(first.listing, "") << "a summary lists no blocks";
  ASSERT_EQ(first.table.substr(first.table.size() - 2), "\n\n");
  const std::string table = first.table.substr(0, first.table.size() - 2);
  EXPECT_EQ(kvtest::read_text(dir.file("heapdump.txt")), table) << "the same table goes to heapdump.txt";

  const file_timestamp start = SysManager::StartTime;
  char runTime[64];
  std::snprintf(runTime, sizeof runTime, "Run time %02d/%02d/%04d %02d:%02d:%02d + ", start.month(), start.day(),
                start.year(), start.hour(), start.minute(), start.second());
  const std::string title = table.substr(0, table.find('\n') + 1);
  EXPECT_EQ(title.rfind("Version 9.9 09/10/2017 13:18:30 " + std::string(runTime), 0), 0u) << title;

  const size_t columns = table.find('\n') + 1;
  EXPECT_EQ(table.substr(columns, table.find('\n', columns) + 1 - columns),
            "             L   Handle  Address      Size     Free   Largest      Used      Real\n");
  const size_t underline = table.find('\n', columns) + 1;
  EXPECT_EQ(table.substr(underline, table.find('\n', underline) + 1 - underline),
            "             -   ------  -------      ----     ----   -------      ----      ----\n");

  // Rows in pre-order with their level.
  const size_t firstRow = table.find('\n', underline) + 1;
  const std::string mainRow = "12 main 0 " + ptr(mainheap) + " " + ptr(mainheap->get_base()) + " ";
  EXPECT_EQ(table.compare(firstRow, mainRow.size(), mainRow), 0) << "mainheap's row comes first";
  const Row row = parse_row(row_of(table, "table"));
  EXPECT_EQ(row.level, 1);
  EXPECT_EQ(row.base, h->get_base());
  const unsigned objects = 2 * sizeof(heap);  // kid and tplain live in h
  EXPECT_EQ(row.used, 1300u + objects) << "user bytes, records not counted";
  EXPECT_EQ(row.largest, 1000u);
  EXPECT_GT(row.real, row.used + row.free);
  EXPECT_EQ(row_of(table, "table").substr(row_of(table, "table").size() - 3), " 9u");
  EXPECT_LT(table.find("\n12 kid 2 "), table.find("\n12 tplain 2 ")) << "children follow their parent";
  const std::string plainRow = row_of(table, "tplain");
  EXPECT_EQ(plainRow.rfind("12 tplain 2 " + ptr(plain) + " 8  ", 0), 0u) << plainRow;
  unsigned real = 0, freeBytes = 0, largest = 0, used = 0, committed = 0;
  ASSERT_EQ(std::sscanf(plainRow.c_str() + plainRow.find(" 8  ") + 4, "%u %u %u %u %u", &real, &freeBytes, &largest,
                        &used, &committed),
            5);
  EXPECT_EQ(used + largest, 154u);
  EXPECT_GE(committed, real);

  // The report leaves its sums in the heap; the heap's free bytes follow from them.
  EXPECT_EQ(heapman_mgr::get_alloc(h), 1300u + objects);
  const size_t overhead = row.real - row.free - row.used;
  EXPECT_EQ(heapman_mgr::get_free(h), h->get_max_size() - overhead - row.used - 1600);
  EXPECT_EQ(heapman_mgr::get_avail(h), 0u);

  // The total line takes each heap's sums as the previous report left them.
  unsigned allocSum = 0;
  for (size_t at = table.find("\n12 "); at != std::string::npos; at = table.find("\n12 ", at + 1)) {
    allocSum += parse_row(table.substr(at + 1, table.find('\n', at + 1) - at - 1)).used;
  }
  operator new(500, h, kFile, 4);
  const Dump second = run_dump(sink, HeapDumpSummary);
  const std::string secondTable = second.table.substr(0, second.table.size() - 2);
  char total[128];
  std::snprintf(total, sizeof total, "       Total%2s%9s%9s%10s%9s%10s %9u ", "", "", "", "", "", "", allocSum);
  EXPECT_NE(secondTable.find(std::string("\n") + total), std::string::npos) << secondTable;
  EXPECT_EQ(parse_row(row_of(secondTable, "table")).used, 1800u + objects);
  EXPECT_EQ(kvtest::read_text(dir.file("heapdump.txt")), table + secondTable) << "tables are appended";
  (void)kid;
  delete h;
  SysManager::ExeTime = file_timestamp();
}

TEST_F(HeapDiagnostics, AHeapdumpFileThatCannotBeOpenedIsSkippedSilently) {
  ASSERT_TRUE(std::filesystem::create_directory("heapdump.txt"));  // not openable for appending, not even by root
  const Dump d = run_dump(sink, HeapDumpSummary);
  EXPECT_NE(d.table.find("\n12 main 0 "), std::string::npos) << "the table still reaches the debug output";
  EXPECT_TRUE(std::filesystem::remove("heapdump.txt")) << "and nothing else was made of it";
}

TEST_F(HeapDiagnostics, OverrunsAreFoundByCheck) {
  heap* h = new heap("victim");
  auto* a = static_cast<char*>(operator new(40, h, kFile, 1));
  auto* b = static_cast<char*>(operator new(40, h, kFile, 2));
  EXPECT_NO_THROW(heapman_mgr::check());

  // One byte past a reaches the header of the next block.
  const char saved = a[40];
  a[40] = static_cast<char>(saved ^ 0x5A);
  EXPECT_EQ(abort_text([] { heapman_mgr::check(); }), "Heap check failure: HeapValidate, heap: victim");
  EXPECT_EQ(abort_text([] { HeapDumpSummary(); }), "Heap check failure: HeapValidate, heap: victim");
  EXPECT_EQ(abort_text([&] { heapman_mgr::get_alloc(h); }), "Heap check failure: HeapValidate, heap: victim");
  a[40] = saved;
  EXPECT_NO_THROW(heapman_mgr::check());

  // A damaged guard in the next record.
  heap_record* record = reinterpret_cast<heap_record*>(b - 24);
  record->guard = 0xCCCC00CCu;
  char creator[32];
  std::snprintf(creator, sizeof creator, "%llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(record)));
  EXPECT_EQ(abort_text([] { heapman_mgr::check(); }),
            std::string("Heap check failure: guard, heap: victim, creator: @") + creator);
  record->guard = heap_record_guard;

  // heNOCHECK skips a heap and its children.
  heap* unchecked = new heap("unchecked", heNOCHECK);
  heap* below = new (unchecked, kFile, __LINE__) heap("below");
  auto* u = static_cast<char*>(operator new(40, below, kFile, 3));
  operator new(40, below, kFile, 4);
  const char keep = u[40];
  u[40] = static_cast<char>(keep ^ 0x5A);
  EXPECT_NO_THROW(heapman_mgr::check());
  u[40] = keep;
  delete unchecked;

  // An unnamed heap's failure has no heap part; heap_abort appends the name.
  heap* unnamed = new heap(size_t(0));
  auto* n = static_cast<char*>(operator new(40, unnamed, kFile, 5));
  operator new(40, unnamed, kFile, 6);
  const char keepN = n[40];
  n[40] = static_cast<char>(keepN ^ 0x5A);
  EXPECT_EQ(abort_text([] { heapman_mgr::check(); }), "Heap check failure: HeapValidate");
  n[40] = keepN;
  EXPECT_EQ(abort_text([&] { HeapAccess::abort_with(h, "boom"); }), "boom, heap: victim");
  EXPECT_EQ(abort_text([&] { HeapAccess::abort_with(unnamed, "boom"); }), "boom");
  delete unnamed;
  delete h;
}

}  // namespace
