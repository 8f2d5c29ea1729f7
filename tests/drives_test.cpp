// The drive table: DOS paths to host paths and back, per-drive working
// directories, network paths, drive types, and configuration at load.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "kvos/drives.h"
#include "kvos/fileattr.h"
#include "kvos/module.h"
#include "paths_support.h"

namespace fs = std::filesystem;
using DriveTable = kvtest::DriveQ;
using kvtest::process_cwd;
using kvtest::to_dos;
using kvtest::to_host;

TEST_F(DriveTable, DosPathsMapToHostPathsAndBack) {
  for (const char* dir : {"Sub", "Data", "innerx"}) mkdirs(dir);
  kvtest::write_file(root_ + "/Sub/File.txt", "x");
  kvtest::write_file(root_ + "/Data/Report.TXT", "r");
  ASSERT_TRUE(kvos::drive_map('r', mkdirs("inner")));
  const std::string& q = root_;
  const std::pair<std::string, std::string> toHost[] = {
      {"q:\\Sub\\File.txt", q + "/Sub/File.txt"},
      {"q:\\DATA\\report.txt", q + "/Data/Report.TXT"},       // a missing component is found ignoring case
      {"q:\\Data\\report.txt.  ", q + "/Data/Report.TXT"},    // trailing dots and blanks
      {"q:\\DATA\\NoSuch\\Deeper", q + "/Data/NoSuch/Deeper"},  // below a missing component: as written
      {"q:\\..\\..\\x", q + "/x"},                              // ".." stops at the drive root
      {"q:\\a\\..\\..\\b\\.\\c", q + "/b/c"}, {"", "<none>"},
      {"!:\\x", "<none>"}};  // the pseudo drives have no host directory
  for (const auto& [dos, host] : toHost) EXPECT_EQ(to_host(dos), host) << dos;
  const std::pair<std::string, std::string> toDos[] = {
      {q, "q:\\"}, {q + "//Sub///File.txt", "q:\\Sub\\File.txt"},
      {q + "/inner/deep/f", "r:\\deep\\f"},  // the longest mapped root wins
      {q + "/innerx/f", "q:\\innerx\\f"}};   // on whole components only
  for (const auto& [host, dos] : toDos) EXPECT_EQ(to_dos(host), dos) << host;
  // With two candidates the choice is stable: the smallest name; an exact match always wins.
  mkdirs("DATA");
  EXPECT_EQ(to_host("q:\\data"), root_ + "/DATA");
  EXPECT_EQ(to_host("q:\\Data"), root_ + "/Data");

  if (kvos::drive_root('c') != "/") GTEST_SKIP() << "c: is remapped by KVCORE_DRIVES";
  EXPECT_EQ(to_host("C:/tmp/x"), "/tmp/x") << "either case, either separator";
  EXPECT_EQ(to_dos("/"), "c:\\");
}

TEST_F(DriveTable, MappingRulesListingAndRootsReachedThroughALink) {
  for (const auto& [letter, root] : {std::pair{'1', "/tmp"}, {'!', "/tmp"}, {'r', "relative/dir"}, {'r', ""}})
    EXPECT_FALSE(kvos::drive_map(letter, root)) << letter << root;
  EXPECT_FALSE(kvos::drive_unmap('r')) << "not mapped";
  ASSERT_TRUE(kvos::drive_map('R', "/tmp//a/./b/../c/"));
  EXPECT_EQ(kvos::drive_root('r'), "/tmp/a/c");
  std::string listed;
  for (const auto& [letter, root] : kvos::drive_list()) listed += std::string(1, letter) + "=" + root + ";";
  EXPECT_NE(listed.find("q=" + root_ + ";r=/tmp/a/c;"), std::string::npos) << listed << " (in letter order)";
  EXPECT_TRUE(kvos::drive_unmap('r'));
  EXPECT_EQ(to_host("r:\\x"), "<none>");

  const std::string real = mkdirs("real/sub"), link = root_ + "/link";
  ASSERT_EQ(symlink((root_ + "/real").c_str(), link.c_str()), 0);
  ASSERT_TRUE(kvos::drive_map('r', link));
  EXPECT_EQ(to_dos(link + "/sub"), "r:\\sub");
  EXPECT_EQ(to_dos(real), "r:\\sub") << "the resolved form of the root holds the path too";
  ASSERT_EQ(chdir(real.c_str()), 0);
  EXPECT_EQ(kvos::drive_current(), 'r');
  std::string dos;
  EXPECT_TRUE(kvos::drive_getcwd('r', dos) && dos == "r:\\sub") << dos;

  // Without a drive on "/", host paths outside the mapped drives have no DOS name.
  for (const auto& [letter, root] : kvos::drive_list())
    if (letter != 'q') kvos::drive_unmap(letter);
  EXPECT_EQ(to_dos("/usr/lib"), "<none>");
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
  std::string homeDos, dos;
  ASSERT_TRUE(kvos::drive_getcwd(home, homeDos));
  mkdirs("a/b");
  const auto cwd_of = [&dos](int letter) { return kvos::drive_getcwd(letter, dos) ? dos : "<none>"; };
  EXPECT_EQ(cwd_of('q'), "q:\\") << "another drive starts at its root";

  ASSERT_TRUE(kvos::dos_chdir("q:\\A"));
  EXPECT_EQ(process_cwd(), root_ + "/a");
  EXPECT_EQ(kvos::drive_current(), 'q');
  EXPECT_EQ(cwd_of('q'), "q:\\a");
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
  EXPECT_EQ(cwd_of('q'), "q:\\");
  mkdirs("a");
  ASSERT_TRUE(kvos::dos_chdir("q:\\a") && kvos::drive_set_current(home));
  ASSERT_TRUE(kvos::drive_map('q', root_));
  EXPECT_EQ(cwd_of('q'), "q:\\");

  EXPECT_EQ(cwd_of('p'), "<none>") << "unmapped";
  EXPECT_FALSE(kvos::drive_set_current('p') || kvos::dos_chdir("q:\\missing"));
  EXPECT_EQ(kvos::drive_current(), home) << "a failed change leaves the drive";
}

