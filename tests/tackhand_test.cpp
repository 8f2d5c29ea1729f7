// TackHand: embedded and host-registered resources, "&" names, the local
// list, disk reads and their failures.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "TackHand.h"
#include "heap.h"
#include "kvos/fault.h"
#include "kvos/region_heap.h"
#include "test_support.h"

namespace {

const std::string kNone = "<none>";

std::string bytes_of(TackHand& t) {
  return *t == nullptr ? kNone : std::string(static_cast<const char*>(*t), t.Size());
}

std::string load(const std::string& name) {
  TackHand t(name.c_str());
  return bytes_of(t.TackOpen());
}

// Live blocks in mainheap allocated by the loader.
int loader_blocks() {
  int count = 0;
  kvos::heap_entry e;
  auto* handle = static_cast<kvos::region_heap>(mainheap->get_handle());
  while (kvos::region_heap_walk(handle, &e)) {
    if ((e.flags & kvos::heap_entry_busy) == 0) continue;
    const auto* record = static_cast<const heap_record*>(e.data);
    if (record->file != nullptr && std::strcmp(record->file, "System/TackHand") == 0) ++count;
  }
  return count;
}

// The example file as it lies in the source tree.
std::string example_source() {
  const char* root = std::getenv("KV_TEST_SOURCE_DIR");
  return root == nullptr ? std::string() : kvtest::read_file(std::string(root) + "/resources/example.ins");
}

// Runs the test inside a fresh working directory, and restores the old one
// and the local list afterwards.
class TackHandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    heapman_mgr::initialize();
    old_ = std::filesystem::current_path();
    std::filesystem::current_path(dir_.path());
  }
  void TearDown() override {
    std::filesystem::current_path(old_);
    TackHand::FreeLocal();
  }
  kvtest::TempDir dir_;
  std::filesystem::path old_;
};

// Each name opened once: what it yields, and that only a load leaves a block
// (of exactly the data's length) in mainheap.
TEST_F(TackHandTest, NamesFindResourcesLocalCopiesAndFiles) {
  const std::string example = example_source(), content("binary\0data\r\nwith CR LF\xff", 24);
  ASSERT_FALSE(example.empty()) << "KV_TEST_SOURCE_DIR not set or example missing";
  kvtest::write_file(dir_.file("example.ins"), content);
  kvtest::write_file(dir_.file("empty.dat"), "");
  std::filesystem::create_directories(dir_.file("Sub Dir/folder"));
  kvtest::write_file(dir_.file("Sub Dir/Setup.DAT"), "mixed");
  char bytes[] = {'a', '\0', 'b', '\r', '\n'};
  ASSERT_TRUE(TackResourceAdd("Panel.BIN", bytes, sizeof bytes));
  bytes[0] = 'z';  // the table holds its own copy
  const std::string d = kvtest::dos_path(dir_.path());
  using kvos::FaultPoint;
  struct Case {
    std::string name, bytes;
    const char* local = nullptr;  // the local list
    FaultPoint fault = FaultPoint::Count;
  };
  const char* const listed = "Panel.BIN EXAMPLE.INS";
  const Case cases[] = {
      {"&C:\\Some\\Dir\\Example.Ins", content, listed},  // listed: the bare name from the working directory
      {"example.ins", content, listed},
      {"panel.bin", kNone, listed},  // listed but not on disk: no resource either
      {"example.ins", content, "xexample.insx"},  // the list matches substrings
      {"EXAMPLE.Ins", example},  // no list any more
      {"&C:\\Some\\Dir\\Example.Ins", example},  // "&": the last component, as a resource
      {"&example.ins", example},
      {"panel.bin", std::string("a\0b\r\n", 5)},
      {"no-such-resource.bin", kNone},
      {d + "\\example.ins", content},  // a path is read from disk, not taken as a resource
      {d + "\\SUB DIR\\setup.dat", "mixed"},  // the lower-cased name finds a mixed-case file
      {"sub dir\\setup.dat", "mixed"},  // relative to the working directory
      {d + "\\empty.dat", ""},  // an empty file gives an empty block
      {d + "\\missing.dat", kNone},
      {d + "\\sub dir\\folder", kNone},
      {"q:\\nothing\\x", kNone},
      {d + "\\empty.dat", kNone, nullptr, FaultPoint::FileOpen},
      {d + "\\example.ins", kNone, nullptr, FaultPoint::FileRead},  // the block of the failed read is freed
  };
  kvtest::CategoryScope csl(dbgCSL);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name + " with the local list " + (c.local != nullptr ? c.local : "(none)"));
    kvos::FaultScope faults;
    if (c.fault != FaultPoint::Count) kvos::fault_arm(c.fault);
    kvtest::CaptureSink sink;
    TackHand::SetLocal(c.local);
    TackHand t(c.name.c_str());
    std::string lowered = c.name;
    for (char& ch : lowered) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    EXPECT_EQ(t.Name(), lowered);
    EXPECT_EQ(*t, nullptr) << "nothing is loaded before TackOpen";
    EXPECT_EQ(bytes_of(t.TackOpen()), c.bytes);
    EXPECT_EQ(loader_blocks(), c.bytes == kNone ? 0 : 1);
    EXPECT_EQ(kvos::fault_hits(c.fault), c.fault != FaultPoint::Count ? 1u : 0u);
    EXPECT_EQ(sink.text(), c.local != nullptr ? "Local bin files in use\n" : "");
  }
  TackHand::SetLocal(listed);
  EXPECT_STREQ(TackHand::Local(), "panel.bin example.ins");
  TackHand::FreeLocal();
  EXPECT_EQ(TackHand::Local(), nullptr);
  TackHand unnamed;
  EXPECT_EQ(*unnamed.TackOpen(), nullptr);
  EXPECT_TRUE(TackResourceRemove("panel.bin"));
}

