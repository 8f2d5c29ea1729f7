// Path lists: FileNameList, FileNameIter, MultiPath, MultiPathIter and the
// substitution of the capture directory into a MultiPath.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FILENAME.h"
#include "heap.h"
#include "paths_support.h"

namespace {

using Names = std::vector<std::string>;
using kvtest::text_of;

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
  // "directory|count|single path" and the flags that hold.
  const auto shape = [](const MultiPath& m) {
    return text_of(m.dir()) + "|" + std::to_string(m.Count()) + "|" + text_of(m.SinglePath()) + (m.is_valid() ? " valid" : "") +
           (m.is_wild() ? " wild" : "") + (m.is_single() ? " single" : "") + (m.is_root() ? " root" : "");
  };
  const std::pair<const char*, const char*> cases[] = {
      {"c:\\data\\*.txt", "c:\\data|1|c:\\data\\*.txt valid wild"},
      {"  C:\\Data\\..\\Logs\\Run.LOG  ", "c:\\Logs|1|c:\\Logs\\Run.LOG valid single"},
      {"\\\\server\\share\\f?.txt", "\\\\server\\share|1|\\\\server\\share\\f?.txt valid wild"},
      {"c:\\a\\", "c:\\|1|c:\\a valid single"},  // a trailing separator: the last component is the name
      {"c:\\", "c:\\|0|c:\\ single root"},       // a directory without names is not valid
      {"c:\\a\\\\b", "|0| single"}, {"c:\\tmp\\com1.txt", "|0| single"}, {"", "|0| single"}, {nullptr, "|0| single"},
  };
  for (const auto& [text, want] : cases) EXPECT_EQ(shape(MultiPath(text)), want) << (text ? text : "null");

  MultiPath m("c:\\data\\*.txt");
  const dirname asDirectory = m;
  const pathname asPath = m;
  EXPECT_EQ(text_of(m) + "|" + text_of(asDirectory) + "|" + text_of(asPath), "c:\\data\\*.txt|c:\\data\\*.txt|c:\\data\\*.txt");
  MultiPath fromPath(pathname("c:\\data\\x.txt")), fromParts(dirname("c:\\data"), filename("x.txt"));
  EXPECT_EQ(walk(fromPath), Names{"c:\\data\\x.txt"});
  EXPECT_EQ(walk(fromParts), Names{"c:\\data\\x.txt"});
  EXPECT_EQ(MultiPath(dirname("c:\\data"), filename("con")).Count(), 0) << "an invalid name is not listed";
}

TEST(MultiPathList, LookupsMatchingRemovalAndMovingTheDirectory) {
  MultiPath m{dirname("c:\\data")};
  for (const char* n : {"b.txt", "a.log", "b.txt", "C.DAT"}) m.Add(n);
  EXPECT_EQ(names_of(m.FileList()), (Names{"b.txt", "a.log", "b.txt", "C.DAT"}));
  EXPECT_EQ(text_of(m.SinglePath()), "c:\\data\\C.DAT") << "the latest name";
  EXPECT_TRUE(m.is_wild()) << "several names are wild without wildcards";
  // Positions: the first of equal names; names compare with their case; lookups take no wildcards.
  // Paths found: "" for none. Matching: names by pattern, directories exactly; a list without
  // names walks its directory.
  MultiPath dirOnly(dirname("c:\\logs"));
  const auto yes = [](bool b) { return std::string(b ? "yes" : "no"); };
  const std::pair<std::string, std::string> lookups[] = {
      {std::to_string(m.Index(filename("b.txt"))), "0"}, {std::to_string(m.Index(filename("c.dat"))), "-1"},
      {std::to_string(m.Index(filename("*.txt"))), "-1"}, {std::to_string(m.Index(pathname("c:\\data\\a.log"))), "1"},
      {std::to_string(m.Index(pathname("c:\\Data\\a.log"))), "-1"},
      {std::to_string(m.FileList().Index(m.FileList().Find(filename("a.log")))), "1"},
      {std::to_string(m.FileList().Index(filename())), "-1"}, {text_of(m.Get(3)), "c:\\data\\C.DAT"},
      {yes(m.Get(4).dir().is_valid() || m.Get(-1).is_valid()), "no"},  // no such position: a fully reset path
      {text_of(m.Find(filename("a.log"))), "c:\\data\\a.log"}, {text_of(m.Find(filename("A.LOG"))), ""},
      {text_of(m.Find(pathname("c:\\data\\C.DAT"))), "c:\\data\\C.DAT"}, {text_of(m.Find(pathname("c:\\other\\C.DAT"))), ""},
      {yes(m.match(pathname("c:\\data\\c.dat"))), "yes"}, {yes(m.match(pathname("c:\\data\\d.txt"))), "no"},
      {yes(m.match(pathname("c:\\Data\\a.log"))), "no"}, {yes(m.match(pathname())), "no"},
      {yes(dirOnly.match(pathname(dirname("c:\\logs")))), "yes"}, {yes(dirOnly.match(pathname("c:\\logs\\x"))), "no"}};
  for (size_t i = 0; i < std::size(lookups); ++i) EXPECT_EQ(lookups[i].first, lookups[i].second) << "row " << i;

  m.Remove(filename("b.txt"));
  EXPECT_EQ(names_of(m.FileList()), (Names{"a.log", "b.txt", "C.DAT"})) << "only the first equal name goes";
  EXPECT_TRUE(!m.FileList().Remove(filename("nothing")) && m.FileList().Remove("a.log"));
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
  EXPECT_FALSE(m.is_valid() || m.SinglePath().is_valid()) << "names without a directory";
  m << dirname("e:\\");
  m.Clear();
  EXPECT_EQ(text_of(m.SinglePath()) + "|" + std::to_string(m.Count()) + (m.is_wild() ? " wild" : ""), "e:\\|0");
}

