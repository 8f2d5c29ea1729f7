// Helpers shared by the path, drive and working-directory suites.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "FILENAME.h"
#include "kvos/drives.h"
#include "test_support.h"

namespace kvtest {

// The text of a filename, dirname, pathname or MultiPath.
template <class T>
std::string text_of(const T& name) { return static_cast<char*>(name); }

// The process's working directory as a host path.
inline std::string process_cwd() { return std::filesystem::current_path().string(); }

// A path translated through the drive table, or "<none>".
inline std::string to_host(const std::string& dos) {
  std::string host;
  return kvos::dos_to_host(dos, host) ? host : "<none>";
}
inline std::string to_dos(const std::string& host) {
  std::string dos;
  return kvos::host_to_dos(host, dos) ? dos : "<none>";
}

// CWD's current drive, start directory, capture directory and the current
// drive's remembered directory, put back at the end of the scope.
class CwdScope {
 public:
  CwdScope() : drive_(CWD::GetDrive()), start_(CWD::Start()), capture_(CWD::CaptureDir()), current_(CWD::Get(0)) {}
  ~CwdScope() {
    CWD::SetDrive(drive_);
    CWD::Start(start_);
    CWD::Set(current_);
    CWD::CaptureDir(capture_);
  }

 private:
  int drive_;
  dirname start_, capture_, current_;
};

// A temporary directory mapped as drive q:. The drive table, the network
// root, the working directory and CWD's state are put back afterwards.
class DriveQ : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = std::filesystem::canonical(tmp_.path()).string();
    ASSERT_TRUE(kvos::drive_map('q', root_));
  }
  void TearDown() override {
    std::filesystem::current_path(cwd_);
    for (const auto& mapping : kvos::drive_list()) EXPECT_TRUE(kvos::drive_unmap(mapping.first));
    for (const auto& [letter, root] : table_) EXPECT_TRUE(kvos::drive_map(letter, root));
    kvos::network_root_set(network_);
  }
  // Creates a directory below q:'s root; its host path.
  std::string mkdirs(const std::string& relative) const {
    std::filesystem::create_directories(host_join(root_, relative));
    return host_join(root_, relative);
  }

  TempDir tmp_;
  std::string root_;

 private:
  std::vector<std::pair<char, std::string>> table_ = kvos::drive_list();
  std::string network_ = kvos::network_root();
  std::string cwd_ = process_cwd();
  CwdScope cwdState_;
};

}  // namespace kvtest
