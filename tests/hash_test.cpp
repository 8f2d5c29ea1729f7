// The hash table: the string checksum, growth, lookups, ownership, storage
// placement and the shallow copies of keys and tables.
#include <gtest/gtest.h>

#include <strings.h>

#include <cctype>
#include <map>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "LIST.h"
#include "sysman.h"
#include "test_support.h"

namespace {

// The checksum exactly as described: 8-bit sums with end-around carry.
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
  explicit Key(const char* s) : HashString(s) {}
  explicit Key(const std::string& s) : HashString(s.c_str()) {}
  using HashString::Hash;
};

struct Table : HashTab {
  Table() = default;
  explicit Table(int n) : HashTab(n) {}
  int slots() const { return bucketCount; }
  int inserts() const { return insertCount; }
  HashBucket* slot(int i) const { return buckets[i]; }
  HashBucket** array() const { return buckets; }
};

// Counts its destructions; every instance hashes to `bucket`.
struct Counted : HashElt {
  static std::map<int, int> destroyed;
  int id, bucket;
  Counted(int i, int b) : id(i), bucket(b) {}
  ~Counted() override { ++destroyed[id]; }
  int Hash() override { return bucket; }
  bool Equal(HashElt& other) override { return id == static_cast<Counted&>(other).id; }
};
std::map<int, int> Counted::destroyed;

TEST(HashString, ChecksumValues) {
  EXPECT_EQ(Key("").Hash(), 0);
  EXPECT_EQ(Key("ab").Hash(), 49764);
  EXPECT_EQ(Key("\xff").Hash(), 1) << "bytes above 127 count unsigned";

  std::mt19937 rng(77);
  for (int n = 0; n < 2000; ++n) {
    std::string s(rng() % 40, ' ');
    for (char& c : s) c = char(1 + rng() % 255);
    ASSERT_EQ(Key(s).Hash(), reference_hash(s)) << n;
  }
  std::string longText(3u << 20, '\0');  // long enough to need intermediate reductions
  for (size_t i = 0; i < longText.size(); ++i) longText[i] = char(1 + (i * 7919) % 255);
  EXPECT_EQ(Key(longText).Hash(), reference_hash(longText));
}

TEST(HashString, EqualityCopiesAndDump) {
  Key a("abc"), b("abc"), c("abcd");
  EXPECT_TRUE(a == &b);
  EXPECT_TRUE(c != &a) << "a longer string with the same start differs";
  EXPECT_NE(a.String(), b.String()) << "each key owns a copy";

  // Copies share the buffer; the copy here is never destroyed, as two
  // destructions would free the buffer twice.
  alignas(HashString) unsigned char raw[sizeof(HashString)];
  auto* copy = new (raw) HashString(a);
  EXPECT_EQ(copy->String(), a.String());
  *copy = b;
  EXPECT_EQ(copy->String(), b.String());

  HashString percent("5%% done");
  testing::internal::CaptureStdout();
  percent.dump();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "5% done") << "the key is the printf format";
}

TEST(HashTab, GrowthAt8_16_32_64KeepsEveryKey) {
  Table t;
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
  EXPECT_EQ(t.Lookup(&absent), nullptr);
  EXPECT_EQ(t.Lookup(nullptr), nullptr);
}

// A key class with an equality of its own: the stored element's Equal decides.
struct NoCase : HashString {
  explicit NoCase(const char* s) : HashString(s) {}
  int Hash() override {
    std::string low = String();
    for (char& c : low) c = char(std::tolower(static_cast<unsigned char>(c)));
    return Key(low).Hash();
  }
  bool Equal(HashElt& other) override { return strcasecmp(String(), static_cast<HashString&>(other).String()) == 0; }
};

TEST(HashTab, TheStoredElementsEqualDecides) {
  HashTab t;
  auto* stored = new NoCase("MixedCase");
  t.Insert(stored);
  t.Insert(new HashString("other"));
  HashString plain("mixedcase");
  EXPECT_EQ(t.Lookup(plain), stored);
  HashString almost("mixedcas");
  EXPECT_EQ(t.Lookup(almost), nullptr);
}

TEST(HashTab, LookupCreatesNoBucketAndDuplicatesAbort) {
  Table t(8);
  Key probe("a");  // slot 24833 % 8 = 1
  EXPECT_EQ(t.Lookup(probe), nullptr);
  EXPECT_EQ(t.slot(1), nullptr) << "a lookup in an unused slot creates no bucket";

  t.Insert(new Key("a"));
  auto* dup = new Key("a");
  EXPECT_EQ(kvtest::abort_text([&] { t.Insert(dup); }), "HashTab::Insert HashElt already exists");
  EXPECT_NE(t.Lookup(probe), dup) << "the duplicate stays out of the table";
  delete dup;
  EXPECT_EQ(t.inserts(), 1);
}

TEST(HashTab, DestructionDeletesEveryItemOnceAndCollisionsChain) {
  Counted::destroyed.clear();
  {
    HashTab t;
    for (int i = 0; i < 40; ++i) t.Insert(new Counted(i, i % 3));  // long chains, several growths
    for (int i = 0; i < 40; ++i) {
      Counted probe(i, i % 3);
      HashElt* hit = t.Lookup(probe);
      EXPECT_EQ(hit != nullptr ? static_cast<Counted*>(hit)->id : -1, i);
    }
    Counted::destroyed.clear();
  }
  ASSERT_EQ(Counted::destroyed.size(), 40u);
  for (auto& [id, times] : Counted::destroyed) EXPECT_EQ(times, 1) << id;

  // Keys that override nothing: never equal, so never found, never refused.
  HashTab plain;
  plain.Insert(new HashElt);
  HashElt same;
  plain.Insert(new HashElt);
  EXPECT_EQ(plain.Lookup(same), nullptr);
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
  // Of 16 slots, "q\n", "1\n" and "a\n" share slot 3 and "o\n" has slot 1:
  // slot by slot, each chain in insertion order.
  Table small(16);
  for (const char* k : {"q\n", "1\n", "o\n", "a\n"}) small.Insert(new HashString(k));
  testing::internal::CaptureStdout();
  small.dump();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "o\nq\n1\na\n");

  Table twelve(12);  // not a power of two: the plain remainder
  twelve.Insert(new HashString("a"));
  EXPECT_NE(twelve.slot(24833 % 12), nullptr);
  HashString a("a");
  EXPECT_NE(twelve.Lookup(a), nullptr);

  Table one(0);
  for (int i = 0; i < 5; ++i) one.Insert(new Key(std::to_string(i)));
  for (int i = 0; i < 5; ++i) {
    Key k(std::to_string(i));
    EXPECT_NE(one.Lookup(k), nullptr) << i;
  }
  EXPECT_GE(one.slots(), 10);
}

}  // namespace
