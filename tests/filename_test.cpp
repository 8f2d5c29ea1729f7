// Path names: filename, dirname, pathname, wild_match and FileName.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "FILENAME.h"
#include "test_support.h"

namespace {

std::string text_of(const filename& f) { return *f; }
std::string text_of(const dirname& d) { return *d; }
std::string text_of(const pathname& p) { return *p; }

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

TEST(FileNameParse, SplitsBaseAndExtensionWithinTheLimits) {
  const std::string b300(300, 'b'), e300(300, 'e');
  struct Case {
    std::string text;
    std::string prefix, postfix, full;  // full "" for an invalid name
  };
  const Case cases[] = {
      {"Report.Final.TXT", "Report.Final", "TXT", "Report.Final.TXT"},
      {"readme", "readme", "", "readme"},
      {"abc.", "abc", "", "abc."},
      {"a..b", "a.", "b", "a..b"},
      {"my file .txt", "my file ", "txt", "my file .txt"},
      {b300 + ".ext", std::string(256, 'b'), "ext", std::string(256, 'b') + ".ext"},
      {"n." + e300, "n", std::string(256, 'e'), "n." + std::string(256, 'e')},
      {std::string(256, 'x') + ".t", std::string(256, 'x'), "t", std::string(256, 'x') + ".t"},
      // A full base that holds a dot: the first 256 kept characters cut at their last dot.
      {"ab." + std::string(253, 'c') + ".txt", "ab", "txt", "ab.txt"},
      {b300 + ".x.y", "", "", ""},  // a dot after the full base opens the extension
      {b300 + ":", "", "", ""},     // dropped characters are still checked
      {".profile", "", "", ""},
      {"a.b.c/", "", "", ""},
      {"", "", "", ""},
      {"x.con", "x", "con", "x.con"},  // only the base is checked for device names
      {"COM1.txt", "COM1", "txt", "COM1.txt"},
      {"Con", "Con", "", "Con"},
      {"com5", "com5", "", "com5"},
      {"console", "console", "", "console"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    filename f(c.text.c_str());
    EXPECT_EQ(f.is_valid(), !c.full.empty());
    EXPECT_STREQ(f.prefix(), c.prefix.c_str());
    EXPECT_STREQ(f.postfix(), c.postfix.c_str());
    EXPECT_EQ(text_of(f), c.full);
  }
  EXPECT_EQ(std::strlen(*filename((b300 + "." + e300).c_str())), 513u) << "the longest value";
  EXPECT_FALSE(filename(static_cast<const char*>(nullptr)).is_valid());
  for (const char* reserved : {"clock$", "con", "aux", "com1", "com2", "com3", "com4", "lpt1", "lpt2", "lpt3", "nul", "prn"}) {
    EXPECT_FALSE(filename(reserved).is_valid()) << reserved;
    EXPECT_FALSE(filename((std::string(reserved) + ".txt").c_str()).is_valid()) << reserved;
  }
}

TEST(FileNameParse, CharacterSetIsCheckedByteByByte) {
  const std::string legal = " abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_^$~!#%&-{}()@'`*?+,;=[]";
  for (int c = 1; c < 256; ++c) {
    if (c == '.') continue;
    const char middle[] = {'a', static_cast<char>(c), 'b', '\0'};
    const bool expected = c >= 0x80 || legal.find(static_cast<char>(c)) != std::string::npos;
    EXPECT_EQ(filename(middle).is_valid(), expected) << "byte " << c;
  }
}

TEST(FileNameEdit, FailureResetsEverythingAndPartsRecompose) {
  filename f("good.txt");
  f << "nul.txt";
  EXPECT_FALSE(f.has_dot());
  EXPECT_STREQ(f.postfix(), "") << "a reserved base leaves no extension behind";
  f << "data.txt";
  f.postfix("bak");
  EXPECT_EQ(text_of(f), "data.bak");
  f.postfix("");
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
  const std::pair<const char*, const char*> cases[] = {
      {"x.000", "x.001"}, {"x.998", "x.999"}, {"x.999", ""}, {"log.5", "log.006"}, {"log.00", "log.001"},
      {"log.0", "log.001"}, {"log.0000", ""},  // only 0, 00 and 000 count as zero
      {"log.txt", ""}, {"log", ""}, {"log.", ""}, {"log.-3", ""},
  };
  for (const auto& [in, out] : cases) {
    filename f(in);
    EXPECT_EQ(text_of(++f), out) << in;
    EXPECT_EQ(f.is_valid(), *out != '\0') << in;
  }
}

TEST(FileNameSerial, TimeStampedNamesCountWithinAMinute) {
  file_timestamp t;
  t.date = static_cast<uint16_t>(((2024 - 1980) << 9) | (3 << 5) | 7);
  t.time = static_cast<uint16_t>((9 << 11) | (5 << 5) | 10);
  filename f;
  f << t;
  EXPECT_EQ(text_of(f), "03070905.001");
  f << t;
  EXPECT_EQ(text_of(f), "03070905.002");
  f.postfix("999");
  f << t;
  EXPECT_EQ(text_of(f), "03070905.1000") << "no range check here";
  t.time = static_cast<uint16_t>((23 << 11) | (59 << 5));
  f << t;
  EXPECT_EQ(text_of(f), "03072359.001");
}

TEST(FileNameCompare, EqualityIsExactAndInvalidNamesAreEqual) {
  EXPECT_TRUE(filename("A.txt") == filename("A.txt"));
  EXPECT_TRUE(filename("A.txt") != filename("a.txt"));
  EXPECT_TRUE(filename("bad:") == filename("con"));
  EXPECT_FALSE(filename("a") == filename());
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
  struct Case {
    const char* name;
    const char* pattern;
    bool match;
  };
  const Case cases[] = {
      {"a", "*.*", true},         {"a.b.c", "*.*", true},        {"z.", "*.*", true},
      {"ABC", "a?c", true},       {"ac", "a?c", false},          {"a", "a?", true},  // ? matches a missing character
      {"abc", "ab", false},       {"abc.txt", "*", false},       {"abc", "*", true},
      {"abXYZ.txt", "ab*cd.t*", true},  // characters after * are ignored
      {"abc.txt", "*.doc", false}, {"NOTES.TXT", "*.txt", true},  {"*.txt", "notes.txt", true},
      {"data.txt", "data.txt?", true},
  };
  for (const Case& c : cases)
    EXPECT_EQ(filename(c.name).match(wild_match(filename(c.pattern))), c.match) << c.name << " " << c.pattern;
}

TEST(WildMatch, FillTakesWildcardsFromTheSource) {
  const char* cases[][3] = {{"*.bak", "data.txt", "data.bak"},
                            {"a?c.*", "xyz.doc", "ayc.doc"},
                            {"*.*", "readme", "readme."},  // the pattern's dot stays
                            {"new?", "ab", "new"}};        // a missing source character ends the base
  for (const auto& c : cases) {
    filename f(c[0]);
    f.wild_fill(filename(c[1]));
    EXPECT_EQ(text_of(f), c[2]) << c[0];
  }
  EXPECT_TRUE(filename("*.bak").is_wild());
  EXPECT_FALSE(filename("plain.bak").is_wild());
}

// ---------------------------------------------------------------------------
// dirname

TEST(DirNameParse, NormalisesAbsoluteTextAndRejectsBrokenText) {
  const std::pair<const char*, const char*> cases[] = {
      {"C:\\Data\\..\\Logs\\.", "c:\\Logs"}, {"  c:\\tmp  ", "c:\\tmp"},
      {"c:\\tmp\\", "c:\\tmp"}, {"c:\\a\\..", "c:\\"},  // a root always ends in a separator
      {"Q:\\.\\x.y.\\", "q:\\x.y."}, {"!:\\cap", "!:\\cap"}, {"&:\\", "&:\\"},
      {"\\\\server\\share\\..\\other\\dir", "\\\\server\\other\\dir"},
      {"c:\\a\\\\b", ""}, {"c:\\.hidden\\x", ""}, {"c:\\a\\...", ""}, {"c:\\..", ""}, {"c:\\a\\..\\..", ""},
      {"c:\\a:b", ""}, {"c:\\con\\x", ""}, {"c:\\a\\b\\\\", ""}, {"c:\\x/y", ""}, {"", ""}, {"   ", ""},
      {"\\\\server\\\\share", ""}, {"\\\\", ""}, {"\\\\srv\\..", ""}, {"\\\\srv\\..\\other", ""},
  };
  for (const auto& [in, out] : cases) {
    dirname d(in);
    EXPECT_EQ(d.is_valid(), *out != '\0') << in;
    EXPECT_EQ(text_of(d), out) << in;
  }
  dirname d("c:\\ok");
  d << static_cast<const char*>(nullptr);
  EXPECT_FALSE(d.is_valid());
}

TEST(DirNameParse, RelativeTextResolvesAgainstTheObjectOrTheStartDirectory) {
  CwdScope scope;
  struct Step {
    const char* text;
    const char* result;  // "" when the directory becomes invalid
  };
  // Each step applies to the directory the previous one left.
  const Step steps[] = {
      {"c:\\", "c:\\"}, {"a", "c:\\a"}, {"sub", "c:\\a\\sub"}, {"..", "c:\\a"}, {"\\y\\z", "c:\\y\\z"},  // rooted text keeps the drive
      {"\\\\srv\\share", "\\\\srv\\share"},  // a network path replaces the directory
      {"\\top", "\\\\srv\\share\\top"}, {"..\\x", "\\\\srv\\share\\x"}, {"..\\..", "\\\\srv"},
      {"..", ""},  // climbing above the server
      {"d:\\q\\r", "d:\\q\\r"}, {"..\\..\\..", ""},  // climbing above the root
  };
  dirname d;
  for (const Step& s : steps) {
    d << s.text;
    EXPECT_EQ(text_of(d), s.result) << s.text;
  }
  CWD::Start(dirname("e:\\start\\here"));
  EXPECT_EQ(text_of(dirname("rel\\dir")), "e:\\start\\here\\rel\\dir");
  EXPECT_EQ(text_of(dirname("\\top")), "e:\\top");
  EXPECT_EQ(text_of(dirname("..")), "e:\\start");
  CWD::Start(dirname());
  EXPECT_FALSE(dirname("rel").is_valid()) << "no start directory";
  EXPECT_FALSE(dirname("\\top").is_valid());

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
  d << "bcd";
  EXPECT_EQ(std::strlen(*d), 256u) << "exactly 256 characters";
  d << "..";
  d << "bcdefgh";
  EXPECT_FALSE(d.is_valid());
  EXPECT_EQ(text_of(d), base) << "the text built so far remains";
  // Longer text is taken up to its 256th character.
  EXPECT_EQ(std::strlen(*dirname(("c:\\" + std::string(300, 'z')).c_str())), 256u);
  EXPECT_EQ(std::strlen(*dirname(("\\\\" + std::string(254, 'n')).c_str())), 256u);
}

TEST(DirNameQuery, DriveRootLastSubdirectoriesAndComparison) {
  dirname d("X:\\Data\\Sub");
  EXPECT_EQ(d.drive(), 'x');
  EXPECT_FALSE(d.is_root());
  EXPECT_STREQ(d.get_last(), "Sub");
  EXPECT_STREQ(dirname("c:\\").get_last(), "");
  EXPECT_FALSE(dirname("!:\\").is_dos());
  EXPECT_TRUE(dirname("\\\\srv\\x").is_dos());
  EXPECT_EQ(dirname("\\\\srv\\x").drive(), 0);

  const dirname data("c:\\data");
  EXPECT_TRUE(dirname("c:\\data\\x").is_subdir_of(data));
  EXPECT_TRUE(data.is_subdir_of(data)) << "a directory is below itself";
  EXPECT_FALSE(dirname("c:\\database").is_subdir_of(data));
  EXPECT_FALSE(data.is_subdir_of(dirname("c:\\"))) << "nothing is below a root";
  EXPECT_TRUE(dirname("c:\\").is_subdir_of(dirname("c:\\")));
  EXPECT_FALSE(data.is_subdir_of(dirname())) << "an invalid parent";
  EXPECT_FALSE(dirname("c:\\Data\\x").is_subdir_of(data)) << "case counts";

  EXPECT_TRUE(dirname("C:\\x") == dirname("c:\\x"));
  EXPECT_TRUE(dirname("c:\\X") != dirname("c:\\x"));
  EXPECT_TRUE(dirname("c:\\..") == dirname("bad|"));
  EXPECT_FALSE(dirname("c:\\") == dirname());
  EXPECT_EQ(text_of(dirname(pathname("c:\\a\\b.txt"))), "c:\\a\\b.txt") << "the file becomes a component";
}

// ---------------------------------------------------------------------------
// pathname

TEST(PathNameParse, SplitsDirectoryAndFile) {
  struct Case {
    const char* text;
    const char* dir;
    const char* file;
    const char* full;  // "" for an invalid path
  };
  const Case cases[] = {
      {"c:\\a\\b.txt", "c:\\a", "b.txt", "c:\\a\\b.txt"},
      {"c:\\a\\", "c:\\", "a", "c:\\a"},
      {"c:\\", "c:\\", "", "c:\\"},
      {"\\\\server\\share\\f.txt", "\\\\server\\share", "f.txt", "\\\\server\\share\\f.txt"},
      {"   c:\\x\\y z.txt  ", "c:\\x", "y z.txt", "c:\\x\\y z.txt"},
      {"c:\\a\\\\b.txt", "", "", ""}, {"c:\\..\\f", "", "", ""}, {"c:\\a\\com1", "", "", ""},
      {"", "", "", ""}, {"c:\\<x>", "", "", ""},
  };
  for (const Case& c : cases) {
    pathname p(c.text);
    EXPECT_EQ(p.is_valid(), *c.full != '\0') << c.text;
    EXPECT_EQ(text_of(p), c.full) << c.text;
    if (*c.full == '\0') continue;
    EXPECT_EQ(text_of(p.dir()), c.dir) << c.text;
    EXPECT_EQ(text_of(p.file()), c.file) << c.text;
  }
  EXPECT_TRUE(pathname("c:\\").is_root());
  EXPECT_FALSE(pathname("c:\\a\\").is_root());
  EXPECT_FALSE(pathname(static_cast<const char*>(nullptr)).is_valid());
}

TEST(PathNameParse, RelativeTextResolvesAgainstTheWholePath) {
  pathname p("c:\\a\\b.txt");
  p << "c.txt";
  EXPECT_EQ(text_of(p), "c:\\a\\b.txt\\c.txt");
  p << "..\\..\\d.txt";
  EXPECT_EQ(text_of(p), "c:\\a\\d.txt");
  p << "\\\\srv\\share\\x.txt";
  EXPECT_EQ(text_of(p), "\\\\srv\\share\\x.txt");
  p << "e:\\other\\f";
  EXPECT_EQ(text_of(p), "e:\\other\\f") << "absolute text replaces the path";
  p << "\\g";
  EXPECT_EQ(text_of(p), "e:\\g");

  // A path too long to become a directory cannot resolve relative text.
  pathname longPath(dirname(("c:\\" + std::string(197, 'd')).c_str()), filename(std::string(59, 'f').c_str()));
  ASSERT_TRUE(longPath.is_valid());
  longPath << "x";
  EXPECT_FALSE(longPath.is_valid());
}

TEST(PathNameCompose, LimitOf260Characters) {
  const dirname dir(("c:\\" + std::string(196, 'd')).c_str());  // 199 characters
  pathname exact(dir, filename(std::string(60, 'f').c_str()));
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
  p << filename("bad:");
  EXPECT_TRUE(p.is_valid()) << "an invalid file names the directory alone";
  EXPECT_EQ(text_of(p), "c:\\d");
  EXPECT_EQ(text_of(pathname(dirname("c:\\"), filename("r"))), "c:\\r");
  EXPECT_TRUE(pathname(dirname("c:\\")).is_root());

  pathname n("c:\\logs\\run.007");
  ++n;
  EXPECT_EQ(text_of(n), "c:\\logs\\run.008");
  n.postfix("txt");
  n.prefix("walk");
  EXPECT_EQ(text_of(n), "c:\\logs\\walk.txt");
  pathname w("c:\\logs\\*.bak");
  EXPECT_TRUE(w.is_wild());
  w.wild_fill(filename("run.txt"));
  EXPECT_EQ(text_of(w), "c:\\logs\\run.bak");
  ++n;
  EXPECT_EQ(text_of(n), "c:\\logs") << "a failed advance leaves the directory";
  n.reinit();
  EXPECT_FALSE(n.is_valid() || n.dir().is_valid() || n.file().is_valid());
}

// ---------------------------------------------------------------------------
// FileName and the placeholder

TEST(FileNameCarrier, CopiesWithoutChecking) {
  FileName any("c:\\<anything goes>|");
  EXPECT_STREQ(*any, "c:\\<anything goes>|");
  FileName cut(std::string(300, 'L').c_str());
  EXPECT_EQ(std::string(*cut), std::string(260, 'L'));
  cut = any;
  EXPECT_STREQ(*cut, "c:\\<anything goes>|");
  EXPECT_STREQ(*FileName(nullptr), "");
  EXPECT_STREQ(InvalidFileName(), "????????.???");
  EXPECT_FALSE(filename(InvalidFileName()).match(wild_match(filename("abcdefghi.txt"))));
  EXPECT_TRUE(filename(InvalidFileName()).match(wild_match(filename("report.txt"))));
}
