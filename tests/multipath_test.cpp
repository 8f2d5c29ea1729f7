// Path lists: FileNameList, FileNameIter, MultiPath, MultiPathIter and the
// substitution of the capture directory into a MultiPath.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FILENAME.h"
#include "heap.h"
#include "test_support.h"

namespace {

using Names = std::vector<std::string>;

std::string text_of(const dirname& d) { return *d; }
std::string text_of(const pathname& p) { return *p; }

// Every path a walk yields, front to back.
Names walk(MultiPath& m) {
  Names out;
  for (MultiPathIter it(m); ++it;) out.push_back(**it);
  return out;
}

Names names_of(const FileNameList& l) {
  Names out;
  for (int i = 0; i < l.Count(); ++i) out.push_back(*l.Get(i));
  return out;
}

}  // namespace

TEST(MultiPathParse, TextGivesADirectoryAndAtMostOneName) {
  struct Case {
    const char* text;
    const char* dir;
    int count;
    const char* single;
    bool wild, isSingle, root;
  };
  const Case cases[] = {
      {"c:\\data\\*.txt", "c:\\data", 1, "c:\\data\\*.txt", true, false, false},
      {"  C:\\Data\\..\\Logs\\Run.LOG  ", "c:\\Logs", 1, "c:\\Logs\\Run.LOG", false, true, false},
      {"\\\\server\\share\\f?.txt", "\\\\server\\share", 1, "\\\\server\\share\\f?.txt", true, false, false},
      {"c:\\a\\", "c:\\", 1, "c:\\a", false, true, false},  // a trailing separator: the last component is the name
      {"c:\\", "c:\\", 0, "c:\\", false, true, true},       // a directory without names is not valid
      {"c:\\a\\\\b", "", 0, "", false, true, false},
      {"c:\\tmp\\com1.txt", "", 0, "", false, true, false},
      {"", "", 0, "", false, true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    MultiPath m(c.text);
    EXPECT_EQ(text_of(m.dir()), c.dir);
    EXPECT_EQ(m.Count(), c.count);
    EXPECT_EQ(m.is_valid(), c.count > 0);
    EXPECT_EQ(text_of(m.SinglePath()), c.single);
    EXPECT_EQ(m.is_wild(), c.wild);
    EXPECT_EQ(m.is_single(), c.isSingle);
    EXPECT_EQ(m.is_root(), c.root);
  }
  MultiPath m("c:\\data\\*.txt");
  EXPECT_STREQ(static_cast<char*>(m), "c:\\data\\*.txt");
  const dirname asDirectory = m;
  EXPECT_EQ(text_of(asDirectory), "c:\\data\\*.txt") << "the single path's text as a directory";
  const pathname asPath = m;
  EXPECT_EQ(text_of(asPath), "c:\\data\\*.txt");
  EXPECT_FALSE(MultiPath(static_cast<const char*>(nullptr)).is_valid());

  const MultiPath fromPath(pathname("c:\\data\\x.txt"));
  const MultiPath fromParts(dirname("c:\\data"), filename("x.txt"));
  for (const MultiPath* p : {&fromPath, &fromParts}) EXPECT_EQ(walk(const_cast<MultiPath&>(*p)), Names{"c:\\data\\x.txt"});
  EXPECT_EQ(MultiPath(dirname("c:\\data"), filename("con")).Count(), 0) << "an invalid name is not listed";
}

class MultiPathList : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* n : {"b.txt", "a.log", "b.txt", "C.DAT"}) m.Add(n);
  }
  MultiPath m{dirname("c:\\data")};
};

TEST_F(MultiPathList, NamesKeepTheirOrderAndDuplicatesAndCompareExactly) {
  EXPECT_EQ(names_of(m.FileList()), (Names{"b.txt", "a.log", "b.txt", "C.DAT"}));
  EXPECT_EQ(text_of(m.SinglePath()), "c:\\data\\C.DAT") << "the latest name";
  EXPECT_EQ(text_of(m.Get(3)), "c:\\data\\C.DAT");
  EXPECT_TRUE(m.is_wild()) << "several names are wild without wildcards";
  EXPECT_FALSE(m.Get(4).dir().is_valid()) << "no such position gives a fully reset path";
  EXPECT_FALSE(m.Get(-1).is_valid());

  EXPECT_EQ(m.Index(filename("b.txt")), 0) << "the first of two equal names";
  EXPECT_EQ(m.Index(filename("c.dat")), -1) << "names compare with their case";
  EXPECT_EQ(m.Index(filename("*.txt")), -1) << "lookups take no wildcards";
  EXPECT_EQ(m.Index(pathname("c:\\data\\a.log")), 1);
  EXPECT_EQ(m.Index(pathname("c:\\Data\\a.log")), -1);
  EXPECT_EQ(text_of(m.Find(filename("a.log"))), "c:\\data\\a.log");
  EXPECT_FALSE(m.Find(filename("A.LOG")).is_valid());
  EXPECT_EQ(text_of(m.Find(pathname("c:\\data\\C.DAT"))), "c:\\data\\C.DAT");
  EXPECT_FALSE(m.Find(pathname("c:\\other\\C.DAT")).is_valid());
  const FileNameElt* e = m.FileList().Find(filename("a.log"));
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(m.FileList().Index(e), 1);
  EXPECT_EQ(m.FileList().Index(filename()), -1) << "no invalid name is listed";

  EXPECT_TRUE(m.match(pathname("c:\\data\\c.dat")));
  EXPECT_FALSE(m.match(pathname("c:\\data\\d.txt")));
  EXPECT_FALSE(m.match(pathname("c:\\Data\\a.log"))) << "directories compare exactly";
  EXPECT_FALSE(m.match(pathname()));
  MultiPath dirOnly(dirname("c:\\logs"));
  EXPECT_TRUE(dirOnly.match(pathname(dirname("c:\\logs")))) << "the directory itself is walked";
  EXPECT_FALSE(dirOnly.match(pathname("c:\\logs\\x")));
}

