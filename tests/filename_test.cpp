// Path names: filename, dirname, pathname, wild_match and FileName.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "FILENAME.h"
#include "paths_support.h"
#include "test_support.h"

using kvtest::text_of;

// ---------------------------------------------------------------------------
// filename

// "base|extension|value", marked " !" when the name is invalid.
static std::string parts(const filename& f) {
  return std::string(f.prefix()) + "|" + f.postfix() + "|" + *f + (f.is_valid() ? "" : " !");
}

TEST(FileNameParse, SplitsBaseAndExtensionWithinTheLimits) {
  const std::string b300(300, 'b'), e300(300, 'e'), b256(256, 'b'), x256(256, 'x'), e256(256, 'e');
  const std::pair<std::string, std::string> cases[] = {
      {"Report.Final.TXT", "Report.Final|TXT|Report.Final.TXT"}, {"readme", "readme||readme"}, {"abc.", "abc||abc."},
      {"a..b", "a.|b|a..b"}, {"my file .txt", "my file |txt|my file .txt"}, {b300 + ".ext", b256 + "|ext|" + b256 + ".ext"},
      {x256 + ".t", x256 + "|t|" + x256 + ".t"}, {"n." + e300, "n|" + e256 + "|n." + e256},
      // A full base that holds a dot: the first 256 kept characters cut at their last dot.
      {"ab." + std::string(253, 'c') + ".txt", "ab|txt|ab.txt"},
      {b300 + ".x.y", "|| !"},  // a dot after the full base opens the extension
      {b300 + ":", "|| !"},     // dropped characters are still checked
      {".profile", "|| !"}, {"a.b.c/", "|| !"}, {"", "|| !"},
      {"x.con", "x|con|x.con"},  // only the base is checked for device names
      {"COM1.txt", "COM1|txt|COM1.txt"}, {"Con", "Con||Con"}, {"com5", "com5||com5"}, {"console", "console||console"},
  };
  for (const auto& [text, want] : cases) EXPECT_EQ(parts(filename(text.c_str())), want) << text.substr(0, 40);
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
    const char middle[] = {'a', static_cast<char>(c), 'b', '\0'};
    const bool expected = c == '.' || c >= 0x80 || legal.find(static_cast<char>(c)) != std::string::npos;
    EXPECT_EQ(filename(middle).is_valid(), expected) << "byte " << c;
  }
}

TEST(FileNameEdit, FailureResetsEverythingAndPartsRecompose) {
  filename f("good.txt");
  f << "nul.txt";
  EXPECT_TRUE(!f.has_dot() && *f.postfix() == '\0') << "a reserved base leaves no extension behind";
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
  EXPECT_TRUE(!f.is_valid() && text_of(f).empty()) << "an empty base";
  f.prefix(f.postfix());
  EXPECT_EQ(text_of(f), "x.x") << "a part may be set from the name itself";
}

TEST(FileNameSerial, NumberedExtensionsAdvanceAndTimeStampsCountWithinAMinute) {
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
  // Time-stamped names count up within a minute.
  file_timestamp t;
  t.date = static_cast<uint16_t>(((2024 - 1980) << 9) | (3 << 5) | 7);
  t.time = static_cast<uint16_t>((9 << 11) | (5 << 5) | 10);
  filename f;
  EXPECT_EQ(text_of(f << t), "03070905.001");
  EXPECT_EQ(text_of(f << t), "03070905.002");
  f.postfix("999");
  EXPECT_EQ(text_of(f << t), "03070905.1000") << "no range check here";
  t.time = static_cast<uint16_t>((23 << 11) | (59 << 5));
  EXPECT_EQ(text_of(f << t), "03072359.001");
}

// ---------------------------------------------------------------------------
// wild_match

