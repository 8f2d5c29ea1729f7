// Instrument parameter files: the text reader and writer, the tree and its
// cursor, sharing of trees between handles, and the Instr* functions.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "INSTRFIL.h"
#include "heap.h"
#include "sysman.h"
#include "test_support.h"

namespace {

using kvtest::abort_text;
using kvtest::dos_path;

class HeapsEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { heapman_mgr::initialize(); }
};
const auto* const kHeaps = ::testing::AddGlobalTestEnvironment(new HeapsEnvironment);

// A block of the runtime library holding exactly the bytes of s.
char* block_of(const std::string& s) {
  char* b = static_cast<char*>(KvOperatorNew(s.empty() ? 1 : s.size()));
  std::memcpy(b, s.data(), s.size());
  return b;
}

// A handle reading from a memory copy of a text; owns the copy.
struct MemDoc {
  explicit MemDoc(const std::string& s) : mem(block_of(s)), h(static_cast<void*>(mem)) {}
  ~MemDoc() { KvOperatorDelete(mem); }
  char* mem;
  InstrHandle h;
};

// The tree below s in a compact form: "tag=value@line" for records, and
// "[tag=value@line ...]" for sections.
std::string dump(InstrSection* s) {
  std::string out;
  InstrSectionIter it(s);
  for (InstrRecord* r = it.NextItem(); r != nullptr; r = it.NextItem()) {
    if (!out.empty()) out += ' ';
    if (r->IsSection()) out += '[';
    out += std::string(r->Tag()) + "=" + r->Str() + "@" + std::to_string(r->Line());
    if (r->IsSection()) {
      const std::string inner = dump(static_cast<InstrSection*>(r));
      if (!inner.empty()) out += " " + inner;
      out += ']';
    }
  }
  return out;
}

std::string root_dump(InstrHandle& h) {
  h.Seek(InstrTypeBOF);
  return dump(h.CurrentSection());
}

std::string written(InstrHandle& h) {
  EXPECT_TRUE(h.Write());
  return h.Buf() != nullptr ? std::string(h.Buf()) : std::string();
}

// ---------------------------------------------------------------------------
// Writing and reading

TEST(InstrWrite, NestedNamelessAndValuedSectionsAreWrittenByteExactly) {
  InstrHandle h;
  h.AddStr("TagA", "1.0");
  h.AddSection("SectionB", nullptr);
  h.EnterSection();
  h.AddInt("TagC", 200);
  h.AddSection("Inner", "v 2");
  h.EnterSection();
  h.AddStr("", "bare value");
  h.AddSection("", nullptr);  // nameless: flattened into Inner
  h.EnterSection();
  h.AddStr("Flat", "x");
  h.AddSection("Empty", nullptr);
  h.Seek(InstrTypeEOF);
  h.AddStr("Last", "");
  EXPECT_EQ(written(h),
            "Korvalis Data File\r\n\r\nTagA = 1.0\r\nSectionB\r\n{\r\n\tTagC = 200\r\n\tInner = v 2\r\n\t{"
            "\r\n\t\tbare value\r\n\t\tFlat = x\r\n\t\tEmpty\r\n\t\t{\r\n\t\t}\r\n\t}\r\n}\r\nLast = \r\n");
  // Without a header name there is no header line, and an empty tree is a lone line end.
  InstrHandle bare;
  bare.SetHeaderName(nullptr);
  EXPECT_EQ(written(bare), "\r\n");
  bare.SetHeaderName("Panel state");
  EXPECT_EQ(written(bare), "Panel state\r\n\r\n");
}

TEST(InstrWrite, OutputBufferDoublesFromFourKilobytes) {
  InstrBuffer b;
  b.Append(std::string(4095, 'a').c_str());
  EXPECT_EQ(b.capacity, 4096u);
  b.Append('b');
  EXPECT_EQ(b.capacity, 8192u);
  b.Append(std::string(20000, 'c').c_str());
  EXPECT_EQ(b.capacity, 32768u);
  EXPECT_EQ(std::strlen(b.text), 4096u + 20000u);
  EXPECT_EQ(b.text[4095], 'b');
  char* t = b.Release();
  b.Append("again");
  EXPECT_STREQ(b.text, "again");
  KvOperatorDelete(t);
}