TEST(MultiPathCopies, CopiesAreIndependentAndLiveInTheHeapOfTheirList) {
  heapman_mgr::initialize();
  MultiPath original("c:\\data\\a.txt");
  original.Add("b.txt");
  MultiPath copy(original);
  copy.Add("c.txt");
  copy.Remove(filename("a.txt"));
  EXPECT_EQ(names_of(copy.FileList()), (Names{"b.txt", "c.txt"}));
  MultiPath assigned("e:\\x\\old.txt");
  assigned = original;
  assigned.FileList().First()->name << "changed.txt";
  EXPECT_EQ(walk(assigned), (Names{"c:\\data\\changed.txt", "c:\\data\\b.txt"}));
  EXPECT_EQ(names_of(original.FileList()), (Names{"a.txt", "b.txt"})) << "untouched by its copies";
  const MultiPath& same = assigned;
  assigned = same;
  EXPECT_EQ(assigned.Count(), 2) << "self-assignment keeps the names";
  FileNameList list;
  list.Add("one");
  heap named("pathlists");
  auto* placed = new (&named, "tests/multipath", __LINE__) FileNameList;
  placed->Add("b.txt");
  EXPECT_EQ(heapman_mgr::find(placed->First()), &named);
  *placed = list;
  EXPECT_EQ(heapman_mgr::find(placed->First()), &named) << "copies go to the heap of the destination";
  EXPECT_EQ(std::string(reinterpret_cast<const heap_record*>(list.First())[-1].file), "System/FILENAME");
  const FileNameList& self = *placed;
  *placed = self;
  DLlistElt* dup = placed->DupTree(&named);
  auto* dupList = dynamic_cast<FileNameList*>(dup);
  ASSERT_NE(dupList, nullptr) << "DupTree keeps the list's type";
  EXPECT_EQ(names_of(*dupList), (Names{"one"})) << "assigned, and kept by self-assignment";
  EXPECT_EQ(heapman_mgr::find(dupList->First()), &named);
  delete dup;
  delete placed;
}

