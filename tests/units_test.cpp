// Units: reading and writing factors and compound units, the single-factor
// slot and its iterators, conversion factors, cancellation, automatic
// prefixes and the abort on a broken list.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "MEASURE.h"
#include "sysman.h"
#include "test_support.h"

namespace {

std::string text_of(const Units& u) {
  std::string out(u.WriteSize(), '\0');
  out.resize(std::size_t(u.Write(out.data()) - out.data()));
  return out;
}

std::string text_of(const UnitElt& e) {
  char out[16];
  return std::string(out, e.Write(out));
}

// "type/prefix index" of every factor of a list, front to back.
std::string shape(const UnitList& l) {
  std::string s;
  UnitIter it(l);
  for (UnitElt* e = it.First(); e != nullptr; e = it.Next())
    s += (s.empty() ? "" : " ") + std::to_string(int(UnitType(*e))) + "/" + std::to_string(UnitElt::EnumToIndex(Prefix(*e)));
  return s;
}

}  // namespace

TEST(UnitElt, SymbolsMatchIgnoringCaseButPrefixesDoNot) {
  const struct { const char* text; UnitType type; Prefix prefix; } cases[] = {
      {"pA", Ampere, Pico}, {"Pa", Pascal, NoPrefix}, {"mV", Volt, Milli}, {"MV", Volt, Mega}, {"eV", ElectronVolt, NoPrefix},
      {"hz", Hertz, NoPrefix}, {"\xBA", Degree, NoPrefix}, {"mm", Meter, Milli}, {"  um", Meter, Micro},
      {"LOG(ARB)", LogArb, NoPrefix}, {"klog(Pa)", LogPascal, Kilo}, {"?m", Meter, AutoPrefix},
      // Two characters before a symbol, or a prefix that is not one: a custom factor.
      {"xnm", CustomUnit, NoPrefix}, {"Xm", CustomUnit, NoPrefix}, {"Em", CustomUnit, NoPrefix},
      {"mmm", CustomUnit, NoPrefix}, {"", CustomUnit, NoPrefix}};
  for (const auto& c : cases) {
    const UnitElt e(c.text);
    EXPECT_TRUE(UnitType(e) == c.type && Prefix(e) == c.prefix) << c.text;
    EXPECT_EQ(e.CustomText() == nullptr, c.type != CustomUnit) << c.text;
  }
  // Custom texts keep at most ten characters; reading a known type drops the text.
  UnitElt e;
  const char* text = "  counts";
  EXPECT_EQ(e.Read(text), text + 8);
  EXPECT_EQ(text_of(e), "counts");
  const std::string longText(5000, 'x');
  EXPECT_TRUE(e.Read(longText.c_str()) == longText.c_str() + 5000 && text_of(e) == "xxxxxxxxxx") << text_of(e);
  e.Read("V");
  EXPECT_TRUE(UnitType(e) == Volt && e.CustomText() == nullptr);

  EXPECT_EQ(text_of(UnitElt(Kilo, Ohm)), "kOhm");
  EXPECT_EQ(text_of(UnitElt(DegreeText)), "deg") << "only a constructed type 12 writes deg";
  EXPECT_EQ(text_of(UnitElt("deg")), "\xBA");
  EXPECT_EQ(text_of(UnitElt(Milli, LogPascal)), "mlog(Pa)");
}

TEST(UnitElt, CopiesShareNothingAndComparisonsIgnoreCustomTexts) {
  UnitElt a("volts");
  UnitElt b(a);
  a.Read("amps");
  EXPECT_STREQ(b.CustomText(), "volts") << "the text is copied, not shared";
  EXPECT_TRUE(a == b);
  b = UnitElt(Nano, Meter);
  EXPECT_EQ(b.CustomText(), nullptr);
  EXPECT_TRUE(b != UnitElt(Micro, Meter) && b.SameType(UnitElt(Micro, Meter)));
  EXPECT_DOUBLE_EQ(b.Scale(), 1e-9);
  EXPECT_EQ(b.Change(Pico).Scale(), 1e-12);
  EXPECT_EQ(UnitElt::EnumToIndex(Prefix(0)), -1);
  for (int i = 0; i <= 10; ++i) EXPECT_EQ(UnitElt::EnumToIndex(UnitElt::IndexToEnum(i)), i);
}

