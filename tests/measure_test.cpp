// Measurements: conversion, unit-checked arithmetic and its abort texts,
// comparisons, reading, the two-pass formatter and debug output; and the
// tagged coordinates.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "Coord.h"
#include "MEASURE.h"
#include "sysman.h"
#include "test_support.h"

namespace {

std::string text_of(const Units& u) {
  std::string out(u.WriteSize(), '\0');
  out.resize(std::size_t(u.Write(out.data()) - out.data()));
  return out;
}

using kvtest::abort_text;

std::string show_coord(std::initializer_list<float> values, const char* type, const char* type0) {
  std::string s;
  char number[32];
  for (float v : values) s += std::string(s.empty() ? "" : ",") + (std::snprintf(number, sizeof number, "%g", v), number);
  return s + " " + type + "/" + type0;
}

// "value units", e.g. "2.5 um/ms".
std::string show(const Meas& m) {
  char value[32];
  std::snprintf(value, sizeof value, "%.10g", m.GetValue());
  return std::string(value) + " " + text_of(m.GetUnits());
}

// "x,y[,z] type/type0".
std::string show(const Coord2D& c) { return show_coord({c.x, c.y}, c.GetTypeTag(), c.GetType0Tag()); }
std::string show(const Coord3D& c) { return show_coord({c.x, c.y, c.z}, c.GetTypeTag(), c.GetType0Tag()); }

std::string fmt(const Meas& m, const char* format) {
  char out[256];
  m.sprintf(out, format);
  return out;
}

}  // namespace

TEST(MeasConvert, ConversionsHelpersAndArithmetic) {
  const Meas d(5000, "nm");
  EXPECT_DOUBLE_EQ(d.GetValue(Unit_um), 5.0);
  EXPECT_DOUBLE_EQ(d.GetValue(Units("mm")), 5e-3);
  Meas s(4), a(1, "um"), sq(3, "nm");
  s += 1;
  s -= 0.5;
  a += Meas(500, "nm");
  sq *= sq;
  const Meas rate = Meas(10, "um") / Meas(4, "ms");
  Meas m(-2.5, "nm/V");
  const std::pair<Meas, const char*> cases[] = {
      {d.ConvMeas(Units("pm")), "5000000 pm"}, {d.AutoScale(), "5 um"}, {d, "5000 nm"},  // the source is unchanged
      {Meas(0.0025, "V").AutoScale(), "2.5 mV"}, {Meas(0.0, "nm").AutoScale(), "0 nm"},
      {Meas(3, "nm/ms").ConvMeas(Units("?m/s")), "3 um/s"},  // converting to an automatic prefix picks it
      {Meas(-2.5, "nm/V").Absolute(), "2.5 nm/V"}, {Meas(-2.5, "nm/V").Invert(), "-0.4 V/nm"},
      {-Meas(-2.5, "nm/V"), "2.5 nm/V"}, {a, "1.5 um"}, {a - Meas(2, "mm"), "-1998.5 um"},
      {Meas(1, "V") + Meas(1, "mV"), "1.001 V"}, {Meas(2, "mm") * Meas(3, "1/m"), "0.006 "},
      {Meas(6, "nm") / Meas(0, "s"), "6 nm/s"},  // a zero divisor only combines the units
      {rate, "2.5 um/ms"}, {rate * Meas(2, "s"), "5000 um"}, {sq, "9 nm*nm"}, {Meas(4, "V") * 2, "8 V"},
      {Meas(4, "V") / 8.0f, "0.5 V"}, {s + 2L, "6.5 "}, {Meas(Meas(-2.5, "nm/V").Sign()), "-1 "},
      {Meas(Meas(0.0).Sign()), "1 "}, {Meas(Meas(std::nan("")).Sign()), "-1 "},
      {m = Units("um/V"), "-2.5 um/V"},  // replacing the units does not convert
      {m = 7.0, "7 um/V"}, {m.Clear(), "0 "}};
  for (const auto& [m, want] : cases) EXPECT_EQ(show(m), want);
  EXPECT_TRUE(std::isinf((Meas(4, "V") / 0L).GetValue())) << "no check for a zero number";
  const Meas copy(m = Meas(3, "s"));
  EXPECT_EQ(text_of(Units(copy)), "s");

  // Mismatched units abort with their texts and change nothing.
  const std::pair<std::function<void()>, const char*> aborts[] = {
      {[&] { d.GetValue(Unit_V); }, "Meas::AbortUnits: Units don't match, nm != V"},
      {[&] { d.ConvMeas(Units("nm/s")); }, "Meas::AbortUnits: Units don't match, nm != nm/s"},
      {[&] { a += Meas(1, "V"); }, "Meas::AbortUnits: Units don't match, um != V"},
      {[&] { a - Meas(1, "um/s"); }, "Meas::AbortUnits: Units don't match, um != um/s"},
      {[&] { a += 1.0; }, "Meas::operator +=: scalar add not allowed"},
      {[&] { a -= 1; }, "Meas::operator -=: scalar subtract not allowed"},
      {[&] { a + 2.0f; }, "Meas::operator +=: scalar add not allowed"}};
  for (const auto& [body, text] : aborts) EXPECT_EQ(abort_text(body), text);
  EXPECT_EQ(show(a), "1.5 um") << "nothing changed";
}

