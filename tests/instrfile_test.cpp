// Instrument parameter files: the text reader and writer, the tree and its
// cursor, sharing of trees between handles, and the Instr* functions.
#include <gtest/gtest.h>

#include <algorithm>
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

using namespace std::string_literals;
using kvtest::dos_path;

class HeapsEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { heapman_mgr::initialize(); }
};
const auto* const kHeaps = ::testing::AddGlobalTestEnvironment(new HeapsEnvironment);

const std::string kHeader = "Korvalis Data File\n";

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
      out += (inner.empty() ? "" : " ") + inner + ']';
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

// The flat functions take names as char*; they only read them.
char* name(const char* s) { return const_cast<char*>(s); }

// Where the cursor stands: "tag=value" of a record, "[tag=value]" of a
// section, or BOF, EOF, "BOS:tag=value", "EOS:tag=value"; then "@line" unless
// the line is unknown (-1).
std::string at(InstrHandle& h) {
  char* tag = nullptr;
  char* value = nullptr;
  const InstrType t = InstrCurrentItem(&h, tag, value);
  const char* const ends[] = {"BOF", "EOF", "BOS:", "EOS:"};
  std::string s = t <= InstrTypeEOS ? ends[t] : "";
  if (t >= InstrTypeBOS) s += std::string(tag) + "=" + (value != nullptr ? value : h.CurrentSection()->Str());
  if (t == InstrTypeSection) s = "[" + s + "]";
  return h.CurLine() >= 0 ? s + "@" + std::to_string(h.CurLine()) : s;
}

// A step of a script on a handle, with what it gives: "1 A=x@2" means the
// call answered true and left the cursor on record A of line 2.
using Step = std::pair<std::function<bool()>, std::string>;
#define DO(call, expected) \
  Step { [&] { return bool(call); }, expected }

void run(InstrHandle& h, const std::vector<Step>& steps) {
  for (size_t n = 0; n < steps.size(); ++n) {
    const bool result = steps[n].first();
    EXPECT_EQ(std::to_string(result) + " " + at(h), steps[n].second) << "step " << n;
  }
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
}

TEST(InstrWrite, OutputBufferDoublesFromFourKilobytes) {
  InstrBuffer b;
  b.Append(std::string(4095, 'a').c_str());  // with the terminator: exactly the first 4096 bytes
  const size_t first = b.capacity;
  b.Append('b');
  const size_t second = b.capacity;
  b.Append(std::string(20000, 'c').c_str());
  EXPECT_EQ(std::vector<size_t>({first, second, b.capacity}), std::vector<size_t>({4096, 8192, 32768}));
  EXPECT_EQ(std::string(b.text), std::string(4095, 'a') + 'b' + std::string(20000, 'c'));
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
  EXPECT_EQ(root_dump(d.h),
            "TagA=1.0@4 [SectionB=head@6 TagC=200@8 =bare words here@9 A = x=y@11 =path # not a comment@12] "
            "Trail=spaced  value@14 [Sub=@15]");
  d.h.Seek(InstrTypeEOF);
  EXPECT_EQ(d.h.CurLine(), 17);

  MemDoc c("Long\\= first \\\n     second\\\n# comment between\n   third\nPlain = a\\b\nCr = x\ry\r\r\n");
  c.h.SetHeaderName(nullptr);
  ASSERT_TRUE(c.h.Read());
  EXPECT_EQ(root_dump(c.h), "Long=first secondthird@4 Plain=a\\b@5 Cr=xy@6");
}

