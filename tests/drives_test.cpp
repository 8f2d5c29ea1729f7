// The drive table: DOS paths to host paths and back, per-drive working
// directories, network paths, drive types, and configuration at load.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "kvos/drives.h"
#include "kvos/fileattr.h"
#include "kvos/module.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace {

std::string process_cwd() {
  char buffer[PATH_MAX];
  return getcwd(buffer, sizeof buffer) != nullptr ? buffer : "";
}

std::string to_host(const std::string& dos) {
  std::string host;
  return kvos::dos_to_host(dos, host) ? host : "<none>";
}

std::string to_dos(const std::string& host) {
  std::string dos;
  return kvos::host_to_dos(host, dos) ? dos : "<none>";
}

// A temporary directory mapped as drive q:, with the whole table, the network
// root and the working directory put back afterwards.
class DriveTable : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = kvos::drive_list();
    savedNetwork_ = kvos::network_root();
    savedCwd_ = process_cwd();
    root_ = fs::canonical(tmp_.path()).string();
    ASSERT_TRUE(kvos::drive_map('q', root_));
  }

  void TearDown() override {
    ASSERT_EQ(chdir(savedCwd_.c_str()), 0);
    for (const auto& [letter, root] : kvos::drive_list()) kvos::drive_unmap(letter);
    for (const auto& [letter, root] : saved_) kvos::drive_map(letter, root);
    kvos::network_root_set(savedNetwork_);
  }

  std::string mkdirs(const std::string& relative) {
    const std::string path = root_ + "/" + relative;
    fs::create_directories(path);
    return path;
  }

  kvtest::TempDir tmp_;
  std::string root_;

 private:
  std::vector<std::pair<char, std::string>> saved_;
  std::string savedNetwork_;
  std::string savedCwd_;
};

}  // namespace

TEST_F(DriveTable, DosPathsMapToHostPathsAndBack) {
  mkdirs("Sub");
  mkdirs("Data");
  mkdirs("innerx");
  kvtest::write_file(root_ + "/Sub/File.txt", "x");
  kvtest::write_file(root_ + "/Data/Report.TXT", "r");
  ASSERT_TRUE(kvos::drive_map('r', mkdirs("inner")));
  const std::string& q = root_;
  const std::pair<std::string, std::string> toHost[] = {
      {"q:\\Sub\\File.txt", q + "/Sub/File.txt"},
      {"q:\\DATA\\report.txt", q + "/Data/Report.TXT"},  // a missing component is found ignoring case
      {"q:\\Data\\report.txt.  ", q + "/Data/Report.TXT"},  // trailing dots and blanks
      {"q:\\DATA\\NoSuch\\Deeper", q + "/Data/NoSuch/Deeper"},  // below a missing component: as written
      {"q:\\..\\..\\x", q + "/x"},  // ".." stops at the drive root
      {"q:\\a\\..\\..\\b\\.\\c", q + "/b/c"},
  };
  for (const auto& [dos, host] : toHost) EXPECT_EQ(to_host(dos), host) << dos;
  const std::pair<std::string, std::string> toDos[] = {
      {q, "q:\\"},
      {q + "//Sub///File.txt", "q:\\Sub\\File.txt"},
      {q + "/inner/deep/f", "r:\\deep\\f"},  // the longest mapped root wins
      {q + "/innerx/f", "q:\\innerx\\f"},    // on whole components only
  };
  for (const auto& [host, dos] : toDos) EXPECT_EQ(to_dos(host), dos) << host;
  // With two candidates the choice is stable: the smallest name; an exact match always wins.
  mkdirs("DATA");
  EXPECT_EQ(to_host("q:\\data"), root_ + "/DATA");
  EXPECT_EQ(to_host("q:\\Data"), root_ + "/Data");
  EXPECT_EQ(to_host(""), "<none>");
  EXPECT_EQ(to_host("!:\\x"), "<none>") << "the pseudo drives have no host directory";

  if (kvos::drive_root('c') != "/") GTEST_SKIP() << "c: is remapped by KVCORE_DRIVES";
  EXPECT_EQ(to_host("C:/tmp/x"), "/tmp/x") << "either case, either separator";
  EXPECT_EQ(to_dos("/"), "c:\\");
}

