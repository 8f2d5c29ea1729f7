// Heap diagnostics: the leak listing, the mark, the usage table and
// heapdump.txt, and the checks that find overruns.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sstream>
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

// A heap's row in a table: "12 <name> <level> <object> <base> <real> <free> <largest> <used> ...";
// a plain heap has 8 for its base and one number more.
struct Row {
  std::string line;
  int level = -1;
  void *object = nullptr, *base = nullptr;
  unsigned real = 0, free = 0, largest = 0, used = 0, fifth = 0;
};

Row row_of(const std::string& table, const std::string& name) {
  Row r;
  const size_t at = table.find("\n12 " + name + " ");
  if (at == std::string::npos) return r;
  r.line = table.substr(at + 1, table.find('\n', at + 1) - at - 1);
  std::sscanf(r.line.c_str(), "12 %*s %d %p %p %u %u %u %u %u", &r.level, &r.object, &r.base, &r.real, &r.free,
              &r.largest, &r.used, &r.fifth);
  return r;
}

class HeapDiagnostics : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { heapman_mgr::initialize(); }
  void SetUp() override { std::filesystem::current_path(dir.path()); }  // heapdump.txt is written here
  void TearDown() override { std::filesystem::current_path(oldDir); }

  // Runs a dump and answers the table (its first line of output) and the listing (everything after it).
  std::pair<std::string, std::string> run(void (*dump)()) {
    sink.clear();
    dump();
    std::pair<std::string, std::string> out;
    for (const auto& e : sink.entries()) (out.first.empty() ? out.first : out.second) += e.text;
    return out;
  }

  kvtest::TempDir dir;
  const std::filesystem::path oldDir = std::filesystem::current_path();
  kvtest::CaptureSink sink;
  kvtest::CategoryScope categoryA{dbgA};
};

// The listing shows every block made since the mark, heap by heap in tree
// order, with its creator and its first bytes; a plain heap lists every block.
TEST_F(HeapDiagnostics, TheListingShowsWhatWasMadeSinceTheMark) {
  heap* h = new heap("leaky");  // the heap object itself is the runtime library's
  heap* inner = new (h, kFile, __LINE__) heap("inner");
  heap* plain = new heap("plainleak", heWINHEAP);
  operator new(8, h, kFile, 1);
  auto* beforeInner = static_cast<char*>(operator new(8, inner, kFile, 2));
  auto* w = static_cast<char*>(operator new(3, plain, kFile, 1));
  std::memcpy(w, "xyz", 3);
  HeapMark();  // a plain heap has nothing to mark
  EXPECT_EQ(reinterpret_cast<const heap_record*>(beforeInner - 24)->state, 1u) << "children are marked too";
  const int l1 = __LINE__;
  auto* a = static_cast<char*>(operator new(5, h, kFile, l1));
  std::memcpy(a, "\x61\x62\x80\x63\x64", 5);
  auto* b = static_cast<char*>(operator new(20, h, kFile, l1 + 2));
  std::memcpy(b, "Hello, heap world!!!", 20);
  auto* c = static_cast<unsigned char*>(operator new(2, h, kFile, l1 + 4));
  c[0] = 0x41;
  c[1] = 0xFF;
  auto* after = static_cast<char*>(operator new(8, inner, kFile, 3));
  std::memcpy(after, "12345678", 8);

  const std::string block = ") : {99999} normal block at 0x";
  EXPECT_EQ(run(HeapDump).second,
            "Korvalis heap: leaky\n\n"
            "tests/heapdiag(" + std::to_string(l1) + block + record_address(a) + ", 5 bytes long.\n"
            " Data: <ab cd           > 61 62 FF 63 64\n"
            "tests/heapdiag(" + std::to_string(l1 + 2) + block + record_address(b) + ", 20 bytes long.\n"
            " Data: <Hello, heap worl> 48 65 6C 6C 6F 2C 20 68 65 61 70 20 77 6F 72 6C\n"
            "tests/heapdiag(" + std::to_string(l1 + 4) + block + record_address(c) + ", 2 bytes long.\n"
            " Data: <A               > 41 FFFFFFFF\n\n\n"
            "Korvalis heap: inner\n\ntests/heapdiag(3" + block + record_address(after) + ", 8 bytes long.\n"
            " Data: <12345678        > 31 32 33 34 35 36 37 38\n\n\n"
            "Korvalis heap: plainleak\n\n{99999} normal block at 0x" + ptr(w) + ", 3 bytes long.\n"
            " Data: <xyz             > 78 79 7A\n\n\n")
      << "main holds only marked blocks: no header, no blank lines for it";

  // The mark lasts: with the new blocks freed, nothing is listed.
  for (void* p : {static_cast<void*>(a), static_cast<void*>(b), static_cast<void*>(c), static_cast<void*>(after)})
    KvOperatorDelete(p);
  delete plain;
  EXPECT_EQ(run(HeapDump).second, "");
  delete h;
}

