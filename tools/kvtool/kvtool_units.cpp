// kvtool: units and measurements (convert, auto, show); demo step 50.
#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include "SystemKvCore.h"
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

Meas read_measurement(const std::string& text) { return Meas(from_terminal(text).c_str()); }

int convert(const std::string& measurement, const std::string& target) {
  const Meas m = read_measurement(measurement);
  const Units to(from_terminal(target).c_str());
  if (!m.GetUnits().SameType(to)) {
    std::fprintf(stderr, "kvtool units: cannot convert \"%s\" to \"%s\": the units are incompatible\n",
                 to_terminal(unit_text(m.GetUnits())).c_str(), to_terminal(unit_text(to)).c_str());
    return 1;
  }
  std::printf("%s\n", measurement_text(m.ConvMeas(to)).c_str());
  return 0;
}

int autoscale(const std::string& measurement) {
  std::printf("%s\n", measurement_text(read_measurement(measurement).AutoScale()).c_str());
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
  const Units u(from_terminal(text).c_str());
  std::printf("\"%s\" reads as \"%s\"%s\n", text.c_str(), to_terminal(unit_text(u)).c_str(),
              u.IsScalar() ? " (the scalar unit)" : "");
  show_list("numerator", u.Numerator());
  show_list("denominator", u.Denominator());
  return 0;
}

void setup_units_commands(CLI::App& app, int& exitCode) {
  CLI::App* units = app.add_subcommand("units", "Units and measurements");
  units->require_subcommand(1);
  units->footer("Exit status: 0 on success, 1 when the units are incompatible.");

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
