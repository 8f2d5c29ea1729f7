// Conversion factors checked against an independent unit library (UDUNITS-2)
// for every ordered pair of a set of unit texts: where our units are
// compatible, the factors agree to 1e-12 relative; where UDUNITS-2 refuses to
// convert, ours are incompatible too.
#include <gtest/gtest.h>
#include <udunits2.h>

#include <cmath>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "MEASURE.h"

namespace {

struct Spelling {
  const char* ours;
  const char* theirs;
  const char* family;  // what the unit measures, to name expected differences
};

// Our text and its spelling in UDUNITS-2 (which writes ohm as a name, wants
// parentheses around a compound denominator, and knows 1/s as hertz).
const Spelling kUnits[] = {
    {"m", "m", "length"},          {"km", "km", "length"},         {"mm", "mm", "length"},
    {"um", "um", "length"},        {"nm", "nm", "length"},         {"pm", "pm", "length"},
    {"fm", "fm", "length"},        {"Tm", "Tm", "length"},         {"s", "s", "time"},
    {"ms", "ms", "time"},          {"us", "us", "time"},           {"ns", "ns", "time"},
    {"ps", "ps", "time"},          {"Hz", "Hz", "frequency"},      {"kHz", "kHz", "frequency"},
    {"MHz", "MHz", "frequency"},   {"GHz", "GHz", "frequency"},    {"1/s", "1/s", "per time"},
    {"1/ms", "1/ms", "per time"},  {"A", "A", "current"},          {"mA", "mA", "current"},
    {"uA", "uA", "current"},       {"nA", "nA", "current"},        {"pA", "pA", "current"},
    {"fA", "fA", "current"},       {"V", "V", "voltage"},          {"mV", "mV", "voltage"},
    {"uV", "uV", "voltage"},       {"kV", "kV", "voltage"},        {"MV", "MV", "voltage"},
    {"C", "C", "charge"},          {"mC", "mC", "charge"},         {"nC", "nC", "charge"},
    {"pC", "pC", "charge"},        {"F", "F", "capacitance"},      {"uF", "uF", "capacitance"},
    {"nF", "nF", "capacitance"},   {"pF", "pF", "capacitance"},    {"N", "N", "force"},
    {"mN", "mN", "force"},         {"uN", "uN", "force"},          {"nN", "nN", "force"},
    {"pN", "pN", "force"},         {"Pa", "Pa", "pressure"},       {"kPa", "kPa", "pressure"},
    {"MPa", "MPa", "pressure"},    {"GPa", "GPa", "pressure"},     {"Ohm", "ohm", "resistance"},
    {"kOhm", "kiloohm", "resistance"}, {"MOhm", "megaohm", "resistance"}, {"mOhm", "milliohm", "resistance"},
    {"eV", "eV", "energy"},        {"keV", "keV", "energy"},       {"MeV", "MeV", "energy"},
    {"rad", "rad", "angle"},       {"mrad", "mrad", "angle"},      {"nm/V", "nm/V", "length/voltage"},
    {"um/V", "um/V", "length/voltage"}, {"pm/V", "pm/V", "length/voltage"}, {"nm/mV", "nm/mV", "length/voltage"},
    {"um/mV", "um/mV", "length/voltage"}, {"nA/V", "nA/V", "conductance"}, {"pA/V", "pA/V", "conductance"},
    {"pA/mV", "pA/mV", "conductance"}, {"nm/s", "nm/s", "speed"},  {"pm/s", "pm/s", "speed"},
    {"um/s", "um/s", "speed"},     {"um/ms", "um/ms", "speed"},    {"N/m", "N/m", "stiffness"},
    {"nN/m", "nN/m", "stiffness"}, {"mN/m", "mN/m", "stiffness"},  {"nN/nm", "nN/nm", "stiffness"},
    {"V/s", "V/s", "voltage rate"}, {"mV/ms", "mV/ms", "voltage rate"}, {"kHz/V", "kHz/V", "tuning"},
    {"Hz/mV", "Hz/mV", "tuning"},  {"m*m", "m*m", "area"},         {"um*um", "um*um", "area"},
    {"nm*um", "nm*um", "area"},    {"V*s", "V*s", "flux"},         {"mV*ms", "mV*ms", "flux"},
    {"nm/s*s", "nm/(s*s)", "acceleration"}, {"um/ms*ms", "um/(ms*ms)", "acceleration"},
    {"pA/nm*V", "pA/(nm*V)", "current/length/voltage"}, {"fA/um*mV", "fA/(um*mV)", "current/length/voltage"},
};

// Families of the same physical dimension that our units keep apart: a
// factor is compared by its unit type, so hertz is not 1/s.
const std::set<std::pair<std::string, std::string>> kTypedApart = {
    {"frequency", "per time"}, {"per time", "frequency"}};

class UdunitsSystem : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ut_set_error_message_handler(ut_ignore);
    system_ = ut_read_xml(nullptr);
  }
  // Same dimension: the quotient is dimensionless. (UDUNITS-2 also converts
  // between reciprocal units, such as hertz and seconds, by 1/x; that is not
  // a conversion factor and counts as a refusal here.)
  static bool same_dimension(const ut_unit* a, const ut_unit* b) {
    ut_unit* q = ut_divide(a, b);
    const bool same = q != nullptr && ut_are_convertible(q, ut_get_dimensionless_unit_one(system_)) != 0;
    ut_free(q);
    return same;
  }
  static void TearDownTestSuite() {
    ut_free_system(system_);
    system_ = nullptr;
  }
  static ut_system* system_;
};