TEST_F(TackHandTest, HostResourcesHideBuiltInOnesUntilRemoved) {
  const std::string example = example_source();
  bool listed = false;
  for (auto n = TackResourceBuiltinNames(); *n != nullptr; ++n) listed |= std::string(*n) == "example.ins";
  EXPECT_TRUE(listed);
  size_t size = 0, emptySize = 99;
  EXPECT_TRUE(TackResourceExists("Example.INS", &size) && size == example.size());
  ASSERT_TRUE(TackResourceAdd("example.ins", "host copy", 9) && TackResourceAdd("Empty.bin", nullptr, 0));
  EXPECT_EQ(load("example.ins"), "host copy");
  EXPECT_TRUE(TackResourceExists("EMPTY.bin", &emptySize) && emptySize == 0);
  EXPECT_EQ(load("empty.bin"), kNone) << "an empty resource yields no data";
  EXPECT_TRUE(TackResourceRemove("EXAMPLE.ins") && TackResourceRemove("empty.BIN"));
  EXPECT_FALSE(TackResourceRemove("example.ins")) << "built-in resources stay";
  EXPECT_FALSE(TackResourceExists("empty.bin"));
  EXPECT_EQ(load("example.ins"), example);
  EXPECT_FALSE(TackResourceAdd(nullptr, "x", 1) || TackResourceAdd("", "x", 1));
  EXPECT_FALSE(TackResourceAdd("bad.bin", nullptr, 1) || TackResourceExists("bad.bin"));
}

TEST_F(TackHandTest, OpenLoadsOnceAndCloseOrDestructionFrees) {
  const std::string path = kvtest::dos_path(dir_.file("state.dat"));
  kvtest::write_file(dir_.file("state.dat"), "first");
  TackHand t(path.c_str());
  t.TackOpen();
  kvtest::write_file(dir_.file("state.dat"), "second, longer");
  EXPECT_EQ(bytes_of(t.TackOpen()), "first") << "loaded data is kept";
  t << "example.ins";  // a new name keeps the data until it is closed
  EXPECT_EQ(bytes_of(t), "first");
  t.TackClose();
  EXPECT_EQ(t.Size(), 0u);
  EXPECT_EQ(loader_blocks(), 0);
  t << path.c_str();
  EXPECT_EQ(bytes_of(t.TackOpen()), "second, longer");
  {
    TackHand other("example.ins");
    other.TackOpen();
    EXPECT_EQ(loader_blocks(), 2);
  }
  EXPECT_EQ(loader_blocks(), 1);

  // Files whose reported length exceeds what can be read (as kernel
  // attribute files do) are short reads.
  const char* attribute = "/sys/kernel/mm/transparent_hugepage/enabled";
  std::error_code error;
  const auto reported = std::filesystem::file_size(attribute, error);
  if (error || reported <= kvtest::read_file(attribute).size()) GTEST_SKIP() << "no short file at hand";
  EXPECT_EQ(load(kvtest::dos_path(attribute)), kNone);
}

}  // namespace
