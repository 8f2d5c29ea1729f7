// Working directories and drives: CWD, getcwd/setcwd, the current drive,
// dir_exists and drive_exists. <unistd.h> comes first on purpose: the
// library's getcwd(int) must live beside the POSIX one.
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "FILENAME.h"
#include "kvos/drives.h"
#include "kvos/module.h"
#include "test_support.h"

namespace fs = std::filesystem;
using kvtest::host_join;

namespace {

std::string process_cwd() { return fs::current_path().string(); }

std::string dos_of(const std::string& host) {
  std::string dos;
  return kvos::host_to_dos(host, dos) ? dos : "<none>";
}

// A temporary directory mapped as drive q:; the table, the working directory,
// CWD's current drive, start directory and capture directory, and the current
// drive's slot are put back afterwards.
class Cwd : public ::testing::Test {
 protected:
  void SetUp() override {
    savedCwd_ = process_cwd();
    savedDrive_ = CWD::GetDrive();
    savedStart_ = CWD::Start();
    savedSlot_ = CWD::Get(0);
    root_ = fs::canonical(tmp_.path()).string();
    ASSERT_TRUE(drive_map('q', root_.c_str()));
    fs::create_directories(host_join(root_, "sub/deeper"));
    kvtest::write_file(host_join(root_, "file.txt"), "f");
  }

  void TearDown() override {
    fs::current_path(savedCwd_);
    CWD::SetDrive(savedDrive_);
    CWD::Start(savedStart_);
    CWD::Set(savedSlot_);
    CWD::CaptureDir(dirname());
    drive_unmap('q');
  }

  kvtest::TempDir tmp_;
  std::string root_;

 private:
  std::string savedCwd_;
  int savedDrive_ = 0;
  dirname savedStart_;
  dirname savedSlot_;
};

}  // namespace

TEST_F(Cwd, GetcwdOverloadsThePosixOneAndGivesRootsOfOtherDrives) {
  const int drive = get_cur_drive();
  ASSERT_NE(drive, 0x60) << "the working directory is on no drive";
  EXPECT_EQ(drive, kvos::drive_current());
  EXPECT_EQ(std::string(*getcwd(drive)), dos_of(process_cwd()));
  ASSERT_TRUE(kvos::drive_root('p').empty());
  const std::pair<int, const char*> roots[] = {
      {'!', "!:\\"}, {'p', "p:\\"},  // an unreadable drive gives its root
      {'q', "q:\\"},                 // another drive starts at its root
      {'Q', "q:\\"},                 // upper case is no drive number: the root text
      {'#', ""}};
  for (const auto& [letter, text] : roots) EXPECT_EQ(std::string(*getcwd(letter)), text) << char(letter);
}

TEST_F(Cwd, SetcwdAndTheCurrentDrive) {
  const int home = get_cur_drive();
  const std::string homeDir = *getcwd(home);
  kvtest::CaptureSink sink;
  kvtest::CategoryScope csl(dbgCSL);

  ASSERT_TRUE(setcwd("q:\\SUB\\deeper"));
  // Found ignoring case, or on Windows (whose names ignore case) kept as written.
  EXPECT_EQ(process_cwd(), host_join(root_, kvtest::kWindows ? "SUB/deeper" : "sub/deeper"));
  EXPECT_EQ(get_cur_drive(), 'q');
  EXPECT_EQ(std::string(*getcwd(home)), homeDir) << "the other drive kept its directory";
  ASSERT_TRUE(setcwd("..\\..\\sub"));
  EXPECT_EQ(std::string(*getcwd('q')), "q:\\sub") << "relative to the working directory";
  EXPECT_EQ(sink.text(), "");

  EXPECT_FALSE(setcwd("q:\\missing"));
  EXPECT_FALSE(setcwd(nullptr));
  EXPECT_EQ(std::string(*getcwd('q')), "q:\\sub");
  EXPECT_NE(sink.text().find("CSL: setcwd: cannot change the working directory to \"q:\\missing\"\n"),
            std::string::npos)
      << sink.text();

  set_cur_drive(home);
  EXPECT_EQ(get_cur_drive(), home);
  set_cur_drive('q');
  EXPECT_EQ(process_cwd(), host_join(root_, "sub"));
  set_cur_drive('!');
  EXPECT_EQ(get_cur_drive(), 'q') << "! is ignored";
  sink.clear();
  set_cur_drive('p');
  EXPECT_EQ(get_cur_drive(), 'q');
  EXPECT_NE(sink.text().find("CSL: set_cur_drive"), std::string::npos);
}