// One handle reads each text in turn: its result, message, line and the tree it keeps.
TEST(InstrRead, EveryOutcomeHasItsMessageLineAndTree) {
  struct Case {
    std::string text;
    const char* message;  // null: read
    int line;
    std::string kept;
  };
  const Case cases[] = {
      {"Not the header\nA = 1\n", "Bad header", 1, ""},
      {"\n\n# c\nKorvalis Data Fil\n", "Bad header", 4, ""},
      {"\n\nx\n", "Bad header", 3, ""},
      {kHeader + "A = 1\n{\n{\n{\n}\n}\n", "Missing section name", 4, "[A=1@2]"},
      {kHeader + std::string(257, 'n') + "\n{\n}\n", "Tag too long", 2, ""},
      {kHeader + std::string(256, 'n') + "\n{\n}\n", nullptr, 0, "[" + std::string(256, 'n') + "=@2]"},
      {kHeader + "S\n{\nA = 1\n} x\n", "Syntax error", 5, "[S=@2 A=1@4]"},
      {kHeader + "S\n{\n}= 3\n", "Syntax error", 4, "[S=@2]"},
      {kHeader + "A = 1\n\n}\nB = 2\n", "Mismatched braces", 4, "A=1@2"},
      {kHeader + "S\n{\nT\n{\nA = 1\n}\n", "Mismatched braces", 7, "[S=@2 [T=@4 A=1@6]]"},
      {kHeader + "A = 1\nB = 2\0\nC = 3\n}\n"s, nullptr, 0, "A=1@2 B=2@3"},  // a NUL byte ends the text
      {"", nullptr, 0, ""},  // empty documents
      {" \r\n\t\n", nullptr, 0, ""},
      {"# only\n#comments", nullptr, 0, ""},
  };
  InstrHandle h(static_cast<void*>(nullptr));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    char* text = block_of(c.text);
    h.Buf(text);
    EXPECT_EQ(h.Read(), c.message == nullptr);
    EXPECT_STREQ(h.ErrStr(), c.message);
    EXPECT_EQ(!h, c.message != nullptr);
    EXPECT_EQ(h.CurLine(), c.line);
    EXPECT_EQ(root_dump(h), c.kept);
    KvOperatorDelete(text);
  }
}

