// Path names: filename, dirname, pathname, wild_match and FileName.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "FILENAME.h"
#include "kvos/drives.h"
#include "test_support.h"

namespace {

std::string text_of(const filename& f) { return *f; }
std::string text_of(const dirname& d) { return *d; }
std::string text_of(const pathname& p) { return *p; }

bool matches(const char* name, const char* pattern) { return filename(name).match(wild_match(filename(pattern))); }

// The start directory and the current drive's remembered directory, put back afterwards.
class CwdScope {
 public:
  CwdScope() : start_(CWD::Start()), current_(CWD::Get(0)) {}
  ~CwdScope() {
    CWD::Start(start_);
    CWD::Set(current_);
  }

 private:
  dirname start_;
  dirname current_;
};

}  // namespace

// ---------------------------------------------------------------------------
// filename

TEST(FileNameParse, SplitsBaseAndExtension) {
  filename f("Report.Final.TXT");
  ASSERT_TRUE(f.is_valid());
  EXPECT_STREQ(f.prefix(), "Report.Final");
  EXPECT_STREQ(f.postfix(), "TXT");
  EXPECT_TRUE(f.has_dot());
  EXPECT_EQ(text_of(f), "Report.Final.TXT");

  filename plain("readme");
  EXPECT_TRUE(plain.is_valid());
  EXPECT_FALSE(plain.has_dot());
  EXPECT_STREQ(plain.postfix(), "");

  filename trailing("abc.");
  EXPECT_TRUE(trailing.is_valid());
  EXPECT_STREQ(trailing.prefix(), "abc");
  EXPECT_STREQ(trailing.postfix(), "");
  EXPECT_TRUE(trailing.has_dot());
  EXPECT_EQ(text_of(trailing), "abc.");

  filename doubled("a..b");
  EXPECT_STREQ(doubled.prefix(), "a.");
  EXPECT_STREQ(doubled.postfix(), "b");
  EXPECT_EQ(text_of(doubled), "a..b");

  filename spaced("my file .txt");
  EXPECT_TRUE(spaced.is_valid()) << "a space is an ordinary character inside a name";
  EXPECT_STREQ(spaced.prefix(), "my file ");
}

TEST(FileNameParse, CharacterSetIsCheckedByteByByte) {
  const std::string legal = " abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_^$~!#%&-{}()@'`*?+,;=[]";
  for (int c = 1; c < 256; ++c) {
    if (c == '.') continue;
    const char middle[] = {'a', static_cast<char>(c), 'b', '\0'};
    const bool expected = c >= 0x80 || legal.find(static_cast<char>(c)) != std::string::npos;
    EXPECT_EQ(filename(middle).is_valid(), expected) << "byte " << c;
  }
  EXPECT_FALSE(filename(".profile").is_valid()) << "a leading dot";
  EXPECT_FALSE(filename("a.b.c/").is_valid());
  EXPECT_FALSE(filename("").is_valid());
  EXPECT_FALSE(filename(static_cast<const char*>(nullptr)).is_valid());
}

TEST(FileNameParse, ReservedDeviceNamesAreRefusedOnlyInLowerCase) {
  for (const char* reserved : {"clock$", "con", "aux", "com1", "com2", "com3", "com4", "lpt1", "lpt2", "lpt3", "nul", "prn"}) {
    EXPECT_FALSE(filename(reserved).is_valid()) << reserved;
    EXPECT_FALSE(filename((std::string(reserved) + ".txt").c_str()).is_valid()) << reserved;
  }
  EXPECT_TRUE(filename("COM1.txt").is_valid());
  EXPECT_TRUE(filename("Con").is_valid());
  EXPECT_TRUE(filename("com5").is_valid());
  EXPECT_TRUE(filename("console").is_valid());
  EXPECT_TRUE(filename("x.con").is_valid()) << "only the base is checked";
}