TEST_F(Cwd, DirAndDriveExist) {
  const std::pair<const char*, bool> dirs[] = {
      {"!:\\", true}, {"!:\\x", false}, {"c:\\..", false}, {"q:\\", true}, {"q:\\SUB\\Deeper", true},
      {"q:\\file.txt", false},  // a file is no directory
      {"q:\\nothing", false}, {"p:\\", false}, {"&:\\", false},
      {"\\\\server\\share", false}};  // no network root
  for (const auto& [dir, exists] : dirs) EXPECT_EQ(dir_exists(dirname(dir)), exists) << dir;
  EXPECT_FALSE(dir_exists(dirname()));

  ASSERT_TRUE(drive_map('r', host_join(root_, "not-there").c_str()));  // a drive whose root is missing
  for (const auto& [letter, exists] : {std::pair{'!', true}, {'&', true}, {'q', true}, {'Q', true}, {'p', false},
                                       {'#', false}, {'\0', false}, {'r', false}})
    EXPECT_EQ(drive_exists(letter), exists) << letter;
  drive_unmap('r');
  bool removable = true, remote = true;
  EXPECT_TRUE(drive_exists('!', removable, remote));
  EXPECT_FALSE(drive_exists('p', removable, remote));
  EXPECT_FALSE(removable || remote) << "outputs are cleared first";
  EXPECT_TRUE(drive_exists('q', removable, remote));
  EXPECT_EQ(remote, kvos::drive_type('q') == kvos::kDriveRemote);
}

TEST_F(Cwd, GetRefreshesADeletedDirectory) {
  ASSERT_TRUE(setcwd("q:\\sub"));
  CWD::SetDrive(get_cur_drive());
  CWD::Set(dirname("q:\\sub\\deeper"));
  EXPECT_EQ(std::string(*CWD::Get(0)), "q:\\sub\\deeper") << "the remembered directory";
  EXPECT_EQ(std::string(*CWD::Get('q')), "q:\\sub\\deeper");
  fs::remove(host_join(root_, "sub/deeper"));
  EXPECT_EQ(std::string(*CWD::Get(0)), "q:\\sub") << "gone: the drive's working directory";
  CWD::Set(dirname("q:\\nowhere"));
  EXPECT_EQ(std::string(*CWD::Get('q')), "q:\\sub");
}

TEST_F(Cwd, SlotsAndTheCurrentDriveCharacter) {
  CWD::SetDrive('q');
  CWD::Set(dirname("q:\\sub"));
  EXPECT_EQ(std::string(*CWD::Get('&')), "q:\\sub") << "& uses the current drive's slot";
  EXPECT_EQ(std::string(*CWD::Get('A')), "q:\\sub") << "so does any other character";
  CWD::Set(dirname("!:\\"));
  EXPECT_EQ(std::string(*CWD::Get('`')), "!:\\") << "the grave accent shares the slot of !";
  EXPECT_EQ(std::string(*CWD::Get('y')), "y:\\") << "an unmapped drive: its root";
  CWD::Set(dirname());
  CWD::Set(dirname("\\\\server\\share"));
  EXPECT_EQ(std::string(*CWD::Get('q')), "q:\\sub") << "invalid and network directories are ignored";

  // Each step sets a character and expects the current drive after it.
  const std::pair<int, int> steps[] = {{'!', '!'}, {'Q', '!'}, {'#', '!'}, {'q', 'q'},
                                       {0, 0}};  // the terminator of the drive characters is found too
  for (const auto& [set, expected] : steps) {
    CWD::SetDrive(set);
    EXPECT_EQ(CWD::GetDrive(), expected) << char(set);
  }
}

TEST_F(Cwd, StartAndExecutableDirectories) {
  std::string exe;
  ASSERT_TRUE(kvos::host_to_dos(kvos::executable_path(), exe));
  const std::string exeDir = exe.substr(0, exe.rfind('\\'));
  EXPECT_EQ(std::string(*cwd.Exe()), exeDir);
  EXPECT_EQ(std::string(*CWD::Start()), dos_of(process_cwd())) << "the working directory at load";

  CWD::Exe(dirname("c:\\elsewhere"));
  EXPECT_EQ(std::string(*CWD::Exe()), "c:\\elsewhere");
  CWD::Exe(dirname(exeDir.c_str()));
  CWD::Start(dirname("q:\\sub"));
  EXPECT_EQ(std::string(*dirname("deeper")), "q:\\sub\\deeper") << "relative text starts there";
}

