// The drive table: DOS paths to host paths and back, per-drive working
// directories, network paths, drive types, and configuration at load.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "kvos/drives.h"
#include "kvos/fileattr.h"
#include "kvos/module.h"
#include "paths_support.h"

namespace fs = std::filesystem;
using DriveTable = kvtest::DriveQ;
using kvtest::host_absolute;
using kvtest::host_join;
using kvtest::process_cwd;
using kvtest::to_dos;
using kvtest::to_host;

TEST_F(DriveTable, DosPathsMapToHostPathsAndBack) {
  for (const char* dir : {"Sub", "Data", "innerx"}) mkdirs(dir);
  kvtest::write_file(host_join(root_, "Sub/File.txt"), "x");
  kvtest::write_file(host_join(root_, "Data/Report.TXT"), "r");
  ASSERT_TRUE(kvos::drive_map('r', mkdirs("inner")));
  // Host names that ignore case (Windows) need no look-up: there a path stays as written.
  const bool lookup = !kvtest::kWindows;
  const std::pair<std::string, std::string> toHost[] = {
      {"q:\\Sub\\File.txt", "Sub/File.txt"},
      {"q:\\DATA\\report.txt", lookup ? "Data/Report.TXT" : "DATA/report.txt"},  // found ignoring case
      {"q:\\Data\\report.txt.  ", lookup ? "Data/Report.TXT" : "Data/report.txt.  "},  // trailing dots and blanks
      {"q:\\DATA\\NoSuch\\Deeper", lookup ? "Data/NoSuch/Deeper" : "DATA/NoSuch/Deeper"},  // below a missing one
      {"q:\\..\\..\\x", "x"},                                                          // ".." stops at the drive root
      {"q:\\a\\..\\..\\b\\.\\c", "b/c"}};
  for (const auto& [dos, host] : toHost) EXPECT_EQ(to_host(dos), host_join(root_, host)) << dos;
  EXPECT_EQ(to_host(""), "<none>");
  EXPECT_EQ(to_host("!:\\x"), "<none>") << "the pseudo drives have no host directory";
  const std::pair<std::string, std::string> toDos[] = {
      {"", "q:\\"}, {"/Sub///File.txt", "q:\\Sub\\File.txt"},
      {"inner/deep/f", "r:\\deep\\f"},  // the longest mapped root wins
      {"innerx/f", "q:\\innerx\\f"}};   // on whole components only
  for (const auto& [host, dos] : toDos) EXPECT_EQ(to_dos(host_join(root_, host)), dos) << host;
  if (lookup) {
    // With two candidates the choice is stable: the smallest name; an exact match always wins.
    mkdirs("DATA");
    EXPECT_EQ(to_host("q:\\data"), host_join(root_, "DATA"));
    EXPECT_EQ(to_host("q:\\Data"), host_join(root_, "Data"));
  }

  // c: is the host root, or on Windows the system's drive C:.
  if (kvos::drive_root('c') != host_absolute("/")) GTEST_SKIP() << "c: is remapped by KVCORE_DRIVES";
  EXPECT_EQ(to_host("C:/tmp/x"), host_absolute("/tmp/x")) << "either case, either separator";
  EXPECT_EQ(to_dos(host_absolute("/")), "c:\\");
}

TEST_F(DriveTable, MappingRulesListingAndRootsReachedThroughALink) {
  const std::string tmp = host_absolute("/tmp"), normal = host_absolute("/tmp/a/c");
  for (const auto& [letter, root] : {std::pair{'1', tmp}, {'!', tmp}, {'r', std::string("relative/dir")}, {'r', std::string()}})
    EXPECT_FALSE(kvos::drive_map(letter, root)) << letter << root;
  EXPECT_FALSE(kvos::drive_unmap('r')) << "not mapped";
  ASSERT_TRUE(kvos::drive_map('R', host_absolute("/tmp//a/./b/../c/")));
  EXPECT_EQ(kvos::drive_root('r'), normal);
  std::string listed;
  for (const auto& [letter, root] : kvos::drive_list()) listed += std::string(1, letter) + "=" + root + ";";
  EXPECT_NE(listed.find("q=" + root_ + ";r=" + normal + ";"), std::string::npos) << listed << " (in letter order)";
  EXPECT_TRUE(kvos::drive_unmap('r'));
  EXPECT_EQ(to_host("r:\\x"), "<none>");

  // Windows keeps a working directory in the form it was set, links and all.
  if (!kvtest::kWindows) {
    const std::string real = mkdirs("real/sub"), link = host_join(root_, "link");
    fs::create_directory_symlink(host_join(root_, "real"), link);
    ASSERT_TRUE(kvos::drive_map('r', link));
    EXPECT_EQ(to_dos(host_join(link, "sub")), "r:\\sub");
    EXPECT_EQ(to_dos(real), "r:\\sub") << "the resolved form of the root holds the path too";
    fs::current_path(real);
    EXPECT_EQ(kvos::drive_current(), 'r');
    std::string dos;
    EXPECT_TRUE(kvos::drive_getcwd('r', dos) && dos == "r:\\sub") << dos;
  }

  // Without a drive on "/", host paths outside the mapped drives have no DOS name.
  for (const auto& [letter, root] : kvos::drive_list())
    if (letter != 'q') {
      EXPECT_TRUE(kvos::drive_unmap(letter));
    }
  EXPECT_EQ(to_dos(host_absolute("/usr/lib")), "<none>");
}