TEST(MultiPathIterate, StepsBothWaysRebindsAndOutlivesItsOwner) {
  MultiPath m(dirname("c:\\data"));
  EXPECT_EQ(walk(m), (Names{"c:\\data"})) << "without names the directory comes once";
  MultiPathIter back(m);
  back.Bottom();
  EXPECT_TRUE(!--back) << "backwards there is nothing to yield";
  for (const char* n : {"b.txt", "*.log", "a"}) m.Add(n);
  MultiPathIter it(m);
  EXPECT_TRUE(it.BOL() && !it && it.Count() == 3);
  ++it;
  ++it;
  EXPECT_EQ(it.Index(), 1);
  MultiPathIter copy(it);  // continues from the same place, on its own
  ++it;
  ++it;
  EXPECT_TRUE(it.EOL() && !it && !it->is_valid());
  EXPECT_EQ(text_of(*++copy), "c:\\data\\a");
  it.Bottom();
  Names backwards;
  while (--it) backwards.push_back(**it);
  EXPECT_EQ(backwards, (Names{"c:\\data\\a", "c:\\data\\*.log", "c:\\data\\b.txt"}));
  ++it;
  it.Top();
  EXPECT_TRUE(it.BOL() && !it) << "Top leaves no current path";
  MultiPathIter assigned;
  assigned = copy;
  EXPECT_EQ(text_of(*assigned), "c:\\data\\a") << "an assigned iterator stands where its source stood";
  MultiPath nothing;
  EXPECT_TRUE(walk(nothing).empty()) << "no directory, no path";

  // Rebinding starts over; lookups do not move the iterator.
  MultiPath second(dirname("d:\\two"));
  second.Add("x");
  second.Add("y");
  ++it;
  it.Use(second);
  EXPECT_TRUE(!it);
  ++it;
  EXPECT_EQ(text_of(it.Find(filename("y"))) + "|" + text_of(*it), "d:\\two\\y|d:\\two\\x");
  EXPECT_EQ(text_of(it.Find(pathname("d:\\two\\x"))), "d:\\two\\x");
  EXPECT_FALSE(it.Find(filename("a")).is_valid() || it.Find(pathname("c:\\one\\x")).is_valid());
  auto* gone = new MultiPath("c:\\tmp\\z.txt");
  it.Use(*gone);
  ++it;
  delete gone;
  EXPECT_TRUE(!++it) << "a destroyed MultiPath yields nothing more";
  EXPECT_FALSE(it.Find(filename("z.txt")).is_valid() || it.Find(pathname("c:\\tmp\\z.txt")).is_valid());
  EXPECT_EQ(it.Count(), 0);
}

TEST(FileNameIterate, FindStepsThroughEqualNames) {
  FileNameList l;
  for (const char* n : {"a", "b", "a", "c"}) l.Add(n);
  FileNameIter it(l);
  // Where each Find stops (-1: nothing found, at the end): a further Find continues after the
  // current name, a Find from the top starts again; names compare with their case.
  std::vector<int> at;
  for (const auto& [name, fromTop] : {std::pair{"a", true}, {"a", false}, {"a", false}, {"a", true}, {"A", true}}) {
    const FileNameElt* e = it.Find(name, fromTop);
    at.push_back(e == nullptr ? (it.EOL() ? -1 : -2) : e == it.Current() ? it.Index() : -3);
  }
  EXPECT_EQ(at, (std::vector<int>{0, 2, -1, 0, -1}));
  it.Top();
  (*it) << "scribble";
  EXPECT_FALSE(it->is_valid()) << "what was written without a current name does not stick";
  ++it;
  ++it;
  *it << "B.TXT";
  EXPECT_EQ(names_of(l), (Names{"a", "B.TXT", "a", "c"})) << "names change in place";
  EXPECT_STREQ(**FileNameIter(it), "B.TXT");
  const FileNameList& constant = l;
  FileNameIter reader(constant);
  ++reader;
  reader.UseList(l);
  --reader;
  EXPECT_TRUE(reader.BOL());
}

TEST(MultiPathCapture, PseudoDriveBecomesTheCaptureDirectory) {
  kvtest::CwdScope scope;
  kvtest::TempDir tmp;
  // Without a capture directory, and with one: only a valid list on !: changes, all of its directory.
  const std::string capture = kvtest::dos_path(tmp.path());
  for (const std::string& to : {std::string(), capture}) {
    CWD::CaptureDir(dirname(to.empty() ? nullptr : to.c_str()));
    ASSERT_EQ(CWD::HasCaptureDirectory(), !to.empty());
    MultiPath m("!:\\sub\\*.dat"), other("c:\\data\\x.dat"), bare(dirname("!:\\"));
    m.Add("run1.dat");
    for (MultiPath* p : {&m, &other, &bare}) CWD::do_subst(*p);
    const std::string dir = to.empty() ? "!:\\sub" : to;
    EXPECT_EQ(walk(m), (Names{dir + "\\*.dat", dir + "\\run1.dat"}));
    EXPECT_EQ(text_of(other.dir()) + "|" + text_of(bare.dir()), "c:\\data|!:\\");
  }
}
