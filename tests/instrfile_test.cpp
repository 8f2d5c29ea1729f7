// Instrument parameter files: the text reader and writer, the tree and its
// cursor, sharing of trees between handles, and the Instr* functions.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "INSTRFIL.h"
#include "heap.h"
#include "kvos/drives.h"
#include "sysman.h"
#include "test_support.h"

namespace {

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

std::string dos(const std::string& host) {
  std::string path;
  EXPECT_TRUE(kvos::host_to_dos(host, path)) << host;
  return path;
}

// ---------------------------------------------------------------------------
// Writing

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

  const std::string expected =
      "Korvalis Data File\r\n"
      "\r\nTagA = 1.0"
      "\r\nSectionB\r\n{"
      "\r\n\tTagC = 200"
      "\r\n\tInner = v 2\r\n\t{"
      "\r\n\t\tbare value"
      "\r\n\t\tFlat = x"
      "\r\n\t\tEmpty\r\n\t\t{\r\n\t\t}"
      "\r\n\t}"
      "\r\n}"
      "\r\nLast = "
      "\r\n";
  EXPECT_EQ(written(h), expected);

  // Without a header name there is no header line, and an empty tree is a
  // lone line end.
  InstrHandle bare;
  bare.SetHeaderName(nullptr);
  EXPECT_EQ(written(bare), "\r\n");
  bare.SetHeaderName("Panel state");
  EXPECT_EQ(written(bare), "Panel state\r\n\r\n");
}

TEST(InstrWrite, OutputBufferDoublesFromFourKilobytes) {
  InstrBuffer b;
  EXPECT_EQ(b.capacity, 4096u);
  EXPECT_EQ(b.length, 0u);
  EXPECT_STREQ(b.text, "");
  const std::string chunk(4095, 'a');
  b.Append(chunk.c_str());
  EXPECT_EQ(b.capacity, 4096u);
  b.Append('b');
  EXPECT_EQ(b.capacity, 8192u);
  b.Append(std::string(20000, 'c').c_str());
  EXPECT_EQ(b.capacity, 32768u);
  EXPECT_EQ(b.length, 4096u + 20000u);
  EXPECT_EQ(std::strlen(b.text), b.length);
  EXPECT_EQ(b.text[4095], 'b');
  char* t = b.Release();
  EXPECT_EQ(b.text, nullptr);
  b.Append("again");
  EXPECT_STREQ(b.text, "again");
  KvOperatorDelete(t);
}

TEST(InstrWrite, FileWriteIsByteExactAndFailureIsReported) {
  kvtest::TempDir dir;
  const std::string path = dos(dir.file("params.dat"));
  InstrHandle h(path.c_str());
  ASSERT_TRUE(h);
  h.AddInt("Count", 3);
  EXPECT_TRUE(h.Write());
  EXPECT_EQ(h.Buf(), nullptr);  // written to the file, not kept in memory
  EXPECT_EQ(kvtest::read_file(dir.file("params.dat")), "Korvalis Data File\r\n\r\nCount = 3\r\n");

  InstrHandle missingDir(dos(dir.file("no/such/dir/x.dat")).c_str());
  missingDir.AddInt("Count", 3);
  EXPECT_FALSE(missingDir.Write());
  EXPECT_TRUE(!missingDir);
  EXPECT_EQ(missingDir.ErrStr(), nullptr);
}

// ---------------------------------------------------------------------------
// Reading

TEST(InstrRead, RecordsSectionsCommentsAndLineNumbers) {
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
  // After reading, the cursor stands before the root's first item.
  char* tag = nullptr;
  char* value = nullptr;
  EXPECT_EQ(d.h.CurrentItem(tag, value), InstrTypeBOF);
  EXPECT_EQ(d.h.CurLine(), 0);
  d.h.Seek(InstrTypeEOF);
  EXPECT_EQ(d.h.CurLine(), 17);
}

TEST(InstrRead, ContinuedValuesCarriageReturnsAndMissingHeaderCheck) {
  MemDoc d(
      "Long\\= first \\\n"
      "     second\\\n"
      "# comment between\n"
      "   third\n"
      "Plain = a\\b\n"
      "Cr = x\ry\r\r\n");
  d.h.SetHeaderName(nullptr);
  ASSERT_TRUE(d.h.Read());
  EXPECT_EQ(root_dump(d.h), "Long=first secondthird@4 Plain=a\\b@5 Cr=xy@6");
}

