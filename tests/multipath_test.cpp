// Path lists: FileNameList, FileNameIter, MultiPath, MultiPathIter and the
// substitution of the capture directory into a MultiPath.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "FILENAME.h"
#include "heap.h"
#include "test_support.h"

namespace {

std::string text_of(const dirname& d) { return *d; }
std::string text_of(const pathname& p) { return *p; }
std::string text_of(const filename& f) { return *f; }

// Every path a walk yields, front to back.
std::vector<std::string> walk(MultiPath& m) {
  std::vector<std::string> out;
  for (MultiPathIter it(m); ++it;) out.push_back(**it);
  return out;
}

std::vector<std::string> names_of(const FileNameList& l) {
  std::vector<std::string> out;
  for (int i = 0; i < l.Count(); ++i) out.push_back(*l.Get(i));
  return out;
}

// The source tag of a block of a record-keeping heap.
std::string creator_of(const void* block) {
  const auto* record = reinterpret_cast<const heap_record*>(block) - 1;
  return record->file != nullptr ? record->file : "";
}

using Names = std::vector<std::string>;

}  // namespace

// ---------------------------------------------------------------------------
// Construction from a path

TEST(MultiPathParse, WildcardPathGivesDirectoryAndOnePattern) {
  MultiPath m("c:\\data\\*.txt");
  ASSERT_TRUE(m.is_valid());
  EXPECT_EQ(text_of(m.dir()), "c:\\data");
  EXPECT_EQ(m.Count(), 1);
  EXPECT_EQ(text_of(m.FileList().Get(0)), "*.txt");
  EXPECT_TRUE(m.is_wild());
  EXPECT_FALSE(m.is_single());
  EXPECT_FALSE(m.is_root());
  EXPECT_EQ(m.drive(), 'c');
  EXPECT_TRUE(m.is_dos());
  EXPECT_EQ(text_of(m.SinglePath()), "c:\\data\\*.txt");
  EXPECT_STREQ(static_cast<char*>(m), "c:\\data\\*.txt");
  const dirname asDirectory = m;
  EXPECT_EQ(text_of(asDirectory), "c:\\data\\*.txt") << "the single path's text as a directory";
  const pathname asPath = m;
  EXPECT_EQ(text_of(asPath.file()), "*.txt");

  EXPECT_TRUE(m.match(pathname("c:\\data\\NOTES.TXT")));
  EXPECT_TRUE(m.match(pathname("c:\\data\\a.txt")));
  EXPECT_FALSE(m.match(pathname("c:\\data\\sub\\a.txt"))) << "another directory";
  EXPECT_FALSE(m.match(pathname("c:\\Data\\a.txt"))) << "directories compare exactly";
  EXPECT_FALSE(m.match(pathname("c:\\data\\a.log")));
  EXPECT_FALSE(m.match(pathname())) << "an invalid path matches nothing";
}

TEST(MultiPathParse, TextIsNormalisedAsAPath) {
  MultiPath m("  C:\\Data\\..\\Logs\\Run.LOG  ");
  ASSERT_TRUE(m.is_valid());
  EXPECT_EQ(text_of(m.dir()), "c:\\Logs");
  EXPECT_EQ(m.Count(), 1);
  EXPECT_TRUE(m.is_single()) << "one name without wildcards";
  EXPECT_EQ(text_of(m.SinglePath()), "c:\\Logs\\Run.LOG");

  MultiPath share("\\\\server\\share\\f?.txt");
  ASSERT_TRUE(share.is_valid());
  EXPECT_EQ(text_of(share.dir()), "\\\\server\\share");
  EXPECT_EQ(share.drive(), 0);
  EXPECT_TRUE(share.is_wild());

  MultiPath pseudo("!:\\run\\*.dat");
  ASSERT_TRUE(pseudo.is_valid());
  EXPECT_EQ(pseudo.drive(), '!');
  EXPECT_FALSE(pseudo.is_dos());
}