TEST(FileNameParse, FailureResetsEverything) {
  filename f("good.txt");
  f << "bad:name.txt";
  EXPECT_FALSE(f.is_valid());
  EXPECT_STREQ(f.prefix(), "");
  EXPECT_STREQ(f.postfix(), "");
  EXPECT_FALSE(f.has_dot());
  EXPECT_EQ(text_of(f), "");
  f << "good.txt";
  f << "nul.txt";
  EXPECT_STREQ(f.prefix(), "");
  EXPECT_STREQ(f.postfix(), "") << "a reserved base leaves no extension behind";
}

TEST(FileNameParse, LengthLimits) {
  const std::string base300(300, 'b');
  filename longBase((base300 + ".ext").c_str());
  ASSERT_TRUE(longBase.is_valid());
  EXPECT_EQ(std::string(longBase.prefix()), std::string(256, 'b'));
  EXPECT_STREQ(longBase.postfix(), "ext");

  EXPECT_FALSE(filename((base300 + ".x.y").c_str()).is_valid())
      << "a dot after the full base opens the extension; a second dot is illegal";

  filename longExt(("n." + std::string(300, 'e')).c_str());
  ASSERT_TRUE(longExt.is_valid());
  EXPECT_EQ(std::string(longExt.postfix()), std::string(256, 'e'));
  EXPECT_EQ(std::strlen(*longExt), 2 + 256u);

  filename both((base300 + "." + std::string(300, 'e')).c_str());
  EXPECT_EQ(std::strlen(*both), 513u) << "the longest value";

  filename exact((std::string(256, 'x') + ".t").c_str());
  EXPECT_EQ(std::string(exact.prefix()), std::string(256, 'x'));

  EXPECT_FALSE(filename((base300 + ":").c_str()).is_valid()) << "dropped characters are still checked";

  // A full base that holds a dot: the base is the first 256 kept characters cut at their last dot.
  filename dotted(("ab." + std::string(253, 'c') + ".txt").c_str());
  ASSERT_TRUE(dotted.is_valid());
  EXPECT_STREQ(dotted.prefix(), "ab");
  EXPECT_STREQ(dotted.postfix(), "txt");
}

TEST(FileNameEdit, PrefixAndPostfixRecompose) {
  filename f("data.txt");
  f.postfix("bak");
  EXPECT_EQ(text_of(f), "data.bak");
  f.postfix("");
  EXPECT_FALSE(f.has_dot());
  EXPECT_EQ(text_of(f), "data");
  f.prefix("other");
  f.postfix("x");
  EXPECT_EQ(text_of(f), "other.x");
  f.prefix(std::string(300, 'p').c_str());
  EXPECT_EQ(std::strlen(f.prefix()), 256u);
  f.prefix("");
  EXPECT_FALSE(f.is_valid()) << "an empty base";
  EXPECT_EQ(text_of(f), "");
  f.prefix(f.postfix());
  EXPECT_EQ(text_of(f), "x.x") << "a part may be set from the name itself";
}

TEST(FileNameSerial, NumberedExtensionsAdvance) {
  filename f("x.000");
  EXPECT_EQ(text_of(++f), "x.001");
  filename nearEnd("x.998");
  EXPECT_EQ(text_of(++nearEnd), "x.999");
  EXPECT_FALSE((++nearEnd).is_valid());
  EXPECT_EQ(text_of(++filename("log.5")), "log.006");
  EXPECT_EQ(text_of(++filename("log.00")), "log.001");
  EXPECT_EQ(text_of(++filename("log.0")), "log.001");
  EXPECT_FALSE((++filename("log.0000")).is_valid()) << "only 0, 00 and 000 count as zero";
  EXPECT_FALSE((++filename("log.txt")).is_valid());
  EXPECT_FALSE((++filename("log")).is_valid());
  EXPECT_FALSE((++filename("log.")).is_valid());
  EXPECT_FALSE((++filename("log.-3")).is_valid());
}