TEST_F(DriveTable, MappingRulesAndListing) {
  for (const auto& [letter, root] : {std::pair{'1', "/tmp"}, {'!', "/tmp"}, {'r', "relative/dir"}, {'r', ""}})
    EXPECT_FALSE(kvos::drive_map(letter, root)) << letter << root;
  EXPECT_FALSE(kvos::drive_unmap('r')) << "not mapped";

  ASSERT_TRUE(kvos::drive_map('R', "/tmp//a/./b/../c/"));
  EXPECT_EQ(kvos::drive_root('r'), "/tmp/a/c");
  const auto list = kvos::drive_list();
  for (size_t i = 1; i < list.size(); ++i) EXPECT_LT(list[i - 1].first, list[i].first);
  bool sawQ = false, sawR = false;
  for (const auto& [letter, root] : list) {
    sawQ = sawQ || (letter == 'q' && root == root_);
    sawR = sawR || (letter == 'r' && root == "/tmp/a/c");
  }
  EXPECT_TRUE(sawQ && sawR);
  EXPECT_TRUE(kvos::drive_unmap('r'));
  EXPECT_EQ(to_host("r:\\x"), "<none>");
  // Without a drive on "/", host paths outside the mapped drives have no DOS name.
  for (const auto& [letter, root] : kvos::drive_list())
    if (letter != 'q') kvos::drive_unmap(letter);
  EXPECT_EQ(to_dos("/usr/lib"), "<none>");
}

TEST_F(DriveTable, RootReachedThroughALinkIsRecognised) {
  const std::string real = mkdirs("real/sub");
  const std::string link = root_ + "/link";
  ASSERT_EQ(symlink((root_ + "/real").c_str(), link.c_str()), 0);
  ASSERT_TRUE(kvos::drive_map('r', link));
  EXPECT_EQ(to_dos(link + "/sub"), "r:\\sub");
  EXPECT_EQ(to_dos(real), "r:\\sub") << "the resolved form of the root holds the path too";
  ASSERT_EQ(chdir(real.c_str()), 0);
  EXPECT_EQ(kvos::drive_current(), 'r');
  std::string dos;
  ASSERT_TRUE(kvos::drive_getcwd('r', dos));
  EXPECT_EQ(dos, "r:\\sub");
}

TEST_F(DriveTable, NetworkPathsNeedANetworkRoot) {
  kvos::network_root_set("");
  EXPECT_EQ(to_host("\\\\server\\share\\f.txt"), "<none>");
  EXPECT_EQ(kvos::file_attributes("\\\\server\\share\\f.txt"), kvos::kInvalidFileAttributes);
  EXPECT_FALSE(kvos::dos_chdir("\\\\server\\share"));

  const std::string net = mkdirs("net");
  mkdirs("net/Server/share");
  kvos::network_root_set(net);
  EXPECT_EQ(kvos::network_root(), net);
  EXPECT_EQ(to_host("\\\\server\\share\\f.txt"), net + "/Server/share/f.txt");
  EXPECT_EQ(to_dos(net + "/Server/share/f.txt"), "\\\\Server\\share\\f.txt")
      << "the network root is longer than q:'s root, so it wins";
  EXPECT_EQ(to_dos(net + "/Server"), "q:\\net\\Server") << "no share: the drive's name";
  EXPECT_NE(kvos::file_attributes("\\\\SERVER\\share") & kvos::kFileAttributeDirectory, 0u);

  kvos::network_root_set("relative");
  EXPECT_EQ(kvos::network_root(), "");
}