TEST(MultiPathParse, PathsWithoutANameGiveNone) {
  MultiPath root("c:\\");
  EXPECT_EQ(text_of(root.dir()), "c:\\");
  EXPECT_EQ(root.Count(), 0);
  EXPECT_TRUE(root.is_root());
  EXPECT_FALSE(root.is_valid()) << "a directory without names";
  EXPECT_FALSE(root.is_wild());
  EXPECT_TRUE(root.is_single());
  EXPECT_EQ(text_of(root.SinglePath()), "c:\\");

  for (const char* bad : {"c:\\a\\\\b", "c:\\tmp\\com1.txt", "c:\\..", ""}) {
    MultiPath m(bad);
    EXPECT_FALSE(m.is_valid()) << bad;
    EXPECT_TRUE(!m) << bad;
    EXPECT_EQ(m.Count(), 0) << bad;
  }
  MultiPath none(static_cast<const char*>(nullptr));
  EXPECT_FALSE(none.is_valid());
  EXPECT_FALSE(MultiPath().is_valid());
  EXPECT_FALSE(MultiPath().dir().is_valid());

  // A trailing separator makes the last component the name.
  MultiPath trailing("c:\\a\\");
  EXPECT_EQ(text_of(trailing.dir()), "c:\\");
  EXPECT_EQ(text_of(trailing.FileList().Get(0)), "a");
}

TEST(MultiPathParse, ConstructorsFromPartsAgreeWithText) {
  const MultiPath fromText("c:\\data\\x.txt");
  const MultiPath fromPath(pathname("c:\\data\\x.txt"));
  const MultiPath fromParts(dirname("c:\\data"), filename("x.txt"));
  for (const MultiPath* m : {&fromText, &fromPath, &fromParts}) {
    EXPECT_EQ(text_of(m->dir()), "c:\\data");
    EXPECT_EQ(m->Count(), 1);
    EXPECT_EQ(text_of(m->SinglePath()), "c:\\data\\x.txt");
  }
  const MultiPath dirOnly(dirname("c:\\data"));
  EXPECT_EQ(dirOnly.Count(), 0);
  EXPECT_EQ(text_of(dirOnly.SinglePath()), "c:\\data");
  const MultiPath badName(dirname("c:\\data"), filename("con"));
  EXPECT_EQ(badName.Count(), 0) << "an invalid name is not listed";
  EXPECT_FALSE(MultiPath(dirname("c:\\a\\\\b"), filename("x")).is_valid());
}

// ---------------------------------------------------------------------------
// The list of names

class MultiPathList : public ::testing::Test {
 protected:
  void SetUp() override {
    m.Add("b.txt");
    m.Add("a.log");
    m.Add("b.txt");
    m.Add("C.DAT");
  }
  MultiPath m{dirname("c:\\data")};
};

TEST_F(MultiPathList, NamesKeepTheirOrderAndDuplicates) {
  EXPECT_EQ(m.Count(), 4);
  EXPECT_EQ(names_of(m.FileList()), (Names{"b.txt", "a.log", "b.txt", "C.DAT"}));
  EXPECT_EQ(text_of(m.SinglePath()), "c:\\data\\C.DAT") << "the latest name";
  EXPECT_EQ(text_of(m.Get(0)), "c:\\data\\b.txt");
  EXPECT_EQ(text_of(m.Get(3)), "c:\\data\\C.DAT");
  EXPECT_TRUE(m.is_wild()) << "several names are wild without wildcards";
  EXPECT_FALSE(m.is_single());

  const pathname beyond = m.Get(4);
  EXPECT_FALSE(beyond.is_valid());
  EXPECT_FALSE(beyond.dir().is_valid()) << "no such position gives a fully reset path";
  EXPECT_FALSE(m.Get(-1).is_valid());
  EXPECT_FALSE(m.FileList().Get(9).is_valid());
}

TEST_F(MultiPathList, LookupsCompareNamesExactlyAndDirectoriesExactly) {
  EXPECT_EQ(m.Index(filename("b.txt")), 0) << "the first of two equal names";
  EXPECT_EQ(m.Index(filename("a.log")), 1);
  EXPECT_EQ(m.Index(filename("C.DAT")), 3);
  EXPECT_EQ(m.Index(filename("c.dat")), -1) << "names compare with their case";
  EXPECT_EQ(m.Index(filename("*.txt")), -1) << "lookups take no wildcards";
  EXPECT_EQ(m.Index(pathname("c:\\data\\a.log")), 1);
  EXPECT_EQ(m.Index(pathname("c:\\other\\a.log")), -1);
  EXPECT_EQ(m.Index(pathname("c:\\Data\\a.log")), -1);

  EXPECT_EQ(text_of(m.Find(filename("a.log"))), "c:\\data\\a.log");
  EXPECT_FALSE(m.Find(filename("A.LOG")).is_valid());
  EXPECT_EQ(text_of(m.Find(pathname("c:\\data\\C.DAT"))), "c:\\data\\C.DAT");
  EXPECT_FALSE(m.Find(pathname("c:\\other\\C.DAT")).is_valid());
  EXPECT_FALSE(m.Find(pathname("c:\\data\\missing")).is_valid());

  const FileNameElt* e = m.FileList().Find(filename("a.log"));
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(text_of(e->name), "a.log");
  EXPECT_EQ(m.FileList().Index(e), 1);
  EXPECT_EQ(m.FileList().Find(filename("zz")), nullptr);
  EXPECT_EQ(m.FileList().Index(filename()), -1) << "no invalid name is listed";
}