TEST(FileNameSerial, TimeStampedNamesCountWithinAMinute) {
  file_timestamp t;
  t.date = static_cast<uint16_t>(((2024 - 1980) << 9) | (3 << 5) | 7);
  t.time = static_cast<uint16_t>((9 << 11) | (5 << 5) | 10);
  filename f;
  f << t;
  EXPECT_EQ(text_of(f), "03070905.001");
  EXPECT_TRUE(f.is_valid());
  f << t;
  EXPECT_EQ(text_of(f), "03070905.002");
  f.postfix("999");
  f << t;
  EXPECT_EQ(text_of(f), "03070905.1000") << "no range check here";
  t.time = static_cast<uint16_t>((23 << 11) | (59 << 5));
  f << t;
  EXPECT_EQ(text_of(f), "03072359.001");
  filename other("notes.txt");
  other << t;
  EXPECT_EQ(text_of(other), "03072359.001");
}

TEST(FileNameCompare, EqualityIsExactAndInvalidNamesAreEqual) {
  EXPECT_TRUE(filename("A.txt") == filename("A.txt"));
  EXPECT_TRUE(filename("A.txt") != filename("a.txt"));
  EXPECT_TRUE(filename("bad:") == filename("con"));
  EXPECT_TRUE(filename("a") != filename("bad:"));
  EXPECT_FALSE(filename("a") == filename());
  filename copy = filename("z.y");
  EXPECT_TRUE(copy == filename("z.y"));
}

// ---------------------------------------------------------------------------
// wild_match

TEST(WildMatch, FixedWidthTemplates) {
  char field[8];
  std::memset(field, 'X', sizeof field);
  wild_match::expand(field, "a*c", 5);
  EXPECT_EQ(std::string(field, 6), std::string("a????\0", 6));
  EXPECT_EQ(field[6], 'X') << "nothing written past width + 1";
  wild_match::expand(field, "ab", 5);
  EXPECT_EQ(std::string(field, 6), std::string("ab\0\0\0\0", 6));
  wild_match::expand(field, "abcdefgh", 5);
  EXPECT_EQ(std::string(field, 6), std::string("abcde\0", 6));
}

TEST(WildMatch, MatchesLikeTheClassicFileControlBlock) {
  for (const char* name : {"a", "x.txt", "README", "a.b.c", "z."}) EXPECT_TRUE(matches(name, "*.*")) << name;
  EXPECT_TRUE(matches("ABC", "a?c")) << "ignoring case";
  EXPECT_FALSE(matches("ac", "a?c")) << "fixed width: the c must stand third";
  EXPECT_TRUE(matches("a", "a?")) << "? matches a missing character";
  EXPECT_FALSE(matches("abc", "ab"));
  EXPECT_FALSE(matches("abc.txt", "*")) << "* covers the base only";
  EXPECT_TRUE(matches("abc", "*"));
  EXPECT_TRUE(matches("abXYZ.txt", "ab*cd.t*")) << "characters after * are ignored";
  EXPECT_FALSE(matches("abc.txt", "*.doc"));
  EXPECT_TRUE(matches("NOTES.TXT", "*.txt"));
  EXPECT_TRUE(matches("*.txt", "notes.txt")) << "wildcards work on either side";
  EXPECT_TRUE(matches("data.txt", "data.txt?"));
}

TEST(WildMatch, FillTakesWildcardsFromTheSource) {
  filename f("*.bak");
  f.wild_fill(filename("data.txt"));
  EXPECT_EQ(text_of(f), "data.bak");
  filename g("a?c.*");
  g.wild_fill(filename("xyz.doc"));
  EXPECT_EQ(text_of(g), "ayc.doc");
  filename h("*.*");
  h.wild_fill(filename("readme"));
  EXPECT_EQ(text_of(h), "readme.") << "the pattern's dot stays";
  filename k("new?");
  k.wild_fill(filename("ab"));
  EXPECT_EQ(text_of(k), "new") << "a missing source character ends the base";
  EXPECT_TRUE(filename("*.bak").is_wild());
  EXPECT_FALSE(filename("plain.bak").is_wild());
}

// ---------------------------------------------------------------------------
// dirname