TEST(InstrRead, EveryErrorHasItsMessageAndLine) {
  struct Case {
    const char* text;
    const char* message;
    int line;
    const char* kept;  // what the tree holds up to the error
  };
  const std::string longName(257, 'n');
  const std::string tooLong = "Korvalis Data File\n" + longName + "\n{\n}\n";
  const Case cases[] = {
      {"Not the header\nA = 1\n", "Bad header", 1, ""},
      {"\n\n# c\nKorvalis Data Fil\n", "Bad header", 4, ""},
      {"Korvalis Data File\nA = 1\n{\n{\n{\n}\n}\n", "Missing section name", 4, "[A=1@2]"},
      {tooLong.c_str(), "Tag too long", 2, ""},
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
  // A 256-byte section name is still accepted.
  const std::string longest = "Korvalis Data File\n" + std::string(256, 'n') + "\n{\n}\n";
  MemDoc ok(longest);
  EXPECT_TRUE(ok.h.Read());
  // A later successful read clears the error.
  MemDoc again("Korvalis Data File\n}\n");
  EXPECT_FALSE(again.h.Read());
  KvOperatorDelete(again.mem);
  again.mem = block_of("Korvalis Data File\nA = 1\n");
  again.h.Buf(again.mem);
  EXPECT_TRUE(again.h.Read());
  EXPECT_EQ(again.h.ErrStr(), nullptr);
  EXPECT_TRUE(again.h);
}

TEST(InstrRead, FilesMissingEmptyAndShared) {
  kvtest::TempDir dir;
  const std::string missing = dos(dir.file("missing.dat"));
  InstrHandle m(missing.c_str());
  EXPECT_TRUE(m.Read());  // a missing file is an empty document
  EXPECT_TRUE(m.IsSectionEmpty());
  EXPECT_FALSE(m.Read(IHReadMustExist));
  EXPECT_STREQ(m.ErrStr(), "Bad file");
  EXPECT_EQ(m.CurLine(), 0);

  kvtest::write_file(dir.file("header.dat"), "Korvalis Data File\r\n");
  InstrHandle hdr(dos(dir.file("header.dat")).c_str());
  EXPECT_TRUE(hdr.Read(IHReadMustExist));
  EXPECT_TRUE(hdr.IsSectionEmpty());

  for (const char* nothing : {"", " \r\n\t\n", "# only\n#comments"}) {
    MemDoc empty(nothing);
    EXPECT_TRUE(empty.h.Read()) << nothing;
    EXPECT_TRUE(empty.h.IsSectionEmpty());
  }
  MemDoc blankFirst("\n\nx\n");
  EXPECT_FALSE(blankFirst.h.Read());
  EXPECT_STREQ(blankFirst.h.ErrStr(), "Bad header");
  EXPECT_EQ(blankFirst.h.CurLine(), 3);
}

TEST(InstrRead, HostileInputsGiveAClearResult) {
  // A NUL byte ends the text.
  const std::string withNul = std::string("Korvalis Data File\nA = 1\nB = 2") + '\0' + "\nC = 3\n}\n";
  MemDoc nul(withNul);
  EXPECT_TRUE(nul.h.Read());
  EXPECT_EQ(root_dump(nul.h), "A=1@2 B=2@3");

  // A megabyte line, as tag and as value.
  const std::string big(1 << 20, 'x');
  MemDoc wide("Korvalis Data File\n" + big + " = " + big + "\n" + big + "\n");
  ASSERT_TRUE(wide.h.Read());
  ASSERT_TRUE(wide.h.FirstRecord(big.c_str()));
  EXPECT_EQ(std::string(wide.h.CurrentRecord()->Str()), big);
  wide.h.NextItem();
  EXPECT_EQ(std::string(wide.h.CurrentRecord()->Str()), big);
  EXPECT_EQ(std::string(wide.h.CurrentRecord()->Tag()), "");

  // 100,000 nested sections: read, copied, written and destroyed without
  // recursion.
  constexpr int kDepth = 100000;
  std::string deep = "Korvalis Data File\n";
  for (int i = 0; i < kDepth; ++i) deep += "S\n{\n";
  deep += "A = 1\n";
  for (int i = 0; i < kDepth; ++i) deep += "}\n";
  auto* nested = new MemDoc(deep);
  ASSERT_TRUE(nested->h.Read());
  int depth = 0;
  while (nested->h.FirstSection("S") && nested->h.EnterSection()) ++depth;
  EXPECT_EQ(depth, kDepth);
  int value = 0;
  EXPECT_TRUE(nested->h.FirstInt("A", value));
  EXPECT_EQ(value, 1);
  EXPECT_EQ(nested->h.CurLine(), 2 * kDepth + 2);
  nested->h.Seek(InstrTypeBOF);
  nested->h.NextItem();
  InstrRecord* copy = nested->h.CurrentRecord()->DupTree();
  delete nested;  // destroys the original tree
  ASSERT_TRUE(copy->IsSection());
  InstrHandle walker(static_cast<InstrSection*>(copy));
  depth = 1;
  while (walker.FirstSection("S") && walker.EnterSection()) ++depth;
  EXPECT_EQ(depth, kDepth);
  EXPECT_TRUE(walker.FirstInt("A", value));

  // Writing named sections costs indentation per level; nameless sections
  // are flattened, so a 100,000-deep nameless chain writes in linear space.
  InstrHandle flat;
  for (int i = 0; i < kDepth; ++i) {
    flat.AddSection("", nullptr);
    flat.EnterSection();
  }
  flat.AddInt("A", 7);
  EXPECT_EQ(written(flat), "Korvalis Data File\r\n\r\nA = 7\r\n");
  std::string named = "Korvalis Data File\n";
  for (int i = 0; i < 2000; ++i) named += "S\n{\n";
  for (int i = 0; i < 2000; ++i) named += "}\n";
  MemDoc n2(named);
  ASSERT_TRUE(n2.h.Read());
  const std::string out = written(n2.h);
  EXPECT_EQ(out.size(), 20u + 2000u * 9u + 3u * 2000u * 1999u / 2u + 2u);
}

// ---------------------------------------------------------------------------
// Round trips

// Builds a random tree below the cursor of h: records and sections whose
// texts survive writing (no edge blanks, no "=", no leading "#", "{" or "}").
void build(InstrHandle& h, std::mt19937& rng, int depth, int& items) {
  const char alphabet[] = "abcXYZ019 _.,;:/\\!?";
  auto word = [&](size_t maxLength) {
    std::uniform_int_distribution<size_t> len(1, maxLength);
    std::string w;
    const size_t n = len(rng);
    for (size_t i = 0; i < n; ++i) w += alphabet[rng() % (sizeof alphabet - 1)];
    while (!w.empty() && (w.back() == ' ' || w.back() == '\\')) w.pop_back();
    while (!w.empty() && w.front() == ' ') w.erase(0, 1);
    return w.empty() ? std::string("w") : w;
  };
  const int count = static_cast<int>(rng() % 6);
  for (int i = 0; i < count && items < 3000; ++i, ++items) {
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
    // Line numbers differ (-1 in memory); compare the texts written again.
    EXPECT_EQ(written(back.h), text);
    // And the structure, ignoring line numbers.
    auto strip = [](std::string s) {
      std::string out;
      for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '@') {
          while (i + 1 < s.size() && (s[i + 1] == '-' || isdigit(static_cast<unsigned char>(s[i + 1])))) ++i;
          continue;
        }
        out += s[i];
      }
      return out;
    };
    EXPECT_EQ(strip(root_dump(back.h)), strip(root_dump(src)));
  }
}