TEST_F(HeapDiagnostics, UsageTableFormatsAndFile) {
  SysManager::SetKorvalisVersion("9.9");
  SysManager::ExeTime = file_timestamp(0x4B2A6A4F);
  heap* h = new heap("table");
  new (h, kFile, __LINE__) heap("kid");
  heap* plain = new (h, kFile, __LINE__) heap("tplain", heWINHEAP);
  operator new(1000, h, kFile, 1);
  operator new(300, h, kFile, 2);
  operator new(77, plain, kFile, 3);

  const auto [first, listing] = run(HeapDumpSummary);
  EXPECT_EQ(listing, "") << "a summary lists no blocks";
  ASSERT_EQ(first.substr(first.size() - 2), "\n\n");
  const std::string table = first.substr(0, first.size() - 2);
  EXPECT_EQ(kvtest::read_text(dir.file("heapdump.txt")), table) << "the same table goes to heapdump.txt";

  const file_timestamp start = SysManager::StartTime;
  char title[96];
  std::snprintf(title, sizeof title, "Version 9.9 09/10/2017 13:18:30 Run time %02d/%02d/%04d %02d:%02d:%02d + ",
                start.month(), start.day(), start.year(), start.hour(), start.minute(), start.second());
  // The title, the column headings, then the rows in pre-order with their level, mainheap's first.
  const std::string headings =
      "             L   Handle  Address      Size     Free   Largest      Used      Real\n"
      "             -   ------  -------      ----     ----   -------      ----      ----\n"
      "12 main 0 " + ptr(mainheap) + " " + ptr(mainheap->get_base()) + " ";
  EXPECT_EQ(table.rfind(title, 0), 0u) << table;
  EXPECT_EQ(table.substr(table.find('\n') + 1, headings.size()), headings);
  const Row row = row_of(table, "table"), plainRow = row_of(table, "tplain");
  EXPECT_EQ(row.level, 1);
  EXPECT_EQ(row.base, h->get_base());
  const unsigned objects = 2 * sizeof(heap);  // kid and tplain live in h
  EXPECT_EQ(row.used, 1300u + objects) << "user bytes, records not counted";
  EXPECT_EQ(row.largest, 1000u);
  EXPECT_GT(row.real, row.used + row.free);
  EXPECT_EQ(row.line.substr(row.line.size() - 3), " 9u");
  EXPECT_LT(table.find("\n12 kid 2 "), table.find("\n12 tplain 2 ")) << "children follow their parent";
  EXPECT_EQ(plainRow.line.rfind("12 tplain 2 " + ptr(plain) + " 8  ", 0), 0u) << plainRow.line;
  EXPECT_EQ(plainRow.used + plainRow.largest, 154u);
  EXPECT_GE(plainRow.fifth, plainRow.real) << "committed bytes";

  // The report leaves its sums in the heap; the heap's free bytes follow from them.
  EXPECT_EQ(heapman_mgr::get_alloc(h), 1300u + objects);
  const size_t overhead = row.real - row.free - row.used;
  EXPECT_EQ(heapman_mgr::get_free(h), h->get_max_size() - overhead - row.used - 1600);
  EXPECT_EQ(heapman_mgr::get_avail(h), 0u);

  // The total line takes each heap's sums as the previous report left them.
  unsigned allocSum = 0, used = 0;
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);)
    allocSum += std::sscanf(line.c_str(), "12 %*s %*d %*p %*p %*u %*u %*u %u", &used) == 1 ? used : 0;
  operator new(500, h, kFile, 4);
  const std::string second = run(HeapDumpSummary).first;
  char total[128];
  std::snprintf(total, sizeof total, "\n       Total%2s%9s%9s%10s%9s%10s %9u ", "", "", "", "", "", "", allocSum);
  EXPECT_NE(second.find(total), std::string::npos) << second;
  EXPECT_EQ(row_of(second, "table").used, 1800u + objects);
  EXPECT_EQ(kvtest::read_text(dir.file("heapdump.txt")), table + second.substr(0, second.size() - 2))
      << "tables are appended";
  delete h;
  SysManager::ExeTime = file_timestamp();
}