TEST(DirNameParse, NormalisesAbsoluteText) {
  EXPECT_EQ(text_of(dirname("C:\\Data\\..\\Logs\\.")), "c:\\Logs");
  EXPECT_EQ(text_of(dirname("c:\\Data\\Logs")), "c:\\Data\\Logs");
  EXPECT_EQ(text_of(dirname("  c:\\tmp  ")), "c:\\tmp");
  EXPECT_EQ(text_of(dirname("c:\\tmp\\")), "c:\\tmp") << "a single trailing separator";
  EXPECT_EQ(text_of(dirname("c:\\")), "c:\\");
  EXPECT_EQ(text_of(dirname("c:\\a\\..")), "c:\\") << "a root always ends in \\";
  EXPECT_EQ(text_of(dirname("Q:\\.\\x.y.\\")), "q:\\x.y.");
  EXPECT_EQ(text_of(dirname("!:\\cap")), "!:\\cap");
  EXPECT_EQ(text_of(dirname("&:\\")), "&:\\");
}

TEST(DirNameParse, RejectsBrokenText) {
  for (const char* bad : {"c:\\a\\\\b", "c:\\.hidden\\x", "c:\\a\\...", "c:\\..", "c:\\a\\..\\..", "c:\\a:b",
                          "c:\\con\\x", "c:\\a\\b\\\\", "c:\\x/y", "", "   "}) {
    dirname d(bad);
    EXPECT_FALSE(d.is_valid()) << bad;
    EXPECT_EQ(text_of(d), "") << bad;
  }
  dirname d("c:\\ok");
  d << static_cast<const char*>(nullptr);
  EXPECT_FALSE(d.is_valid());
  EXPECT_EQ(text_of(d), "");
}

TEST(DirNameParse, NetworkPaths) {
  dirname d("\\\\server\\share\\..\\other\\dir");
  ASSERT_TRUE(d.is_valid());
  EXPECT_EQ(text_of(d), "\\\\server\\other\\dir");
  EXPECT_EQ(d.drive(), 0);
  EXPECT_TRUE(d.is_dos());
  EXPECT_STREQ(d.get_last(), "dir");
  d << "..\\x";
  EXPECT_EQ(text_of(d), "\\\\server\\other\\x") << "relative text below a network directory";
  EXPECT_FALSE(dirname("\\\\server\\\\share").is_valid());

  dirname replaced("c:\\a\\b");
  replaced << "\\\\srv\\share";
  EXPECT_EQ(text_of(replaced), "\\\\srv\\share") << "a network path replaces the directory";
  replaced << "\\top";
  EXPECT_EQ(text_of(replaced), "\\\\srv\\share\\top") << "rooted text stays on the share";
  replaced << "..\\..";
  EXPECT_EQ(text_of(replaced), "\\\\srv");
  replaced << "..";
  EXPECT_FALSE(replaced.is_valid()) << "climbing above the server";
  EXPECT_FALSE(dirname("\\\\").is_valid()) << "no server";
  EXPECT_FALSE(dirname("\\\\srv\\..").is_valid());
  EXPECT_FALSE(dirname("\\\\srv\\..\\other").is_valid()) << "not even onto another server";
  EXPECT_EQ(text_of(pathname("\\\\srv\\share\\x.txt").dir()), "\\\\srv\\share");
  pathname onShare("c:\\a\\b.txt");
  onShare << "\\\\srv\\share\\x.txt";
  EXPECT_EQ(text_of(onShare), "\\\\srv\\share\\x.txt");
}

TEST(DirNameParse, RelativeTextResolvesAgainstTheObjectOrTheStartDirectory) {
  CwdScope scope;
  dirname d("c:\\a");
  d << "sub";
  EXPECT_EQ(text_of(d), "c:\\a\\sub");
  d << "..";
  EXPECT_EQ(text_of(d), "c:\\a");
  d << "..\\..";
  EXPECT_FALSE(d.is_valid()) << "climbing above the root";
  dirname root("c:\\");
  root << "x";
  EXPECT_EQ(text_of(root), "c:\\x");
  root << "\\y\\z";
  EXPECT_EQ(text_of(root), "c:\\y\\z") << "rooted text keeps the drive";
  dirname other("d:\\q");
  other << "\\r";
  EXPECT_EQ(text_of(other), "d:\\r");

  CWD::Start(dirname("e:\\start\\here"));
  EXPECT_EQ(text_of(dirname("rel\\dir")), "e:\\start\\here\\rel\\dir");
  EXPECT_EQ(text_of(dirname("\\top")), "e:\\top");
  EXPECT_EQ(text_of(dirname("..")), "e:\\start");
  CWD::Start(dirname());
  EXPECT_FALSE(dirname("rel").is_valid()) << "no start directory";
  EXPECT_FALSE(dirname("\\top").is_valid());
  EXPECT_TRUE(dirname("c:\\abs").is_valid());
}