TEST(InstrRead, RecordsSectionsCommentsContinuationsAndLineNumbers) {
  MemDoc d(
      "# leading comment\r\n"
      "Korvalis Data File v2\r\n"  // 2: header prefix is enough
      "\r\n"
      "TagA = 1.0\r\n"      // 4
      "  # indented comment\n"
      "SectionB = head\n"  // 6
      "{ ignored text\n"
      "\tTagC=200\n"       // 8
      "\tbare words here\n"
      "\t = no tag\n"      // ignored
      "\tA = x=y\n"        // 11: split at the last "="
      "\tpath # not a comment\n"
      "}\n"
      "  Trail  =  spaced  value  \n"  // 14
      "Sub\n"
      "{\n"
      "}");  // no final line end
  ASSERT_TRUE(d.h.Read());
  EXPECT_EQ(d.h.ErrStr(), nullptr);
  EXPECT_EQ(root_dump(d.h),
            "TagA=1.0@4 [SectionB=head@6 TagC=200@8 =bare words here@9 A = x=y@11 =path # not a comment@12] "
            "Trail=spaced  value@14 [Sub=@15]");
  char* tag = nullptr;
  char* value = nullptr;
  EXPECT_EQ(d.h.CurrentItem(tag, value), InstrTypeBOF);
  d.h.Seek(InstrTypeEOF);
  EXPECT_EQ(d.h.CurLine(), 17);

  MemDoc c("Long\\= first \\\n     second\\\n# comment between\n   third\nPlain = a\\b\nCr = x\ry\r\r\n");
  c.h.SetHeaderName(nullptr);
  ASSERT_TRUE(c.h.Read());
  EXPECT_EQ(root_dump(c.h), "Long=first secondthird@4 Plain=a\\b@5 Cr=xy@6");
}