TEST(WildMatch, FixedWidthTemplates) {
  char field[8];
  std::memset(field, 'X', sizeof field);
  for (const auto& [text, want] : {std::pair{"ab", std::string("ab\0\0\0\0", 6)}, {"abcdefgh", std::string("abcde\0", 6)},
                                   {"a*c", std::string("a????\0", 6)}}) {
    wild_match::expand(field, text, 5);
    EXPECT_EQ(std::string(field, 6), want) << text;
  }
  EXPECT_EQ(field[6], 'X') << "nothing written past width + 1";
}

TEST(WildMatch, MatchesLikeTheClassicFileControlBlock) {
  const struct { const char* name; const char* pattern; bool match; } cases[] = {
      {"a", "*.*", true}, {"a.b.c", "*.*", true}, {"z.", "*.*", true}, {"ABC", "a?c", true}, {"ac", "a?c", false},
      {"a", "a?", true},  // ? matches a missing character
      {"abc", "ab", false}, {"abc.txt", "*", false}, {"abc", "*", true},
      {"abXYZ.txt", "ab*cd.t*", true},  // characters after * are ignored
      {"abc.txt", "*.doc", false}, {"NOTES.TXT", "*.txt", true}, {"*.txt", "notes.txt", true},
      {"data.txt", "data.txt?", true},
  };
  for (const auto& c : cases)
    EXPECT_EQ(filename(c.name).match(wild_match(filename(c.pattern))), c.match) << c.name << " " << c.pattern;
}

TEST(WildMatch, FillTakesWildcardsFromTheSource) {
  const char* cases[][3] = {{"*.bak", "data.txt", "data.bak"}, {"a?c.*", "xyz.doc", "ayc.doc"},
                            {"*.*", "readme", "readme."},  // the pattern's dot stays
                            {"new?", "ab", "new"}};        // a missing source character ends the base
  for (const auto& c : cases) {
    filename f(c[0]);
    f.wild_fill(filename(c[1]));
    EXPECT_EQ(text_of(f), c[2]) << c[0];
  }
  EXPECT_TRUE(filename("*.bak").is_wild() && !filename("plain.bak").is_wild());
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
      {"\\\\server\\\\share", ""}, {"\\\\", ""}, {"\\\\srv\\..", ""}, {"\\\\srv\\..\\other", ""}, {nullptr, ""},
  };
  for (const auto& [in, out] : cases) {
    dirname d("c:\\ok");
    d << in;
    EXPECT_EQ(d.is_valid(), *out != '\0') << (in ? in : "null");
    EXPECT_EQ(text_of(d), out) << (in ? in : "null");
  }
}

TEST(DirNameParse, RelativeTextResolvesAgainstTheObjectOrTheStartDirectory) {
  kvtest::CwdScope scope;
  // Each step applies to the directory the previous one left ("" when it becomes invalid).
  const std::pair<const char*, const char*> steps[] = {
      {"c:\\", "c:\\"}, {"a", "c:\\a"}, {"sub", "c:\\a\\sub"}, {"..", "c:\\a"}, {"\\y\\z", "c:\\y\\z"},  // rooted text keeps the drive
      {"\\\\srv\\share", "\\\\srv\\share"},  // a network path replaces the directory
      {"\\top", "\\\\srv\\share\\top"}, {"..\\x", "\\\\srv\\share\\x"}, {"..\\..", "\\\\srv"},
      {"..", ""},  // climbing above the server
      {"d:\\q\\r", "d:\\q\\r"}, {"..\\..\\..", ""},  // climbing above the root
  };
  dirname d;
  for (const auto& [text, result] : steps) EXPECT_EQ(text_of(d << text), result) << text;

  // Fresh objects: from the start directory (or none), then from a drive's working directory.
  CWD::Start(dirname("e:\\start\\here"));
  CWD::Set(getcwd('c'));
  const std::string base = *CWD::Get('c');
  const std::pair<const char*, std::string> fresh[] = {
      {"rel\\dir", "e:\\start\\here\\rel\\dir"}, {"\\top", "e:\\top"}, {"..", "e:\\start"},
      {"c:sub", base + "\\sub"}, {"C:", base}};
  for (const auto& [text, result] : fresh) EXPECT_EQ(text_of(dirname(text)), result) << text;
  CWD::Start(dirname());
  EXPECT_FALSE(dirname("rel").is_valid()) << "no start directory";
  EXPECT_FALSE(dirname("\\top").is_valid());
  CWD::Set(dirname("c:\\"));
  EXPECT_EQ(text_of(dirname("c:data")), "c:\\\\data") << "a root start keeps its separator";
  EXPECT_EQ(text_of(dirname("c:..")), "c:\\") << "climbing from the root start stays at the root";
  EXPECT_EQ(text_of(dirname("!:x")), "!:\\\\x") << "the capture drive's directory is !:\\";
}

