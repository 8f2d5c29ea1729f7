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
#include "paths_support.h"

namespace fs = std::filesystem;
using kvtest::host_join;
using kvtest::process_cwd;
using kvtest::text_of;

namespace {

// Drive q: holds sub\deeper and file.txt.
class Cwd : public kvtest::DriveQ {
 protected:
  void SetUp() override {
    DriveQ::SetUp();
    mkdirs("sub/deeper");
    kvtest::write_file(host_join(root_, "file.txt"), "f");
  }
};

}  // namespace

TEST_F(Cwd, GetcwdOverloadsThePosixOneAndGivesRootsOfOtherDrives) {
  const int drive = get_cur_drive();
  ASSERT_NE(drive, 0x60) << "the working directory is on no drive";
  EXPECT_EQ(drive, kvos::drive_current());
  EXPECT_EQ(text_of(getcwd(drive)), kvtest::to_dos(process_cwd()));
  ASSERT_TRUE(kvos::drive_root('p').empty());
  const std::pair<int, const char*> roots[] = {
      {'!', "!:\\"}, {'p', "p:\\"},  // an unreadable drive gives its root
      {'q', "q:\\"},                 // another drive starts at its root
      {'Q', "q:\\"},                 // upper case is no drive number: the root text
      {'#', ""}};
  for (const auto& [letter, text] : roots) EXPECT_EQ(text_of(getcwd(letter)), text) << char(letter);
}

TEST_F(Cwd, SetcwdAndTheCurrentDrive) {
  const int home = get_cur_drive();
  const std::string homeDir = text_of(getcwd(home));
  kvtest::CaptureSink sink;
  kvtest::CategoryScope csl(dbgCSL);

  ASSERT_TRUE(setcwd("q:\\SUB\\deeper"));
  // Found ignoring case, or on Windows (whose names ignore case) kept as written.
  EXPECT_EQ(process_cwd(), host_join(root_, kvtest::kWindows ? "SUB/deeper" : "sub/deeper"));
  EXPECT_EQ(get_cur_drive(), 'q');
  EXPECT_EQ(text_of(getcwd(home)), homeDir) << "the other drive kept its directory";
  ASSERT_TRUE(setcwd("..\\..\\sub"));
  EXPECT_EQ(text_of(getcwd('q')), "q:\\sub") << "relative to the working directory";
  EXPECT_EQ(sink.text(), "");
  EXPECT_FALSE(setcwd("q:\\missing") || setcwd(nullptr));
  EXPECT_EQ(text_of(getcwd('q')), "q:\\sub");

  // Each step makes a drive current and expects the drive after it.
  for (const auto& [set, expected] : {std::pair{home, home}, {'q', 'q'}, {'!', 'q'} /* ignored */, {'p', 'q'}})
    EXPECT_EQ((set_cur_drive(set), get_cur_drive()), expected) << char(set);
  EXPECT_EQ(process_cwd(), host_join(root_, "sub"));
  EXPECT_EQ(sink.text(), "CSL: setcwd: cannot change the working directory to \"q:\\missing\"\n"
                        "CSL: set_cur_drive: cannot make drive 112 current\n");
}

TEST_F(Cwd, DirAndDriveExist) {
  const std::pair<const char*, bool> dirs[] = {
      {"!:\\", true}, {"!:\\x", false}, {"c:\\..", false}, {"q:\\", true}, {"q:\\SUB\\Deeper", true},
      {"q:\\file.txt", false},  // a file is no directory
      {"q:\\nothing", false}, {"p:\\", false}, {"&:\\", false},
      {"\\\\server\\share", false}};  // no network root
  for (const auto& [dir, exists] : dirs) EXPECT_EQ(dir_exists(dirname(dir)), exists) << dir;

  ASSERT_TRUE(drive_map('r', host_join(root_, "not-there").c_str()));  // a drive whose root is missing
  for (const auto& [letter, exists] : {std::pair{'!', true}, {'&', true}, {'q', true}, {'Q', true}, {'p', false},
                                       {'#', false}, {'\0', false}, {'r', false}})
    EXPECT_EQ(drive_exists(letter), exists) << letter;
  bool removable = true, remote = true;
  EXPECT_TRUE(drive_exists('!', removable, remote));
  EXPECT_FALSE(drive_exists('p', removable, remote));
  EXPECT_FALSE(removable || remote) << "outputs are cleared first";
  EXPECT_TRUE(drive_exists('q', removable, remote));
  EXPECT_EQ(remote, kvos::drive_type('q') == kvos::kDriveRemote);
}

TEST_F(Cwd, RememberedDirectoriesAndTheCurrentDriveCharacter) {
  ASSERT_TRUE(setcwd("q:\\sub"));
  CWD::SetDrive(get_cur_drive());
  CWD::Set(dirname("q:\\sub\\deeper"));
  EXPECT_EQ(text_of(CWD::Get(0)) + "|" + text_of(CWD::Get('q')), "q:\\sub\\deeper|q:\\sub\\deeper");
  fs::remove(host_join(root_, "sub/deeper"));
  EXPECT_EQ(text_of(CWD::Get(0)), "q:\\sub") << "gone: the drive's working directory";
  // Invalid and network directories are not remembered.
  for (const char* ignored : {"", "\\\\server\\share", "q:\\nowhere"}) CWD::Set(dirname(ignored));
  EXPECT_EQ(text_of(CWD::Get('q')), "q:\\sub");

  const std::pair<int, const char*> slots[] = {
      {'&', "q:\\sub"}, {'A', "q:\\sub"},  // & and any other character use the current drive's slot
      {'`', "!:\\"},                       // the grave accent shares the slot of !
      {'y', "y:\\"}};                      // an unmapped drive: its root
  CWD::Set(dirname("!:\\"));
  for (const auto& [ch, text] : slots) EXPECT_EQ(text_of(CWD::Get(ch)), text) << char(ch);
  // Each step sets a character and expects the current drive after it.
  const std::pair<int, int> steps[] = {{'!', '!'}, {'Q', '!'}, {'#', '!'}, {'q', 'q'},
                                       {0, 0}};  // the terminator of the drive characters is found too
  for (const auto& [set, expected] : steps) EXPECT_EQ((CWD::SetDrive(set), CWD::GetDrive()), expected) << char(set);
}