TEST(InstrRoundTrip, TextsThatDoNotSurviveAreTheKnownOnes) {
  InstrHandle h;
  h.AddStr("A", "x=y");
  h.AddStr("", "#hidden");
  h.AddStr("  Pad  ", "  v  ");
  h.AddSection("", nullptr);
  h.EnterSection();
  h.AddStr("In", "1");
  MemDoc back(written(h));
  ASSERT_TRUE(back.h.Read());
  EXPECT_EQ(root_dump(back.h), "A = x=y@3 Pad=v@5 In=1@6");
}

// ---------------------------------------------------------------------------
// Records

TEST(InstrRecordText, InlineAndHeapStorage) {
  heap h("instrtest");
  auto* r = new (&h, "tests/instr", __LINE__) InstrRecordElt("t", "v");
  EXPECT_EQ(r->Line(), -1);
  const std::string t256(256, 'a');
  const std::string t257(257, 'b');
  const std::string t600(600, 'c');
  r->Tag(t256.c_str());
  const char* inlineTag = r->Tag();
  EXPECT_TRUE(inlineTag >= reinterpret_cast<char*>(r) && inlineTag < reinterpret_cast<char*>(r) + sizeof(*r));
  r->Tag(t600.c_str());
  char* block = r->Tag();
  EXPECT_EQ(heapman_mgr::find(block), &h);
  EXPECT_EQ(std::string(block), t600);
  r->Tag(t257.c_str());  // fits the present block: reused
  EXPECT_EQ(r->Tag(), block);
  EXPECT_EQ(std::string(r->Tag()), t257);
  r->Tag(std::string(5000, 'd').c_str());  // does not fit: a new block
  EXPECT_NE(r->Tag(), block);
  EXPECT_EQ(heapman_mgr::get_size(r->Tag()), 5001u);
  r->Tag(nullptr);
  EXPECT_STREQ(r->Tag(), "");
  EXPECT_EQ(r->Tag(), inlineTag);
  r->Str(t600.c_str());
  r->Str(r->Str() + 100);  // a text taken from the record's own block
  EXPECT_EQ(std::string(r->Str()), std::string(500, 'c'));
  delete r;
}

TEST(InstrRecordText, TypedViews) {
  InstrRecordElt r("n", "");
  r.Double(3.14159265);
  EXPECT_STREQ(r.Str(), "3.14159");
  r.Float(2.5f);
  EXPECT_STREQ(r.Str(), "2.5");
  EXPECT_FLOAT_EQ(r.Float(), 2.5f);
  r.Int(-42);
  EXPECT_STREQ(r.Str(), "-42");
  EXPECT_EQ(r.Int(), -42);
  r.Bool(true);
  EXPECT_STREQ(r.Str(), "1");
  EXPECT_TRUE(r.Bool());
  r.Str("0");
  EXPECT_FALSE(r.Bool());
  r.Str(std::string(300, '7').c_str());
  r.Int(5);  // printed into the heap block
  EXPECT_STREQ(r.Str(), "5");
  EXPECT_DOUBLE_EQ(r.Double(), 5.0);
}

TEST(InstrRecordText, DupTreeAndRootAndAssignment) {
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
  InstrSection* s = static_cast<InstrSection*>(h.CurrentRecord());
  EXPECT_EQ(item->Root(), s->Parent());
  EXPECT_TRUE(s->Parent()->IsRoot());
  EXPECT_FALSE(s->IsRoot());

  InstrRecord* copy = s->DupTree();
  EXPECT_TRUE(static_cast<InstrSection*>(copy)->IsRoot());
  EXPECT_EQ(copy->Root(), copy);
  EXPECT_EQ(dump(static_cast<InstrSection*>(copy)), dump(s));
  s->Str("changed");
  EXPECT_STREQ(copy->Str(), "sv");

  InstrRecord bare("b", "v", 5);
  EXPECT_EQ(bare.Elt(), nullptr);
  EXPECT_EQ(bare.Root(), nullptr);
  InstrRecord* bareCopy = bare.DupTree();
  EXPECT_STREQ(bareCopy->Tag(), "b");
  EXPECT_EQ(bareCopy->Line(), 5);
  delete bareCopy;

  // Assignment shares the source's texts until the copy sets one of its own.
  InstrRecord longOne(std::string(300, 'L').c_str(), "lv", 1);
  InstrRecord shallow;
  shallow = longOne;
  EXPECT_EQ(shallow.Tag(), longOne.Tag());
  EXPECT_EQ(shallow.Str(), longOne.Str());
  shallow.Str("own");
  EXPECT_STREQ(longOne.Str(), "lv");
  EXPECT_NE(shallow.Tag(), longOne.Tag());
  EXPECT_EQ(std::string(shallow.Tag()), std::string(300, 'L'));
  InstrRecord untouched;
  untouched = longOne;  // destroyed without freeing longOne's block
  delete copy;
}

// ---------------------------------------------------------------------------
// Cursor, searching and editing