TEST_F(DriveTable, NetworkPathsLieBelowTheNetworkRoot) {
  // Without one: Windows has network paths of its own, Linux none.
  kvos::network_root_set("");
  EXPECT_EQ(to_host("\\\\server\\share\\f.txt"), kvtest::kWindows ? "\\\\server\\share\\f.txt" : "<none>");
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
  std::string homeDos, dos;
  ASSERT_TRUE(kvos::drive_getcwd(home, homeDos));
  mkdirs("a/b");
  const auto cwd_of = [&dos](int letter) { return kvos::drive_getcwd(letter, dos) ? dos : "<none>"; };
  EXPECT_EQ(cwd_of('q'), "q:\\") << "another drive starts at its root";

  // Found ignoring case, or on Windows kept as written.
  const std::string a = kvtest::kWindows ? "A" : "a";
  ASSERT_TRUE(kvos::dos_chdir("q:\\A"));
  EXPECT_EQ(process_cwd(), host_join(root_, a));
  EXPECT_EQ(kvos::drive_current(), 'q');
  EXPECT_EQ(cwd_of('q'), "q:\\" + a);
  EXPECT_EQ(to_host("q:b"), host_join(root_, a + "/b")) << "drive-relative text starts at the drive's directory";
  EXPECT_EQ(to_host("b"), "b");
  EXPECT_EQ(to_host("\\x"), host_join(root_, "x")) << "rooted text is on the current drive";

  ASSERT_TRUE(kvos::drive_set_current(home));
  EXPECT_EQ(to_dos(process_cwd()), homeDos) << "the drive left behind remembers its directory";
  ASSERT_TRUE(kvos::drive_set_current('Q'));
  EXPECT_EQ(process_cwd(), host_join(root_, a));
  ASSERT_TRUE(kvos::drive_set_current(home));

  // A remembered directory that is gone falls back to the root; remapping forgets it.
  fs::remove_all(host_join(root_, "a"));
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
  kvtest::write_file(host_join(root_, "plain"), "");
  const std::pair<std::string, bool> roots[] = {{root_, true}, {"", false}, {host_join(root_, "missing"), false},
                                                {host_join(root_, "plain"), false}};  // a file is no root directory
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
  kvtest::write_file(host_join(root_, "Dir/.hidden"), "");
  kvtest::write_file(host_join(root_, "Dir/plain.txt"), "");
  EXPECT_EQ(kvos::file_attributes("q:\\dir"), kvos::kFileAttributeDirectory);
  EXPECT_EQ(kvos::file_attributes("q:\\Dir\\PLAIN.TXT"), kvos::kFileAttributeNormal);
  EXPECT_NE(kvos::file_attributes("q:\\Dir\\.hidden") & kvos::kFileAttributeHidden, 0u);
  EXPECT_EQ(kvos::file_attributes("q:\\Dir\\none"), kvos::kInvalidFileAttributes);
  if (!kvtest::kWindows && !kvtest::directory_permissions_apply()) return;  // root may write anything
  fs::permissions(host_join(root_, "Dir/plain.txt"), fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  EXPECT_EQ(kvos::file_attributes("q:\\Dir\\plain.txt"), kvos::kFileAttributeReadOnly);
}

// Run in a child process with KVCORE_DRIVES and KVCORE_NETWORK_ROOT set: the
// table read at load. Skipped when run directly.
TEST(DriveTableAtLoad, ChildReadsTheEnvironment) {
  if (std::getenv("KVTEST_DRIVES_CHILD") == nullptr) GTEST_SKIP() << "runs inside DriveTableAtLoad.Environment";
  EXPECT_EQ(kvos::drive_root('d'), host_absolute("/mnt/data"));
  EXPECT_EQ(kvos::drive_root('e'), host_absolute("/media/usb"));
  EXPECT_EQ(kvos::drive_root('g'), host_absolute("/srv/g")) << "a letter in either case";
  EXPECT_TRUE(kvos::drive_root('f').empty() && kvos::network_root().empty());
  const auto problems = kvos::drive_config_problems();
  ASSERT_EQ(problems.size(), 4u);
  const std::string wanted[] = {"\"9=" + host_absolute("/x") + "\"", "\"f=relative\"", "\"nonsense\"", "KVCORE_NETWORK_ROOT"};
  for (size_t i = 0; i < 4; ++i) EXPECT_NE(problems[i].find(wanted[i]), std::string::npos) << problems[i];
}

TEST(DriveTableAtLoad, Environment) {
  kvtest::TempDir tmp;
  const std::string out = tmp.file("stdout"), err = tmp.file("stderr");
  const std::string drives = "d=" + host_absolute("/mnt/data") + ";9=" + host_absolute("/x") + ";e=" +
                             host_absolute("/media//usb/") + ";;f=relative;nonsense;G=" + host_absolute("/srv/g");
  const int status = kvtest::run_program(
      kvos::executable_path(), {"--gtest_filter=DriveTableAtLoad.ChildReadsTheEnvironment"},
      {{"KVTEST_DRIVES_CHILD", "1"}, {"KVCORE_DRIVES", drives}, {"KVCORE_NETWORK_ROOT", "net"}, {"KVCORE_LOG", "none"}},
      out, err);
  EXPECT_EQ(status, 0) << kvtest::read_file(out);
  EXPECT_NE(kvtest::read_file(out).find("[  PASSED  ] 1 test"), std::string::npos) << kvtest::read_file(out);
  EXPECT_EQ(kvtest::read_file(err), "") << "configuration problems stay off the program's output";
}