TEST_F(Cwd, StartExecutableAndCaptureDirectories) {
  const std::string exe = kvtest::to_dos(kvos::executable_path()), exeDir = exe.substr(0, exe.rfind('\\'));
  EXPECT_EQ(text_of(CWD::Exe()), exeDir);
  EXPECT_EQ(text_of(CWD::Start()), kvtest::to_dos(process_cwd())) << "the working directory at load";
  CWD::Exe(dirname("c:\\elsewhere"));
  EXPECT_EQ(text_of(CWD::Exe()), "c:\\elsewhere");
  CWD::Exe(dirname(exeDir.c_str()));
  CWD::Start(dirname("q:\\sub"));
  EXPECT_EQ(text_of(dirname("deeper")), "q:\\sub\\deeper") << "relative text starts there";

  // Substitution with no capture directory (a missing one, or a file) and with q:\sub.
  for (const char* capture : {"q:\\missing", "q:\\file.txt", "q:\\sub"}) {
    CWD::CaptureDir(dirname(capture));
    const bool has = capture == std::string("q:\\sub");
    EXPECT_EQ(CWD::HasCaptureDirectory(), has) << capture;
    EXPECT_EQ(text_of(CWD::CaptureDir()), has ? capture : "");
    dirname onCapture("!:\\x"), invalid;
    pathname file("!:\\data.txt"), other("c:\\data.txt");
    CWD::do_subst(onCapture);
    CWD::do_subst(invalid);
    CWD::do_subst(file);
    CWD::do_subst(other);
    EXPECT_EQ(text_of(onCapture) + "|" + text_of(file) + "|" + text_of(other) + "|" + text_of(invalid),
              has ? "q:\\sub|q:\\sub\\data.txt|c:\\data.txt|" : "!:\\x|!:\\data.txt|c:\\data.txt|");
    EXPECT_FALSE(invalid.is_valid());
  }
}

TEST_F(Cwd, DriveTableInterfaceForHosts) {
  bool listed = false;
  for (const DriveMapping& d : drive_list())
    if (d.letter == 'q') listed = d.root == root_ && d.type == kvos::drive_type('q');
  EXPECT_TRUE(listed);
  EXPECT_FALSE(drive_map('q', nullptr));
  EXPECT_EQ(kvos::drive_root('q'), root_) << "a refused mapping changes nothing";

  std::string host, dos;
  EXPECT_TRUE(host_to_dos_path(host_join(root_, "sub").c_str(), dos) && dos == "q:\\sub") << dos;
  EXPECT_TRUE(dos_to_host_path("q:\\SUB\\deeper", host) &&
              host == host_join(root_, kvtest::kWindows ? "SUB/deeper" : "sub/deeper"))
      << host;
  EXPECT_FALSE(dos_to_host_path(nullptr, host) || host_to_dos_path(nullptr, dos));
  EXPECT_FALSE(network_root_set("relative"));
  EXPECT_EQ(network_root(), "");
  ASSERT_TRUE(network_root_set(root_.c_str()));
  EXPECT_TRUE(dos_to_host_path("\\\\server\\share\\f.txt", host) && host == host_join(root_, "server/share/f.txt"))
      << host;
  for (const char* none : {static_cast<const char*>(nullptr), ""}) {  // either clears the network root
    ASSERT_TRUE(network_root_set(root_.c_str()) && network_root_set(none));
    EXPECT_EQ(dos_to_host_path("\\\\server\\share\\f.txt", host), kvtest::kWindows) << "Windows has its own";
  }
  EXPECT_TRUE(drive_unmap('q'));
}

// The executable's DOS path is read as into a 255-character buffer: a longer
// one stops the program while the library loads.
TEST(CwdAtLoad, OverlongExecutablePathAborts) {
  KVTEST_POSIX_ONLY("Windows starts no program from a path of 260 characters or more");
  kvtest::TempDir tmp;
  const std::string real = fs::canonical(tmp.path()).string(), dosRoot = kvtest::to_dos(real);
  std::string deep = real;
  while (deep.size() - real.size() + dosRoot.size() < 260) deep = host_join(deep, std::string(40, 'd'));
  fs::create_directories(deep);
  for (const auto& [dir, loads] : {std::pair{real, true}, {deep, false}}) {
    fs::copy_file(kvos::executable_path(), host_join(dir, "cwd_copy"));
    const int status = kvtest::run_program(host_join(dir, "cwd_copy"), {"--gtest_list_tests"}, {});
    EXPECT_EQ(status == 0, loads) << "a path over 251 characters stops at load";
  }
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