TEST(UnitsRead, CompoundTextsSplitAtSeparatorsAndLongTokensAreCut) {
  // Written back, with the numbers of factors above and below.
  const std::pair<const char*, const char*> cases[] = {
      {"1/s", "1/s 0/1"}, {"1", " 0/0"}, {"m*m", "m*m 2/0"}, {"nm/V*s", "nm/V*s 1/2"}, {"x/y/z", "x/y*z 1/2"},
      {"nm/  ", "nm 1/0"}, {"**nm//V", "nm/V 1/1"}, {"V/V", "V/V 1/1"},
      {"abcdefghijklm", "abcdefghij*lm 2/0"},      // cut to 10, the 11th skipped, the rest a further factor
      {"abcdefghijklm/V", "abcdefghij/lm*V 1/2"},  // the rest of a long token before "/" is already below
      {"abcdefghijk/V", "abcdefghij/V 1/1"}};
  for (const auto& [text, want] : cases) {
    Units u("nm");
    EXPECT_EQ(u.Read(text), text + std::strlen(text));
    EXPECT_EQ(text_of(u) + " " + std::to_string(u.Numerator().NumberOfUnits()) + "/" +
                  std::to_string(u.Denominator().NumberOfUnits()), want);
  }
  // Blanks before a separator stay in the token.
  const Units spaced("nm / V");
  EXPECT_STREQ(spaced.Numerator().FirstUnit()->CustomText(), "nm ");
  EXPECT_EQ(UnitType(*spaced.Denominator().FirstUnit()), Volt);
  // Nothing to read clears the units in any case.
  Units u("nm/V");
  EXPECT_TRUE(u.Read("") == nullptr && u.IsScalar());
  u.Read("nm");
  EXPECT_TRUE(u.Read(nullptr) == nullptr && u.IsScalar());

  // Only the first cut of the long token before "/" is above: 300 characters make 28 factors, 57 make 6.
  const std::string huge = std::string(300, 'q') + "/" + std::string(57, 'z');
  u.Read(huge.c_str());
  EXPECT_EQ(u.Numerator().NumberOfUnits(), 1);
  EXPECT_EQ(u.Denominator().NumberOfUnits(), 27 + 6);
  EXPECT_LE(text_of(u).size() + 1, u.WriteSize());
}

TEST(UnitList, SingleSlotMovesBetweenShapes) {
  UnitList l;
  l.AddNewUnit(UnitElt(Nano, Meter));
  EXPECT_EQ(l.Count(), 0) << "one factor needs no chain element";
  auto* second = new UnitElt(Volt);
  l.AddNewUnit(second);
  EXPECT_TRUE(shape(l) == "1/7 2/4" && l.LastUnit() == second) << shape(l);
  l.RemoveUnit(l.FirstUnit());
  EXPECT_TRUE(l.Count() == 0 && shape(l) == "2/4" && l.FirstUnit() == l.LastUnit()) << "the survivor moves to the slot";
  UnitElt stranger(Volt);
  l.RemoveUnit(&stranger);  // not a factor of the list: ignored
  EXPECT_EQ(l.NumberOfUnits(), 1);
  l.RemoveUnit(l.FirstUnit());
  EXPECT_EQ(l.FirstUnit(), nullptr);

  // A handed-in element becomes the single factor itself and is owned.
  auto* owned = new UnitElt(Second);
  l.AddNewUnit(owned);
  EXPECT_EQ(l.FirstUnit(), owned);
  UnitList copy(l);
  EXPECT_TRUE(shape(copy) == "5/4" && copy.FirstUnit() != owned);
  l.AddNewUnits(l);  // appending itself doubles it
  EXPECT_EQ(shape(l), "5/4 5/4");
  l.Clear();
  EXPECT_EQ(l.NumberOfUnits(), 0);
}

TEST(UnitList, BrokenInvariantAborts) {
  struct Tamper : UnitList {
    void AddToChain(UnitElt* e) { InsertEnd(e); }
    void Check() const { Sanity(); }
  };
  Tamper l;
  l.AddNewUnit(UnitElt(Volt));
  l.AddToChain(new UnitElt(Meter));
  EXPECT_EQ(kvtest::abort_text([&] { l.Check(); }), "UnitList::Sanity(): check failed: Count() > 0");
  EXPECT_EQ(kvtest::abort_text([&] { l.NumberOfUnits(); }), "UnitList::Sanity(): check failed: Count() > 0");
  Tamper single;
  single.AddToChain(new UnitElt(Meter));
  EXPECT_EQ(kvtest::abort_text([&] { single.FirstUnit(); }), "UnitList::Sanity(): check failed: Not using local storage.");
}

TEST(UnitIter, WalksTheSingleSlotAndFollowsRemovals) {
  UnitList l;
  l.AddNewUnit(UnitElt(Volt));
  UnitIter it(l);
  EXPECT_TRUE(it.Next() == l.FirstUnit() && it.Next() == nullptr);
  EXPECT_TRUE(it.Prev() == l.FirstUnit() && it.Prev() == nullptr && it.BOL()) << "from the end, back to the factor";
  EXPECT_EQ(it.Last(), l.FirstUnit());

  // Adding a second factor takes the iterator along into the chain.
  l.AddNewUnit(UnitElt(Meter));
  ASSERT_NE(it.Current(), nullptr);
  EXPECT_TRUE(UnitType(*it.Current()) == Volt && UnitType(*it.Next()) == Meter);
  UnitIter onMeter(it);
  it.First();
  // Removing the first factor: it moves on to the survivor, which moves to the slot.
  l.RemoveUnit(it.Current());
  EXPECT_TRUE(it.Current() == l.FirstUnit() && onMeter.Current() == l.FirstUnit() && it.Current() != nullptr);
  // Removing the single factor advances iterators on it to the end.
  l.RemoveUnit(l.FirstUnit());
  EXPECT_TRUE(it.EOL() && onMeter.EOL());
  l.AddNewUnit(UnitElt(Second));
  EXPECT_EQ(it.Current(), nullptr) << "a new single factor is not stood on";

  // An iterator at the end of a chain that collapses stays at the end.
  UnitList two;
  two.AddNewUnit(UnitElt(Volt)).AddNewUnit(UnitElt(Meter));
  UnitIter end(two);
  end.Last();
  two.RemoveUnit(end.Current());
  EXPECT_TRUE(end.EOL());
  // Iterators survive the list.
  auto* gone = new UnitList;
  gone->AddNewUnit(UnitElt(Volt));
  UnitIter orphan(*gone);
  orphan.First();
  delete gone;
  EXPECT_TRUE(orphan.Current() == nullptr && orphan.Next() == nullptr);
}

