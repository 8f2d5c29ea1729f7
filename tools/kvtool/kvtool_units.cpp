// kvtool: units and measurements (convert, auto, show); demo step 50.
#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "SystemKvCore.h"
#include "kvtext/text.h"
#include "kvtool.h"

namespace {

// The library writes the degree sign as the single byte 0xBA; a terminal
// speaks UTF-8. Input "º" and "°" become the library's byte, output goes back.
std::string from_terminal(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (static_cast<unsigned char>(text[i]) == 0xC2 && i + 1 < text.size() &&
        (static_cast<unsigned char>(text[i + 1]) == 0xBA || static_cast<unsigned char>(text[i + 1]) == 0xB0)) {
      out += '\xBA';
      ++i;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string to_terminal(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (static_cast<unsigned char>(c) == 0xBA)
      out += "\xC2\xBA";
    else
      out += c;
  }
  return out;
}

std::string unit_text(const Units& u) {
  std::string out(u.WriteSize(), '\0');
  out.resize(std::size_t(u.Write(out.data()) - out.data()));
  return out;
}

// "<value> <units>", the value to four significant digits. The unit text is
// appended as it is (not through the formatter), so any "%" in it stays text.
std::string measurement_text(const Meas& m) {
  char value[400];
  m.sprintf(value, "%V");
  std::string text = value;
  const std::string units = unit_text(m.GetUnits());
  if (!units.empty()) text += " " + units;
  return to_terminal(text);
}

const char* type_name(UnitType t) {
  static const char* const names[] = {"LSB",    "Meter",  "Volt",  "Ampere",     "Hertz",  "Second",    "Coulomb",
                                      "Farad",  "Degree", "Radian", "Newton",    "Ohm",    "DegreeText", "Arb",
                                      "LogArb", "Pascal", "LogPascal", "ElectronVolt", "CustomUnit"};
  const int i = static_cast<int>(t);
  return (i >= 0 && i <= CustomUnit) ? names[i] : "(unknown)";
}

const char* prefix_name(Prefix p) {
  static const char* const names[] = {"Tera",  "Giga",  "Mega", "Kilo",  "none (NoPrefix)", "Milli",
                                      "Micro", "Nano",  "Pico", "Femto", "AutoPrefix"};
  const int i = UnitElt::EnumToIndex(p);
  return (i >= 0 && i <= 10) ? names[i] : "(unknown)";
}

constexpr size_t kUnitLimit = 10;  // characters the library keeps of one unit factor

using kvtext::is_blank;

// Why the library would cut a factor of a unit text (it keeps 10 characters
// of each); empty when it keeps them all.
std::string unit_problem(const std::string& text) {
  for (const std::string& factor : kvtext::split(text, "*/")) {
    const std::string_view unit = kvtext::trim_blanks(factor);
    if (unit.size() > kUnitLimit)
      return "the unit \"" + std::string(unit) + "\" has " + std::to_string(unit.size()) +
             " characters; the library keeps at most " + std::to_string(kUnitLimit) + " and would cut it";
  }
  return {};
}

// Reads "<value> <units>" as the user wrote it. A value that is not a finite
// number, or units the library would cut, are refused with a message that
// names the text.
bool read_measurement(const char* command, const std::string& text, Meas& out) {
  size_t at = 0;
  while (at < text.size() && is_blank(text[at])) ++at;
  size_t end = at;
  while (end < text.size() && !is_blank(text[end])) ++end;
  size_t units = end;
  while (units < text.size() && is_blank(text[units])) ++units;
  const std::string number = text.substr(at, end - at);
  std::string problem;
  char* stop = nullptr;
  const double value = std::strtod(number.c_str(), &stop);
  if (number.empty())
    problem = "there is no value";
  else if (stop == number.c_str())
    problem = "\"" + number + "\" is not a number";
  else if (*stop != '\0')
    problem = "\"" + number + "\" is not a number (a blank separates the value from its units: \"" +
              number.substr(0, size_t(stop - number.c_str())) + " " + stop + "\")";
  else if (!std::isfinite(value))
    problem = "its value is not a finite number";
  else
    problem = unit_problem(text.substr(units));
  if (!problem.empty()) {
    std::fprintf(stderr, "kvtool units %s: \"%s\": %s\n", command, text.c_str(), problem.c_str());
    return false;
  }
  out = Meas(from_terminal(text).c_str());
  return true;
}

// Reads a unit text; refused (with a message) when the library would cut it.
bool read_units(const char* command, const std::string& text, Units& out) {
  const std::string problem = unit_problem(text);
  if (!problem.empty()) {
    std::fprintf(stderr, "kvtool units %s: \"%s\": %s\n", command, text.c_str(), problem.c_str());
    return false;
  }
  out = Units(from_terminal(text).c_str());
  return true;
}

int convert(const std::string& measurement, const std::string& target) {
  Meas m;
  Units to;
  if (!read_measurement("convert", measurement, m) || !read_units("convert", target, to)) return 1;
  if (!m.GetUnits().SameType(to)) {
    std::fprintf(stderr, "kvtool units convert: cannot convert \"%s\" to \"%s\": the units are incompatible\n",
                 measurement.c_str(), target.c_str());
    return 1;
  }
  std::printf("%s\n", measurement_text(m.ConvMeas(to)).c_str());
  return 0;
}

int autoscale(const std::string& measurement) {
  Meas m;
  if (!read_measurement("auto", measurement, m)) return 1;
  std::printf("%s\n", measurement_text(m.AutoScale()).c_str());
  return 0;
}

void show_list(const char* title, const UnitList& list) {
  if (list.NumberOfUnits() == 0) {
    std::printf("  %-12s (none)\n", title);
    return;
  }
  UnitIter it(list);
  bool first = true;
  for (UnitElt* e = it.First(); e != nullptr; e = it.Next(), first = false) {
    char written[16];
    e->Write(written);
    const UnitType t = *e;
    // Padded on the library's bytes, then converted for the terminal.
    char row[160];
    if (t == CustomUnit)
      std::snprintf(row, sizeof row, "  %-12s %-10s type %-12s (custom text \"%s\")", first ? title : "", written,
                    type_name(t), e->CustomText() != nullptr ? e->CustomText() : "");
    else
      std::snprintf(row, sizeof row, "  %-12s %-10s type %-12s prefix %-16s scale %g", first ? title : "", written,
                    type_name(t), prefix_name(*e), e->Scale());
    std::printf("%s\n", to_terminal(row).c_str());
  }
}

int show(const std::string& text) {
  Units u;
  if (!read_units("show", text, u)) return 1;
  std::printf("\"%s\" reads as \"%s\"%s\n", text.c_str(), to_terminal(unit_text(u)).c_str(),
              u.IsScalar() ? " (the scalar unit)" : "");
  show_list("numerator", u.Numerator());
  show_list("denominator", u.Denominator());
  return 0;
}

void setup_units_commands(CLI::App& app, int& exitCode) {
  CLI::App* units = app.add_subcommand("units", "Units and measurements");
  units->require_subcommand(1);
  units->footer(
      "Values must be finite numbers, separated from their units by a blank; a unit keeps at most 10\n"
      "characters. A negative value goes after \"--\": kvtool units auto -- \"-5 V\"\n"
      "Exit status: 0 on success, 1 when the text is refused or the units are incompatible, 2 on a usage error.");

  auto measurement = std::make_shared<std::string>();
  auto target = std::make_shared<std::string>();
  CLI::App* conv = units->add_subcommand("convert", "Convert a measurement (\"5000 nm\") to other units (um, ?m/s, ...)");
  conv->add_option("measurement", *measurement, "Value and units, separated by a blank")->required();
  conv->add_option("units", *target, "Units to convert to; a \"?\" prefix is chosen to suit the value")->required();
  conv->callback([measurement, target, &exitCode] { exitCode = convert(*measurement, *target); });

  auto autoText = std::make_shared<std::string>();
  CLI::App* autoCmd = units->add_subcommand("auto", "Give a measurement the prefix that suits its value");
  autoCmd->add_option("measurement", *autoText, "Value and units, separated by a blank")->required();
  autoCmd->callback([autoText, &exitCode] { exitCode = autoscale(*autoText); });

  auto showText = std::make_shared<std::string>();
  CLI::App* showCmd = units->add_subcommand("show", "Show how a unit text is read: factors, types and prefixes");
  showCmd->add_option("units", *showText, "Unit text such as nm/V*s")->required();
  showCmd->callback([showText, &exitCode] { exitCode = show(*showText); });
}

int demo_units() {
  int failures = 0;
  auto line = [&failures](const std::string& what, const std::string& got, const std::string& expected) {
    std::printf("  %-34s -> %s\n", what.c_str(), got.c_str());
    if (got != expected) {
      std::printf("    expected %s\n", expected.c_str());
      ++failures;
    }
  };
  line("5000 nm, automatic prefix", measurement_text(Meas(5000, "nm").AutoScale()), "5.000 um");
  line("0.0025 V, automatic prefix", measurement_text(Meas(0.0025, "V").AutoScale()), "2.500 mV");
  line("3 nm/ms in ?m/s", measurement_text(Meas(3, "nm/ms").ConvMeas(Units("?m/s"))), "3.000 um/s");
  line("2 mm * 3 1/m", measurement_text(Meas(2, "mm") * Meas(3, "1/m")), "0.006000");
  line("6 nm / 0 s (units only)", measurement_text(Meas(6, "nm") / Meas(0, "s")), "6.000 nm/s");
  char k[32];
  std::snprintf(k, sizeof k, "%g", Units("nm/V").Scale(Units("um/mV")));
  line("factor from um/mV to nm/V", k, "1e+06");
  const Units pA("pA"), Pa("Pa");
  line("\"pA\" and \"Pa\" read as", std::string(type_name(*pA.Numerator().FirstUnit())) + " (" +
                                       prefix_name(*pA.Numerator().FirstUnit()) + "), " +
                                       type_name(*Pa.Numerator().FirstUnit()),
       "Ampere (Pico), Pascal");
  try {
    (void)(Meas(1, "um") < Meas(1, "V"));
    line("1 um < 1 V", "no abort", "an abort");
  } catch (const SysManagerError& e) {
    line("1 um < 1 V", std::string("aborts: ") + e.what(), "aborts: Meas::AbortUnits: Units don't match, V != um");
  }
  return failures == 0 ? 0 : 1;
}

[[maybe_unused]] const bool registered =
    kvtool::register_command(setup_units_commands) && kvtool::register_demo_step(50, "Units and measurements", demo_units);

}  // namespace