TEST(InstrCursor, SeekAndCurrentItem) {
  InstrHandle h;
  char* tag = nullptr;
  char* value = nullptr;
  EXPECT_EQ(h.CurrentItem(tag, value), InstrTypeBOF);
  EXPECT_EQ(h.NextItem(tag, value), InstrTypeEOF);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(h.PrevItem(tag, value), InstrTypeBOF);

  MemDoc d("Korvalis Data File\nR1 = 1\nS\n{\nA = a\nI\n{\n}\nB = b\n}\nR2 = 2\n");
  ASSERT_TRUE(d.h.Read());
  InstrHandle& c = d.h;
  EXPECT_EQ(c.NextItem(tag, value), InstrTypeRecord);
  EXPECT_STREQ(tag, "R1");
  EXPECT_EQ(c.NextItem(tag, value), InstrTypeSection);
  EXPECT_FALSE(c.Seek(InstrTypeExit));  // no parent
  EXPECT_FALSE(c.Seek(InstrTypeUp));
  EXPECT_TRUE(c.Seek(InstrTypeEnter));
  EXPECT_EQ(c.CurrentItem(tag, value), InstrTypeBOS);
  EXPECT_STREQ(tag, "S");
  EXPECT_EQ(c.CurLine(), 3);
  EXPECT_FALSE(c.Seek(InstrTypeEnter));  // not on a section
  EXPECT_TRUE(c.Seek(InstrTypeRecord));
  EXPECT_STREQ(c.CurrentRecord()->Tag(), "A");
  EXPECT_TRUE(c.Seek(InstrTypeRecord));  // skips section I
  EXPECT_STREQ(c.CurrentRecord()->Tag(), "B");
  EXPECT_FALSE(c.Seek(InstrTypeRecord));
  EXPECT_EQ(c.CurrentItem(tag, value), InstrTypeEOS);
  EXPECT_TRUE(c.Seek(InstrTypeBOS));
  EXPECT_TRUE(c.BOS());
  EXPECT_TRUE(c.Seek(InstrTypeEOS));
  EXPECT_TRUE(c.EOS());
  EXPECT_TRUE(c.Seek(InstrTypeExit));
  EXPECT_STREQ(c.CurrentRecord()->Tag(), "S");
  EXPECT_TRUE(c.EnterSection());
  c.FirstSection("I");
  EXPECT_TRUE(c.EnterSection());
  EXPECT_TRUE(c.IsSectionEmpty());
  EXPECT_TRUE(c.Seek(InstrTypeUp));
  EXPECT_TRUE(c.BOS());
  EXPECT_STREQ(c.CurrentSection()->Tag(), "S");
  EXPECT_TRUE(c.EnterSection() == false);
  EXPECT_TRUE(c.FirstSection("I"));
  EXPECT_TRUE(c.EnterSection());
  EXPECT_TRUE(c.Seek(InstrTypeEOF));  // from deep inside
  EXPECT_TRUE(c.EOS());
  EXPECT_TRUE(c.CurrentSection()->IsRoot());
  EXPECT_EQ(c.CurrentItem(tag, value), InstrTypeEOF);
  EXPECT_EQ(c.CurLine(), 11);  // the last line read
  EXPECT_EQ(c.PrevItem(tag, value), InstrTypeRecord);
  EXPECT_STREQ(tag, "R2");
  EXPECT_EQ(c.CurLine(), 11);
  EXPECT_FALSE(c.Seek(InstrTypeSection));
  EXPECT_FALSE(c.Seek(static_cast<InstrType>(9)));
  EXPECT_FALSE(c.Seek(static_cast<InstrType>(-1)));
  EXPECT_STREQ(c.CurrentRecord()->Tag(), "R2");  // refused moves change nothing
  EXPECT_TRUE(c.Seek(InstrTypeBOF));
  EXPECT_EQ(c.CurrentItem(tag, value), InstrTypeBOF);
}

TEST(InstrCursor, Searches) {
  MemDoc d(
      "Korvalis Data File\n"
      "N = 1\nS = a\n{\n}\nN = 2\nM = 3\nS\n{\n}\nS = b\n{\n}\n"
      "Pos = 1.5,2.5\nBadPos = 3\nFile = c:\\data\\x.dat\nN = 4\n");
  InstrHandle& h = d.h;
  ASSERT_TRUE(h.Read());
  int i = 0;
  EXPECT_TRUE(h.FirstInt("N", i));
  EXPECT_EQ(i, 1);
  EXPECT_TRUE(h.NextRecord("N"));
  EXPECT_EQ(h.CurrentRecord()->Int(), 2);
  EXPECT_TRUE(h.NextRecord("X", "M"));  // the alternative name
  EXPECT_STREQ(h.CurrentRecord()->Tag(), "M");
  EXPECT_FALSE(h.NextRecord("S"));      // records only: S is a section
  EXPECT_TRUE(h.EOS());
  EXPECT_FALSE(h.NextRecord("N"));      // after the end stays false
  char* v = nullptr;
  EXPECT_TRUE(h.FirstSection("S", v));
  EXPECT_STREQ(v, "a");
  EXPECT_TRUE(h.NextSection("S", v));
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
  EXPECT_TRUE(h.EOS());

  float f = -1.0f;
  EXPECT_TRUE(h.FirstFloat("M", f));
  EXPECT_FLOAT_EQ(f, 3.0f);
  EXPECT_TRUE(h.GetFirstInt("Missing", i, 77));
  EXPECT_EQ(i, 77);
  EXPECT_TRUE(h.GetFirstFloat("M", f, 9.0f));
  EXPECT_FLOAT_EQ(f, 3.0f);
  EXPECT_TRUE(h.GetFirstFloat("Missing", f, 9.5f));
  EXPECT_FLOAT_EQ(f, 9.5f);

  float x = -1.0f, y = -1.0f;
  h.Seek(InstrTypeBOS);
  EXPECT_TRUE(h.GetPosition("Pos", x, y));
  EXPECT_FLOAT_EQ(x, 1.5f);
  EXPECT_FLOAT_EQ(y, 2.5f);
  EXPECT_FALSE(h.GetPosition("BadPos", x, y));
  EXPECT_FLOAT_EQ(x, 3.0f);
  EXPECT_FALSE(h.GetPosition("Pos", x, y));  // forward only: already passed
  EXPECT_EQ(x, 0.0f);
  EXPECT_EQ(y, 0.0f);
  h.Seek(InstrTypeBOS);
  EXPECT_TRUE(h.GetPosition("Nope", "Pos", x, y));

  // The "Prev" forms search forward from the cursor.
  h.Seek(InstrTypeBOS);
  FileName fn;
  EXPECT_TRUE(h.PrevFileName("File", fn));
  EXPECT_STREQ(*fn, "c:\\data\\x.dat");
  EXPECT_FALSE(h.PrevFileName("File", fn));
  h.Seek(InstrTypeBOS);
  pathname p;
  EXPECT_TRUE(h.PrevPathName("File", p));
  EXPECT_STREQ(*p, "c:\\data\\x.dat");
  h.Seek(InstrTypeBOS);
  EXPECT_TRUE(h.NextPathName("File", p));
  EXPECT_FALSE(h.NextPathName("File", p));
}

