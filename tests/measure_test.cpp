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

// "value units", e.g. "2.5 um/ms".
std::string show(const Meas& m) {
  char value[32];
  std::snprintf(value, sizeof value, "%.10g", m.GetValue());
  return std::string(value) + " " + text_of(m.GetUnits());
}

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
  Meas s(4);
  s += 1;
  s -= 0.5;
  Meas a(1, "um");
  a += Meas(500, "nm");
  Meas sq(3, "nm");
  sq *= sq;
  const Meas rate = Meas(10, "um") / Meas(4, "ms");
  const std::pair<Meas, const char*> cases[] = {
      {d.ConvMeas(Units("pm")), "5000000 pm"},
      {d.AutoScale(), "5 um"},
      {d, "5000 nm"},  // the source is unchanged
      {Meas(0.0025, "V").AutoScale(), "2.5 mV"},
      {Meas(3, "nm/ms").ConvMeas(Units("?m/s")), "3 um/s"},  // converting to an automatic prefix picks it
      {Meas(0.0, "nm").AutoScale(), "0 nm"},
      {Meas(-2.5, "nm/V").Absolute(), "2.5 nm/V"},
      {Meas(-2.5, "nm/V").Invert(), "-0.4 V/nm"},
      {-Meas(-2.5, "nm/V"), "2.5 nm/V"},
      {a, "1.5 um"},
      {a - Meas(2, "mm"), "-1998.5 um"},
      {Meas(1, "V") + Meas(1, "mV"), "1.001 V"},
      {Meas(2, "mm") * Meas(3, "1/m"), "0.006 "},
      {Meas(6, "nm") / Meas(0, "s"), "6 nm/s"},  // a zero divisor only combines the units
      {rate, "2.5 um/ms"},
      {rate * Meas(2, "s"), "5000 um"},
      {sq, "9 nm*nm"},
      {Meas(4, "V") * 2, "8 V"},
      {Meas(4, "V") / 8.0f, "0.5 V"},
      {s + 2L, "6.5 "},
  };
  for (const auto& [m, want] : cases) EXPECT_EQ(show(m), want);
  EXPECT_TRUE(std::isinf((Meas(4, "V") / 0L).GetValue())) << "no check for a zero number";
  EXPECT_EQ(Meas(-2.5, "nm/V").Sign(), -1.0);
  EXPECT_EQ(Meas(0.0).Sign(), 1.0);
  EXPECT_EQ(Meas(std::nan("")).Sign(), -1.0);
  Meas m(-2.5, "nm/V");
  m = Units("um/V");
  EXPECT_EQ(show(m), "-2.5 um/V") << "replacing the units does not convert";
  m = 7.0;
  EXPECT_EQ(show(m), "7 um/V");
  EXPECT_TRUE(m.Clear().IsScalar());
  const Meas copy(m = Meas(3, "s"));
  EXPECT_EQ(text_of(Units(copy)), "s");
  EXPECT_EQ(abort_text([&] { d.GetValue(Unit_V); }), "Meas::AbortUnits: Units don't match, nm != V");
  EXPECT_EQ(abort_text([&] { d.ConvMeas(Units("nm/s")); }), "Meas::AbortUnits: Units don't match, nm != nm/s");
}

TEST(MeasArithmetic, MismatchesAbortWithTheirTexts) {
  Meas a(1, "um");
  EXPECT_EQ(abort_text([&] { a += Meas(1, "V"); }), "Meas::AbortUnits: Units don't match, um != V");
  EXPECT_EQ(abort_text([&] { a - Meas(1, "um/s"); }), "Meas::AbortUnits: Units don't match, um != um/s");
  EXPECT_EQ(abort_text([&] { a += 1.0; }), "Meas::operator +=: scalar add not allowed");
  EXPECT_EQ(abort_text([&] { a -= 1; }), "Meas::operator -=: scalar subtract not allowed");
  EXPECT_EQ(abort_text([&] { a + 2.0f; }), "Meas::operator +=: scalar add not allowed");
  EXPECT_DOUBLE_EQ(a.GetValue(), 1.0) << "nothing changed";
}