TEST(DirNameParse, LengthLimitStopsTheWalk) {
  const std::string base = "c:\\" + std::string(249, 'a');
  dirname d(base.c_str());
  EXPECT_EQ(std::strlen(*(d << "bcd")), 256u) << "exactly 256 characters";
  d << "..";
  d << "bcdefgh";
  EXPECT_FALSE(d.is_valid());
  EXPECT_EQ(text_of(d), base) << "the text built so far remains";
  // Longer text is taken up to its 256th character.
  EXPECT_EQ(std::strlen(*dirname(("c:\\" + std::string(300, 'z')).c_str())), 256u);
  EXPECT_EQ(std::strlen(*dirname(("\\\\" + std::string(254, 'n')).c_str())), 256u);
}

TEST(DirNameQuery, DriveRootLastSubdirectoriesAndComparison) {
  const dirname d("X:\\Data\\Sub");
  EXPECT_EQ(d.drive(), 'x');
  EXPECT_FALSE(d.is_root());
  EXPECT_EQ(std::string(d.get_last()) + "|" + dirname("c:\\").get_last(), "Sub|");
  EXPECT_TRUE(!dirname("!:\\").is_dos() && dirname("\\\\srv\\x").is_dos());
  EXPECT_EQ(dirname("\\\\srv\\x").drive(), 0);
  const struct { const char* child; const char* parent; bool below; } subdirs[] = {
      {"c:\\data\\x", "c:\\data", true}, {"c:\\data", "c:\\data", true},  // a directory is below itself
      {"c:\\database", "c:\\data", false}, {"c:\\data", "c:\\", false},  // nothing is below a root
      {"c:\\", "c:\\", true}, {"c:\\data", "bad|", false},               // an invalid parent
      {"c:\\Data\\x", "c:\\data", false}};                               // case counts
  for (const auto& s : subdirs) EXPECT_EQ(dirname(s.child).is_subdir_of(dirname(s.parent)), s.below) << s.child;
  // Equality is exact, and invalid names are equal to each other.
  const std::pair<bool, bool> equal[] = {
      {filename("A.txt") == filename("A.txt"), true}, {filename("A.txt") != filename("a.txt"), true},
      {filename("bad:") == filename("con"), true}, {filename("a") == filename(), false},
      {dirname("C:\\x") == dirname("c:\\x"), true}, {dirname("c:\\X") != dirname("c:\\x"), true},
      {dirname("c:\\..") == dirname("bad|"), true}, {dirname("c:\\") == dirname(), false}};
  for (size_t i = 0; i < std::size(equal); ++i) EXPECT_EQ(equal[i].first, equal[i].second) << "row " << i;
  EXPECT_EQ(text_of(dirname(pathname("c:\\a\\b.txt"))), "c:\\a\\b.txt") << "the file becomes a component";
}

// ---------------------------------------------------------------------------
// pathname