TEST(InstrCursor, EditingAndItsResults) {
  InstrHandle h;
  EXPECT_TRUE(h.AddInt("B", 2));
  h.Seek(InstrTypeBOS);
  EXPECT_TRUE(h.AddInt("A", 1));  // before the beginning: first
  h.Seek(InstrTypeEOS);
  EXPECT_TRUE(h.AddDouble("D", 3.14159265));
  EXPECT_TRUE(h.AddFloat("F", 0.5f));
  EXPECT_EQ(root_dump(h), "A=1@-1 B=2@-1 D=3.14159@-1 F=0.5@-1");

  h.Seek(InstrTypeBOS);
  h.NextItem();
  EXPECT_FALSE(h.SetInt("B", 20));  // existed: changed in place
  EXPECT_STREQ(h.CurrentRecord()->Tag(), "B");
  EXPECT_TRUE(h.SetInt("C", 30));   // added at the end
  EXPECT_STREQ(h.CurrentRecord()->Tag(), "C");
  EXPECT_FALSE(h.SetStr("A", "one"));
  EXPECT_TRUE(h.SetFileName("FN", FileName("c:\\f.txt")));
  EXPECT_FALSE(h.SetPathName("FN", pathname("c:\\dir\\g.txt")));
  EXPECT_TRUE(h.SetPathName("PN", pathname("c:\\p.txt")));
  EXPECT_EQ(root_dump(h), "A=one@-1 B=20@-1 D=3.14159@-1 F=0.5@-1 C=30@-1 FN=c:\\dir\\g.txt@-1 PN=c:\\p.txt@-1");

  h.FirstRecord("D");
  EXPECT_TRUE(h.ChangeInt(4));
  EXPECT_TRUE(h.ChangeDouble(1.0 / 3.0));
  EXPECT_STREQ(h.CurrentRecord()->Str(), "0.333333");
  EXPECT_TRUE(h.ChangeFloat(1.5f));
  EXPECT_TRUE(h.ChangeStr(nullptr));
  EXPECT_STREQ(h.CurrentRecord()->Str(), "");
  EXPECT_TRUE(h.ChangeFileName(FileName("a.b")));
  EXPECT_STREQ(h.CurrentRecord()->Str(), "a.b");
  EXPECT_TRUE(h.ChangePathName(pathname("c:\\x\\y")));
  EXPECT_STREQ(h.CurrentRecord()->Str(), "c:\\x\\y");
  EXPECT_TRUE(h.DeleteItem());
  EXPECT_STREQ(h.CurrentRecord()->Tag(), "F");  // moved to the following item
  h.Seek(InstrTypeEOS);
  EXPECT_FALSE(h.ChangeInt(1));  // off the items
  EXPECT_FALSE(h.DeleteItem());

  // Sections: SetSection finds or appends, AddSection stays outside.
  h.Seek(InstrTypeBOS);
  EXPECT_TRUE(h.SetSection("Sec", "v1"));
  EXPECT_STREQ(h.CurrentRecord()->Tag(), "Sec");
  EXPECT_EQ(h.CurrentSection(), h.CurrentRecord()->Root());
  h.Seek(InstrTypeBOS);
  EXPECT_TRUE(h.SetSection("Sec", "v1"));
  EXPECT_EQ(h.CurrentSection()->Count(), 7);
  EXPECT_TRUE(h.EnterSection());
  h.AddStr("X", "1");
  h.AddStr("Y", "2");
  EXPECT_TRUE(h.ChangeSection("Renamed", nullptr));
  EXPECT_STREQ(h.CurrentSection()->Tag(), "Renamed");
  EXPECT_STREQ(h.CurrentSection()->Str(), "v1");
  EXPECT_TRUE(h.ChangeSection("Renamed", "v2"));
  EXPECT_STREQ(h.CurrentSection()->Str(), "v2");
  EXPECT_TRUE(h.ClearSection());
  EXPECT_TRUE(h.IsSectionEmpty());
  EXPECT_TRUE(h.BOS());
  EXPECT_TRUE(h.ClearFile());
  EXPECT_TRUE(h.CurrentSection()->IsRoot());
  EXPECT_TRUE(h.IsSectionEmpty());
}

