// The OS boundary's files: I/O, times, temporary names, atomic replacement,
// find-first, free space and the fault-injection facility.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include "kvos/fault.h"
#include "kvos/file.h"
#include "kvos/fileattr.h"
#include "kvos/time.h"
#include "test_support.h"

namespace {

// A temporary directory; dos() names its files (or itself) by DOS path, exists() and content() look at them.
class OsFile : public ::testing::Test {
 protected:
  std::string dos(const std::string& name = "") const {
    return kvtest::dos_path(name.empty() ? dir.path() : dir.file(name));
  }
  bool exists(const std::string& name) const { return std::filesystem::exists(dir.file(name)); }
  std::string content(const std::string& name) const { return kvtest::read_file(dir.file(name)); }
  kvtest::TempDir dir;
};

void write_all(kvos::file_t file, const std::string& text) {
  uint64_t done = 0;
  EXPECT_TRUE(kvos::file_write(file, text.data(), text.size(), done) && done == text.size()) << done;
}

TEST_F(OsFile, WriteSeekReadTimesAndDeleteThroughDosPaths) {
  const std::string path = dos("Data.bin");
  kvos::file_t file = kvos::file_open(path, kvos::kFileCreateAlways);
  ASSERT_NE(file, kvos::kInvalidFile);
  write_all(file, "hello");
  ASSERT_TRUE(kvos::file_seek(file, 8));
  write_all(file, "xy");
  uint64_t size = 0, done = 0;
  EXPECT_TRUE(kvos::file_get_size(file, size) && size == 10u) << size;
  EXPECT_TRUE(kvos::file_close(file));
  EXPECT_EQ(content("Data.bin"), std::string("hello\0\0\0xy", 10));

  // The name is found whatever its case; reading stops short only at the end.
  file = kvos::file_open(path.substr(0, path.size() - 8) + "DATA.BIN", kvos::kFileReadExisting);
  ASSERT_NE(file, kvos::kInvalidFile);
  char buffer[16] = {};
  ASSERT_TRUE(kvos::file_seek(file, 3) && kvos::file_read(file, buffer, 4, done));
  EXPECT_EQ(std::string(buffer, done), std::string("lo\0\0", 4));
  ASSERT_TRUE(kvos::file_read(file, buffer, sizeof buffer, done));
  EXPECT_EQ(done, 3u) << "a read past the end is short, not an error";
  EXPECT_TRUE(kvos::file_close(file));

  const std::pair<std::string, kvos::FileOpenMode> refused[] = {
      {path, kvos::kFileCreateNew}, {dos("missing"), kvos::kFileReadExisting},
      {dos("missing"), kvos::kFileWriteExisting}, {dos(), kvos::kFileReadExisting}};
  for (const auto& [name, mode] : refused) EXPECT_EQ(kvos::file_open(name, mode), kvos::kInvalidFile) << name;
  // Writing an existing file does not truncate it; its last-write time can be set.
  file = kvos::file_open(path, kvos::kFileWriteExisting);
  write_all(file, "J");
  const int64_t when = kvos::unix_to_file_time(1505049510, 123456700);  // 2017-09-10 13:18:30.1234567 UTC
  int64_t read = 0;
  ASSERT_TRUE(kvos::file_set_time(file, when) && kvos::file_get_time(file, read));
  EXPECT_EQ(read, when);
  EXPECT_TRUE(kvos::file_close(file));
  EXPECT_EQ(content("Data.bin"), std::string("Jello\0\0\0xy", 10));
  EXPECT_EQ(kvtest::file_write_time(dir.file("Data.bin")), when);
  EXPECT_TRUE(kvos::file_close(kvos::file_open(path, kvos::kFileCreateAlways)));
  EXPECT_EQ(content("Data.bin"), "");
  EXPECT_FALSE(kvos::file_close(kvos::kInvalidFile));

  EXPECT_FALSE(kvos::file_delete(dos())) << "directories are not files";
  EXPECT_TRUE(kvos::file_delete(path));
  EXPECT_FALSE(exists("Data.bin") || kvos::file_delete(path));
}

TEST_F(OsFile, TemporaryNamesAreUniqueReservedAndShapedLikeTheClassicOnes) {
  const std::string dosDir = dos();
  const std::regex shape(R"(kvc[0-9A-F]{4}\.tmp)");
  std::set<std::string> seen;
  std::string name;
  for (int i = 0; i < 64; ++i) {
    ASSERT_TRUE(kvos::file_temp_name(dosDir, "kvc", 0, name));
    ASSERT_EQ(name.substr(0, dosDir.size() + 1), dosDir + "\\");
    const std::string leaf = name.substr(dosDir.size() + 1);
    EXPECT_TRUE(std::regex_match(leaf, shape) && leaf != "kvc0000.tmp") << leaf;
    EXPECT_TRUE(seen.insert(leaf).second) << "handed out twice: " << leaf;
    EXPECT_TRUE(exists(leaf)) << "the name is reserved by an empty file";
  }
  // A given number names the file without creating it; the prefix keeps 3 characters.
  ASSERT_TRUE(kvos::file_temp_name(dosDir + "\\", "abcdef", 0x51A2B, name));
  EXPECT_EQ(name, dosDir + "\\abc1A2B.tmp");
  EXPECT_FALSE(exists("abc1A2B.tmp"));
  kvtest::write_file(dir.file("plain"), "x");
  EXPECT_FALSE(kvos::file_temp_name(dosDir + "\\missing", "kvc", 0, name));
  EXPECT_FALSE(kvos::file_temp_name(dosDir + "\\plain", "kvc", 0, name)) << "a file is no directory";
}

TEST_F(OsFile, ReplaceSwapsContentAndKeepsTheAccessBits) {
  for (const char* name : {"target", "a", "b"}) kvtest::write_file(dir.file(name), name);
  kvtest::write_file(dir.file("new"), "new content");
  ASSERT_TRUE(kvtest::set_kept_access(dir.file("target"), dir.file("new")));
  ASSERT_TRUE(std::filesystem::create_directory(dir.file("sub")));
  ASSERT_TRUE(kvos::file_replace(dos("new"), dos("target")));
  EXPECT_EQ(content("target"), "new content");
  EXPECT_FALSE(exists("new"));
  EXPECT_TRUE(kvtest::has_kept_access(dir.file("target")));

  // A new target is simply created; a directory is never replaced; a missing source replaces nothing.
  EXPECT_TRUE(kvos::file_replace(dos("a"), dos("fresh")));
  EXPECT_FALSE(kvos::file_replace(dos("b"), dos("sub")));
  EXPECT_FALSE(kvos::file_replace(dos("gone"), dos("fresh")));
  EXPECT_EQ(content("fresh") + content("b"), "ab");
}

TEST_F(OsFile, FindFirstMatchesWildcardsIgnoringCaseInNameOrder) {
  for (const auto& [name, text] : {std::pair{"beta.TXT", "12345"}, {"Alpha.txt", "1"}, {"gamma.dat", "123"}, {".hidden", ""}})
    kvtest::write_file(dir.file(name), text);
  ASSERT_TRUE(std::filesystem::create_directory(dir.file("sub")));
  const std::string d = dos() + "\\";
  const struct { const char* pattern; const char* name; uint64_t size; uint32_t attributes; } cases[] = {
      {"*.txt", "Alpha.txt", 1, kvos::kFileAttributeNormal}, {"B*.t?t", "beta.TXT", 5, kvos::kFileAttributeNormal},
      {"b?.txt", nullptr, 0, 0},  // ? stands for exactly one character
      {"*.*", ".hidden", 0, kvos::kFileAttributeHidden}, {"s*", "sub", 0, kvos::kFileAttributeDirectory},
      {"GAMMA.DAT", "gamma.dat", 3, kvos::kFileAttributeNormal},  // without wildcards: in its real case
      {"*.none", nullptr, 0, 0}, {"missing.txt", nullptr, 0, 0}, {"nodir\\*.txt", nullptr, 0, 0}};
  kvos::FindData found;
  for (const auto& c : cases) {
    ASSERT_EQ(kvos::file_find_first(d + c.pattern, found), c.name != nullptr) << c.pattern;
    if (c.name == nullptr) continue;
    EXPECT_EQ(found.name + " " + std::to_string(found.size) + " " + std::to_string(found.attributes),
              std::string(c.name) + " " + std::to_string(c.size) + " " + std::to_string(c.attributes));
  }
  ASSERT_TRUE(kvos::file_find_first(d + "gamma.dat", found));
  EXPECT_EQ(found.lastWriteUtc, kvtest::file_write_time(dir.file("gamma.dat")));
}

TEST_F(OsFile, FreeSpaceIsTheVolumesAndMissingPathsFail) {
  uint64_t available = 0, total = 0, totalFree = 0;
  ASSERT_TRUE(kvos::disk_free_space(dos(), available, &total, &totalFree));
  const std::filesystem::space_info space = std::filesystem::space(dir.path());
  EXPECT_EQ(total, space.capacity);
  EXPECT_NEAR(static_cast<double>(available), static_cast<double>(space.available), 64.0 * 1024 * 1024);
  EXPECT_TRUE(available <= totalFree && totalFree <= total);
  EXPECT_FALSE(kvos::disk_free_space(dos("missing"), available));
}

TEST_F(OsFile, ArmedPointsFailAfterTheSkipForTheCount) {
  kvos::FaultScope scope;
  kvtest::write_file(dir.file("f"), "x");
  const std::string path = dos("f");
  auto opens = [&] {
    const kvos::file_t file = kvos::file_open(path, kvos::kFileReadExisting);
    return file != kvos::kInvalidFile && kvos::file_close(file);
  };
  kvos::fault_arm(kvos::FaultPoint::FileOpen, 1, 2);
  EXPECT_TRUE(opens() && !opens() && !opens() && opens()) << "skip one, fail two, then the count is used up";
  EXPECT_EQ(kvos::fault_hits(kvos::FaultPoint::FileOpen), 2u);
  kvos::fault_arm(kvos::FaultPoint::FileOpen, 0, 0);
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(opens()) << "count 0 fails until disarmed";
  kvos::fault_disarm(kvos::FaultPoint::FileOpen);
  EXPECT_TRUE(opens());
  EXPECT_EQ(kvos::fault_hits(kvos::FaultPoint::FileOpen), 5u);

  // An injected write failure stores half of the bytes first, as a full disk would.
  kvos::file_t file = kvos::file_open(dos("w"), kvos::kFileCreateAlways);
  ASSERT_NE(file, kvos::kInvalidFile);
  kvos::fault_arm(kvos::FaultPoint::FileWrite);
  uint64_t done = 0;
  EXPECT_FALSE(kvos::file_write(file, "0123456789", 10, done));
  EXPECT_EQ(done, 5u);
  EXPECT_TRUE(kvos::file_write(file, "ab", 2, done));
  kvos::fault_arm(kvos::FaultPoint::FileClose);
  EXPECT_FALSE(kvos::file_close(file));
  EXPECT_EQ(content("w"), "01234ab") << "the handle is closed all the same";

  // The other file points.
  std::string name;
  kvos::fault_arm(kvos::FaultPoint::FileReplace);
  kvos::fault_arm(kvos::FaultPoint::FileTempName);
  kvos::fault_arm(kvos::FaultPoint::FileDelete);
  EXPECT_FALSE(kvos::file_replace(dos("w"), path) || kvos::file_temp_name(dos(), "kvc", 0, name) ||
               kvos::file_delete(path));
  EXPECT_EQ(content("f"), "x");
  for (const auto point : {kvos::FaultPoint::FileReplace, kvos::FaultPoint::FileTempName, kvos::FaultPoint::FileDelete})
    EXPECT_EQ(kvos::fault_hits(point), 1u);
}

}  // namespace