TEST_F(MultiPathList, RemovingAndClearing) {
  m.Remove(filename("b.txt"));
  EXPECT_EQ(names_of(m.FileList()), (Names{"a.log", "b.txt", "C.DAT"})) << "only the first equal name goes";
  m.Remove(filename("nothing"));
  EXPECT_EQ(m.Count(), 3);
  EXPECT_FALSE(m.FileList().Remove(filename("nothing")));
  EXPECT_TRUE(m.FileList().Remove("a.log"));
  EXPECT_EQ(names_of(m.FileList()), (Names{"b.txt", "C.DAT"}));

  m.Remove(filename("C.DAT"));
  EXPECT_EQ(text_of(m.SinglePath()), "c:\\data\\C.DAT") << "the single path changes only when the list empties";
  m.Remove(filename("b.txt"));
  EXPECT_EQ(m.Count(), 0);
  EXPECT_FALSE(m.is_valid());
  EXPECT_TRUE(m.SinglePath().is_valid());
  EXPECT_EQ(text_of(m.SinglePath()), "c:\\data") << "the directory alone";

  m.Add("x");
  EXPECT_TRUE(m.is_valid());
  m.Clear();
  EXPECT_EQ(m.Count(), 0);
  EXPECT_EQ(text_of(m.SinglePath()), "c:\\data");
  EXPECT_FALSE(m.is_wild());
}

TEST_F(MultiPathList, ChangingTheDirectoryMovesEveryName) {
  m.dir(dirname("d:\\new"));
  EXPECT_EQ(text_of(m.dir()), "d:\\new");
  EXPECT_EQ(text_of(m.SinglePath()), "d:\\new\\C.DAT");
  EXPECT_EQ(text_of(m.Get(1)), "d:\\new\\a.log");
  m << dirname("e:\\");
  EXPECT_EQ(text_of(m.Get(0)), "e:\\b.txt");
  EXPECT_EQ(m.drive(), 'e');
  EXPECT_FALSE(m.is_root()) << "a root with names";

  m << dirname();
  EXPECT_FALSE(m.is_valid()) << "names without a directory";
  EXPECT_FALSE(m.SinglePath().is_valid());
}

TEST_F(MultiPathList, MatchTriesEveryName) {
  EXPECT_TRUE(m.match(pathname("c:\\data\\c.dat")));
  EXPECT_TRUE(m.match(pathname("c:\\data\\A.LOG")));
  EXPECT_FALSE(m.match(pathname("c:\\data\\d.txt")));

  MultiPath patterns(dirname("c:\\logs"));
  patterns.Add("*.log");
  patterns.Add("run??.txt");
  EXPECT_TRUE(patterns.match(pathname("c:\\logs\\run07.txt")));
  EXPECT_TRUE(patterns.match(pathname("c:\\logs\\run7.txt"))) << "\"?\" also matches a missing character";
  EXPECT_FALSE(patterns.match(pathname("c:\\logs\\run007.txt")));
  EXPECT_FALSE(patterns.match(pathname("c:\\logs\\run07.dat")));

  MultiPath dirOnly(dirname("c:\\logs"));
  EXPECT_TRUE(dirOnly.match(pathname(dirname("c:\\logs")))) << "the directory itself is walked";
  EXPECT_FALSE(dirOnly.match(pathname("c:\\logs\\x")));
}

// ---------------------------------------------------------------------------
// Copies