TEST(InstrCursor, SectionIteratorInsertion) {
  InstrHandle h;
  h.AddSection("S", nullptr);
  auto* s = static_cast<InstrSection*>(h.CurrentRecord());
  InstrSectionIter it(s);
  auto* b = new InstrRecordElt("b", "");
  it.Add(b);
  it.InsertBefore(new InstrRecordElt("a", ""));
  EXPECT_STREQ(it.CurrentItem()->Tag(), "a");
  it.InsertAfter(b, new InstrRecordElt("d", ""));
  it.InsertBefore(static_cast<InstrRecord*>(nullptr), new InstrRecordElt("e", ""));  // at the back
  it.InsertAfter(static_cast<InstrRecord*>(b), new InstrRecordElt("c", ""));
  EXPECT_STREQ(it.CurrentItem()->Tag(), "a");
  EXPECT_EQ(dump(s), "a=@-1 b=@-1 c=@-1 d=@-1 e=@-1");
  EXPECT_STREQ(it.LastItem()->Tag(), "e");
  EXPECT_STREQ(it.PrevItem()->Tag(), "d");
  it.GoTo(b);
  it.DeleteRecord();
  EXPECT_STREQ(it.CurrentItem()->Tag(), "c");
  EXPECT_TRUE(it.FirstMatch("e", false));
  EXPECT_FALSE(it.FirstMatch("e", true));
  InstrSectionIter copy(it);
  EXPECT_EQ(copy.CurrentItem(), it.CurrentItem());
  it.ClearRecords();
  EXPECT_EQ(it.FirstItem(), nullptr);
  EXPECT_EQ(copy.CurrentItem(), nullptr);  // moved to the beginning
  it.UseSection(nullptr);
  EXPECT_EQ(it.CurrentSection(), nullptr);
  EXPECT_EQ(it.NextItem(), nullptr);
}

// ---------------------------------------------------------------------------
// Handles, sharing and the registry

TEST(InstrHandles, ConstructionStates) {
  InstrHandle none;
  EXPECT_TRUE(none);
  EXPECT_NE(static_cast<void*>(none), nullptr);
  pathname bad("c:\\bad|name?<>");
  InstrHandle invalid(bad);
  EXPECT_FALSE(invalid);
  EXPECT_TRUE(!invalid);
  EXPECT_EQ(static_cast<void*>(invalid), nullptr);
  InstrHandle nullText(static_cast<void*>(nullptr));
  EXPECT_TRUE(!nullText);
  char path[] = "c:\\tmp\\x.dat";
  InstrHandle fromChars(path);
  EXPECT_TRUE(fromChars);
  EXPECT_STREQ(*fromChars.Path(), "c:\\tmp\\x.dat");
  InstrHandle copy(invalid);
  EXPECT_TRUE(!copy);
}

TEST(InstrHandles, SharedReadsAndReleaseOrder) {
  kvtest::TempDir dir;
  kvtest::write_file(dir.file("shared.dat"), "Korvalis Data File\r\nA = 1\r\n");
  const std::string path = dos(dir.file("shared.dat"));
  auto* first = new InstrHandle(path.c_str());
  ASSERT_TRUE(first->Read());
  auto* second = new InstrHandle(path.c_str());
  // The file changes on disk: a shared read does not look at it.
  kvtest::write_file(dir.file("shared.dat"), "Korvalis Data File\r\nA = 2\r\n");
  ASSERT_TRUE(second->Read(IHReadShared));
  int a = 0;
  EXPECT_TRUE(second->FirstInt("A", a));
  EXPECT_EQ(a, 1);
  second->ChangeInt(5);
  EXPECT_TRUE(first->FirstInt("A", a));
  EXPECT_EQ(a, 5);  // one tree
  InstrHandle third(path.c_str());
  ASSERT_TRUE(third.Read());  // not shared: a fresh read
  EXPECT_TRUE(third.FirstInt("A", a));
  EXPECT_EQ(a, 2);

  delete first;  // the tree stays for the second handle
  EXPECT_TRUE(second->FirstInt("A", a));
  EXPECT_EQ(a, 5);
  InstrHandle fourth(path.c_str());
  ASSERT_TRUE(fourth.Read(IHReadShared));  // shares with the first equal path: second
  EXPECT_TRUE(fourth.FirstInt("A", a));
  EXPECT_EQ(a, 5);
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
  auto* s = static_cast<InstrSection*>(owner.CurrentRecord());
  {
    InstrHandle inner(s);
    char* tag = nullptr;
    char* value = nullptr;
    EXPECT_EQ(inner.CurrentItem(tag, value), InstrTypeBOS);
    EXPECT_STREQ(tag, "S");
    EXPECT_TRUE(inner.FirstRecord("I"));
    EXPECT_TRUE(inner.Seek(InstrTypeBOF));  // up to the tree's root
    EXPECT_TRUE(inner.FirstSection("S"));
    InstrHandle copy(inner);
    EXPECT_EQ(copy.CurrentRecord(), inner.CurrentRecord());
  }
  // Both sharers are gone; the owner still has its tree.
  EXPECT_TRUE(owner.FirstSection("S"));
  {
    InstrHandle user;
    user.UseRoot(&owner);
    EXPECT_TRUE(user.FirstSection("S"));
    user.AddInt("J", 2);
  }
  EXPECT_TRUE(owner.FirstRecord("J"));

  // UseRoot on a tree nobody else uses takes it over.
  auto* made = new InstrSection("", "", 0);
  made->InsertEnd(new InstrRecordElt("K", "3"));
  InstrHandle taker;
  taker.UseRoot(made);
  EXPECT_TRUE(taker.FirstRecord("K"));
}