TEST(MeasCompare, AbsoluteToleranceInTheLeftUnits) {
  const Meas um(1, "um"), d(2, "nm");
  // Tolerance 1e-6 in the left operand's units; the last rows compare with plain numbers.
  const std::pair<bool, bool> cases[] = {
      {um == Meas(1000, "nm"), true}, {um == Meas(1, "V"), false}, {um != Meas(1, "V"), true},
      {Meas(1e-7, "V") == Meas(0, "V"), true}, {Meas(2e-6, "V") == Meas(0, "V"), false}, {um < Meas(1001, "nm"), true},
      {um < Meas(1000.0005, "nm"), false}, {um <= Meas(1000.0005, "nm"), true}, {um <= Meas(999, "nm"), false},
      {um > Meas(999, "nm"), true}, {um > Meas(999.9995, "nm"), false}, {um >= Meas(1000.0005, "nm"), true},
      {um >= Meas(1001, "nm"), false}, {d == 0.0, false}, {d > 0, true}, {Meas(-1, "nm") < 0L, true},
      {Meas(2.5) == 2.5f, true}, {Meas(2.5) >= 3, false}};
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "row " << i;
  const std::pair<std::function<void()>, const char*> aborts[] = {
      {[&] { (void)(um < Meas(1, "V")); }, "Meas::AbortUnits: Units don't match, V != um"},
      {[&] { (void)(um >= Meas(1, "s")); }, "Meas::AbortUnits: Units don't match, s != um"},
      {[&] { (void)(d == 2.0); }, "Meas::operator ==; scalar == not allowed"},
      {[&] { (void)(d != 2); }, "Meas::operator !=; scalar != not allowed"},
      {[&] { (void)(d < 2L); }, "Meas::operator <; scalar < not allowed"},
      {[&] { (void)(d <= 2.0f); }, "Meas::operator <=; scalar <= not allowed"},
      {[&] { (void)(d > 1.0); }, "Meas::operator >; scalar > not allowed"},
      {[&] { (void)(d >= 1.0); }, "Meas::operator >=; scalar >= not allowed"}};
  for (const auto& [body, text] : aborts) EXPECT_EQ(abort_text(body), text);
}

TEST(MeasRead, ValueUnitsOrBoth) {
  // Each text is read into the measurement the previous one left: characters used, and the result.
  const struct { const char* text; size_t used; const char* after; } steps[] = {
      {"  -2.5e3   um/s  ", 17, "-2500 um/s"}, {"7", 1, "7 um/s"},  // one number keeps the units
      {"mV", 2, "7 mV"},                                            // one unit word keeps the value
      {"5nm", 1, "5 mV"}, {".5", 2, "0.5 mV"}, {"   ", 3, "0.5 mV"},
      {"abc nm", 6, "0 nm"}};  // an unreadable number reads as strtod gives it
  Meas m("5 nm");
  EXPECT_EQ(show(m), "5 nm");
  for (const auto& s : steps) {
    EXPECT_EQ(m.Read(s.text), s.text + s.used) << s.text;
    EXPECT_EQ(show(m), s.after) << s.text;
  }
}