TEST(InstrRead, HundredThousandNestedSectionsAreReadCopiedWrittenAndDestroyedWithoutRecursion) {
  constexpr int kDepth = 100000;
  std::string deep = kHeader;
  for (int i = 0; i < kDepth; ++i) deep += "S\n{\n";
  deep += "A = 1\n";
  for (int i = 0; i < kDepth; ++i) deep += "}\n";
  auto* nested = new MemDoc(deep);
  ASSERT_TRUE(nested->h.Read());
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
  auto word = [&](size_t maxLength) {
    std::string w;
    for (size_t i = 1 + rng() % maxLength; i > 0; --i) w += "abcXYZ019 _.,;:/\\!?"[rng() % 19];
    while (!w.empty() && (w.back() == ' ' || w.back() == '\\')) w.pop_back();
    return w.empty() || w.front() == ' ' ? "w" + w : w;
  };
  for (int i = static_cast<int>(rng() % 6); i > 0 && items < 3000; --i, ++items) {
    const int kind = static_cast<int>(rng() % 5);
    if (kind == 0 && depth < 5) {
      h.AddSection(word(12).c_str(), rng() % 2 == 0 ? nullptr : word(20).c_str());
      h.EnterSection();
      build(h, rng, depth + 1, items);
      h.ExitSection();
    } else {  // bare values, long texts on the heap, short records
      h.AddStr(kind == 1 ? "" : word(kind == 2 ? 300 : 10).c_str(), word(kind == 2 ? 400 : 40).c_str());
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
  EXPECT_EQ(std::string(r->Str()) + " " + std::to_string(r->Int()) + " " + std::to_string(r->Double()) + " " +
                std::to_string(r->Bool()),
            "-42 -42 -42.000000 1");
  r->Bool(true);
  EXPECT_STREQ(r->Str(), "1");
  r->Bool(false);
  EXPECT_EQ(std::string(r->Str()) + std::to_string(r->Bool()), "00");
  delete r;
}

// One tree read, and the handles, copies and records made from it.
TEST(InstrTrees, CopiesSectionHandlesUseRootAndTheRegistry) {
  HandleList* registry = HandleList::Registry();
  const int before = registry->Handles();
  {
    MemDoc d(kHeader + "S = sv\n{\n" + std::string(400, 'k') + " = long\nT\n{\nI = 1\n}\n}\n");
    ASSERT_TRUE(d.h.Read() && d.h.NextItem());
    auto* s = static_cast<InstrSection*>(d.h.CurrentRecord());
    InstrRecord* copy = s->DupTree();
    EXPECT_EQ(dump(static_cast<InstrSection*>(copy)), dump(s));
    s->Str("changed");
    EXPECT_STREQ(copy->Str(), "sv");
    delete copy;
    {
      InstrHandle inner(s);
      EXPECT_EQ(at(inner), "BOS:S=changed@2");
      EXPECT_TRUE(inner.Seek(InstrTypeBOF) && inner.FirstSection("S"));  // up to the tree's root
      InstrHandle twin(inner);
      EXPECT_EQ(twin.CurrentRecord(), inner.CurrentRecord());
      EXPECT_EQ(registry->Handles(), before + 3);
    }
    {  // both sharers are gone; the reader still has its tree
      InstrHandle user;
      user.UseRoot(&d.h);
      EXPECT_TRUE(user.FirstSection("S") && user.AddInt("J", 2));
      EXPECT_EQ(kvtest::abort_text([&] { registry->AddHandle(nullptr); }),
                "Instrfil HandleList::AddHandle(): NULL handle insert!");
      EXPECT_EQ(kvtest::abort_text([&] { registry->AddHandle(&user); }),
                "Instrfil HandleList::AddHandle() handle already in list!");
      registry->RemoveHandle(&user);
      EXPECT_EQ(kvtest::abort_text([&] { registry->RemoveHandle(&user); }),
                "instrfil HandleList::RemoveHandle() handle to remove not found!");
      registry->AddHandle(&user);
    }
    EXPECT_TRUE(d.h.FirstRecord("J"));
  }
  EXPECT_EQ(registry->Handles(), before);

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
  char* t = nullptr;
  char* v = nullptr;
  InstrHandle empty;
  run(empty, {DO(InstrNextItem(&empty, t, v) == InstrTypeEOF, "1 EOF@0"),
              DO(InstrPrevItem(&empty, t, v) == InstrTypeBOF, "1 BOF@0")});
  MemDoc d(kHeader + "R1 = 1\nS\n{\nA = a\nI\n{\n}\nB = b\n}\nR2 = 2\n");
  InstrHandle& h = d.h;
  void* const p = &h;
  ASSERT_TRUE(h.Read());
  run(h, {
             DO(InstrNextItem(p, t, v) == InstrTypeRecord, "1 R1=1@2"),
             DO(InstrNextItem(p, t, v) == InstrTypeSection, "1 [S=]@3"),
             DO(InstrExitSection(p) || InstrSeek(p, InstrTypeUp), "0 [S=]@3"),  // no parent
             DO(InstrEnterSection(p), "1 BOS:S=@3"),
             DO(InstrEnterSection(p), "0 BOS:S=@3"),  // not on a section
             DO(InstrSeek(p, InstrTypeRecord), "1 A=a@5"),
             DO(InstrSeek(p, InstrTypeRecord), "1 B=b@9"),  // skips section I
             DO(InstrSeek(p, InstrTypeRecord), "0 EOS:S=@3"),
             DO(InstrExitSection(p), "1 [S=]@3"),
             DO(h.EnterSection() && h.FirstSection("I") && h.EnterSection(), "1 BOS:I=@6"),
             DO(h.Seek(InstrTypeUp), "1 BOS:S=@3"),
             DO(h.FirstSection("I") && h.EnterSection() && h.Seek(InstrTypeEOF), "1 EOF@11"),  // from deep inside
             DO(InstrPrevItem(p, t, v) == InstrTypeRecord, "1 R2=2@11"),
             DO(h.Seek(InstrTypeSection) || h.Seek(InstrType(9)) || h.Seek(InstrType(-1)), "0 R2=2@11"),
             DO(h.Seek(InstrTypeBOS), "1 BOF@0"),
             DO(h.PrevItem(), "0 BOF@0"),
             DO(h.Seek(InstrTypeEOS), "1 EOF@11"),
         });
}

TEST(InstrCursor, Searches) {
  MemDoc d(kHeader + "N = 1\nS = a\n{\n}\nN = 2\nM = 3\nS\n{\n}\nS = b\n{\n}\nPos = 1.5,2.5\nBadPos = 3\n" +
           "File = c:\\data\\x.dat\nN = 4\n");
  InstrHandle& h = d.h;
  void* const p = &h;
  ASSERT_TRUE(h.Read());
  int i = 0;
  float f = -1.0f, x = -1.0f, y = -1.0f;
  char* v = nullptr;
  FileName fn;
  pathname path;
  run(h, {
             DO(InstrFirstInt(p, name("N"), i) && i == 1 && InstrNextRecord(p, name("N")), "1 N=2@6"),
             DO(h.NextRecord("X", "M"), "1 M=3@7"),          // the alternative name
             DO(InstrNextRecord(p, name("S")), "0 EOF@17"),  // records only: S is a section
             DO(InstrNextRecord(p, name("N")), "0 EOF@17"),  // nothing after the end
             DO(h.FirstSection("S", v) && std::string(v) == "a" && h.NextSection("S", v) && *v == '\0', "1 [S=]@8"),
             DO(InstrFirstSection(p, name("N")), "0 EOF@17"),
             DO(InstrFirstSection(p, name("S")) && InstrNextSection(p, name("S")), "1 [S=]@8"),
             DO(InstrFirstStr(p, name("N"), v) && InstrNextStr(p, name("N"), v) && std::string(v) == "2", "1 N=2@6"),
             DO(h.PrevMatch("N", false), "1 N=1@2"),
             DO(h.PrevMatch("N", false), "0 BOF@0"),
             DO(h.FindSection("S", "b"), "1 [S=b]@11"),
             DO(InstrNextSection(p, name("S")) || InstrNextStr(p, name("Nope"), v), "0 EOF@17"),
             DO(h.Seek(InstrTypeBOS) && h.FindSection("S", nullptr), "1 [S=]@8"),  // the one with an empty value
             DO(h.FindSection("S", "zzz"), "0 EOF@17"),
             DO(h.GetFirstInt("Missing", i, 77) && i == 77, "1 EOF@17"),
             DO(InstrFirstFloat(p, name("M"), f) && f == 3.0f, "1 M=3@7"),
             DO(h.GetFirstFloat("M", f, 9.0f) && f == 3.0f, "1 M=3@7"),
             DO(h.GetFirstFloat("Missing", f, 9.5f) && f == 9.5f, "1 EOF@17"),
             DO(h.Seek(InstrTypeBOS) && h.GetPosition("Pos", x, y) && x == 1.5f && y == 2.5f, "1 Pos=1.5,2.5@14"),
             DO(h.GetPosition("BadPos", x, y), "0 BadPos=3@15"),
             DO(h.GetPosition("Pos", x, y) || x != 0.0f || y != 0.0f, "0 EOF@17"),  // forward only; zeros
             DO(h.Seek(InstrTypeBOS) && h.GetPosition("Nope", "Pos", x, y), "1 Pos=1.5,2.5@14"),
             // The "Prev" forms search forward from the cursor.
             DO(InstrPrevFileName(p, name("File"), fn) && std::string(*fn) == "c:\\data\\x.dat",
                "1 File=c:\\data\\x.dat@16"),
             DO(InstrPrevFileName(p, name("File"), fn), "0 EOF@17"),
             DO(h.Seek(InstrTypeBOS) && h.PrevPathName("File", path) && std::string(*path) == "c:\\data\\x.dat",
                "1 File=c:\\data\\x.dat@16"),
             DO(h.NextPathName("File", path), "0 EOF@17"),
         });
}

TEST(InstrCursor, EditingAndItsResults) {
  InstrHandle h;
  void* const p = &h;
  run(h, {
             DO(InstrAddInt(p, name("B"), 2), "1 B=2"),
             DO(InstrSeek(p, InstrTypeBOS) && InstrAddInt(p, name("A"), 1), "1 A=1"),  // before the beginning: first
             DO(InstrSeek(p, InstrTypeEOS) && InstrAddDouble(p, name("D"), 3.14159265), "1 D=3.14159"),  // 6 digits
             DO(InstrAddFloat(p, name("F"), 0.5f), "1 F=0.5"),
             DO(h.Seek(InstrTypeBOS) && h.SetInt("B", 20), "0 B=20"),  // existed: changed in place
             DO(h.SetInt("C", 30), "1 C=30"),                            // added at the end
             DO(h.SetStr("A", "one"), "0 A=one"),
             DO(InstrSetFileName(p, "FN", FileName("c:\\f.txt")), "1 FN=c:\\f.txt"),
             DO(InstrSetFileName(p, "FN", FileName("c:\\dir\\g.txt")), "0 FN=c:\\dir\\g.txt"),
             DO(h.SetPathName("PN", pathname("c:\\p.txt")), "1 PN=c:\\p.txt"),
             DO(InstrFirstRecord(p, name("D")) && InstrChangeInt(p, 4), "1 D=4"),
             DO(InstrChangeDouble(p, 1.0 / 3.0), "1 D=0.333333"),
             DO(InstrChangeFloat(p, 1.5f), "1 D=1.5"),
             DO(InstrChangeStr(p, nullptr), "1 D="),
             DO(InstrChangeFileName(p, FileName("a.b")), "1 D=a.b"),
             DO(h.ChangePathName(pathname("c:\\x\\y")), "1 D=c:\\x\\y"),
             DO(InstrDeleteItem(p), "1 F=0.5"),  // moves to the following item
             DO(InstrSeek(p, InstrTypeEOS) && (InstrChangeInt(p, 1) || InstrDeleteItem(p)), "0 EOF@0"),  // off the items
             // Sections: SetSection finds or appends, and stays outside.
             DO(h.Seek(InstrTypeBOS) && h.SetSection("Sec", "v1"), "1 [Sec=v1]"),
             DO(h.Seek(InstrTypeBOS) && h.SetSection("Sec", "v1") && h.EnterSection(), "1 BOS:Sec=v1"),
             DO(h.AddStr("X", "1") && InstrChangeSection(p, "Renamed"), "1 X=1"),  // a null value stays
             DO(h.Seek(InstrTypeEOS) && h.ChangeSection("Renamed", "v2"), "1 EOS:Renamed=v2"),
             DO(InstrAddSection(p, "T") && InstrSeek(p, InstrTypeBOS) && InstrSetSection(p, "T"), "1 [T=]"),
             DO(InstrSetSection(p, "U"), "1 [U=]"),  // searched from the cursor
         });
  EXPECT_EQ(root_dump(h),
            "A=one@-1 B=20@-1 F=0.5@-1 C=30@-1 FN=c:\\dir\\g.txt@-1 PN=c:\\p.txt@-1 [Renamed=v2@-1 X=1@-1 [T=@-1] "
            "[U=@-1]]");

  // The section iterator's editing, through the handle.
  auto* b = new InstrRecordElt("b", "");
  run(h, {
             DO(h.FirstSection("Renamed") && h.EnterSection() && h.NextItem() && InstrClearSection(p), "1 BOS:Renamed=v2"),
             DO(h.IsSectionEmpty(), "1 BOS:Renamed=v2"),
             DO(h.ClearFile() && h.IsSectionEmpty(), "1 BOF@0"),
             DO((h.Add(b), true), "1 b="),
             DO((h.InsertBefore(new InstrRecordElt("a", "")), true), "1 a="),
             DO((h.InsertAfter(b, new InstrRecordElt("d", "")), true), "1 a="),  // the cursor stays
             DO((h.InsertBefore(static_cast<InstrRecord*>(nullptr), new InstrRecordElt("e", "")), true), "1 a="),
             DO((h.InsertAfter(static_cast<InstrRecord*>(b), new InstrRecordElt("c", "")), true), "1 a="),
             DO(h.LastItem() && h.PrevItem(), "1 d="),
             DO((h.GoTo(b), h.DeleteRecord(), true), "1 c="),
             DO(h.FirstMatch("e", false), "1 e="),
             DO(h.FirstMatch("e", true), "0 EOF@0"),
         });
  EXPECT_EQ(root_dump(h), "a=@-1 c=@-1 d=@-1 e=@-1");
  InstrSectionIter copy(h);
  copy.LastItem();
  h.ClearRecords();
  EXPECT_TRUE(copy.CurrentItem() == nullptr && copy.FirstItem() == nullptr) << "moved to the beginning";
  copy.UseSection(nullptr);
  EXPECT_TRUE(copy.CurrentSection() == nullptr && copy.NextItem() == nullptr);
}

// ---------------------------------------------------------------------------
// Handles, sharing and the registry

TEST(InstrHandles, MissingFilesSharedReadsAndReleaseOrder) {
  pathname bad("c:\\bad|name?<>");
  InstrHandle invalid(bad);
  EXPECT_EQ(static_cast<void*>(InstrHandle(invalid)), nullptr);
  EXPECT_TRUE(!InstrHandle(static_cast<void*>(nullptr)));

  kvtest::TempDir dir;
  InstrHandle missing(dos_path(dir.file("missing.dat")).c_str());
  EXPECT_TRUE(missing.Read()) << "a missing file is an empty document";
  EXPECT_FALSE(missing.Read(IHReadMustExist));
  EXPECT_STREQ(missing.ErrStr(), "Bad file");
  kvtest::write_file(dir.file("shared.dat"), "Korvalis Data File\r\nA = 1\r\n");
  const std::string path = dos_path(dir.file("shared.dat"));
  auto* first = new InstrHandle(path.c_str());
  ASSERT_TRUE(first->Read(IHReadMustExist));
  // The second through the flat interface. The file changes on disk: a shared read does not look at it.
  FileName sharedName(path.c_str()), renamed(dos_path(dir.file("renamed.dat")).c_str()), out;
  void* second = InstrCreate(sharedName);
  kvtest::write_file(dir.file("shared.dat"), "Korvalis Data File\r\nA = 2\r\n");
  ASSERT_TRUE(InstrRead(second, IHReadShared));
  EXPECT_TRUE(InstrFirstRecord(second, name("A")) && InstrChangeInt(second, 5));
  EXPECT_EQ(root_dump(*first), "A=5@2") << "one tree";
  InstrHandle third(path.c_str());
  ASSERT_TRUE(third.Read());  // not shared: a fresh read
  EXPECT_EQ(root_dump(third), "A=2@2");
  delete first;  // the tree stays for the second handle
  InstrHandle fourth(path.c_str());
  ASSERT_TRUE(fourth.Read(IHReadShared));  // shares with the first equal path: second
  EXPECT_TRUE(InstrRename(second, renamed) && InstrFileName(second, out) && InstrWrite(second));
  EXPECT_STREQ(*out, *renamed);
  InstrDestroy(second);
  EXPECT_EQ(root_dump(fourth), "A=5@2");
  EXPECT_EQ(kvtest::read_file(dir.file("renamed.dat")), "Korvalis Data File\r\n\r\nA = 5\r\n");
  // Leak checking under the sanitizer sees whether the last user deleted it.
}

// Reads and writes the tree of a handle placed at where; returns the heap of its first section.
heap* tree_heap(void* where) {
  auto* h = new (where) InstrHandle(static_cast<void*>(nullptr));
  char* text = block_of(kHeader + "S\n{\n" + std::string(300, 't') + " = 1\n}\n");
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
  place = ::operator new(sizeof(InstrHandle), &small, "tests/instr", __LINE__);
  std::vector<void*> blocks;
  for (size_t size : {size_t(1) << 22, size_t(64)}) {  // take all there is, so that nothing more fits
    try {
      for (;;) blocks.push_back(::operator new(size, &small, "tests/instr", __LINE__));
    } catch (const CSL::Heap::HeapError&) {
    }
  }
  EXPECT_EQ(tree_heap(place), nullptr);
  KvOperatorDelete(place);
  for (void* b : blocks) KvOperatorDelete(b);
}

// ---------------------------------------------------------------------------
// The procedural interface

// On a null handle the flat functions answer false and say so, but for the
// rename and the file-name query (the section editors and the item queries
// take no null handle).
TEST(InstrFlat, ANullHandleAnswersFalseAndSaysSo) {
  kvtest::CategoryScope on(dbgA);
  kvtest::CaptureSink sink;
  void* const n = nullptr;
  char* a = name("A");
  char* v = nullptr;
  int i = 0;
  float x = 0;
  FileName out;
  const bool results[] = {
      InstrRead(n, IHReadNone), InstrWrite(n), InstrSeek(n, InstrTypeBOF), InstrEnterSection(n),
      InstrExitSection(n), InstrFirstRecord(n, a), InstrNextRecord(n, a), InstrFirstSection(n, a),
      InstrNextSection(n, a), InstrFirstStr(n, a, v), InstrNextStr(n, a, v), InstrFirstInt(n, a, i),
      InstrFirstFloat(n, a, x), InstrPrevFileName(n, a, out), InstrAddInt(n, a, 1), InstrAddFloat(n, a, 1),
      InstrAddDouble(n, a, 1), InstrChangeInt(n, 1), InstrChangeFloat(n, 1), InstrChangeDouble(n, 1),
      InstrChangeStr(n, a), InstrChangeFileName(n, out), InstrSetFileName(n, a, out), InstrDeleteItem(n),
      InstrClearSection(n), InstrRename(n, out), InstrFileName(n, out)};
  EXPECT_EQ(std::count(std::begin(results), std::end(results), true), 0);
  size_t messages = 0;
  for (const auto& e : sink.entries()) messages += e.text == "No instr handle\n";
  EXPECT_EQ(messages, std::size(results) - 2);
  InstrDestroy(n);
}

}  // namespace