TEST(MeasCompare, AbsoluteToleranceInTheLeftUnits) {
  EXPECT_TRUE(Meas(1, "um") == Meas(1000, "nm"));
  EXPECT_FALSE(Meas(1, "um") == Meas(1, "V"));
  EXPECT_TRUE(Meas(1, "um") != Meas(1, "V"));
  EXPECT_TRUE(Meas(1e-7, "V") == Meas(0, "V"));
  EXPECT_FALSE(Meas(2e-6, "V") == Meas(0, "V"));
  EXPECT_TRUE(Meas(1, "um") < Meas(1001, "nm"));
  EXPECT_FALSE(Meas(1, "um") < Meas(1000.0005, "nm")) << "within the tolerance";
  EXPECT_TRUE(Meas(1, "um") <= Meas(1000.0005, "nm"));
  EXPECT_FALSE(Meas(1, "um") <= Meas(999, "nm"));
  EXPECT_TRUE(Meas(1, "um") > Meas(999, "nm"));
  EXPECT_FALSE(Meas(1, "um") > Meas(999.9995, "nm"));
  EXPECT_TRUE(Meas(1, "um") >= Meas(1000.0005, "nm"));
  EXPECT_FALSE(Meas(1, "um") >= Meas(1001, "nm"));
  EXPECT_EQ(abort_text([] { (void)(Meas(1, "um") < Meas(1, "V")); }),
            "Meas::AbortUnits: Units don't match, V != um");
  EXPECT_EQ(abort_text([] { (void)(Meas(1, "um") >= Meas(1, "s")); }),
            "Meas::AbortUnits: Units don't match, s != um");

  const Meas d(2, "nm");
  EXPECT_FALSE(d == 0.0);
  EXPECT_TRUE(d > 0);
  EXPECT_TRUE(Meas(-1, "nm") < 0L);
  EXPECT_TRUE(Meas(2.5) == 2.5f);
  EXPECT_FALSE(Meas(2.5) >= 3);
  EXPECT_EQ(abort_text([&] { (void)(d == 2.0); }), "Meas::operator ==; scalar == not allowed");
  EXPECT_EQ(abort_text([&] { (void)(d != 2); }), "Meas::operator !=; scalar != not allowed");
  EXPECT_EQ(abort_text([&] { (void)(d < 2L); }), "Meas::operator <; scalar < not allowed");
  EXPECT_EQ(abort_text([&] { (void)(d <= 2.0f); }), "Meas::operator <=; scalar <= not allowed");
  EXPECT_EQ(abort_text([&] { (void)(d > 1.0); }), "Meas::operator >; scalar > not allowed");
  EXPECT_EQ(abort_text([&] { (void)(d >= 1.0); }), "Meas::operator >=; scalar >= not allowed");
}

TEST(MeasRead, ValueUnitsOrBoth) {
  // Each text is read into the measurement the previous one left.
  struct Step {
    const char* text;
    size_t used;
    const char* after;
  };
  const Step steps[] = {
      {"  -2.5e3   um/s  ", 17, "-2500 um/s"},
      {"7", 1, "7 um/s"},    // one number keeps the units
      {"mV", 2, "7 mV"},     // one unit word keeps the value
      {"5nm", 1, "5 mV"},
      {".5", 2, "0.5 mV"},
      {"   ", 3, "0.5 mV"},
      {"abc nm", 6, "0 nm"},  // an unreadable number reads as strtod gives it
  };
  Meas m("5 nm");
  EXPECT_EQ(show(m), "5 nm");
  for (const Step& s : steps) {
    EXPECT_EQ(m.Read(s.text), s.text + s.used) << s.text;
    EXPECT_EQ(show(m), s.after) << s.text;
  }
}