TEST_F(DriveTable, EachDriveKeepsItsWorkingDirectory) {
  if (kvos::drive_current() == 0) GTEST_SKIP() << "the working directory is on no mapped drive";
  const int home = kvos::drive_current();
  std::string homeDos;
  ASSERT_TRUE(kvos::drive_getcwd(home, homeDos));
  mkdirs("a/b");

  std::string dos;
  ASSERT_TRUE(kvos::drive_getcwd('q', dos));
  EXPECT_EQ(dos, "q:\\") << "another drive starts at its root";

  ASSERT_TRUE(kvos::dos_chdir("q:\\A"));
  EXPECT_EQ(process_cwd(), root_ + "/a");
  EXPECT_EQ(kvos::drive_current(), 'q');
  ASSERT_TRUE(kvos::drive_getcwd('q', dos));
  EXPECT_EQ(dos, "q:\\a");
  EXPECT_EQ(to_host("q:b"), root_ + "/a/b") << "drive-relative text starts at the drive's directory";
  EXPECT_EQ(to_host("b"), "b");
  EXPECT_EQ(to_host("\\x"), root_ + "/x") << "rooted text is on the current drive";

  ASSERT_TRUE(kvos::drive_set_current(home));
  EXPECT_EQ(to_dos(process_cwd()), homeDos) << "the drive left behind remembers its directory";
  ASSERT_TRUE(kvos::drive_set_current('Q'));
  EXPECT_EQ(process_cwd(), root_ + "/a");
  ASSERT_TRUE(kvos::drive_set_current(home));

  // A remembered directory that is gone falls back to the root; remapping forgets it.
  fs::remove_all(root_ + "/a");
  ASSERT_TRUE(kvos::drive_getcwd('q', dos));
  EXPECT_EQ(dos, "q:\\");
  fs::create_directories(root_ + "/a");
  ASSERT_TRUE(kvos::dos_chdir("q:\\a"));
  ASSERT_TRUE(kvos::drive_set_current(home));
  ASSERT_TRUE(kvos::drive_map('q', root_));
  ASSERT_TRUE(kvos::drive_getcwd('q', dos));
  EXPECT_EQ(dos, "q:\\");

  EXPECT_FALSE(kvos::drive_getcwd('p', dos)) << "unmapped";
  EXPECT_FALSE(kvos::drive_set_current('p'));
  EXPECT_FALSE(kvos::dos_chdir("q:\\missing"));
  EXPECT_EQ(kvos::drive_current(), home) << "a failed change leaves the drive";
}

TEST_F(DriveTable, DriveTypesComeFromTheMountTable) {
  EXPECT_NE(kvos::drive_type('q'), kvos::kDriveNoRoot);
  EXPECT_EQ(kvos::drive_type('p'), kvos::kDriveNoRoot);
  ASSERT_TRUE(kvos::drive_map('r', root_ + "/missing"));
  EXPECT_EQ(kvos::drive_type('r'), kvos::kDriveNoRoot);
  kvtest::write_file(root_ + "/plain", "");
  ASSERT_TRUE(kvos::drive_map('r', root_ + "/plain"));
  EXPECT_EQ(kvos::drive_type('r'), kvos::kDriveNoRoot) << "a file is no root directory";

  const std::string table =
      "rootfs / rootfs rw 0 0\n"
      "tmpfs /mnt tmpfs rw 0 0\n"
      "server:/export /mnt/net nfs4 rw 0 0\n"
      "//host/share /mnt/my\\040share cifs rw 0 0\n"
      "tmpfs /mnt/over tmpfs rw 0 0\n"
      "server:/o /mnt/over nfs rw 0 0\n";
  EXPECT_EQ(kvos::mount_drive_type("/mnt/net/a/b", table), kvos::kDriveRemote);
  EXPECT_EQ(kvos::mount_drive_type("/mnt/net", table), kvos::kDriveRemote);
  EXPECT_EQ(kvos::mount_drive_type("/mnt/network", table), kvos::kDriveFixed) << "whole components";
  EXPECT_EQ(kvos::mount_drive_type("/mnt/my share/x", table), kvos::kDriveRemote) << "octal escapes";
  EXPECT_EQ(kvos::mount_drive_type("/mnt/over/x", table), kvos::kDriveRemote) << "the mount on top";
  EXPECT_EQ(kvos::mount_drive_type("/home", table), kvos::kDriveFixed);
  EXPECT_EQ(kvos::mount_drive_type("/home", ""), kvos::kDriveUnknown);
}