TEST(DirNameParse, DriveRelativeTextStartsAtThatDrivesDirectory) {
  CwdScope scope;
  CWD::Set(getcwd('c'));
  const std::string base = *CWD::Get('c');
  EXPECT_EQ(text_of(dirname("c:sub")), base + "\\sub");
  EXPECT_EQ(text_of(dirname("C:")), base);
  CWD::Set(dirname("c:\\"));
  EXPECT_EQ(text_of(dirname("c:data")), "c:\\\\data") << "a root start keeps its separator";
  EXPECT_EQ(text_of(dirname("c:..")), "c:\\") << "climbing from the root start stays at the root";
  EXPECT_EQ(text_of(dirname("!:x")), "!:\\\\x") << "the capture drive's directory is !:\\";
}

TEST(DirNameParse, LengthLimitStopsTheWalk) {
  const std::string base = "c:\\" + std::string(249, 'a');
  dirname d(base.c_str());
  ASSERT_TRUE(d.is_valid());
  d << "bcd";
  EXPECT_TRUE(d.is_valid()) << "exactly 256 characters";
  EXPECT_EQ(std::strlen(*d), 256u);
  d << "..";
  d << "bcdefgh";
  EXPECT_FALSE(d.is_valid());
  EXPECT_EQ(text_of(d), base) << "the text built so far remains";

  // Longer text is taken up to its 256th character.
  dirname cut(("c:\\" + std::string(300, 'z')).c_str());
  EXPECT_TRUE(cut.is_valid());
  EXPECT_EQ(std::strlen(*cut), 256u);

  const std::string net = "\\\\" + std::string(254, 'n');
  EXPECT_TRUE(dirname(net.c_str()).is_valid());
  EXPECT_EQ(std::strlen(*dirname(net.c_str())), 256u);
}

TEST(DirNameQuery, DriveRootLastAndSubdirectories) {
  dirname d("X:\\Data\\Sub");
  EXPECT_EQ(d.drive(), 'x');
  EXPECT_FALSE(d.is_root());
  EXPECT_STREQ(d.get_last(), "Sub");
  EXPECT_TRUE(dirname("c:\\").is_root());
  EXPECT_STREQ(dirname("c:\\").get_last(), "");
  EXPECT_FALSE(dirname("!:\\").is_dos());
  EXPECT_EQ(dirname("!:\\").drive(), '!');

  const dirname data("c:\\data");
  EXPECT_TRUE(dirname("c:\\data\\x").is_subdir_of(data));
  EXPECT_TRUE(data.is_subdir_of(data)) << "a directory is below itself";
  EXPECT_FALSE(dirname("c:\\database").is_subdir_of(data));
  EXPECT_FALSE(data.is_subdir_of(dirname("c:\\"))) << "nothing is below a root";
  EXPECT_TRUE(dirname("c:\\").is_subdir_of(dirname("c:\\")));
  EXPECT_FALSE(data.is_subdir_of(dirname())) << "an invalid parent";
  EXPECT_FALSE(dirname("c:\\Data\\x").is_subdir_of(data)) << "case counts";
}

TEST(DirNameCompare, ExactComparison) {
  EXPECT_TRUE(dirname("C:\\x") == dirname("c:\\x"));
  EXPECT_TRUE(dirname("c:\\X") != dirname("c:\\x"));
  EXPECT_TRUE(dirname("c:\\a\\..") == dirname("c:\\"));
  EXPECT_TRUE(dirname("c:\\..") == dirname("bad|"));
  EXPECT_FALSE(dirname("c:\\") == dirname());
  EXPECT_EQ(text_of(dirname(pathname("c:\\a\\b.txt"))), "c:\\a\\b.txt") << "the file becomes a component";
}

// ---------------------------------------------------------------------------
// pathname