TEST(MultiPathCopies, CopiesAreIndependent) {
  MultiPath original("c:\\data\\a.txt");
  original.Add("b.txt");

  MultiPath copy(original);
  copy.Add("c.txt");
  copy.Remove(filename("a.txt"));
  copy.dir(dirname("d:\\"));
  EXPECT_EQ(names_of(original.FileList()), (Names{"a.txt", "b.txt"}));
  EXPECT_EQ(names_of(copy.FileList()), (Names{"b.txt", "c.txt"}));
  EXPECT_EQ(text_of(original.SinglePath()), "c:\\data\\b.txt");
  EXPECT_EQ(text_of(copy.SinglePath()), "d:\\c.txt");
  EXPECT_NE(copy.FileList().First(), original.FileList().First());

  MultiPath assigned("e:\\x\\old.txt");
  assigned = original;
  EXPECT_EQ(text_of(assigned.dir()), "c:\\data");
  EXPECT_EQ(text_of(assigned.SinglePath()), "c:\\data\\b.txt");
  assigned.FileList().First()->name << "changed.txt";
  EXPECT_EQ(names_of(assigned.FileList()), (Names{"changed.txt", "b.txt"}));
  EXPECT_EQ(names_of(original.FileList()), (Names{"a.txt", "b.txt"}));

  const MultiPath& self = assigned;
  assigned = self;
  EXPECT_EQ(names_of(assigned.FileList()), (Names{"changed.txt", "b.txt"})) << "self-assignment keeps the names";

  FileNameList list;
  list.Add("one");
  list.Add("two");
  FileNameList other(list);
  FileNameList third;
  third.Add("gone");
  third = list;
  other.Remove("one");
  EXPECT_EQ(names_of(list), (Names{"one", "two"}));
  EXPECT_EQ(names_of(other), (Names{"two"}));
  EXPECT_EQ(names_of(third), (Names{"one", "two"}));
  const FileNameList& same = third;
  third = same;
  EXPECT_EQ(names_of(third), (Names{"one", "two"})) << "self-assignment keeps the names";
}

TEST(MultiPathCopies, NamesLiveInTheHeapOfTheirList) {
  heapman_mgr::initialize();
  heap named("pathlists");

  FileNameList onStack;
  onStack.Add("a.txt");
  EXPECT_EQ(heapman_mgr::find(onStack.First()), mainheap);
  EXPECT_EQ(creator_of(onStack.First()), "System/FILENAME");

  auto* placed = new (&named, "tests/multipath", __LINE__) FileNameList;
  placed->Add("b.txt");
  EXPECT_EQ(heapman_mgr::find(placed->First()), &named);
  *placed = onStack;
  EXPECT_EQ(heapman_mgr::find(placed->First()), &named) << "copies go to the heap of the destination";
  EXPECT_EQ(text_of(placed->First()->name), "a.txt");

  // A list of names duplicated as a tree stays a list of names.
  DLlistElt* dup = placed->DupTree(&named);
  auto* copy = dynamic_cast<FileNameList*>(dup);
  ASSERT_NE(copy, nullptr) << "DupTree keeps the list's type";
  EXPECT_EQ(names_of(*copy), (Names{"a.txt"}));
  EXPECT_NE(copy->First(), placed->First());
  EXPECT_EQ(heapman_mgr::find(copy->First()), &named);
  delete dup;
  delete placed;
}

// ---------------------------------------------------------------------------
// Walking

TEST(MultiPathIterate, YieldsOneFullPathPerNameInOrder) {
  MultiPath m(dirname("c:\\data"));
  m.Add("b.txt");
  m.Add("*.log");
  m.Add("a");
  EXPECT_EQ(walk(m), (Names{"c:\\data\\b.txt", "c:\\data\\*.log", "c:\\data\\a"}));

  MultiPathIter it(m);
  EXPECT_TRUE(it.BOL());
  EXPECT_FALSE(it);
  EXPECT_EQ(it.Count(), 3);
  ++it;
  EXPECT_EQ(it.Index(), 0);
  ++it;
  EXPECT_EQ(it.Index(), 1);
  EXPECT_EQ(text_of(*it), "c:\\data\\*.log");
  MultiPathIter copy(it);  // continues from the same place, on its own
  ++it;
  ++it;
  EXPECT_TRUE(it.EOL());
  EXPECT_TRUE(!it);
  EXPECT_FALSE(it->is_valid());
  ++it;
  EXPECT_TRUE(!it) << "stays at the end";
  ++copy;
  EXPECT_EQ(text_of(*copy), "c:\\data\\a");

  it.Bottom();
  EXPECT_TRUE(!it);
  Names backwards;
  while (--it) backwards.push_back(**it);
  EXPECT_EQ(backwards, (Names{"c:\\data\\a", "c:\\data\\*.log", "c:\\data\\b.txt"}));
  EXPECT_TRUE(it.BOL());

  ++it;
  it.Top();
  EXPECT_TRUE(it.BOL());
  EXPECT_TRUE(!it) << "Top leaves no current path";
  ++it;
  EXPECT_EQ(text_of(*it), "c:\\data\\b.txt");

  MultiPathIter assigned;
  EXPECT_TRUE(!++assigned) << "an iterator without a MultiPath yields nothing";
  assigned = it;
  ++assigned;
  EXPECT_EQ(text_of(*assigned), "c:\\data\\*.log");
  EXPECT_EQ(text_of(*it), "c:\\data\\b.txt");
}

