// kvtool as a user runs it: exit statuses, messages, and what happens to the
// files around it. Every case runs the built program in a directory of
// prepared files and checks that no file changed but the ones it names.
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <sys/stat.h>
#include <sys/sysmacros.h>
#endif

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

namespace fs = std::filesystem;

namespace {

const std::string kBase = "Korvalis Data File\r\n\r\nA = 1\r\nS\r\n{\r\n\tT = 2\r\n}\r\n";

std::string quoted(const std::string& word) {
  std::string out = "'";
  for (char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// A document nested `depth` sections deep.
std::string nested(int depth) {
  std::string open, close;
  for (int i = 0; i < depth; ++i) open += "S\n{\n", close += "}\n";
  return "Korvalis Data File\n" + open + "A = 1\n" + close;
}

struct Result {
  int status;
  std::string out, err;
};

// err: a text that standard error holds (empty: nothing on standard error);
// out: standard output, exactly; file: the only file that may change, holds:
// what it then holds; prefix: what the shell runs kvtool under.
struct Row {
  std::vector<std::string> args;
  int status;
  std::string err = "", out = "", file = "", holds = "", prefix = "";
  bool posix = false;  // about a named pipe, a device, /proc, links or the texts of errno
};

class Kvtool : public ::testing::Test {
 protected:
  void SetUp() override {
    using fs::perms;
    fs::permissions(dir_.path(), perms::all);
    for (const char* name : {"base.ins", "ro.ins", "target.ins", "file.ins", "secret.ins", "locked/in.ins"}) {
      fs::create_directories(fs::path(dir_.file(name)).parent_path());
      kvtest::write_file(dir_.file(name), kBase);
    }
    kvtest::write_file(dir_.file("zero.ins"), std::string("Korvalis Data File\nA = 1\n\0B = 2\n", 32));
    kvtest::write_file(dir_.file("cont.ins"), "Korvalis Data File\nTag \\= a\\\nb=c\n");
    kvtest::write_file(dir_.file("deep1000.ins"), nested(1000));
    kvtest::write_file(dir_.file("deep1001.ins"), nested(1001));
#if !defined(_WIN32)
    fs::create_symlink("target.ins", dir_.file("link.ins"));
    ASSERT_EQ(mkfifo(dir_.file("fifo").c_str(), 0644), 0);
    // A device of our own (the null device's numbers): a faulty kvtool must not replace the system's.
    if (mknod(dir_.file("dev").c_str(), S_IFCHR | 0666, makedev(1, 3)) != 0) fs::create_symlink("fifo", dir_.file("dev"));
#endif
    fs::permissions(dir_.file("ro.ins"), perms::owner_read | perms::group_read | perms::others_read);
    fs::permissions(dir_.file("secret.ins"), perms::owner_write | perms::group_write | perms::others_write);
    fs::permissions(dir_.file("locked/in.ins"), perms::others_write | perms::others_read, fs::perm_options::add);
    fs::permissions(dir_.file("locked"), perms::all & ~(perms::owner_write | perms::group_write | perms::others_write));
    if (!kvtest::kWindows) fs::create_directories(dir_.file(long_));  // Windows lists no paths that long
  }
  void TearDown() override { fs::permissions(dir_.file("locked"), fs::perms::all); }

  // Every file below the directory with its contents (a link with its target).
  std::map<std::string, std::string> snapshot() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(dir_.path()))
      files[fs::relative(entry.path(), dir_.path()).string()] =
          entry.is_symlink()        ? "-> " + fs::read_symlink(entry.path()).string()
          : entry.is_regular_file() ? kvtest::read_file(entry.path().string())
                                    : "(not a file)";
    return files;
  }

  Result run(const std::vector<std::string>& args, const std::string& prefix = "") const {
    if (prefix.empty()) {
      const int status = kvtest::run_program(KVTOOL_PATH, args, {}, io_.file("out"), io_.file("err"), dir_.path());
      return {status, kvtest::read_text(io_.file("out")), kvtest::read_text(io_.file("err"))};
    }
    // A shell command in front (the user to run as, the memory limit): Linux only.
    std::string command = "cd " + quoted(dir_.path()) + " && " + prefix + " timeout 60 " + quoted(KVTOOL_PATH);
    for (const std::string& arg : args) command += " " + quoted(arg);
    command += " >" + quoted(io_.file("out")) + " 2>" + quoted(io_.file("err"));
    const int status = std::system(command.c_str());
    return {kvtest::child_result(status), kvtest::read_file(io_.file("out")), kvtest::read_file(io_.file("err"))};
  }

  void check(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      if (kvtest::kWindows && (row.posix || !row.prefix.empty())) continue;
      std::string shown = "kvtool";
      for (const std::string& arg : row.args) shown += " " + arg.substr(0, 60);
      SCOPED_TRACE(shown);
      std::map<std::string, std::string> wanted = snapshot();
      if (!row.file.empty()) wanted[row.file] = row.holds;
      const Result got = run(row.args, row.prefix);
      EXPECT_EQ(got.status, row.status) << got.err;
      EXPECT_EQ(got.out, row.out);
      EXPECT_TRUE(row.err.empty() ? got.err.empty() : got.err.find(row.err) != std::string::npos) << got.err;
      // Files created, changed or removed against the wanted state.
      const std::map<std::string, std::string> now = snapshot();
      std::vector<std::pair<std::string, std::string>> changed;
      std::set_symmetric_difference(now.begin(), now.end(), wanted.begin(), wanted.end(), std::back_inserter(changed));
      EXPECT_TRUE(changed.empty()) << changed.front().first;
      if (!row.file.empty()) kvtest::write_file(dir_.file(row.file), kBase);  // the next row starts afresh
    }
  }