TEST(MeasFormat, SignificantDigitsUnitsAndFixedPoint) {
  // At most 10 decimals; "%6V" asks for six digits; zero has one digit; a precision is ignored.
  const struct { double v; const char* format; const char* want; } cases[] = {
      {3.14159, "%V", "3.142"}, {1.0, "%V", "1.000"}, {12.5, "%V", "12.50"}, {0.5, "%V", "0.5000"},
      {12345.6, "%V", "12346"}, {0.0, "%V", "0"}, {-0.0123, "%V", "-0.01230"}, {1e-20, "%V", "0.0000000000"},
      {3.14159, "%6V", "3.14159"}, {2.0, "%6V|", "2.00000|"}, {0.0, "%-8V|", "0       |"},
      {0.0, "%8V|", "       0|"}, {2.0, "%.1V", "2.000"}};
  for (const auto& c : cases) EXPECT_EQ(fmt(Meas(c.v), c.format), c.want) << c.format << " " << c.v;

  const Meas m(5000, "nm");
  char out[64];
  m.AutoScale().sprintf(out);
  EXPECT_STREQ(out, "5.000 um");
  EXPECT_EQ(fmt(m, "%8.2v"), " 5000.00");
  EXPECT_EQ(fmt(m, "%v"), "5000.000000");
  EXPECT_EQ(fmt(m, "%+.1v"), "+5000.0");
  EXPECT_EQ(fmt(Meas(5, "nm/V"), "[%-10U]"), "[nm/V      ]");
  EXPECT_EQ(fmt(Meas(5, "nm/V"), "[%6U]"), "[  nm/V]");
  EXPECT_EQ(fmt(Meas(5, "nm/V"), "[%.2U]"), "[nm]") << "a precision cuts the unit text";
  EXPECT_EQ(fmt(Meas(5, "nm/V"), "%%V %V"), "%V 5.000") << "%% is copied to the second pass";
  EXPECT_EQ(fmt(m, "value: %V %U end"), "value: 5000 nm end");

  // Other directives take the caller's arguments in the second pass.
  char line[128];
  const int n = m.sprintf(line, "%s=%V %U (%d)", "z", 42);
  EXPECT_STREQ(line, "z=5000 nm (42)");
  EXPECT_EQ(n, 14);
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
  EXPECT_EQ(entries[0].logger, "Korvalis.A");
  EXPECT_EQ(entries[0].text, "0.002500 V\n");
  EXPECT_EQ(entries[1].logger, "Korvalis.CSL");
  EXPECT_EQ(entries[1].text, "CSL: bias 0.002500 V (3)\n");
  EXPECT_EQ(entries[2].text.size(), 1023u) << "cut to the local buffer";
}

TEST(Coord, KindsFollowTheOperands) {
  Coord2D a(1, 2, coordRefCounts);
  const Coord2D b(3, 4, coordRefMicrons);
  const Coord2D sum = a + b;
  EXPECT_EQ(sum.x, 4.0f);
  EXPECT_EQ(sum.y, 6.0f);
  EXPECT_STREQ(sum.GetTypeTag(), "invalid");
  const Coord2D same = a - Coord2D(0.5f, 1, coordRefCounts);
  EXPECT_EQ(same.GetType(), coordRefCounts);
  EXPECT_EQ(same.x, 0.5f);

  a.SetType0("userMicrons");
  Coord2D c(a);
  EXPECT_STREQ(c.GetType0Tag(), "userMicrons");
  EXPECT_TRUE(c == Coord2D(1, 2, coordRefCounts)) << "type0 is not compared";
  EXPECT_TRUE(c != Coord2D(1, 2, coordRefMicrons));
  EXPECT_TRUE(c != Coord2D(1, 2.5f, coordRefCounts));
  EXPECT_EQ((c + a).GetType0(), coordUserMicrons);
  EXPECT_EQ((c + Coord2D(0, 0, coordRefCounts)).GetType0(), coordDefault);
  c += b;
  EXPECT_EQ(c.GetType(), coordInvalid);
  EXPECT_EQ(c.GetType0(), coordUserMicrons) << "the in-place forms keep type0";
  c -= b;
  EXPECT_EQ(c.x, 1.0f);

  Coord2D t;
  t.SetType("REFMICRONS");
  EXPECT_EQ(t.GetType(), coordRefMicrons);
  t.SetType("microns");
  EXPECT_EQ(t.GetType(), coordDefault);
  t.SetType(nullptr);
  EXPECT_EQ(t.GetType(), coordDefault);
  EXPECT_STREQ(Coord2D(static_cast<coordTypeEnum>(7)).GetTypeTag(), "default");
  EXPECT_STREQ(Coord2D(static_cast<coordTypeEnum>(-1)).GetTypeTag(), "default");
  EXPECT_STREQ(coordTypeTag[3], "userMicrons");
  EXPECT_EQ(coordTypeTag[5], nullptr);

  Coord3D p(1, 2, 3, coordUserMicrons);
  const Coord3D q = p + Coord3D(1, 1, 1, coordUserMicrons);
  EXPECT_EQ(q.z, 4.0f);
  EXPECT_STREQ(q.GetTypeTag(), "userMicrons");
  EXPECT_TRUE(q != p);
  EXPECT_TRUE(q - Coord3D(1, 1, 1, coordUserMicrons) == p);
  p -= Coord3D(0, 0, 1, coordRefCounts);
  EXPECT_EQ(p.z, 2.0f);
  EXPECT_STREQ(p.GetTypeTag(), "invalid");
  p.SetType0("RefCounts");
  EXPECT_STREQ(p.GetType0Tag(), "refCounts");
}
