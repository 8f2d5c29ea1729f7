// Conversion factors checked against an independent unit library (UDUNITS-2)
// for every ordered pair of a set of unit texts: where our units are
// compatible, the factors agree to 1e-12 relative; where UDUNITS-2 refuses to
// convert, ours are incompatible too.
#include <gtest/gtest.h>
#include <udunits2.h>

#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "MEASURE.h"

namespace {

// Length, time, frequency, per time, current, voltage, charge, capacitance,
// force, pressure, resistance, energy, angle, and compounds of them.
const char* const kUnits[] = {
    "m", "km", "mm", "um", "nm", "pm", "fm", "Tm", "s", "ms", "us", "ns", "ps", "Hz", "kHz", "MHz", "GHz",
    "1/s", "1/ms", "A", "mA", "uA", "nA", "pA", "fA", "V", "mV", "uV", "kV", "MV", "C", "mC", "nC", "pC",
    "F", "uF", "nF", "pF", "N", "mN", "uN", "nN", "pN", "Pa", "kPa", "MPa", "GPa", "Ohm", "kOhm", "MOhm",
    "mOhm", "eV", "keV", "MeV", "rad", "mrad", "nm/V", "um/V", "pm/V", "nm/mV", "um/mV", "nA/V", "pA/V",
    "pA/mV", "nm/s", "pm/s", "um/s", "um/ms", "N/m", "nN/m", "mN/m", "nN/nm", "V/s", "mV/ms", "kHz/V",
    "Hz/mV", "m*m", "um*um", "nm*um", "V*s", "mV*ms", "nm/s*s", "um/ms*ms", "pA/nm*V", "fA/um*mV"};

// Our text as UDUNITS-2 spells it: ohm by name, and a compound denominator in parentheses.
std::string theirs(std::string text) {
  static const std::map<std::string, std::string> names = {
      {"Ohm", "ohm"}, {"kOhm", "kiloohm"}, {"MOhm", "megaohm"}, {"mOhm", "milliohm"}};
  if (names.count(text) != 0) return names.at(text);
  const size_t slash = text.find('/');
  if (slash != std::string::npos && text.find('*', slash) != std::string::npos)
    text = text.substr(0, slash + 1) + "(" + text.substr(slash + 1) + ")";
  return text;
}

// Hertz and 1/s have the same dimension, yet our units keep them apart: a
// factor is compared by its unit type.
bool typed_apart(const std::string& a, const std::string& b) {
  const auto per_time = [](const std::string& t) { return t.rfind("1/", 0) == 0; };
  const auto hertz = [](const std::string& t) { return t.find('/') == std::string::npos && t.find("Hz") != std::string::npos; };
  return (per_time(a) && hertz(b)) || (hertz(a) && per_time(b));
}

}  // namespace

TEST(UdunitsSystem, ScaleAgreesForEveryPairAndRefusalsMatch) {
  ut_set_error_message_handler(ut_ignore);
  ut_system* system = ut_read_xml(nullptr);
  ASSERT_NE(system, nullptr) << "the UDUNITS-2 unit database could not be read";
  std::vector<ut_unit*> their;
  std::vector<Units> ours;
  for (const char* text : kUnits) {
    their.push_back(ut_parse(system, theirs(text).c_str(), UT_ASCII));
    EXPECT_NE(their.back(), nullptr) << "UDUNITS-2 cannot read " << theirs(text);
    ours.emplace_back(text);
    // Every text is read as known types: no custom factor slips in.
    for (const UnitList* l : {&ours.back().Numerator(), &ours.back().Denominator()}) {
      UnitIter it(*l);
      for (UnitElt* e = it.First(); e != nullptr; e = it.Next()) EXPECT_NE(UnitType(*e), CustomUnit) << text;
    }
  }
  int agreed = 0, refused = 0, typedApart = 0;
  for (size_t i = 0; i < ours.size(); ++i) {
    for (size_t j = 0; j < ours.size(); ++j) {
      if (their[i] == nullptr || their[j] == nullptr) continue;
      // A value in units j times k is the same quantity in units i. Same dimension: the quotient is
      // dimensionless (UDUNITS-2 also converts between reciprocal units by 1/x, which is no factor).
      const double k = ours[i].Scale(ours[j]);
      ut_unit* q = ut_divide(their[i], their[j]);
      const bool same = q != nullptr && ut_are_convertible(q, ut_get_dimensionless_unit_one(system)) != 0;
      ut_free(q);
      cv_converter* c = same ? ut_get_converter(their[j], their[i]) : nullptr;
      const std::string pair = std::string(kUnits[j]) + " -> " + kUnits[i];
      if (c == nullptr) {
        EXPECT_EQ(k, 0.0) << pair << ": UDUNITS-2 refuses, we convert";
        ++refused;
        continue;
      }
      const double expected = cv_convert_double(c, 1.0);
      cv_free(c);
      if (k == 0.0) {
        EXPECT_TRUE(typed_apart(kUnits[i], kUnits[j])) << pair << ": UDUNITS-2 converts by " << expected << ", we refuse";
        ++typedApart;
        continue;
      }
      EXPECT_LE(std::fabs(k - expected), 1e-12 * std::fabs(expected)) << pair << ": ours " << k << ", UDUNITS-2 " << expected;
      ++agreed;
    }
  }
  for (ut_unit* u : their) ut_free(u);
  ut_free_system(system);
  EXPECT_GT(agreed, 300);
  EXPECT_GT(refused, 4000);
  EXPECT_EQ(typedApart, 2 * 4 * 2) << "hertz against 1/s both ways";
}