TEST(PathNameParse, SplitsDirectoryAndFile) {
  pathname p("c:\\a\\b.txt");
  ASSERT_TRUE(p.is_valid());
  EXPECT_EQ(text_of(p.dir()), "c:\\a");
  EXPECT_EQ(text_of(p.file()), "b.txt");
  EXPECT_EQ(text_of(p), "c:\\a\\b.txt");

  pathname dirOnly("c:\\a\\");
  EXPECT_EQ(text_of(dirOnly.dir()), "c:\\");
  EXPECT_EQ(text_of(dirOnly.file()), "a");
  EXPECT_FALSE(dirOnly.is_root());

  pathname root("c:\\");
  EXPECT_TRUE(root.is_valid());
  EXPECT_TRUE(root.is_root());
  EXPECT_FALSE(root.file().is_valid());
  EXPECT_EQ(text_of(root), "c:\\");

  pathname net("\\\\server\\share\\f.txt");
  EXPECT_EQ(text_of(net.dir()), "\\\\server\\share");
  EXPECT_EQ(text_of(net.file()), "f.txt");
  EXPECT_EQ(net.drive(), 0);
  EXPECT_TRUE(net.is_dos());

  pathname spaced("   c:\\x\\y z.txt  ");
  EXPECT_EQ(text_of(spaced), "c:\\x\\y z.txt");

  for (const char* bad : {"c:\\a\\\\b.txt", "c:\\..\\f", "c:\\a\\com1", "", "  ", "c:\\<x>"}) {
    pathname b(bad);
    EXPECT_FALSE(b.is_valid()) << bad;
    EXPECT_EQ(text_of(b), "") << bad;
  }
  pathname none(static_cast<const char*>(nullptr));
  EXPECT_FALSE(none.is_valid());
}

TEST(PathNameParse, RelativeTextResolvesAgainstTheWholePath) {
  pathname p("c:\\a\\b.txt");
  p << "c.txt";
  EXPECT_EQ(text_of(p), "c:\\a\\b.txt\\c.txt");
  p << "..\\..\\d.txt";
  EXPECT_EQ(text_of(p), "c:\\a\\d.txt");
  p << "e:\\other\\f";
  EXPECT_EQ(text_of(p), "e:\\other\\f") << "absolute text replaces the path";
  p << "\\g";
  EXPECT_EQ(text_of(p), "e:\\g");

  // A path too long to become a directory cannot resolve relative text.
  pathname longPath(dirname(("c:\\" + std::string(197, 'd')).c_str()), filename(std::string(59, 'f').c_str()));
  ASSERT_TRUE(longPath.is_valid());
  longPath << "x";
  EXPECT_FALSE(longPath.is_valid());
  longPath << "c:\\y";
  EXPECT_EQ(text_of(longPath), "c:\\y");
}

TEST(PathNameCompose, LimitOf260Characters) {
  const dirname dir(("c:\\" + std::string(196, 'd')).c_str());  // 199 characters
  ASSERT_TRUE(dir.is_valid());
  pathname exact(dir, filename(std::string(60, 'f').c_str()));
  EXPECT_TRUE(exact.is_valid());
  EXPECT_EQ(std::strlen(*exact), 260u);
  pathname over(dir, filename(std::string(61, 'f').c_str()));
  EXPECT_FALSE(over.is_valid());
  EXPECT_EQ(text_of(over), "");
  EXPECT_EQ(text_of(over.dir()), text_of(dir)) << "both parts stay as given";
  EXPECT_EQ(std::strlen(*over.file()), 61u);
}