  kvtest::TempDir dir_, io_;
  const std::string d50_ = std::string(50, 'd');
  const std::string long_ = "long/" + d50_ + "/" + d50_ + "/" + d50_ + "/" + d50_ + "/" + d50_;
  // Runs kvtool as an ordinary user when root, so that access rights apply
  // (Windows has no such user: it skips these rows).
  const std::string user_ =
      kvtest::directory_permissions_apply() ? "" : "setpriv --reuid=65534 --regid=65534 --clear-groups";
};

TEST_F(Kvtool, CommandLine) {
  check({
      {{"--version"}, 0, "", "kvtool " KVTOOL_VERSION "\n"},
      {{}, 2, "A subcommand is required"},
      {{"frob"}, 2, "kvtool: unknown command \"frob\""},
      {{"units", "--frob"}, 2, "kvtool units: unknown option \"--frob\""},
      {{"instr", "set", "base.ins", "A", "-x"}, 2, "unknown option \"-x\""},
      {{"instr", "set", "base.ins", "A", "--", "-5"}, 0, "", "", "base.ins",
       "Korvalis Data File\r\n\r\nA = -5\r\nS\r\n{\r\n\tT = 2\r\n}\r\n"},
  });
}

TEST_F(Kvtool, Units) {
  check({
      {{"units", "convert", "abc nm", "um"}, 1, "\"abc nm\": \"abc\" is not a number"},
      {{"units", "convert", "1e999 nm", "um"}, 1, "\"1e999 nm\": its value is not a finite number"},
      {{"units", "auto", "nan V"}, 1, "\"nan V\": its value is not a finite number"},
      {{"units", "convert", "5000nm", "um"}, 1, "\"5000nm\" is not a number (a blank separates"},
      {{"units", "convert", "5 nm", "V"}, 1, "cannot convert \"5 nm\" to \"V\""},
      {{"units", "show", "abcdefghijk/m"}, 1, "the unit \"abcdefghijk\" has 11 characters"},
      {{"units", "auto", "--", "-2500 mV"}, 0, "", "-2.500 V\n"},
  });
}

TEST_F(Kvtool, Path) {
  const std::string longPath = "c:\\" + std::string(297, 'p') + ".t";  // 302 characters
  check({
      {{"path", longPath}, 1, "is 302 characters long; the library keeps at most 260"},
      {{"path", "--match", std::string(300, 'm'), "x"}, 2, "holds a name of 300 characters"},
      {{"path", "--match", "*.txt", "a.txt", std::string(257, 'n')}, 1, "holds a name of 257 characters"},
      {{"path", "--list", "c:\\data\\*.txt", "b.log"}, 0, "",
       "\"c:\\data\\*.txt\"\n  directory  c:\\data\n  names      2\n    *.txt                c:\\data\\*.txt\n"
       "    b.log                c:\\data\\b.log\n  wild       yes (several names)\n  valid      yes\n"},
  });
}