TEST_F(DriveTable, FileAttributesOfDosPaths) {
  mkdirs("Dir");
  kvtest::write_file(root_ + "/Dir/.hidden", "");
  kvtest::write_file(root_ + "/Dir/plain.txt", "");
  EXPECT_EQ(kvos::file_attributes("q:\\dir"), kvos::kFileAttributeDirectory);
  EXPECT_EQ(kvos::file_attributes("q:\\Dir\\PLAIN.TXT"), kvos::kFileAttributeNormal);
  EXPECT_NE(kvos::file_attributes("q:\\Dir\\.hidden") & kvos::kFileAttributeHidden, 0u);
  EXPECT_EQ(kvos::file_attributes("q:\\Dir\\none"), kvos::kInvalidFileAttributes);
  if (geteuid() != 0) {
    chmod((root_ + "/Dir/plain.txt").c_str(), 0444);
    EXPECT_EQ(kvos::file_attributes("q:\\Dir\\plain.txt"), kvos::kFileAttributeReadOnly);
  }
}

// Run in a child process with KVCORE_DRIVES and KVCORE_NETWORK_ROOT set: the
// table read at load. Skipped when run directly.
TEST(DriveTableAtLoad, ChildReadsTheEnvironment) {
  if (std::getenv("KVTEST_DRIVES_CHILD") == nullptr) GTEST_SKIP() << "runs inside DriveTableAtLoad.Environment";
  EXPECT_EQ(kvos::drive_root('d'), "/mnt/data");
  EXPECT_EQ(kvos::drive_root('e'), "/media/usb");
  EXPECT_EQ(kvos::drive_root('g'), "/srv/g") << "a letter in either case";
  EXPECT_TRUE(kvos::drive_root('f').empty());
  EXPECT_TRUE(kvos::network_root().empty());
  const auto problems = kvos::drive_config_problems();
  ASSERT_EQ(problems.size(), 4u);
  EXPECT_NE(problems[0].find("\"9=/x\""), std::string::npos) << problems[0];
  EXPECT_NE(problems[1].find("\"f=relative\""), std::string::npos) << problems[1];
  EXPECT_NE(problems[2].find("\"nonsense\""), std::string::npos) << problems[2];
  EXPECT_NE(problems[3].find("KVCORE_NETWORK_ROOT"), std::string::npos) << problems[3];
}

TEST(DriveTableAtLoad, Environment) {
  kvtest::TempDir tmp;
  const std::string err = tmp.file("stderr");
  const std::string command =
      "KVTEST_DRIVES_CHILD=1 KVCORE_DRIVES='d=/mnt/data;9=/x;e=/media//usb/;;f=relative;nonsense;G=/srv/g' "
      "KVCORE_NETWORK_ROOT=net KVCORE_LOG=none '" +
      kvos::executable_path() + "' --gtest_filter=DriveTableAtLoad.ChildReadsTheEnvironment > '" +
      tmp.file("stdout") + "' 2> '" + err + "'";
  const int status = std::system(command.c_str());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << kvtest::read_file(tmp.file("stdout"));
  EXPECT_NE(kvtest::read_file(tmp.file("stdout")).find("[  PASSED  ] 1 test"), std::string::npos)
      << kvtest::read_file(tmp.file("stdout"));
  EXPECT_EQ(kvtest::read_file(err), "") << "configuration problems stay off the program's output";
}