ut_system* UdunitsSystem::system_ = nullptr;

}  // namespace

TEST_F(UdunitsSystem, ScaleAgreesForEveryPairAndRefusalsMatch) {
  ASSERT_NE(system_, nullptr) << "the UDUNITS-2 unit database could not be read";
  const std::size_t n = sizeof kUnits / sizeof kUnits[0];
  ASSERT_GE(n, 60u);

  std::vector<ut_unit*> theirs;
  std::vector<Units> ours;
  for (const Spelling& s : kUnits) {
    ut_unit* u = ut_parse(system_, s.theirs, UT_ASCII);
    EXPECT_NE(u, nullptr) << "UDUNITS-2 cannot read " << s.theirs;
    theirs.push_back(u);
    ours.emplace_back(s.ours);
    // Every text is read as known types: no custom factor slips in.
    for (const UnitList* l : {&ours.back().Numerator(), &ours.back().Denominator()}) {
      UnitIter it(*l);
      for (UnitElt* e = it.First(); e != nullptr; e = it.Next())
        EXPECT_NE(UnitType(*e), CustomUnit) << s.ours;
    }
  }

  int agreed = 0, refused = 0, typedApart = 0;
  for (std::size_t i = 0; i < n; ++i) {
    for (std::size_t j = 0; j < n; ++j) {
      if (theirs[i] == nullptr || theirs[j] == nullptr) continue;
      // A value in units j times k is the same quantity in units i.
      const double k = ours[i].Scale(ours[j]);
      cv_converter* c = same_dimension(theirs[i], theirs[j]) ? ut_get_converter(theirs[j], theirs[i]) : nullptr;
      if (c == nullptr) {
        EXPECT_EQ(k, 0.0) << kUnits[j].ours << " -> " << kUnits[i].ours << ": UDUNITS-2 refuses, we convert";
        ++refused;
        continue;
      }
      const double expected = cv_convert_double(c, 1.0);
      cv_free(c);
      if (k == 0.0) {
        EXPECT_TRUE(kTypedApart.count({kUnits[i].family, kUnits[j].family}) == 1)
            << kUnits[j].ours << " -> " << kUnits[i].ours << ": UDUNITS-2 converts by " << expected
            << ", we refuse";
        ++typedApart;
        continue;
      }
      EXPECT_LE(std::fabs(k - expected), 1e-12 * std::fabs(expected))
          << kUnits[j].ours << " -> " << kUnits[i].ours << ": ours " << k << ", UDUNITS-2 " << expected;
      ++agreed;
    }
  }
  for (ut_unit* u : theirs) ut_free(u);
  EXPECT_GT(agreed, 300);
  EXPECT_GT(refused, 4000);
  EXPECT_EQ(typedApart, 2 * 4 * 2) << "hertz against 1/s both ways";
}

