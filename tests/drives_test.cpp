// The drive table: DOS paths to host paths and back, per-drive working
// directories, network paths, drive types, and configuration at load.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "kvos/drives.h"
#include "kvos/fileattr.h"
#include "kvos/module.h"
#include "test_support.h"

namespace fs = std::filesystem;
using kvtest::host_join;

namespace {

std::string process_cwd() { return fs::current_path().string(); }

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
    fs::current_path(savedCwd_);
    for (const auto& [letter, root] : kvos::drive_list()) kvos::drive_unmap(letter);
    for (const auto& [letter, root] : saved_) kvos::drive_map(letter, root);
    kvos::network_root_set(savedNetwork_);
  }

  std::string mkdirs(const std::string& relative) {
    const std::string path = host_join(root_, relative);
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
  kvtest::write_file(host_join(root_, "Sub/File.txt"), "x");
  kvtest::write_file(host_join(root_, "Data/Report.TXT"), "r");
  ASSERT_TRUE(kvos::drive_map('r', mkdirs("inner")));
  const std::string& q = root_;
  // Host names that ignore case (Windows) need no look-up: there a path stays as written.
  const bool lookup = !kvtest::kWindows;
  const std::pair<std::string, std::string> toHost[] = {
      {"q:\\Sub\\File.txt", "Sub/File.txt"},
      {"q:\\DATA\\report.txt", lookup ? "Data/Report.TXT" : "DATA/report.txt"},  // found ignoring case
      {"q:\\Data\\report.txt.  ", lookup ? "Data/Report.TXT" : "Data/report.txt.  "},  // trailing dots and blanks
      {"q:\\DATA\\NoSuch\\Deeper", lookup ? "Data/NoSuch/Deeper" : "DATA/NoSuch/Deeper"},  // below a missing one: as written
      {"q:\\..\\..\\x", "x"},  // ".." stops at the drive root
      {"q:\\a\\..\\..\\b\\.\\c", "b/c"},
  };
  for (const auto& [dos, host] : toHost) EXPECT_EQ(to_host(dos), host_join(q, host)) << dos;
  const std::pair<std::string, std::string> toDos[] = {
      {"", "q:\\"},
      {"/Sub///File.txt", "q:\\Sub\\File.txt"},
      {"inner/deep/f", "r:\\deep\\f"},  // the longest mapped root wins
      {"innerx/f", "q:\\innerx\\f"},    // on whole components only
  };
  for (const auto& [host, dos] : toDos) EXPECT_EQ(to_dos(host_join(q, host)), dos) << host;
  EXPECT_EQ(to_host(""), "<none>");
  EXPECT_EQ(to_host("!:\\x"), "<none>") << "the pseudo drives have no host directory";
  if (lookup) {
    // With two candidates the choice is stable: the smallest name; an exact match always wins.
    mkdirs("DATA");
    EXPECT_EQ(to_host("q:\\data"), host_join(root_, "DATA"));
    EXPECT_EQ(to_host("q:\\Data"), host_join(root_, "Data"));
  }

  // c: is the host root, or on Windows the system's drive C:.
  if (kvos::drive_root('c') != kvtest::host_absolute("/")) GTEST_SKIP() << "c: is remapped by KVCORE_DRIVES";
  EXPECT_EQ(to_host("C:/tmp/x"), kvtest::host_absolute("/tmp/x")) << "either case, either separator";
  EXPECT_EQ(to_dos(kvtest::host_absolute("/")), "c:\\");
}