TEST(InstrHandles, RegistryMisuseAborts) {
  HandleList* registry = HandleList::Registry();
  ASSERT_NE(registry, nullptr);
  const int before = registry->Handles();
  {
    InstrHandle h;
    EXPECT_EQ(registry->Handles(), before + 1);
    try {
      registry->AddHandle(nullptr);
      ADD_FAILURE() << "no abort";
    } catch (const SysManagerError& e) {
      EXPECT_NE(std::string(e.what()).find("Instrfil HandleList::AddHandle(): NULL handle insert!"), std::string::npos);
    }
    try {
      registry->AddHandle(&h);
      ADD_FAILURE() << "no abort";
    } catch (const SysManagerError& e) {
      EXPECT_NE(std::string(e.what()).find("Instrfil HandleList::AddHandle() handle already in list!"),
                std::string::npos);
    }
    registry->RemoveHandle(&h);
    try {
      registry->RemoveHandle(&h);
      ADD_FAILURE() << "no abort";
    } catch (const SysManagerError& e) {
      EXPECT_NE(std::string(e.what()).find("instrfil HandleList::RemoveHandle() handle to remove not found!"),
                std::string::npos);
    }
    registry->AddHandle(&h);
  }
  EXPECT_EQ(registry->Handles(), before);
}

TEST(InstrHandles, TreesLiveInTheHeapHoldingTheHandle) {
  heap home("instrhome");
  auto* h = new (&home, "tests/instr", __LINE__) InstrHandle(static_cast<void*>(nullptr));
  char* text = block_of("Korvalis Data File\nS\n{\n" + std::string(300, 't') + " = 1\n}\n");
  h->Buf(text);
  ASSERT_TRUE(h->Read());
  ASSERT_TRUE(h->FirstSection("S"));
  EXPECT_EQ(heapman_mgr::find(h->CurrentRecord()), &home);
  h->EnterSection();
  h->NextItem();
  EXPECT_EQ(heapman_mgr::find(h->CurrentRecord()->Tag()), &home);
  ASSERT_TRUE(h->Write());
  EXPECT_EQ(heapman_mgr::find(h->Buf()), &home);
  h->~InstrHandle();
  KvOperatorDelete(h);
  KvOperatorDelete(text);
}

TEST(InstrHandles, AFullHeapHandsOverToTheRuntimeLibrary) {
  heap small("instrfull");
  // Fill the heap until it refuses.
  std::vector<void*> blocks;
  try {
    for (;;) blocks.push_back(::operator new(1 << 22, &small, "tests/instr", __LINE__));
  } catch (const CSL::Heap::HeapError&) {
  }
  ASSERT_FALSE(blocks.empty());
  // A handle in the full heap: its tree still reads and writes.
  void* place = nullptr;
  while (place == nullptr && !blocks.empty()) {
    KvOperatorDelete(blocks.back());
    blocks.pop_back();
    try {
      place = ::operator new(sizeof(InstrHandle), &small, "tests/instr", __LINE__);
    } catch (const CSL::Heap::HeapError&) {
    }
  }
  ASSERT_NE(place, nullptr);
  // Take what is left, so that nothing more fits.
  try {
    for (;;) blocks.push_back(::operator new(64, &small, "tests/instr", __LINE__));
  } catch (const CSL::Heap::HeapError&) {
  }
  auto* full = new (place) InstrHandle(static_cast<void*>(nullptr));
  char* text = block_of("Korvalis Data File\nS\n{\n" + std::string(300, 't') + " = 1\n}\n");
  full->Buf(text);
  EXPECT_TRUE(full->Read());
  EXPECT_TRUE(full->FirstSection("S"));
  EXPECT_EQ(heapman_mgr::find(full->CurrentRecord()), nullptr);
  EXPECT_EQ(written(*full), "Korvalis Data File\r\n\r\nS\r\n{\r\n\t" + std::string(300, 't') + " = 1\r\n}\r\n");
  full->~InstrHandle();
  KvOperatorDelete(full);
  KvOperatorDelete(text);
  for (void* b : blocks) KvOperatorDelete(b);
}

// ---------------------------------------------------------------------------
// The procedural interface

TEST(InstrFlat, NullHandles) {
  kvtest::CaptureSink sink;
  kvtest::CategoryScope on(dbgA);
  EXPECT_FALSE(InstrRead(nullptr, IHReadNone));
  EXPECT_NE(sink.text().find("No instr handle"), std::string::npos);
  sink.clear();
  FileName name;
  char* v = nullptr;
  int i = 0;
  float f = 0;
  char n[] = "n";
  EXPECT_FALSE(InstrFileName(nullptr, name));
  EXPECT_FALSE(InstrRename(nullptr, name));
  EXPECT_EQ(sink.text(), "");
  const bool results[] = {
      InstrWrite(nullptr),           InstrSeek(nullptr, InstrTypeBOF), InstrEnterSection(nullptr),
      InstrExitSection(nullptr),     InstrFirstRecord(nullptr, n),     InstrNextRecord(nullptr, n),
      InstrFirstSection(nullptr, n), InstrNextSection(nullptr, n),     InstrFirstStr(nullptr, n, v),
      InstrNextStr(nullptr, n, v),   InstrFirstInt(nullptr, n, i),     InstrFirstFloat(nullptr, n, f),
      InstrPrevFileName(nullptr, n, name), InstrAddInt(nullptr, n, 1), InstrAddFloat(nullptr, n, 1),
      InstrAddDouble(nullptr, n, 1), InstrChangeInt(nullptr, 1),       InstrChangeFloat(nullptr, 1),
      InstrChangeDouble(nullptr, 1), InstrChangeStr(nullptr, n),       InstrChangeFileName(nullptr, name),
      InstrSetFileName(nullptr, n, name), InstrDeleteItem(nullptr),    InstrClearSection(nullptr)};
  size_t messages = 0;
  for (const auto& e : sink.entries())
    if (e.text.find("No instr handle") != std::string::npos) ++messages;
  for (bool r : results) EXPECT_FALSE(r);
  EXPECT_EQ(messages, sizeof results / sizeof results[0]);
  InstrDestroy(nullptr);
}