TEST_F(DriveTable, DriveTypesAndFileAttributes) {
  kvtest::write_file(root_ + "/plain", "");
  const std::pair<std::string, bool> roots[] = {{root_, true}, {"", false}, {root_ + "/missing", false},
                                                {root_ + "/plain", false}};  // a file is no root directory
  for (const auto& [root, ok] : roots) {
    ASSERT_TRUE(root.empty() || kvos::drive_map('r', root));
    EXPECT_EQ(kvos::drive_type(root.empty() ? 'p' : 'r') != kvos::kDriveNoRoot, ok) << root;
  }
  const std::string table =
      "rootfs / rootfs rw 0 0\ntmpfs /mnt tmpfs rw 0 0\nserver:/export /mnt/net nfs4 rw 0 0\n"
      "//host/share /mnt/my\\040share cifs rw 0 0\ntmpfs /mnt/over tmpfs rw 0 0\nserver:/o /mnt/over nfs rw 0 0\n";
  const std::pair<const char*, int> mounts[] = {
      {"/mnt/net/a/b", kvos::kDriveRemote}, {"/mnt/net", kvos::kDriveRemote},
      {"/mnt/network", kvos::kDriveFixed},    // whole components
      {"/mnt/my share/x", kvos::kDriveRemote},  // octal escapes
      {"/mnt/over/x", kvos::kDriveRemote},      // the mount on top
      {"/home", kvos::kDriveFixed}};
  for (const auto& [dir, type] : mounts) EXPECT_EQ(kvos::mount_drive_type(dir, table), type) << dir;
  EXPECT_EQ(kvos::mount_drive_type("/home", ""), kvos::kDriveUnknown);

  mkdirs("Dir");
  kvtest::write_file(root_ + "/Dir/.hidden", "");
  kvtest::write_file(root_ + "/Dir/plain.txt", "");
  EXPECT_EQ(kvos::file_attributes("q:\\dir"), kvos::kFileAttributeDirectory);
  EXPECT_EQ(kvos::file_attributes("q:\\Dir\\PLAIN.TXT"), kvos::kFileAttributeNormal);
  EXPECT_NE(kvos::file_attributes("q:\\Dir\\.hidden") & kvos::kFileAttributeHidden, 0u);
  EXPECT_EQ(kvos::file_attributes("q:\\Dir\\none"), kvos::kInvalidFileAttributes);
  if (geteuid() == 0) return;
  chmod((root_ + "/Dir/plain.txt").c_str(), 0444);
  EXPECT_EQ(kvos::file_attributes("q:\\Dir\\plain.txt"), kvos::kFileAttributeReadOnly);
}

// Run in a child process with KVCORE_DRIVES and KVCORE_NETWORK_ROOT set: the
// table read at load. Skipped when run directly.
TEST(DriveTableAtLoad, ChildReadsTheEnvironment) {
  if (std::getenv("KVTEST_DRIVES_CHILD") == nullptr) GTEST_SKIP() << "runs inside DriveTableAtLoad.Environment";
  EXPECT_EQ(kvos::drive_root('d'), "/mnt/data");
  EXPECT_EQ(kvos::drive_root('e'), "/media/usb");
  EXPECT_EQ(kvos::drive_root('g'), "/srv/g") << "a letter in either case";
  EXPECT_TRUE(kvos::drive_root('f').empty() && kvos::network_root().empty());
  const auto problems = kvos::drive_config_problems();
  ASSERT_EQ(problems.size(), 4u);
  const char* wanted[] = {"\"9=/x\"", "\"f=relative\"", "\"nonsense\"", "KVCORE_NETWORK_ROOT"};
  for (size_t i = 0; i < 4; ++i) EXPECT_NE(problems[i].find(wanted[i]), std::string::npos) << problems[i];
}

TEST(DriveTableAtLoad, Environment) {
  kvtest::TempDir tmp;
  const std::string out = tmp.file("stdout"), err = tmp.file("stderr");
  const std::string command =
      "KVTEST_DRIVES_CHILD=1 KVCORE_DRIVES='d=/mnt/data;9=/x;e=/media//usb/;;f=relative;nonsense;G=/srv/g' "
      "KVCORE_NETWORK_ROOT=net KVCORE_LOG=none '" +
      kvos::executable_path() + "' --gtest_filter=DriveTableAtLoad.ChildReadsTheEnvironment > '" + out + "' 2> '" + err + "'";
  EXPECT_EQ(kvtest::child_result(std::system(command.c_str())), 0) << kvtest::read_file(out);
  EXPECT_NE(kvtest::read_file(out).find("[  PASSED  ] 1 test"), std::string::npos) << kvtest::read_file(out);
  EXPECT_EQ(kvtest::read_file(err), "") << "configuration problems stay off the program's output";
}