TEST(UnitsScale, FactorsBetweenCompatibleUnitsAndZeroOtherwise) {
  // Factors between known units are checked against an independent library (units_udunits_test).
  const struct { const char* from; const char* to; double scale; } cases[] = {
      {"m/m", "1", 0.0},  // no simplification before comparing
      {"m*m", "m*V", 0.0}, {"", "1", 1.0},
      {"counts", "volts", 1.0},  // custom factors are one type
      {"V*V*m", "V*m*m", 0.0},   // each factor is used once
  };
  for (const auto& c : cases) EXPECT_DOUBLE_EQ(Units(c.from).Scale(Units(c.to)), c.scale) << c.from << " " << c.to;
  EXPECT_FALSE(Units("nm").SameType(Units("nV")));
  EXPECT_TRUE(Units("nm*V") == Units("V*nm"));
  EXPECT_TRUE(Units("nm") != Units("um") && Units("nm/V") != Units("nm/s"));
}

TEST(UnitsAlgebra, SimplifyMultiplyDivideInvert) {
  // op: s simplify, * or / by other (null: by itself), i invert; the factor returned and the units after.
  const struct { const char* units; char op; const char* other; double scale; const char* after; } cases[] = {
      {"mm/m", 's', nullptr, 0.001, ""}, {"nm*V/V", 's', nullptr, 1.0, "nm"},
      {"mV*um*V/V*nm", 's', nullptr, 1000.0, "mV"},  // exact pairs cancel first, then same types with a factor
      {"km*s*Hz/m*ms", 's', nullptr, 1e6, "Hz"}, {"nm", '*', "1/s", 1.0, "nm/s"}, {"nm/s", '/', "um/ms", 1e-6, ""},
      {"V/s", '*', nullptr, 1.0, "V*V/s*s"}, {"V*V/s*s", '/', nullptr, 1.0, ""}, {"nm/V*s", 'i', nullptr, 1.0, "V*s/nm"},
      {"Hz", 'i', nullptr, 1.0, "1/Hz"}};
  for (const auto& c : cases) {
    Units u(c.units);
    const Units other(c.other != nullptr ? c.other : "");
    const Units& by = c.other != nullptr ? other : u;
    const double scale = c.op == 's' ? u.Simplify() : c.op == '*' ? (u *= by) : c.op == '/' ? (u /= by) : (u.Invert(), 1.0);
    EXPECT_DOUBLE_EQ(scale, c.scale) << c.units << " " << c.op;
    EXPECT_EQ(text_of(u), c.after) << c.units << " " << c.op;
    EXPECT_EQ(u.IsScalar(), *c.after == '\0') << c.units << " " << c.op;
  }
}

TEST(UnitsAuto, PrefixChoiceAndBoundaries) {
  const struct { const char* units; double value; double scale; const char* written; } cases[] = {
      {"?m", 0.0, 1.0, "?m"}, {"?m", 9.9996e-7, 1e6, "um"}, {"?m", 9.999e-7, 1e9, "nm"}, {"?m", 0.5, 1000.0, "mm"},
      {"?m", 2.0, 1.0, "m"}, {"?m", -3e4, 1e-3, "km"}, {"?m", 2e15, 1.0, "?m"},  // too large for any prefix
      {"?m", 1e-19, 1.0, "?m"}, {"?m/V", 5e-6, 1e6, "um/V"},
      {"counts/?s", 5e-3, 1e3, "counts/ks"},  // a denominator factor scales the other way
  };
  for (const auto& c : cases) {
    Units u(c.units);
    EXPECT_DOUBLE_EQ(u.AutoScale(c.value), c.scale) << c.units << " " << c.value;
    EXPECT_EQ(text_of(u), c.written) << c.units << " " << c.value;
  }
  for (const auto& [units, marked] : {std::pair{"nm/V", "?m/V"}, {"counts/s", "counts/?s"}, {"counts/bins", "counts/bins"},
                                      {"m*m", "?m*m"}}) {  // at most one factor is marked
    Units u(units);
    EXPECT_EQ(text_of(u.SetAuto()), marked) << units;
  }
}