TEST(InstrFlat, FullCycleAndRename) {
  kvtest::TempDir dir;
  FileName first(dos(dir.file("first.dat")).c_str());
  void* h = InstrCreate(first);
  ASSERT_NE(h, nullptr);
  char a[] = "A";
  char s[] = "S";
  char fnTag[] = "F";
  EXPECT_TRUE(InstrRead(h, IHReadNone));
  EXPECT_TRUE(InstrAddInt(h, a, 1));
  EXPECT_TRUE(InstrAddSection(h, "S"));
  EXPECT_TRUE(InstrEnterSection(h));
  EXPECT_TRUE(InstrAddFloat(h, a, 2.5f));
  EXPECT_TRUE(InstrAddDouble(h, fnTag, 0.1));
  EXPECT_TRUE(InstrChangeSection(h, "S2"));
  EXPECT_TRUE(InstrSetSection(h, "Inner"));
  EXPECT_TRUE(InstrExitSection(h));
  EXPECT_TRUE(InstrSetFileName(h, "F", FileName("c:\\one")));
  EXPECT_FALSE(InstrSetFileName(h, "F", FileName("c:\\two")));  // changed, but not added
  EXPECT_TRUE(InstrWrite(h));
  const std::string firstText = kvtest::read_file(dir.file("first.dat"));
  EXPECT_EQ(firstText,
            "Korvalis Data File\r\n\r\nA = 1\r\nS2\r\n{\r\n\tA = 2.5\r\n\tF = 0.1\r\n\tInner\r\n\t{\r\n\t}\r\n}"
            "\r\nF = c:\\two\r\n");

  FileName second(dos(dir.file("second.dat")).c_str());
  EXPECT_TRUE(InstrRename(h, second));
  FileName now;
  EXPECT_TRUE(InstrFileName(h, now));
  EXPECT_STREQ(*now, *second);
  EXPECT_TRUE(InstrSeek(h, InstrTypeBOF));
  EXPECT_TRUE(InstrFirstRecord(h, a));
  EXPECT_TRUE(InstrChangeInt(h, 9));
  EXPECT_TRUE(InstrWrite(h));
  EXPECT_EQ(kvtest::read_file(dir.file("first.dat")), firstText);  // untouched
  EXPECT_NE(kvtest::read_file(dir.file("second.dat")).find("A = 9\r\n"), std::string::npos);
  InstrDestroy(h);

  void* r = InstrCreate(second);
  ASSERT_TRUE(InstrRead(r, IHReadMustExist));
  char* tag = nullptr;
  char* value = nullptr;
  EXPECT_EQ(InstrNextItem(r, tag, value), InstrTypeRecord);
  EXPECT_STREQ(value, "9");
  EXPECT_EQ(InstrNextItem(r, tag, value), InstrTypeSection);
  EXPECT_EQ(InstrPrevItem(r, tag, value), InstrTypeRecord);
  EXPECT_EQ(InstrCurrentItem(r, tag, value), InstrTypeRecord);
  int i = 0;
  float f = 0;
  EXPECT_TRUE(InstrFirstInt(r, a, i));
  EXPECT_EQ(i, 9);
  EXPECT_TRUE(InstrFirstSection(r, s) == false);  // it is called S2 now
  char s2[] = "S2";
  EXPECT_TRUE(InstrFirstSection(r, s2));
  EXPECT_TRUE(InstrEnterSection(r));
  EXPECT_TRUE(InstrFirstFloat(r, a, f));
  EXPECT_FLOAT_EQ(f, 2.5f);
  char* str = nullptr;
  EXPECT_TRUE(InstrFirstStr(r, fnTag, str));
  EXPECT_STREQ(str, "0.1");
  EXPECT_FALSE(InstrNextStr(r, fnTag, str));
  char inner[] = "Inner";
  EXPECT_TRUE(InstrSeek(r, InstrTypeBOS));
  EXPECT_TRUE(InstrNextSection(r, inner));
  EXPECT_TRUE(InstrDeleteItem(r));
  EXPECT_TRUE(InstrSeek(r, InstrTypeBOS));
  EXPECT_TRUE(InstrNextRecord(r, a));
  EXPECT_TRUE(InstrChangeStr(r, a));
  EXPECT_TRUE(InstrChangeFloat(r, 1.25f));
  EXPECT_TRUE(InstrChangeDouble(r, 2.0));
  EXPECT_TRUE(InstrChangeFileName(r, FileName("c:\\z")));
  char* cur = nullptr;
  EXPECT_TRUE(InstrFirstStr(r, a, cur));
  EXPECT_STREQ(cur, "c:\\z");
  EXPECT_TRUE(InstrClearSection(r));
  EXPECT_TRUE(InstrExitSection(r));
  FileName out;
  EXPECT_TRUE(InstrSeek(r, InstrTypeBOF));
  char fTag[] = "F";
  EXPECT_TRUE(InstrPrevFileName(r, fTag, out));
  EXPECT_STREQ(*out, "c:\\two");
  InstrDestroy(r);
}

}  // namespace
