// The hash table: the string checksum, growth, lookups, ownership and the
// placement of its storage.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "LIST.h"
#include "sysman.h"
#include "test_support.h"

namespace {

// The checksum computed byte by byte: 8-bit sums with end-around carry.
int reference_hash(const std::string& s) {
  unsigned s1 = 1, s2 = 1;
  for (unsigned char c : s) {
    s1 += c;
    if (s1 > 255) s1 = (s1 & 255) + 1;
    s2 += s1;
    if (s2 > 255) s2 = (s2 & 255) + 1;
  }
  return int(((s1 - 1) & 255) * 255 + ((s2 - 1) & 255));
}

struct Key : HashString {
  explicit Key(const std::string& s) : HashString(s.c_str()) {}
  using HashString::Hash;
};

struct Table : HashTab {
  using HashTab::HashTab;
  int slots() const { return bucketCount; }
  int inserts() const { return insertCount; }
  HashBucket* slot(int i) const { return buckets[i]; }
  HashBucket** array() const { return buckets; }
};

// Keys "0".."39", whose destructions are counted; they share three slots.
struct Counted : HashString {
  static inline std::vector<int> destroyed = std::vector<int>(40);
  explicit Counted(int i) : HashString(std::to_string(i).c_str()) {}
  ~Counted() override { ++destroyed[size_t(std::stoi(String()))]; }
  int Hash() override { return std::stoi(String()) % 3; }
};

// A key class that is never equal to anything: the stored element's Equal decides.
struct Never : HashString {
  using HashString::HashString;
  bool Equal(HashElt&) override { return false; }
};

TEST(HashString, ChecksumAndEquality) {
  EXPECT_EQ(Key("ab").Hash(), 49764);
  EXPECT_EQ(Key("\xff").Hash(), 1) << "bytes above 127 count unsigned";
  std::mt19937 rng(77);
  for (int n = 0; n < 2000; ++n) {  // the first text is long enough for sums beyond 32 bits
    std::string s(n == 0 ? 3u << 20 : rng() % 40, ' ');
    for (char& c : s) c = char(1 + rng() % 255);
    ASSERT_EQ(Key(s).Hash(), reference_hash(s)) << n;
  }

  Key a("abc"), b("abc"), c("abcd");
  EXPECT_TRUE(a == &b);
  EXPECT_TRUE(c != &a) << "a longer string with the same start differs";
  EXPECT_NE(a.String(), b.String()) << "each key owns a copy";
}

TEST(HashTab, GrowthAt8_16_32_64KeepsEveryKeyAndDuplicatesAbort) {
  Table t;
  Key probe("key37");
  EXPECT_EQ(t.Lookup(probe), nullptr);
  EXPECT_EQ(t.slot(probe.Hash() % 8), nullptr) << "a lookup in an unused slot creates no bucket";
  std::vector<std::string> names;
  for (int n = 1; n <= 20; ++n) {
    names.push_back("key" + std::to_string(n * 37));
    // Plain keys and keys of a derived class, looked up with both.
    t.Insert(n % 2 != 0 ? new HashString(names.back().c_str()) : new Key(names.back()));
    ASSERT_EQ(t.slots(), n < 4 ? 8 : n < 8 ? 16 : n < 16 ? 32 : 64) << "after " << n << " insertions";
    EXPECT_EQ(t.inserts(), n) << "a growth counts the items again";
    for (const std::string& name : names) {
      HashString plain(name.c_str());
      Key derived(name);
      HashElt* found = t.Lookup(plain);
      ASSERT_NE(found, nullptr) << name << " after " << n;
      EXPECT_EQ(t.Lookup(derived), found);
    }
  }
  HashString absent("absent");
  EXPECT_TRUE(t.Lookup(&absent) == nullptr && t.Lookup(nullptr) == nullptr);
  auto* dup = new Key("key37");
  EXPECT_EQ(kvtest::abort_text([&] { t.Insert(dup); }), "HashTab::Insert HashElt already exists");
  EXPECT_NE(t.Lookup(probe), dup) << "the duplicate stays out of the table";
  EXPECT_EQ(t.inserts(), 20);
  delete dup;
}

TEST(HashTab, StoredElementsEqualDecidesAndEveryItemIsDeletedOnce) {
  // Keys that override nothing are never equal, so never found, never refused.
  HashTab t;
  t.Insert(new Never("ab"));
  t.Insert(new HashElt);
  t.Insert(new HashElt);
  HashString ab("ab");
  HashElt same;
  EXPECT_EQ(t.Lookup(ab), nullptr) << "found by the text alone";
  EXPECT_EQ(t.Lookup(same), nullptr) << "a plain element";
  {
    HashTab chains;
    for (int i = 0; i < 40; ++i) chains.Insert(new Counted(i));  // long chains, several growths
    for (int i = 0; i < 40; ++i) {
      Counted probe(i);
      HashElt* hit = chains.Lookup(probe);
      EXPECT_EQ(hit != nullptr ? std::string(static_cast<Counted*>(hit)->String()) : "-", std::to_string(i));
    }
    Counted::destroyed.assign(40, 0);
  }
  EXPECT_EQ(Counted::destroyed, std::vector<int>(40, 1));
}

TEST(HashTab, StorageLivesInTheTablesHeap) {
  heapman_mgr::initialize();
  heap named("hashtab");
  auto* t = new (&named, "tests/hash", __LINE__) Table;
  for (int i = 0; i < 10; ++i) t->Insert(new (&named, "tests/hash", __LINE__) Key("k" + std::to_string(i)));
  EXPECT_EQ(heapman_mgr::find(t->array()), &named);
  Key k3("k3");
  EXPECT_EQ(heapman_mgr::find(t->slot(k3.Hash() % t->slots())), &named);
  auto* stored = static_cast<Key*>(t->Lookup(k3));
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(heapman_mgr::find(stored->String()), &named) << "the key text follows its object";
  t->~Table();
  KvOperatorDelete(t);
  EXPECT_THROW(new (&named, "tests/hash", __LINE__) HashTab(-1), CSL::Heap::HeapError)
      << "a negative size asks for everything there is";
}

TEST(HashTab, DumpOrderAndOddSizes) {
  // Of 16 slots, "q\n", "1\n", "a\n" and "5%%\n" share slot 3 and "o\n" has slot 1:
  // slot by slot, each chain in insertion order; each key is the printf format.
  Table small(16);
  for (const char* k : {"q\n", "1\n", "o\n", "a\n", "5%%\n"}) small.Insert(new HashString(k));
  testing::internal::CaptureStdout();
  small.dump();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "o\nq\n1\na\n5%\n");

  // Twelve slots take the plain remainder; none become one, then grow.
  for (int n : {12, 0}) {
    Table t(n);
    for (int i = 0; i < 5; ++i) t.Insert(new Key(std::to_string(i)));
    EXPECT_EQ(t.slots(), n == 0 ? 16 : 12);
    for (int i = 0; i < 5; ++i) {
      Key k(std::to_string(i));
      EXPECT_NE(t.slot(k.Hash() % t.slots()), nullptr) << n << ": " << i;
      EXPECT_NE(t.Lookup(k), nullptr) << n << ": " << i;
    }
  }
}

}  // namespace