// check, tree and get read; nothing they are given changes.
TEST_F(Kvtool, Reading) {
  check({
      {{"instr", "check", "zero.ins"}, 1, "zero.ins: contains a NUL byte at offset 25"},
      {{"instr", "check", "fifo"}, 1, "fifo: not a regular file", "", "", "", "", true},
      {{"instr", "check", "/proc/self/mem"}, 1, "/proc/self/mem: cannot be read: Input/output error", "", "", "", "", true},
      {{"instr", "check", "locked"}, 1, "locked: cannot be read: Is a directory"},
      {{"instr", "check", "secret.ins"}, 1, "secret.ins: cannot be read: Permission denied", "", "", "", user_},
      {{"instr", "get", "zero.ins", "A"}, 1, "zero.ins: contains a NUL byte at offset 25"},
      {{"instr", "tree", "deep1001.ins"}, 1, "nested 1001 levels deep; kvtool handles at most 1000"},
      {{"instr", "check", "deep1001.ins"}, 0, ""},
  });
  EXPECT_EQ(run({"instr", "tree", "deep1000.ins"}).status, 0) << "1000 levels are within the limit";
}

TEST_F(Kvtool, Set) {
  const std::string changed = "Korvalis Data File\r\n\r\nA = 1\r\nS\r\n{\r\n\tT = 2\r\n}\r\nX\r\n{\r\n\tY = z\r\n}\r\n";
  check({
      {{"instr", "set", "secret.ins", "X/Y", "z"}, 1, "secret.ins: cannot be read: Permission denied", "", "", "",
       user_},
      {{"instr", "set", "locked/in.ins", "X/Y", "z"}, 1, "in.ins: cannot be written: Permission denied", "", "", "",
       user_},
      {{"instr", "set", "/proc/self/mem", "X/Y", "z"}, 1, "cannot be read: Input/output error", "", "", "", "", true},
      {{"instr", "set", "zero.ins", "X/Y", "z"}, 1, "zero.ins: contains a NUL byte at offset 25"},
      {{"instr", "set", "fifo", "X/Y", "z"}, 1, "fifo: not a regular file", "", "", "", "", true},
      {{"instr", "set", "dev", "X/Y", "z"}, 1, "dev: not a regular file", "", "", "", "", true},
      {{"instr", "set", "ro.ins", "X/Y", "z"}, 1, "ro.ins: the file is read-only; --force replaces it"},
      {{"instr", "set", "--force", "ro.ins", "X/Y", "z"}, 0, "", "", "ro.ins", changed},
      {{"instr", "set", "link.ins", "X/Y", "z"}, 0, "", "", "target.ins", changed, "", true},
      {{"instr", "set", "FILE.ins", "X/Y", "z"}, 1, "leads to " + fs::canonical(dir_.path()).string() + "/file.ins", "", "", "", "", true},
      {{"instr", "set", long_ + "/f.ins", "X/Y", "z"},
       1,
       kvtest::kWindows ? "File name is too long" : "characters long; the library keeps at most 260"},
      {{"instr", "set", "nodir/f.ins", "X/Y", "z"}, 1, "nodir/f.ins: No such file or directory", "", "", "", "", true},
      {{"instr", "set", "base.ins", "X/Y", "a=b"}, 1, "value \"a=b\" holds \"=\""},
      {{"instr", "set", "base.ins", "X/Y", "a\n}"}, 1, "holds a line end"},
      {{"instr", "set", "base.ins", "X/Y", " a"}, 1, "begins or ends with white space"},
      {{"instr", "set", "base.ins", "X/#c", "1"}, 1, "tag \"#c\" begins with \"#\""},
      {{"instr", "set", "base.ins", "X/{", "1"}, 1, "tag \"{\" begins with a brace"},
      {{"instr", "set", "base.ins", "X/}", "1"}, 1, "tag \"}\" begins with a brace"},
      {{"instr", "set", "base.ins", "X/Y=1", "1"}, 1, "tag \"Y=1\" holds \"=\""},
      {{"instr", "set", "base.ins", std::string(257, 's') + "/T", "1"}, 1, "is 257 characters long; a section"},
      {{"instr", "set", "--header", "", "base.ins", "X/Y", "z"}, 1, "would not read back the same"},
      {{"instr", "set", "base.ins", "X/Y", "}"}, 0, "", "",
       "base.ins", "Korvalis Data File\r\n\r\nA = 1\r\nS\r\n{\r\n\tT = 2\r\n}\r\nX\r\n{\r\n\tY = }\r\n}\r\n"},
  });
  EXPECT_EQ(fs::is_symlink(dir_.file("link.ins")), !kvtest::kWindows) << "the link was written through, not replaced";
}