TEST_F(DriveTable, MappingRulesAndListing) {
  const std::string tmp = kvtest::host_absolute("/tmp");
  for (const auto& [letter, root] : {std::pair{'1', tmp}, {'!', tmp}, {'r', std::string("relative/dir")}, {'r', std::string()}})
    EXPECT_FALSE(kvos::drive_map(letter, root)) << letter << root;
  EXPECT_FALSE(kvos::drive_unmap('r')) << "not mapped";

  const std::string normal = kvtest::host_absolute("/tmp/a/c");
  ASSERT_TRUE(kvos::drive_map('R', kvtest::host_absolute("/tmp//a/./b/../c/")));
  EXPECT_EQ(kvos::drive_root('r'), normal);
  const auto list = kvos::drive_list();
  for (size_t i = 1; i < list.size(); ++i) EXPECT_LT(list[i - 1].first, list[i].first);
  bool sawQ = false, sawR = false;
  for (const auto& [letter, root] : list) {
    sawQ = sawQ || (letter == 'q' && root == root_);
    sawR = sawR || (letter == 'r' && root == normal);
  }
  EXPECT_TRUE(sawQ && sawR);
  EXPECT_TRUE(kvos::drive_unmap('r'));
  EXPECT_EQ(to_host("r:\\x"), "<none>");
  // Without a drive on "/", host paths outside the mapped drives have no DOS name.
  for (const auto& [letter, root] : kvos::drive_list())
    if (letter != 'q') kvos::drive_unmap(letter);
  EXPECT_EQ(to_dos(kvtest::host_absolute("/usr/lib")), "<none>");
}

TEST_F(DriveTable, RootReachedThroughALinkIsRecognised) {
  KVTEST_POSIX_ONLY("Windows keeps a working directory in the form it was set, links and all");
  const std::string real = mkdirs("real/sub");
  const std::string link = host_join(root_, "link");
  fs::create_directory_symlink(host_join(root_, "real"), link);
  ASSERT_TRUE(kvos::drive_map('r', link));
  EXPECT_EQ(to_dos(host_join(link, "sub")), "r:\\sub");
  EXPECT_EQ(to_dos(real), "r:\\sub") << "the resolved form of the root holds the path too";
  fs::current_path(real);
  EXPECT_EQ(kvos::drive_current(), 'r');
  std::string dos;
  ASSERT_TRUE(kvos::drive_getcwd('r', dos));
  EXPECT_EQ(dos, "r:\\sub");
}