TEST(MultiPathIterate, WithoutNamesYieldsTheDirectoryOnce) {
  MultiPath m(dirname("c:\\data"));
  EXPECT_EQ(walk(m), (Names{"c:\\data"}));
  MultiPathIter it(m);
  ++it;
  EXPECT_TRUE(it->is_valid());
  EXPECT_FALSE(it->file().is_valid());
  ++it;
  EXPECT_TRUE(!it);

  MultiPathIter back(m);
  back.Bottom();
  EXPECT_TRUE(!--back) << "backwards there is nothing to yield";

  MultiPath emptied("c:\\data\\x.txt");
  emptied.Remove(filename("x.txt"));
  EXPECT_EQ(walk(emptied), (Names{"c:\\data"}));
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
  EXPECT_EQ(text_of(*it), "c:\\one\\a.txt");
  it.Use(second);
  EXPECT_TRUE(!it) << "rebinding starts over";
  EXPECT_EQ(it.Count(), 2);
  ++it;
  EXPECT_EQ(text_of(*it), "d:\\two\\x");
  EXPECT_EQ(text_of(it.Find(filename("y"))), "d:\\two\\y");
  EXPECT_EQ(text_of(*it), "d:\\two\\x") << "a lookup does not move the iterator";
  EXPECT_FALSE(it.Find(filename("a.txt")).is_valid());
  EXPECT_EQ(text_of(it.Find(pathname("d:\\two\\x"))), "d:\\two\\x");
  EXPECT_FALSE(it.Find(pathname("c:\\one\\x")).is_valid());

  {
    MultiPath* gone = new MultiPath("c:\\tmp\\z.txt");
    it.Use(*gone);
    ++it;
    EXPECT_EQ(text_of(*it), "c:\\tmp\\z.txt");
    delete gone;
  }
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
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(it.Index(), 0);
  EXPECT_EQ(it.Current(), found);
  FileNameElt* again = it.Find("a", false);
  EXPECT_NE(again, found) << "a further Find continues after the current name";
  EXPECT_EQ(again, it.Current());
  EXPECT_EQ(it.Index(), 2);
  EXPECT_EQ(it.Find("a", false), nullptr);
  EXPECT_TRUE(it.EOL());
  EXPECT_NE(it.Find("a", true), nullptr) << "from the top again";
  EXPECT_EQ(it.Index(), 0);
  EXPECT_EQ(it.Find("A", true), nullptr);

  it.Top();
  EXPECT_FALSE((*it).is_valid()) << "no current name";
  (*it) << "scribble";
  EXPECT_FALSE(it->is_valid()) << "what was written without a current name does not stick";
  ++it;
  ++it;
  *it << "B.TXT";
  EXPECT_EQ(names_of(l), (Names{"a", "B.TXT", "a", "c"})) << "names change in place";

  FileNameIter copy(it);
  EXPECT_EQ(text_of(*copy), "B.TXT");
  const FileNameList& constant = l;
  FileNameIter reader(constant);
  ++reader;
  EXPECT_EQ(text_of(*reader), "a");
  reader.UseList(l);
  EXPECT_TRUE(reader.BOL());
  --reader;
  EXPECT_TRUE(reader.BOL());
}

// ---------------------------------------------------------------------------
// The capture directory

class MultiPathCapture : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(host_to_dos_path(tmp_.path().c_str(), captureText_));
    CWD::CaptureDir(dirname(captureText_.c_str()));
    ASSERT_TRUE(CWD::HasCaptureDirectory());
  }
  void TearDown() override { CWD::CaptureDir(dirname()); }

  kvtest::TempDir tmp_;
  std::string captureText_;
};

TEST_F(MultiPathCapture, PseudoDriveBecomesTheCaptureDirectory) {
  const std::string capture = *CWD::CaptureDir();
  MultiPath m("!:\\*.dat");
  m.Add("run1.dat");
  CWD::do_subst(m);
  EXPECT_EQ(text_of(m.dir()), capture);
  EXPECT_EQ(text_of(m.SinglePath()), capture + "\\run1.dat");
  EXPECT_EQ(walk(m), (Names{capture + "\\*.dat", capture + "\\run1.dat"}));
  EXPECT_TRUE(m.is_dos());

  MultiPath sub("!:\\sub\\x.dat");
  CWD::do_subst(sub);
  EXPECT_EQ(text_of(sub.dir()), capture) << "the whole directory is replaced";

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
