// TackHand: embedded and host-registered resources, "&" names, the local
// list, disk reads and their failures.
#include <gtest/gtest.h>
#include <unistd.h>

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

std::string dos(const std::string& host) { return kvtest::dos_path(host); }

std::string bytes_of(TackHand& t) {
  if (*t == nullptr) return "<none>";
  return std::string(static_cast<const char*>(*t), t.Size());
}

// Live blocks in mainheap allocated by the loader.
int loader_blocks() {
  int count = 0;
  kvos::heap_entry e;
  auto* handle = static_cast<kvos::region_heap>(mainheap->get_handle());
  while (kvos::region_heap_walk(handle, &e)) {
    if ((e.wFlags & kvos::heap_entry_busy) == 0) continue;
    const auto* record = static_cast<const heap_record*>(e.lpData);
    if (record->file != nullptr && std::strcmp(record->file, "System/TackHand") == 0) ++count;
  }
  return count;
}

// The example file as it lies in the source tree.
std::string example_source() {
  const char* root = std::getenv("KV_TEST_SOURCE_DIR");
  if (root == nullptr) return {};
  return kvtest::read_file(std::string(root) + "/resources/example.ins");
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

TEST_F(TackHandTest, BuiltInResourceIsTheFileOfTheResourcesFolderUnderItsLowerCasedName) {
  const std::string expected = example_source();
  ASSERT_FALSE(expected.empty()) << "KV_TEST_SOURCE_DIR not set or example missing";

  bool listed = false;
  for (const char* const* n = TackResourceBuiltinNames(); *n != nullptr; ++n) listed |= std::strcmp(*n, "example.ins") == 0;
  EXPECT_TRUE(listed);
  size_t size = 0;
  ASSERT_TRUE(TackResourceExists("Example.INS", &size));
  EXPECT_EQ(size, expected.size());

  TackHand t("EXAMPLE.Ins");
  EXPECT_STREQ(t.Name(), "example.ins");
  EXPECT_EQ(*t, nullptr) << "nothing is loaded before TackOpen";
  EXPECT_EQ(bytes_of(t.TackOpen()), expected);
  // The block is a tracked block of its own whose allocated size is the length.
  EXPECT_EQ(heapman_mgr::find(*t), mainheap);
  EXPECT_EQ(heapman_mgr::get_size(*t), expected.size());
  TackHand missing("no-such-resource.bin"), unnamed;
  EXPECT_TRUE(*missing.TackOpen() == nullptr && *unnamed.TackOpen() == nullptr);
}

TEST_F(TackHandTest, HostResourcesAreCopiedHideBuiltInOnesAndCanBeRemoved) {
  char bytes[] = {'a', '\0', 'b', '\r', '\n'};
  ASSERT_TRUE(TackResourceAdd("Panel.Defaults", bytes, sizeof bytes));
  bytes[0] = 'z';  // the table holds its own copy
  {
    TackHand t("panel.defaults");
    EXPECT_EQ(bytes_of(t.TackOpen()), std::string("a\0b\r\n", 5));
  }
  EXPECT_TRUE(TackResourceRemove("PANEL.defaults"));
  EXPECT_FALSE(TackResourceRemove("panel.defaults"));

  // A host resource of a built-in name replaces it until removed.
  ASSERT_TRUE(TackResourceAdd("example.ins", "host copy", 9));
  {
    TackHand t("example.ins");
    EXPECT_EQ(bytes_of(t.TackOpen()), "host copy");
  }
  ASSERT_TRUE(TackResourceRemove("example.ins"));
  EXPECT_FALSE(TackResourceRemove("example.ins")) << "built-in resources stay";
  {
    TackHand t("example.ins");
    EXPECT_EQ(bytes_of(t.TackOpen()), example_source());
  }

  // An empty resource yields no data.
  ASSERT_TRUE(TackResourceAdd("empty.bin", nullptr, 0));
  size_t size = 99;
  EXPECT_TRUE(TackResourceExists("empty.bin", &size));
  EXPECT_EQ(size, 0u);
  TackHand empty("empty.bin");
  EXPECT_EQ(*empty.TackOpen(), nullptr);
  EXPECT_TRUE(TackResourceRemove("empty.bin"));

  EXPECT_FALSE(TackResourceAdd(nullptr, "x", 1));
  EXPECT_FALSE(TackResourceAdd("", "x", 1));
  EXPECT_FALSE(TackResourceAdd("bad.bin", nullptr, 1));
  EXPECT_FALSE(TackResourceExists("bad.bin"));
}

TEST_F(TackHandTest, AmpersandNamesAndTheLocalList) {
  const std::string example = example_source();
  kvtest::write_file(dir_.file("example.ins"), "the local copy");
  kvtest::CaptureSink sink;
  kvtest::CategoryScope csl(dbgCSL);

  // "&" with directories: the last component, as a resource.
  TackHand amp("&C:\\Some\\Dir\\Example.Ins");
  EXPECT_EQ(bytes_of(amp.TackOpen()), example);
  TackHand bare("&example.ins");
  EXPECT_EQ(bytes_of(bare.TackOpen()), example);
  EXPECT_EQ(sink.text().find("Local bin files in use"), std::string::npos);

  // Listed as local: the bare name is read from the working directory.
  TackHand::SetLocal("Panel.BIN EXAMPLE.INS");
  EXPECT_STREQ(TackHand::Local(), "panel.bin example.ins");
  TackHand local("&C:\\Some\\Dir\\Example.Ins");
  EXPECT_EQ(bytes_of(local.TackOpen()), "the local copy");
  EXPECT_EQ(sink.text(), "Local bin files in use\n");
  TackHand plain("example.ins");
  EXPECT_EQ(bytes_of(plain.TackOpen()), "the local copy");

  // A listed name missing on disk does not fall back to the resource.
  std::filesystem::remove(dir_.file("example.ins"));
  TackHand gone("example.ins");
  EXPECT_EQ(*gone.TackOpen(), nullptr);

  // The list matches substrings; clearing it restores resource loading.
  TackHand::SetLocal("xexample.insx");
  kvtest::write_file(dir_.file("example.ins"), "again local");
  TackHand sub("example.ins");
  EXPECT_EQ(bytes_of(sub.TackOpen()), "again local");
  TackHand::SetLocal(nullptr);
  EXPECT_EQ(TackHand::Local(), nullptr);
  TackHand resource("example.ins");
  EXPECT_EQ(bytes_of(resource.TackOpen()), example);
  TackHand::SetLocal("example.ins");
  TackHand::FreeLocal();
  EXPECT_EQ(TackHand::Local(), nullptr);
}

TEST_F(TackHandTest, NamesWithDirectoriesAreReadFromDisk) {
  // A path is read from disk even when a resource has its last component's name.
  const std::string content("binary\0data\r\nwith CR LF\xff", 24);
  kvtest::write_file(dir_.file("example.ins"), content);
  TackHand t(dos(dir_.file("example.ins")).c_str());
  EXPECT_EQ(bytes_of(t.TackOpen()), content);
  EXPECT_EQ(heapman_mgr::get_size(*t), content.size());

  // Lower-casing the name still finds a mixed-case file.
  std::filesystem::create_directory(dir_.file("Sub Dir"));
  kvtest::write_file(dir_.file("Sub Dir/Setup.DAT"), "mixed");
  TackHand mixed((dos(dir_.path()) + "\\SUB DIR\\setup.dat").c_str());
  std::string lowered = dos(dir_.path()) + "\\sub dir\\setup.dat";
  for (char& c : lowered) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_STREQ(mixed.Name(), lowered.c_str());
  EXPECT_EQ(bytes_of(mixed.TackOpen()), "mixed");

  // A relative path with a directory is taken from the working directory.
  TackHand relative("sub dir\\setup.dat");
  EXPECT_EQ(bytes_of(relative.TackOpen()), "mixed");

  // An empty file gives an empty block.
  kvtest::write_file(dir_.file("empty.dat"), "");
  TackHand empty(dos(dir_.file("empty.dat")).c_str());
  EXPECT_EQ(bytes_of(empty.TackOpen()), "") << "an empty file gives an empty block";
}

TEST_F(TackHandTest, OpenLoadsOnceAndCloseFrees) {
  const std::string path = dos(dir_.file("state.dat"));
  kvtest::write_file(dir_.file("state.dat"), "first");
  TackHand t(path.c_str());
  void* first = *t.TackOpen();
  kvtest::write_file(dir_.file("state.dat"), "second, longer");
  EXPECT_EQ(*t.TackOpen(), first) << "loaded data is kept";
  EXPECT_EQ(bytes_of(t), "first");

  // A new name keeps the data until it is closed.
  t << "example.ins";
  EXPECT_EQ(bytes_of(t), "first");
  t.TackClose();
  EXPECT_EQ(t.Size(), 0u);
  t << path.c_str();
  EXPECT_EQ(bytes_of(t.TackOpen()), "second, longer");

  // Closing and destruction return the block to the heap.
  EXPECT_EQ(loader_blocks(), 1);
  t.TackClose();
  EXPECT_EQ(loader_blocks(), 0);
  {
    TackHand other("example.ins");
    other.TackOpen();
    EXPECT_EQ(loader_blocks(), 1);
  }
  EXPECT_EQ(loader_blocks(), 0);
}

TEST_F(TackHandTest, MissingUnreadableAndShortFilesYieldNoData) {
  kvos::FaultScope faults;
  std::filesystem::create_directory(dir_.file("folder"));
  for (const std::string& name : {dos(dir_.file("missing.dat")), dos(dir_.file("folder")), std::string("q:\\nothing\\x")}) {
    TackHand none(name.c_str());
    EXPECT_EQ(*none.TackOpen(), nullptr) << name;
  }

  kvtest::write_file(dir_.file("data.dat"), "some bytes");
  TackHand t(dos(dir_.file("data.dat")).c_str());
  kvos::fault_arm(kvos::FaultPoint::FileRead);
  EXPECT_EQ(*t.TackOpen(), nullptr) << "a failed read gives no data";
  EXPECT_EQ(kvos::fault_hits(kvos::FaultPoint::FileRead), 1u);
  EXPECT_EQ(loader_blocks(), 0) << "the block of a failed read is freed";
  kvos::fault_arm(kvos::FaultPoint::FileOpen);
  EXPECT_EQ(*t.TackOpen(), nullptr);
  EXPECT_EQ(bytes_of(t.TackOpen()), "some bytes") << "a later open succeeds";

  // Files whose reported length exceeds what can be read (as kernel
  // attribute files do) are short reads.
  const char* attribute = "/sys/kernel/mm/transparent_hugepage/enabled";
  std::error_code error;
  const auto reported = std::filesystem::file_size(attribute, error);
  if (error || reported <= kvtest::read_file(attribute).size()) GTEST_SKIP() << "no short file at hand";
  TackHand shortFile(dos(attribute).c_str());
  EXPECT_EQ(*shortFile.TackOpen(), nullptr);
}

}  // namespace