TEST(PathNameCompose, PartsReplaceAndRecompose) {
  pathname p{filename("x.txt")};
  EXPECT_FALSE(p.is_valid()) << "no directory yet";
  p << dirname("c:\\d");
  EXPECT_EQ(text_of(p), "c:\\d\\x.txt");
  p << filename("y.log");
  EXPECT_EQ(text_of(p), "c:\\d\\y.log");
  p << filename("bad:");
  EXPECT_TRUE(p.is_valid()) << "an invalid file names the directory alone";
  EXPECT_EQ(text_of(p), "c:\\d");
  EXPECT_TRUE(pathname(dirname("c:\\"), filename("r")).is_valid());
  EXPECT_EQ(text_of(pathname(dirname("c:\\"), filename("r"))), "c:\\r");
  EXPECT_FALSE(pathname(dirname("c:\\"), filename("r")).is_root());
  EXPECT_TRUE(pathname(dirname("c:\\")).is_root());

  pathname n("c:\\logs\\run.007");
  ++n;
  EXPECT_EQ(text_of(n), "c:\\logs\\run.008");
  n.postfix("txt");
  EXPECT_EQ(text_of(n), "c:\\logs\\run.txt");
  n.prefix("walk");
  EXPECT_EQ(text_of(n), "c:\\logs\\walk.txt");
  pathname w("c:\\logs\\*.bak");
  EXPECT_TRUE(w.is_wild());
  w.wild_fill(filename("run.txt"));
  EXPECT_EQ(text_of(w), "c:\\logs\\run.bak");
  ++n;
  EXPECT_EQ(text_of(n), "c:\\logs") << "a failed advance leaves the directory";

  n.reinit();
  EXPECT_FALSE(n.is_valid());
  EXPECT_FALSE(n.dir().is_valid());
  EXPECT_FALSE(n.file().is_valid());
}

TEST(PathNameCompare, EqualityAndMatching) {
  EXPECT_TRUE(pathname("C:\\a\\b") == pathname("c:\\a\\.\\b"));
  EXPECT_TRUE(pathname("c:\\a\\B") != pathname("c:\\a\\b"));
  EXPECT_TRUE(pathname("c:\\..") == pathname(""));

  const pathname pattern("c:\\data\\*.txt");
  EXPECT_TRUE(pathname("c:\\data\\NOTES.TXT").match(pattern));
  EXPECT_FALSE(pathname("c:\\data\\sub\\a.txt").match(pattern)) << "another directory";
  EXPECT_FALSE(pathname("c:\\Data\\a.txt").match(pattern)) << "directories compare exactly";
  EXPECT_FALSE(pathname("c:\\data\\a.doc").match(pattern));
  EXPECT_FALSE(pathname("c:\\data\\a.txt").match(pathname())) << "an invalid pattern";
}

TEST(PathNameDisk, ExistsLooksAtTheHostFile) {
  kvtest::TempDir tmp;
  const std::string real = std::filesystem::canonical(tmp.path()).string();
  kvtest::write_file(real + "/Present.txt", "x");
  std::string dos;
  ASSERT_TRUE(kvos::host_to_dos(real, dos)) << "the temporary directory is on no drive";
  EXPECT_TRUE(pathname((dos + "\\Present.txt").c_str()).exists());
  EXPECT_TRUE(pathname((dos + "\\PRESENT.TXT").c_str()).exists()) << "names written on Windows keep working";
  EXPECT_TRUE(pathname(dos.c_str()).exists()) << "a directory exists too";
  EXPECT_FALSE(pathname((dos + "\\absent.txt").c_str()).exists());
  EXPECT_FALSE(pathname().exists());
  EXPECT_FALSE(pathname("!:\\x").exists());
}

// ---------------------------------------------------------------------------
// FileName and the placeholder

TEST(FileNameCarrier, CopiesWithoutChecking) {
  FileName empty;
  EXPECT_STREQ(*empty, "");
  FileName any("c:\\<anything goes>|");
  EXPECT_STREQ(*any, "c:\\<anything goes>|");
  const std::string longText(300, 'L');
  FileName cut(longText.c_str());
  EXPECT_EQ(std::string(*cut), std::string(260, 'L'));
  FileName copy = cut;
  copy = any;
  EXPECT_STREQ(*copy, "c:\\<anything goes>|");
  EXPECT_STREQ(*FileName(nullptr), "");
  EXPECT_STREQ(InvalidFileName(), "????????.???");
  EXPECT_FALSE(filename(InvalidFileName()).match(wild_match(filename("abcdefghi.txt"))));
  EXPECT_TRUE(filename(InvalidFileName()).match(wild_match(filename("report.txt"))));
}