TEST_F(MultiPathList, RemovingClearingAndMovingTheDirectory) {
  m.Remove(filename("b.txt"));
  EXPECT_EQ(names_of(m.FileList()), (Names{"a.log", "b.txt", "C.DAT"})) << "only the first equal name goes";
  EXPECT_FALSE(m.FileList().Remove(filename("nothing")));
  EXPECT_TRUE(m.FileList().Remove("a.log"));
  m.Remove(filename("C.DAT"));
  EXPECT_EQ(text_of(m.SinglePath()), "c:\\data\\C.DAT") << "the single path changes only when the list empties";
  m.Remove(filename("b.txt"));
  EXPECT_FALSE(m.is_valid());
  EXPECT_EQ(text_of(m.SinglePath()), "c:\\data") << "the directory alone";
  m.Add("x");
  m.Add("y");
  m.dir(dirname("d:\\new"));
  EXPECT_EQ(walk(m), (Names{"d:\\new\\x", "d:\\new\\y"}));
  EXPECT_EQ(text_of(m.SinglePath()), "d:\\new\\y");
  m << dirname();
  EXPECT_FALSE(m.is_valid()) << "names without a directory";
  EXPECT_FALSE(m.SinglePath().is_valid());
  m << dirname("e:\\");
  m.Clear();
  EXPECT_EQ(m.Count(), 0);
  EXPECT_EQ(text_of(m.SinglePath()), "e:\\");
  EXPECT_FALSE(m.is_wild());
}

TEST(MultiPathCopies, CopiesAreIndependentAndLiveInTheHeapOfTheirList) {
  heapman_mgr::initialize();
  MultiPath original("c:\\data\\a.txt");
  original.Add("b.txt");
  MultiPath copy(original);
  copy.Add("c.txt");
  copy.Remove(filename("a.txt"));
  EXPECT_EQ(names_of(original.FileList()), (Names{"a.txt", "b.txt"}));
  EXPECT_EQ(names_of(copy.FileList()), (Names{"b.txt", "c.txt"}));
  MultiPath assigned("e:\\x\\old.txt");
  assigned = original;
  assigned.FileList().First()->name << "changed.txt";
  EXPECT_EQ(walk(assigned), (Names{"c:\\data\\changed.txt", "c:\\data\\b.txt"}));
  EXPECT_EQ(names_of(original.FileList()), (Names{"a.txt", "b.txt"}));
  const MultiPath& self = assigned;
  assigned = self;
  EXPECT_EQ(assigned.Count(), 2) << "self-assignment keeps the names";
  FileNameList list, third;
  list.Add("one");
  third.Add("gone");
  third = list;
  FileNameList other(third);
  other.Remove("one");
  EXPECT_EQ(names_of(third), (Names{"one"}));
  const FileNameList& same = third;
  third = same;
  EXPECT_EQ(names_of(third), (Names{"one"}));

  heap named("pathlists");
  auto* placed = new (&named, "tests/multipath", __LINE__) FileNameList;
  placed->Add("b.txt");
  EXPECT_EQ(heapman_mgr::find(placed->First()), &named);
  *placed = list;
  EXPECT_EQ(heapman_mgr::find(placed->First()), &named) << "copies go to the heap of the destination";
  EXPECT_EQ(std::string(reinterpret_cast<const heap_record*>(list.First())[-1].file), "System/FILENAME");
  DLlistElt* dup = placed->DupTree(&named);
  auto* dupList = dynamic_cast<FileNameList*>(dup);
  ASSERT_NE(dupList, nullptr) << "DupTree keeps the list's type";
  EXPECT_EQ(names_of(*dupList), (Names{"one"}));
  EXPECT_EQ(heapman_mgr::find(dupList->First()), &named);
  delete dup;
  delete placed;
}