TEST_F(Kvtool, Fmt) {
  check({
      {{"instr", "fmt", "cont.ins"}, 1, "record \"Tag = ab=c\" would not read back the same"},
      {{"instr", "fmt", "deep1001.ins"}, 1, "nested 1001 levels deep"},
      {{"instr", "fmt", "zero.ins"}, 1, "contains a NUL byte at offset 25"},
      {{"instr", "fmt", "ro.ins"}, 1, "the file is read-only"},
      {{"instr", "fmt", "fifo"}, 1, "not a regular file", "", "", "", "", true},
      {{"instr", "fmt", "base.ins"}, 0, "", "", "base.ins", kBase},
  });
}

TEST_F(Kvtool, HeapDemoSaysWhenItsTableWasNotWritten) {
  KVTEST_POSIX_ONLY("it writes into /proc");
  const Result got = run({"heap", "demo", "--dir", "/proc"});
  EXPECT_EQ(got.status, 1);
  EXPECT_NE(got.err.find("the usage table was not appended to /proc/heapdump.txt: "), std::string::npos) << got.err;
  EXPECT_EQ(got.out.find("appended"), std::string::npos);
}

// Parallel read-modify-write of one file loses no update.
TEST_F(Kvtool, ConcurrentSetsKeepEveryKey) {
  std::vector<std::thread> writers;
  std::atomic<int> failed{0};
  for (int p = 1; p <= 4; ++p)
    writers.emplace_back([&, p] {
      for (int i = 1; i <= 15; ++i) {
        const std::string key = "S/k" + std::to_string(p) + "_" + std::to_string(i);
        if (kvtest::run_program(KVTOOL_PATH, {"instr", "set", "many.ins", key, "v"}, {}, "", "", dir_.path()) != 0) ++failed;
      }
    });
  for (std::thread& writer : writers) writer.join();
  ASSERT_EQ(failed.load(), 0);
  const std::string tree = run({"instr", "tree", "many.ins"}).out;
  size_t keys = 0;
  for (size_t at = tree.find(" = v"); at != std::string::npos; at = tree.find(" = v", at + 1)) ++keys;
  EXPECT_EQ(keys, 60u);
}

// Over 10 MB: progress on a terminal, none elsewhere.
TEST_F(Kvtool, LongWorkShowsProgressOnATerminalOnly) {
  KVTEST_POSIX_ONLY("the terminal is a pseudo-terminal of script(1)");
  std::string big = "Korvalis Data File\n";
  while (big.size() < (11u << 20)) big += "Tag = a value of some length\n";
  kvtest::write_file(dir_.file("big.ins"), big);
  check({{{"instr", "check", "big.ins"}, 0}});
  const std::string command = "cd " + quoted(dir_.path()) + " && script -qec " +
                              quoted(quoted(KVTOOL_PATH) + " instr check big.ins") + " /dev/null >" +
                              quoted(io_.file("tty"));
  ASSERT_EQ(std::system(command.c_str()), 0);
  EXPECT_NE(kvtest::read_file(io_.file("tty")).find("kvtool instr check: big.ins: reading 100%"), std::string::npos);
}

#ifndef KVTOOL_SANITIZED
// Allocation failure is an error with exit status 1 and no change, not an abort.
TEST_F(Kvtool, OutOfMemoryChangesNothing) {
  KVTEST_POSIX_ONLY("the address space is limited with ulimit -v");
  std::string text = "Korvalis Data File\n";
  for (int i = 0; i < 300000; ++i) text += "T = v\n";
  kvtest::write_file(dir_.file("many.ins"), text);
  int limit = 100000;  // the least address space (KiB) in which kvtool starts, and some
  while (limit < 2000000 && run({"instr", "check", "base.ins"}, "ulimit -v " + std::to_string(limit) + ";").status)
    limit += 50000;
  check({{{"instr", "fmt", "many.ins"}, 1, "kvtool instr fmt: out of memory; nothing was changed", "", "", "",
          "ulimit -v " + std::to_string(limit + 50000) + ";"}});
}
#endif

}  // namespace