TEST(InstrRead, EveryErrorHasItsMessageAndLine) {
  struct Case {
    std::string text;
    const char* message;
    int line;
    const char* kept;  // what the tree holds up to the error
  };
  const Case cases[] = {
      {"Not the header\nA = 1\n", "Bad header", 1, ""},
      {"\n\n# c\nKorvalis Data Fil\n", "Bad header", 4, ""},
      {"\n\nx\n", "Bad header", 3, ""},
      {"Korvalis Data File\nA = 1\n{\n{\n{\n}\n}\n", "Missing section name", 4, "[A=1@2]"},
      {"Korvalis Data File\n" + std::string(257, 'n') + "\n{\n}\n", "Tag too long", 2, ""},
      {"Korvalis Data File\nS\n{\nA = 1\n} x\n", "Syntax error", 5, "[S=@2 A=1@4]"},
      {"Korvalis Data File\nS\n{\n}= 3\n", "Syntax error", 4, "[S=@2]"},
      {"Korvalis Data File\nA = 1\n\n}\nB = 2\n", "Mismatched braces", 4, "A=1@2"},
      {"Korvalis Data File\nS\n{\nT\n{\nA = 1\n}\n", "Mismatched braces", 7, "[S=@2 [T=@4 A=1@6]]"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    MemDoc d(c.text);
    EXPECT_FALSE(d.h.Read());
    ASSERT_NE(d.h.ErrStr(), nullptr);
    EXPECT_STREQ(d.h.ErrStr(), c.message);
    EXPECT_TRUE(!d.h);
    EXPECT_EQ(d.h.CurLine(), c.line);
    EXPECT_EQ(root_dump(d.h), c.kept);
  }
  MemDoc longest("Korvalis Data File\n" + std::string(256, 'n') + "\n{\n}\n");
  EXPECT_TRUE(longest.h.Read());
  // A later successful read clears the error.
  MemDoc again("Korvalis Data File\n}\n");
  EXPECT_FALSE(again.h.Read());
  KvOperatorDelete(again.mem);
  again.mem = block_of("Korvalis Data File\nA = 1\n");
  again.h.Buf(again.mem);
  EXPECT_TRUE(again.h.Read());
  EXPECT_EQ(again.h.ErrStr(), nullptr);
}

TEST(InstrRead, MissingAndEmptyDocuments) {
  kvtest::TempDir dir;
  InstrHandle m(dos_path(dir.file("missing.dat")).c_str());
  EXPECT_TRUE(m.Read());  // a missing file is an empty document
  EXPECT_TRUE(m.IsSectionEmpty());
  EXPECT_FALSE(m.Read(IHReadMustExist));
  EXPECT_STREQ(m.ErrStr(), "Bad file");
  kvtest::write_file(dir.file("header.dat"), "Korvalis Data File\r\n");
  InstrHandle hdr(dos_path(dir.file("header.dat")).c_str());
  EXPECT_TRUE(hdr.Read(IHReadMustExist));
  for (const char* nothing : {"", " \r\n\t\n", "# only\n#comments"}) {
    MemDoc empty(nothing);
    EXPECT_TRUE(empty.h.Read()) << nothing;
    EXPECT_TRUE(empty.h.IsSectionEmpty());
  }
}

TEST(InstrRead, HostileInputsGiveAClearResult) {
  // A NUL byte ends the text.
  MemDoc nul(std::string("Korvalis Data File\nA = 1\nB = 2") + '\0' + "\nC = 3\n}\n");
  EXPECT_TRUE(nul.h.Read());
  EXPECT_EQ(root_dump(nul.h), "A=1@2 B=2@3");

  // 100,000 nested sections: read, copied, written and destroyed without recursion.
  constexpr int kDepth = 100000;
  std::string deep = "Korvalis Data File\n";
  for (int i = 0; i < kDepth; ++i) deep += "S\n{\n";
  deep += "A = 1\n";
  for (int i = 0; i < kDepth; ++i) deep += "}\n";
  auto* nested = new MemDoc(deep);
  ASSERT_TRUE(nested->h.Read());
  EXPECT_EQ(nested->h.CurLine(), 0);
  nested->h.NextItem();
  InstrRecord* copy = nested->h.CurrentRecord()->DupTree();
  delete nested;  // destroys the original tree
  InstrHandle walker(static_cast<InstrSection*>(copy));
  int depth = 1, value = 0;
  while (walker.FirstSection("S") && walker.EnterSection()) ++depth;
  EXPECT_EQ(depth, kDepth);
  EXPECT_TRUE(walker.FirstInt("A", value));
  EXPECT_EQ(walker.CurLine(), 2 * kDepth + 2);

  // Nameless sections are flattened.
  InstrHandle flat;
  for (int i = 0; i < kDepth; ++i) {
    flat.AddSection("", nullptr);
    flat.EnterSection();
  }
  flat.AddInt("A", 7);
  EXPECT_EQ(written(flat), "Korvalis Data File\r\n\r\nA = 7\r\n");
}

// Builds a random tree below the cursor of h: records and sections whose
// texts survive writing (no edge blanks, no "=", no leading "#", "{" or "}").
void build(InstrHandle& h, std::mt19937& rng, int depth, int& items) {
  const char alphabet[] = "abcXYZ019 _.,;:/\\!?";
  auto word = [&](size_t maxLength) {
    std::string w;
    for (size_t i = 1 + rng() % maxLength; i > 0; --i) w += alphabet[rng() % (sizeof alphabet - 1)];
    while (!w.empty() && (w.back() == ' ' || w.back() == '\\')) w.pop_back();
    while (!w.empty() && w.front() == ' ') w.erase(0, 1);
    return w.empty() ? std::string("w") : w;
  };
  for (int i = static_cast<int>(rng() % 6); i > 0 && items < 3000; --i, ++items) {
    const int kind = static_cast<int>(rng() % 5);
    if (kind == 0 && depth < 5) {
      h.AddSection(word(12).c_str(), rng() % 2 == 0 ? nullptr : word(20).c_str());
      h.EnterSection();
      build(h, rng, depth + 1, items);
      h.ExitSection();
    } else if (kind == 1) {
      h.AddStr("", word(30).c_str());
    } else if (kind == 2) {
      h.AddStr(word(300).c_str(), word(400).c_str());  // long texts on the heap
    } else {
      h.AddStr(word(10).c_str(), word(40).c_str());
    }
  }
}

TEST(InstrRoundTrip, GeneratedTreesReadBackEqual) {
  for (unsigned start = 1; start <= 40; ++start) {
    SCOPED_TRACE(start);
    std::mt19937 rng(start);
    InstrHandle src;
    int items = 0;
    build(src, rng, 0, items);
    const std::string text = written(src);
    MemDoc back(text);
    ASSERT_TRUE(back.h.Read()) << back.h.ErrStr() << " at " << back.h.CurLine();
    EXPECT_EQ(written(back.h), text);
  }
  // The texts that do not survive.
  InstrHandle h;
  h.AddStr("A", "x=y");
  h.AddStr("", "#hidden");
  h.AddStr("  Pad  ", "  v  ");
  MemDoc back(written(h));
  ASSERT_TRUE(back.h.Read());
  EXPECT_EQ(root_dump(back.h), "A = x=y@3 Pad=v@5");
}

// ---------------------------------------------------------------------------
// Records

TEST(InstrRecordText, InlineUpTo256BytesThenInTheRecordsHeap) {
  heap h("instrtest");
  auto* r = new (&h, "tests/instr", __LINE__) InstrRecordElt("t", "v");
  r->Tag(std::string(256, 'a').c_str());
  const char* inlineTag = r->Tag();
  EXPECT_TRUE(inlineTag >= reinterpret_cast<char*>(r) && inlineTag < reinterpret_cast<char*>(r) + sizeof(*r));
  r->Tag(std::string(600, 'c').c_str());
  char* block = r->Tag();
  EXPECT_EQ(heapman_mgr::find(block), &h);
  r->Tag(std::string(257, 'b').c_str());  // fits the present block: reused
  EXPECT_EQ(r->Tag(), block);
  EXPECT_EQ(std::string(r->Tag()), std::string(257, 'b'));
  r->Tag(std::string(5000, 'd').c_str());  // does not fit: a new block
  EXPECT_EQ(heapman_mgr::get_size(r->Tag()), 5001u);
  r->Tag(nullptr);
  EXPECT_EQ(r->Tag(), inlineTag);
  EXPECT_STREQ(r->Tag(), "");
  r->Str(std::string(600, 'c').c_str());
  r->Str(r->Str() + 100);  // a text taken from the record's own block
  EXPECT_EQ(std::string(r->Str()), std::string(500, 'c'));
  r->Int(-42);  // printed over the heap block
  EXPECT_STREQ(r->Str(), "-42");
  EXPECT_EQ(r->Int(), -42);
  delete r;

  InstrRecordElt t("n", "");
  t.Double(3.14159265);
  EXPECT_DOUBLE_EQ(t.Double(), 3.14159) << "six significant digits";
  t.Bool(true);
  EXPECT_STREQ(t.Str(), "1");
  t.Str("0");
  EXPECT_FALSE(t.Bool());
}

TEST(InstrRecordText, DupTreeRootAndAssignment) {
  InstrHandle h;
  h.AddSection("S", "sv");
  h.EnterSection();
  h.AddStr(std::string(400, 'k').c_str(), "long");
  h.AddSection("T", nullptr);
  h.EnterSection();
  h.AddInt("I", 1);
  InstrRecord* item = h.CurrentRecord();
  h.Seek(InstrTypeBOF);
  h.NextItem();
  auto* s = static_cast<InstrSection*>(h.CurrentRecord());
  EXPECT_EQ(item->Root(), s->Parent());
  InstrRecord* copy = s->DupTree();
  EXPECT_EQ(copy->Root(), copy);
  EXPECT_EQ(dump(static_cast<InstrSection*>(copy)), dump(s));
  s->Str("changed");
  EXPECT_STREQ(copy->Str(), "sv");
  delete copy;
  InstrRecord bare("b", "v", 5);
  EXPECT_EQ(bare.Root(), nullptr);
  InstrRecord* bareCopy = bare.DupTree();
  EXPECT_EQ(bareCopy->Line(), 5);
  delete bareCopy;

  // Assignment shares the source's texts until the copy sets one of its own.
  InstrRecord longOne(std::string(300, 'L').c_str(), "lv", 1);
  InstrRecord shallow;
  shallow = longOne;
  EXPECT_EQ(shallow.Tag(), longOne.Tag());
  shallow.Str("own");
  EXPECT_STREQ(longOne.Str(), "lv");
  EXPECT_NE(shallow.Tag(), longOne.Tag());
  EXPECT_EQ(std::string(shallow.Tag()), std::string(300, 'L'));
  InstrRecord untouched;
  untouched = longOne;  // destroyed without freeing longOne's block
}

// ---------------------------------------------------------------------------
// Cursor, searching and editing

TEST(InstrCursor, SeekMovesWithinAndBetweenSections) {
  InstrHandle empty;
  char* tag = nullptr;
  char* value = nullptr;
  EXPECT_EQ(empty.NextItem(tag, value), InstrTypeEOF);
  EXPECT_EQ(empty.PrevItem(tag, value), InstrTypeBOF);

  MemDoc d("Korvalis Data File\nR1 = 1\nS\n{\nA = a\nI\n{\n}\nB = b\n}\nR2 = 2\n");
  ASSERT_TRUE(d.h.Read());
  InstrHandle& c = d.h;
  EXPECT_EQ(c.NextItem(tag, value), InstrTypeRecord);
  EXPECT_STREQ(tag, "R1");
  EXPECT_EQ(c.NextItem(tag, value), InstrTypeSection);
  EXPECT_FALSE(c.Seek(InstrTypeExit) || c.Seek(InstrTypeUp));  // no parent
  EXPECT_TRUE(c.Seek(InstrTypeEnter));
  EXPECT_EQ(c.CurrentItem(tag, value), InstrTypeBOS);
  EXPECT_EQ(c.CurLine(), 3);
  EXPECT_FALSE(c.Seek(InstrTypeEnter));  // not on a section
  EXPECT_TRUE(c.Seek(InstrTypeRecord) && c.Seek(InstrTypeRecord));  // skips section I
  EXPECT_STREQ(c.CurrentRecord()->Tag(), "B");
  EXPECT_FALSE(c.Seek(InstrTypeRecord));
  EXPECT_EQ(c.CurrentItem(tag, value), InstrTypeEOS);
  EXPECT_TRUE(c.Seek(InstrTypeExit));
  EXPECT_STREQ(c.CurrentRecord()->Tag(), "S");
  EXPECT_TRUE(c.EnterSection() && c.FirstSection("I") && c.EnterSection());
  EXPECT_TRUE(c.Seek(InstrTypeUp) && c.BOS());
  EXPECT_STREQ(c.CurrentSection()->Tag(), "S");
  EXPECT_TRUE(c.FirstSection("I") && c.EnterSection());
  EXPECT_TRUE(c.Seek(InstrTypeEOF));  // from deep inside
  EXPECT_EQ(c.CurrentItem(tag, value), InstrTypeEOF);
  EXPECT_EQ(c.CurLine(), 11);  // the last line read
  EXPECT_EQ(c.PrevItem(tag, value), InstrTypeRecord);
  EXPECT_STREQ(tag, "R2");
  for (int refused : {int(InstrTypeSection), 9, -1}) EXPECT_FALSE(c.Seek(static_cast<InstrType>(refused)));
  EXPECT_STREQ(c.CurrentRecord()->Tag(), "R2");  // refused moves change nothing
}

TEST(InstrCursor, Searches) {
  MemDoc d(
      "Korvalis Data File\n"
      "N = 1\nS = a\n{\n}\nN = 2\nM = 3\nS\n{\n}\nS = b\n{\n}\n"
      "Pos = 1.5,2.5\nBadPos = 3\nFile = c:\\data\\x.dat\nN = 4\n");
  InstrHandle& h = d.h;
  ASSERT_TRUE(h.Read());
  int i = 0;
  EXPECT_TRUE(h.FirstInt("N", i) && h.NextRecord("N"));
  EXPECT_EQ(h.CurrentRecord()->Int(), 2);
  EXPECT_TRUE(h.NextRecord("X", "M"));  // the alternative name
  EXPECT_FALSE(h.NextRecord("S"));      // records only: S is a section
  char* v = nullptr;
  EXPECT_TRUE(h.FirstSection("S", v) && h.NextSection("S", v));
  EXPECT_STREQ(v, "");
  EXPECT_FALSE(h.FirstSection("N"));
  EXPECT_TRUE(h.PrevMatch("N", false));
  EXPECT_EQ(h.CurrentRecord()->Int(), 4);
  h.Seek(InstrTypeBOS);
  EXPECT_TRUE(h.FindSection("S", "b"));
  EXPECT_EQ(h.CurLine(), 11);
  h.Seek(InstrTypeBOS);
  EXPECT_TRUE(h.FindSection("S", nullptr));  // the one with an empty value
  EXPECT_EQ(h.CurLine(), 8);
  EXPECT_FALSE(h.FindSection("S", "zzz"));

  float f = -1.0f, x = -1.0f, y = -1.0f;
  EXPECT_TRUE(h.GetFirstInt("Missing", i, 77));
  EXPECT_EQ(i, 77);
  EXPECT_TRUE(h.GetFirstFloat("M", f, 9.0f));
  EXPECT_FLOAT_EQ(f, 3.0f);
  EXPECT_TRUE(h.GetFirstFloat("Missing", f, 9.5f));
  EXPECT_FLOAT_EQ(f, 9.5f);
  h.Seek(InstrTypeBOS);
  EXPECT_TRUE(h.GetPosition("Pos", x, y));
  EXPECT_FLOAT_EQ(x + y, 4.0f);
  EXPECT_FALSE(h.GetPosition("BadPos", x, y));
  EXPECT_FALSE(h.GetPosition("Pos", x, y));  // forward only: already passed
  h.Seek(InstrTypeBOS);
  EXPECT_TRUE(h.GetPosition("Nope", "Pos", x, y));
  FileName fn;  // the "Prev" forms search forward from the cursor
  EXPECT_TRUE(h.PrevFileName("File", fn));
  EXPECT_STREQ(*fn, "c:\\data\\x.dat");
  EXPECT_FALSE(h.PrevFileName("File", fn));
  h.Seek(InstrTypeBOS);
  pathname p;
  EXPECT_TRUE(h.PrevPathName("File", p) && !h.NextPathName("File", p));
  EXPECT_STREQ(*p, "c:\\data\\x.dat");
}

TEST(InstrCursor, EditingAndItsResults) {
  InstrHandle h;
  EXPECT_TRUE(h.AddInt("B", 2));
  h.Seek(InstrTypeBOS);
  EXPECT_TRUE(h.AddInt("A", 1));  // before the beginning: first
  h.Seek(InstrTypeEOS);
  EXPECT_TRUE(h.AddDouble("D", 3.14159265) && h.AddFloat("F", 0.5f));
  h.Seek(InstrTypeBOS);
  h.NextItem();
  EXPECT_FALSE(h.SetInt("B", 20));  // existed: changed in place
  EXPECT_TRUE(h.SetInt("C", 30));   // added at the end
  EXPECT_FALSE(h.SetStr("A", "one"));
  EXPECT_TRUE(h.SetFileName("FN", FileName("c:\\f.txt")));
  EXPECT_FALSE(h.SetPathName("FN", pathname("c:\\dir\\g.txt")));
  EXPECT_TRUE(h.SetPathName("PN", pathname("c:\\p.txt")));
  EXPECT_EQ(root_dump(h), "A=one@-1 B=20@-1 D=3.14159@-1 F=0.5@-1 C=30@-1 FN=c:\\dir\\g.txt@-1 PN=c:\\p.txt@-1");
  h.FirstRecord("D");
  EXPECT_TRUE(h.ChangeInt(4) && h.ChangeDouble(1.0 / 3.0));
  EXPECT_STREQ(h.CurrentRecord()->Str(), "0.333333");
  EXPECT_TRUE(h.ChangeFloat(1.5f) && h.ChangeStr(nullptr) && h.ChangeFileName(FileName("a.b")));
  EXPECT_TRUE(h.ChangePathName(pathname("c:\\x\\y")));
  EXPECT_STREQ(h.CurrentRecord()->Str(), "c:\\x\\y");
  EXPECT_TRUE(h.DeleteItem());
  EXPECT_STREQ(h.CurrentRecord()->Tag(), "F");  // moved to the following item
  h.Seek(InstrTypeEOS);
  EXPECT_FALSE(h.ChangeInt(1) || h.DeleteItem());  // off the items

  // Sections: SetSection finds or appends, AddSection stays outside.
  h.Seek(InstrTypeBOS);
  EXPECT_TRUE(h.SetSection("Sec", "v1"));
  EXPECT_EQ(h.CurrentSection(), h.CurrentRecord()->Root());
  h.Seek(InstrTypeBOS);
  EXPECT_TRUE(h.SetSection("Sec", "v1") && h.EnterSection());
  EXPECT_EQ(h.CurrentSection()->Parent()->Count(), 7);
  h.AddStr("X", "1");
  EXPECT_TRUE(h.ChangeSection("Renamed", nullptr));
  EXPECT_STREQ(h.CurrentSection()->Str(), "v1");
  EXPECT_TRUE(h.ChangeSection("Renamed", "v2"));
  EXPECT_STREQ(h.CurrentSection()->Str(), "v2");
  EXPECT_TRUE(h.ClearSection() && h.IsSectionEmpty() && h.BOS());
  EXPECT_TRUE(h.ClearFile() && h.CurrentSection()->IsRoot() && h.IsSectionEmpty());

  InstrSectionIter it(h.CurrentSection());
  auto* b = new InstrRecordElt("b", "");
  it.Add(b);
  it.InsertBefore(new InstrRecordElt("a", ""));
  it.InsertAfter(b, new InstrRecordElt("d", ""));
  it.InsertBefore(static_cast<InstrRecord*>(nullptr), new InstrRecordElt("e", ""));  // at the back
  it.InsertAfter(static_cast<InstrRecord*>(b), new InstrRecordElt("c", ""));
  EXPECT_STREQ(it.CurrentItem()->Tag(), "a");
  EXPECT_EQ(root_dump(h), "a=@-1 b=@-1 c=@-1 d=@-1 e=@-1");
  EXPECT_STREQ(it.LastItem()->Tag(), "e");
  EXPECT_STREQ(it.PrevItem()->Tag(), "d");
  it.GoTo(b);
  it.DeleteRecord();
  EXPECT_STREQ(it.CurrentItem()->Tag(), "c");
  EXPECT_TRUE(it.FirstMatch("e", false));
  EXPECT_FALSE(it.FirstMatch("e", true));
  InstrSectionIter copy(it);
  it.ClearRecords();
  EXPECT_EQ(it.FirstItem(), nullptr);
  EXPECT_EQ(copy.CurrentItem(), nullptr);  // moved to the beginning
  it.UseSection(nullptr);
  EXPECT_EQ(it.CurrentSection(), nullptr);
  EXPECT_EQ(it.NextItem(), nullptr);
}

// ---------------------------------------------------------------------------
// Handles, sharing and the registry

TEST(InstrHandles, SharedReadsAndReleaseOrder) {
  pathname bad("c:\\bad|name?<>");
  InstrHandle invalid(bad);
  EXPECT_EQ(static_cast<void*>(InstrHandle(invalid)), nullptr);
  EXPECT_TRUE(!InstrHandle(static_cast<void*>(nullptr)));

  kvtest::TempDir dir;
  kvtest::write_file(dir.file("shared.dat"), "Korvalis Data File\r\nA = 1\r\n");
  char path[256];
  std::snprintf(path, sizeof path, "%s", dos_path(dir.file("shared.dat")).c_str());
  auto* first = new InstrHandle(path);
  ASSERT_TRUE(first->Read());
  auto* second = new InstrHandle(static_cast<const char*>(path));
  // The file changes on disk: a shared read does not look at it.
  kvtest::write_file(dir.file("shared.dat"), "Korvalis Data File\r\nA = 2\r\n");
  ASSERT_TRUE(second->Read(IHReadShared));
  int a = 0;
  second->FirstInt("A", a);
  second->ChangeInt(5);
  EXPECT_TRUE(first->FirstInt("A", a));
  EXPECT_EQ(a, 5);  // one tree
  InstrHandle third(path);
  ASSERT_TRUE(third.Read());  // not shared: a fresh read
  EXPECT_TRUE(third.FirstInt("A", a));
  EXPECT_EQ(a, 2);
  delete first;  // the tree stays for the second handle
  InstrHandle fourth(path);
  ASSERT_TRUE(fourth.Read(IHReadShared));  // shares with the first equal path: second
  delete second;
  EXPECT_TRUE(fourth.FirstInt("A", a));
  EXPECT_EQ(a, 5);
  // Leak checking under the sanitizer sees whether the last user deleted it.
}

TEST(InstrHandles, UseRootSectionHandlesAndCopies) {
  InstrHandle owner;
  owner.AddSection("S", nullptr);
  owner.EnterSection();
  owner.AddInt("I", 1);
  owner.Seek(InstrTypeBOF);
  owner.NextItem();
  {
    InstrHandle inner(static_cast<InstrSection*>(owner.CurrentRecord()));
    char* tag = nullptr;
    char* value = nullptr;
    EXPECT_EQ(inner.CurrentItem(tag, value), InstrTypeBOS);
    EXPECT_STREQ(tag, "S");
    EXPECT_TRUE(inner.Seek(InstrTypeBOF) && inner.FirstSection("S"));  // up to the tree's root
    InstrHandle copy(inner);
    EXPECT_EQ(copy.CurrentRecord(), inner.CurrentRecord());
  }
  {  // both sharers are gone; the owner still has its tree
    InstrHandle user;
    user.UseRoot(&owner);
    EXPECT_TRUE(user.FirstSection("S"));
    user.AddInt("J", 2);
  }
  EXPECT_TRUE(owner.FirstRecord("J"));
  auto* made = new InstrSection("", "", 0);  // UseRoot on a tree nobody else uses takes it over
  made->InsertEnd(new InstrRecordElt("K", "3"));
  InstrHandle taker;
  taker.UseRoot(made);
  EXPECT_TRUE(taker.FirstRecord("K"));
}

TEST(InstrHandles, RegistryMisuseAborts) {
  HandleList* registry = HandleList::Registry();
  const int before = registry->Handles();
  {
    InstrHandle h;
    EXPECT_EQ(registry->Handles(), before + 1);
    EXPECT_EQ(abort_text([&] { registry->AddHandle(nullptr); }),
              "Instrfil HandleList::AddHandle(): NULL handle insert!");
    EXPECT_EQ(abort_text([&] { registry->AddHandle(&h); }), "Instrfil HandleList::AddHandle() handle already in list!");
    registry->RemoveHandle(&h);
    EXPECT_EQ(abort_text([&] { registry->RemoveHandle(&h); }),
              "instrfil HandleList::RemoveHandle() handle to remove not found!");
    registry->AddHandle(&h);
  }
  EXPECT_EQ(registry->Handles(), before);
}

// Reads and writes the tree of a handle placed at where; returns the heap of its first section.
heap* tree_heap(void* where) {
  auto* h = new (where) InstrHandle(static_cast<void*>(nullptr));
  char* text = block_of("Korvalis Data File\nS\n{\n" + std::string(300, 't') + " = 1\n}\n");
  h->Buf(text);
  EXPECT_TRUE(h->Read());
  EXPECT_TRUE(h->FirstSection("S"));
  heap* found = heapman_mgr::find(h->CurrentRecord());
  EXPECT_EQ(written(*h), "Korvalis Data File\r\n\r\nS\r\n{\r\n\t" + std::string(300, 't') + " = 1\r\n}\r\n");
  EXPECT_EQ(heapman_mgr::find(h->Buf()), found);
  h->~InstrHandle();
  KvOperatorDelete(text);
  return found;
}

TEST(InstrHandles, TreesLiveInTheHeapHoldingTheHandleOrTheRuntimeLibraryWhenItIsFull) {
  heap home("instrhome");
  void* place = ::operator new(sizeof(InstrHandle), &home, "tests/instr", __LINE__);
  EXPECT_EQ(tree_heap(place), &home);
  KvOperatorDelete(place);

  heap small("instrfull");
  std::vector<void*> blocks;
  try {
    for (;;) blocks.push_back(::operator new(1 << 22, &small, "tests/instr", __LINE__));
  } catch (const CSL::Heap::HeapError&) {
  }
  place = nullptr;
  while (place == nullptr && !blocks.empty()) {
    KvOperatorDelete(blocks.back());
    blocks.pop_back();
    try {
      place = ::operator new(sizeof(InstrHandle), &small, "tests/instr", __LINE__);
    } catch (const CSL::Heap::HeapError&) {
    }
  }
  ASSERT_NE(place, nullptr);
  try {  // take what is left, so that nothing more fits
    for (;;) blocks.push_back(::operator new(64, &small, "tests/instr", __LINE__));
  } catch (const CSL::Heap::HeapError&) {
  }
  EXPECT_EQ(tree_heap(place), nullptr);
  KvOperatorDelete(place);
  for (void* b : blocks) KvOperatorDelete(b);
}

// ---------------------------------------------------------------------------
// The procedural interface

// Each function of the flat interface, in turn on one live handle (with the
// result it gives there), then on a null handle: false, and a message from
// all but the rename and file-name queries (the section editors take no null).
TEST(InstrFlat, EveryFunctionOnALiveAndANullHandle) {
  kvtest::TempDir dir;
  kvtest::CategoryScope on(dbgA);
  FileName first(dos_path(dir.file("first.dat")).c_str()), second(dos_path(dir.file("second.dat")).c_str());
  FileName out;
  char a[] = "A", f[] = "F", s2[] = "S2", inner[] = "Inner";
  char* v = nullptr;
  int i = 0;
  float x = 0;
  struct Step {
    std::function<bool(void*)> run;
    bool live;  // the result on the live handle
  };
#define STEP(call, live) {[&](void* h) { return call; }, live}
  const Step steps[] = {
      STEP(InstrRead(h, IHReadNone), true),         STEP(InstrAddInt(h, a, 1), true),
      STEP(h != nullptr && InstrAddSection(h, "S"), true),  // the section editors take no null handle
      STEP(InstrEnterSection(h), true),             STEP(InstrAddFloat(h, a, 2.5f), true),
      STEP(InstrAddDouble(h, f, 0.1), true),
      STEP(h != nullptr && InstrChangeSection(h, "S2") && InstrSetSection(h, "Inner"), true),
      STEP(InstrExitSection(h), true),              STEP(InstrSetFileName(h, "F", FileName("c:\\one")), true),
      STEP(InstrSetFileName(h, "F", FileName("c:\\two")), false),  // changed, not added
      STEP(InstrWrite(h), true),                    STEP(InstrRename(h, second), true),
      STEP(InstrFileName(h, out), true),            STEP(InstrSeek(h, InstrTypeBOF), true),
      STEP(InstrFirstRecord(h, a), true),           STEP(InstrChangeInt(h, 9), true),
      STEP(InstrWrite(h), true),                    STEP(InstrFirstInt(h, a, i) && i == 9, true),
      STEP(InstrFirstSection(h, a), false),         STEP(InstrFirstSection(h, s2), true),
      STEP(InstrEnterSection(h), true),             STEP(InstrFirstFloat(h, a, x) && x == 2.5f, true),
      STEP(InstrFirstStr(h, f, v) && std::string(v) == "0.1", true),
      STEP(InstrNextStr(h, f, v), false),           STEP(InstrSeek(h, InstrTypeBOS), true),
      STEP(InstrNextSection(h, inner), true),       STEP(InstrNextSection(h, inner), false),
      STEP(InstrNextRecord(h, a), false),           STEP(InstrFirstRecord(h, a), true),
      STEP(InstrNextRecord(h, f), true),
      STEP(InstrChangeStr(h, a), true),             STEP(InstrChangeFloat(h, 1.25f), true),
      STEP(InstrChangeDouble(h, 2.0), true),        STEP(InstrChangeFileName(h, FileName("c:\\z")), true),
      STEP(InstrDeleteItem(h), true),               STEP(InstrClearSection(h), true),
      STEP(InstrChangeInt(h, 1), false),            STEP(InstrExitSection(h), true),
      STEP(InstrSeek(h, InstrTypeBOF), true),       STEP(InstrPrevFileName(h, f, out), true),
      STEP(InstrPrevFileName(h, f, out), false),
  };
#undef STEP
  void* h = InstrCreate(first);
  for (size_t n = 0; n < std::size(steps); ++n) EXPECT_EQ(steps[n].run(h), steps[n].live) << "step " << n;
  EXPECT_STREQ(*out, "c:\\two");
  char* tag = nullptr;
  EXPECT_EQ(InstrSeek(h, InstrTypeBOF) ? InstrNextItem(h, tag, v) : InstrTypeBOF, InstrTypeRecord);
  EXPECT_EQ(InstrNextItem(h, tag, v), InstrTypeSection);
  EXPECT_EQ(InstrPrevItem(h, tag, v), InstrTypeRecord);
  EXPECT_EQ(InstrCurrentItem(h, tag, v), InstrTypeRecord);
  InstrDestroy(h);
  EXPECT_EQ(kvtest::read_file(dir.file("first.dat")),
            "Korvalis Data File\r\n\r\nA = 1\r\nS2\r\n{\r\n\tA = 2.5\r\n\tF = 0.1\r\n\tInner\r\n\t{\r\n\t}\r\n}"
            "\r\nF = c:\\two\r\n");
  EXPECT_NE(kvtest::read_file(dir.file("second.dat")).find("A = 9\r\n"), std::string::npos);

  kvtest::CaptureSink sink;
  for (size_t n = 0; n < std::size(steps); ++n) EXPECT_FALSE(steps[n].run(nullptr)) << "step " << n;
  size_t messages = 0;
  for (const auto& e : sink.entries()) messages += e.text == "No instr handle\n";
  EXPECT_EQ(messages, std::size(steps) - 4) << "every step says so once, but the rename, the file name and the editors";
  InstrDestroy(nullptr);
}

}  // namespace