TEST(MultiPathIterate, StepsBothWaysAndWithoutNamesYieldsTheDirectoryOnce) {
  MultiPath m(dirname("c:\\data"));
  EXPECT_EQ(walk(m), (Names{"c:\\data"}));
  MultiPathIter back(m);
  back.Bottom();
  EXPECT_TRUE(!--back) << "backwards there is nothing to yield";
  for (const char* n : {"b.txt", "*.log", "a"}) m.Add(n);
  MultiPathIter it(m);
  EXPECT_TRUE(it.BOL() && !it);
  EXPECT_EQ(it.Count(), 3);
  ++it;
  ++it;
  EXPECT_EQ(it.Index(), 1);
  MultiPathIter copy(it);  // continues from the same place, on its own
  ++it;
  ++it;
  EXPECT_TRUE(it.EOL() && !it);
  EXPECT_FALSE(it->is_valid());
  ++copy;
  EXPECT_EQ(text_of(*copy), "c:\\data\\a");
  it.Bottom();
  Names backwards;
  while (--it) backwards.push_back(**it);
  EXPECT_EQ(backwards, (Names{"c:\\data\\a", "c:\\data\\*.log", "c:\\data\\b.txt"}));
  ++it;
  it.Top();
  EXPECT_TRUE(it.BOL() && !it) << "Top leaves no current path";
  MultiPathIter assigned;
  EXPECT_TRUE(!++assigned) << "an iterator without a MultiPath yields nothing";
  assigned = copy;
  EXPECT_EQ(text_of(*assigned), "c:\\data\\a");
  MultiPath nothing;
  EXPECT_TRUE(walk(nothing).empty()) << "no directory, no path";
}

TEST(MultiPathIterate, RebindingLookupAndOwnerLifetime) {
  MultiPath first("c:\\one\\a.txt");
  MultiPath second(dirname("d:\\two"));
  second.Add("x");
  second.Add("y");
  MultiPathIter it(first);
  ++it;
  it.Use(second);
  EXPECT_TRUE(!it) << "rebinding starts over";
  ++it;
  EXPECT_EQ(text_of(it.Find(filename("y"))), "d:\\two\\y");
  EXPECT_EQ(text_of(*it), "d:\\two\\x") << "a lookup does not move the iterator";
  EXPECT_FALSE(it.Find(filename("a.txt")).is_valid());
  EXPECT_EQ(text_of(it.Find(pathname("d:\\two\\x"))), "d:\\two\\x");
  EXPECT_FALSE(it.Find(pathname("c:\\one\\x")).is_valid());
  auto* gone = new MultiPath("c:\\tmp\\z.txt");
  it.Use(*gone);
  ++it;
  delete gone;
  ++it;
  EXPECT_TRUE(!it) << "a destroyed MultiPath yields nothing more";
  EXPECT_FALSE(it.Find(filename("z.txt")).is_valid());
  EXPECT_EQ(it.Count(), 0);
}

TEST(FileNameIterate, FindStepsThroughEqualNames) {
  FileNameList l;
  for (const char* n : {"a", "b", "a", "c"}) l.Add(n);
  FileNameIter it(l);
  FileNameElt* found = it.Find("a", true);
  EXPECT_EQ(it.Index(), 0);
  EXPECT_EQ(it.Current(), found);
  EXPECT_NE(it.Find("a", false), found) << "a further Find continues after the current name";
  EXPECT_EQ(it.Index(), 2);
  EXPECT_EQ(it.Find("a", false), nullptr);
  EXPECT_TRUE(it.EOL());
  EXPECT_NE(it.Find("a", true), nullptr) << "from the top again";
  EXPECT_EQ(it.Find("A", true), nullptr);
  it.Top();
  (*it) << "scribble";
  EXPECT_FALSE(it->is_valid()) << "what was written without a current name does not stick";
  ++it;
  ++it;
  *it << "B.TXT";
  EXPECT_EQ(names_of(l), (Names{"a", "B.TXT", "a", "c"})) << "names change in place";
  FileNameIter copy(it);
  EXPECT_STREQ(**copy, "B.TXT");
  const FileNameList& constant = l;
  FileNameIter reader(constant);
  ++reader;
  reader.UseList(l);
  --reader;
  EXPECT_TRUE(reader.BOL());
}

TEST(MultiPathCapture, PseudoDriveBecomesTheCaptureDirectory) {
  kvtest::TempDir tmp;
  CWD::CaptureDir(dirname(kvtest::dos_path(tmp.path()).c_str()));
  ASSERT_TRUE(CWD::HasCaptureDirectory());
  const std::string capture = *CWD::CaptureDir();
  MultiPath m("!:\\sub\\*.dat");
  m.Add("run1.dat");
  CWD::do_subst(m);
  EXPECT_EQ(walk(m), (Names{capture + "\\*.dat", capture + "\\run1.dat"})) << "the whole directory is replaced";
  MultiPath other("c:\\data\\x.dat");
  CWD::do_subst(other);
  EXPECT_EQ(text_of(other.dir()), "c:\\data");
  MultiPath bare(dirname("!:\\"));
  CWD::do_subst(bare);
  EXPECT_EQ(text_of(bare.dir()), "!:\\") << "a MultiPath without names is not valid and stays";
  CWD::CaptureDir(dirname());
  MultiPath untouched("!:\\*.dat");
  CWD::do_subst(untouched);
  EXPECT_EQ(text_of(untouched.dir()), "!:\\") << "without a capture directory";
}