TEST(MeasFormat, SignificantDigitsUnitsAndFixedPoint) {
  // %V: at most 10 decimals, "%6V" asks for six digits, zero has one digit, a precision is ignored;
  // %v: the value as printf's %f; %U: the unit text, which a precision cuts.
  const Meas m(5000, "nm"), rate(5, "nm/V");
  const struct { Meas m; const char* format; const char* want; } cases[] = {
      {3.14159, "%V", "3.142"}, {1.0, "%V", "1.000"}, {12.5, "%V", "12.50"}, {0.5, "%V", "0.5000"},
      {12345.6, "%V", "12346"}, {0.0, "%V", "0"}, {-0.0123, "%V", "-0.01230"}, {1e-20, "%V", "0.0000000000"},
      {3.14159, "%6V", "3.14159"}, {2.0, "%6V|", "2.00000|"}, {0.0, "%-8V|", "0       |"}, {0.0, "%8V|", "       0|"},
      {2.0, "%.1V", "2.000"}, {m, "%8.2v", " 5000.00"}, {m, "%v", "5000.000000"}, {m, "%+.1v", "+5000.0"},
      {rate, "[%-10U]", "[nm/V      ]"}, {rate, "[%6U]", "[  nm/V]"}, {rate, "[%.2U]", "[nm]"},
      {rate, "%%V %V", "%V 5.000"},  // %% is copied to the second pass
      {m, "value: %V %U end", "value: 5000 nm end"}};
  for (const auto& c : cases) EXPECT_EQ(fmt(c.m, c.format), c.want) << c.format << " " << c.m.GetValue();

  // Other directives take the caller's arguments in the second pass.
  char line[128];
  m.AutoScale().sprintf(line);
  EXPECT_STREQ(line, "5.000 um");
  EXPECT_EQ(m.sprintf(line, "%s=%V %U (%d)", "z", 42), 14);
  EXPECT_STREQ(line, "z=5000 nm (42)");
  m.sprintfu(Units("?m"), line, "%V %U, %s", "auto");
  EXPECT_STREQ(line, "5.000 um, auto");
  m.sprintfu(Unit_mm, line, "%.4v %U");
  EXPECT_STREQ(line, "0.0050 mm");
}

TEST(MeasFormat, DebugWritesTheFormattedLine) {
  kvtest::CaptureSink sink;
  kvtest::CategoryScope a(dbgA);
  kvtest::CategoryScope csl(dbgCSL);
  const Meas m(0.0025, "V");
  EXPECT_EQ(m.Debug(), 11 - 1) << "formatted length plus Debug's result";
  m.Debug(dbgCSL, "CSL: bias %V %U (%d)\n", 3);
  const std::string huge(3000, 'x');
  m.Debug("%s\n", huge.c_str());
  const auto entries = sink.entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].logger + ": " + entries[0].text, "Korvalis.A: 0.002500 V\n");
  EXPECT_EQ(entries[1].logger + ": " + entries[1].text, "Korvalis.CSL: CSL: bias 0.002500 V (3)\n");
  EXPECT_EQ(entries[2].text.size(), 1023u) << "cut to the local buffer";
}

TEST(Coord, KindsFollowTheOperands) {
  Coord2D a(1, 2, coordRefCounts);
  const Coord2D b(3, 4, coordRefMicrons), sum = a + b, same = a - Coord2D(0.5f, 1, coordRefCounts);
  a.SetType0("userMicrons");
  Coord2D c(a);
  const Coord2D withA = c + a, withCounts = c + Coord2D(0, 0, coordRefCounts);
  Coord3D p(1, 2, 3, coordUserMicrons);
  const Coord3D one(1, 1, 1, coordUserMicrons), q = p + one;
  const std::pair<std::string, const char*> cases[] = {
      {show(sum), "4,6 invalid/default"}, {show(same), "0.5,1 refCounts/default"}, {show(c), "1,2 refCounts/userMicrons"},
      {show(withA), "2,4 refCounts/userMicrons"}, {show(withCounts), "1,2 refCounts/default"},
      {show(c += b), "4,6 invalid/userMicrons"},  // the in-place forms keep type0
      {show(c -= b), "1,2 invalid/userMicrons"}, {show(Coord2D(static_cast<coordTypeEnum>(7))), "0,0 default/default"},
      {show(Coord2D(static_cast<coordTypeEnum>(-1))), "0,0 default/default"}, {show(q), "2,3,4 userMicrons/default"},
      {show(p -= Coord3D(0, 0, 1, coordRefCounts)), "1,2,2 invalid/default"}};
  for (const auto& [shown, want] : cases) EXPECT_EQ(shown, want);
  // Equality ignores type0.
  const std::pair<bool, bool> equal[] = {
      {a == Coord2D(1, 2, coordRefCounts), true}, {a != Coord2D(1, 2, coordRefMicrons), true},
      {a != Coord2D(1, 2.5f, coordRefCounts), true}, {q != p, true}, {q - one == Coord3D(1, 2, 3, coordUserMicrons), true}};
  for (size_t i = 0; i < std::size(equal); ++i) EXPECT_EQ(equal[i].first, equal[i].second) << "row " << i;
  // Tags are read ignoring case; an unknown or missing tag is the default.
  Coord2D t;
  for (const auto& [tag, type] : {std::pair{"REFMICRONS", coordRefMicrons}, {"microns", coordDefault},
                                  {"UserMicrons", coordUserMicrons}, {nullptr, coordDefault}}) {
    t.SetType(tag);
    EXPECT_EQ(t.GetType(), type) << (tag ? tag : "null");
  }
  p.SetType0("RefCounts");
  EXPECT_STREQ(p.GetType0Tag(), "refCounts");
  EXPECT_EQ(coordTypeTag[5], nullptr);
}