TEST(PathNameParse, SplitsDirectoryAndFile) {
  // "directory|file|path", or "!" and the path's text when it is invalid.
  const auto parts = [](const pathname& p) {
    return p.is_valid() ? std::string(*p.dir()) + "|" + *p.file() + "|" + *p + (p.is_root() ? " root" : "") : "!" + std::string(*p);
  };
  const std::pair<const char*, const char*> cases[] = {
      {"c:\\a\\b.txt", "c:\\a|b.txt|c:\\a\\b.txt"}, {"c:\\a\\", "c:\\|a|c:\\a"}, {"c:\\", "c:\\||c:\\ root"},
      {"\\\\server\\share\\f.txt", "\\\\server\\share|f.txt|\\\\server\\share\\f.txt"},
      {"   c:\\x\\y z.txt  ", "c:\\x|y z.txt|c:\\x\\y z.txt"}, {"c:\\a\\\\b.txt", "!"}, {"c:\\..\\f", "!"},
      {"c:\\a\\com1", "!"}, {"", "!"}, {"c:\\<x>", "!"}, {nullptr, "!"},
  };
  for (const auto& [text, want] : cases) EXPECT_EQ(parts(pathname(text)), want) << (text ? text : "null");
}

TEST(PathNameParse, RelativeTextResolvesAgainstTheWholePath) {
  pathname p("c:\\a\\b.txt");
  // Each step applies to the path the previous one left.
  const std::pair<const char*, const char*> steps[] = {
      {"c.txt", "c:\\a\\b.txt\\c.txt"}, {"..\\..\\d.txt", "c:\\a\\d.txt"},
      {"\\\\srv\\share\\x.txt", "\\\\srv\\share\\x.txt"}, {"e:\\other\\f", "e:\\other\\f"},  // absolute text replaces
      {"\\g", "e:\\g"}};
  for (const auto& [text, want] : steps) EXPECT_EQ(text_of(p << text), want) << text;

  // A path too long to become a directory cannot resolve relative text.
  pathname longPath(dirname(("c:\\" + std::string(197, 'd')).c_str()), filename(std::string(59, 'f').c_str()));
  ASSERT_TRUE(longPath.is_valid());
  EXPECT_FALSE((longPath << "x").is_valid());
}

TEST(PathNameCompose, LimitOf260Characters) {
  const dirname dir(("c:\\" + std::string(196, 'd')).c_str());  // 199 characters
  EXPECT_EQ(std::strlen(*pathname(dir, filename(std::string(60, 'f').c_str()))), 260u);
  const pathname over(dir, filename(std::string(61, 'f').c_str()));
  EXPECT_TRUE(!over.is_valid() && text_of(over).empty());
  EXPECT_EQ(text_of(over.dir()), text_of(dir)) << "both parts stay as given";
  EXPECT_EQ(std::strlen(*over.file()), 61u);
}

TEST(PathNameCompose, PartsReplaceAndRecompose) {
  pathname p{filename("x.txt")};
  EXPECT_FALSE(p.is_valid()) << "no directory yet";
  EXPECT_EQ(text_of(p << dirname("c:\\d")), "c:\\d\\x.txt");
  EXPECT_EQ(text_of(p << filename("bad:")), "c:\\d") << "an invalid file names the directory alone";
  EXPECT_EQ(text_of(pathname(dirname("c:\\"), filename("r"))), "c:\\r");
  EXPECT_TRUE(pathname(dirname("c:\\")).is_root());

  pathname n("c:\\logs\\run.007");
  EXPECT_EQ(text_of(++n), "c:\\logs\\run.008");
  n.postfix("txt");
  n.prefix("walk");
  EXPECT_EQ(text_of(n), "c:\\logs\\walk.txt");
  pathname w("c:\\logs\\*.bak");
  EXPECT_TRUE(w.is_wild());
  w.wild_fill(filename("run.txt"));
  EXPECT_EQ(text_of(w), "c:\\logs\\run.bak");
  EXPECT_EQ(text_of(++n), "c:\\logs") << "a failed advance leaves the directory";
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
  EXPECT_STREQ(*FileName(nullptr), "");
  EXPECT_STREQ(InvalidFileName(), "????????.???");
  EXPECT_FALSE(filename(InvalidFileName()).match(wild_match(filename("abcdefghi.txt"))));
  EXPECT_TRUE(filename(InvalidFileName()).match(wild_match(filename("report.txt"))));
}