TEST_F(HeapDiagnostics, AHeapdumpFileThatCannotBeOpenedIsSkippedSilently) {
  ASSERT_TRUE(std::filesystem::create_directory("heapdump.txt"));  // not openable for appending, not even by root
  EXPECT_NE(run(HeapDumpSummary).first.find("\n12 main 0 "), std::string::npos) << "the table is still written";
  EXPECT_TRUE(std::filesystem::remove("heapdump.txt")) << "and nothing else was made of it";
}

// Runs body while the byte just past a block (the next block's header) is damaged.
void overrun(char* block, size_t size, const std::function<void()>& body) {
  block[size] = static_cast<char>(block[size] ^ 0x5A);
  body();
  block[size] = static_cast<char>(block[size] ^ 0x5A);
}

TEST_F(HeapDiagnostics, OverrunsAreFoundByCheck) {
  heap* h = new heap("victim");
  auto* a = static_cast<char*>(operator new(40, h, kFile, 1));
  auto* b = static_cast<char*>(operator new(40, h, kFile, 2));
  EXPECT_NO_THROW(heapman_mgr::check());
  overrun(a, 40, [&] {
    for (const std::function<void()>& call : std::vector<std::function<void()>>{
             [] { heapman_mgr::check(); }, [] { HeapDumpSummary(); }, [&] { heapman_mgr::get_alloc(h); }})
      EXPECT_EQ(abort_text(call), "Heap check failure: HeapValidate, heap: victim");
  });
  EXPECT_NO_THROW(heapman_mgr::check());

  heap_record* record = reinterpret_cast<heap_record*>(b - 24);  // a damaged guard in the next record
  record->guard = 0xCCCC00CCu;
  char creator[32];
  std::snprintf(creator, sizeof creator, "%llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(record)));
  EXPECT_EQ(abort_text([] { heapman_mgr::check(); }),
            std::string("Heap check failure: guard, heap: victim, creator: @") + creator);
  record->guard = heap_record_guard;

  heap* unchecked = new heap("unchecked", heNOCHECK);  // skipped with its children
  heap* below = new (unchecked, kFile, __LINE__) heap("below");
  auto* u = static_cast<char*>(operator new(40, below, kFile, 3));
  operator new(40, below, kFile, 4);
  overrun(u, 40, [] { EXPECT_NO_THROW(heapman_mgr::check()); });
  delete unchecked;

  heap* unnamed = new heap(size_t(0));  // its failures have no heap part
  auto* n = static_cast<char*>(operator new(40, unnamed, kFile, 5));
  operator new(40, unnamed, kFile, 6);
  overrun(n, 40, [] { EXPECT_EQ(abort_text([] { heapman_mgr::check(); }), "Heap check failure: HeapValidate"); });
  EXPECT_EQ(abort_text([&] { HeapAccess::abort_with(h, "boom"); }), "boom, heap: victim");
  EXPECT_EQ(abort_text([&] { HeapAccess::abort_with(unnamed, "boom"); }), "boom");
  delete unnamed;
  delete h;
}

}  // namespace