TEST_F(Cwd, CaptureDirectorySubstitution) {
  CWD::CaptureDir(dirname("q:\\missing"));
  EXPECT_FALSE(CWD::HasCaptureDirectory());
  EXPECT_EQ(std::string(*CWD::CaptureDir()), "");
  dirname onCapture("!:\\x");
  CWD::do_subst(onCapture);
  EXPECT_EQ(std::string(*onCapture), "!:\\x") << "no capture directory: nothing changes";

  CWD::CaptureDir(dirname("q:\\sub"));
  ASSERT_TRUE(CWD::HasCaptureDirectory());
  CWD::do_subst(onCapture);
  EXPECT_EQ(std::string(*onCapture), "q:\\sub");
  pathname file("!:\\data.txt");
  CWD::do_subst(file);
  EXPECT_EQ(std::string(*file), "q:\\sub\\data.txt");
  pathname other("c:\\data.txt");
  CWD::do_subst(other);
  EXPECT_EQ(std::string(*other), "c:\\data.txt");
  dirname invalid;
  CWD::do_subst(invalid);
  EXPECT_FALSE(invalid.is_valid());

  CWD::CaptureDir(dirname("q:\\file.txt"));
  EXPECT_FALSE(CWD::HasCaptureDirectory()) << "a file is no capture directory";
}

// The executable's DOS path is read as into a 255-character buffer: a longer
// one stops the program while the library loads.
TEST(CwdAtLoad, OverlongExecutablePathAborts) {
  KVTEST_POSIX_ONLY("Windows starts no program from a path of 260 characters or more");
  kvtest::TempDir tmp;
  const std::string real = fs::canonical(tmp.path()).string();
  std::string dosRoot;
  ASSERT_TRUE(kvos::host_to_dos(real, dosRoot));
  std::string deep = real;
  while (deep.size() - real.size() + dosRoot.size() < 260) deep = host_join(deep, std::string(40, 'd'));
  fs::create_directories(deep);
  const std::string shortCopy = host_join(real, "cwd_copy");
  const std::string longCopy = host_join(deep, "cwd_copy");
  fs::copy_file(kvos::executable_path(), shortCopy);
  fs::copy_file(kvos::executable_path(), longCopy);
  EXPECT_EQ(kvtest::run_program(shortCopy, {"--gtest_list_tests"}, {}), 0) << "a short path loads";
  EXPECT_NE(kvtest::run_program(longCopy, {"--gtest_list_tests"}, {}), 0) << "a path over 251 characters stops at load";
}

TEST_F(Cwd, DriveTableInterfaceForHosts) {
  bool listed = false;
  for (const DriveMapping& d : drive_list())
    if (d.letter == 'q') {
      listed = true;
      EXPECT_EQ(d.root, root_);
      EXPECT_EQ(d.type, kvos::drive_type('q'));
    }
  EXPECT_TRUE(listed);
  EXPECT_FALSE(drive_map('q', nullptr));
  EXPECT_EQ(kvos::drive_root('q'), root_) << "a refused mapping changes nothing";

  std::string host, dos;
  EXPECT_TRUE(host_to_dos_path(host_join(root_, "sub").c_str(), dos));
  EXPECT_EQ(dos, "q:\\sub");
  EXPECT_TRUE(dos_to_host_path("q:\\SUB\\deeper", host));
  EXPECT_EQ(host, host_join(root_, kvtest::kWindows ? "SUB/deeper" : "sub/deeper"));
  EXPECT_FALSE(dos_to_host_path(nullptr, host));
  EXPECT_FALSE(host_to_dos_path(nullptr, dos));

  const std::string savedNetwork = network_root();
  EXPECT_FALSE(network_root_set("relative"));
  EXPECT_EQ(network_root(), "");
  ASSERT_TRUE(network_root_set(root_.c_str()));
  EXPECT_TRUE(dos_to_host_path("\\\\server\\share\\f.txt", host));
  EXPECT_EQ(host, host_join(root_, "server/share/f.txt"));
  EXPECT_TRUE(network_root_set(nullptr));
  EXPECT_EQ(dos_to_host_path("\\\\server\\share\\f.txt", host), kvtest::kWindows) << "Windows has its own";
  network_root_set(savedNetwork.c_str());
}

// With its drive remapped elsewhere, a program on no drive stops at load and says what to map.
TEST(CwdAtLoad, AnExecutableOnNoDriveNamesItsDirectory) {
  kvtest::TempDir tmp;
  const std::string exe = kvos::executable_path(), err = tmp.file("stderr");
  const std::string drive = kvtest::dos_path(exe).substr(0, 1);
  EXPECT_NE(kvtest::run_program(exe, {"--gtest_list_tests"}, {{"KVCORE_DRIVES", drive + "=" + tmp.path()}}, "", err), 0);
  const std::string wanted = "the executable's directory " + fs::path(exe).parent_path().string() +
                             " is on no drive; map it in KVCORE_DRIVES";
  EXPECT_NE(kvtest::read_file(err).find(wanted), std::string::npos) << kvtest::read_file(err);
}