TEST_F(DriveTable, NetworkPathsLieBelowTheNetworkRoot) {
  // Without one: Windows has network paths of its own, Linux none.
  kvos::network_root_set("");
  EXPECT_EQ(to_host("\\\\server\\share\\f.txt"), kvtest::kWindows ? "\\\\server\\share\\f.txt" : "<none>");
  if (kvtest::kWindows) {
    EXPECT_EQ(to_dos("\\\\server\\share\\f.txt"), "\\\\server\\share\\f.txt");
  }
  EXPECT_EQ(kvos::file_attributes("\\\\server\\share\\f.txt"), kvos::kInvalidFileAttributes);
  EXPECT_FALSE(kvos::dos_chdir("\\\\server\\share"));

  const std::string net = mkdirs("net");
  mkdirs("net/Server/share");
  kvos::network_root_set(net);
  EXPECT_EQ(kvos::network_root(), net);
  EXPECT_EQ(to_host("\\\\server\\share\\f.txt"), host_join(net, kvtest::kWindows ? "server/share/f.txt" : "Server/share/f.txt"));
  EXPECT_EQ(to_dos(host_join(net, "Server/share/f.txt")), "\\\\Server\\share\\f.txt")
      << "the network root is longer than q:'s root, so it wins";
  EXPECT_EQ(to_dos(host_join(net, "Server")), "q:\\net\\Server") << "no share: the drive's name";
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
  EXPECT_EQ(process_cwd(), host_join(root_, kvtest::kWindows ? "A" : "a"));
  EXPECT_EQ(kvos::drive_current(), 'q');
  ASSERT_TRUE(kvos::drive_getcwd('q', dos));
  EXPECT_EQ(dos, kvtest::kWindows ? "q:\\A" : "q:\\a");
  EXPECT_EQ(to_host("q:b"), host_join(root_, kvtest::kWindows ? "A/b" : "a/b")) << "drive-relative text starts at the drive's directory";
  EXPECT_EQ(to_host("b"), "b");
  EXPECT_EQ(to_host("\\x"), host_join(root_, "x")) << "rooted text is on the current drive";

  ASSERT_TRUE(kvos::drive_set_current(home));
  EXPECT_EQ(to_dos(process_cwd()), homeDos) << "the drive left behind remembers its directory";
  ASSERT_TRUE(kvos::drive_set_current('Q'));
  EXPECT_EQ(process_cwd(), host_join(root_, kvtest::kWindows ? "A" : "a"));
  ASSERT_TRUE(kvos::drive_set_current(home));

  // A remembered directory that is gone falls back to the root; remapping forgets it.
  fs::remove_all(host_join(root_, "a"));
  ASSERT_TRUE(kvos::drive_getcwd('q', dos));
  EXPECT_EQ(dos, "q:\\");
  fs::create_directories(host_join(root_, "a"));
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
  ASSERT_TRUE(kvos::drive_map('r', host_join(root_, "missing")));
  EXPECT_EQ(kvos::drive_type('r'), kvos::kDriveNoRoot);
  kvtest::write_file(host_join(root_, "plain"), "");
  ASSERT_TRUE(kvos::drive_map('r', host_join(root_, "plain")));
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
  kvtest::write_file(host_join(root_, "Dir/.hidden"), "");
  kvtest::write_file(host_join(root_, "Dir/plain.txt"), "");
  EXPECT_EQ(kvos::file_attributes("q:\\dir"), kvos::kFileAttributeDirectory);
  EXPECT_EQ(kvos::file_attributes("q:\\Dir\\PLAIN.TXT"), kvos::kFileAttributeNormal);
  EXPECT_NE(kvos::file_attributes("q:\\Dir\\.hidden") & kvos::kFileAttributeHidden, 0u);
  EXPECT_EQ(kvos::file_attributes("q:\\Dir\\none"), kvos::kInvalidFileAttributes);
  if (kvtest::kWindows || kvtest::directory_permissions_apply()) {  // root may write anything
    fs::permissions(host_join(root_, "Dir/plain.txt"), fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    EXPECT_EQ(kvos::file_attributes("q:\\Dir\\plain.txt"), kvos::kFileAttributeReadOnly);
  }
}

// Run in a child process with KVCORE_DRIVES and KVCORE_NETWORK_ROOT set: the
// table read at load. Skipped when run directly.
TEST(DriveTableAtLoad, ChildReadsTheEnvironment) {
  if (std::getenv("KVTEST_DRIVES_CHILD") == nullptr) GTEST_SKIP() << "runs inside DriveTableAtLoad.Environment";
  EXPECT_EQ(kvos::drive_root('d'), kvtest::host_absolute("/mnt/data"));
  EXPECT_EQ(kvos::drive_root('e'), kvtest::host_absolute("/media/usb"));
  EXPECT_EQ(kvos::drive_root('g'), kvtest::host_absolute("/srv/g")) << "a letter in either case";
  EXPECT_TRUE(kvos::drive_root('f').empty());
  EXPECT_TRUE(kvos::network_root().empty());
  const auto problems = kvos::drive_config_problems();
  ASSERT_EQ(problems.size(), 4u);
  EXPECT_NE(problems[0].find("\"9=" + kvtest::host_absolute("/x") + "\""), std::string::npos) << problems[0];
  EXPECT_NE(problems[1].find("\"f=relative\""), std::string::npos) << problems[1];
  EXPECT_NE(problems[2].find("\"nonsense\""), std::string::npos) << problems[2];
  EXPECT_NE(problems[3].find("KVCORE_NETWORK_ROOT"), std::string::npos) << problems[3];
}

TEST(DriveTableAtLoad, Environment) {
  kvtest::TempDir tmp;
  const std::string err = tmp.file("stderr");
  const auto at = kvtest::host_absolute;
  const std::string drives = "d=" + at("/mnt/data") + ";9=" + at("/x") + ";e=" + at("/media//usb/") +
                             ";;f=relative;nonsense;G=" + at("/srv/g");
  const int status = kvtest::run_program(
      kvos::executable_path(), {"--gtest_filter=DriveTableAtLoad.ChildReadsTheEnvironment"},
      {{"KVTEST_DRIVES_CHILD", "1"}, {"KVCORE_DRIVES", drives}, {"KVCORE_NETWORK_ROOT", "net"}, {"KVCORE_LOG", "none"}},
      tmp.file("stdout"), err);
  EXPECT_EQ(status, 0) << kvtest::read_file(tmp.file("stdout"));
  EXPECT_NE(kvtest::read_file(tmp.file("stdout")).find("[  PASSED  ] 1 test"), std::string::npos)
      << kvtest::read_file(tmp.file("stdout"));
  EXPECT_EQ(kvtest::read_file(err), "") << "configuration problems stay off the program's output";
}
